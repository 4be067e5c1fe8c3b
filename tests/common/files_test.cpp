// Input streams that end, and output files that appear whole or not at all:
// common/input_file.h and common/output_file.h.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/input_file.h"
#include "common/output_file.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;
using kvx::test::TempDir;

namespace {

std::string read_all(std::FILE* f) {
    std::string s;
    for (int c; (c = std::getc(f)) != EOF;) s.push_back(static_cast<char>(c));
    return s;
}

std::vector<std::string> names(const TempDir& dir) {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(dir.path())) out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

// The pid of a process that has ended (reaped).
pid_t ended_pid() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

}  // namespace

TEST(InputFile, OnlyRegularFilesOpenAndNoneBlocks) {
    TempDir dir;
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", dir.path() / "zero");
    fs::create_directory(dir.path() / "folder");
    const struct {
        const char* name;
        const char* error;
    } cases[] = {{"fifo", "a FIFO, not a regular file"},
                 {"zero", "a character device, not a regular file"},
                 {"folder", "a folder, not a regular file"},
                 {"absent", "No such file or directory"}};
    for (const auto& c : cases) {
        std::string error;
        EXPECT_EQ(kvx::common::open_bounded(dir.file(c.name), kvx::common::kNoLimit, &error), nullptr) << c.name;
        EXPECT_EQ(error, c.error);
    }
}

// The stream ends where the file ended when it was opened, or at the bound;
// seeking stays inside that window.
TEST(InputFile, StreamsEndAtTheSizeWhenOpenedOrTheBound) {
    TempDir dir;
    dir.write("f", "0123456789");
    bool cut = true;
    std::FILE* f = kvx::common::open_bounded(dir.file("f"), kvx::common::kNoLimit, nullptr, &cut);
    ASSERT_NE(f, nullptr);
    EXPECT_FALSE(cut);
    std::ofstream(dir.file("f"), std::ios::app) << "grown";  // a writer appending meanwhile
    EXPECT_EQ(read_all(f), "0123456789");
    std::rewind(f);
    EXPECT_EQ(std::getc(f), '0');
    ASSERT_EQ(std::fseek(f, -3, SEEK_END), 0);
    EXPECT_EQ(std::ftell(f), 7);
    EXPECT_EQ(read_all(f), "789");
    std::fclose(f);

    f = kvx::common::open_bounded(dir.file("f"), 4, nullptr, &cut);
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(cut);
    EXPECT_EQ(read_all(f), "0123");
    ASSERT_EQ(std::fseek(f, 0, SEEK_END), 0);
    EXPECT_EQ(std::ftell(f), 4);
    std::fclose(f);
}

TEST(OutputFile, WholeFileOrNoneAndTheModeFopenGives) {
    TempDir dir;
    const std::string target = dir.file("p.grid");
    std::string error;
    ASSERT_TRUE(kvx::common::write_atomically(
        target, [](std::FILE* f) { return std::fputs("one\n", f) >= 0; }, error));
    EXPECT_EQ(kvx::test::read_file(target), "one\n");
    const mode_t mask = umask(0);
    umask(mask);
    struct stat st;
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
    // A writer that fails leaves the earlier file and no temporary.
    EXPECT_FALSE(kvx::common::write_atomically(
        target, [](std::FILE* f) { return std::fputs("two\n", f) < 0; }, error));
    EXPECT_EQ(error, "cannot write " + target);
    EXPECT_EQ(kvx::test::read_file(target), "one\n");
    EXPECT_EQ(names(dir), std::vector<std::string>{"p.grid"});
}

// A signal in the middle of the write, raised by the writer itself so that
// it comes at a known point: TERM and HUP end the process without a trace;
// KILL leaves the temporary file, which the next write of the name removes.
TEST(OutputFile, SignalsDuringTheWriteLeaveNothingBehind) {
    for (const int sig : {SIGTERM, SIGHUP, SIGINT, SIGKILL}) {
        TempDir dir;
        const std::string target = dir.file("p.grid");
        std::fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            std::string error;
            kvx::common::write_atomically(
                target,
                [sig](std::FILE* f) {
                    std::fputs("half", f);
                    std::fflush(f);
                    raise(sig);
                    return true;
                },
                error);
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << strsignal(sig) << " status " << status;
        const std::vector<std::string> left = names(dir);
        if (sig != SIGKILL) {
            EXPECT_TRUE(left.empty()) << strsignal(sig) << ": " << left.size();
            continue;
        }
        ASSERT_EQ(left.size(), 1u);
        EXPECT_EQ(left[0].rfind("p.grid." + std::to_string(pid) + ".", 0), 0u) << left[0];
        std::string error;
        ASSERT_TRUE(kvx::common::write_atomically(
            target, [](std::FILE* f) { return std::fputs("x\n", f) >= 0; }, error));
        EXPECT_EQ(names(dir), std::vector<std::string>{"p.grid"});
    }
}

// Only temporaries of ended processes go: not those of a living process
// (this one's parent), not files of other names, not a locked one.
TEST(OutputFile, StaleTemporariesOfEndedProcessesOnly) {
    TempDir dir;
    const std::string target = dir.file("p.grid");
    const std::string dead = "p.grid." + std::to_string(ended_pid()) + ".Ab12Cd";
    const std::string alive = "p.grid." + std::to_string(getppid()) + ".Ab12Cd";
    const std::vector<std::string> others = {"p.grid.notes", "p.grid.123", "p.grid.12x.Ab12Cd", "q.grid.1.Ab12Cd",
                                             "p.grid." + std::to_string(ended_pid()) + ".toolong"};
    for (const std::string& n : others) dir.write(n, "keep");
    dir.write(alive, "keep");
    dir.write(dead, "stale");
    fs::create_directory(dir.path() / ("p.grid." + std::to_string(ended_pid()) + ".Folder"));
    EXPECT_EQ(kvx::common::remove_stale_temporaries(target), 1);
    EXPECT_FALSE(fs::exists(dir.path() / dead));
    EXPECT_TRUE(fs::exists(dir.path() / alive));
    for (const std::string& n : others) EXPECT_TRUE(fs::exists(dir.path() / n)) << n;
}
