// Overlap integrals: shell-pair blocks against a direct numerical quadrature,
// normalised diagonals against closed forms, and the matrix scatter.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "moldata/molecule.h"
#include "moldata/overlap.h"
#include "moldata/shell_types.h"
#include "moldata/sph_reference.h"

using kvx::moldata::Atom;
using kvx::moldata::CartExp;
using kvx::moldata::Molecule;
using kvx::moldata::Shell;
using kvx::moldata::overlap_block;
using kvx::moldata::type_exponents;

namespace {

constexpr double kPi = 3.14159265358979323846;

// int (x-A)^a (x-B)^b exp(-alpha (x-A)^2 - beta (x-B)^2) dx by the trapezoid
// rule. The integrand is a polynomial times a Gaussian of width
// 1/sqrt(gamma); with step h = 0.05/sqrt(gamma) the aliasing error is of
// order exp(-pi^2 / (gamma h^2)) = exp(-3900), and +-16 widths leave a tail
// below exp(-256): the result is exact to rounding.
double quad1d(int a, double A, double alpha, int b, double B, double beta) {
    const double g = alpha + beta;
    const double P = (alpha * A + beta * B) / g;
    const double w = 1.0 / std::sqrt(g);
    const double h = 0.05 * w;
    const int n = 320;
    double s = 0.0;
    for (int k = -n; k <= n; ++k) {
        const double x = P + k * h;
        s += std::pow(x - A, a) * std::pow(x - B, b) * std::exp(-alpha * (x - A) * (x - A) - beta * (x - B) * (x - B));
    }
    return s * h;
}

Atom make_atom(double x, double y, double z) {
    Atom at;
    at.symbol = "X";
    at.x = x;
    at.y = y;
    at.z = z;
    return at;
}

// coefs[g][p]: coefficient of primitive p in contraction g; for type 3,
// coefs[0] holds the s and coefs[1] the p coefficients.
Shell make_shell(int type, const std::vector<double>& exps, const std::vector<std::vector<double>>& coefs,
                 const Atom* at) {
    Shell s;
    s.type = type;
    s.size = kvx::moldata::kShellSize[type];
    s.ngc = type == 3 ? 1 : static_cast<int>(coefs.size());
    s.nprim = static_cast<int>(exps.size());
    s.nfirst = 1;
    auto bd = std::make_shared<std::vector<double>>();
    for (int p = 0; p < s.nprim; ++p) {
        bd->push_back(exps[p]);
        for (const auto& c : coefs) bd->push_back(c[p]);
    }
    s.basdat = bd;
    auto pf = std::make_shared<std::vector<double>>();
    for (double e : exps) pf->push_back(0.7127054703549901 * std::pow(e, 0.75));
    s.prefact = pf;
    s.center = at;
    return s;
}

// The basis file's normalisation of contracted coefficients (done by the
// basis reader before the overlap ever sees them).
std::vector<std::vector<double>> file_normalise(int type, const std::vector<double>& a,
                                                std::vector<std::vector<double>> c) {
    using namespace kvx::moldata;
    const std::size_t n = a.size();
    auto norm = [&](std::vector<double>& col, double K, double E) {
        double S = 0;
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t k = 0; k < n; ++k)
                S += col[i] * col[k] * K * std::pow(a[i] * a[k], E / 4) * std::pow(a[i] + a[k], -E / 2);
        return 1.0 / std::sqrt(S);
    };
    if (type == 3) {
        const double ns = norm(c[0], 2.8284271247, 3), np = norm(c[1], 5.6568542495, 5);
        for (std::size_t i = 0; i < n; ++i) {
            c[0][i] *= ns;
            c[1][i] *= np * 2 * std::sqrt(a[i]);
        }
        return c;
    }
    for (auto& col : c) {
        const double N = norm(col, kNormK[type], kNormExponent[type]);
        for (std::size_t i = 0; i < n; ++i) col[i] *= N * kNormF[type] * std::pow(a[i], kNormPower[type]);
    }
    return c;
}

