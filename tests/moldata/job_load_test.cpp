// End-to-end loads of the real SCF jobs in tests/data (water: RHF/6-31G*,
// ohrad: UHF/6-31G*), checked against the reference orbital values that the
// SCF program itself produced at scattered points.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "moldata/molecule.h"
#include "moldata/reader.h"

using namespace kvx::moldata;

namespace {

// Every basis function at r, straight from the shells: sum over primitives
// of coef * prefact * exp(-a |r - A|^2) * x^ax y^ay z^az (cartesian shells).
std::vector<double> basis_values(const Molecule& mol, double x, double y, double z) {
    std::vector<double> v(static_cast<std::size_t>(mol.nbasis), 0.0);
    for (const Shell& s : mol.shells) {
        const double dx = x - s.center->x, dy = y - s.center->y, dz = z - s.center->z;
        const double r2 = dx * dx + dy * dy + dz * dz;
        for (int g = 0; g < s.ngc; ++g) {
            for (int k = 0; k < s.size; ++k) {
                const CartExp e = type_exponents(s.type, k);
                const int col = s.type == 3 ? (k == 0 ? 0 : 1) : g;
                double radial = 0;
                for (int p = 0; p < s.nprim; ++p)
                    radial += s.coef(p, col) * (*s.prefact)[p] * std::exp(-s.exponent(p) * r2);
                v[s.nfirst - 1 + g * s.size + k] =
                    radial * std::pow(dx, e.x) * std::pow(dy, e.y) * std::pow(dz, e.z);
            }
        }
    }
    return v;
}

struct Reference {
    std::vector<std::string> names;
    std::vector<std::vector<double>> rows;
    int column(const std::string& name) const {
        for (std::size_t i = 0; i < names.size(); ++i)
            if (names[i] == name) return static_cast<int>(i);
        return -1;
    }
};

Reference load_reference(const std::string& path) {
    Reference ref;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ss(line);
        if (ref.names.empty()) {
            for (std::string w; ss >> w;) ref.names.push_back(w);
            continue;
        }
        std::vector<double> row;
        for (double d; ss >> d;) row.push_back(d);
        ref.rows.push_back(row);
    }
    return ref;
}

double orbital_value(const OrbitalSet& set, int k, const std::vector<double>& phi) {
    double s = 0;
    for (std::size_t i = 0; i < phi.size(); ++i) s += set.coef.row(k)[i] * phi[i];
    return s;
}

// The reference values carry 13 significant digits and the orbital sign is
// the file's own, so agreement to 1e-9 (relative to the largest value,
// about 2.5) can only come from the same functions, order and coefficients.
void check_against_reference(const Molecule& mol, const std::string& ref_path, const char* set_name,
                             const OrbitalSet& set, std::initializer_list<int> orbitals) {
    const Reference ref = load_reference(ref_path);
    ASSERT_GE(ref.rows.size(), 50u);
    for (int k : orbitals) {
        const int col = ref.column(std::string(set_name) + std::to_string(k) + "_std");
        ASSERT_GE(col, 0) << set_name << k;
        for (const auto& row : ref.rows) {
            const auto phi = basis_values(mol, row[0], row[1], row[2]);
            EXPECT_NEAR(orbital_value(set, k - 1, phi), row[col], 1e-9) << set_name << k << " at " << row[0];
        }
    }
}

}  // namespace

