// Gaussian product tables: f_j against polynomials multiplied out directly,
// power tables with the zero cut, and the messages of bad calls.
#include "gauss/gtoprod.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <utility>
#include <vector>

using namespace kvx::gauss;

namespace {

// Coefficients of (t + PA)^a (t + PB)^b in powers of t = x - P, by repeated
// multiplication with a linear factor (no binomials involved).
std::vector<double> expand(int a, int b, double PA, double PB) {
    std::vector<double> c = {1.0};
    for (int i = 0; i < a + b; ++i) {
        const double d = i < a ? PA : PB;
        c.push_back(0.0);
        for (std::size_t k = c.size() - 1; k > 0; --k) c[k] = c[k - 1] + c[k] * d;
        c[0] *= d;
    }
    return c;
}

// Every term is at most C(a+b, j) max(1,|PA|)^a max(1,|PB|)^b and at most
// 2^(a+b) terms meet, each rounded at ~1e-16.
double bound(int a, int b, double PA, double PB) {
    return 1e-14 * std::pow(2.0, a + b) * std::pow(std::max(1.0, std::fabs(PA)), a) *
           std::pow(std::max(1.0, std::fabs(PB)), b);
}

TEST(Gtoprod, FjMatchesPolynomialMultipliedOut) {
    // Zero distances (shells on one atom, P on a centre) take shortcuts that
    // must agree with the plain product; 1e-16 counts as zero.
    const double dists[][2] = {{0.37, -1.21}, {-2.5, 0.8}, {3.1, 2.9}, {-0.05, 4e-4},
                               {0.0, 0.0},    {0.0, -1.7}, {2.3, 0.0}, {1e-16, 0.9}};
    binom_grow(6);  // as a user's set-up does for its largest shell
    for (const auto& d : dists)
        for (int l = 0; l <= 6; ++l)
            for (int m = 0; m <= 6; ++m) {
                std::vector<double> pa(l + 1), pb(m + 1), fj(l + m + 1, -99.0);
                powx(pa.data(), d[0], l);
                powx(pb.data(), d[1], m);
                fjlm(fj.data(), l, m, pa.data(), pb.data());
                const auto want = expand(l, m, d[0] == 1e-16 ? 0.0 : d[0], d[1]);
                for (int j = 0; j <= l + m; ++j)
                    ASSERT_NEAR(fj[j], want[j], bound(l, m, d[0], d[1])) << l << " " << m << " " << j << " " << d[0];
            }
    // The flat table for all pairs up to (4, 3), with a stride wider than
    // needed; then reshaped smaller, reusing its storage.
    FjTable tab;
    tab.shape(4, 3, 9);
    fjtab(tab, 4, 3, -0.7, 1.3);
    for (int a = 0; a <= 4; ++a)
        for (int b = 0; b <= 3; ++b)
            for (int j = 0; j <= a + b; ++j)
                EXPECT_NEAR(tab.row(a, b)[j], expand(a, b, -0.7, 1.3)[j], bound(a, b, -0.7, 1.3)) << a << b << j;
    const double* before = tab.v.data();
    tab.shape(1, 2, 4);
    fjtab(tab, 1, 2, 0.25, -0.5);
    EXPECT_EQ(tab.v.data(), before);
    for (int j = 0; j <= 3; ++j) EXPECT_NEAR(tab.row(1, 2)[j], expand(1, 2, 0.25, -0.5)[j], 1e-15);
}

TEST(Gtoprod, PowersCutBelow1e15) {
    double p[6] = {0, 0, 0, 0, 0, 42.0};
    for (double x : {1e-16, -9.99e-16, 1e-15, -1.5}) {
        powx(p, x, 4);
        for (int k = 0; k <= 4; ++k)
            EXPECT_DOUBLE_EQ(p[k], std::fabs(x) < 1e-15 ? (k == 0) : std::pow(x, k)) << x << " " << k;
    }
    EXPECT_EQ(p[5], 42.0);  // nmax entries and no more
}

// The messages go to stdout.
TEST(GtoprodDeathTest, BadCallsEndTheRunWithTheirMessages) {
    // clang-format off
    const std::pair<void (*)(), const char*> cases[] = {
        {[] { double b[2] = {}; powx(b, 1.0, -1); }, "Gtoprod powx: nmax < 0"},
        {[] { powx(nullptr, 1.0, 2); }, "Gtoprod powx: pointer xpow is null"},
        {[] { double b[2] = {}; fjlm(b, -1, 0, b, b); }, "Gtoprod fjlm: l or m < 0"},
        {[] { double b[2] = {}; fjlm(nullptr, 1, 0, b, b); }, "Gtoprod fjlm: wrong call, fj pointer is null"},
        {[] { double b[80] = {}; fjlm(b, 40, 0, b, b); }, "Gtoprod fjlm: binomial table not grown to the shells"},
        {[] { FjTable t; fjtab(t, 1, 1, 0.0, 0.0); }, "Gtoprod fjtab: wrong call, pointer array is null"},
    };
    // clang-format on
    for (const auto& [call, msg] : cases) EXPECT_EXIT((dup2(2, 1), call()), ::testing::ExitedWithCode(0), msg);
}

}  // namespace
