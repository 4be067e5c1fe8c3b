// Damaged jobs: every file of the H2 job cut at every length, and with
// random bytes overwritten, must load or end with a message (status 0),
// never crash or read out of bounds (the sanitizer build checks the latter).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "job_files.h"
#include "moldata/reader.h"

using namespace kvx::moldata;
using kvx::testing::OrbitalFile;
using kvx::testing::TempJob;

namespace {

const std::string kH2 = KVX_TEST_DATA "/h2/h2";
constexpr int kReturned = 3;

// Consistency of whatever was loaded: shells on real atoms, functions inside
// nbasis, orbital rows as wide as nbasis.
bool consistent(const Molecule& mol) {
    for (const Shell& s : mol.shells) {
        if (!s.center || s.center < mol.atoms.data() || s.center >= mol.atoms.data() + mol.atoms.size()) return false;
        if (s.nfirst < 1 || s.nfirst - 1 + s.size * s.ngc > mol.nbasis) return false;
        if (static_cast<int>(s.basdat->size()) < s.nprim * s.row_length()) return false;
    }
    for (const OrbitalSet* set :
         {mol.alpha.get(), mol.beta.get(), mol.localized.get(), mol.localized_beta.get(), mol.natural.get()}) {
        if (!set) continue;
        if (set->count > set->coef.rows || set->coef.cols != mol.nbasis) return false;
        if (set->coef.data.size() != static_cast<std::size_t>(set->coef.rows) * set->coef.cols) return false;
    }
    if (mol.density && mol.density->n != mol.nbasis) return false;
    return static_cast<int>(mol.atoms.size()) == mol.natoms;
}

// Loads the job in a child process: it either returns (kReturned when the
// molecule is consistent) or ends through a fatal message with status 0.
int load_in_child(const std::string& job) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        std::freopen("/dev/null", "w", stdout);
        auto mol = build_molecule(job);
        _exit(!mol || consistent(*mol) ? kReturned : 2);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct DamageCase {
    const char* ext;
    bool multi_file;  // false: the one-file layout (no ".control")
};

void write_job(const TempJob& job, bool multi_file) {
    if (multi_file) {
        job.copy_from(kH2, {".control", ".coord", ".basis", ".sym"});
        OrbitalFile mos;
        mos.orbitals = {{0.5, 0.5}, {0.75, -0.75}};
        mos.energies = {-0.5, 0.25};
        job.write_bytes(".mos", mos.bytes());
    } else {
        job.copy_from(kH2, {".kvm"});
    }
}

}  // namespace

TEST(DamagedJob, EveryTruncation) {
    for (const DamageCase c : {DamageCase{".control", true}, DamageCase{".coord", true}, DamageCase{".basis", true},
                               DamageCase{".sym", true}, DamageCase{".mos", true}, DamageCase{".kvm", false}}) {
        TempJob job;
        write_job(job, c.multi_file);
        const std::string full = slurp(job.path(c.ext));
        ASSERT_FALSE(full.empty()) << c.ext;
        for (std::size_t len = 0; len < full.size(); ++len) {
            job.write(c.ext, full.substr(0, len));
            const int rc = load_in_child(job.job());
            ASSERT_TRUE(rc == 0 || rc == kReturned) << c.ext << " cut at " << len << ": status " << rc;
        }
    }
}

TEST(DamagedJob, RandomBytes) {
    std::mt19937 rng(2024);
    const char alphabet[] = "0123456789-+.eE $\n\t*=,abcdefghilmnopsx\xff";
    for (const DamageCase c : {DamageCase{".control", true}, DamageCase{".coord", true}, DamageCase{".basis", true},
                               DamageCase{".sym", true}, DamageCase{".mos", true}, DamageCase{".kvm", false}}) {
        TempJob job;
        write_job(job, c.multi_file);
        const std::string full = slurp(job.path(c.ext));
        for (int trial = 0; trial < 40; ++trial) {
            std::string damaged = full;
            const int hits = 1 + static_cast<int>(rng() % 4);
            for (int h = 0; h < hits; ++h)
                damaged[rng() % damaged.size()] = alphabet[rng() % (sizeof(alphabet) - 1)];
            job.write(c.ext, damaged);
            const int rc = load_in_child(job.job());
            ASSERT_TRUE(rc == 0 || rc == kReturned) << c.ext << " trial " << trial << ": status " << rc << "\n"
                                                    << damaged;
        }
    }
}

// Counts far beyond what the files hold.
TEST(DamagedJob, HugeCounts) {
    TempJob job;
    write_job(job, true);
    job.write(".control", "$natoms 2000000000\n$nalpha 2000000000\n$nbeta -5\n$multiplicity 2\n");
    EXPECT_EQ(load_in_child(job.job()), kReturned);
    job.write(".control", "$natoms 2\n$nalpha 1\n");
    job.write(".basis", "$nbasis 2000000000\n$nshell 2000000000\n$basis\nfor H\ns 1.0 1.0\n$end\n");
    EXPECT_EQ(load_in_child(job.job()), kReturned);
    job.write(".basis", "$nbasis 2\n$nshell 2\n$basis\nfor H\ns 1.0 1.0\n$end\n");
    OrbitalFile mos;
    mos.orbitals = {{0.5, 0.5}};
    mos.norb = 1 << 30;
    job.write_bytes(".mos", mos.bytes());
    EXPECT_EQ(load_in_child(job.job()), kReturned);
}
