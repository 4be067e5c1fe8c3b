// Spherical d, g and h shells on the grid, against what any set of real solid
// harmonics must be: phi_k = N c exp(-a r^2) Y_k(A - r) with each Y_k a
// harmonic polynomial, homogeneous of degree l, the 2l+1 of them linearly
// independent, and every phi_k normalised to one with the coefficient the
// basis reader gives. A wrong constant in one combination breaks harmonicity
// or the norm; a repeated or dropped combination breaks independence.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "grid/density.h"
#include "grid/gto_reference.h"
#include "moldata/basis.h"

namespace {

using namespace kvx;

struct Case {
    int type, l;
};

void PrintTo(const Case& c, std::ostream* os) { *os << "shell type " << c.type << " (l = " << c.l << ")"; }

// The orbital grid of basis function k alone (coefficient vector e_k).
std::vector<double> function_on_grid(const test::MolBuilder& b, const grid::Grid& g, int k) {
    auto set = std::make_unique<moldata::OrbitalSet>();
    set->count = 1, set->valid = 1, set->coef.rows = 1, set->coef.cols = b.mol->nbasis;
    set->coef.data.assign(static_cast<std::size_t>(b.mol->nbasis), 0.0);
    set->coef.data[static_cast<std::size_t>(k)] = 1.0;
    auto pg = grid::property_grid_create(&g);
    test::captured([&] { grid::fill_mo(pg.get(), set.get(), "1", "moa"); });
    return pg->values;
}

// One normalised primitive of exponent a at the atom A.
test::MolBuilder one_shell(int type, double a, const double A[3]) {
    std::vector<double> row = {a, 1.0};
    moldata::normalise_shell_data(type, 1, 1, row);
    test::MolBuilder b;
    b.atom(A[0], A[1], A[2]).shell(0, type, 1, {row});
    return b;
}

class SphericalShell : public ::testing::TestWithParam<Case> {};

// Y_k = phi_k / (N c exp(-a r^2)) on a small grid around the atom (the atom
// off the grid points, so no division by a vanishing radial part): the
// fourth-order stencil d2f = (-f(-2h) + 16 f(-h) - 30 f + 16 f(h) - f(2h)) /
// (12 h^2) is exact for polynomials up to degree 5, so the Laplacian of Y_k
// must vanish to rounding; Y_k at 2d is 2^l times Y_k at d.
TEST_P(SphericalShell, HarmonicHomogeneousAndIndependent) {
    const auto [type, l] = GetParam();
    const double A[3] = {0.13, -0.07, 0.21}, a = 0.3, h = 0.5;
    test::MolBuilder b = one_shell(type, a, A);
    const moldata::Shell& sh = b.mol->shells[0];
    const double norm = (*sh.prefact)[0] * sh.coef(0, 0);
    // Points A + h (i, j, k) + s for i, j, k = -4..4, s a fixed offset.
    const double s[3] = {0.3 * h, -0.2 * h, 0.1 * h}, c[3] = {A[0] + s[0], A[1] + s[1], A[2] + s[2]};
    const double half[3] = {4 * h, 4 * h, 4 * h};
    const int counts[3] = {9, 9, 9};
    auto g = test::box_grid(3, c, half, counts);
    ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), 1e-300, -4), 1);
    const grid::GridGeometry geo = grid::grid_geometry(*g);

    const int n = 2 * l + 1;
    std::vector<std::vector<double>> Y(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k) {
        const std::vector<double> v = function_on_grid(b, *g, k);
        Y[k].resize(v.size());
        for (unsigned p = 0; p < g->total; ++p) {
            double r[3];
            geo.point_of_index(r, static_cast<int>(p));
            const double r2 = (A[0] - r[0]) * (A[0] - r[0]) + (A[1] - r[1]) * (A[1] - r[1]) +
                              (A[2] - r[2]) * (A[2] - r[2]);
            Y[k][p] = v[p] / (norm * std::exp(-a * r2));
        }
    }
    auto at = [&](int k, int i, int j, int m) {
        const int idx[3] = {i + 4, j + 4, m + 4};
        return Y[k][geo.index_of_indices(idx)];
    };
    for (int k = 0; k < n; ++k) {
        double scale = 0.0;
        for (double y : Y[k]) scale = std::max(scale, std::fabs(y));
        ASSERT_GT(scale, 1e-3) << "type " << type << " function " << k;
        for (int i = -2; i <= 2; ++i)
            for (int j = -2; j <= 2; ++j)
                for (int m = -2; m <= 2; ++m) {
                    auto d2 = [&](int di, int dj, int dm) {
                        return (-at(k, i - 2 * di, j - 2 * dj, m - 2 * dm) + 16 * at(k, i - di, j - dj, m - dm) -
                                30 * at(k, i, j, m) + 16 * at(k, i + di, j + dj, m + dm) -
                                at(k, i + 2 * di, j + 2 * dj, m + 2 * dm)) /
                               (12 * h * h);
                    };
                    const double lap = d2(1, 0, 0) + d2(0, 1, 0) + d2(0, 0, 1);
                    ASSERT_NEAR(lap, 0.0, 1e-10 * scale / (h * h))
                        << "type " << type << " function " << k << " at " << i << " " << j << " " << m;
                }
    }
    // Homogeneity about the atom needs points at d and 2d from it: a grid
    // centred on the atom itself, the centre point left out.
    auto g0 = test::box_grid(3, A, half, counts);
    ASSERT_EQ(grid::gto_setup(b.mol.get(), g0.get(), 1e-300, -4), 1);
    const grid::GridGeometry geo0 = grid::grid_geometry(*g0);
    for (int k = 0; k < n; ++k) {
        const std::vector<double> v = function_on_grid(b, *g0, k);
        for (int i = -2; i <= 2; ++i)
            for (int j = -2; j <= 2; ++j)
                for (int m = -2; m <= 2; ++m) {
                    const int near[3] = {i + 4, j + 4, m + 4}, far[3] = {2 * i + 4, 2 * j + 4, 2 * m + 4};
                    const double r2 = h * h * (i * i + j * j + m * m);
                    const double y1 = v[geo0.index_of_indices(near)] / (norm * std::exp(-a * r2));
                    const double y2 = v[geo0.index_of_indices(far)] / (norm * std::exp(-4 * a * r2));
                    EXPECT_NEAR(y2, std::pow(2.0, l) * y1, 1e-9 * (1.0 + std::fabs(y2)))
                        << "type " << type << " function " << k;
                }
    }
    // Independence: the Gram matrix of the sampled functions is positive
    // definite (Cholesky pivots well above rounding).
    std::vector<double> G(static_cast<std::size_t>(n * n), 0.0);
    for (int p = 0; p < n; ++p)
        for (int q = 0; q < n; ++q)
            for (std::size_t t = 0; t < Y[0].size(); ++t) G[p * n + q] += Y[p][t] * Y[q][t];
    for (int j = 0; j < n; ++j) {
        double d = G[j * n + j];
        for (int k = 0; k < j; ++k) d -= G[j * n + k] * G[j * n + k];
        ASSERT_GT(d, 1e-6 * G[j * n + j]) << "type " << type << ": function " << j << " depends on the others";
        d = std::sqrt(d);
        G[j * n + j] = d;
        for (int i = j + 1; i < n; ++i) {
            double e = G[i * n + j];
            for (int k = 0; k < j; ++k) e -= G[i * n + k] * G[j * n + k];
            G[i * n + j] = e / d;
        }
    }
    grid::gto_free();
}