// Cartesian block of the pair by quadrature of the primitives
// (2 alpha / pi)^(3/4) prod_d (x_d - A_d)^e_d exp(-alpha |r - A|^2), in the
// layout of overlap_block before its spherical transform.
std::vector<double> quadrature_block(const Shell& A, const Shell& B) {
    const int nA = kvx::moldata::kCartCount[A.type], nB = kvx::moldata::kCartCount[B.type];
    const int gA = A.type == 3 ? 1 : A.ngc, gB = B.type == 3 ? 1 : B.ngc;
    const std::size_t sub = static_cast<std::size_t>(nA) * nB;
    std::vector<double> out(sub * gA * gB, 0.0);
    const double ca[3] = {A.center->x, A.center->y, A.center->z};
    const double cb[3] = {B.center->x, B.center->y, B.center->z};
    for (int p = 0; p < A.nprim; ++p)
        for (int q = 0; q < B.nprim; ++q) {
            const double al = A.exponent(p), be = B.exponent(q);
            const double norm = std::pow(2 * al / kPi, 0.75) * std::pow(2 * be / kPi, 0.75);
            // oned[d][a][b]: the one-dimensional integrals of direction d.
            const int lA = kvx::moldata::kAngular[A.type], lB = kvx::moldata::kAngular[B.type];
            std::vector<double> oned[3];
            for (int d = 0; d < 3; ++d)
                for (int a = 0; a <= lA; ++a)
                    for (int b = 0; b <= lB; ++b) oned[d].push_back(quad1d(a, ca[d], al, b, cb[d], be));
            auto Q = [&](int d, int a, int b) { return oned[d][a * (lB + 1) + b]; };
            for (int i = 0; i < nA; ++i)
                for (int j = 0; j < nB; ++j) {
                    const CartExp ea = type_exponents(A.type, i), eb = type_exponents(B.type, j);
                    const double v = norm * Q(0, ea.x, eb.x) * Q(1, ea.y, eb.y) * Q(2, ea.z, eb.z);
                    for (int g = 0; g < gA; ++g)
                        for (int h = 0; h < gB; ++h) {
                            const double c1 = A.type == 3 ? A.coef(p, i == 0 ? 0 : 1) : A.coef(p, g);
                            const double c2 = B.type == 3 ? B.coef(q, j == 0 ? 0 : 1) : B.coef(q, h);
                            out[(g * gB + h) * sub + i * nB + j] += c1 * c2 * v;
                        }
                }
        }
    return out;
}

// The quadrature block with the spherical combinations applied.
std::vector<double> reference_block(const Shell& A, const Shell& B) {
    const auto cart = quadrature_block(A, B);
    const auto TA = kvx::test::sph_matrix(A.type), TB = kvx::test::sph_matrix(B.type);
    const int nA = kvx::moldata::kCartCount[A.type], nB = kvx::moldata::kCartCount[B.type];
    const int gA = A.type == 3 ? 1 : A.ngc, gB = B.type == 3 ? 1 : B.ngc;
    std::vector<double> out;
    for (int s = 0; s < gA * gB; ++s) {
        auto b = kvx::test::sandwich(TA, TB, cart.data() + static_cast<std::size_t>(s) * nA * nB, nA, nB);
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

// Largest diagonal element of the pair's self-overlap blocks.
double max_diagonal(const std::vector<double>& self) {
    const int n = static_cast<int>(std::lround(std::sqrt(static_cast<double>(self.size()))));
    double m = 0;
    for (int i = 0; i < n; ++i) m = std::max(m, std::fabs(self[static_cast<std::size_t>(i) * n + i]));
    return m;
}

// By Cauchy-Schwarz |<a|b>| <= sqrt(<a|a> <b|b>), which sets the scale even
// for blocks that vanish by parity. The quadrature is exact to rounding and
// the closed form loses a few digits to cancellation in f_j for distant
// centres, so 1e-11 of that scale is a safe bound.
void expect_block_near(const std::vector<double>& got, const std::vector<double>& want, double scale,
                       const char* what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 0; i < got.size(); ++i)
        ASSERT_NEAR(got[i], want[i], 1e-11 * scale) << what << " element " << i;
}

// Self-overlap scale of a pair; general contractions flatten into one
// square of (components x contractions) when the block has one contraction
// pair per row of contractions, so take the largest of every sub-block.
double pair_scale(const Shell& A, const Shell& B) {
    auto diag = [](const Shell& S) {
        const auto self = reference_block(S, S);
        const int n = kvx::moldata::is_spherical(S.type) ? kvx::moldata::kShellSize[S.type]
                                                         : kvx::moldata::kCartCount[S.type];
        const std::size_t sub = static_cast<std::size_t>(n) * n;
        double m = 0;
        for (std::size_t s = 0; s * sub < self.size(); ++s)
            m = std::max(m, max_diagonal(std::vector<double>(self.begin() + s * sub, self.begin() + (s + 1) * sub)));
        return m;
    };
    return std::sqrt(diag(A) * diag(B));
}

}  // namespace

