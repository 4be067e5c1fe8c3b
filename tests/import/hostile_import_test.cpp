// kalvex-import on hostile input: integers that are not integers, inputs
// that are pipes or endless devices, and an earlier job that must stay whole
// when the new one cannot be put in its place.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/child.h"
#include "common/temp_dir.h"
#include "import/replace.h"
#include "import/source.h"

namespace fs = std::filesystem;
using kvx::test::ChildOptions;
using kvx::test::ChildRun;
using kvx::test::read_file;
using kvx::test::run_child;
using kvx::test::TempDir;

namespace {

const std::string kData = KVX_TEST_DATA "/psi4/";

ChildRun import(const std::string& input, const std::string& job) {
    ChildOptions opt;
    opt.timeout_seconds = 60;
    return run_child({kvx::test::tool("kalvex-import"), input, job}, opt);
}

void write_file(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// text with the first occurrence of `from` replaced.
std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

}  // namespace

// An integer entry holding a real number was cast: 1e10 overflowed int
// (undefined), 4.5 electrons became 4 and a wrong open-shell job was
// written. Every integer is now read as one.
TEST(HostileImport, FchkIntegerEntriesThatAreNotIntegersAreRefused) {
    const std::string fchk = read_file(kData + "water_cart.fchk");
    const struct {
        std::string text;
        const char* where;
    } cases[] = {
        {replaced(fchk, "Number of beta electrons                   I                5",
                  "Number of beta electrons                   I              4.5"),
         "line 8: expected an integer (\"Number of beta electrons\"), found \"4.5\": not an integer"},
        {replaced(fchk, "Charge                                     I                0",
                  "Charge                                     I             1e10"),
         "line 4: expected an integer (\"Charge\"), found \"1e10\": not an integer"},
        {replaced(fchk, "           8           1           1\nNuclear",
                  "           8         1.0           1\nNuclear"),
         "line 12: expected an integer (\"Atomic numbers\"), found \"1.0\": not an integer"},
    };
    for (const auto& c : cases) {
        ASSERT_NE(c.text, fchk);
        TempDir dir;
        write_file(dir.path() / "water.fchk", c.text);
        const auto before = dir.snapshot();
        const ChildRun r = import(dir.file("water.fchk"), dir.file("job"));
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_EQ(r.err, "kalvex-import: " + dir.file("water.fchk") + ", " + c.where + "\n");
        EXPECT_EQ(dir.snapshot(), before);
    }
}

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

// The new job's files replaced the old ones one by one: a folder named
// JOB.mob stopped the fifth move and left the old job's orbitals with the new
// job's atoms. Now the earlier job stays whole.
TEST(HostileImport, EarlierJobStaysWholeWhenTheNewOneCannotTakeItsPlace) {
    TempDir dir;
    ASSERT_EQ(import(kData + "water_cart.molden", dir.file("job")).status, 0);
    fs::create_directory(dir.path() / "job.mob");
    const auto before = dir.snapshot();
    const ChildRun r = import(kData + "oh_uhf.fchk", dir.file("job"));  // unrestricted: writes job.mob
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("job.mob is a folder; nothing written"), std::string::npos) << r.err;
    EXPECT_EQ(dir.snapshot(), before);
    for (const auto& e : fs::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".kalvex-import"), std::string::npos);
}

// A move that fails half way: every earlier file is put back, no new one
// stays. Then the whole replacement, the stale file taken away.
TEST(HostileImport, ReplacementIsAllOrNothing) {
    TempDir dir;
    fs::create_directory(dir.path() / "new");
    for (const char* e : {".control", ".coord", ".mos", ".sym"})
        write_file(dir.file("job") + e, std::string("old") + e);
    for (const char* e : {".control", ".coord", ".mos"}) write_file(dir.file("new/job") + e, std::string("new") + e);
    const auto before = dir.snapshot();

    // No new ".basis": the third move fails.
    EXPECT_THROW(kvx::import::replace_job_files(dir.file("new/job"), dir.file("job"),
                                                {".control", ".coord", ".basis", ".mos"}, {".sym"}, dir.file("aside1")),
                 kvx::import::ImportError);
    fs::remove_all(dir.path() / "aside1");
    EXPECT_EQ(dir.snapshot(), before);

    const std::vector<std::string> removed = kvx::import::replace_job_files(
        dir.file("new/job"), dir.file("job"), {".control", ".coord", ".mos"}, {".sym", ".nos"}, dir.file("aside2"));
    EXPECT_EQ(removed, std::vector<std::string>{dir.file("job") + ".sym"});
    for (const char* e : {".control", ".coord", ".mos"})
        EXPECT_EQ(read_file(dir.file("job") + e), std::string("new") + e);
    EXPECT_FALSE(fs::exists(dir.file("job") + ".sym"));
    EXPECT_TRUE(fs::is_empty(dir.path() / "new"));
}
