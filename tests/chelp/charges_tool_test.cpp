// kalvex-potential and kalvex-charges end to end on psi4 jobs
// (tests/data/charges): the potential against psi4's OEProp grid potential,
// the classic CHELPG check of Breneman and Wiberg, CHELPG charges against
// NWChem's esp module with the same settings, the wavefunction's dipole
// against psi4's, and the tools' refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/reference_table.h"
#include "common/temp_dir.h"

namespace kvx::chelp {
namespace {

const std::string kData = std::string(KVX_TEST_DATA) + "/charges/";
constexpr double kDebyePerAu = 2.541746473;

std::string tool(const char* name) { return std::string("'") + KVX_BIN_DIR + "/" + name + "'"; }

// The psi4 job NAME imported into dir as dir/NAME.
std::string import_job(const test::TempDir& dir, const std::string& name) {
    const std::string job = dir.file(name);
    const test::CommandResult r =
        test::run_command(tool("kalvex-import") + " '" + kData + name + ".molden' '" + job + "'");
    EXPECT_EQ(r.status, 0) << r.out;
    return job;
}

struct Report {
    std::vector<std::string> symbols;
    std::vector<double> q;
    double total = NAN;
    double charges_dipole[4] = {NAN, NAN, NAN, NAN}, wfn_dipole[4] = {NAN, NAN, NAN, NAN};
    std::string text;
    int status = -1;
};

// The Charges block that ends the report.
Report charges(const std::string& job, const std::string& args) {
    Report rep;
    const test::CommandResult r = test::run_command(tool("kalvex-charges") + " '" + job + "' " + args);
    rep.text = r.out;
    rep.status = r.status;
    const std::size_t at = r.out.rfind("\nCharges\n");
    if (at == std::string::npos) return rep;
    std::istringstream in(r.out.substr(at + 9));
    for (std::string line; std::getline(in, line);) {
        std::istringstream ss(line);
        std::string word;
        ss >> word;
        if (word == "Total") {
            ss >> rep.total;
        } else if (word == "Dipole") {
            std::string of, the, what, unit;
            ss >> of >> the >> what >> unit;
            double* d = what == "charges" ? rep.charges_dipole : rep.wfn_dipole;
            std::string total_word;
            ss >> d[0] >> d[1] >> d[2] >> total_word >> d[3];
        } else {
            double q = NAN;
            ss >> q;
            rep.symbols.push_back(word);
            rep.q.push_back(q);
        }
    }
    return rep;
}

std::vector<double> nwchem_row(const std::string& name, const std::string& label) {
    std::ifstream in(kData + name + ".nwchem");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(label + " ")) {
            std::istringstream ss(line);
            std::string l;
            long n;
            ss >> l >> n;
            std::vector<double> q;
            for (double x; ss >> x;) q.push_back(x);
            return q;
        }
    return {};
}

std::vector<double> info_dipole(const std::string& name) {
    std::ifstream in(kData + name + ".info");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("dipole_debye ")) {
            std::istringstream ss(line.substr(13));
            std::vector<double> d(3);
            ss >> d[0] >> d[1] >> d[2];
            return d;
        }
    return {};
}

// Breneman and Wiberg's check: water RHF/STO-3G, r(OH) 0.956 angstrom, 104.5
// degrees, 0.3 angstrom grid, 2.8 angstrom: O -0.6182, H 0.3091.
TEST(ChargesTool, ClassicChelpgWater) {
    const test::TempDir dir;
    const std::string job = import_job(dir, "water_sto3g");
    const Report r = charges(job, "chelpg");
    ASSERT_EQ(r.status, 0) << r.text;
    ASSERT_EQ(r.q.size(), 3u) << r.text;
    EXPECT_EQ(r.symbols, (std::vector<std::string>{"O", "H", "H"}));
    EXPECT_NEAR(r.q[0], -0.6182, 0.01);
    EXPECT_NEAR(r.q[1], 0.3091, 0.01);
    EXPECT_NEAR(r.q[2], 0.3091, 0.01);
    // The lattice is symmetric about the molecule's plane of symmetry: so are the charges.
    EXPECT_DOUBLE_EQ(r.q[1], r.q[2]);
    EXPECT_NEAR(r.total, 0.0, 5e-7);
    // NWChem's esp module with the same settings on its own lattice.
    const std::vector<double> nw = nwchem_row("water_sto3g", "chelpg");
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(r.q[i], nw[i], 0.002);
    EXPECT_NE(r.text.find("Radii (angstrom): O 1.700 (Breneman-Wiberg 1990) H 1.450 (Breneman-Wiberg 1990)"),
              std::string::npos);
}

