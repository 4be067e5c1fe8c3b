// Electrostatic potential on the grid, checked against independent routes:
// closed forms for s densities, a McMurchie-Davidson evaluation of the
// nuclear-attraction integrals written here from scratch, and psi4 values
// for two real jobs.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include "common/fatal.h"
#include "elepot/elepot.h"
#include "grid/grid.h"
#include "moldata/molecule.h"
#include "moldata/reader.h"
#include "moldata/shell_types.h"

namespace {

using kvx::grid::Grid;
using kvx::moldata::Atom;
using kvx::moldata::Molecule;
using kvx::moldata::Shell;
using kvx::moldata::TriMatrix;
namespace ep = kvx::elepot;

constexpr double kPi = std::numbers::pi;

double prefact(double a) { return std::pow(2.0 / kPi, 0.75) * std::pow(a, 0.75); }

// ---------------------------------------------------------------- grids

Grid box_grid(const double c[3], double h, int nx, int ny, int nz) {
    Grid g;
    g.ndim = 3;
    const int n[3] = {nx, ny, nz};
    for (int d = 0; d < 3; ++d) {
        g.centre[d] = c[d];
        g.counts[d] = n[d];
        g.axes[d][d] = h;
        g.spacings[d] = h;
        g.lengths[d] = (n[d] - 1) * h;
        g.origin[d] = c[d] - 0.5 * (n[d] - 1) * h;
    }
    g.total = static_cast<unsigned>(nx * ny * nz);
    return g;
}

// n points x0, x0 + h, ... at fixed y, z.
Grid line_grid(double x0, double y, double z, double h, int n) {
    Grid g;
    g.ndim = 1;
    g.origin[0] = x0;
    g.origin[1] = y;
    g.origin[2] = z;
    g.centre[0] = x0 + 0.5 * (n - 1) * h;
    g.centre[1] = y;
    g.centre[2] = z;
    g.axes[0][0] = h;
    g.counts[0] = n;
    g.spacings[0] = h;
    g.lengths[0] = (n - 1) * h;
    g.total = static_cast<unsigned>(n);
    return g;
}

void point_of(const Grid& g, long k, double r[3]) {
    int idx[3] = {0, 0, 0};
    long rest = k;
    for (int d = g.ndim - 1; d >= 0; --d) {
        idx[d] = static_cast<int>(rest % g.counts[d]);
        rest /= g.counts[d];
    }
    for (int c = 0; c < 3; ++c) {
        r[c] = g.origin[c];
        for (int d = 0; d < g.ndim; ++d) r[c] += idx[d] * g.axes[c][d];
    }
}

// ----------------------------------------------------- hand-built molecules

struct ShellSpec {
    int atom;
    int type;
    int ngc;
    std::vector<double> rows;  // nprim rows of (exponent, coefficients...)
};

// Atoms (x, y, z, Z) and shells; a density filled by dens(i, j), i >= j.
template <class DensFn>
std::unique_ptr<Molecule> make_molecule(const std::vector<std::array<double, 4>>& atoms,
                                        const std::vector<ShellSpec>& specs, DensFn dens) {
    auto mol = std::make_unique<Molecule>();
    mol->name = "hand";
    mol->natoms = static_cast<int>(atoms.size());
    mol->atoms.resize(atoms.size());
    for (size_t a = 0; a < atoms.size(); ++a) {
        mol->atoms[a].symbol = "X";
        mol->atoms[a].x = atoms[a][0];
        mol->atoms[a].y = atoms[a][1];
        mol->atoms[a].z = atoms[a][2];
        mol->atoms[a].nuclear_charge = atoms[a][3];
    }
    int nf = 1;
    for (const ShellSpec& sp : specs) {
        Shell sh;
        sh.type = sp.type;
        sh.size = kvx::moldata::kShellSize[static_cast<size_t>(sp.type)];
        sh.ngc = sp.ngc;
        const int row = sp.type == 3 ? 3 : sp.ngc + 1;
        sh.nprim = static_cast<int>(sp.rows.size()) / row;
        sh.nfirst = nf;
        nf += sh.size * sh.ngc;
        sh.basdat = std::make_shared<const std::vector<double>>(sp.rows);
        std::vector<double> pf;
        for (int p = 0; p < sh.nprim; ++p) pf.push_back(prefact(sp.rows[static_cast<size_t>(p * row)]));
        sh.prefact = std::make_shared<const std::vector<double>>(pf);
        sh.center = &mol->atoms[static_cast<size_t>(sp.atom)];
        mol->shells.push_back(sh);
    }
    mol->nshell = static_cast<int>(mol->shells.size());
    mol->nbasis = nf - 1;
    auto D = std::make_shared<TriMatrix>();
    D->n = mol->nbasis;
    D->data.resize(static_cast<size_t>(D->n) * (D->n + 1) / 2);
    for (int i = 0; i < D->n; ++i)
        for (int j = 0; j <= i; ++j) D->at(i, j) = dens(i, j);
    mol->density = D;
    return mol;
}

// -------------------------------------------- independent integral route

// F_n(x) = int_0^1 t^2n exp(-x t^2) dt: power series below 20, else the
// closed F_0 with upward recursion (stable there for the orders used).
void boys_ref(double x, int nmax, double* F) {
    if (x < 20.0) {
        for (int n = 0; n <= nmax; ++n) {
            double term = 1.0 / (2 * n + 1), sum = term;
            for (int k = 1; k < 400 && term > 1e-18 * sum; ++k) {
                term *= 2.0 * x / (2 * n + 2 * k + 1);
                sum += term;
            }
            F[n] = std::exp(-x) * sum;
        }
    } else {
        F[0] = 0.5 * std::sqrt(kPi / x) * std::erf(std::sqrt(x));
        for (int n = 0; n < nmax; ++n) F[n + 1] = ((2 * n + 1) * F[n] - std::exp(-x)) / (2.0 * x);
    }
}

// Hermite expansion coefficients E[i][j][t] of one direction (K left out).
struct Hermite {
    double e[8][8][16] = {};
    Hermite(int la, int lb, double PA, double PB, double g) {
        e[0][0][0] = 1.0;
        const double h = 0.5 / g;
        auto at = [&](int i, int j, int t) { return (t < 0 || t > i + j) ? 0.0 : e[i][j][t]; };
        for (int i = 0; i <= la; ++i)
            for (int j = 0; j <= lb; ++j) {
                if (i == 0 && j == 0) continue;
                for (int t = 0; t <= i + j; ++t)
                    e[i][j][t] = j > 0 ? h * at(i, j - 1, t - 1) + PB * at(i, j - 1, t) + (t + 1) * at(i, j - 1, t + 1)
                                       : h * at(i - 1, j, t - 1) + PA * at(i - 1, j, t) + (t + 1) * at(i - 1, j, t + 1);
            }
    }
};

// <a| 1/|r-C| |b> for unnormalised cartesian primitives.
double prim_nuc(const kvx::moldata::CartExp& ea, double a, const double A[3], const kvx::moldata::CartExp& eb,
                double b, const double B[3], const double C[3]) {
    const double g = a + b;
    double P[3], PC[3], AB2 = 0, PC2 = 0;
    for (int c = 0; c < 3; ++c) {
        P[c] = (a * A[c] + b * B[c]) / g;
        PC[c] = P[c] - C[c];
        AB2 += (A[c] - B[c]) * (A[c] - B[c]);
        PC2 += PC[c] * PC[c];
    }
    const Hermite hx(ea.x, eb.x, P[0] - A[0], P[0] - B[0], g);
    const Hermite hy(ea.y, eb.y, P[1] - A[1], P[1] - B[1], g);
    const Hermite hz(ea.z, eb.z, P[2] - A[2], P[2] - B[2], g);
    const int N = ea.x + ea.y + ea.z + eb.x + eb.y + eb.z;
    double F[32];
    boys_ref(g * PC2, N, F);
    // R[n][t][u][v], t + u + v + n <= N.
    static double R[17][17][17][17];
    for (int n = 0; n <= N; ++n) R[n][0][0][0] = std::pow(-2.0 * g, n) * F[n];
    for (int s = 1; s <= N; ++s)
        for (int n = 0; n + s <= N; ++n)
            for (int t = 0; t <= s; ++t)
                for (int u = 0; u + t <= s; ++u) {
                    const int v = s - t - u;
                    double r;
                    if (t > 0)
                        r = (t > 1 ? (t - 1) * R[n + 1][t - 2][u][v] : 0.0) + PC[0] * R[n + 1][t - 1][u][v];
                    else if (u > 0)
                        r = (u > 1 ? (u - 1) * R[n + 1][t][u - 2][v] : 0.0) + PC[1] * R[n + 1][t][u - 1][v];
                    else
                        r = (v > 1 ? (v - 1) * R[n + 1][t][u][v - 2] : 0.0) + PC[2] * R[n + 1][t][u][v - 1];
                    R[n][t][u][v] = r;
                }
    double sum = 0.0;
    for (int t = 0; t <= ea.x + eb.x; ++t)
        for (int u = 0; u <= ea.y + eb.y; ++u)
            for (int v = 0; v <= ea.z + eb.z; ++v)
                sum += hx.e[ea.x][eb.x][t] * hy.e[ea.y][eb.y][u] * hz.e[ea.z][eb.z][v] * R[0][t][u][v];
    return 2.0 * kPi / g * std::exp(-a * b * AB2 / g) * sum;
}

// A basis function as a sum of cartesian primitives c * x^i y^j z^k e^(-a r^2).
struct Term {
    double A[3];
    kvx::moldata::CartExp e;
    double alpha, c;
};
using BasisFn = std::vector<Term>;

// Real spherical combinations of the cartesian d and f components.
const std::vector<std::vector<double>>& sph_matrix(int type) {
    static const std::vector<std::vector<double>> d = {
        {-0.2886751345948129, -0.2886751345948129, 2 * 0.2886751345948129, 0, 0, 0},
        {0.5, -0.5, 0, 0, 0, 0},
        {0, 0, 0, 1, 0, 0},
        {0, 0, 0, 0, 1, 0},
        {0, 0, 0, 0, 0, 1}};
    static const std::vector<std::vector<double>> f = {
        {0, 4, 0, 0, 0, 0, -1, 0, -1, 0},  {0, 0, 4, 0, 0, 0, 0, -1, 0, -1}, {-1, 0, 0, 4, 0, -1, 0, 0, 0, 0},
        {0, 0, -1, 0, 0, 0, 0, 4, 0, -1},  {-1, 0, 0, -1, 0, 4, 0, 0, 0, 0}, {0, -1, 0, 0, 0, 0, -1, 0, 4, 0},
        {0, 0, 0, 0, 6.324555320336759, 0, 0, 0, 0, 0}};
    return type == 4 ? d : f;
}

std::vector<BasisFn> basis_functions(const Molecule& mol) {
    std::vector<BasisFn> out;
    for (const Shell& sh : mol.shells) {
        const double A[3] = {sh.center->x, sh.center->y, sh.center->z};
        const int l = kvx::moldata::kAngular[static_cast<size_t>(sh.type)];
        const int ncart = kvx::moldata::kCartCount[static_cast<size_t>(sh.type)];
        for (int c = 0; c < sh.ngc; ++c) {
            std::vector<BasisFn> cart(static_cast<size_t>(ncart));
            for (int k = 0; k < ncart; ++k)
                for (int p = 0; p < sh.nprim; ++p) {
                    const double coef = sh.type == 3 ? sh.coef(p, k == 0 ? 0 : 1) : sh.coef(p, c);
                    cart[static_cast<size_t>(k)].push_back(
                        {{A[0], A[1], A[2]}, kvx::moldata::type_exponents(sh.type, k), sh.exponent(p),
                         coef * (*sh.prefact)[static_cast<size_t>(p)]});
                }
            if (sh.type == 4 || sh.type == 6) {
                for (const auto& row : sph_matrix(sh.type)) {
                    BasisFn f;
                    for (int k = 0; k < ncart; ++k)
                        if (row[static_cast<size_t>(k)] != 0.0)
                            for (Term t : cart[static_cast<size_t>(k)]) {
                                t.c *= row[static_cast<size_t>(k)];
                                f.push_back(t);
                            }
                    out.push_back(f);
                }
            } else {
                (void)l;
                for (auto& f : cart) out.push_back(f);
            }
        }
    }
    return out;
}

// V(C) = sum_A Z_A/|C - R_A| - sum_ab D_ab <a|1/|r-C||b>, every pair, no
// screening. *scale receives sum_ab |D_ab <a|b>|, the size of the terms.
double potential_ref(const Molecule& mol, const std::vector<BasisFn>& fns, const double C[3], double* scale) {
    double v = 0.0;
    for (const Atom& at : mol.atoms) {
        const double d = std::hypot(C[0] - at.x, C[1] - at.y, C[2] - at.z);
        if (d > 0) v += at.nuclear_charge / d;
    }
    double el = 0.0, mag = 0.0;
    for (size_t i = 0; i < fns.size(); ++i)
        for (size_t j = 0; j < fns.size(); ++j) {
            double s = 0.0;
            for (const Term& a : fns[i])
                for (const Term& b : fns[j]) s += a.c * b.c * prim_nuc(a.e, a.alpha, a.A, b.e, b.alpha, b.A, C);
            const double d = mol.density->sym(static_cast<int>(i), static_cast<int>(j));
            el += d * s;
            mag += std::fabs(d * s);
        }
    if (scale) *scale = mag;
    return v - el;
}

// ------------------------------------------------------------ running

std::string g_stdout;

std::vector<double> potential(const Molecule& mol, const Grid& g, double thresh, double memmax = 400.0) {
    EXPECT_EQ(ep::elepot_init(&mol, &g, memmax, thresh, 1), 1);
    std::vector<double> out(g.total, -123.0);
    testing::internal::CaptureStdout();
    ep::comp_elepot(out.data(), &mol);
    g_stdout = testing::internal::GetCapturedStdout();
    return out;
}

class ElepotTest : public testing::Test {
  protected:
    void SetUp() override { kvx::common::abort_flag = 0; }
    void TearDown() override {
        kvx::common::abort_flag = 0;
        ep::elepot_set_point_filter(nullptr);
        ep::elepot_cleanup();
    }
};

// ------------------------------------------------------------ s densities

// rho = q N^2 exp(-2a r^2) is a normalised Gaussian charge q of exponent 2a:
// V_el = q erf(sqrt(2a) r) / r, and 2 q sqrt(2a/pi) at the centre, where the
// nucleus itself is left out.
TEST_F(ElepotTest, SingleSFunctionMatchesGaussianChargePotential) {
    const double a = 0.8, q = 2.0, Z = 1.0;
    auto mol = make_molecule({{0.0, 0.25, -0.5, Z}}, {{0, 1, 1, {a, 1.0}}}, [&](int, int) { return q; });
    // Points x = -1 + 0.25 k on the line through the nucleus; k = 4 hits it exactly.
    const Grid g = line_grid(-1.0, 0.25, -0.5, 0.25, 17);
    const auto v = potential(*mol, g, 1e-10);
    for (int k = 0; k < 17; ++k) {
        const double r = std::fabs(-1.0 + 0.25 * k);
        const double expect = k == 4 ? -q * 2.0 * std::sqrt(2 * a / kPi) : Z / r - q * std::erf(std::sqrt(2 * a) * r) / r;
        EXPECT_NEAR(v[static_cast<size_t>(k)], expect, 1e-12 * std::max(1.0, std::fabs(expect))) << "k=" << k;
    }
}

// Two contracted s shells on two centres with an off-diagonal density: each
// primitive product is a Gaussian charge c c' N N' K (pi/g)^1.5 at P.
TEST_F(ElepotTest, TwoCentreContractedSMatchesClosedForm) {
    const std::vector<double> sa = {3.1, 0.4, 0.55, 0.7};   // (alpha, c) rows
    const std::vector<double> sb = {1.3, 0.6, 0.21, 0.5};
    const double dAA = 1.1, dBB = 0.7, dAB = -0.35;
    auto mol = make_molecule({{0.1, -0.2, 0.3, 0.0}, {1.0, 0.9, -0.4, 0.0}}, {{0, 1, 1, sa}, {1, 1, 1, sb}},
                             [&](int i, int j) { return i != j ? dAB : (i == 0 ? dAA : dBB); });
    const double c0[3] = {0.4, 0.2, 0.0};
    const Grid g = box_grid(c0, 0.45, 4, 3, 5);
    const auto v = potential(*mol, g, 1e-14);

    auto charge_pot = [&](const std::vector<double>& u, const double* U, const std::vector<double>& w,
                          const double* W, const double r[3]) {
        double s = 0.0;
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j) {
                const double a = u[static_cast<size_t>(2 * i)], b = w[static_cast<size_t>(2 * j)];
                const double g = a + b;
                double P[3], AB2 = 0, PC2 = 0;
                for (int c = 0; c < 3; ++c) {
                    P[c] = (a * U[c] + b * W[c]) / g;
                    AB2 += (U[c] - W[c]) * (U[c] - W[c]);
                    PC2 += (P[c] - r[c]) * (P[c] - r[c]);
                }
                const double qn = u[static_cast<size_t>(2 * i + 1)] * w[static_cast<size_t>(2 * j + 1)] * prefact(a) *
                                  prefact(b) * std::exp(-a * b * AB2 / g) * std::pow(kPi / g, 1.5);
                const double d = std::sqrt(PC2);
                s += qn * std::erf(std::sqrt(g) * d) / d;
            }
        return s;
    };
    const double A[3] = {0.1, -0.2, 0.3}, B[3] = {1.0, 0.9, -0.4};
    for (long k = 0; k < static_cast<long>(g.total); ++k) {
        double r[3];
        point_of(g, k, r);
        const double expect =
            -(dAA * charge_pot(sa, A, sa, A, r) + dBB * charge_pot(sb, B, sb, B, r) + 2 * dAB * charge_pot(sa, A, sb, B, r));
        EXPECT_NEAR(v[static_cast<size_t>(k)], expect, 1e-12) << "k=" << k;
    }
}

