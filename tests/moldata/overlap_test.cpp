// Overlap integrals: shell-pair blocks against a direct numerical quadrature
// and the spherical combinations as solid harmonics. (Normalised diagonals:
// basis_test.cpp; the matrix scatter: C S C^T = 1 in job_load_test.cpp.)
#include "moldata/overlap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <tuple>
#include <vector>

#include "gauss/shell_types.h"
#include "gauss/spherical.h"
#include "moldata/molecule.h"

using namespace kvx::moldata;
namespace gauss = kvx::gauss;

namespace {

constexpr double kPi = 3.14159265358979323846;
using Rows = std::vector<std::vector<double>>;

// int (x-A)^a (x-B)^b exp(-alpha (x-A)^2 - beta (x-B)^2) dx by the trapezoid
// rule: with step h = 0.05 / sqrt(gamma) the aliasing error is of order
// exp(-pi^2 / (gamma h^2)) = exp(-3900) and +-16 widths leave a tail below
// exp(-256), so the result is exact to rounding.
double quad1d(int a, double A, double alpha, int b, double B, double beta) {
    const double g = alpha + beta, P = (alpha * A + beta * B) / g, h = 0.05 / std::sqrt(g);
    double s = 0.0;
    for (int k = -320; k <= 320; ++k) {
        const double x = P + k * h;
        s += std::pow(x - A, a) * std::pow(x - B, b) * std::exp(-alpha * (x - A) * (x - A) - beta * (x - B) * (x - B));
    }
    return s * h;
}

Atom atom_at(double x, double y, double z) {
    Atom at;
    std::tie(at.x, at.y, at.z) = std::tie(x, y, z);
    return at;
}

// coefs[g][p]: coefficient of primitive p in contraction g (type 3: s then
// p column), used as they are: the block is linear in them.
Shell make_shell(int type, const std::vector<double>& exps, const Rows& coefs, const Atom* at) {
    Shell s;
    s.type = type;
    s.size = gauss::kShellSize[type];
    s.ngc = type == 3 ? 1 : static_cast<int>(coefs.size());
    s.nprim = static_cast<int>(exps.size());
    s.nfirst = 1;
    auto bd = std::make_shared<std::vector<double>>();
    auto pf = std::make_shared<std::vector<double>>();
    for (int p = 0; p < s.nprim; ++p) {
        bd->push_back(exps[p]);
        for (const auto& c : coefs) bd->push_back(c[p]);
        pf->push_back(std::pow(2 * exps[p] / kPi, 0.75));
    }
    s.basdat = bd;
    s.prefact = pf;
    s.center = at;
    return s;
}

// Spherical combinations written out from the chemistry (columns: d xx yy
// zz xy xz yz; f xxx xxy xxz xyy xyz xzz yyy yyz yzz zzz); cartesian types
// get the identity.
Rows sph_matrix(int type) {
    const double a = 1.0 / (2.0 * std::sqrt(3.0));
    if (type == 4) return {{-a, -a, 2 * a, 0, 0, 0}, {0.5, -0.5, 0, 0, 0, 0}, {0, 0, 0, 1, 0, 0}, {0, 0, 0, 0, 1, 0},
                           {0, 0, 0, 0, 0, 1}};
    if (type == 6) return {{0, 4, 0, 0, 0, 0, -1, 0, -1, 0},  {0, 0, 4, 0, 0, 0, 0, -1, 0, -1},
                           {-1, 0, 0, 4, 0, -1, 0, 0, 0, 0},  {0, 0, -1, 0, 0, 0, 0, 4, 0, -1},
                           {-1, 0, 0, -1, 0, 4, 0, 0, 0, 0},  {0, -1, 0, 0, 0, 0, -1, 0, 4, 0},
                           {0, 0, 0, 0, std::sqrt(40.0), 0, 0, 0, 0, 0}};
    Rows id(gauss::kCartCount[type], std::vector<double>(gauss::kCartCount[type], 0.0));
    for (int i = 0; i < gauss::kCartCount[type]; ++i) id[i][i] = 1.0;
    return id;
}

// Reference block in the layout of overlap_block: per contraction pair the
// quadrature of the primitives (2 alpha / pi)^(3/4) (r-A)^e exp(-alpha
// |r-A|^2), then T_A M T_B^T with the combinations above.
std::vector<double> reference_block(const Shell& A, const Shell& B) {
    const int nA = gauss::kCartCount[A.type], nB = gauss::kCartCount[B.type], lA = gauss::kAngular[A.type],
              lB = gauss::kAngular[B.type];
    const int gA = A.type == 3 ? 1 : A.ngc, gB = B.type == 3 ? 1 : B.ngc;
    const double ca[3] = {A.center->x, A.center->y, A.center->z}, cb[3] = {B.center->x, B.center->y, B.center->z};
    std::vector<double> cart(static_cast<std::size_t>(nA * nB * gA * gB), 0.0);
    for (int p = 0; p < A.nprim; ++p)
        for (int q = 0; q < B.nprim; ++q) {
            const double al = A.exponent(p), be = B.exponent(q);
            std::vector<double> oned[3];
            for (int d = 0; d < 3; ++d)
                for (int a = 0; a <= lA; ++a)
                    for (int b = 0; b <= lB; ++b) oned[d].push_back(quad1d(a, ca[d], al, b, cb[d], be));
            auto Q = [&](int d, int a, int b) { return oned[d][a * (lB + 1) + b]; };
            for (int i = 0; i < nA; ++i)
                for (int j = 0; j < nB; ++j) {
                    const gauss::CartExp ea = gauss::type_exponents(A.type, i), eb = gauss::type_exponents(B.type, j);
                    const double v = std::pow(4 * al * be / (kPi * kPi), 0.75) * Q(0, ea.x, eb.x) *
                                     Q(1, ea.y, eb.y) * Q(2, ea.z, eb.z);
                    for (int g = 0; g < gA; ++g)
                        for (int h = 0; h < gB; ++h)
                            cart[((g * gB + h) * nA + i) * nB + j] += v * A.coef(p, A.type == 3 ? (i > 0) : g) *
                                                                      B.coef(q, B.type == 3 ? (j > 0) : h);
                }
        }
    const Rows TA = sph_matrix(A.type), TB = sph_matrix(B.type);
    std::vector<double> out;
    for (int s = 0; s < gA * gB; ++s)
        for (const auto& ta : TA)
            for (const auto& tb : TB) {
                double v = 0;
                for (int k = 0; k < nA; ++k)
                    for (int l = 0; l < nB; ++l) v += ta[k] * cart[(s * nA + k) * nB + l] * tb[l];
                out.push_back(v);
            }
    return out;
}

}  // namespace