TEST(OverlapBlock, PrimitivePairsMatchQuadrature) {
    const Atom a1 = make_atom(0.3, -0.2, 0.5), a2 = make_atom(-0.9, 0.7, 1.6);
    const int types[] = {1, 2, 3, 5, 7, 8, 9, 10};
    for (int ta : types)
        for (int tb : types)
            for (const Atom* at2 : {&a1, &a2}) {
                // Raw coefficients (1.3 and 0.7): the block is linear in them.
                const std::vector<std::vector<double>> c1 = ta == 3 ? std::vector<std::vector<double>>{{1.3}, {0.6}}
                                                                    : std::vector<std::vector<double>>{{1.3}};
                const std::vector<std::vector<double>> c2 = tb == 3 ? std::vector<std::vector<double>>{{0.7}, {-0.4}}
                                                                    : std::vector<std::vector<double>>{{0.7}};
                const Shell A = make_shell(ta, {0.9}, c1, &a1);
                const Shell B = make_shell(tb, {0.45}, c2, at2);
                std::vector<double> got;
                overlap_block(A, B, got);
                const std::string what = "types " + std::to_string(ta) + "," + std::to_string(tb) +
                                         (at2 == &a1 ? " one centre" : " two centres");
                expect_block_near(got, quadrature_block(A, B), pair_scale(A, B), what.c_str());
            }
}

TEST(OverlapBlock, ContractedGeneralAndSpShellsMatchQuadrature) {
    const Atom a1 = make_atom(0.0, 0.0, 0.0), a2 = make_atom(1.1, -0.4, 0.8);
    const std::vector<double> e3 = {5.2, 1.1, 0.31};
    const Shell d6 = make_shell(5, e3, {{0.2, 0.5, 0.4}, {-0.3, 0.1, 0.9}}, &a1);   // ngc 2
    const Shell sp = make_shell(3, {2.4, 0.6}, {{-0.1, 1.0}, {0.3, 0.8}}, &a2);
    const Shell p2 = make_shell(2, e3, {{0.4, 0.6, 0.2}, {0.1, -0.5, 1.2}}, &a2);   // ngc 2
    const Shell s3 = make_shell(1, e3, {{0.15, 0.5, 0.6}, {0.2, 0.2, -0.7}, {1, 0, 0}}, &a1);  // ngc 3
    for (const Shell* A : {&d6, &sp, &p2, &s3})
        for (const Shell* B : {&d6, &sp, &p2, &s3}) {
            std::vector<double> got;
            overlap_block(*A, *B, got);
            expect_block_near(got, quadrature_block(*A, *B), pair_scale(*A, *B), "contracted pair");
        }
}

TEST(OverlapBlock, SphericalPairsAreCombinedCartesianBlocks) {
    const Atom a1 = make_atom(0.2, 0.1, -0.3), a2 = make_atom(-0.8, 1.2, 0.4);
    const Shell d = make_shell(4, {1.7, 0.4}, {{0.5, 0.6}, {1.0, -0.2}}, &a1);  // ngc 2
    const Shell f = make_shell(6, {0.8}, {{1.0}}, &a2);
    const Shell sp = make_shell(3, {1.2}, {{0.9}, {0.7}}, &a2);
    const Shell p = make_shell(2, {0.6}, {{1.0}}, &a1);
    const std::pair<const Shell*, const Shell*> pairs[] = {{&d, &d}, {&d, &f}, {&f, &d}, {&f, &f},
                                                           {&d, &sp}, {&sp, &f}, {&p, &d}, {&f, &p}};
    for (auto [A, B] : pairs) {
        std::vector<double> got;
        overlap_block(*A, *B, got);
        expect_block_near(got, reference_block(*A, *B), pair_scale(*A, *B), "spherical pair");
    }
}