// ------------------------------------------ all shell kinds, brute force

// Every shell kind the worker takes (s with two general contractions, p, sp,
// cartesian d/f/g/h, spherical d/f) on three centres with a dense symmetric
// density, on a 3-D grid: the per-line factorisation, the kernels, the
// spherical transform and the density gather against a McMurchie-Davidson
// evaluation of every pair.
std::unique_ptr<Molecule> mixed_molecule() {
    return make_molecule({{0.0, 0.0, 0.1, 3.0}, {1.2, -0.3, 0.8, 1.0}, {-0.9, 1.1, -0.5, 2.0}},
                         {{0, 1, 2, {4.0, 0.6, -0.2, 0.9, 0.5, 0.8}},
                          {0, 3, 1, {2.2, 0.4, 0.7, 0.6, 0.8, 0.5}},
                          {0, 5, 1, {0.9, 1.0}},
                          {0, 7, 1, {0.7, 1.0}},
                          {1, 2, 1, {1.9, 0.5, 0.35, 0.8}},
                          {1, 8, 1, {0.6, 1.0}},
                          {2, 1, 1, {0.5, 1.0}},
                          {2, 4, 1, {1.5, 0.6, 0.45, 0.7}},
                          {2, 6, 1, {0.8, 1.0}},
                          {2, 9, 1, {0.9, 1.0}}},
                         [](int i, int j) {
                             return (i == j ? 0.5 : 0.0) + 0.3 * std::cos(0.37 * (i + j)) * std::exp(-0.05 * (i - j));
                         });
}

