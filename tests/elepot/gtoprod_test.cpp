// Gaussian product tables: f_j against polynomials multiplied out directly,
// power tables with the zero cut, the shared binomial table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <vector>

#include "elepot/gtoprod.h"

using namespace kvx::elepot;

namespace {

// Coefficients of (t + PA)^a (t + PB)^b in powers of t = x - P, by repeated
// multiplication with a linear factor (no binomials involved).
std::vector<double> expand(int a, int b, double PA, double PB) {
    std::vector<double> c = {1.0};
    auto times = [&](double d) {
        std::vector<double> n(c.size() + 1, 0.0);
        for (std::size_t k = 0; k < c.size(); ++k) {
            n[k + 1] += c[k];
            n[k] += c[k] * d;
        }
        c = n;
    };
    for (int i = 0; i < a; ++i) times(PA);
    for (int i = 0; i < b; ++i) times(PB);
    return c;
}

// Rounding bound for the expansion: every term is at most
// C(a+b, j) max(1,|PA|)^a max(1,|PB|)^b, and at most 2^(a+b) terms meet.
double bound(int a, int b, double PA, double PB) {
    return 1e-14 * std::pow(2.0, a + b) * std::pow(std::max(1.0, std::fabs(PA)), a) *
           std::pow(std::max(1.0, std::fabs(PB)), b);
}

std::vector<double> fj_of(int l, int m, double PA, double PB) {
    std::vector<double> pa(l + 1), pb(m + 1), fj(l + m + 1, -99.0);
    powx(pa.data(), PA, l);
    powx(pb.data(), PB, m);
    fjlm(fj.data(), l, m, pa.data(), pb.data());
    return fj;
}

}  // namespace

TEST(Gtoprod, FjMatchesPolynomialMultipliedOut) {
    const double dists[][2] = {{0.37, -1.21}, {-2.5, 0.8}, {3.1, 2.9}, {-0.05, 0.0004}};
    for (const auto& d : dists)
        for (int l = 0; l <= 6; ++l)
            for (int m = 0; m <= 6; ++m) {
                const auto want = expand(l, m, d[0], d[1]);
                const auto got = fj_of(l, m, d[0], d[1]);
                for (int j = 0; j <= l + m; ++j)
                    ASSERT_NEAR(got[j], want[j], bound(l, m, d[0], d[1]))
                        << "l=" << l << " m=" << m << " j=" << j << " PA=" << d[0];
            }
}

TEST(Gtoprod, FjtabFillsEveryPairOfTheFlatTable) {
    FjTable tab;
    tab.shape(4, 3, 2 * 4 + 1);  // the stride may exceed la + lb + 1
    fjtab(tab, 4, 3, -0.7, 1.3);
    for (int a = 0; a <= 4; ++a)
        for (int b = 0; b <= 3; ++b) {
            const auto want = expand(a, b, -0.7, 1.3);
            for (int j = 0; j <= a + b; ++j)
                EXPECT_NEAR(tab.row(a, b)[j], want[j], bound(a, b, -0.7, 1.3)) << a << " " << b << " " << j;
        }
    // Reshaping to a smaller pair reuses the storage and lays rows out anew.
    const double* before = tab.v.data();
    tab.shape(1, 2, 4);
    fjtab(tab, 1, 2, 0.25, -0.5);
    EXPECT_EQ(tab.v.data(), before);
    const auto want = expand(1, 2, 0.25, -0.5);
    for (int j = 0; j <= 3; ++j) EXPECT_NEAR(tab.row(1, 2)[j], want[j], 1e-15);
}