TEST(JobLoad, WaterCountsAtomsBasisAndOrbitalValues) {
    const std::string job = KVX_TEST_DATA "/water/water";
    auto mol = build_molecule(job);
    ASSERT_TRUE(mol);
    EXPECT_EQ(mol->natoms, 3);
    EXPECT_EQ(mol->nbasis, 19);
    EXPECT_EQ(mol->nshell, 10);
    EXPECT_EQ(mol->restricted, 1);
    EXPECT_EQ(mol->nalpha, 5);
    ASSERT_EQ(mol->atoms.size(), 3u);
    EXPECT_EQ(mol->atoms[1].symbol, "H1");
    EXPECT_EQ(mol->atoms[1].atomic_number, 1);
    EXPECT_EQ(mol->atoms[0].atomic_number, 8);
    EXPECT_DOUBLE_EQ(mol->atoms[0].nuclear_charge, 8.0);
    EXPECT_DOUBLE_EQ(mol->atoms[2].extra, 1.0078);
    ASSERT_EQ(mol->shells.size(), 10u);
    // Sorted: s shells first (most primitives first, O before H at equal
    // nprim), then p, then d6; functions numbered in that order.
    const int types[10] = {1, 1, 1, 1, 1, 1, 1, 2, 2, 5};
    const int nprims[10] = {6, 3, 3, 3, 1, 1, 1, 3, 1, 1};
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(mol->shells[i].type, types[i]) << i;
        EXPECT_EQ(mol->shells[i].nprim, nprims[i]) << i;
    }
    EXPECT_EQ(mol->shells[1].center->atomic_number, 8);  // O's 3-primitive s before the H ones
    EXPECT_EQ(mol->shells[9].nfirst, 14);
    EXPECT_EQ(mol->shells[8].nfirst, 11);
    // Both hydrogens share one normalised copy of the H data.
    EXPECT_EQ(mol->shells[2].basdat, mol->shells[3].basdat);
    EXPECT_NE(mol->shells[2].center, mol->shells[3].center);

    ASSERT_TRUE(mol->alpha);
    EXPECT_EQ(mol->alpha->count, 19);
    EXPECT_EQ(mol->alpha->valid, 1);
    EXPECT_TRUE(mol->alpha->has_energy);
    EXPECT_FALSE(mol->beta);
    EXPECT_FALSE(mol->localized);
    EXPECT_FALSE(mol->density_beta);
    ASSERT_TRUE(mol->density && mol->density_alpha);
    EXPECT_NE(mol->density, mol->density_alpha);
    EXPECT_EQ(mol->density->at(0, 0), 2 * mol->density_alpha->at(0, 0));
    ASSERT_TRUE(mol->flags);
    EXPECT_EQ((*mol->flags)[DataFlags::kDensity], 1);
    EXPECT_EQ((*mol->flags)[DataFlags::kAlpha], 1);
    EXPECT_EQ((*mol->flags)[DataFlags::kBeta], 0);
    EXPECT_EQ((*mol->flags)[DataFlags::kOccupied], 1);
    EXPECT_FALSE(mol->symmetry);  // no ".sym" file

    check_against_reference(*mol, KVX_TEST_DATA "/water/reference.txt", "alpha", *mol->alpha, {1, 5, 6});
}

TEST(JobLoad, OhRadicalIsUnrestrictedWithBothSpins) {
    auto mol = build_molecule(KVX_TEST_DATA "/ohrad/ohrad");
    ASSERT_TRUE(mol);
    EXPECT_EQ(mol->restricted, 0);
    EXPECT_EQ(mol->nalpha, 5);
    EXPECT_EQ(mol->nbeta, 4);
    EXPECT_EQ(mol->natoms, 2);
    ASSERT_TRUE(mol->alpha && mol->beta);
    EXPECT_EQ(mol->alpha->count, mol->nbasis);
    EXPECT_EQ(mol->beta->count, mol->nbasis);
    ASSERT_TRUE(mol->density && mol->density_alpha && mol->density_beta);
    // Total = Pa + Pb element by element.
    for (int i = 0; i < mol->nbasis; ++i)
        for (int j = 0; j <= i; ++j)
            ASSERT_EQ(mol->density->at(i, j), mol->density_alpha->at(i, j) + mol->density_beta->at(i, j));
    EXPECT_EQ((*mol->flags)[DataFlags::kBeta], 1);
    EXPECT_EQ((*mol->flags)[DataFlags::kOccupied], 1);

    check_against_reference(*mol, KVX_TEST_DATA "/ohrad/reference.txt", "alpha", *mol->alpha, {1, 5, 6});
    check_against_reference(*mol, KVX_TEST_DATA "/ohrad/reference.txt", "beta", *mol->beta, {1, 4, 5});
}
