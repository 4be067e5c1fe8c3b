// -numt on the orbital and density requests: every request kind gives the
// same bytes (files and printed lines) with 1, 2, 3 and 7 threads, and Ctrl-C
// still cancels only the property in progress.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>

#include "common/child.h"
#include "common/command.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;

namespace {

// Every orbital and density request kind: the OH radical (unrestricted)
// with its canonical orbitals also as localized and natural sets, and
// water (restricted). One base name per run, so no file replaces another.
struct Requests {
    const char *job, *base, *words;
};
const Requests kRequests[] = {
    {"ohrad", "oh", "-den -dena -denb -spin -moa 5 -mob 4 -loa 2 -lob 3 -nos 4 -partd 1 1-3 2-4 -parts 1 2-4 1"},
    {"ohrad", "ohloc", "-partd 2 1-2 1 -parts 2 1-2 1"},
    {"ohrad", "ohnat", "-partd 0 1-3 1"},
    {"water", "w", "-den -dena -spin -moa 5 -moa 1 -partd 1 1-3,5 1-2 -parts 1 2-4 1"},
};

class GridThreads : public ::testing::Test {
protected:
    kvx::test::TempDir tmp;

    // The jobs' files in folder `name`; kalvex run there with the words.
    std::map<std::string, std::string> run(const std::string& name, const std::string& words) {
        const fs::path dir = tmp.path() / name;
        fs::create_directory(dir);
        const fs::path data(KVX_TEST_DATA);
        for (const char* job : {"water", "ohrad"})
            for (const auto& e : fs::directory_iterator(data / job))
                if (e.path().filename() != "reference.txt") fs::copy_file(e.path(), dir / e.path().filename());
        fs::copy_file(data / "ohrad/ohrad.mos", dir / "ohrad.los");
        fs::copy_file(data / "ohrad/ohrad.mos", dir / "ohrad.nos");
        std::map<std::string, std::string> out;
        for (const Requests& rq : kRequests) {
            const auto r = kvx::test::run_command("cd '" + dir.string() + "' && '" KVX_BINARY "' " + rq.job +
                                                  " -base " + rq.base + " " + words + " " + rq.words + " </dev/null");
            EXPECT_EQ(r.status, 0) << r.out;
            // The process id is the only line that may differ.
            out[std::string(rq.base) + ".stdout"] = std::regex_replace(r.out, std::regex("Process ID is [0-9]+"), "");
        }
        for (const auto& e : fs::directory_iterator(dir))
            if (e.path().extension() == ".grid") out[e.path().filename().string()] = kvx::test::read_file(e.path());
        return out;
    }
};

// Lines of 150 points make two blocks each; 7 threads share a tiny grid
// with fewer blocks than threads.
TEST_F(GridThreads, EveryRequestKindGivesTheSameBytesForAnyThreadCount) {
    const std::string grid = "-xp 7 -yp 9 -zp 150";
    const auto one = run("t1", grid + " -numt 1");
    ASSERT_EQ(one.size(), 4u + 11u + 2u + 1u + 7u);  // four outputs, the property files of each run
    for (const auto& [name, bytes] : one) EXPECT_GT(bytes.size(), 100u) << name;
    for (int numt : {2, 3})
        EXPECT_TRUE(run(std::string("t").append(std::to_string(numt)), grid + " -numt " + std::to_string(numt)) == one)
            << numt << " threads";
    const std::string tiny = "-xp 3 -yp 4 -zp 5";
    EXPECT_TRUE(run("tiny1", tiny + " -numt 1") == run("tiny7", tiny + " -numt 7"));
    // The default (-4) and 0 (one thread per core) are the same as well.
    EXPECT_TRUE(run("tdefault", grid) == one);
    EXPECT_TRUE(run("t0", grid + " -numt 0") == one);
}

// Ctrl-C during a density on three threads: " ABORTED", no file, and the
// next request runs.
TEST_F(GridThreads, InterruptStopsEveryThreadAndTheRunGoesOn) {
    const fs::path dir = tmp.path();
    for (const char* e : {".control", ".coord", ".basis", ".mos"})
        fs::copy_file(fs::path(KVX_TEST_DATA) / "water" / (std::string("water") + e), dir / (std::string("water") + e));
    kvx::test::ConversationOptions opt;
    opt.dir = dir.string();
    kvx::test::Conversation c = kvx::test::start_conversation({KVX_BINARY, "water", "-base", "i", "-numt", "3"}, opt);
    ASSERT_TRUE(c.send("-xp 300 -yp 300 -zp 300 -moacc 1e-14 -den\n"));
    ASSERT_TRUE(c.wait_for(" 10%")) << c.text;
    kill(c.pid, SIGINT);
    ASSERT_TRUE(c.wait_for(" ABORTED")) << c.text;
    ASSERT_TRUE(c.send("-xp 5 -yp 5 -zp 5 -den\n-end\n"));
    ASSERT_TRUE(c.wait_for("Property file:")) << c.text;
    EXPECT_EQ(c.finish(), 0);
    const std::string& out = c.text;
    EXPECT_NE(out.find(" ABORTED\nComputing Electronic Density den:"), std::string::npos) << out;
    int files = 0;  // the small density's only
    for (const auto& e : fs::directory_iterator(dir)) files += e.path().extension() == ".grid";
    EXPECT_EQ(files, 1);
}

}  // namespace
