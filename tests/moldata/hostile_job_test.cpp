// Job files made to hurt: a basis of a kilobyte announcing gigabytes of
// matrices, counts that overflow, pipes and endless devices in the place of
// files, orbital files cut short or announcing a million orbitals. kalvex
// runs as a child process under a time limit, its cost measured.
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

const std::string kWater = KVX_TEST_DATA "/water/water";

std::string folder_of(const TempJob& job) { return fs::path(job.job()).parent_path().string(); }

ChildRun kalvex(const TempJob& job, std::vector<std::string> words, ChildOptions opt = {}) {
    std::vector<std::string> argv = {KVX_BINARY, job.job()};
    argv.insert(argv.end(), words.begin(), words.end());
    return run_child(argv, opt);
}

// One atom carrying an i28 shell of one primitive and `columns` contraction
// columns: 28 functions a column from two characters a column.
std::string wide_contraction_basis(int columns) {
    std::string b = "$nbasis " + std::to_string(28 * columns) + "\n$nshell 1\n$nprim 1\n$basis\nfor H\ni28 1.0";
    for (int c = 0; c < columns; ++c) b += " 1";
    return b + "\n$end\n";
}

}  // namespace

// 1.5 KB announcing 19,572 functions: 1.5 GB of overlap matrix and a 3 GB
// shell-pair block. The basis is rejected, naming the file, before any of it
// is allocated. The address-space limit makes the old behaviour fail fast
// instead of taking the machine's memory.
TEST(HostileJob, KilobyteBasisIsRejectedBeforeItsMatricesAreAllocated) {
    TempJob job;
    job.write(".control", "$natoms 1\n$nalpha 1\n");
    job.write(".coord", "$coordinates\nH 0 0 0 1 1\n$end\n");
    const std::string basis = wide_contraction_basis(699);
    ASSERT_LT(basis.size(), 1500u);
    job.write(".basis", basis);
    ChildOptions opt;
    opt.timeout_seconds = 30;
    if (!kvx::test::kSanitized) opt.address_space_mib = 1024;
    const ChildRun r = kalvex(job, {"-den"}, opt);
    ASSERT_FALSE(r.timed_out);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find(job.path(".basis")), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("699 contractions of 1 primitive"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("cannot allocate"), std::string::npos) << r.out;
    // The run goes on without a basis: nothing can be computed.
    EXPECT_NE(r.out.find("Total density not available for current molecule"), std::string::npos) << r.out;
    // Generous bounds; the figures are about 1/100 s and a few MB.
    EXPECT_LT(r.seconds, 10.0);
    if (!kvx::test::kSanitized) {
        EXPECT_LT(r.peak_kib, 200 * 1024);
    }
    std::printf("[ figures  ] big basis: %.3f s, peak %ld KiB\n", r.seconds, r.peak_kib);
}

// A basis that is what it says (700 atoms, an i28 shell each) but whose
// matrices need more memory than the process may have: rejected before
// they are allocated, the "cannot allocate" messages kept for real failures.
TEST(HostileJob, BasisNeedingMoreMemoryThanTheProcessHasIsRejected) {
    if (kvx::test::kSanitized) GTEST_SKIP() << "no address-space limit under the sanitizer";
    TempJob job;
    const int natoms = 700;
    std::string coord = "$coordinates\n";
    for (int a = 0; a < natoms; ++a) coord += "H 0 0 " + std::to_string(2 * a) + " 1 1\n";
    job.write(".control", "$natoms " + std::to_string(natoms) + "\n$nalpha 350\n");
    job.write(".coord", coord + "$end\n");
    job.write(".basis", "$nbasis 19600\n$nshell 700\n$basis\nfor H\ni28 1.0 1.0\n$end\n");
    ChildOptions opt;
    opt.address_space_mib = 3072;
    const ChildRun r = kalvex(job, {"-den"}, opt);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("basis in " + job.path(".basis") + " rejected: 19600 basis functions need 4.3 GB"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("cannot allocate"), std::string::npos) << r.out;
    EXPECT_LT(r.peak_kib, 200 * 1024);
}

// "$ndummy 0 -2147483648": natoms minus the dummy count overflowed in the
// charge fit's set-up. Counts out of their range refuse the job, naming
// the file.
TEST(HostileJob, OutOfRangeCountsRefuseTheJob) {
    const struct {
        const char* control;
        const char* message;
    } cases[] = {
        {"$natoms 2\n$nalpha 1\n$ndummy 0 -2147483648\n", "$ndummy -2147483648 is out of range (0 to 2)"},
        {"$natoms 2\n$nalpha 1\n$ndummy 0 3\n", "$ndummy 3 is out of range (0 to 2)"},
        {"$natoms 2\n$nalpha -1\n", "$nalpha -1 is out of range (0 or more)"},
        {"$natoms 2\n$nalpha 99999999999\n", "$nalpha 99999999999 is out of range (beyond 32 bits)"},
        {"$natoms 2.5\n$nalpha 1\n", "$natoms \"2.5\" is not an integer"},
        {"$natoms 2\n$nalpha 1e0\n", "$nalpha \"1e0\" is not an integer"},
    };
    for (const auto& c : cases) {
        TempJob job;
        kvx::test::write_h2(job);
        job.write(".control", c.control);
        const ChildRun r = kalvex(job, {"-chelp"});
        EXPECT_EQ(r.status, 0) << c.control << r.err;
        EXPECT_EQ(r.signal, 0) << c.control << r.err;
        EXPECT_EQ(r.out, "Moldata read_counts: " + job.path(".control") + ": " + c.message + "\n") << c.control;
    }
    // A word where a count belongs reads as a missing count, as before.
    TempJob job;
    kvx::test::write_h2(job);
    job.write(".control", "$natoms 2\n$nalpha 1\n$ndummy none\n");
    const ChildRun r = kalvex(job, {"-den"});
    EXPECT_NE(r.out.find("Property file:"), std::string::npos) << r.out;
}

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