// A representative set of pairs: every cartesian degree up to i28, sp, the
// spherical d and f on either side, one and two centres, contracted and
// general contractions.
// Tolerance: by Cauchy-Schwarz |<a|b>| <= sqrt(<a|a><b|b>), which sets the
// scale even for blocks that vanish by parity; the quadrature is exact to
// rounding and the closed form loses a few digits to cancellation for
// distant centres, so 1e-11 of that scale.
TEST(OverlapBlock, RepresentativePairsMatchQuadrature) {
    const Atom a1 = atom_at(0.3, -0.2, 0.5), a2 = atom_at(-0.9, 0.7, 1.6);
    const std::vector<double> e3 = {5.2, 1.1, 0.31};
    const Shell s = make_shell(1, {0.9}, {{1.3}}, &a1), s2 = make_shell(1, {0.45}, {{0.7}}, &a2);
    const Shell p = make_shell(2, {0.6}, {{1.0}}, &a2), sp = make_shell(3, {1.2}, {{0.9}, {0.7}}, &a2);
    const Shell d6 = make_shell(5, e3, {{0.2, 0.5, 0.4}, {-0.3, 0.1, 0.9}}, &a1);  // ngc 2
    const Shell p2 = make_shell(2, e3, {{0.4, 0.6, 0.2}, {0.1, -0.5, 1.2}}, &a2);  // ngc 2
    const Shell spc = make_shell(3, {2.4, 0.6}, {{-0.1, 1.0}, {0.3, 0.8}}, &a1);
    const Shell d = make_shell(4, {1.7, 0.4}, {{0.5, 0.6}, {1.0, -0.2}}, &a1);  // ngc 2
    const Shell f = make_shell(6, {0.8}, {{1.0}}, &a2), f10 = make_shell(7, {0.9}, {{1.1}}, &a1);
    const Shell g15 = make_shell(8, {0.7}, {{1.0}}, &a2), h21 = make_shell(9, {0.5}, {{0.8}}, &a1);
    const Shell i28 = make_shell(10, {0.45}, {{0.6}}, &a2), i28same = make_shell(10, {0.9}, {{1.0}}, &a1);
    const std::pair<const Shell*, const Shell*> pairs[] = {
        {&s, &s2},  {&s, &s},    {&p, &d6},   {&d6, &p2},   {&spc, &sp}, {&sp, &f10}, {&f10, &g15},
        {&g15, &h21}, {&h21, &i28}, {&i28, &s}, {&i28same, &i28}, {&d, &d},  {&d, &f},  {&f, &d},
        {&f, &f},   {&d, &spc},  {&sp, &f},   {&p2, &d},    {&f, &g15},  {&d6, &d6}};
    auto peak = [](const std::vector<double>& v) {
        return std::fabs(*std::max_element(v.begin(), v.end(), [](double x, double y) { return std::fabs(x) < std::fabs(y); }));
    };
    for (auto [A, B] : pairs) {
        std::vector<double> got;
        overlap_block(*A, *B, got);
        const auto want = reference_block(*A, *B);
        const double scale = std::sqrt(peak(reference_block(*A, *A)) * peak(reference_block(*B, *B)));
        ASSERT_EQ(got.size(), want.size()) << A->type << "," << B->type;
        for (std::size_t i = 0; i < got.size(); ++i)
            ASSERT_NEAR(got[i], want[i], 1e-11 * scale) << "types " << A->type << "," << B->type << " element " << i;
    }
}