TEST_F(ElepotTest, MixedShellsMatchMcMurchieDavidson) {
    auto mol = mixed_molecule();
    const auto fns = basis_functions(*mol);
    ASSERT_EQ(static_cast<int>(fns.size()), mol->nbasis);
    const double c0[3] = {0.25, 0.15, 0.05};
    const Grid g = box_grid(c0, 0.8, 3, 3, 3);
    const auto v = potential(*mol, g, 1e-15);
    for (long k = 0; k < static_cast<long>(g.total); ++k) {
        double r[3], scale = 0;
        point_of(g, k, r);
        const double expect = potential_ref(*mol, fns, r, &scale);
        // Both routes round each of ~10^4 pair terms at ~1e-15 of its size;
        // the THO sums for l up to 5 lose a few more digits to cancellation.
        EXPECT_NEAR(v[static_cast<size_t>(k)], expect, 1e-12 * std::max(1.0, scale)) << "k=" << k;
    }
}

// Far from the charge the screened run stays within its threshold.
TEST_F(ElepotTest, ScreenedMixedShellsStayWithinThreshold) {
    auto mol = mixed_molecule();
    const auto fns = basis_functions(*mol);
    const Grid g = line_grid(-3.0, 0.4, -0.2, 1.5, 6);
    const auto v = potential(*mol, g, 1e-8);
    for (long k = 0; k < static_cast<long>(g.total); ++k) {
        double r[3];
        point_of(g, k, r);
        EXPECT_NEAR(v[static_cast<size_t>(k)], potential_ref(*mol, fns, r, nullptr), 1e-7) << "k=" << k;
    }
}

