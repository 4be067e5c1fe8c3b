// Per-pair block code: the potential kernels against a brute-force triple
// sum, the fixed-length accumulators against guard values, and the density
// gather against a block worked out by hand.
#include "elepot/kernels.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "elepot/accum.h"
#include "gauss/shell_types.h"
#include "moldata/molecule.h"

using namespace kvx::elepot;
namespace gauss = kvx::gauss;

namespace {

// Cartesian components per shell type 1..13, written out: s, p, sp, d, d6, f,
// f10, g15, h21, i28, g, h, i.
constexpr int kComp[14] = {0, 1, 3, 4, 6, 6, 10, 10, 15, 21, 28, 15, 21, 28};
constexpr const auto& kL = gauss::kAngular;

// Random directional tables of one pair, row 0 = [1]; with zeros, about one
// entry in six is exactly 0 as for a point on a line through P.
struct Tables {
    int ns;
    std::vector<double> X, Y, Z, F;
    Tables(int lA, int lB, std::mt19937& rng, bool zeros) : ns(lA + lB + 3) {
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (auto* v : {&X, &Y, &Z}) {
            v->resize(static_cast<std::size_t>((lA + 1) * (lB + 1) * ns));
            for (auto& x : *v) x = (zeros && rng() % 6 == 0) ? 0.0 : u(rng);
            (*v)[0] = 1.0;
        }
        for (int n = 0; n <= lA + lB; ++n) F.push_back(0.05 + 0.5 * (u(rng) + 1.0));
    }
    // V_ij by the straight triple sum over nu_x, nu_y, nu_z; mag gets the sum
    // of the terms' magnitudes, which bounds the rounding of any order.
    void brute_force(int tA, int tB, std::vector<double>& v, std::vector<double>& mag) const {
        v.assign(static_cast<std::size_t>(kComp[tA] * kComp[tB]), 0.0);
        mag = v;
        for (std::size_t ij = 0; ij < v.size(); ++ij) {
            const auto ea = gauss::type_exponents(tA, static_cast<int>(ij) / kComp[tB]);
            const auto eb = gauss::type_exponents(tB, static_cast<int>(ij) % kComp[tB]);
            const int a[3] = {ea.x, ea.y, ea.z}, b[3] = {eb.x, eb.y, eb.z};
            const double* r[3];
            for (int c = 0; c < 3; ++c) r[c] = (c == 0 ? X : c == 1 ? Y : Z).data() + (a[c] * (kL[tB] + 1) + b[c]) * ns;
            for (int nx = 0; nx <= a[0] + b[0]; ++nx)
                for (int ny = 0; ny <= a[1] + b[1]; ++ny)
                    for (int nz = 0; nz <= a[2] + b[2]; ++nz) {
                        const double term = r[0][nx] * r[1][ny] * r[2][nz] * F[nx + ny + nz];
                        v[ij] += term;
                        mag[ij] += std::fabs(term);
                    }
        }
    }
};

TEST(Kernels, GenericAndSpecialisedMatchBruteForceForEveryTypePair) {
    // Two summation orders of at most 7^3 products of four factors differ by
    // less than (343 + 4) 2^-53 sum|terms| ~ 4e-14 sum|terms|.
    constexpr double kRoundRel = 4e-14;
    std::mt19937 rng(12345);
    std::vector<double> ref, mag;
    for (int tA = 1; tA <= 13; ++tA)
        for (int tB = 1; tB <= 13; ++tB) {
            // s, p, sp, d and f on both sides (types 1..7) have their own form.
            const KernelFn sel = select_kernel(tA, tB);
            EXPECT_EQ(sel == &generic_kernel, tA > 7 || tB > 7) << tA << "," << tB;
            for (int rep = 0; rep < 3; ++rep) {
                const Tables t(kL[tA], kL[tB], rng, rep > 0);
                t.brute_force(tA, tB, ref, mag);
                for (KernelFn k : {sel, &generic_kernel}) {
                    std::vector<double> out(ref.size() + 3, -99.0);
                    k(tA, tB, t.X.data(), t.Y.data(), t.Z.data(), t.ns, t.F.data(), out.data());
                    for (std::size_t e = 0; e < out.size(); ++e)
                        ASSERT_NEAR(out[e], e < ref.size() ? ref[e] : -99.0, e < ref.size() ? kRoundRel * mag[e] : 0.0)
                            << "types " << tA << "," << tB << " element " << e << (k == sel ? " selected" : " generic");
                }
            }
        }
}

TEST(Accum, EveryTypePairTouchesExactlyItsBlock) {
    constexpr int kGuard = 5;
    std::vector<double> fac(784), val(784), dst(784 + kGuard), before(dst.size());
    for (int k = 0; k < 784; ++k) {
        fac[k] = 0.5 + 0.001 * k;
        val[k] = 1.0 - 0.003 * k;
    }
    for (int a = 1; a <= 13; ++a)
        for (int b = 1; b <= 13; ++b)
            for (int op = 0; op < 3; ++op) {
                const int n = kComp[a] * kComp[b];
                for (std::size_t k = 0; k < dst.size(); ++k) dst[k] = before[k] = 0.25 * static_cast<double>(k) - 3.1;
                if (op == 0) which_intc_zero(a, b)(dst.data());
                if (op == 1) which_intc_init(a, b)(fac.data(), val.data(), dst.data());
                if (op == 2) which_intc_accum(a, b)(fac.data(), val.data(), dst.data());
                for (int k = 0; k < n + kGuard; ++k) {
                    const double want = k >= n ? before[k] : (op == 2 ? before[k] : 0.0) + (op ? val[k] * fac[k] : 0.0);
                    ASSERT_EQ(dst[k], want) << "types " << a << "," << b << " op " << op << " element " << k;
                }
            }
}

// A type without components selects nothing; the message goes to stdout.
TEST(AccumDeathTest, NoRoutineForAnEmptyType) {
    const std::pair<void (*)(), const char*> cases[] = {
        {[] { which_intc_zero(0, 5); }, "Accum which_intc_zero: cannot select function"},
        {[] { which_intc_init(3, 0); }, "Accum which_intc_init: cannot select function"},
        {[] { which_intc_accum(0, 0); }, "Accum which_intc_accum: cannot select function"},
    };
    for (const auto& [call, msg] : cases) EXPECT_EXIT((dup2(2, 1), call()), ::testing::ExitedWithCode(0), msg);
}

TEST(DensityGather, BlocksByHand) {
    // D(r, q) = 10 r + q + 1 for r >= q, with D(3, 2) = -33 so that the
    // returned largest value must be a magnitude.
    kvx::moldata::TriMatrix D;
    D.n = 6;
    D.data.resize(21);
    for (int r = 0; r < 6; ++r)
        for (int q = 0; q <= r; ++q) D.at(r, q) = r == 3 && q == 2 ? -33 : 10 * r + q + 1;
    // One shell with itself: two contractions of two functions, basis
    // functions 1..4; blocks (c1, c2) = 00, 01, 10, 11.
    std::vector<double> out(17, 999.0);
    EXPECT_EQ(density_gather(D, out.data(), true, 2, 2, 2, 2, 2, 2), 88.0);
    EXPECT_EQ(out, (std::vector<double>{12, 0, 44, 23,     // D11, upper 0, 2 D21, D22
                                        0, 0, 0, 0,        // wholly above the diagonal
                                        64, -66, 84, 86,   // 2 D31, 2 D32, 2 D41, 2 D42
                                        34, 0, 88, 45,     // D33, upper 0, 2 D43, D44
                                        999}));
    // Different shells are doubled whichever is stored first: s = function 0
    // with p = functions 2..4, both ways; then functions 3..4 with 2.
    for (bool swap : {false, true}) {
        out.assign(4, 999.0);
        EXPECT_EQ(swap ? density_gather(D, out.data(), false, 3, 1, 3, 1, 1, 1)
                       : density_gather(D, out.data(), false, 1, 1, 1, 3, 1, 3), 82.0);
        EXPECT_EQ(out, (std::vector<double>{42, 62, 82, 999}));
    }
    EXPECT_EQ(density_gather(D, out.data(), false, 4, 1, 2, 3, 1, 1), 86.0);
    EXPECT_EQ(out, (std::vector<double>{-66, 86, 82, 999}));
}

}  // namespace
