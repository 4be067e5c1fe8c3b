// Potential integral kernels against a brute-force triple sum, specialised
// against generic, the cartesian component order, and the density gather.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "elepot/kernels.h"
#include "moldata/molecule.h"

using namespace kvx::elepot;

namespace {

constexpr int kL[14] = {0, 0, 1, 1, 2, 2, 3, 3, 4, 5, 6, 4, 5, 6};
constexpr int kComp[14] = {0, 1, 3, 4, 6, 6, 10, 10, 15, 21, 28, 15, 21, 28};

// Exponents of component k, enumerated independently of the library:
// sp is s, x, y, z; d is xx, yy, zz, xy, xz, yz; others by descending x
// then descending y.
void exps(int type, int k, int e[3]) {
    if (type == 3) {
        e[0] = e[1] = e[2] = 0;
        if (k > 0) e[k - 1] = 1;
        return;
    }
    const int l = kL[type];
    if (l == 2) {
        static const int d[6][3] = {{2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {1, 1, 0}, {1, 0, 1}, {0, 1, 1}};
        for (int c = 0; c < 3; ++c) e[c] = d[k][c];
        return;
    }
    int n = 0;
    for (int x = l; x >= 0; --x)
        for (int y = l - x; y >= 0; --y)
            if (n++ == k) {
                e[0] = x;
                e[1] = y;
                e[2] = l - x - y;
                return;
            }
}

// Directional tables for one pair: (lA+1)(lB+1) rows of stride ns, row 0
// [1], others random in [-1, 1] with about one entry in six exactly 0 (a
// point on the line of P gives such zeros).
struct Tables {
    int ns;
    std::vector<double> X, Y, Z, F;
    Tables(int lA, int lB, std::mt19937& rng, bool zeros) : ns(lA + lB + 3) {
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        const std::size_t len = static_cast<std::size_t>((lA + 1) * (lB + 1) * ns);
        for (auto* v : {&X, &Y, &Z}) {
            v->resize(len);
            for (auto& x : *v) x = (zeros && rng() % 6 == 0) ? 0.0 : u(rng);
            (*v)[0] = 1.0;
        }
        F.resize(static_cast<std::size_t>(lA + lB + 1));
        for (auto& f : F) f = 0.05 + 0.5 * (u(rng) + 1.0);
    }
};

// Straight triple sum over nu_x, nu_y, nu_z; also returns the sum of the
// terms' magnitudes, which bounds the rounding of any summation order.
void brute_force(int tA, int tB, const Tables& t, std::vector<double>& v, std::vector<double>& mag) {
    const int nB = kComp[tB], lB1 = kL[tB] + 1;
    v.assign(static_cast<std::size_t>(kComp[tA] * nB), 0.0);
    mag = v;
    for (int i = 0; i < kComp[tA]; ++i)
        for (int j = 0; j < nB; ++j) {
            int a[3], b[3];
            exps(tA, i, a);
            exps(tB, j, b);
            const double* x = &t.X[static_cast<std::size_t>((a[0] * lB1 + b[0]) * t.ns)];
            const double* y = &t.Y[static_cast<std::size_t>((a[1] * lB1 + b[1]) * t.ns)];
            const double* z = &t.Z[static_cast<std::size_t>((a[2] * lB1 + b[2]) * t.ns)];
            for (int nx = 0; nx <= a[0] + b[0]; ++nx)
                for (int ny = 0; ny <= a[1] + b[1]; ++ny)
                    for (int nz = 0; nz <= a[2] + b[2]; ++nz) {
                        const double term = x[nx] * y[ny] * z[nz] * t.F[static_cast<std::size_t>(nx + ny + nz)];
                        v[static_cast<std::size_t>(i * nB + j)] += term;
                        mag[static_cast<std::size_t>(i * nB + j)] += std::fabs(term);
                    }
        }
}

// Two summation orders of at most 7^3 = 343 products of four factors each
// differ by less than (343 + 4) * 2^-53 * sum |terms| ~ 4e-14 sum |terms|.
constexpr double kRoundRel = 4e-14;

std::vector<double> run(KernelFn k, int tA, int tB, const Tables& t) {
    std::vector<double> out(static_cast<std::size_t>(kComp[tA] * kComp[tB]) + 3, -99.0);
    k(tA, tB, t.X.data(), t.Y.data(), t.Z.data(), t.ns, t.F.data(), out.data());
    for (std::size_t k2 = out.size() - 3; k2 < out.size(); ++k2) EXPECT_EQ(out[k2], -99.0) << "wrote past the block";
    out.resize(out.size() - 3);
    return out;
}

TEST(KernelsTest, GenericMatchesBruteForceForEveryTypePair) {
    std::mt19937 rng(12345);
    std::vector<double> ref, mag;
    for (int tA = 1; tA <= 13; ++tA)
        for (int tB = 1; tB <= 13; ++tB)
            for (bool zeros : {false, true}) {
                Tables t(kL[tA], kL[tB], rng, zeros);
                brute_force(tA, tB, t, ref, mag);
                const auto got = run(&generic_kernel, tA, tB, t);
                for (std::size_t k = 0; k < ref.size(); ++k)
                    ASSERT_NEAR(got[k], ref[k], kRoundRel * mag[k])
                        << "types " << tA << "," << tB << " element " << k << (zeros ? " with zeros" : "");
            }
}

TEST(KernelsTest, SpecialisedMatchGenericForAllClassPairs) {
    // Types 1..7 cover s, p, sp, both d and both f: all 25 class pairs, each
    // d and f pair in spherical and cartesian form.
    std::mt19937 rng(777);
    std::vector<double> ref, mag;
    for (int tA = 1; tA <= 7; ++tA)
        for (int tB = 1; tB <= 7; ++tB) {
            const KernelFn k = select_kernel(tA, tB);
            ASSERT_NE(k, &generic_kernel) << tA << "," << tB;
            for (int rep = 0; rep < 3; ++rep) {
                Tables t(kL[tA], kL[tB], rng, rep == 2);
                brute_force(tA, tB, t, ref, mag);
                const auto fast = run(k, tA, tB, t);
                const auto gen = run(&generic_kernel, tA, tB, t);
                for (std::size_t e = 0; e < ref.size(); ++e) {
                    ASSERT_NEAR(fast[e], gen[e], kRoundRel * mag[e]) << "types " << tA << "," << tB << " element " << e;
                    ASSERT_NEAR(fast[e], ref[e], kRoundRel * mag[e]) << "types " << tA << "," << tB << " element " << e;
                }
            }
        }
}

TEST(KernelsTest, HighClassesSelectGeneric) {
    for (int t : {8, 9, 10, 11, 12, 13}) {
        EXPECT_EQ(select_kernel(t, 1), &generic_kernel);
        EXPECT_EQ(select_kernel(2, t), &generic_kernel);
        EXPECT_EQ(select_kernel(t, t), &generic_kernel);
    }
}

TEST(KernelsTest, HandWrittenSmallBlocks) {
    std::mt19937 rng(5);
    // (s, s): F_0.
    {
        Tables t(0, 0, rng, false);
        EXPECT_EQ(run(select_kernel(1, 1), 1, 1, t)[0], t.F[0]);
    }
    // (s, p): V_x = X[1][0] F0 + X[1][1] F1 (row 1 is a = 0, b = 1).
    {
        Tables t(0, 1, rng, false);
        const auto v = run(select_kernel(1, 2), 1, 2, t);
        const int s = t.ns;
        EXPECT_NEAR(v[0], t.X[s] * t.F[0] + t.X[s + 1] * t.F[1], 1e-15);
        EXPECT_NEAR(v[1], t.Y[s] * t.F[0] + t.Y[s + 1] * t.F[1], 1e-15);
        EXPECT_NEAR(v[2], t.Z[s] * t.F[0] + t.Z[s + 1] * t.F[1], 1e-15);
    }
    // (p, p): V_xx = sum_nu X[3][nu] F_nu;
    // V_xy = X[2][0]Y[1][0]F0 + (X[2][0]Y[1][1] + X[2][1]Y[1][0])F1 + X[2][1]Y[1][1]F2.
    {
        Tables t(1, 1, rng, false);
        const auto v = run(select_kernel(2, 2), 2, 2, t);
        const int s = t.ns;
        const double* X2 = &t.X[2 * s];
        const double* X3 = &t.X[3 * s];
        const double* Y1 = &t.Y[1 * s];
        EXPECT_NEAR(v[0], X3[0] * t.F[0] + X3[1] * t.F[1] + X3[2] * t.F[2], 1e-15);
        EXPECT_NEAR(v[1],
                    X2[0] * Y1[0] * t.F[0] + (X2[0] * Y1[1] + X2[1] * Y1[0]) * t.F[1] + X2[1] * Y1[1] * t.F[2],
                    1e-15);
        // (sp, sp): the s-s element is F_0, the s-x element is the (s, p) V_x.
        const auto w = run(select_kernel(3, 3), 3, 3, t);
        EXPECT_EQ(w[0], t.F[0]);
        EXPECT_NEAR(w[1], t.X[s] * t.F[0] + t.X[s + 1] * t.F[1], 1e-15);
        EXPECT_NEAR(w[4 * 1 + 1], v[0], 1e-15);  // x with x
    }
}

TEST(KernelsTest, ComponentOrderOfEachShellClass) {
    // With F = (1, 0, ...) only nu = 0 survives and V_i0 (B = s) is
    // X[ax][0] Y[ay][0] Z[az][0]; setting those to 2^a, 3^a, 5^a spells out
    // the exponents of every component as 2^ax 3^ay 5^az.
    auto block = [](int tA) {
        const int lA = kL[tA], ns = lA + 1;
        std::vector<double> X(static_cast<std::size_t>((lA + 1) * ns), 0.0), Y = X, Z = X, F(static_cast<std::size_t>(ns), 0.0);
        F[0] = 1.0;
        for (int a = 0; a <= lA; ++a) {
            X[static_cast<std::size_t>(a * ns)] = std::pow(2.0, a);
            Y[static_cast<std::size_t>(a * ns)] = std::pow(3.0, a);
            Z[static_cast<std::size_t>(a * ns)] = std::pow(5.0, a);
        }
        std::vector<double> out(static_cast<std::size_t>(kComp[tA]));
        select_kernel(tA, 1)(tA, 1, X.data(), Y.data(), Z.data(), ns, F.data(), out.data());
        std::vector<double> gen(out.size());
        generic_kernel(tA, 1, X.data(), Y.data(), Z.data(), ns, F.data(), gen.data());
        EXPECT_EQ(out, gen);
        return out;
    };
    EXPECT_EQ(block(2), (std::vector<double>{2, 3, 5}));
    EXPECT_EQ(block(3), (std::vector<double>{1, 2, 3, 5}));
    const std::vector<double> d = {4, 9, 25, 6, 10, 15};  // xx yy zz xy xz yz
    EXPECT_EQ(block(4), d);
    EXPECT_EQ(block(5), d);
    // xxx xxy xxz xyy xyz xzz yyy yyz yzz zzz
    const std::vector<double> f = {8, 12, 20, 18, 30, 50, 27, 45, 75, 125};
    EXPECT_EQ(block(6), f);
    EXPECT_EQ(block(7), f);
    // g: xxxx xxxy xxxz xxyy xxyz xxzz xyyy xyyz xyzz xzzz yyyy yyyz yyzz yzzz zzzz
    const std::vector<double> g = {16, 24, 40, 36, 60, 100, 54, 90, 150, 250, 81, 135, 225, 375, 625};
    EXPECT_EQ(block(8), g);
    EXPECT_EQ(block(11), g);
}

// D(r, q) = 10 r + q + 1 for r >= q, with D(3, 2) = -33 to check that the
// returned maximum is a magnitude.
kvx::moldata::TriMatrix test_density(int n) {
    kvx::moldata::TriMatrix D;
    D.n = n;
    D.data.resize(static_cast<std::size_t>(n * (n + 1) / 2));
    for (int r = 0; r < n; ++r)
        for (int q = 0; q <= r; ++q) D.at(r, q) = 10 * r + q + 1;
    D.at(3, 2) = -33;
    return D;
}

TEST(DensityGatherTest, ShellWithItself) {
    // One shell, two contractions of two functions, basis functions 1..4
    // (nfirst = 2). Blocks in the order (c1, c2) = 00, 01, 10, 11.
    const auto D = test_density(6);
    std::vector<double> out(17, 999.0);
    const double m = density_gather(D, out.data(), true, 2, 2, 2, 2, 2, 2);
    const std::vector<double> expected = {
        12, 0,   44, 23,  // diagonal sub-block: D11, upper 0, 2 D21, D22
        0,  0,   0,  0,   // c1 = 0, c2 = 1 lies wholly above the diagonal
        64, -66, 84, 86,  // 2 D31, 2 D32, 2 D41, 2 D42
        34, 0,   88, 45,  // D33, upper 0, 2 D43, D44
    };
    for (int k = 0; k < 16; ++k) EXPECT_EQ(out[k], expected[k]) << k;
    EXPECT_EQ(out[16], 999.0);
    EXPECT_EQ(m, 88.0);
}

TEST(DensityGatherTest, DifferentShellsDoubleBothWays) {
    const auto D = test_density(6);
    std::vector<double> out(4, 999.0);
    // A = function 0 (s), B = functions 2..4 (p): row index below column.
    double m = density_gather(D, out.data(), false, 1, 1, 1, 3, 1, 3);
    EXPECT_EQ(out, (std::vector<double>{42, 62, 82, 999}));
    EXPECT_EQ(m, 82.0);
    // Swapped: the same values from the stored lower triangle.
    out.assign(4, 999.0);
    m = density_gather(D, out.data(), false, 3, 1, 3, 1, 1, 1);
    EXPECT_EQ(out, (std::vector<double>{42, 62, 82, 999}));
    EXPECT_EQ(m, 82.0);
    // A = functions 3..4 (one contraction of 2), B = functions 1..2 and 3..4
    // would overlap A; use B = function 2 only: values 2 D32 = -66, 2 D42 = 86.
    out.assign(4, 999.0);
    m = density_gather(D, out.data(), false, 4, 1, 2, 3, 1, 1);
    EXPECT_EQ(out, (std::vector<double>{-66, 86, 999, 999}));
    EXPECT_EQ(m, 86.0);
    EXPECT_EQ(density_gather(D, out.data(), false, 1, 1, 0, 2, 1, 1), 0.0);
}

}  // namespace
