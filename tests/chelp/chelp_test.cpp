// CHELPG fit checked against potentials of known point charges, built on
// hand-made molecules and grids, so the fit is tested apart from the
// integral code.
#include "chelp/chelp.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "grid/grid.h"
#include "grid/property_grid.h"
#include "moldata/molecule.h"

namespace kvx::chelp {
namespace {

constexpr double kDebye = 0.393427328;

struct AtomSpec {
    const char* symbol;
    int z;
    double x, y, z_;
};

std::unique_ptr<moldata::Molecule> make_molecule(const std::vector<AtomSpec>& spec, int charge) {
    auto mol = std::make_unique<moldata::Molecule>();
    for (const AtomSpec& s : spec) {
        moldata::Atom a;
        a.symbol = s.symbol;
        a.atomic_number = s.z;
        a.nuclear_charge = s.z;
        a.x = s.x;
        a.y = s.y;
        a.z = s.z_;
        mol->atoms.push_back(a);
    }
    mol->natoms = static_cast<int>(spec.size());
    mol->charge = charge;
    return mol;
}

// Axis-aligned box: centre +- half on every axis, n points per axis (n > 2),
// or a line along x when dims == 1.
struct Lattice {
    std::unique_ptr<grid::Grid> grid;
    std::unique_ptr<grid::PropertyGrid> pot;
};

Lattice make_lattice(int dims, const double centre[3], double half, int n) {
    double axes[3][3] = {{half, 0, 0}, {0, half, 0}, {0, 0, half}};
    const double spacing[3] = {0.5, 0.5, 0.5};
    const int counts[3] = {n, n, n};
    Lattice l;
    l.grid = grid::grid_build(dims, centre, axes, spacing, counts);
    EXPECT_TRUE(l.grid);
    l.pot = grid::property_grid_create(l.grid.get());
    grid::grid_install(l.grid.get());
    return l;
}

// V(r) = sum_i q_i / |r - R_i| + shift, at every grid point.
void fill_point_charge_potential(Lattice& l, const std::vector<AtomSpec>& at, const std::vector<double>& q,
                                 double shift = 0.0) {
    grid::grid_install(l.grid.get());
    for (unsigned k = 0; k < l.grid->total; ++k) {
        double r[3];
        grid::grid_point_of_index(r, static_cast<int>(k));
        double v = shift;
        for (std::size_t i = 0; i < at.size(); ++i) {
            const double d = std::hypot(r[0] - at[i].x, r[1] - at[i].y, r[2] - at[i].z_);
            if (d > 1e-12) v += q[i] / d;
        }
        l.pot->values[k] = v;
    }
}

std::string job_path(const char* name) { return ::testing::TempDir() + "kvx_chelp_" + name; }

std::string read_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct Report {
    int used = -1, total = -1;
    double rms = NAN, maxrel = NAN;
    std::vector<std::string> symbols;
    std::vector<double> charges;
    double sum = NAN;
    double dipole[4] = {NAN, NAN, NAN, NAN};
};

Report parse_report(const std::string& text) {
    Report r;
    std::istringstream in(text);
    std::string line;
    bool in_atoms = false;
    while (std::getline(in, line)) {
        char sym[64];
        double v;
        if (std::sscanf(line.c_str(), "Used %d out of %d points", &r.used, &r.total) == 2) continue;
        if (std::sscanf(line.c_str(), "RMS error (a.u.) %lf     Max. relative error %lf", &r.rms, &r.maxrel) == 2)
            continue;
        if (line == "Atom       Charge") {
            in_atoms = true;
            continue;
        }
        if (std::sscanf(line.c_str(), " Total      %lf", &r.sum) == 1) {
            in_atoms = false;
            continue;
        }
        if (std::sscanf(line.c_str(), " CHELP dipole/D  = %lf %lf %lf total= %lf D", &r.dipole[0], &r.dipole[1],
                        &r.dipole[2], &r.dipole[3]) == 4)
            continue;
        if (in_atoms && std::sscanf(line.c_str(), " %63s %lf", sym, &v) == 2) {
            r.symbols.push_back(sym);
            r.charges.push_back(v);
        }
    }
    return r;
}

Report run_fit(const moldata::Molecule& mol, const Lattice& l, double thresh, const char* job,
               std::string* text = nullptr) {
    EXPECT_EQ(chelp_setup(&mol, thresh), 1);
    const std::string path = job_path(job);
    chelpg(l.pot.get(), path.c_str());
    chelp_release();
    const std::string t = read_text(path + ".chelp");
    if (text) *text = t;
    return parse_report(t);
}

// The report prints 6 decimals: a printed value is within 5e-7 of the true
// one; exact potentials make the fit itself good to ~1e-10.
constexpr double kPrinted = 1e-6;

TEST(ChelpFit, RecoversPointChargesAndTheirDipole) {
    const std::vector<AtomSpec> at = {{"C", 6, 0.0, 0.0, 0.0}, {"O", 8, 2.28, 0.0, 0.0}, {"H", 1, -1.0, 1.8, 0.3}};
    const double centre[3] = {0.4, 0.6, 0.1};
    Lattice l = make_lattice(3, centre, 7.0, 25);
    // A neutral set and a cation: the constraint row carries the total charge.
    const std::vector<std::vector<double>> sets = {{0.4, -0.6, 0.2}, {0.7, 0.1, 0.2}};
    const int totals[2] = {0, 1};
    for (int s = 0; s < 2; ++s) {
        SCOPED_TRACE(s);
        auto mol = make_molecule(at, totals[s]);
        fill_point_charge_potential(l, at, sets[s]);
        const Report r = run_fit(*mol, l, 1e-7, "fit");
        EXPECT_EQ(r.total, 25 * 25 * 25);
        EXPECT_GT(r.used, 100);
        EXPECT_LT(r.used, r.total);
        ASSERT_EQ(r.charges.size(), 3u);
        EXPECT_EQ(r.symbols[0], "C");
        EXPECT_EQ(r.symbols[2], "H");
        double dip[3] = {0, 0, 0};
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(r.charges[i], sets[s][i], kPrinted);
            dip[0] += sets[s][i] * at[i].x;
            dip[1] += sets[s][i] * at[i].y;
            dip[2] += sets[s][i] * at[i].z_;
        }
        EXPECT_NEAR(r.sum, totals[s], kPrinted);
        EXPECT_NEAR(r.rms, 0.0, kPrinted);
        EXPECT_LT(r.maxrel, 1e-5);
        EXPECT_GE(r.maxrel, 0.0);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(r.dipole[c], dip[c] / kDebye, kPrinted);
        EXPECT_NEAR(r.dipole[3], std::sqrt(dip[0] * dip[0] + dip[1] * dip[1] + dip[2] * dip[2]) / kDebye, kPrinted);
    }
}

// One H atom on a line of 21 points, x = -5 .. 5 step 0.5, with the atom at
// the line's centre. Radius 1.2 A = 2.2677 bohr, outer 4.0818 bohr: the
// points at |x| = 2.5, 3.0, 3.5, 4.0 are taken, 8 of 21.
TEST(ChelpFit, OneAtomLineByHand) {
    // A trailing dummy atom (second ndummy entry) takes no part.
    const std::vector<AtomSpec> at = {{"H", 1, 1.0, 0.0, 0.0}, {"X", 0, 40.0, 0.0, 0.0}};
    auto mol = make_molecule(at, 1);
    mol->ndummy = {0, 1};
    const double centre[3] = {1.0, 0.0, 0.0};
    Lattice l = make_lattice(1, centre, 5.0, 21);

    // V = 1/d + c with the charge forced to 1: F = 1/d, V - F = c at all 8
    // points, so RMS = sqrt(8 c^2) / 8 = c / sqrt(8) and the largest
    // relative error is c * 4.0.
    fill_point_charge_potential(l, {at[0]}, {1.0}, 0.01);
    std::string text;
    run_fit(*mol, l, 1e-7, "line", &text);
    EXPECT_EQ(text,
              "\nUsed 8 out of 21 points\n"
              "\nCHELPG results: \n\n"
              "RMS error (a.u.) 0.003536     Max. relative error 0.040000\n\n"
              "Atom       Charge\n\n"
              " H           1.000000\n"
              "\n Total       1.000000\n"
              "\n CHELP dipole/D  =  2.541765  0.000000  0.000000 total=  2.541765 D\n\n");

    // Whatever the potential, one atom carries the total charge.
    mol->charge = -1;
    fill_point_charge_potential(l, {at[0]}, {0.3});
    Report r = run_fit(*mol, l, 1e-7, "line");
    ASSERT_EQ(r.charges.size(), 1u);
    EXPECT_EQ(r.charges[0], -1.0);

    // V = 0.3/d is 0.12, 0.1, 0.0857, 0.075 at d = 2.5 .. 4.0: a threshold of
    // 0.09 keeps d = 2.5 and 3.0 on both sides.
    r = run_fit(*mol, l, 0.09, "line");
    EXPECT_EQ(r.used, 4);
    EXPECT_EQ(r.total, 21);
}

// C2 about z maps O onto itself and H2 onto H3.
TEST(ChelpFit, EquivalentAtomsShareTheMeanCharge) {
    const std::vector<AtomSpec> at = {
        {"O", 8, 0.0, 0.0, 0.0}, {"H2", 1, 1.43, 0.0, 1.11}, {"H3", 1, -1.43, 0.0, 1.11}};
    const double centre[3] = {0.0, 0.0, 0.5};
    Lattice l = make_lattice(3, centre, 7.0, 25);
    // Unequal hydrogen charges: only the averaging can make them equal.
    fill_point_charge_potential(l, at, {-0.8, 0.3, 0.5});

    auto mol = make_molecule(at, 0);
    auto sym = std::make_unique<moldata::SymmetryInfo>();
    sym->ntrans = 2;
    sym->nunique = 2;
    sym->n = 3;
    sym->unique = {1, 2, 0};
    sym->images = {1, 1, 2, 3, 3, 2};  // images[a * ntrans + t]
    mol->symmetry = std::move(sym);

    Report r = run_fit(*mol, l, 1e-7, "sym");
    ASSERT_EQ(r.charges.size(), 3u);
    EXPECT_NEAR(r.charges[0], -0.8, kPrinted);
    EXPECT_NEAR(r.charges[1], 0.4, kPrinted);
    EXPECT_EQ(r.charges[1], r.charges[2]);
    // The errors belong to the fit before averaging, which is exact.
    EXPECT_NEAR(r.rms, 0.0, kPrinted);
    // Averaged charges give a dipole along z only: 2 * 0.4 * 1.11.
    EXPECT_NEAR(r.dipole[0], 0.0, kPrinted);
    EXPECT_NEAR(r.dipole[2], 0.8 * 1.11 / kDebye, kPrinted);

    // Every atom unique: no averaging even with two operations.
    mol->symmetry->nunique = 3;
    mol->symmetry->unique = {1, 2, 3};
    r = run_fit(*mol, l, 1e-7, "sym");
    ASSERT_EQ(r.charges.size(), 3u);
    EXPECT_NEAR(r.charges[1], 0.3, kPrinted);
    EXPECT_NEAR(r.charges[2], 0.5, kPrinted);
}

TEST(ChelpReport, GridsWithoutFittingPoints) {
    const std::vector<AtomSpec> at = {{"O", 8, 0.0, 0.0, 0.0}};
    auto mol = make_molecule(at, 0);
    // Wholly inside the O radius (2.87 bohr), then wholly beyond 1.8 radii.
    const double inside[3] = {0.2, -0.1, 0.3};
    const double beyond[3] = {20.0, 0.0, 0.0};
    for (const double* c : {inside, beyond}) {
        Lattice l = make_lattice(3, c, 1.0, 5);
        fill_point_charge_potential(l, at, {-0.5});
        std::string text;
        run_fit(*mol, l, 1e-7, "empty", &text);
        EXPECT_EQ(text, "Chelp chelpg: no points inside chelp range\n");
    }
}

TEST(ChelpReport, RefusesWithoutSetUpOrPotential) {
    const std::vector<AtomSpec> at = {{"O", 8, 0.0, 0.0, 0.0}};
    auto mol = make_molecule(at, 0);
    const double centre[3] = {0, 0, 0};
    Lattice l = make_lattice(3, centre, 4.0, 5);
    const std::string path = job_path("unset");

    chelpg(l.pot.get(), path.c_str());
    EXPECT_EQ(read_text(path + ".chelp"), "CHELP has not been properly initialized\n");

    EXPECT_EQ(chelp_setup(nullptr, 1e-7), 0);
    chelpg(l.pot.get(), path.c_str());
    EXPECT_EQ(read_text(path + ".chelp"), "CHELP has not been properly initialized\n");

    ASSERT_EQ(chelp_setup(mol.get(), 1e-7), 1);
    chelpg(nullptr, path.c_str());
    EXPECT_EQ(read_text(path + ".chelp"), "Chelp chelpg: no electrostatic potential defined\n");
    chelp_release();

    // Released state is unset again.
    chelpg(l.pot.get(), path.c_str());
    EXPECT_EQ(read_text(path + ".chelp"), "CHELP has not been properly initialized\n");
}

TEST(ChelpDeathTest, UnopenableReportEndsWithStatusZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::fflush(stdout);
            dup2(STDERR_FILENO, STDOUT_FILENO);  // the message goes to stdout
            chelpg(nullptr, "/nonexistent-kvx-dir/job");
        },
        ::testing::ExitedWithCode(0), "Chelp chelpg: cannot open output file");
}

