// Electrostatic potential on the grid against independent routes: the closed
// form of an s density, a McMurchie-Davidson evaluation of every integral
// written here from scratch, and psi4 values for two real jobs.
#include "elepot/elepot.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <fstream>
#include <memory>
#include <numbers>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/capture.h"
#include "common/fatal.h"
#include "common/molecules.h"
#include "common/reference_table.h"
#include "gauss/shell_types.h"
#include "grid/grid.h"
#include "moldata/molecule.h"
#include "moldata/reader.h"

namespace {

using kvx::grid::Grid;
using kvx::moldata::Molecule;
namespace ep = kvx::elepot;
namespace gauss = kvx::gauss;
constexpr double kPi = std::numbers::pi;

// Box of step h around c (a line along x when ndim is 1).
std::unique_ptr<Grid> box(std::array<double, 3> c, double h, std::array<int, 3> n, int ndim = 3) {
    double half[3][3] = {}, sp[3] = {h, h, h};
    for (int d = 0; d < 3; ++d) half[d][d] = 0.5 * h * (n[d] - 1);
    return kvx::grid::grid_build(ndim, c.data(), half, sp, n.data());
}

// A basis function as a sum of primitives c x^i y^j z^k exp(-alpha r^2).
struct Term {
    double A[3];
    int e[3];
    double alpha, c;
};
using BasisFn = std::vector<Term>;

// <a| 1/|r-C| |b> for unnormalised cartesian primitives.
double prim_nuc(const Term& ta, const Term& tb, const double C[3]) {
    const double a = ta.alpha, b = tb.alpha, *A = ta.A, *B = tb.A, g = a + b;
    const int *ea = ta.e, *eb = tb.e;
    double P[3], PC[3], AB2 = 0, PC2 = 0, F[11];
    for (int c = 0; c < 3; ++c) {
        P[c] = (a * A[c] + b * B[c]) / g;
        PC[c] = P[c] - C[c];
        AB2 += (A[c] - B[c]) * (A[c] - B[c]);
        PC2 += PC[c] * PC[c];
    }
    // Boys values: the series exp(-x) sum_k (2x)^k / ((2N+1)..(2N+2k+1)) for
    // the top order, downward recursion (stable) for the others.
    const int N = ea[0] + ea[1] + ea[2] + eb[0] + eb[1] + eb[2];
    const double x = g * PC2;
    double term = 1.0 / (2 * N + 1), sum = term;
    for (int k = 1; term > 1e-18 * sum; ++k) sum += (term *= 2 * x / (2 * N + 2 * k + 1));
    F[N] = std::exp(-x) * sum;
    for (int n = N - 1; n >= 0; --n) F[n] = (2 * x * F[n + 1] + std::exp(-x)) / (2 * n + 1);
    // Hermite Coulomb integrals R^n_tuv, t + u + v + n <= N.
    static double R[11][11][11][11];
    for (int n = 0; n <= N; ++n) R[n][0][0][0] = std::pow(-2 * g, n) * F[n];
    for (int s = 1; s <= N; ++s)
        for (int n = 0; n + s <= N; ++n)
            for (int t = 0; t <= s; ++t)
                for (int u = 0; u + t <= s; ++u) {
                    int m[3] = {t, u, s - t - u};
                    const int d = t > 0 ? 0 : u > 0 ? 1 : 2;
                    double r = PC[d] * R[n + 1][m[0] - (d == 0)][m[1] - (d == 1)][m[2] - (d == 2)];
                    if (--m[d] > 0) r += m[d] * R[n + 1][m[0] - (d == 0)][m[1] - (d == 1)][m[2] - (d == 2)];
                    R[n][t][u][s - t - u] = r;
                }
    // Hermite expansion coefficients E^{ij}_t per direction, exponential left out.
    double E[3][6][6][12] = {};
    for (int d = 0; d < 3; ++d)
        for (int i = 0; i <= ea[d]; ++i)
            for (int j = 0; j <= eb[d]; ++j)
                for (int t = 0; t <= i + j; ++t) {
                    const double* q = j > 0 ? E[d][i][j - 1] : i > 0 ? E[d][i - 1][j] : nullptr;
                    const double pq = P[d] - (j ? B : A)[d];  // PA or PB
                    E[d][i][j][t] = !q ? 1.0 : (t ? q[t - 1] / (2 * g) : 0) + pq * q[t] + (t + 1) * q[t + 1];
                }
    double v = 0.0;
    for (int t = 0; t <= ea[0] + eb[0]; ++t)
        for (int u = 0; u <= ea[1] + eb[1]; ++u)
            for (int w = 0; w <= ea[2] + eb[2]; ++w)
                v += E[0][ea[0]][eb[0]][t] * E[1][ea[1]][eb[1]][u] * E[2][ea[2]][eb[2]][w] * R[0][t][u][w];
    return 2 * kPi / g * std::exp(-a * b * AB2 / g) * v;
}

std::vector<BasisFn> basis_functions(const Molecule& mol) {
    // Spherical d and f as (function, cartesian component, weight) triples.
    const double a = 0.2886751345948129, b = 6.324555320336759;
    const std::vector<std::tuple<int, int, double>> sph_d = {{0, 0, -a}, {0, 1, -a}, {0, 2, 2 * a}, {1, 0, 0.5},
                                                             {1, 1, -0.5}, {2, 3, 1}, {3, 4, 1}, {4, 5, 1}};
    const std::vector<std::tuple<int, int, double>> sph_f = {
        {0, 1, 4},  {0, 6, -1}, {0, 8, -1}, {1, 2, 4},  {1, 7, -1}, {1, 9, -1}, {2, 0, -1},
        {2, 3, 4},  {2, 5, -1}, {3, 2, -1}, {3, 7, 4},  {3, 9, -1}, {4, 0, -1}, {4, 3, -1},
        {4, 5, 4},  {5, 1, -1}, {5, 6, -1}, {5, 8, 4},  {6, 4, b}};
    std::vector<BasisFn> out;
    for (const kvx::moldata::Shell& sh : mol.shells) {
        const int ncart = gauss::kCartCount[sh.type];
        for (int c = 0; c < sh.ngc; ++c) {
            std::vector<BasisFn> cart(ncart);
            for (int k = 0; k < ncart; ++k)
                for (int p = 0; p < sh.nprim; ++p) {
                    const auto e = gauss::type_exponents(sh.type, k);
                    cart[k].push_back({{sh.center->x, sh.center->y, sh.center->z}, {e.x, e.y, e.z}, sh.exponent(p),
                                       sh.coef(p, sh.type == 3 ? (k > 0) : c) * (*sh.prefact)[p]});
                }
            if (sh.type != 4 && sh.type != 6) out.insert(out.end(), cart.begin(), cart.end());
            const std::size_t base = out.size();
            for (auto [f, k, w] : sh.type == 4 ? sph_d : sh.type == 6 ? sph_f : decltype(sph_d){}) {
                out.resize(std::max(out.size(), base + f + 1));
                for (Term t : cart[k]) {
                    t.c *= w;
                    out[base + f].push_back(t);
                }
            }
        }
    }
    return out;
}

double nuclear(const Molecule& mol, const double r[3]) {
    double v = 0.0;
    for (const auto& at : mol.atoms) v += at.nuclear_charge / std::hypot(r[0] - at.x, r[1] - at.y, r[2] - at.z);
    return v;
}

std::string g_stdout;

// Set-up and run; `other` is installed in between, as another evaluator may.
std::vector<double> potential(const Molecule& mol, const Grid& g, double thresh, double memmax = 400.0,
                              const Grid* other = nullptr, const unsigned char* admit = nullptr) {
    EXPECT_EQ(ep::elepot_init(&mol, &g, memmax, thresh, 1), 1);
    kvx::grid::grid_install(other);
    std::vector<double> out(g.total, -123.0);
    g_stdout = kvx::test::captured([&] { ep::comp_elepot(out.data(), &mol, admit); });
    return out;
}

class Elepot : public testing::Test {
  protected:
    void SetUp() override { kvx::common::abort_flag = 0; }
    void TearDown() override {
        kvx::common::abort_flag = 0;
        ep::elepot_cleanup();
    }
};

// rho = q N^2 exp(-2a r^2) is a Gaussian charge q of exponent 2a: V_el =
// q erf(sqrt(2a) r) / r, and 2 q sqrt(2a/pi) at the centre, where the nucleus
// itself is left out.
TEST_F(Elepot, SingleSFunctionIsAGaussianCharge) {
    const double a = 0.8, q = 2.0;
    kvx::test::MolBuilder b;
    auto mol =
        std::move(b.atom(0.0, 0.25, -0.5, 1.0).shell(0, 1, 1, {{a, 1.0}}).density([](int, int) { return 2.0; }).mol);
    const auto v = potential(*mol, *box({1.0, 0.25, -0.5}, 0.25, {17, 1, 1}, 1), 1e-10);  // x = -1..3
    for (int k = 0; k < 17; ++k) {
        const double r = std::fabs(-1.0 + 0.25 * k);
        const double want = k == 4 ? -2 * q * std::sqrt(2 * a / kPi) : 1 / r - q * std::erf(std::sqrt(2 * a) * r) / r;
        EXPECT_NEAR(v[k], want, 1e-12 * std::max(1.0, std::fabs(want))) << "k=" << k;
    }
}

// Every shell kind the worker takes (s with two general contractions, p, sp,
// cartesian d/f/g/h, spherical d/f) on three centres with a dense density.
std::unique_ptr<Molecule> mixed_molecule() {
    kvx::test::MolBuilder b;
    b.atom(0.0, 0.0, 0.1, 3.0).atom(1.2, -0.3, 0.8, 1.0).atom(-0.9, 1.1, -0.5, 2.0);
    b.shell(0, 1, 2, {{4.0, 0.6, -0.2}, {0.9, 0.5, 0.8}}).shell(0, 3, 1, {{2.2, 0.4, 0.7}, {0.6, 0.8, 0.5}});
    b.shell(0, 5, 1, {{0.9, 1.0}}).shell(0, 7, 1, {{0.7, 1.0}}).shell(1, 2, 1, {{1.9, 0.5}, {0.35, 0.8}});
    b.shell(1, 8, 1, {{0.6, 1.0}}).shell(2, 1, 1, {{0.5, 1.0}}).shell(2, 4, 1, {{1.5, 0.6}, {0.45, 0.7}});
    b.shell(2, 6, 1, {{0.8, 1.0}}).shell(2, 9, 1, {{0.9, 1.0}});
    b.density(
        [](int i, int j) { return (i == j ? 0.5 : 0.0) + 0.3 * std::cos(0.37 * (i + j)) * std::exp(-0.05 * (i - j)); });
    return std::move(b.mol);
}

TEST_F(Elepot, MixedShellsMatchMcMurchieDavidson) {
    auto mol = mixed_molecule();
    const auto fns = basis_functions(*mol);
    ASSERT_EQ(static_cast<int>(fns.size()), mol->nbasis);
    const auto g = box({0.25, 0.15, 0.05}, 0.8, {3, 3, 3});
    const auto v = potential(*mol, *g, 1e-15);
    const auto geo = kvx::grid::grid_geometry(*g);
    for (unsigned k = 0; k < g->total; ++k) {
        double r[3], el = 0, scale = 0;
        geo.point_of_index(r, static_cast<int>(k));
        for (std::size_t i = 0; i < fns.size(); ++i)
            for (std::size_t j = 0; j < fns.size(); ++j) {
                double s = 0;
                for (const Term& ta : fns[i])
                    for (const Term& tb : fns[j]) s += ta.c * tb.c * prim_nuc(ta, tb, r);
                el += mol->density->sym(static_cast<int>(i), static_cast<int>(j)) * s;
                scale += std::fabs(mol->density->sym(static_cast<int>(i), static_cast<int>(j)) * s);
            }
        // Both routes round each of ~10^4 pair terms at ~1e-15 of its size;
        // the sums for l up to 5 lose a few more digits to cancellation.
        EXPECT_NEAR(v[k], nuclear(*mol, r) - el, 1e-12 * std::max(1.0, scale)) << "k=" << k;
    }
}

// Each reference point is the middle of a 3x3x3 box. The screening estimate
// carries a factor nbasis^2 so that the dropped terms together stay below
// thresh; the reference itself is good to 5e-11.
TEST_F(Elepot, ClosedAndOpenShellMatchPsi4) {
    for (const std::string job : {"water", "ohrad"}) {
        auto mol = kvx::moldata::build_molecule(std::string(KVX_TEST_DATA) + "/" + job + "/" + job).molecule;
        ASSERT_TRUE(mol);
        const kvx::test::ReferenceTable ref = kvx::test::job_reference(job);
        const int pot = ref.column("potential");
        ASSERT_GE(pot, 0) << job;
        EXPECT_GT(ref.rows.size(), 50u) << job;
        for (const auto& w : ref.rows)
            for (auto [thresh, tol] : {std::pair{1e-6, 1e-6}, std::pair{1e-10, 1e-9}})
                EXPECT_NEAR(potential(*mol, *box({w[0], w[1], w[2]}, 0.1, {3, 3, 3}), thresh)[13], w[pot], tol)
                    << job << " thresh " << thresh << " at " << w[0] << " " << w[1] << " " << w[2];
    }
}

// A full run reports progress (10 shells, 55 pairs: a line whenever the share
// done passes the last line by 10%). Slices only batch the points: many even
// or uneven slices give the values of one, too little memory for one block is
// refused, and a grid installed between set-up and run is not the one
// computed. Points the mask rejects keep only the nuclear term.
TEST_F(Elepot, ProgressSlicesForeignGridAndPointFilter) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water").molecule;
    const auto g = box({0.3, -0.1, 0.4}, 0.6, {5, 4, 3});
    const auto one = potential(*mol, *g, 1e-10);
    EXPECT_EQ(g_stdout,
              "Computing Electrostatic Potential:\n 11%\n 22%\n 33%\n 44%\n 55%\n 65%\n 76%\n 87%\n 98%\n DONE\n");
    ASSERT_EQ(ep::elepot_slice_sizes().size(), 1u);
    // d6 shells: 288 doubles a point, so 0.01 MB holds 4 points and 0.0155 MB
    // holds 7 (60 = 6 x 7 + 3 x 6).
    for (const auto& [mb, sizes] :
         {std::pair{0.01, std::vector<int>(15, 4)}, std::pair{0.0155, std::vector<int>{7, 7, 7, 7, 7, 7, 6, 6, 6}}}) {
        const auto many = potential(*mol, *g, 1e-10, mb);
        EXPECT_EQ(ep::elepot_slice_sizes(), sizes);
        for (std::size_t k = 0; k < one.size(); ++k) EXPECT_NEAR(many[k], one[k], 1e-14) << mb << " k=" << k;
    }
    EXPECT_EQ(ep::elepot_init(mol.get(), g.get(), 0.001, 1e-10, 1), 0);
    EXPECT_EQ(potential(*mol, *g, 1e-10, 400.0, box({5.0, 5.0, 5.0}, 0.2, {3, 3, 3}).get()), one);
    const auto geo = kvx::grid::grid_geometry(*g);
    std::vector<unsigned char> admit(g->total);
    for (unsigned k = 0; k < g->total; ++k) {
        double r[3];
        geo.point_of_index(r, static_cast<int>(k));
        admit[k] = r[0] <= 0.0;
    }
    const auto part = potential(*mol, *g, 1e-10, 400.0, nullptr, admit.data());
    int rejected = 0;
    for (unsigned k = 0; k < g->total; ++k) {
        double r[3];
        geo.point_of_index(r, static_cast<int>(k));
        rejected += r[0] > 0.0;
        if (r[0] > 0.0) EXPECT_NEAR(part[k], nuclear(*mol, r), 1e-13) << "k=" << k;
        else EXPECT_EQ(part[k], one[k]) << "k=" << k;
    }
    EXPECT_EQ(rejected, 36);  // x = 0.3, 0.9, 1.5
}