// Integral of phi_k^2 by the trapezoid rule on a grid much finer than the
// Gaussian (its error decays like exp(-pi^2 / (2 a h^2))): one for every
// function, with the basis reader's coefficient.
TEST_P(SphericalShell, FunctionsAreNormalised) {
    const auto [type, l] = GetParam();
    const double A[3] = {0.05, 0.1, -0.15}, a = 1.0, h = 0.2;
    test::MolBuilder b = one_shell(type, a, A);
    const double half[3] = {30 * h, 30 * h, 30 * h};
    const int counts[3] = {61, 61, 61};
    auto g = test::box_grid(3, A, half, counts);
    ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), 1e-300, -4), 1);
    for (int k = 0; k < 2 * l + 1; ++k) {
        double sum = 0.0;
        for (double v : function_on_grid(b, *g, k)) sum += v * v;
        EXPECT_NEAR(sum * h * h * h, 1.0, 1e-9) << "type " << type << " function " << k;
    }
    grid::gto_free();
}

INSTANTIATE_TEST_SUITE_P(Types, SphericalShell, ::testing::Values(Case{4, 2}, Case{11, 4}, Case{12, 5}),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return std::string(info.param.type == 4 ? "d" : info.param.type == 11 ? "g" : "h");
                         });

}  // namespace
