// The importer's mathematical ground: real solid harmonics against their
// defining properties and textbook forms, and the normalisation it assumes
// for Kalvex's own shells against Kalvex's overlap integrals.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "grid/gto_reference.h"
#include "import/convert.h"
#include "import/harmonics.h"
#include "moldata/basis.h"
#include "moldata/overlap.h"

namespace {

using namespace kvx;
using gauss::CartExp;

// Laplacian of sum_c s_c x^c, as coefficients over the monomials of degree l - 2.
std::vector<double> laplacian(const double* s, int l) {
    std::vector<double> out(static_cast<std::size_t>(import::cart_count(l - 2)), 0.0);
    for (int c = 0; c < import::cart_count(l); ++c) {
        const gauss::CartExp e = gauss::cart_exponents(l, c);
        const int p[3] = {e.x, e.y, e.z};
        for (int d = 0; d < 3; ++d) {
            if (p[d] < 2) continue;
            int q[3] = {p[0], p[1], p[2]};
            q[d] -= 2;
            out[static_cast<std::size_t>(import::cart_index({q[0], q[1], q[2]}))] += p[d] * (p[d] - 1) * s[c];
        }
    }
    return out;
}

// Each row is harmonic, the rows are orthonormal in the monomial overlap,
// and there are 2l + 1 of them: a basis of the degree-l harmonics.
TEST(SolidHarmonics, HarmonicAndOrthonormal) {
    for (int l = 0; l <= 6; ++l) {
        const std::vector<double> S = import::solid_harmonics(l);
        const int nc = import::cart_count(l), n = 2 * l + 1;
        ASSERT_EQ(S.size(), static_cast<std::size_t>(n * nc));
        for (int r = 0; r < n; ++r) {
            if (l >= 2) {
                for (double v : laplacian(&S[static_cast<std::size_t>(r * nc)], l)) EXPECT_NEAR(v, 0.0, 1e-12) << l << " " << r;
            }
            for (int q = 0; q <= r; ++q) {
                double dot = 0;
                for (int a = 0; a < nc; ++a)
                    for (int b = 0; b < nc; ++b)
                        dot += S[static_cast<std::size_t>(r * nc + a)] * S[static_cast<std::size_t>(q * nc + b)] *
                               import::monomial_overlap(gauss::cart_exponents(l, a), gauss::cart_exponents(l, b));
                EXPECT_NEAR(dot, r == q ? 1.0 : 0.0, 1e-12) << "l " << l << " rows " << r << " " << q;
            }
        }
    }
}

// The order m = 0, +1, -1, +2, -2, ... and the signs of the usual real forms:
// d: 2z^2 - x^2 - y^2, xz, yz, x^2 - y^2, xy; f: z(2z^2 - 3x^2 - 3y^2), ...,
// x^3 - 3xy^2, 3x^2y - y^3.
TEST(SolidHarmonics, TextbookFormsAndSigns) {
    struct Form {
        int l, row;
        std::vector<std::pair<gauss::CartExp, double>> terms;
    };
    const Form forms[] = {
        {1, 0, {{{0, 0, 1}, 1}}},
        {1, 1, {{{1, 0, 0}, 1}}},
        {1, 2, {{{0, 1, 0}, 1}}},
        {2, 0, {{{0, 0, 2}, 2}, {{2, 0, 0}, -1}, {{0, 2, 0}, -1}}},
        {2, 1, {{{1, 0, 1}, 1}}},
        {2, 2, {{{0, 1, 1}, 1}}},
        {2, 3, {{{2, 0, 0}, 1}, {{0, 2, 0}, -1}}},
        {2, 4, {{{1, 1, 0}, 1}}},
        {3, 0, {{{0, 0, 3}, 2}, {{2, 0, 1}, -3}, {{0, 2, 1}, -3}}},
        {3, 5, {{{3, 0, 0}, 1}, {{1, 2, 0}, -3}}},
        {3, 6, {{{2, 1, 0}, 3}, {{0, 3, 0}, -1}}},
        {4, 7, {{{4, 0, 0}, 1}, {{2, 2, 0}, -6}, {{0, 4, 0}, 1}}},
    };
    for (const Form& f : forms) {
        const std::vector<double> S = import::solid_harmonics(f.l);
        const int nc = import::cart_count(f.l);
        std::vector<double> expect(static_cast<std::size_t>(nc), 0.0);
        for (const auto& [e, c] : f.terms) expect[static_cast<std::size_t>(import::cart_index(e))] = c;
        // Same direction, positive multiple.
        const double* row = &S[static_cast<std::size_t>(f.row * nc)];
        const int lead = import::cart_index(f.terms[0].first);
        const double k = row[lead] / expect[static_cast<std::size_t>(lead)];
        EXPECT_GT(k, 0) << "l " << f.l << " row " << f.row;
        for (int c = 0; c < nc; ++c) EXPECT_NEAR(row[c], k * expect[static_cast<std::size_t>(c)], 1e-12) << f.l << " " << f.row;
    }
}

// kalvex_functions claims component k of a Kalvex shell is sum_c K_kc x^c R
// with <x^a R|x^b R> the monomial overlap: its overlap block must then be
// K G K^T, which the overlap module computes from the normalised basis data
// by another route (Gaussian product expansions). The normalisation
// constants K and F are tabled to 10 or 11 digits, hence 1e-9.
TEST(KalvexFunctions, MatchKalvexOverlapBlocks) {
    for (int type : {1, 2, 3, 4, 5, 7, 8, 9, 10}) {
        std::vector<double> dat = type == 3 ? std::vector<double>{3.1, 0.3, 0.2, 0.45, 0.7, 0.9}
                                            : std::vector<double>{3.1, 0.3, 0.45, 0.7};
        moldata::normalise_shell_data(type, 2, 1, dat);
        test::MolBuilder b;
        b.atom(0.1, -0.2, 0.3);
        if (type == 3) b.shell(0, 3, 1, {{dat[0], dat[1], dat[2]}, {dat[3], dat[4], dat[5]}});
        else b.shell(0, type, 1, {{dat[0], dat[1]}, {dat[2], dat[3]}});
        std::vector<double> block;
        moldata::overlap_block(b.mol->shells[0], b.mol->shells[0], block);
        moldata::ov_cleanup();

        const std::vector<double> K = import::kalvex_functions(type);
        const int nk = gauss::kShellSize[type], l = gauss::kAngular[type];
        const int nm = type == 3 ? 4 : import::cart_count(l);
        auto mono = [&](int c) {
            return type == 3 ? (c == 0 ? gauss::CartExp{0, 0, 0} : gauss::cart_exponents(1, c - 1))
                             : gauss::cart_exponents(l, c);
        };
        ASSERT_EQ(block.size(), static_cast<std::size_t>(nk * nk)) << type;
        for (int i = 0; i < nk; ++i)
            for (int j = 0; j < nk; ++j) {
                double s = 0;
                for (int a = 0; a < nm; ++a)
                    for (int c = 0; c < nm; ++c)
                        s += K[static_cast<std::size_t>(i * nm + a)] * K[static_cast<std::size_t>(j * nm + c)] *
                             import::monomial_overlap(mono(a), mono(c));
                EXPECT_NEAR(block[static_cast<std::size_t>(i * nk + j)], s, 1e-9 * (1 + std::fabs(s)))
                    << "type " << type << " (" << i << ", " << j << ")";
            }
    }
}

}  // namespace
