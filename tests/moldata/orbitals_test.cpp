// Binary orbital files (framing, truncation, wide headers, absent energies,
// hostile counts) and the rejection of out-of-range text orbitals.
#include "moldata/orbitals.h"

#include <gtest/gtest.h>

#include <string>

#include "common/capture.h"
#include "job_files.h"

using namespace kvx::moldata;
using kvx::test::OrbitalFile;
using kvx::test::TempJob;

namespace {

// Six orbitals over three functions, coefficient i of orbital k = 10 k + i.
std::string six_orbitals(int valid, bool energies = true, bool wide = false, std::optional<int> norb = {}) {
    OrbitalFile f;
    for (int k = 0; k < 6; ++k) f.orbitals.push_back({10.0 * k, 10.0 * k + 1, 10.0 * k + 2});
    if (energies) f.energies = {-2, -1, 0, 1, 2, 3};
    f.valid = valid;
    f.wide_header = wide;
    f.norb = norb;
    return f.bytes();
}

std::unique_ptr<OrbitalSet> read_bytes(const std::string& bytes, int intsize = 2) {
    TempJob job;
    job.write(".mos", bytes);
    return read_binary_orbitals(job.path(".mos"), 3, intsize);
}

}  // namespace

TEST(BinaryOrbitals, CompleteTruncatedWideAndHostileFiles) {
    const std::string full = six_orbitals(7);
    const struct {
        const char* what;
        std::string bytes;
        int intsize, count, valid;
        bool energy;
    } cases[] = {
        {"complete", full, 2, 6, 7, true},
        {"no energy record", six_orbitals(7, false), 2, 6, 7, false},
        // Header 16 bytes + opening frame 4 + 4 rows of 24 + half a row.
        {"cut inside orbital 5", full.substr(0, 16 + 4 + 4 * 24 + 12), 2, 4, 7, false},
        {"cut inside the energies", full.substr(0, full.size() - 12), 2, 6, 7, false},
        {"intsize 1: 64-bit header words", six_orbitals(1, true, true), 1, 6, 1, true},
        // Far more orbitals announced than held reads as a truncated file
        // (no huge allocation): 6 rows, then the frames and the energy
        // record (56 bytes) as two more.
        {"huge norb", six_orbitals(7, true, false, 2000000000), 2, 8, 7, false},
        {"header only", full.substr(0, 16), 2, 0, 7, false},
    };
    for (const auto& c : cases) {
        auto set = read_bytes(c.bytes, c.intsize);
        ASSERT_TRUE(set) << c.what;
        EXPECT_EQ(set->count, c.count) << c.what;
        EXPECT_EQ(set->valid, c.valid) << c.what;
        EXPECT_EQ(set->has_energy, c.energy) << c.what;
        if (c.energy) { EXPECT_EQ(set->energy, (std::vector<double>{-2, -1, 0, 1, 2, 3})) << c.what; }
        for (int k = 0; k < std::min(c.count, 6); ++k)
            for (int i = 0; i < 3; ++i) ASSERT_EQ(set->coef.row(k)[i], 10.0 * k + i) << c.what;
    }
    EXPECT_FALSE(read_bytes(six_orbitals(1, true, false, -5))) << "negative norb";
    EXPECT_FALSE(read_bytes(full.substr(0, 10))) << "cut inside the header";
    EXPECT_FALSE(read_binary_orbitals(KVX_TEST_DATA "/h2/absent.mos", 3, 2)) << "no file";
}

// Orbital numbers outside 1..nbasis or more coefficients than nbasis reject
// the whole set with one message naming the file and the section.
TEST(TextOrbitals, OutOfRangeNumbersRejectTheSet) {
    for (const char* text : {"$scfmo\n 4 a eigenvalue=1 ncoefs=3\n 1 2 3\n$end\n",
                             "$scfmo\n 0 a eigenvalue=1 ncoefs=3\n 1 2 3\n$end\n",
                             "$scfmo\n 1 a eigenvalue=1 ncoefs=4\n 1 2 3 4\n$end\n"}) {
        TempJob job;
        job.write(".kvm", text);
        const std::string out =
            kvx::test::captured([&] { EXPECT_FALSE(read_text_orbitals(job.job(), "$scfmo", 3)) << text; });
        EXPECT_NE(out.find(job.path(".kvm")), std::string::npos) << out;
        EXPECT_NE(out.find("$scfmo"), std::string::npos) << out;
    }
}
