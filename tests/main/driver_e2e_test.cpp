// End-to-end runs of the kalvex binary on the real water and OH radical jobs,
// each in its own temporary directory.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/child.h"
#include "common/command.h"
#include "common/grid_file.h"
#include "common/reference_table.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;

namespace {

using RunResult = kvx::test::CommandResult;
using kvx::test::GridText;
using kvx::test::read_grid_text;

class KalvexRun : public ::testing::Test {
protected:
    kvx::test::TempDir tmp;
    fs::path dir;

    void SetUp() override {
        ASSERT_FALSE(tmp.path().empty());
        dir = tmp.path();
        for (const char* job : {"water", "ohrad"})
            for (const auto& e : fs::directory_iterator(fs::path(KVX_TEST_DATA) / job))
                if (e.path().filename() != "reference.txt") fs::copy_file(e.path(), dir / e.path().filename());
    }

    // Runs kalvex in the temporary directory with the given arguments and
    // standard input text.
    RunResult run(const std::string& args, const std::string& input, const std::string& env = "") {
        const fs::path in = dir / "stdin.txt";
        std::ofstream(in) << input;
        return kvx::test::run_command("cd '" + dir.string() + "' && " + env + " '" KVX_BINARY "' " + args +
                                      " < stdin.txt");
    }

    std::vector<fs::path> grid_files() const {
        std::vector<fs::path> v;
        for (const auto& e : fs::directory_iterator(dir))
            if (e.path().extension() == ".grid") v.push_back(e.path());
        std::sort(v.begin(), v.end());
        return v;
    }
};

int count(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
    return n;
}

// Value after "Property:" in a single-point line.
double point_value(const std::string& out) {
    const size_t p = out.find("Property:");
    if (p == std::string::npos) return NAN;
    return std::atof(out.c_str() + p + 9);
}

}  // namespace

TEST_F(KalvexRun, UnreadableJobIsReportedAndEndsWithStatusZero) {
    RunResult r = run("nosuchjob -den", "");
    EXPECT_EQ(r.out, "Cannot read molecular data for nosuchjob\n");
    EXPECT_EQ(r.status, 0);
}

TEST_F(KalvexRun, RepeatedRequestReusesTheFileUnlessForced) {
    RunResult r = run("water -den", "-den\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(count(r.out, "Computing Electronic Density den:"), 1);
    EXPECT_EQ(count(r.out, "File exists, skipping calculation"), 1);
    ASSERT_EQ(grid_files().size(), 1u);
    // A second run of the same job names the same file and skips as well.
    r = run("water -den", "");
    EXPECT_EQ(count(r.out, "File exists, skipping calculation"), 1);
    r = run("water -force 1 -den", "");
    EXPECT_EQ(count(r.out, "Computing Electronic Density den:"), 1);
    EXPECT_EQ(grid_files().size(), 1u);
}

TEST_F(KalvexRun, OptionChangeRebuildsTheGridAndRenamesTheFile) {
    RunResult r = run("water -xp 10 -yp 10 -zp 10 -den", "-xp 12 -den\n-moacc 1e-8 -den\n");
    EXPECT_EQ(count(r.out, "Computing Electronic Density den:"), 3);
    const auto files = grid_files();
    ASSERT_EQ(files.size(), 3u);
    std::vector<int> nx;
    for (const auto& f : files) nx.push_back(read_grid_text(f).n[0]);
    std::sort(nx.begin(), nx.end());
    EXPECT_EQ(nx, (std::vector<int>{10, 12, 12}));
}

TEST_F(KalvexRun, ValueOrderSwitchWritesTheSameValuesTransposed) {
    run("water -xp 4 -yp 5 -zp 6 -base fx -den", "");
    run("water -xp 4 -yp 5 -zp 6 -base st -fgrid 0 -den", "");
    const GridText a = read_grid_text(dir / "fx-den.grid"), b = read_grid_text(dir / "st-den.grid");
    ASSERT_EQ(a.v.size(), 120u);
    ASSERT_EQ(b.v.size(), 120u);
    EXPECT_EQ(a.stamp, b.stamp);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 5; ++j)
            for (int k = 0; k < 6; ++k)
                EXPECT_EQ(a.v[static_cast<size_t>((k * 5 + j) * 4 + i)], b.v[static_cast<size_t>((i * 5 + j) * 6 + k)]);
    double sum = 0;
    for (double v : a.v) sum += v;
    EXPECT_GT(sum, 0.0);
}

