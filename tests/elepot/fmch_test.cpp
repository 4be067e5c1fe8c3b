// Boys function F_m(x) against erf (order 0) and Gauss-Legendre quadrature of
// the defining integral (every order): across the table, on and between grid
// points, at each order's switch point and beyond x = 40; the batched form
// against the single one.
#include "elepot/fmch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

using namespace kvx::elepot;

namespace {

// int_0^1 t^(2m) exp(-x t^2) dt on 40 panels of the 8-point Gauss-Legendre
// rule (exact to degree 15): the integrand is entire and its peak, of width
// >= 1/sqrt(x) >= 0.1 for x <= 100, spans four panels or more, so each panel
// is integrated to rounding level (a 20-point rule agrees to 3e-15).
double boys_quad(int m, double x) {
    static const double node[4] = {0.1834346424956498, 0.5255324099163290, 0.7966664774136267, 0.9602898564975363};
    static const double weight[4] = {0.3626837833783620, 0.3137066458778873, 0.2223810344533745, 0.1012285362903763};
    long double sum = 0;
    for (int p = 0; p < 40; ++p)
        for (int i = 0; i < 8; ++i) {
            const double t = (p + 0.5 + 0.5 * (i % 2 ? -node[i / 2] : node[i / 2])) / 40;
            sum += weight[i / 2] / 80 * std::pow(t, 2 * m) * std::exp(-x * t * t);
        }
    return static_cast<double>(sum);
}

// Relative error allowed for F_k out of one call for F_0..F_m at x:
// - 2e-14 for the 7-term Taylor remainder (< 1.2e-15), the asymptotic form,
//   the reference and the recursion's rounding;
// - |x_c - c h| F_(m+1)/F_m: the tables hold F at abscissae summed up from h
//   while the expansion point is taken as c h (drift ~1.5e-12 near x = 60);
// - for x >= 40 the downward recursion leaves out exp(-x), so F_k comes out
//   low by exp(-x) sum_(j=k..m-1) (2x)^(j-k) / ((2k+1)(2k+3)..(2j+1)).
double allowed(int m, int k, double x) {
    const double h = 0.05;
    const long q = static_cast<long>(std::floor(x / h));
    const long c = std::fabs(q * h - x) > std::fabs((q + 1) * h - x) ? q + 1 : q;
    double acc = 0;
    for (long p = 0; p < c; ++p) acc += h;
    double tol = 2e-14 + std::fabs(acc - c * h) * boys_quad(m + 1, x) / boys_quad(m, x);
    double g = 0, term = 1;
    for (int j = k; x >= 40.0 && j < m; ++j, term *= 2 * x) g += (term /= 2 * j + 1);
    return x >= 40.0 ? tol + 1.01 * std::exp(-x) * g / boys_quad(k, x) : tol;
}

void check(int m, double x) {
    double F[20];
    fmch(F, m, x);
    for (int k = 0; k <= m; ++k)
        EXPECT_LT(std::fabs(F[k] / boys_quad(k, x) - 1), allowed(m, k, x)) << "m=" << m << " k=" << k << " x=" << x;
}

class Fmch : public ::testing::Test {
  protected:
    void SetUp() override { fmch_release(); }
    void TearDown() override { fmch_release(); }
};

TEST_F(Fmch, MatchesErfAndQuadratureAcrossTableAndSwitchPoints) {
    fmch_init(12);
    double F[13];
    fmch(F, 12, 0.0);
    for (int m = 0; m <= 12; ++m) EXPECT_EQ(F[m], 1.0 / (2 * m + 1)) << "m=" << m;
    for (double x = 1e-3; x < 80.0; x = x * 1.07 + 0.013) {
        fmch(F, 0, x);
        const double ref = 0.5 * std::sqrt(std::numbers::pi / x) * std::erf(std::sqrt(x));
        EXPECT_LT(std::fabs(F[0] / ref - 1), allowed(0, 0, x)) << "x=" << x;
    }
    // Off-grid points, grid points, half-way points and the far asymptotic
    // region; the top order with the lower ones by recursion, and alone.
    std::vector<double> xs;
    for (double x = 0.0013; x < 100.0; x += 0.1917) xs.push_back(x);
    for (int p = 1; p < 400; p += 7) xs.push_back(p * 0.05);
    for (int p = 1; p < 400; p += 11) xs.push_back((p + 0.5) * 0.05);
    for (double x : xs)
        for (int m : {12, 5, 0}) check(m, x);
    for (int m = 0; m <= 10; ++m) {
        // The asymptotic error exp(-x)(2x)^m / ((2m-1)!! sqrt(pi x)) drops
        // below 1e-15 between x = 30 and 60 for these orders, later for higher m.
        const double sw = fmch_switch_point(m);
        EXPECT_TRUE(sw > 25.0 && sw < 70.0) << "m=" << m << " switch " << sw;
        EXPECT_GE(sw, m > 0 ? fmch_switch_point(m - 1) : 0.0) << "m=" << m;
        for (double x : {sw - 0.01, sw, sw + 1e-9, sw + 0.02, 39.999, 40.0, 40.001, sw + 3.0}) check(m, x);
    }
    // The Taylor expansion of order k reads the six orders above it at the
    // same grid point: their tables must reach at least as far.
    for (int k = 0; k < 18; ++k) EXPECT_LE(fmch_tab_len(k), fmch_tab_len(k + 1)) << k;
}

TEST_F(Fmch, GrowingServesHigherOrdersAndReleaseResetsTop) {
    fmch_init(3);
    fmch_init(9);
    EXPECT_EQ(fmch_table(4), 9);
    for (double x : {0.3, 17.2, 45.0}) check(9, x);
    fmch_release();
    EXPECT_EQ(fmch_top(), -1);
}

// The batched Boys function is fmch to the last bit: on and between grid
// points, at and beyond each order's switch, and past x = 40 where the
// recursion drops exp(-x).
TEST_F(Fmch, BatchedValuesAreFmchBitForBit) {
    fmch_init(12);
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int m = 0; m <= 12; ++m) {
        const double xf = fmch_switch_point(m);
        std::vector<double> x = {0.0,  0.05, 0.025, 1.0, xf, std::nextafter(xf, 0.0), std::nextafter(xf, 1e300),
                                 40.0, 1e3,  1e8};
        for (int k = 0; k < 300; ++k) x.push_back(u(rng) * 1.2 * xf);
        const int ld = m + 2;
        std::vector<double> F(x.size() * static_cast<std::size_t>(ld), -7.0), one(static_cast<std::size_t>(m) + 1);
        fmch_batch(F.data(), ld, m, x.data(), static_cast<int>(x.size()));
        for (std::size_t i = 0; i < x.size(); ++i) {
            fmch(one.data(), m, x[i]);
            for (int k = 0; k <= m; ++k)
                ASSERT_EQ(F[i * ld + static_cast<std::size_t>(k)], one[static_cast<std::size_t>(k)])
                    << "m " << m << " x " << x[i] << " k " << k;
            ASSERT_EQ(F[i * ld + static_cast<std::size_t>(m) + 1], -7.0) << "overrun";
        }
    }
}

}  // namespace