// ------------------------------------------------------- psi4 reference

struct RefPoint {
    double r[3];
    double v;
};

std::vector<RefPoint> read_reference(const std::string& path) {
    std::ifstream in(path);
    std::vector<RefPoint> pts;
    std::string line;
    int col = -1;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ss(line);
        std::vector<std::string> words;
        for (std::string w; ss >> w;) words.push_back(w);
        if (col < 0) {
            for (size_t i = 0; i < words.size(); ++i)
                if (words[i] == "potential") col = static_cast<int>(i);
            continue;
        }
        if (col < 0 || static_cast<int>(words.size()) <= col) continue;
        pts.push_back({{std::stod(words[0]), std::stod(words[1]), std::stod(words[2])},
                       std::stod(words[static_cast<size_t>(col)])});
    }
    return pts;
}

// Each reference point is the centre of a 3x3x3 box; the value there must
// match psi4 within what the screening threshold allows.
void check_reference(const std::string& job, double thresh, double tol) {
    auto mol = kvx::moldata::build_molecule((std::string(KVX_TEST_DATA) + "/" + job + "/" + job).c_str());
    ASSERT_TRUE(mol);
    const auto pts = read_reference(std::string(KVX_TEST_DATA) + "/" + job + "/reference.txt");
    ASSERT_GT(pts.size(), 50u);
    double worst = 0.0;
    for (const RefPoint& p : pts) {
        const Grid g = box_grid(p.r, 0.1, 3, 3, 3);
        const auto v = potential(*mol, g, thresh);
        EXPECT_NEAR(v[13], p.v, tol) << job << " at " << p.r[0] << " " << p.r[1] << " " << p.r[2];
        worst = std::max(worst, std::fabs(v[13] - p.v));
    }
    std::printf("%s thresh %g: largest deviation from psi4 %.3g\n", job.c_str(), thresh, worst);
}