// Shells on one atom: P = A = B, so (x-A)^a (x-B)^b = (x-P)^(a+b) exactly.
// One distance zero: only the powers of the other survive. The shortcuts
// must give exactly what the multiplied-out polynomial gives.
TEST(Gtoprod, ZeroDistancesKeepOnlyTheirPowerZeroTerms) {
    for (int l = 0; l <= 6; ++l)
        for (int m = 0; m <= 6; ++m) {
            const auto both = fj_of(l, m, 0.0, 0.0);
            for (int j = 0; j <= l + m; ++j) EXPECT_EQ(both[j], j == l + m ? 1.0 : 0.0) << l << m << j;
            for (auto [pa, pb] : {std::pair{0.0, -1.7}, std::pair{2.3, 0.0}}) {
                const auto got = fj_of(l, m, pa, pb);
                const auto want = expand(l, m, pa, pb);
                for (int j = 0; j <= l + m; ++j) EXPECT_NEAR(got[j], want[j], bound(l, m, pa, pb)) << l << m << j;
            }
        }
    EXPECT_EQ(fj_of(0, 0, 5.0, -3.0)[0], 1.0);
    // A distance of 1e-16 counts as zero: bit-for-bit the zero-distance table.
    FjTable t1, t0;
    t1.shape(3, 2, 6);
    t0.shape(3, 2, 6);
    fjtab(t1, 3, 2, 1e-16, 0.9);
    fjtab(t0, 3, 2, 0.0, 0.9);
    EXPECT_EQ(t1.v, t0.v);
}

TEST(Gtoprod, PowxCutsTinyBasesToZero) {
    double p[6];
    powx(p, 1e-16, 5);
    EXPECT_EQ(p[0], 1.0);
    for (int k = 1; k <= 5; ++k) EXPECT_EQ(p[k], 0.0);
    powx(p, -9.99e-16, 3);
    EXPECT_EQ(p[1], 0.0);
    powx(p, 1e-15, 2);  // at the cut: kept
    EXPECT_EQ(p[1], 1e-15);
    powx(p, -1.5, 5);
    for (int k = 0; k <= 5; ++k) EXPECT_NEAR(p[k], std::pow(-1.5, k), 1e-14);
    p[1] = 42.0;
    powx(p, 7.0, 0);
    EXPECT_EQ(p[0], 1.0);
    EXPECT_EQ(p[1], 42.0);  // nmax 0 writes one entry
}

TEST(Gtoprod, BinomialTableGrowsAndKeepsRows) {
    binom_release();
    EXPECT_EQ(binom_top(), -1);
    // fjlm(l = 2, m = 1) needs rows up to 3.
    fj_of(2, 1, 0.5, 0.5);
    EXPECT_EQ(binom_top(), 3);
    EXPECT_EQ(binom(3, 1), 3.0);
    EXPECT_EQ(binom(2, 3), 0.0);
    EXPECT_EQ(binom_grow(2), 3);  // never shrinks
    EXPECT_EQ(binom_grow(20), 20);
    // Old rows widened with zero columns, new rows by Pascal's rule; check
    // against n! / (k! (n-k)!) built multiplicatively.
    for (int n = 0; n <= 20; ++n)
        for (int k = 0; k <= 20; ++k) {
            double c = 0.0;
            if (k <= n) {
                c = 1.0;
                for (int i = 1; i <= k; ++i) c = c * (n - k + i) / i;
            }
            EXPECT_EQ(binom(n, k), std::round(c)) << n << " " << k;
        }
}

TEST(GtoprodDeathTest, BadCallsEndTheRunWithTheirMessages) {
    double buf[4];
    EXPECT_EXIT(
        {
            dup2(2, 1);
            powx(buf, 1.0, -1);
        },
        ::testing::ExitedWithCode(0), "Gtoprod powx: nmax < 0");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            powx(nullptr, 1.0, 2);
        },
        ::testing::ExitedWithCode(0), "Gtoprod powx: pointer xpow is null");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            fjlm(buf, -1, 0, buf, buf);
        },
        ::testing::ExitedWithCode(0), "Gtoprod fjlm: l or m < 0");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            fjlm(nullptr, 1, 0, buf, buf);
        },
        ::testing::ExitedWithCode(0), "Gtoprod fjlm: wrong call, fj pointer is null");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            FjTable empty;
            fjtab(empty, 1, 1, 0.0, 0.0);
        },
        ::testing::ExitedWithCode(0), "Gtoprod fjtab: wrong call, pointer array is null");
}
