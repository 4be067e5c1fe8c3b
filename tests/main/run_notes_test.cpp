// The notes kalvex gives on standard error before it waits or works long:
// at a terminal, that it reads further requests and how the run ends; before
// a large grid, the estimate of memory, file and time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "common/child.h"
#include "common/temp_dir.h"
#include "grid/grid.h"
#include "main/grid_cost.h"
#include "moldata/property_words.h"
#include "moldata/reader.h"

namespace kvx::main {
namespace {

const std::string kTerminalNote =
    "kalvex: reading further requests from the terminal; -end or Ctrl-D ends the run (Ctrl-C cancels only the "
    "property being computed)\n";

// kalvex run in dir with standard output and standard error on one pipe
// (their order kept) and standard input from the terminal or in_fd.
test::Conversation start(const std::string& dir, const std::string& terminal, int in_fd,
                         std::initializer_list<const char*> args) {
    std::vector<std::string> argv = {KVX_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    test::ConversationOptions opt;
    opt.dir = dir;
    opt.terminal = terminal;
    opt.stdin_fd = in_fd;
    opt.merge_stderr = true;
    return test::start_conversation(argv, opt);
}

struct Terminal {
    int master = -1;
    std::string slave;
    Terminal() {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0) slave = ptsname(master);
    }
    ~Terminal() {
        if (master >= 0) close(master);
    }
    void type(const char* text) const { ASSERT_GT(write(master, text, std::strlen(text)), 0); }
};

class Notes : public ::testing::Test {
protected:
    test::TempDir tmp;
    void SetUp() override {
        tmp.copy_job(KVX_TEST_DATA "/water/water", "water", {".control", ".coord", ".basis", ".mos"});
        tmp.copy_job(KVX_TEST_DATA "/../../examples/water/water", "tz", {".control", ".coord", ".basis", ".mos"});
    }
};

// The note comes once, when kalvex first waits at the terminal, after the
// command line's requests; -end typed, or Ctrl-D, ends the run with status 0.
TEST_F(Notes, TerminalInputIsAnnouncedOnceAndEndsWithEndOrCtrlD) {
    for (const char* ending : {"-end\n", "\x04"}) {
        Terminal t;
        ASSERT_FALSE(t.slave.empty());
        test::Conversation c = start(tmp.path().string(), t.slave, -1,
                                     {"water", "-xp", "3", "-yp", "3", "-zp", "3", "-force", "1", "-den"});
        ASSERT_TRUE(c.wait_for(kTerminalNote)) << c.text;
        const std::size_t done = c.text.find("Property file:");
        EXPECT_NE(done, std::string::npos) << c.text;
        EXPECT_GT(c.text.find(kTerminalNote), done);
        t.type("-xp 4 -den\n");
        ASSERT_TRUE(c.wait_for("Property file:", 2)) << c.text;
        t.type(ending);
        EXPECT_EQ(c.finish(), 0) << c.text;
        EXPECT_EQ(c.text.find(kTerminalNote), c.text.rfind(kTerminalNote)) << c.text;
    }
}

TEST_F(Notes, LargeGridsAreEstimatedAndSmallOnesAreNot) {
    auto water = moldata::build_molecule(tmp.file("water")).molecule;
    ASSERT_TRUE(water);
    auto grid_of = [](int n) {
        const double centre[3] = {0, 0, 0}, half[3][3] = {{5, 0, 0}, {0, 5, 0}, {0, 0, 5}},
                     spacing[3] = {0.5, 0.5, 0.5};
        const int counts[3] = {n, n, n};
        return grid::grid_build(3, centre, half, spacing, counts);
    };
    const auto small = grid_of(30), large = grid_of(1000);
    for (int kind = 0; kind < moldata::kPropertyWordCount; ++kind)
        EXPECT_EQ(large_grid_note(*small, kind, *water), "") << kind;
    // 10^9 values of 8 bytes; lines such as "0.000123\n" of about 10 bytes.
    const std::string den = large_grid_note(*large, moldata::kReqDen, *water);
    EXPECT_EQ(den.rfind("-den on 1000 x 1000 x 1000 = 1000000000 points: about 8.0 GB of memory, a property file of "
                        "10.0 GB and roughly ",
                        0),
              0u)
        << den;
    const std::string chelp = large_grid_note(*large, moldata::kReqChelp, *water);
    EXPECT_NE(chelp.find("about 41.0 GB of memory and roughly"), std::string::npos) << chelp;  // no file
    EXPECT_EQ(large_grid_note(*large, moldata::kReqEnd, *water), "");
}

// The estimate comes before the work starts; nothing is refused, and the
// interrupt still cancels the property alone.
TEST_F(Notes, EstimateIsPrintedBeforeTheCalculationStarts) {
    int in[2];
    ASSERT_EQ(pipe(in), 0);
    test::Conversation c =
        start(tmp.path().string(), "", in[0], {"tz", "-xp", "110", "-yp", "110", "-zp", "110", "-ep"});
    close(in[0]);
    ASSERT_TRUE(c.wait_for("Computing Electrostatic Potential:")) << c.text;
    const std::size_t note = c.text.find(
        "kalvex: -ep on 110 x 110 x 110 = 1331000 points: about 11 MB of memory, "
        "a property file of 13 MB and roughly ");
    EXPECT_NE(note, std::string::npos) << c.text;
    EXPECT_LT(note, c.text.find("Computing Electrostatic Potential:"));
    kill(c.pid, SIGINT);
    ASSERT_TRUE(c.wait_for(" ABORTED")) << c.text;
    ASSERT_GT(write(in[1], "-end\n", 5), 0);
    close(in[1]);
    EXPECT_EQ(c.finish(), 0) << c.text;
}

}  // namespace
}  // namespace kvx::main
