// Orbital readers: binary files (framing, truncation, wide headers, absent
// energies, hostile counts), which files feed which slot, text sections.
#include <gtest/gtest.h>

#include <string>

#include "job_files.h"
#include "moldata/orbitals.h"
#include "moldata/reader.h"

using namespace kvx::moldata;
using kvx::testing::OrbitalFile;
using kvx::testing::TempJob;

namespace {

// Six orbitals over three functions, each coefficient unique: 10 k + i.
OrbitalFile six_orbitals() {
    OrbitalFile f;
    for (int k = 0; k < 6; ++k) f.orbitals.push_back({10.0 * k, 10.0 * k + 1, 10.0 * k + 2});
    f.energies = {-2, -1, 0, 1, 2, 3};
    return f;
}

std::unique_ptr<OrbitalSet> read_bytes(const std::vector<unsigned char>& bytes, int nbasis = 3, int intsize = 2) {
    TempJob job;
    job.write_bytes(".mos", bytes);
    return read_binary_orbitals(job.path(".mos"), nbasis, intsize);
}

}  // namespace

TEST(BinaryOrbitals, CompleteFile) {
    OrbitalFile f = six_orbitals();
    f.valid = 7;
    auto set = read_bytes(f.bytes());
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 6);
    EXPECT_EQ(set->valid, 7);
    EXPECT_EQ(set->coef.rows, 6);
    EXPECT_EQ(set->coef.row(4)[2], 42.0);
    ASSERT_TRUE(set->has_energy);
    EXPECT_EQ(set->energy, (std::vector<double>{-2, -1, 0, 1, 2, 3}));
}

TEST(BinaryOrbitals, NoEnergyRecordKeepsAllOrbitals) {
    OrbitalFile f = six_orbitals();
    f.energies.clear();
    auto set = read_bytes(f.bytes());
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 6);
    EXPECT_FALSE(set->has_energy);
    EXPECT_TRUE(set->energy.empty());
}

// Header (16 bytes) + opening frame (4) + 4 rows of 24 bytes + half a row.
TEST(BinaryOrbitals, CutInsideOrbitalFiveKeepsFour) {
    auto bytes = six_orbitals().bytes();
    bytes.resize(16 + 4 + 4 * 24 + 12);
    auto set = read_bytes(bytes);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 4);
    EXPECT_EQ(set->coef.rows, 4);
    EXPECT_EQ(set->coef.row(3)[0], 30.0);
    EXPECT_FALSE(set->has_energy);
}

TEST(BinaryOrbitals, CutInsideTheEnergiesDropsThem) {
    auto bytes = six_orbitals().bytes();
    bytes.resize(bytes.size() - 12);
    auto set = read_bytes(bytes);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 6);
    EXPECT_FALSE(set->has_energy);
}

TEST(BinaryOrbitals, WideHeaderWithIntsizeOne) {
    OrbitalFile f = six_orbitals();
    f.wide_header = true;
    f.valid = 1;
    auto set = read_bytes(f.bytes(), 3, 1);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 6);
    EXPECT_EQ(set->valid, 1);
    EXPECT_EQ(set->coef.row(5)[1], 51.0);
    EXPECT_TRUE(set->has_energy);
    // The same bytes read with 32-bit header words: valid is the upper half
    // of the 64-bit norb (0), and the rows start 8 bytes early.
    auto narrow = read_bytes(f.bytes(), 3, 2);
    ASSERT_TRUE(narrow);
    EXPECT_EQ(narrow->valid, 0);
}

// A header announcing far more orbitals than the file holds reads as a
// truncated file (no huge allocation); a negative count gives no set.
TEST(BinaryOrbitals, HostileHeaders) {
    OrbitalFile f = six_orbitals();
    f.norb = 2000000000;
    auto set = read_bytes(f.bytes());
    ASSERT_TRUE(set);
    // 6 rows, then frames and the energy record (56 bytes) as two more.
    EXPECT_EQ(set->count, 8);
    EXPECT_FALSE(set->has_energy);
    f.norb = -5;
    EXPECT_FALSE(read_bytes(f.bytes()));
    auto bytes = six_orbitals().bytes();
    bytes.resize(10);  // inside the header
    EXPECT_FALSE(read_bytes(bytes));
    bytes.resize(16);  // header only: a set without rows
    auto empty = read_bytes(bytes);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->count, 0);
}

