// Spherical transform of cartesian integral blocks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "moldata/shell_types.h"
#include "moldata/spherical.h"
#include "moldata/sph_reference.h"

using kvx::moldata::CartExp;
using kvx::moldata::spherical_transform;
using kvx::moldata::type_exponents;

namespace {

using kvx::test::DenseMatrix;
using kvx::test::sandwich;

DenseMatrix d_matrix() { return kvx::test::sph_matrix(4); }
DenseMatrix f_matrix() { return kvx::test::sph_matrix(6); }
DenseMatrix identity(int n) { return kvx::test::identity_matrix(n); }

// Deterministic, non-symmetric fill so that a swapped row/column shows.
void fill(std::vector<double>& v) {
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = std::sin(0.37 * static_cast<double>(i) + 0.1) + 0.01 * i;
}

// Runs the transform on nblocks blocks of ncA x ncB sub-blocks and checks
// every packed output sub-block against TA M TB^T.
void check_pair(int typeA, int typeB, int ncA, int ncB, const DenseMatrix& TA, const DenseMatrix& TB) {
    const int ca = static_cast<int>(TA[0].size()), cb = static_cast<int>(TB[0].size());
    const int ra = static_cast<int>(TA.size()), rb = static_cast<int>(TB.size());
    const std::size_t sub = static_cast<std::size_t>(ca) * cb;
    const std::size_t stride = sub * ncA * ncB + 7;  // blocks need not be packed
    const int nblocks = 3;
    std::vector<double> v(stride * nblocks);
    fill(v);
    const std::vector<double> orig = v;
    spherical_transform(v.data(), nblocks, stride, typeA, typeB, ncA, ncB);
    for (int k = 0; k < nblocks; ++k)
        for (int s = 0; s < ncA * ncB; ++s) {
            auto want = sandwich(TA, TB, orig.data() + k * stride + s * sub, ca, cb);
            const double* got = v.data() + k * stride + s * static_cast<std::size_t>(ra) * rb;
            for (std::size_t i = 0; i < want.size(); ++i)
                ASSERT_NEAR(got[i], want[i], 1e-13) << "block " << k << " sub " << s << " element " << i;
        }
}

}  // namespace

TEST(SphericalTransform, DWithSTurnsSixRowsIntoFive) {
    // Single 6x1 block, values chosen by hand: xx=1, yy=2, zz=3, xy=4, xz=5, yz=6.
    double b[6] = {1, 2, 3, 4, 5, 6};
    spherical_transform(b, 1, 6, 4, 1, 1, 1);
    EXPECT_NEAR(b[0], (6.0 - 1.0 - 2.0) / (2.0 * std::sqrt(3.0)), 1e-15);
    EXPECT_NEAR(b[1], -0.5, 1e-15);
    EXPECT_EQ(b[2], 4.0);
    EXPECT_EQ(b[3], 5.0);
    EXPECT_EQ(b[4], 6.0);
    EXPECT_EQ(b[5], 6.0);  // beyond the packed block: untouched
    // s with d: one row of 6 columns becomes 5 columns.
    double c[6] = {1, 2, 3, 4, 5, 6};
    spherical_transform(c, 1, 6, 1, 4, 1, 1);
    EXPECT_NEAR(c[0], 3.0 / (2.0 * std::sqrt(3.0)), 1e-15);
    EXPECT_NEAR(c[1], -0.5, 1e-15);
}

TEST(SphericalTransform, MatchesDenseCombinationMatrices) {
    check_pair(4, 1, 2, 3, d_matrix(), identity(1));
    check_pair(4, 4, 2, 2, d_matrix(), d_matrix());
    check_pair(6, 6, 1, 1, f_matrix(), f_matrix());  // 10x10 -> 7x7
    check_pair(6, 4, 2, 1, f_matrix(), d_matrix());
    // Only one side spherical: the cartesian side keeps its count, the
    // sub-blocks are still packed to the new size.
    check_pair(5, 4, 2, 2, identity(6), d_matrix());
    check_pair(3, 6, 1, 1, identity(4), f_matrix());
    check_pair(6, 2, 1, 3, f_matrix(), identity(3));
    check_pair(7, 6, 1, 2, identity(10), f_matrix());
}

TEST(SphericalTransform, LeavesCartesianAndTypeThirteenUntouched) {
    for (auto [ta, tb, n] : {std::tuple{13, 13, 28 * 28}, std::tuple{5, 7, 60}, std::tuple{3, 10, 4 * 28},
                             std::tuple{13, 1, 28}}) {
        std::vector<double> v(static_cast<std::size_t>(n) * 2);
        fill(v);
        const std::vector<double> orig = v;
        spherical_transform(v.data(), 1, v.size(), ta, tb, 2, 1);
        EXPECT_EQ(0, std::memcmp(v.data(), orig.data(), v.size() * sizeof(double))) << ta << " " << tb;
    }
}

// Every combination of types 4, 6, 11, 12 must be a harmonic polynomial
// (Laplacian zero), and the set must span the 2l+1 harmonics of degree l.
// Coefficients are read back by transforming unit vectors.
TEST(SphericalTransform, CombinationsAreIndependentSolidHarmonics) {
    for (int type : {4, 6, 11, 12}) {
        const int l = kvx::moldata::kAngular[type];
        const int ncart = kvx::moldata::kCartCount[type];
        const int nsph = kvx::moldata::kShellSize[type];
        ASSERT_EQ(nsph, 2 * l + 1);
        // rows[m][k]: coefficient of cartesian component k in function m.
        std::vector<std::vector<double>> rows(nsph, std::vector<double>(ncart));
        for (int k = 0; k < ncart; ++k) {
            std::vector<double> e(ncart, 0.0);
            e[k] = 1.0;
            spherical_transform(e.data(), 1, ncart, type, 1, 1, 1);
            for (int m = 0; m < nsph; ++m) rows[m][k] = e[m];
        }
        for (int m = 0; m < nsph; ++m) {
            // Laplacian as a map from degree l to degree l-2 monomials,
            // keyed by (x, y) exponent.
            std::vector<double> lap(static_cast<std::size_t>(l + 1) * (l + 1), 0.0);
            for (int k = 0; k < ncart; ++k) {
                const CartExp e = type_exponents(type, k);
                const double w = rows[m][k];
                if (e.x >= 2) lap[(e.x - 2) * (l + 1) + e.y] += w * e.x * (e.x - 1);
                if (e.y >= 2) lap[e.x * (l + 1) + e.y - 2] += w * e.y * (e.y - 1);
                if (e.z >= 2) lap[e.x * (l + 1) + e.y] += w * e.z * (e.z - 1);
            }
            for (double t : lap) EXPECT_NEAR(t, 0.0, 1e-11) << "type " << type << " function " << m;
        }
        // Rank by Gram-Schmidt: no row may vanish against the previous ones.
        std::vector<std::vector<double>> basis;
        for (int m = 0; m < nsph; ++m) {
            std::vector<double> v = rows[m];
            for (const auto& b : basis) {
                double d = 0;
                for (int k = 0; k < ncart; ++k) d += v[k] * b[k];
                for (int k = 0; k < ncart; ++k) v[k] -= d * b[k];
            }
            double n = 0;
            for (double t : v) n += t * t;
            ASSERT_GT(std::sqrt(n), 1e-6) << "type " << type << " function " << m << " is dependent";
            for (double& t : v) t /= std::sqrt(n);
            basis.push_back(v);
        }
    }
}
