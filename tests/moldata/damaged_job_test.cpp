// Damaged jobs: every file of the H2 job cut at every length, with random
// bytes overwritten, or with absurd counts, must load consistently or be
// refused with a message, never end the process, crash or read out of bounds
// (the sanitizer build checks that). About 1300 loads, each in a child
// process. Then what kalvex and kalvex-cube make of a refused job.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "job_files.h"
#include "moldata/reader.h"

using namespace kvx::moldata;
using kvx::test::TempJob;

namespace {

constexpr int kReturned = 3;
constexpr int kRefused = 4;

// Shells on real atoms with functions inside nbasis, orbital rows nbasis wide.
bool consistent(const Molecule& mol) {
    for (const Shell& s : mol.shells) {
        if (!s.center || s.center < mol.atoms.data() || s.center >= mol.atoms.data() + mol.atoms.size()) return false;
        if (s.nfirst < 1 || s.nfirst - 1 + s.size * s.ngc > mol.nbasis) return false;
        if (static_cast<int>(s.basdat->size()) < s.nprim * s.row_length()) return false;
    }
    for (const OrbitalSet* set :
         {mol.alpha.get(), mol.beta.get(), mol.localized.get(), mol.localized_beta.get(), mol.natural.get()})
        if (set && (set->count > set->coef.rows || set->coef.cols != mol.nbasis ||
                    set->coef.data.size() != static_cast<std::size_t>(set->coef.rows) * set->coef.cols))
            return false;
    if (mol.density && mol.density->n != mol.nbasis) return false;
    return static_cast<int>(mol.atoms.size()) == mol.natoms;
}

// kReturned when the load returned a consistent molecule (or none),
// kRefused for an error message without a molecule; anything else is a fault.
int load_in_child(const std::string& job) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        std::freopen("/dev/null", "w", stdout);
        const MoleculeLoad load = build_molecule(job);
        if (load.error) _exit(load.molecule ? 2 : kRefused);
        _exit(!load.molecule || consistent(*load.molecule) ? kReturned : 2);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

TEST(DamagedJob, TruncatedOrScrambledFilesLoadOrAreRefused) {
    std::mt19937 rng(2024);
    const char alphabet[] = "0123456789-+.eE $\n\t*=,abcdefghilmnopsx\xff";
    for (const char* ext : {".control", ".coord", ".basis", ".sym", ".mos", ".kvm"}) {
        TempJob job;
        const bool one_file = std::string(ext) == ".kvm";  // the one-file layout has no ".control"
        if (one_file)
            job.copy_from(kvx::test::kH2, {".kvm"});
        else
            kvx::test::write_h2(job);
        std::ostringstream buf;
        buf << std::ifstream(job.path(ext), std::ios::binary).rdbuf();
        const std::string full = buf.str();
        ASSERT_FALSE(full.empty()) << ext;
        std::vector<std::string> damaged;  // every cut, then random overwrites
        for (std::size_t len = 0; len < full.size(); ++len) damaged.push_back(full.substr(0, len));
        for (int trial = 0; trial < 40; ++trial) {
            damaged.push_back(full);
            for (int h = 0, hits = 1 + static_cast<int>(rng() % 4); h < hits; ++h)
                damaged.back()[rng() % full.size()] = alphabet[rng() % (sizeof(alphabet) - 1)];
        }
        for (const std::string& text : damaged) {
            job.write(ext, text);
            const int rc = load_in_child(job.job());
            ASSERT_TRUE(rc == kRefused || rc == kReturned) << ext << ": status " << rc << " on\n" << text;
        }
    }
}

// Counts far beyond what the files hold must not size allocations.
TEST(DamagedJob, HugeCountsLoad) {
    TempJob job;
    kvx::test::write_h2(job);
    job.write(".control", "$natoms 2000000000\n$nalpha 2000000000\n$nbeta 0\n$multiplicity 2\n");
    EXPECT_EQ(load_in_child(job.job()), kReturned);
    job.write(".control", "$natoms 2\n$nalpha 1\n");
    job.write(".basis", "$nbasis 2000000000\n$nshell 2000000000\n$basis\nfor H\ns 1.0 1.0\n$end\n");
    EXPECT_EQ(load_in_child(job.job()), kReturned);
}

namespace {

// Standard output and standard error of one command, apart.
struct Streams {
    std::string out, err;
    int status = -1;
};
Streams run_apart(const std::string& command, const std::string& dir) {
    Streams s;
    const std::string err_file = dir + "/stderr.txt";
    const auto r = kvx::test::run_command("{ " + command + " 2>'" + err_file + "'; }");
    s.out = r.out;
    s.status = r.status;
    s.err = kvx::test::read_file(err_file);
    return s;
}

}  // namespace

// A refused job: kalvex prints the reader's message as its only line and ends
// with status 0; kalvex-cube names the job and the message on standard error
// and ends with status 1, writing nothing.
TEST(DamagedJob, RefusedJobMessageFromKalvexAndTheViewTools) {
    const std::string cut_basis = "$nbasis 2\n$nshell 2\n$basis\nfor H\ns 1.0 1.0\n";
    const struct {
        const char* ext;
        std::string text, message;
    } cases[] = {
        {".basis", cut_basis, "1 End of file reached in Basis file"},
        {".coord", "$coordinates\nH 0 0 0 1 1\nH 0 0 1.4 1 1\nH 0 0 3 1 1\n$end\n",
         "Read_atomdata: number of atoms exceeded"},
        {".sym", "$ntrans 2\n$grp ci\n", "1 End of file reached in Basis file"},
    };
    for (const auto& c : cases) {
        TempJob job;
        kvx::test::write_h2(job);
        job.write(c.ext, c.text);
        const std::string dir = job.job().substr(0, job.job().rfind('/'));
        job.write("-den.grid", "0\n0 0 0\n1 1 1\n1 1 1\n1.0\n");
        const Streams k = run_apart("'" KVX_BINARY "' '" + job.job() + "' -den </dev/null", dir);
        EXPECT_EQ(k.out, c.message + "\n") << c.ext;
        EXPECT_EQ(k.err, "") << c.ext;
        EXPECT_EQ(k.status, 0) << c.ext;
        const Streams v = run_apart("'" KVX_BIN_DIR "/kalvex-cube' '" + job.job() + "' '" + job.path("-den.grid") +
                                        "' '" + job.path(".cube") + "'",
                                    dir);
        EXPECT_EQ(v.out, "") << c.ext;
        EXPECT_EQ(v.err, "kalvex-cube: cannot read job " + job.job() + ": " + c.message + "\n") << c.ext;
        EXPECT_EQ(v.status, 1) << c.ext;
        EXPECT_FALSE(std::filesystem::exists(job.path(".cube"))) << c.ext;
    }
}