TEST_F(KalvexRun, SinglePointModePrintsOneLineAndWritesNoFile) {
    // Reference potential of the water job at its first scattered point
    // (psi4 agrees to 5e-11); printed with six decimals.
    const kvx::test::ReferenceTable ref = kvx::test::job_reference("water");
    ASSERT_FALSE(ref.rows.empty());
    const auto& row = ref.rows[0];
    const double x = row[ref.column("x")], y = row[ref.column("y")], z = row[ref.column("z")],
                 pot = ref.column("potential") >= 0 ? row[ref.column("potential")] : NAN;
    ASSERT_FALSE(std::isnan(pot));
    char args[256];
    std::snprintf(args, sizeof args, "water -point -px %.12f -py %.12f -pz %.12f -thresh 1e-10 -ep", x, y, z);
    RunResult r = run(args, "");
    EXPECT_NE(r.out.find("Point:"), std::string::npos) << r.out;
    EXPECT_NEAR(point_value(r.out), pot, 2e-6);
    EXPECT_TRUE(grid_files().empty());
    EXPECT_EQ(r.out.find("Property file"), std::string::npos);
}

TEST_F(KalvexRun, PointFlagFlipsTwiceAcrossLines) {
    RunResult r = run("water -xp 3 -yp 3 -zp 3 -POINT", "-point -den\n");
    EXPECT_EQ(r.out.find("Point:"), std::string::npos);
    EXPECT_EQ(grid_files().size(), 1u);
}

TEST_F(KalvexRun, MissingDataIsReportedAndTheRunGoesOn) {
    RunResult r = run("water -xp 3 -yp 3 -zp 3 -mob 1 -denb -nos 1 -partd 7 1 1 -moa 99 -moa 1", "");
    EXPECT_NE(r.out.find("Beta MOs not available for current molecule\n"), std::string::npos);
    EXPECT_NE(r.out.find("Beta density not available for current molecule\n"), std::string::npos);
    EXPECT_NE(r.out.find("Natural Orbitals not available for current molecule\n"), std::string::npos);
    EXPECT_NE(r.out.find("Partial density: cannot understand motype 7\n"), std::string::npos);
    EXPECT_NE(r.out.find("Density fill_mo: Molecular Orbital moa No. 99 cannot be computed\n"), std::string::npos);
    ASSERT_EQ(grid_files().size(), 1u);
    EXPECT_NE(grid_files()[0].filename().string().find("-moa-1.grid"), std::string::npos);
}

// Without orbitals every flag is 0: each request prints its own line, in
// request order, and nothing is computed.
TEST_F(KalvexRun, EveryRequestWithoutItsDataPrintsItsMessage) {
    fs::remove(dir / "water.mos");
    RunResult r = run("water -ep -chelp -den -dena -denb -spin -moa 1 -mob 1 -loa 1",
                      "-lob 1 -nos 1 -partd 1 1 1 -parts 1 1 1\n");
    EXPECT_EQ(r.status, 0);
    const std::string expected =
        "Electrostatic potential not available for current molecule\n"
        "CHELP not available for current molecule\n"
        "Total density not available for current molecule\n"
        "Alpha density not available for current molecule\n"
        "Beta density not available for current molecule\n"
        "Spin density not available for current molecule\n"
        "Alpha MOs not available for current molecule\n"
        "Beta MOs not available for current molecule\n"
        "Localized Alpha MOs not available for current molecule\n"
        "Localized Beta MOs not available for current molecule\n"
        "Natural Orbitals not available for current molecule\n"
        "Partial density not available for current molecule\n"
        "Partial spin density not available for current molecule\n";
    const std::size_t after_pid = r.out.find('\n', r.out.find("Process ID is ")) + 1;
    EXPECT_EQ(r.out.substr(after_pid), expected);
    EXPECT_TRUE(grid_files().empty());
}

TEST_F(KalvexRun, EndDropsTheRestOfItsLineAndLastLineNeedsNoNewline) {
    RunResult r = run("water -xp 3 -yp 3 -zp 3", "-base a -end -den\n");
    EXPECT_TRUE(grid_files().empty());
    r = run("water -xp 3 -yp 3 -zp 3", "-base b -den");  // no newline at the end
    EXPECT_TRUE(fs::exists(dir / "b-den.grid"));
}

