// Per-pair block code: the line kernel against a brute-force triple sum of
// every block element, and the density gather against a block worked out by
// hand.
#include "elepot/kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

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

// Along a line X and Y stay and Z and F change: the weights folded with one
// line's X and Y, then three points of it, against sum_ij w_ij V_ij by the
// straight triple sum, for every pair of types (the compile-time loops up to f
// and the general ones beyond).
TEST(Kernels, LineKernelMatchesBruteForceForEveryTypePair) {
    // Two summation orders of at most 7^3 products of five factors per element
    // differ by less than (343 + 5) 2^-53 sum|terms| ~ 4e-14 sum|terms|.
    constexpr double kRoundRel = 4e-14;
    std::mt19937 rng(12345);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> ref, mag, C;
    for (int tA = 1; tA <= 13; ++tA)
        for (int tB = 1; tB <= 13; ++tB) {
            const int lA = kL[tA], lB = kL[tB];
            for (int rep = 0; rep < 2; ++rep) {
                const Tables line(lA, lB, rng, rep > 0);
                std::vector<double> w(static_cast<std::size_t>(kComp[tA] * kComp[tB]));
                for (auto& x : w) x = (rep > 0 && rng() % 5 == 0) ? 0.0 : u(rng);
                C.assign(static_cast<std::size_t>((lA + 1) * (lB + 1) * (lA + lB + 1)) + 4, -99.0);
                line_weights(tA, tB, line.X.data(), line.Y.data(), line.ns, w.data(), C.data());
                for (std::size_t e = C.size() - 4; e < C.size(); ++e) ASSERT_EQ(C[e], -99.0) << "C overrun";
                for (int point = 0; point < 3; ++point) {
                    Tables at(lA, lB, rng, rep > 0);
                    at.X = line.X;
                    at.Y = line.Y;
                    at.brute_force(tA, tB, ref, mag);
                    double want = 0.0, bound = 0.0;
                    for (std::size_t ij = 0; ij < w.size(); ++ij) {
                        want += w[ij] * ref[ij];
                        bound += std::fabs(w[ij]) * mag[ij];
                    }
                    const double got = select_line_point(lA, lB)(lA, lB, C.data(), at.Z.data(), at.ns, at.F.data());
                    ASSERT_NEAR(got, want, kRoundRel * bound) << "types " << tA << "," << tB << " point " << point;
                }
            }
        }
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
