// CHELPG fit against potentials of known point charges, apart from the integral code.
#include "chelp/chelp.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/temp_dir.h"
#include "grid/grid.h"

namespace kvx::chelp {
namespace {

constexpr double kDebye = 0.393427328;  // e bohr per debye

struct Charge { const char* symbol; int z; double x, y, zc, q; };  // element z, charge q at (x, y, zc)

std::unique_ptr<moldata::Molecule> molecule(const std::vector<Charge>& at, int charge) {
    auto mol = std::make_unique<moldata::Molecule>();
    for (const Charge& a : at)
        mol->atoms.push_back({.symbol = a.symbol, .atomic_number = a.z, .x = a.x, .y = a.y, .z = a.zc});
    mol->natoms = static_cast<int>(at.size());
    mol->charge = charge;
    return mol;
}

// n^dims points (n > 2) over c +- half, a line along x for dims 1: V = sum q/|r - R| + shift.
struct Lattice {
    std::unique_ptr<grid::Grid> grid;
    std::unique_ptr<grid::PropertyGrid> pot;
    Lattice(int dims, std::array<double, 3> c, double half, int n, const std::vector<Charge>& at, double shift = 0) {
        const double axes[3][3] = {{half, 0, 0}, {0, half, 0}, {0, 0, half}}, sp[3] = {0.5, 0.5, 0.5};
        grid = grid::grid_build(dims, c.data(), axes, sp, std::array{n, n, n}.data());
        pot = grid::property_grid_create(grid.get());
        const grid::GridGeometry geo = grid::grid_geometry(*grid);
        for (unsigned k = 0; k < grid->total; ++k) {
            double r[3];
            geo.point_of_index(r, static_cast<int>(k));
            pot->values[k] = shift;
            for (const Charge& a : at)
                if (const double d = std::hypot(r[0] - a.x, r[1] - a.y, r[2] - a.zc); d > 1e-12)
                    pot->values[k] += a.q / d;
        }
    }
};

// Runs the fit (or only the report when mol is null) and returns the report.
std::string fit(const moldata::Molecule* mol, const grid::PropertyGrid* pot, double thresh = 1e-7, int nthreads = 1) {
    EXPECT_EQ(mol ? chelp_setup(mol, thresh) : 1, 1);
    const test::TempDir dir;
    chelpg(pot, dir.file("job").c_str(), nthreads);
    chelp_release();
    return test::read_file(dir.file("job.chelp"));
}

// Every number in the report, in order: points used and total, RMS and
// largest relative error, the charges, their sum, the dipole x, y, z, total.
std::vector<double> numbers(const std::string& text) {
    std::istringstream in(text);
    std::vector<double> v;
    char* end;
    for (std::string w; in >> w;)
        if (const double x = std::strtod(w.c_str(), &end); *end == '\0') v.push_back(x);
    return v;
}

// The report prints 6 decimals, so a value is within 5e-7 of the true one;
// exact potentials make the fit itself good to ~1e-10.
constexpr double kPrinted = 1e-6;

TEST(ChelpFit, RecoversPointChargesTheirSumAndDipole) {
    // A neutral set and a cation: the constraint carries the total charge.
    for (const auto& q : {std::array{0.4, -0.6, 0.2}, std::array{0.7, 0.1, 0.2}}) {
        const std::vector<Charge> at = {
            {"C", 6, 0.0, 0.0, 0.0, q[0]}, {"O", 8, 2.28, 0.0, 0.0, q[1]}, {"H", 1, -1.0, 1.8, 0.3, q[2]}};
        const Lattice l(3, {0.4, 0.6, 0.1}, 7.0, 25, at);
        const auto v = numbers(fit(molecule(at, q[0] + q[1] + q[2] > 0.5).get(), l.pot.get()));
        EXPECT_EQ(v.at(1), 25 * 25 * 25);
        EXPECT_NEAR(v.at(2), 0.0, kPrinted);
        EXPECT_LT(v.at(3), 1e-5);
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(v.at(4 + i), q[i], kPrinted);
        EXPECT_NEAR(v.at(7), q[0] + q[1] + q[2], kPrinted);
        const double mu[3] = {2.28 * q[1] - q[2], 1.8 * q[2], 0.3 * q[2]};
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(v.at(8 + c), mu[c] / kDebye, kPrinted);
        EXPECT_NEAR(v.at(11), std::hypot(mu[0], mu[1], mu[2]) / kDebye, kPrinted);
    }
}

// Charges off the atoms and a constant shift leave a residual in every
// printed digit; each thread count must print the same report.
TEST(ChelpFit, SameReportForEveryThreadCount) {
    const std::vector<Charge> at = {{"C", 6, 0.0, 0.0, 0.0, 0.0},
                                    {"O", 8, 2.28, 0.0, 0.0, 0.0},
                                    {"H", 1, -1.0, 1.8, 0.3, 0.0},
                                    {"H", 1, -1.0, -1.8, 0.3, 0.0}};
    const std::vector<Charge> sources = {
        {"X", 0, 0.3, 0.2, 0.1, 0.37}, {"X", 0, 2.0, -0.4, 0.2, -0.52}, {"X", 0, -0.7, 1.1, -0.3, 0.11}};
    const Lattice l(3, {0.4, 0.1, 0.1}, 7.0, 21, sources, 0.003);
    const auto mol = molecule(at, 0);
    const std::string one = fit(mol.get(), l.pot.get());
    EXPECT_GT(numbers(one).at(2), 1e-5);  // a real residual
    for (int nthreads : {2, 3, 7}) EXPECT_EQ(fit(mol.get(), l.pot.get(), 1e-7, nthreads), one) << nthreads;
}

// One H on a line of 21 points, x = -4 .. 6 step 0.5, the atom at x = 1. The
// radius 1.2 A = 2.2677 bohr and 1.8 radii = 4.0818 bohr take |dx| = 2.5 .. 4.0:
// 8 points. V = 1/d + c with the charge forced to 1 leaves V - F = c at all of
// them: RMS c / sqrt(8) and largest relative error c * 4.0.
TEST(ChelpFit, OneAtomByHand) {
    const std::vector<Charge> at = {{"H", 1, 1.0, 0.0, 0.0, 1.0}, {"X", 0, 40.0, 0.0, 0.0, 0.0}};
    auto mol = molecule(at, 1);
    mol->ndummy = {0, 1};  // the trailing dummy takes no part
    const Lattice l(1, {1.0, 0.0, 0.0}, 5.0, 21, at, 0.01);
    EXPECT_EQ(fit(mol.get(), l.pot.get()),
              "\nUsed 8 out of 21 points\n"
              "\nCHELPG results: \n\n"
              "RMS error (a.u.) 0.003536     Max. relative error 0.040000\n\n"
              "Atom       Charge\n\n"
              " H           1.000000\n"
              "\n Total       1.000000\n"
              "\n CHELP dipole/D  =  2.541765  0.000000  0.000000 total=  2.541765 D\n\n");
    // Whatever the potential, one atom carries the total charge. V is 0.41,
    // 0.343, 0.296, 0.26 at d = 2.5 .. 4: a threshold of 0.3 keeps 4 points.
    mol->charge = -1;
    EXPECT_EQ(numbers(fit(mol.get(), l.pot.get()))[4], -1.0);
    EXPECT_EQ(numbers(fit(mol.get(), l.pot.get(), 0.3))[0], 4);
}

// C2 about z maps H2 onto H3: unequal charges become equal only by averaging.
// The RMS is the exact fit's, the dipole the averaged charges' (no x part).
TEST(ChelpFit, EquivalentAtomsShareTheMeanCharge) {
    const std::vector<Charge> at = {
        {"O", 8, 0.0, 0.0, 0.0, -0.8}, {"H2", 1, 1.43, 0.0, 1.11, 0.3}, {"H3", 1, -1.43, 0.0, 1.11, 0.5}};
    const Lattice l(3, {0.0, 0.0, 0.5}, 7.0, 25, at);
    auto mol = molecule(at, 0);
    mol->symmetry = std::make_unique<moldata::SymmetryInfo>();
    *mol->symmetry = {.ntrans = 2, .nunique = 2, .n = 3, .unique = {1, 2, 0}, .images = {1, 1, 2, 3, 3, 2}};
    const auto v = numbers(fit(mol.get(), l.pot.get()));
    EXPECT_NEAR(v.at(2), 0.0, kPrinted);
    EXPECT_NEAR(v.at(4), -0.8, kPrinted);
    EXPECT_NEAR(v.at(5), 0.4, kPrinted);
    EXPECT_EQ(v.at(5), v.at(6));
    EXPECT_NEAR(v.at(8), 0.0, kPrinted);
}

TEST(ChelpReport, MessagesForNoFittingPointsNoSetUpAndNoPotential) {
    const std::vector<Charge> at = {{"O", 8, 0.0, 0.0, 0.0, -0.5}};
    auto mol = molecule(at, 0);
    // Wholly inside the O radius (2.87 bohr), then wholly beyond 1.8 radii.
    for (const auto& c : {std::array{0.2, -0.1, 0.3}, std::array{20.0, 0.0, 0.0}}) {
        const Lattice l(3, c, 1.0, 5, at);
        EXPECT_EQ(fit(mol.get(), l.pot.get()), "Chelp chelpg: no points inside chelp range\n");
        EXPECT_EQ(fit(nullptr, l.pot.get()), "CHELP has not been properly initialized\n");  // released
    }
    EXPECT_EQ(chelp_setup(nullptr, 1e-7), 0);
    EXPECT_EQ(fit(mol.get(), nullptr), "Chelp chelpg: no electrostatic potential defined\n");
    EXPECT_EXIT((std::fflush(stdout), dup2(2, 1), chelpg(nullptr, "/nonexistent-kvx-dir/job")),  // message to stdout
                ::testing::ExitedWithCode(0), "Chelp chelpg: cannot open output file");
}

// H radii 2.2677 and 4.0818 bohr, distances sqrt(dx^2 + dy*dz + dz^2). The H
// at z = -4 is beyond all but the last two points; inside it beats the shell.
TEST(ChelpPointFilter, UsesTheDyDzDistance) {
    auto mol = molecule({{"H", 1, 0.0, 0.0, 0.0, 0}, {"H", 1, 0.0, 0.0, -4.0, 0}}, 0);
    const std::pair<std::array<double, 3>, bool> cases[] = {
        {{0.0, 4.0, 0.5}, false},   // Euclid 4.03 (in the shell), dy*dz 1.50 (inside)
        {{0.0, 5.0, 1.0}, true},    // Euclid 5.10 (beyond), dy*dz 2.45 (in the shell)
        {{0.0, 3.0, -1.0}, false},  // Euclid 3.16 (in the shell), dy*dz sqrt(-2): no atom claims it
        {{0.0, 0.0, -3.0}, false},  // 3.0 from the first, 1.0 from the second
        {{0.0, 0.0, -7.0}, true},   // 7.0 from the first, 3.0 from the second
    };
    ASSERT_EQ(chelp_setup(mol.get(), 1e-7), 1);
    for (const auto& [r, in] : cases) EXPECT_EQ(chelp_point_in_range(r.data()), in) << r[1] << " " << r[2];
    chelp_release();
}

}  // namespace
}  // namespace kvx::chelp
