// Boys function tables and evaluation against independent evaluations:
// erf for F_0, composite Gauss-Legendre quadrature of the defining integral
// for every order, upward recursion at moderate x.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "elepot/fmch.h"

using namespace kvx::elepot;

namespace {

// Gauss-Legendre nodes and weights on [-1, 1] by Newton iteration on P_n.
struct GaussLegendre {
    std::vector<double> x, w;
    explicit GaussLegendre(int n) : x(n), w(n) {
        const double pi = std::acos(-1.0);
        for (int i = 0; i < n; ++i) {
            double z = std::cos(pi * (i + 0.75) / (n + 0.5));
            double dp = 0;
            for (int it = 0; it < 100; ++it) {
                double p0 = 1, p1 = z;
                for (int k = 2; k <= n; ++k) {
                    const double p2 = ((2 * k - 1) * z * p1 - (k - 1) * p0) / k;
                    p0 = p1;
                    p1 = p2;
                }
                dp = n * (z * p1 - p0) / (z * z - 1);
                const double dz = p1 / dp;
                z -= dz;
                if (std::fabs(dz) < 1e-16) break;
            }
            x[i] = z;
            w[i] = 2 / ((1 - z * z) * dp * dp);
        }
    }
};

// int_0^1 t^(2m) exp(-x t^2) dt on 40 panels of 20 points each: the
// integrand is entire and its peak near t = 0 has width >= 1/sqrt(x) >= 0.1
// for x <= 100, so each panel is integrated to rounding level.
double boys_quadrature(int m, double x) {
    static const GaussLegendre gl(20);
    const int panels = 40;
    long double sum = 0;
    for (int p = 0; p < panels; ++p) {
        const double a = static_cast<double>(p) / panels, b = static_cast<double>(p + 1) / panels;
        for (std::size_t i = 0; i < gl.x.size(); ++i) {
            const double t = 0.5 * (a + b) + 0.5 * (b - a) * gl.x[i];
            sum += 0.5 * (b - a) * gl.w[i] * std::pow(t, 2 * m) * std::exp(-x * t * t);
        }
    }
    return static_cast<double>(sum);
}

double rel(double a, double b) { return std::fabs(a - b) / std::fabs(b); }

// Error budget of F_0..F_m from one evaluation at x, relative:
// - 2e-14: the 7-term Taylor remainder F_(m+7) 0.025^7 / 7! < 1.2e-15 F_m,
//   the asymptotic branch within 1e-15 by construction, the reference
//   quadrature and the recursion's rounding;
// - |x_c - c h| F_(m+1)/F_m: the tables hold F at abscissae formed by
//   repeated addition of h while the expansion point is taken as c h (the
//   drift reaches ~1.5e-12 near x = 60); the downward recursion carries a
//   relative error of F_m to the lower orders with a factor <= 1;
// - for x >= 40 the recursion leaves out exp(-x): F_k comes out low by
//   exp(-x) sum_(j=k..m-1) (2x)^(j-k) / ((2k+1)(2k+3)..(2j+1)).
double allowed(int m, int k, double x) {
    const double h = 0.05;
    const long q = static_cast<long>(std::floor(x / h));
    const long c = std::fabs(q * h - x) > std::fabs((q + 1) * h - x) ? q + 1 : q;
    double acc = 0;
    for (long p = 0; p < c; ++p) acc += h;
    double tol = 2e-14 + std::fabs(acc - c * h) * boys_quadrature(m + 1, x) / boys_quadrature(m, x);
    if (x >= 40.0) {
        double g = 0, term = 1;
        for (int j = k; j < m; ++j) {
            term /= (2 * j + 1);
            g += term;
            term *= 2 * x;
        }
        tol += 1.01 * std::exp(-x) * g / boys_quadrature(k, x);
    }
    return tol;
}

// Checks F[0..m] from fmch(F, m, x) against the quadrature; returns the
// largest error relative to its allowance.
double check_all(const double* F, int m, double x) {
    double worst = 0;
    for (int k = 0; k <= m; ++k) {
        const double e = rel(F[k], boys_quadrature(k, x));
        const double a = allowed(m, k, x);
        EXPECT_LT(e, a) << "m=" << m << " k=" << k << " x=" << x;
        worst = std::max(worst, e / a);
    }
    return worst;
}

class FmchTest : public ::testing::Test {
protected:
    void SetUp() override { fmch_release(); }
    void TearDown() override { fmch_release(); }
};

TEST_F(FmchTest, ZeroArgumentGivesExactReciprocals) {
    fmch_init(12);
    double F[13];
    fmch(F, 12, 0.0);
    for (int m = 0; m <= 12; ++m) EXPECT_EQ(F[m], 1.0 / (2 * m + 1)) << "m=" << m;
    for (int k = 0; k <= 12 + 6; ++k) EXPECT_EQ(fmch_tab(k, 0), 1.0 / (2 * k + 1)) << "k=" << k;
}

TEST_F(FmchTest, OrderZeroMatchesErf) {
    fmch_init(4);
    const double pi = std::acos(-1.0);
    double F[5];
    for (double x = 1e-3; x < 80.0; x = x * 1.07 + 0.013) {
        fmch(F, 0, x);
        const double ref = 0.5 * std::sqrt(pi / x) * std::erf(std::sqrt(x));
        EXPECT_LT(rel(F[0], ref), allowed(0, 0, x)) << "x=" << x;
    }
}

TEST_F(FmchTest, AllOrdersMatchQuadratureAcrossTheTable) {
    const int top = 12;
    fmch_init(top);
    ASSERT_EQ(fmch_top(), top);
    double F[top + 1];
    double worst = 0;
    // Off-grid points, points on the grid, half-way points and the far
    // asymptotic region, for the highest order with all lower ones from the
    // recursion, and for each order on its own.
    std::vector<double> xs;
    for (double x = 0.0013; x < 100.0; x += 0.1917) xs.push_back(x);
    for (int p = 1; p < 400; p += 7) xs.push_back(p * 0.05);
    for (int p = 1; p < 400; p += 11) xs.push_back((p + 0.5) * 0.05);
    for (double x : xs) {
        for (int m : {top, 5, 0}) {
            fmch(F, m, x);
            worst = std::max(worst, check_all(F, m, x));
        }
    }
    RecordProperty("worst_error_over_allowance", std::to_string(worst));
}

TEST_F(FmchTest, UpwardRecursionAgreesAtModerateArgument) {
    // F_(m+1) = ((2m+1) F_m - exp(-x)) / (2x): stable enough for x >= 5 over
    // four steps (each step loses at most a factor (2m+1)F_m / (2x F_(m+1))).
    fmch_init(6);
    const double pi = std::acos(-1.0);
    double F[5];
    for (double x : {5.0, 7.3, 12.0126, 19.975, 31.0}) {
        fmch(F, 4, x);
        double up = 0.5 * std::sqrt(pi / x) * std::erf(std::sqrt(x));
        for (int m = 0; m < 4; ++m) {
            up = ((2 * m + 1) * up - std::exp(-x)) / (2 * x);
            EXPECT_LT(rel(F[m + 1], up), 1e-14 + allowed(4, m + 1, x)) << "x=" << x << " m=" << m + 1;
        }
    }
}

TEST_F(FmchTest, SwitchPointsAndBeyond) {
    fmch_init(10);
    double F[11];
    double prev = 0;
    for (int m = 0; m <= 10; ++m) {
        const double xs = fmch_switch_point(m);
        // The asymptotic error exp(-x)(2x)^m / ((2m-1)!! sqrt(pi x)) falls
        // below 1e-15 between x = 30 and 60 for these orders, later for
        // higher m.
        EXPECT_GT(xs, 25.0);
        EXPECT_LT(xs, 70.0);
        EXPECT_GE(xs, prev) << "m=" << m;
        prev = xs;
        // The table of order m ends at its switch point.
        EXPECT_NEAR((fmch_tab_len(m) - 1) * 0.05, xs, 1e-9);
        for (double x : {xs - 0.01, xs, xs + 1e-9, xs + 0.02, 39.999, 40.0, 40.001, xs + 3.0}) {
            fmch(F, m, x);
            check_all(F, m, x);
        }
    }
    // Each order's Taylor expansion reads the J = 6 orders above it at the
    // same grid point: those tables must be at least as long.
    for (int k = 0; k + 1 <= 16; ++k) EXPECT_LE(fmch_tab_len(k), fmch_tab_len(k + 1)) << k;
}

TEST_F(FmchTest, LowerOrEqualOrderRequestChangesNothing) {
    fmch_init(8);
    std::vector<std::vector<double>> before;
    for (int k = 0; k <= 14; ++k) {
        before.emplace_back();
        for (int p = 0; p < fmch_tab_len(k); ++p) before.back().push_back(fmch_tab(k, p));
    }
    EXPECT_EQ(fmch_table(3), 8);
    EXPECT_EQ(fmch_table(8), 8);
    EXPECT_EQ(fmch_top(), 8);
    for (int k = 0; k <= 14; ++k) {
        ASSERT_EQ(fmch_tab_len(k), static_cast<int>(before[k].size()));
        for (int p = 0; p < fmch_tab_len(k); ++p) ASSERT_EQ(fmch_tab(k, p), before[k][p]);
    }
}

TEST_F(FmchTest, GrowingKeepsLowerOrdersAndMatchesFreshBuild) {
    fmch_init(3);
    std::vector<std::vector<double>> low;
    std::vector<double> xfl;
    for (int k = 0; k <= 3; ++k) {
        low.emplace_back();
        for (int p = 0; p < fmch_tab_len(k); ++p) low.back().push_back(fmch_tab(k, p));
        xfl.push_back(fmch_switch_point(k));
    }
    fmch_init(9);
    EXPECT_EQ(fmch_top(), 9);
    for (int k = 0; k <= 3; ++k) {
        EXPECT_EQ(fmch_switch_point(k), xfl[k]);
        ASSERT_EQ(fmch_tab_len(k), static_cast<int>(low[k].size()));
        for (int p = 0; p < fmch_tab_len(k); ++p) ASSERT_EQ(fmch_tab(k, p), low[k][p]);
    }
    // Orders 4..15 were (re)built; they equal a build from scratch.
    std::vector<std::vector<double>> grown;
    for (int k = 4; k <= 15; ++k) {
        grown.emplace_back();
        for (int p = 0; p < fmch_tab_len(k); ++p) grown.back().push_back(fmch_tab(k, p));
    }
    fmch_release();
    fmch_init(9);
    for (int k = 4; k <= 15; ++k) {
        ASSERT_EQ(fmch_tab_len(k), static_cast<int>(grown[k - 4].size())) << k;
        for (int p = 0; p < fmch_tab_len(k); ++p) ASSERT_EQ(fmch_tab(k, p), grown[k - 4][p]);
    }
    double F[10];
    for (double x : {0.3, 17.2, 45.0}) {
        fmch(F, 9, x);
        check_all(F, 9, x);
    }
}

TEST_F(FmchTest, HalfWayExpandsAboutLowerPoint) {
    // At exactly half-way the two expansions differ only by the Taylor
    // remainder; the lower point is used, so the value is the 7-term sum
    // about x_q with delta = -h/2.
    fmch_init(2);
    const double x = 0.125;  // (2 + 1/2) h, exactly representable
    double F[3];
    fmch(F, 2, x);
    double sum = 0, term = 1;
    for (int j = 0; j <= 6; ++j) {
        if (j > 0) term = term * (2 * 0.05 - x) / j;
        sum += fmch_tab(2 + j, 2) * term;
    }
    EXPECT_EQ(F[2], sum);
}

TEST_F(FmchTest, ReleaseResetsTop) {
    fmch_init(2);
    EXPECT_EQ(fmch_top(), 2);
    fmch_release();
    EXPECT_EQ(fmch_top(), -1);
    EXPECT_EQ(fmch_tab_len(0), 0);
}

}  // namespace