// A list of points is a lattice whose every point has its own lines: the
// grid's points given as a list get the grid's values to the last bit, also
// when the lines of each point fill small slices.
TEST_F(Elepot, PointListMatchesTheGrid) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water").molecule;
    const auto g = box({0.3, -0.1, 0.4}, 0.6, {5, 4, 3});
    const auto on_grid = potential(*mol, *g, 1e-10);
    const auto geo = kvx::grid::grid_geometry(*g);
    std::vector<double> xyz(3 * g->total);
    for (unsigned k = 0; k < g->total; ++k) geo.point_of_index(&xyz[3 * k], static_cast<int>(k));
    for (double memmax : {400.0, 1.0}) {
        ASSERT_EQ(ep::elepot_init_points(mol.get(), xyz.data(), g->total, memmax, 1e-10, 1), 1);
        ASSERT_EQ(ep::elepot_point_count(), static_cast<long>(g->total));
        EXPECT_EQ(ep::elepot_slice_sizes().size() > 1, memmax < 100);
        std::vector<double> out(g->total);
        kvx::test::captured([&] { ep::comp_elepot(out.data(), mol.get()); });
        EXPECT_EQ(out, on_grid) << "memmax " << memmax;
    }
    EXPECT_EQ(ep::elepot_init_points(mol.get(), xyz.data(), 0, 400.0, 1e-10, 1), 0);
}

// An interrupt seen after the first shell pair ends the run with " ABORTED"
// and the values of a density holding only the first shell's block.
TEST_F(Elepot, AbortStopsAfterTheCurrentShellPair) {
    auto mol = mixed_molecule();
    const auto g = box({0.0, 0.5, -0.3}, 0.9, {3, 2, 2});
    kvx::common::abort_flag = 1;
    const auto aborted = potential(*mol, *g, 1e-12);
    EXPECT_EQ(g_stdout, "Computing Electrostatic Potential:\n ABORTED\n");
    kvx::common::abort_flag = 0;
    for (int i = mol->shells[0].size * mol->shells[0].ngc; i < mol->nbasis; ++i)
        for (int j = 0; j <= i; ++j) mol->density->at(i, j) = 0.0;
    const auto expect = potential(*mol, *g, 1e-12);
    for (std::size_t k = 0; k < expect.size(); ++k) EXPECT_NEAR(aborted[k], expect[k], 1e-14) << "k=" << k;
}

}  // namespace