// The combinations of types 4, 6, 11, 12 (read back by transforming unit
// vectors) must be harmonic polynomials (zero Laplacian) spanning all 2l+1
// solid harmonics of degree l.
TEST(SphericalTransform, CombinationsAreIndependentSolidHarmonics) {
    for (int type : {4, 6, 11, 12}) {
        const int l = gauss::kAngular[type], ncart = gauss::kCartCount[type], nsph = gauss::kShellSize[type];
        Rows rows(nsph, std::vector<double>(ncart));
        for (int k = 0; k < ncart; ++k) {
            std::vector<double> e(ncart, 0.0);
            e[k] = 1.0;
            gauss::spherical_transform(e.data(), 1, ncart, type, 1, 1, 1);
            for (int m = 0; m < nsph; ++m) rows[m][k] = e[m];
        }
        Rows basis;
        for (int m = 0; m < nsph; ++m) {
            // Laplacian coefficients keyed by the (x, y) exponents of degree l-2.
            std::vector<double> lap(static_cast<std::size_t>((l + 1) * (l + 1)), 0.0);
            for (int k = 0; k < ncart; ++k) {
                const gauss::CartExp e = gauss::type_exponents(type, k);
                const double w = rows[m][k];
                if (e.x >= 2) lap[(e.x - 2) * (l + 1) + e.y] += w * e.x * (e.x - 1);
                if (e.y >= 2) lap[e.x * (l + 1) + e.y - 2] += w * e.y * (e.y - 1);
                if (e.z >= 2) lap[e.x * (l + 1) + e.y] += w * e.z * (e.z - 1);
            }
            for (double t : lap) EXPECT_NEAR(t, 0.0, 1e-11) << "type " << type << " function " << m;
            // Gram-Schmidt: no function may vanish against the previous ones.
            std::vector<double> v = rows[m];
            for (const auto& b : basis) {
                const double dot = std::inner_product(v.begin(), v.end(), b.begin(), 0.0);
                for (int k = 0; k < ncart; ++k) v[k] -= dot * b[k];
            }
            const double n = std::sqrt(std::inner_product(v.begin(), v.end(), v.begin(), 0.0));
            ASSERT_GT(n, 1e-6) << "type " << type << " function " << m << " is dependent";
            for (double& t : v) t /= n;
            basis.push_back(v);
        }
    }
}