TEST_F(KalvexRun, OpenShellDensitiesAddUp) {
    run("ohrad -xp 5 -yp 5 -zp 5 -base o -den -dena -denb -spin -partd 1 1-5 1-4 -parts 1 -5 -4", "");
    const GridText den = read_grid_text(dir / "o-den.grid"), a = read_grid_text(dir / "o-dena.grid"),
                   b = read_grid_text(dir / "o-denb.grid"), s = read_grid_text(dir / "o-spin.grid"),
                   pd = read_grid_text(dir / "o-partd.grid"), ps = read_grid_text(dir / "o-parts.grid");
    ASSERT_EQ(den.v.size(), 125u);
    for (size_t i = 0; i < den.v.size(); ++i) {
        EXPECT_NEAR(den.v[i], a.v[i] + b.v[i], 2.5e-6);
        EXPECT_NEAR(s.v[i], a.v[i] - b.v[i], 2.5e-6);
        EXPECT_NEAR(pd.v[i], den.v[i], 1e-12);
        EXPECT_NEAR(ps.v[i], s.v[i], 1e-12);
    }
}

TEST_F(KalvexRun, ScratchDirectoryReceivesTheFiles) {
    fs::create_directory(dir / "scr");
    RunResult r = run("water -xp 3 -yp 3 -zp 3 -base s -den", "", "KVX_SCRDIR=" + (dir / "scr").string());
    EXPECT_TRUE(fs::exists(dir / "scr" / "s-den.grid")) << r.out;
}

TEST_F(KalvexRun, ChelpAloneAndAfterThePotentialFit) {
    RunResult r = run("water -chelp", "");
    std::ifstream f1(dir / "water.chelp");
    std::stringstream s1;
    s1 << f1.rdbuf();
    EXPECT_NE(s1.str().find("CHELPG results"), std::string::npos) << s1.str();
    fs::remove(dir / "water.chelp");
    r = run("water -ep -chelp", "");
    std::ifstream f2(dir / "water.chelp");
    std::stringstream s2;
    s2 << f2.rdbuf();
    EXPECT_EQ(s1.str(), s2.str());
}

// -numt divides the potential's points among threads: the potential file,
// its stamp and the CHELPG report are the same bytes for every count, and so
// is what the run prints.
TEST_F(KalvexRun, ThreadCountLeavesThePotentialAndTheChargesByteIdentical) {
    for (const char* job : {"water", "ohrad"}) {
        std::string grid1, chelp1, out1;
        for (const char* numt : {"1", "2", "3", "7"}) {
            RunResult r =
                run(std::string(job) + " -xp 9 -yp 8 -zp 7 -base t -force 1 -numt " + numt + " -ep -chelp", "");
            ASSERT_EQ(r.status, 0) << r.out;
            r.out.erase(0, r.out.find('\n'));  // the process id line
            const std::string grid = kvx::test::read_file(dir / "t-ep.grid");
            const std::string chelp = kvx::test::read_file(dir / (std::string(job) + ".chelp"));
            ASSERT_FALSE(grid.empty()) << r.out;
            if (std::string(numt) == "1") {
                grid1 = grid, chelp1 = chelp, out1 = r.out;
                continue;
            }
            EXPECT_EQ(grid, grid1) << job << " -numt " << numt;
            EXPECT_EQ(chelp, chelp1) << job << " -numt " << numt;
            EXPECT_EQ(r.out, out1) << job << " -numt " << numt;
        }
    }
}

// Ctrl-C cancels the property in progress only; the handler re-arms, so a
// second interrupt cancels the next long property the same way.
TEST_F(KalvexRun, InterruptCancelsOnlyTheCurrentProperty) {
    kvx::test::ConversationOptions opt;
    opt.dir = dir.string();
    kvx::test::Conversation c = kvx::test::start_conversation({KVX_BINARY, "water", "-base", "i"}, opt);
    // A large grid keeps the density busy long enough to be interrupted.
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(c.send(round == 1 ? "-xp 200 -yp 200 -zp 200 -moacc 1e-12 -den\n" : "-xp 201 -den\n"));
        ASSERT_TRUE(c.wait_for(" 10%", round)) << c.text;
        kill(c.pid, SIGINT);
        ASSERT_TRUE(c.wait_for(" ABORTED", round)) << c.text;
    }
    ASSERT_TRUE(c.send("-xp 4 -yp 4 -zp 4 -den\n-end\n"));
    ASSERT_TRUE(c.wait_for("Property file:", 1)) << c.text;
    EXPECT_EQ(c.finish(), 0);
    const std::string& out = c.text;
    EXPECT_EQ(count(out, " ABORTED"), 2);
    EXPECT_EQ(grid_files().size(), 1u);  // only the small, uninterrupted density
}
