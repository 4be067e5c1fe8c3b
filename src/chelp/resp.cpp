#include "chelp/resp.h"

#include <cmath>

#include "chelp/esp_points.h"

namespace kvx::chelp {

namespace {

// Single-bond covalent radii of Cordero et al. (2008), angstrom, Z = 1..18
// (carbon: sp3), Br and I; other elements 1.5.
double covalent_radius(int Z) {
    constexpr double r[19] = {0.0,  0.31, 0.28, 1.28, 0.96, 0.84, 0.76, 0.71, 0.66, 0.57,
                              0.58, 1.66, 1.41, 1.21, 1.11, 1.07, 1.05, 1.02, 1.06};
    if (Z >= 1 && Z <= 18) return r[Z];
    if (Z == 35) return 1.20;
    if (Z == 53) return 1.39;
    return 1.5;
}

}  // namespace

std::vector<std::vector<int>> bonded_neighbours(const std::vector<moldata::Atom>& atoms) {
    const std::size_t n = atoms.size();
    std::vector<std::vector<int>> nb(n);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < i; ++j) {
            const double dx = atoms[i].x - atoms[j].x, dy = atoms[i].y - atoms[j].y, dz = atoms[i].z - atoms[j].z;
            const double limit = 1.2 * kBohrPerAngstrom *
                                 (covalent_radius(atoms[i].atomic_number) + covalent_radius(atoms[j].atomic_number));
            if (dx * dx + dy * dy + dz * dz < limit * limit) {
                nb[i].push_back(static_cast<int>(j));
                nb[j].push_back(static_cast<int>(i));
            }
        }
    return nb;
}

std::vector<int> stage_two_groups(const std::vector<moldata::Atom>& atoms) {
    const auto nb = bonded_neighbours(atoms);
    std::vector<int> group(atoms.size(), -1);
    int next = 0;
    for (std::size_t c = 0; c < atoms.size(); ++c) {
        if (atoms[c].atomic_number != 6 || nb[c].size() != 4) continue;
        group[c] = next++;
        std::vector<int> hs;
        for (int j : nb[c])
            if (atoms[j].atomic_number == 1 && group[j] < 0) hs.push_back(j);
        const bool shared = hs.size() == 2 || hs.size() == 3;
        if (shared) {
            for (int h : hs) group[h] = next;
            ++next;
        } else {
            for (int h : hs) group[h] = next++;
        }
    }
    return group;
}

RespResult resp_fit(const NormalEquations& ne, const FitData& data, const std::vector<moldata::Atom>& atoms,
                    const FitSpec& base, const RespSettings& settings) {
    RespResult r;
    FitSpec s1 = base;
    s1.group.clear();
    s1.b = settings.b;
    s1.tolerance = settings.tolerance;
    s1.max_iterations = settings.max_iterations;
    s1.a.assign(atoms.size(), 0.0);
    for (std::size_t i = 0; i < atoms.size(); ++i)
        if (atoms[i].atomic_number != 1) s1.a[i] = settings.a1;
    r.stage1 = fit_charges(ne, data, atoms, s1);
    r.refit = stage_two_groups(atoms);
    bool any = false;
    for (int g : r.refit) any = any || g >= 0;
    if (!r.stage1.error.empty() || !any) {
        r.stage2 = r.stage1;
        return r;
    }
    r.has_stage2 = true;
    FitSpec s2 = s1;
    s2.group = r.refit;
    s2.fixed = r.stage1.q;
    for (std::size_t i = 0; i < atoms.size(); ++i) s2.a[i] = atoms[i].atomic_number != 1 ? settings.a2 : 0.0;
    r.stage2 = fit_charges(ne, data, atoms, s2);
    return r;
}

}  // namespace kvx::chelp
