// kalvex-info and kalvex-import's summary on psi4's own jobs: the orbital
// energies, occupations, HOMO and LUMO, charge, multiplicity and the kind of
// d functions against what psi4 wrote in tests/data/psi4/JOB.info; the
// default grid against the grid kalvex computes on.
#include "main/job_info.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/grid_file.h"
#include "common/temp_dir.h"

namespace kvx::main {
namespace {

std::map<std::string, std::string> read_info(const std::string& job) {
    std::map<std::string, std::string> m;
    std::ifstream in(std::string(KVX_TEST_DATA) + "/psi4/" + job + ".info");
    for (std::string line; std::getline(in, line);) {
        const auto eq = line.find(" = ");
        if (eq != std::string::npos) m[line.substr(0, eq)] = line.substr(eq + 3);
    }
    return m;
}

struct Row {
    int number = 0;
    double energy = NAN, ev = NAN, occupation = NAN;
    std::string mark;
};

// The rows of the orbital section whose title starts with `title`.
std::vector<Row> orbital_rows(const std::string& report, const std::string& title) {
    std::vector<Row> rows;
    std::istringstream in(report);
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(title, 0) == 0) {
            inside = true;
            continue;
        }
        if (!inside) continue;
        if (line.empty()) break;
        std::istringstream s(line);
        Row r;
        if (!(s >> r.number >> r.energy >> r.ev >> r.occupation)) continue;  // the column heads
        s >> r.mark;
        rows.push_back(r);
    }
    return rows;
}

struct Case {
    const char* job;
    const char* file;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.file; }

class Psi4Info : public ::testing::TestWithParam<Case> {};

TEST_P(Psi4Info, EnergiesOccupationsAndFrontierOrbitalsAreThoseOfPsi4) {
    const Case c = GetParam();
    auto info = read_info(c.job);
    ASSERT_FALSE(info.empty()) << c.job;
    const int nalpha = std::stoi(info["nalpha"]), nbeta = std::stoi(info["nbeta"]);
    const bool closed = info["method"] == "RHF";
    test::TempDir dir;
    const std::string job = dir.file("job");
    const test::CommandResult imp = test::run_command("'" KVX_BIN_DIR "/kalvex-import' '" KVX_TEST_DATA "/psi4/" +
                                                      std::string(c.file) + "' '" + job + "'");
    ASSERT_EQ(imp.status, 0) << imp.out;
    const std::string frontier =
        closed ? "  HOMO " + std::to_string(nalpha) + ", LUMO " + std::to_string(nalpha + 1) + "\n"
               : "  alpha HOMO " + std::to_string(nalpha) + ", LUMO " + std::to_string(nalpha + 1) + "; beta HOMO " +
                     std::to_string(nbeta) + ", LUMO " + std::to_string(nbeta + 1) + "\n";
    EXPECT_NE(imp.out.find(frontier), std::string::npos) << imp.out;

    const test::SplitResult r = test::run_split("'" KVX_BIN_DIR "/kalvex-info' --all '" + job + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string& out = r.out;
    EXPECT_NE(out.find("Charge " + info["charge"] + ", multiplicity " + info["multiplicity"] +
                       (closed ? ", closed shell" : ", open shell")),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("\nAtoms: " + info["natoms"] + " (bohr)\n"), std::string::npos) << out;
    // psi4's spherical d functions stay spherical; cartesian ones are d6.
    EXPECT_NE(out.find(info["puream"] == "true" ? " d      (5 functions each, spherical)"
                                                : " d6     (6 functions each, cartesian)"),
              std::string::npos)
        << out;

    for (const char spin : {'a', 'b'}) {
        if (spin == 'b' && closed) continue;
        const std::string title = closed ? "Orbitals (-moa N)" : spin == 'a' ? "Alpha orbitals" : "Beta orbitals";
        const std::vector<Row> rows = orbital_rows(out, title);
        const int nocc = spin == 'a' ? nalpha : nbeta;
        ASSERT_GT(static_cast<int>(rows.size()), nocc + 1) << title << "\n" << out;
        for (const Row& row : rows) {
            EXPECT_EQ(row.occupation, row.number <= nocc ? (closed ? 2.0 : 1.0) : 0.0) << title << " " << row.number;
            EXPECT_EQ(row.mark, row.number == nocc       ? "HOMO"
                                : row.number == nocc + 1 ? "LUMO"
                                                         : "")
                << title << " " << row.number;
        }
        int compared = 0;
        for (const auto& [key, value] : info) {
            if (key.rfind(std::string("energy_") + spin, 0) != 0) continue;
            const int k = std::stoi(key.substr(8));
            ASSERT_LE(k, static_cast<int>(rows.size()));
            const Row& row = rows[static_cast<std::size_t>(k - 1)];
            ASSERT_EQ(row.number, k);
            // Six printed decimals; the FCHK file keeps nine digits.
            EXPECT_NEAR(row.energy, std::stod(value), 1e-6) << title << " " << k;
            EXPECT_NEAR(row.ev, std::stod(value) * 27.211386245988, 1e-4) << title << " " << k;
            ++compared;
        }
        EXPECT_GE(compared, 5) << title;
    }
}

INSTANTIATE_TEST_SUITE_P(Jobs, Psi4Info,
                         ::testing::Values(Case{"water_cart", "water_cart.fchk"}, Case{"water_tz", "water_tz.molden"},
                                           Case{"oh_uhf", "oh_uhf.fchk"}, Case{"ch2_cart", "ch2_cart.molden"},
                                           Case{"hf_qz", "hf_qz.fchk"}, Case{"water_sp", "water_sp.molden"},
                                           Case{"oh_rohf", "oh_rohf.molden"}),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             std::string n = info.param.file;
                             for (char& ch : n)
                                 if (ch == '.') ch = '_';
                             return n;
                         });