// Ordinary molecules, RHF/6-31G*: CHELPG against NWChem with the same radii,
// spacing and range (within 0.01 e: the lattices lie differently). The
// carbon of chloromethane is near zero, as the method gives it.
TEST(ChargesTool, ChelpgAgreesWithNwchem) {
    const test::TempDir dir;
    for (const char* name : {"methanol", "chloromethane"}) {
        SCOPED_TRACE(name);
        const Report r = charges(import_job(dir, name), "chelpg -numt 2");
        ASSERT_EQ(r.status, 0) << r.text;
        const std::vector<double> nw = nwchem_row(name, "chelpg");
        ASSERT_EQ(r.q.size(), nw.size());
        for (std::size_t i = 0; i < nw.size(); ++i) EXPECT_NEAR(r.q[i], nw[i], 0.01) << "atom " << i;
    }
}

// The wavefunction's dipole (density matrix and dipole integrals) against
// psi4's; -dipole makes the charges carry it exactly.
TEST(ChargesTool, WavefunctionDipoleAndDipoleConstraint) {
    const test::TempDir dir;
    for (const char* name : {"water_sto3g", "methanol", "chloromethane"}) {
        SCOPED_TRACE(name);
        const std::string job = import_job(dir, name);
        const Report r = charges(job, "mk -dipole");
        ASSERT_EQ(r.status, 0) << r.text;
        const std::vector<double> psi4 = info_dipole(name);
        ASSERT_EQ(psi4.size(), 3u);
        // psi4 converts with its own debye factor: 1e-8 relative apart.
        for (int d = 0; d < 3; ++d) {
            EXPECT_NEAR(r.wfn_dipole[d], psi4[d], 2e-6);
            EXPECT_NEAR(r.charges_dipole[d], r.wfn_dipole[d], 2e-6);
        }
    }
}

// RESP with zero restraint is the unrestrained Merz-Kollman fit (water: no
// sp3 carbon, so stage two changes nothing); the report names both stages.
TEST(ChargesTool, RespWithoutRestraintIsMerzKollman) {
    const test::TempDir dir;
    const std::string job = import_job(dir, "water_sto3g");
    const Report mk = charges(job, "mk");
    const Report resp = charges(job, "resp -a1 0 -a2 0");
    ASSERT_EQ(mk.status, 0) << mk.text;
    ASSERT_EQ(resp.status, 0) << resp.text;
    EXPECT_EQ(resp.q, mk.q);
    EXPECT_NE(resp.text.find("Stage two: no sp3 carbon, the stage-one charges stand"), std::string::npos);
    const Report restrained = charges(job, "resp");
    EXPECT_GT(restrained.q[0], mk.q[0]);  // pulled toward zero
    // Methanol: the methyl hydrogens share one charge in stage two.
    const Report m = charges(import_job(dir, "methanol"), "resp");
    ASSERT_EQ(m.status, 0) << m.text;
    EXPECT_EQ(m.q[2], m.q[3]);
    EXPECT_EQ(m.q[2], m.q[4]);
    EXPECT_NE(m.text.find("the rest held: C1 H3 H4 H5"), std::string::npos) << m.text;
}

// The potential at psi4's points agrees with psi4's OEProp grid potential
// (printed with ten decimals); the same points in angstrom give the same values.
TEST(PotentialTool, AgreesWithPsi4AtPoints) {
    const test::TempDir dir;
    for (const char* name : {"water_sto3g", "methanol"}) {
        SCOPED_TRACE(name);
        const std::string job = import_job(dir, name);
        const test::ReferenceTable ref = test::read_reference_table(kData + name + ".esp");
        ASSERT_EQ(ref.rows.size(), 300u);
        std::ofstream bohr(dir.file("points")), ang(dir.file("points_a"));
        bohr.precision(17);
        ang.precision(17);
        bohr << "# psi4's points, bohr\n\n";
        for (const auto& row : ref.rows) {
            bohr << row[0] << " " << row[1] << " " << row[2] << "  # a comment\n";
            ang << row[0] * 0.529177210903 << " " << row[1] * 0.529177210903 << " " << row[2] * 0.529177210903 << "\n";
        }
        bohr.close(), ang.close();
        const test::CommandResult r =
            test::run_command(tool("kalvex-potential") + " '" + job + "' '" + dir.file("points") + "'");
        ASSERT_EQ(r.status, 0) << r.out;
        const test::CommandResult ra =
            test::run_command(tool("kalvex-potential") + " '" + job + "' '" + dir.file("points_a") + "' '" +
                              dir.file("out_a") + "' --angstrom");
        ASSERT_EQ(ra.status, 0) << ra.out;
        const test::ReferenceTable got = test::read_reference_table(dir.file("points.esp"));
        const test::ReferenceTable got_a = test::read_reference_table(dir.file("out_a"));
        // The header's comment lines are skipped; the first data line reads as
        // column names, so compare from the second row of the reference on.
        ASSERT_EQ(got.rows.size() + 1, ref.rows.size());
        ASSERT_EQ(got_a.rows.size() + 1, ref.rows.size());
        double worst = 0.0;
        for (std::size_t k = 0; k + 1 < ref.rows.size(); ++k) {
            const auto& want = ref.rows[k + 1];
            for (int d = 0; d < 3; ++d) EXPECT_NEAR(got.rows[k][d], want[d], 1e-12);
            worst = std::max(worst, std::fabs(got.rows[k][3] - want[3]));
            EXPECT_NEAR(got_a.rows[k][3], got.rows[k][3], 1e-9);
        }
        EXPECT_LT(worst, 1e-6);
        std::printf("%s: largest |V - V(psi4)| %.2e\n", name, worst);
    }
}