// With the file's normalisation a cartesian component (ex, ey, ez) of
// degree l has <c|c> = F^2 4^-l (2ex-1)!! (2ey-1)!! (2ez-1)!!: 3 and 1 for
// the d6 squares and products, and every spherical function has norm 1.
TEST(OverlapBlock, NormalisedShellsHaveTheFormatDiagonals) {
    const Atom at = make_atom(0.4, -1.0, 0.25);
    const std::vector<double> e = {4.0, 1.2, 0.35};
    const std::vector<double> raw = {0.3, 0.6, 0.35};
    auto df = [](int n) { double r = 1; for (int k = n; k > 1; k -= 2) r *= k; return r; };
    for (int type = 1; type <= 12; ++type) {
        const auto c = file_normalise(type, e, type == 3 ? std::vector<std::vector<double>>{raw, {0.2, 0.5, 0.6}}
                                                         : std::vector<std::vector<double>>{raw});
        const Shell A = make_shell(type, e, c, &at);
        std::vector<double> got;
        overlap_block(A, A, got);
        const int n = kvx::moldata::kShellSize[type];
        ASSERT_EQ(got.size(), static_cast<std::size_t>(n) * n) << type;
        for (int i = 0; i < n; ++i) {
            double want = 1.0;
            if (!kvx::moldata::is_spherical(type) && type != 3) {
                const CartExp x = type_exponents(type, i);
                const int l = x.x + x.y + x.z;
                const double F = kvx::moldata::kNormF[type];
                want = F * F * std::pow(4.0, -l) * df(2 * x.x - 1) * df(2 * x.y - 1) * df(2 * x.z - 1);
            }
            // F is tabled to 10-11 digits and K to 11: 1e-9 relative.
            EXPECT_NEAR(got[i * n + i], want, 1e-9 * want) << "type " << type << " function " << i;
        }
        if (type == 5)
            for (int i = 0; i < 6; ++i) EXPECT_NEAR(got[i * 6 + i], i < 3 ? 3.0 : 1.0, 1e-9);
    }
}

// Two atoms, shells numbered against the shell order in one case: the matrix
// must hold every pair, each element compared with the quadrature block of
// its shell pair.
TEST(OverlapMatrix, ScattersEveryShellPairIntoTheLowerTriangle) {
    for (bool reorder : {false, true}) {
        Molecule mol;
        mol.atoms = {make_atom(0, 0, 0), make_atom(0.5, 0.3, 1.4)};
        const Atom* A0 = &mol.atoms[0];
        const Atom* A1 = &mol.atoms[1];
        mol.shells = {make_shell(1, {3.0, 0.5}, {{0.4, 0.7}, {0.9, -0.3}}, A0),  // 2 functions
                      make_shell(3, {1.1}, {{1.0}, {1.0}}, A1),                   // 4
                      make_shell(4, {0.9}, {{1.0}}, A0),                          // 5
                      make_shell(2, {0.7}, {{1.0}}, A1)};                         // 3
        // Numbers in shell order, or atom by atom (shells 0, 2 then 1, 3).
        const int nf_inorder[] = {1, 3, 7, 12};
        const int nf_atoms[] = {1, 8, 3, 12};
        for (int s = 0; s < 4; ++s) mol.shells[s].nfirst = reorder ? nf_atoms[s] : nf_inorder[s];
        mol.nbasis = 14;
        mol.nshell = 4;
        kvx::moldata::add_overlap(mol);
        ASSERT_TRUE(mol.overlap);
        const auto& S = *mol.overlap;
        ASSERT_EQ(S.n, 14);
        std::vector<double> full(14 * 14, std::nan(""));
        for (int a = 0; a < 4; ++a)
            for (int b = 0; b < 4; ++b) {
                const Shell& sa = mol.shells[a];
                const Shell& sb = mol.shells[b];
                const auto ref = reference_block(sa, sb);
                const int ga = sa.type == 3 ? 1 : sa.ngc, gb = sb.type == 3 ? 1 : sb.ngc;
                std::size_t k = 0;
                for (int g = 0; g < ga; ++g)
                    for (int h = 0; h < gb; ++h)
                        for (int i = 0; i < sa.size; ++i)
                            for (int j = 0; j < sb.size; ++j)
                                full[(sa.nfirst - 1 + g * sa.size + i) * 14 + sb.nfirst - 1 + h * sb.size + j] = ref[k++];
            }
        for (int i = 0; i < 14; ++i)
            for (int j = 0; j <= i; ++j)
                EXPECT_NEAR(S.at(i, j), full[i * 14 + j], 1e-11) << "reorder " << reorder << " (" << i << "," << j << ")";
    }
}

TEST(OverlapMatrix, MoleculeWithoutShellsGetsNoMatrix) {
    Molecule mol;
    mol.atoms = {make_atom(0, 0, 0)};
    mol.nbasis = 5;
    kvx::moldata::add_overlap(mol);
    EXPECT_FALSE(mol.overlap);
}