// The screening estimate carries a factor nbasis^2 so that the dropped
// terms together stay below thresh; the reference itself is good to 5e-11.
TEST_F(ElepotTest, WaterMatchesPsi4) {
    check_reference("water", 1e-6, 1e-6);
    check_reference("water", 1e-10, 1e-9);
}

TEST_F(ElepotTest, OpenShellRadicalMatchesPsi4) {
    check_reference("ohrad", 1e-6, 1e-6);
    check_reference("ohrad", 1e-10, 1e-9);
}

// ------------------------------------------------- slicing, filter, abort

// Slices only batch the points: a memory limit that forces many uneven
// slices gives the values of one slice; too little memory for one block is
// refused.
TEST_F(ElepotTest, ManySlicesGiveTheValuesOfOne) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water");
    ASSERT_TRUE(mol);
    const double c0[3] = {0.3, -0.1, 0.4};
    const Grid g = box_grid(c0, 0.6, 5, 4, 3);
    const auto one = potential(*mol, g, 1e-10);
    ASSERT_EQ(ep::elepot_slice_sizes().size(), 1u);
    // maxfun = 6 (d6): 288 doubles a point; 0.01 MB holds 4 points.
    const auto many = potential(*mol, g, 1e-10, 0.01);
    const auto& sizes = ep::elepot_slice_sizes();
    ASSERT_EQ(sizes.size(), 15u);
    EXPECT_EQ(sizes.front(), 4);
    for (size_t k = 0; k < one.size(); ++k) EXPECT_NEAR(many[k], one[k], 1e-14) << "k=" << k;

    const auto odd = potential(*mol, g, 1e-10, 0.0155);  // 7 points a slice: 60 = 6 x 7 + 3 x 6
    ASSERT_EQ(ep::elepot_slice_sizes().size(), 9u);
    EXPECT_EQ(ep::elepot_slice_sizes().front(), 7);
    EXPECT_EQ(ep::elepot_slice_sizes().back(), 6);
    for (size_t k = 0; k < one.size(); ++k) EXPECT_NEAR(odd[k], one[k], 1e-14) << "k=" << k;

    EXPECT_EQ(ep::elepot_init(mol.get(), &g, 0.001, 1e-10, 1), 0);
}

