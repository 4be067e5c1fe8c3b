// kalvex ended while it writes a property file: SIGTERM and SIGHUP remove
// the temporary file before the process ends; what SIGKILL leaves is removed
// by the next run that writes the same name.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/child.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;
using kvx::test::TempDir;

namespace {

const std::string kWater = KVX_TEST_DATA "/water/water";

// Names in the folder that begin with prefix.
std::vector<std::string> entries(const TempDir& dir, const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(dir.path()))
        if (e.path().filename().string().rfind(prefix, 0) == 0) out.push_back(e.path().filename().string());
    return out;
}

// kalvex computing the density on an n^3 grid into DIR/big-den.grid.
pid_t start_density(const TempDir& dir, int n) {
    const std::string job = dir.file("water"), points = std::to_string(n);
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        freopen("/dev/null", "r", stdin);
        freopen("/dev/null", "w", stdout);
        execl(KVX_BINARY, KVX_BINARY, job.c_str(), "-xp", points.c_str(), "-yp", points.c_str(), "-zp", points.c_str(),
              "-base", "big", "-path", dir.path().c_str(), "-den", static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// Waits until the temporary file of big-den.grid appears; false when the
// process ended first.
bool wait_for_temporary(const TempDir& dir, pid_t pid) {
    for (;;) {
        if (!entries(dir, "big-den.grid.").empty()) return true;
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

struct WaterJob {
    TempDir dir;
    WaterJob() {
        for (const char* e : {".control", ".coord", ".basis", ".mos"}) fs::copy_file(kWater + e, dir.file("water") + e);
    }
};

}  // namespace

TEST(InterruptedWrite, TermAndHangupRemoveTheTemporaryFile) {
    for (const int sig : {SIGTERM, SIGHUP}) {
        WaterJob w;
        const pid_t pid = start_density(w.dir, 160);
        ASSERT_TRUE(wait_for_temporary(w.dir, pid)) << "kalvex ended before writing";
        kill(pid, sig);
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << "status " << status;
        EXPECT_EQ(entries(w.dir, "big-den.grid"), std::vector<std::string>{}) << strsignal(sig);
    }
}

TEST(InterruptedWrite, WhatAKilledRunLeftGoesWithTheNextRun) {
    WaterJob w;
    const pid_t pid = start_density(w.dir, 160);
    ASSERT_TRUE(wait_for_temporary(w.dir, pid)) << "kalvex ended before writing";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ASSERT_EQ(entries(w.dir, "big-den.grid.").size(), 1u) << "SIGKILL leaves the temporary file";

    const kvx::test::ChildRun r =
        kvx::test::run_child({KVX_BINARY, w.dir.file("water"), "-base", "big", "-path", w.dir.path().string(), "-den"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(entries(w.dir, "big-den.grid"), std::vector<std::string>{"big-den.grid"});
}