// A sparse orbital file of gigabytes (nothing on disk) whose header
// announces millions of orbitals: the rows are not allocated beyond what
// the process can have.
TEST(HostileJob, HugeSparseOrbitalFileIsNotRead) {
    if (kvx::test::kSanitized) GTEST_SKIP() << "no address-space limit under the sanitizer";
    TempJob job;
    job.copy_from(kWater, {".control", ".coord", ".basis", ".mos"});
    std::string head = kvx::test::read_file(kWater + ".mos").substr(0, 20);
    head.replace(4, 4, std::string("\x00\x2d\x31\x01", 4));  // 20,000,000 orbitals
    job.write(".mos", head);
    fs::resize_file(job.path(".mos"), std::uintmax_t{3} << 30);
    ChildOptions opt;
    opt.address_space_mib = 1024;
    const ChildRun r = kalvex(job, {"-den"}, opt);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Moldata read_binary_orbitals: " + job.path(".mos") + ": 20000000 orbitals of 19 functions"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Total density not available"), std::string::npos) << r.out;
    EXPECT_LT(r.seconds, 10.0);
}

// A control file that goes on for 65 MiB past its counts (a sparse file:
// nothing on disk): read up to its bound, with a message, within seconds.
TEST(HostileJob, OverlongTextJobFileIsReadToItsBound) {
    TempJob job;
    kvx::test::write_h2(job);
    fs::resize_file(job.path(".control"), std::uintmax_t{65} << 20);
    ChildOptions opt;
    opt.timeout_seconds = 120;
    const ChildRun r = kalvex(job, {"-den", "-base", "b", "-path", folder_of(job)}, opt);
    ASSERT_FALSE(r.timed_out);
    EXPECT_EQ(
        r.out.rfind("Moldata open_read: " + job.path(".control") + " is longer than 64 MiB; the rest is not read\n", 0),
        0u)
        << r.out;
    EXPECT_NE(r.out.find("Property file:"), std::string::npos) << r.out;
    EXPECT_LT(r.seconds, 60.0);
    std::printf("[ figures  ] 65 MiB control file: %.2f s\n", r.seconds);
}

// Orbital files holding fewer orbitals than their header announces, or than
// the occupied count: kalvex says so on standard error; standard output and
// the values stay as they were.
TEST(HostileJob, ShortOrbitalFilesAreReportedOnStandardError) {
    const std::string full = kvx::test::read_file(kWater + ".mos");
    ASSERT_EQ(full.size(), 3072u);  // header 16 bytes, 19 x 19 doubles framed, 19 energies framed
    const std::size_t row = 19 * 8, coef_start = 16 + 4;
    const struct {
        std::string bytes;
        std::vector<std::string> warnings;
    } cases[] = {
        // Cut inside orbital 3: 2 orbitals kept.
        {full.substr(0, coef_start + 2 * row + 50),
         {".mos holds 2 orbitals; its header announces 19", ".mos holds 2 orbitals, fewer than the 5 occupied"}},
        // The header announces a million orbitals: the energy record reads as
        // a 20th row; the warning says what happened.
        {full.substr(0, 4) + std::string("\x40\x42\x0f\x00", 4) + full.substr(8),
         {".mos holds 20 orbitals; its header announces 1000000"}},
    };
    for (const auto& c : cases) {
        TempJob job;
        job.copy_from(kWater, {".control", ".coord", ".basis"});
        job.write(".mos", c.bytes);
        const ChildRun r = kalvex(job, {"-den", "-base", "b", "-path", folder_of(job)});
        EXPECT_EQ(r.status, 0);
        for (const std::string& w : c.warnings) {
            EXPECT_NE(r.err.find("kalvex: " + job.path(w)), std::string::npos) << r.err;
            EXPECT_EQ(r.out.find(w), std::string::npos) << r.out;
        }
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), static_cast<long>(c.warnings.size())) << r.err;
    }
    // A whole file: nothing on standard error.
    TempJob job;
    job.copy_from(kWater, {".control", ".coord", ".basis", ".mos"});
    const ChildRun r = kalvex(job, {"-den", "-base", "b", "-path", folder_of(job)});
    EXPECT_EQ(r.err, "");
}