// Another evaluator may install its own grid between the set-up and the run;
// the run still covers the grid it was set up for.
TEST_F(ElepotTest, RunUsesTheGridOfTheSetUp) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water");
    ASSERT_TRUE(mol);
    const double c0[3] = {0.2, 0.1, -0.3}, c1[3] = {5.0, 5.0, 5.0};
    const Grid g = box_grid(c0, 0.5, 3, 4, 2);
    const Grid other = box_grid(c1, 0.2, 2, 2, 2);
    const auto expect = potential(*mol, g, 1e-10);
    ASSERT_EQ(ep::elepot_init(mol.get(), &g, 400.0, 1e-10, 1), 1);
    kvx::grid::grid_install(&other);
    std::vector<double> v(g.total);
    testing::internal::CaptureStdout();
    ep::comp_elepot(v.data(), mol.get());
    testing::internal::GetCapturedStdout();
    for (size_t k = 0; k < v.size(); ++k) EXPECT_EQ(v[k], expect[k]) << "k=" << k;
}

bool reject_positive_x(const double r[3]) { return r[0] <= 0.0; }

// Points the filter rejects carry only the nuclear term; the others are
// unaffected.
TEST_F(ElepotTest, FilteredPointsGetNoElectronicPart) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water");
    ASSERT_TRUE(mol);
    const double c0[3] = {0.1, -0.2, 0.3};
    const Grid g = box_grid(c0, 0.7, 4, 3, 3);
    const auto full = potential(*mol, g, 1e-10);
    std::vector<double> nuc(g.total);
    ep::nuclear_potential(nuc.data(), mol->atoms.data(), mol->natoms);

    ep::elepot_set_point_filter(reject_positive_x);
    const auto part = potential(*mol, g, 1e-10);
    int rejected = 0;
    for (long k = 0; k < static_cast<long>(g.total); ++k) {
        double r[3];
        point_of(g, k, r);
        if (r[0] > 0.0) {
            ++rejected;
            EXPECT_EQ(part[static_cast<size_t>(k)], nuc[static_cast<size_t>(k)]) << "k=" << k;
        } else {
            EXPECT_EQ(part[static_cast<size_t>(k)], full[static_cast<size_t>(k)]) << "k=" << k;
        }
    }
    EXPECT_GT(rejected, 0);
    EXPECT_LT(rejected, static_cast<int>(g.total));
}