TEST(PotentialTool, OutputHasTwelveDigits) {
    const test::TempDir dir;
    const std::string job = import_job(dir, "water_sto3g");
    dir.write("p", "0.5 1.5 2.5\n");
    ASSERT_EQ(
        test::run_command(tool("kalvex-potential") + " '" + job + "' '" + dir.file("p") + "' '" + dir.file("o") + "'")
            .status,
        0);
    const std::string out = test::read_file(dir.file("o"));
    const std::size_t at = out.find("\n5.00000000000e-01 1.50000000000e+00 2.50000000000e+00 4.8");
    ASSERT_NE(at, std::string::npos) << out;
    EXPECT_TRUE(out.starts_with("# kalvex-potential: job "));
}

// Refusals: one message naming the file (and line), status 1, nothing written.
TEST(ChargesTool, RefusesBadInput) {
    const test::TempDir dir;
    const std::string job = import_job(dir, "water_sto3g");
    struct Case {
        std::string points, args, message;
    };
    const std::vector<Case> cases = {
        {"1 2 3\n4 5\n", "", "points, line 2: expected three numbers x y z, found \"4 5\""},
        {"1 2 3\n# fine\n4 5 6 7\n", "", "points, line 3: expected three numbers x y z, found \"4 5 6 7\""},
        {"1 2 x3\n", "", "points, line 1: expected three numbers x y z, found \"1 2 x3\""},
        {"1 2 nan\n", "", "line 1: expected three numbers"},
        {std::string("1 2 3\n1 \0 2 3\n", 14), "", "points, line 2: expected three numbers"},
        {"# nothing\n\n", "", "points: no points (lines of x y z)"},
        {"1 2 3\n", "-thresh 0", "-thresh takes a positive number, not \"0\""},
        {"1 2 3\n", "--bohr", "unknown option \"--bohr\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        dir.write("points", c.points);
        const test::CommandResult r =
            test::run_command(tool("kalvex-potential") + " '" + job + "' '" + dir.file("points") + "' " + c.args);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find(c.message), std::string::npos) << r.out;
        EXPECT_FALSE(std::filesystem::exists(dir.file("points.esp")));
    }
    dir.write("points", "1 2 3\n");
    // A job without orbitals, and no job at all.
    dir.copy_job(job, "bare", {".control", ".coord", ".basis"});
    for (const std::string& j : {dir.file("bare"), dir.file("nothing")}) {
        const test::CommandResult p =
            test::run_command(tool("kalvex-potential") + " '" + j + "' '" + dir.file("points") + "'");
        EXPECT_EQ(p.status, 1) << p.out;
        const Report c = charges(j, "chelpg");
        EXPECT_EQ(c.status, 1) << c.text;
        EXPECT_TRUE(c.q.empty());
    }
    EXPECT_NE(charges(dir.file("bare"), "mk").text.find("has no orbitals"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir.file("points.esp")));

    struct Bad {
        std::string args, message;
    };
    const std::vector<Bad> bad = {
        {"hirshfeld", "unknown model \"hirshfeld\" (chelpg, mk or resp)"},
        {"chelpg -spacing -1", "-spacing takes a positive number, not \"-1\""},
        {"mk -scales 1.4,,2", "-scales takes positive numbers separated by commas"},
        {"mk -radius Qq 1.2", "-radius: \"Qq\" is not an element symbol"},
        {"resp -a1", "-a1 needs a value"},
        {"chelpg -spacing 0.0001", "the CHELPG lattice would have"},
        // Radii beyond the extent leave no point (symbols in either case).
        {"chelpg -radius o 3 -radius H 3", "no fitting points"},
    };
    for (const Bad& b : bad) {
        const Report r = charges(job, b.args);
        EXPECT_EQ(r.status, 1) << b.args;
        EXPECT_NE(r.text.find(b.message), std::string::npos) << r.text;
        EXPECT_TRUE(r.q.empty());
    }
}

}  // namespace
}  // namespace kvx::chelp
