#include "main/select.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/fatal.h"

namespace kvx::main {

using moldata::DataFlags;
using moldata::Molecule;
using moldata::OrbitalSet;

namespace {

struct TypeInfo {
    int flag;
    const char* missing;
};

TypeInfo type_info(int type) {
    switch (type) {
        case -2: return {DataFlags::kLocalizedBeta, "Localized Beta Orbitals not available for current molecule"};
        case -1: return {DataFlags::kBeta, "Beta Orbitals not available for current molecule"};
        case 0: return {DataFlags::kNatural, "Natural Orbitals not available for current molecule"};
        case 1: return {DataFlags::kAlpha, "Alpha Orbitals not available for current molecule"};
        default: return {DataFlags::kLocalized, "Localized Alpha Orbitals not available for current molecule"};
    }
}

// Value of a selected orbital: 1, or the natural occupation for type 0.
double selected_value(const OrbitalSet& set, int type, int k) {
    if (type != 0) return 1.0;
    return set.has_energy && k < static_cast<int>(set.energy.size()) ? set.energy[static_cast<std::size_t>(k)] : 0.0;
}

// Orbitals past the end of the set are reported one by one; a range running
// far past the end is cut after this many reports.
constexpr int kMaxReportsPerItem = 256;

}  // namespace

const OrbitalSet* orbital_set_of_type(const Molecule& mol, int type) {
    switch (type) {
        case -2: return mol.localized_beta.get();
        case -1: return mol.beta.get();
        case 0: return mol.natural.get();
        case 1: return mol.alpha.get();
        case 2: return mol.localized.get();
        default: return nullptr;
    }
}

std::optional<std::vector<double>> select_mos(const Molecule& mol, char* list, int type, int negate) {
    if (type < -2 || type > 2) {
        std::printf("Kalvex select_mos; orbital type %d not supported\n", type);
        return std::nullopt;
    }
    const TypeInfo info = type_info(type);
    const DataFlags flags = mol.flags ? *mol.flags : moldata::compute_flags(mol);
    const OrbitalSet* set = orbital_set_of_type(mol, type);
    if (!flags[info.flag] || !set) {
        std::puts(info.missing);
        return std::nullopt;
    }

    const int n = set->count;
    std::vector<double> occ;
    if (!common::try_alloc([&] { occ.assign(static_cast<std::size_t>(n), 0.0); })) {
        std::printf("Kalvex select_mos; cannot allocate");
        return std::nullopt;
    }

    if (!list) {
        if (type == 0) {
            for (int k = 0; k < n; ++k) occ[static_cast<std::size_t>(k)] = selected_value(*set, 0, k);
        } else {
            int nocc = (type > 0) ? mol.nalpha : mol.nbeta;
            if (nocc > n) nocc = n;
            for (int k = 0; k < nocc; ++k) occ[static_cast<std::size_t>(k)] = 1.0;
        }
    } else {
        int a = 0, b = 0;  // kept from the previous item when one cannot be read
        char* save = nullptr;
        for (char* item = strtok_r(list, ",", &save); item; item = strtok_r(nullptr, ",", &save)) {
            int x = 0, y = 0;
            char dash = 0;
            if (item[0] == '-') {
                if (std::sscanf(item, "-%d", &y) == 1) {  // -b: 1 .. b
                    a = 1;
                    b = y;
                }
            } else {
                const int got = std::sscanf(item, "%d%c%d", &x, &dash, &y);
                if (got == 3 && dash == '-') {  // a-b
                    a = x;
                    b = y;
                } else if (got == 2 && dash == '-') {  // a-: a .. last
                    a = x;
                    b = n;
                } else if (got >= 1) {  // a
                    a = x;
                    b = x;
                }
            }
            if (a < 1) continue;
            int reports = 0;
            for (long k = a; k <= b; ++k) {
                if (k <= n) {
                    occ[static_cast<std::size_t>(k - 1)] = selected_value(*set, type, static_cast<int>(k - 1));
                } else {
                    // The position printed is zero-based: one less than the
                    // number the user wrote. Intended.
                    std::printf("Kalvex select_mos; mo no. %ld cannot be included in the list\n", k - 1);
                    if (++reports >= kMaxReportsPerItem) break;
                }
            }
        }
    }

    for (double& v : occ) {
        if (std::fabs(v) < 1e-7) v = 0.0;
        if (negate && v != 0.0) v = -v;
        if (mol.restricted && v != 0.0) v *= 2.0;  // two electrons per spatial orbital
    }
    return occ;
}

}  // namespace kvx::main