// An interrupt seen after the first shell pair stops the worker: the values
// are those of a density holding only the first shell's block, and the run
// ends with " ABORTED".
TEST_F(ElepotTest, AbortStopsAfterTheCurrentPair) {
    auto mol = mixed_molecule();
    const double c0[3] = {0.0, 0.5, -0.3};
    const Grid g = box_grid(c0, 0.9, 3, 2, 2);
    kvx::common::abort_flag = 1;
    const auto aborted = potential(*mol, g, 1e-12);
    EXPECT_EQ(g_stdout, "Computing Electrostatic Potential:\n ABORTED\n");
    kvx::common::abort_flag = 0;

    const int n0 = mol->shells[0].size * mol->shells[0].ngc;
    auto first = mixed_molecule();
    for (int i = 0; i < first->nbasis; ++i)
        for (int j = 0; j <= i; ++j)
            if (i >= n0) first->density->at(i, j) = 0.0;
    const auto expect = potential(*first, g, 1e-12);
    for (size_t k = 0; k < expect.size(); ++k) EXPECT_NEAR(aborted[k], expect[k], 1e-14) << "k=" << k;
}

// The progress lines of a full run.
TEST_F(ElepotTest, ProgressLines) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water");
    ASSERT_TRUE(mol);
    const double c0[3] = {0, 0, 0};
    const Grid g = box_grid(c0, 1.0, 2, 2, 2);
    potential(*mol, g, 1e-6);
    // 10 shells, 55 pairs: a line whenever pair/55 passes the last line by 10%.
    EXPECT_EQ(g_stdout,
              "Computing Electrostatic Potential:\n 11%\n 22%\n 33%\n 44%\n 55%\n 65%\n 76%\n 87%\n 98%\n DONE\n");
}

}  // namespace