// H at the origin: inner radius 2.2677, outer 4.0818 bohr. The fit measures
// with sqrt(dx^2 + dy*dz + dz^2).
TEST(ChelpPointFilter, UsesTheDyDzDistance) {
    const std::vector<AtomSpec> at = {{"H", 1, 0.0, 0.0, 0.0}};
    auto mol = make_molecule(at, 0);
    const double p1[3] = {0.0, 4.0, 0.5};  // Euclid 4.03 (in the shell), dy*dz 1.50 (inside)
    const double p2[3] = {0.0, 5.0, 1.0};  // Euclid 5.10 (beyond), dy*dz 2.45 (in the shell)
    const double p3[3] = {0.0, 3.0, -1.0}; // Euclid 3.16 (in the shell), dy*dz sqrt(-2): no atom claims it
    const double p4[3] = {3.0, 0.0, 0.0};  // both forms agree: 3.0, in the shell

    EXPECT_FALSE(chelp_point_in_range(p4));  // not set up: no atoms
    ASSERT_EQ(chelp_setup(mol.get(), 1e-7), 1);
    EXPECT_FALSE(chelp_point_in_range(p1));
    EXPECT_TRUE(chelp_point_in_range(p2));
    EXPECT_FALSE(chelp_point_in_range(p3));
    EXPECT_TRUE(chelp_point_in_range(p4));
    chelp_release();
    EXPECT_FALSE(chelp_point_in_range(p4));
}

TEST(ChelpPointFilter, InsideAnyAtomWinsOverNearAnother) {
    // r is 3.0 from H1 (in its shell) but 1.0 from H2 (inside it).
    const std::vector<AtomSpec> at = {{"H", 1, 0.0, 0.0, 0.0}, {"H", 1, 4.0, 0.0, 0.0}};
    auto mol = make_molecule(at, 0);
    ASSERT_EQ(chelp_setup(mol.get(), 1e-7), 1);
    const double r[3] = {3.0, 0.0, 0.0};
    EXPECT_FALSE(chelp_point_in_range(r));
    chelp_release();
}

TEST(ChelpRadius, TableBoundsInAngstrom) {
    EXPECT_EQ(chelp_radius(0), 0.0);
    EXPECT_EQ(chelp_radius(111), 0.0);
    EXPECT_EQ(chelp_radius(-3), 0.0);
    EXPECT_EQ(chelp_radius(1), 1.2);
    EXPECT_EQ(chelp_radius(8), 1.52);
    EXPECT_EQ(chelp_radius(55), 3.42);
    EXPECT_EQ(chelp_radius(110), 2.1);
}

}  // namespace
}  // namespace kvx::chelp
