// kalvex-import on hostile input: inputs that are pipes or endless devices.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "common/child.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;
using kvx::test::ChildOptions;
using kvx::test::ChildRun;
using kvx::test::run_child;
using kvx::test::TempDir;

// A FIFO without a writer, a link to /dev/zero and a folder as the input:
// refused at once.
TEST(HostileImport, InputsThatAreNotRegularFilesAreRefused) {
    TempDir dir;
    ASSERT_EQ(mkfifo(dir.file("pipe.molden").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", dir.path() / "zero.fchk");
    fs::create_directory(dir.path() / "folder.molden");
    const struct {
        const char* name;
        const char* kind;
    } cases[] = {{"pipe.molden", "a FIFO"}, {"zero.fchk", "a character device"}, {"folder.molden", "a folder"}};
    double slowest = 0;
    for (const auto& c : cases) {
        ChildOptions opt;
        opt.timeout_seconds = 20;
        const ChildRun r = run_child({kvx::test::tool("kalvex-import"), dir.file(c.name), dir.file("job")}, opt);
        ASSERT_FALSE(r.timed_out) << c.name;
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "kalvex-import: " + dir.file(c.name) + ": cannot open the file (" + c.kind +
                             ", not a regular file)\n");
        slowest = std::max(slowest, r.seconds);
    }
    EXPECT_FALSE(fs::exists(dir.path() / "job.control"));
    std::printf("[ figures  ] kalvex-import on a FIFO, /dev/zero, a folder: slowest run %.3f s\n", slowest);
}