// The default grid kalvex-info reports is the one kalvex computes on: its
// first point and spacing as the property file's header gives them.
TEST(KalvexInfo, DefaultGridIsKalvexsGrid) {
    test::TempDir dir;
    dir.copy_job(KVX_TEST_DATA "/water/water", "water", {".control", ".coord", ".basis", ".mos"});
    const test::CommandResult info =
        test::run_command("cd '" + dir.path().string() + "' && '" KVX_BIN_DIR "/kalvex-info' water");
    ASSERT_EQ(info.status, 0) << info.out;
    const test::CommandResult run =
        test::run_command("cd '" + dir.path().string() + "' && '" KVX_BINARY "' water -base d -den </dev/null");
    ASSERT_EQ(run.status, 0) << run.out;
    const test::GridText g = test::read_grid_text(dir.path() / "d-den.grid");
    for (int d = 0; d < 3; ++d) {
        const std::string axis = std::string("  ") + char('x' + d) + " from ";
        const auto at = info.out.find(axis);
        ASSERT_NE(at, std::string::npos) << info.out;
        double from = NAN, to = NAN, edge = NAN, spacing = NAN;
        int points = 0;
        ASSERT_EQ(std::sscanf(info.out.c_str() + at + axis.size(), "%lf to %lf (edge %lf), %d points, spacing %lf",
                              &from, &to, &edge, &points, &spacing),
                  5)
            << info.out;
        EXPECT_EQ(points, g.n[d]);
        EXPECT_NEAR(from, g.origin[d], 1e-6);
        EXPECT_NEAR(spacing, g.step[d], 5e-5);
        EXPECT_NEAR(to, g.origin[d] + (g.n[d] - 1) * g.step[d], 1e-4);
    }
    // The water job's nearest grid is 0.4 to 0.5 bohr apart: 30 points over 12 to 14 bohr.
    EXPECT_GT(g.step[0], 0.4);
    EXPECT_LT(g.step[0], 0.5);
}

TEST(KalvexInfo, UnreadableJobAndUsage) {
    const test::SplitResult none = test::run_split("'" KVX_BIN_DIR "/kalvex-info' /nonexistent/job");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err,
              "kalvex-info: cannot read job /nonexistent/job (no /nonexistent/job.control or "
              "/nonexistent/job.kvm)\n");
    const test::SplitResult bare = test::run_split("'" KVX_BIN_DIR "/kalvex-info'");
    EXPECT_EQ(bare.status, 1);
    EXPECT_EQ(bare.err, "usage: kalvex-info JOB [--all]\n");
    for (const char* tool :
         {"kalvex-info", "kalvex-import", "kalvex-cube", "kalvex-slice", "kalvex-potential", "kalvex-charges"}) {
        const test::SplitResult v = test::run_split(std::string("'" KVX_BIN_DIR "/") + tool + "' --version");
        EXPECT_EQ(v.out, std::string(tool) + " (Kalvex version 1.2-18-win)\n");
        EXPECT_EQ(v.status, 0) << tool;
        const test::SplitResult h = test::run_split(std::string("'" KVX_BIN_DIR "/") + tool + "' --help");
        EXPECT_EQ(h.out.rfind(std::string("usage: ") + tool, 0), 0u) << h.out;
        EXPECT_EQ(h.status, 0) << tool;
    }
}

}  // namespace
}  // namespace kvx::main
