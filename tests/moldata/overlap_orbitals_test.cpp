// The overlap matrix of real SCF jobs: the converged orbitals must be
// orthonormal in it, C S C^T = 1. The orbitals come from an independent SCF
// program (tests/data/*/reference.txt names it), so this checks integrals,
// normalisation convention, spherical/cartesian handling and the scatter
// against another code's metric.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "moldata/molecule.h"
#include "moldata/reader.h"

using kvx::moldata::Molecule;
using kvx::moldata::OrbitalSet;
using kvx::moldata::TriMatrix;

namespace {

// Largest |C S C^T - 1| over all orbital pairs of the set.
double orthonormality_error(const OrbitalSet& set, const TriMatrix& S) {
    const int n = S.n;
    std::vector<double> sc(static_cast<std::size_t>(n));
    double worst = 0.0;
    for (int i = 0; i < set.count; ++i) {
        const double* ci = set.coef.row(i);
        for (int k = 0; k < n; ++k) {
            double s = 0;
            for (int l = 0; l < n; ++l) s += S.sym(k, l) * ci[l];
            sc[k] = s;
        }
        for (int j = 0; j <= i; ++j) {
            const double* cj = set.coef.row(j);
            double v = 0;
            for (int k = 0; k < n; ++k) v += cj[k] * sc[k];
            worst = std::max(worst, std::fabs(v - (i == j ? 1.0 : 0.0)));
        }
    }
    return worst;
}

}  // namespace

// The files hold full doubles of orbitals orthonormalised to rounding by the
// SCF program; what separates its metric from ours is at most the 11-digit
// normalisation constants K of the basis format (relative 2e-11 per
// function), so 1e-10 is a safe bound. (Seen: about 1e-14.)
TEST(OverlapOrbitals, WaterRhfOrbitalsAreOrthonormal) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water");
    ASSERT_TRUE(mol);
    ASSERT_TRUE(mol->overlap);
    ASSERT_TRUE(mol->alpha);
    ASSERT_EQ(mol->overlap->n, mol->nbasis);
    ASSERT_EQ(mol->alpha->coef.cols, mol->nbasis);
    ASSERT_EQ(mol->alpha->count, mol->nbasis);
    EXPECT_LT(orthonormality_error(*mol->alpha, *mol->overlap), 1e-10);
    // Cartesian d6 shell on oxygen: xx, yy, zz have 3 on the diagonal.
    for (const auto& sh : mol->shells)
        if (sh.type == 5) {
            EXPECT_NEAR(mol->overlap->at(sh.nfirst - 1, sh.nfirst - 1), 3.0, 1e-9);
            EXPECT_NEAR(mol->overlap->at(sh.nfirst + 2, sh.nfirst + 2), 1.0, 1e-9);
        }
}

TEST(OverlapOrbitals, HydroxylUhfAlphaAndBetaOrbitalsAreOrthonormal) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/ohrad/ohrad");
    ASSERT_TRUE(mol);
    ASSERT_TRUE(mol->overlap);
    ASSERT_TRUE(mol->alpha);
    ASSERT_TRUE(mol->beta);
    ASSERT_EQ(mol->beta->count, mol->nbasis);
    EXPECT_LT(orthonormality_error(*mol->alpha, *mol->overlap), 1e-10);
    EXPECT_LT(orthonormality_error(*mol->beta, *mol->overlap), 1e-10);
}
