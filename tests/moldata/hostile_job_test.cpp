// Job files made to hurt: pipes and endless devices in the place of files.
// kalvex runs as a child process under a time limit, its cost measured.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "common/child.h"
#include "job_files.h"

namespace fs = std::filesystem;
using kvx::test::ChildOptions;
using kvx::test::ChildRun;
using kvx::test::run_child;
using kvx::test::TempJob;

namespace {

ChildRun kalvex(const TempJob& job, std::vector<std::string> words, ChildOptions opt = {}) {
    std::vector<std::string> argv = {KVX_BINARY, job.job()};
    argv.insert(argv.end(), words.begin(), words.end());
    return run_child(argv, opt);
}

}  // namespace

// A FIFO that nobody writes to and a link to /dev/zero in the place of each
// job file: read as absent data (the job is then what is left of it), and
// the run ends at once.
TEST(HostileJob, FifosAndEndlessDevicesReadAsAbsentFiles) {
    double slowest = 0;
    for (const char* ext : {".control", ".coord", ".basis", ".sym", ".mos", ".kvm"}) {
        for (const bool fifo : {true, false}) {
            TempJob job;
            kvx::test::write_h2(job);
            std::error_code ec;
            fs::remove(job.path(ext), ec);
            if (std::string(ext) == ".kvm") fs::remove(job.path(".control"));  // the one-file layout
            if (fifo)
                ASSERT_EQ(mkfifo(job.path(ext).c_str(), 0600), 0) << ext;
            else
                fs::create_symlink("/dev/zero", job.path(ext));
            ChildOptions opt;
            opt.timeout_seconds = 20;
            const ChildRun r = kalvex(job, {"-den"}, opt);
            ASSERT_FALSE(r.timed_out) << ext << (fifo ? " FIFO" : " /dev/zero");
            EXPECT_EQ(r.status, 0) << ext << r.out << r.err;
            EXPECT_LT(r.seconds, 5.0) << ext;
            slowest = std::max(slowest, r.seconds);
        }
    }
    std::printf("[ figures  ] FIFO and /dev/zero job files: slowest run %.3f s\n", slowest);
}