TEST(BinaryOrbitals, NoFileNoSet) {
    TempJob job;
    EXPECT_FALSE(read_binary_orbitals(job.path(".mos"), 3, 2));
}

// Which file feeds which slot, for restricted and unrestricted counts.
TEST(OrbitalSlots, FilesPerLayout) {
    auto marked = [](double tag) {
        OrbitalFile f;
        f.orbitals = {{tag, tag, tag}};
        return f.bytes();
    };
    struct Case {
        int restricted;
        bool los;
        double alpha, beta, loc, locb, nat;  // 0: slot empty
    } cases[] = {
        {1, true, 1, 0, 3, 0, 0},
        {1, false, 1, 0, 4, 0, 0},
        {0, true, 1, 2, 3, 3, 5},
        {0, false, 1, 2, 4, 0, 5},
    };
    for (const Case& c : cases) {
        TempJob job;
        job.write_bytes(".mos", marked(1));
        job.write_bytes(".mob", marked(2));
        if (c.los) job.write_bytes(".los", marked(3));
        job.write_bytes(".loc", marked(4));
        job.write_bytes(".nos", marked(5));
        Molecule mol;
        mol.nbasis = 3;
        mol.restricted = c.restricted;
        read_orbitals(mol, job.job());
        auto tag = [](const std::unique_ptr<OrbitalSet>& s) { return s ? s->coef.row(0)[0] : 0.0; };
        EXPECT_EQ(tag(mol.alpha), c.alpha);
        EXPECT_EQ(tag(mol.beta), c.beta);
        EXPECT_EQ(tag(mol.localized), c.loc);
        EXPECT_EQ(tag(mol.localized_beta), c.locb);
        EXPECT_EQ(tag(mol.natural), c.nat);
    }
}

TEST(TextOrbitals, AnyOrderAndSplitLines) {
    TempJob job;
    job.write(".kvm",
              "$scfmo   expanded\n"
              "  3  a  eigenvalue=0.3   ncoefs=3\n 31 32\n 33\n"
              "  1  a  eigenvalue=-0.1E+01   ncoefs=3\n11 12 13\n"
              "$scflo\n  1  a  eigenvalue=7 ncoefs=3\n 1 2 3\n$end\n");
    auto set = read_text_orbitals(job.job(), "$scfmo", 3);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 2);
    EXPECT_EQ(set->valid, 1);
    EXPECT_EQ(set->coef.row(2)[2], 33.0);
    EXPECT_EQ(set->coef.row(0)[1], 12.0);
    EXPECT_EQ(set->energy[0], -1.0);
    EXPECT_EQ(set->energy[2], 0.3);
    EXPECT_FALSE(read_text_orbitals(job.job(), "$betamo", 3));
    // An orbital cut short by the next section is not complete.
    job.write(".kvm", "$scfmo\n 1 a eigenvalue=1 ncoefs=3\n 1 2\n$end\n");
    set = read_text_orbitals(job.job(), "$scfmo", 3);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 0);
}

TEST(TextOrbitals, OutOfRangeNumbersRejectTheSet) {
    const char* bad[] = {
        "$scfmo\n 4 a eigenvalue=1 ncoefs=3\n 1 2 3\n$end\n",
        "$scfmo\n 0 a eigenvalue=1 ncoefs=3\n 1 2 3\n$end\n",
        "$scfmo\n 1 a eigenvalue=1 ncoefs=4\n 1 2 3 4\n$end\n",
    };
    for (const char* text : bad) {
        TempJob job;
        job.write(".kvm", text);
        ::testing::internal::CaptureStdout();
        EXPECT_FALSE(read_text_orbitals(job.job(), "$scfmo", 3)) << text;
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find(job.path(".kvm")), std::string::npos);
        EXPECT_NE(out.find("$scfmo"), std::string::npos);
    }
}

// Extra numbers on a line never write past the row; the orbital is then
// not complete (its counter went beyond ncoefs).
TEST(TextOrbitals, TooManyNumbersStayInsideTheRow) {
    TempJob job;
    job.write(".kvm", "$scfmo\n 2 a eigenvalue=1 ncoefs=2\n 1 2 3 4 5 6 7 8 9\n$end\n");
    auto set = read_text_orbitals(job.job(), "$scfmo", 2);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count, 0);
    EXPECT_EQ(set->coef.row(1)[1], 2.0);
}
