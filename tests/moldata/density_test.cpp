// Density matrices and the density checksum.
#include <gtest/gtest.h>

#include <cstring>

#include "moldata/checksum.h"
#include "moldata/density.h"
#include "moldata/reader.h"

using namespace kvx::moldata;

namespace {

std::unique_ptr<OrbitalSet> set_of(std::vector<std::vector<double>> rows) {
    auto s = std::make_unique<OrbitalSet>();
    s->count = static_cast<int>(rows.size());
    s->valid = 1;
    s->coef.rows = s->count;
    s->coef.cols = rows.empty() ? 0 : static_cast<int>(rows[0].size());
    for (auto& r : rows) s->coef.data.insert(s->coef.data.end(), r.begin(), r.end());
    return s;
}

// Independent form of the checksum: the bytes as big-endian 32-bit words,
// summed in 64 bits, reduced mod 2^32 - 1 by end-around carries.
std::uint32_t ones_complement_sum(const void* data, std::size_t len, std::uint64_t sum) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i + 4 <= len; i += 4)
        sum += (std::uint64_t{p[i]} << 24) | (std::uint64_t{p[i + 1]} << 16) | (std::uint64_t{p[i + 2]} << 8) | p[i + 3];
    while (sum >> 32) sum = (sum & 0xffffffffu) + (sum >> 32);
    return static_cast<std::uint32_t>(sum);
}

}  // namespace

TEST(Checksum, HandWorkedValues) {
    const unsigned char word[4] = {0x12, 0x34, 0x56, 0x78};
    EXPECT_EQ(checksum32(word, 4, 0), 0x12345678u);
    EXPECT_EQ(checksum32(nullptr, 0, 0xdeadbeefu), 0xdeadbeefu);
    // high = 0x1fffe, low = 0x1fffe: fold to 0xfffe + 1 each.
    const unsigned char ones[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(checksum32(ones, 8, 0), 0xffffffffu);
    // high = 0x10000, low = 0: the high half's carry lands in the low half.
    const unsigned char cross[8] = {0xff, 0xff, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00};
    EXPECT_EQ(checksum32(cross, 8, 0), 0x00000001u);
    // low = 0xffff + 1: its carry lands in the high half.
    const unsigned char low[8] = {0x00, 0x00, 0xff, 0xff, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(checksum32(low, 8, 0), 0x00010000u);
    // Seed halves are the starting sums.
    EXPECT_EQ(checksum32(word, 4, 0x00010001u), 0x12355679u);
    // A trailing partial group is ignored.
    EXPECT_EQ(checksum32(ones, 7, 0), checksum32(ones, 4, 0));
}

TEST(Checksum, AgreesWithOnesComplementSumOnRandomData) {
    std::vector<unsigned char> data(4096);
    std::uint32_t x = 12345;
    for (auto& b : data) b = static_cast<unsigned char>((x = x * 1103515245u + 12345u) >> 24);
    for (std::size_t len : {4u, 64u, 1024u, 4096u}) {
        const std::uint32_t seed = x ^ static_cast<std::uint32_t>(len);
        EXPECT_EQ(checksum32(data.data(), len, seed), ones_complement_sum(data.data(), len, seed)) << len;
    }
    // Chaining over pieces equals one pass.
    EXPECT_EQ(checksum32(data.data() + 1000, 3096, checksum32(data.data(), 1000, 7)), checksum32(data.data(), 4096, 7));
}

// Pa(i,j) = sum_k C_k(i) C_k(j) over the occupied rows, worked by hand:
// C_0 = (1, 2, 0), C_1 = (0, 1, 3), C_2 (virtual) = (5, 5, 5).
TEST(DensityMatrices, RestrictedAgainstHandSums) {
    Molecule mol;
    mol.nbasis = 3;
    mol.nalpha = 2;
    mol.restricted = 1;
    mol.alpha = set_of({{1, 2, 0}, {0, 1, 3}, {5, 5, 5}});
    mol.beta = set_of({{9, 9, 9}});  // never used for a restricted job
    compute_density(mol);
    ASSERT_TRUE(mol.density_alpha && mol.density);
    EXPECT_FALSE(mol.density_beta);
    const double pa[6] = {1, 2, 5, 0, 3, 9};  // (0,0) (1,0) (1,1) (2,0) (2,1) (2,2)
    for (int e = 0; e < 6; ++e) {
        EXPECT_EQ(mol.density_alpha->data[e], pa[e]);
        EXPECT_EQ(mol.density->data[e], 2 * pa[e]);
    }
    EXPECT_EQ(static_cast<std::uint32_t>(mol.density_checksum),
              ones_complement_sum(mol.density->data.data(), 6 * sizeof(double), 0));
}

TEST(DensityMatrices, UnrestrictedCases) {
    Molecule mol;
    mol.nbasis = 2;
    mol.nalpha = 1;
    mol.nbeta = 1;
    mol.alpha = set_of({{1, 1}});
    mol.beta = set_of({{2, 0}});
    compute_density(mol);
    ASSERT_TRUE(mol.density && mol.density_alpha && mol.density_beta);
    EXPECT_EQ(mol.density->data, (std::vector<double>{5, 1, 1}));

    // Only one spin: the total is that matrix itself.
    mol.beta.reset();
    compute_density(mol);
    EXPECT_EQ(mol.density, mol.density_alpha);
    EXPECT_FALSE(mol.density_beta);
    mol.beta = set_of({{2, 0}});
    mol.alpha.reset();
    compute_density(mol);
    EXPECT_EQ(mol.density, mol.density_beta);

    // A set shorter than its occupied count gives no density of that spin.
    mol.alpha = set_of({{1, 1}});
    mol.nalpha = 2;
    compute_density(mol);
    EXPECT_FALSE(mol.density_alpha);
    EXPECT_EQ(mol.density, mol.density_beta);
}

TEST(DensityMatrices, NoOccupiedOrbitalsGivesZeros) {
    Molecule mol;
    mol.nbasis = 2;
    mol.nalpha = 0;
    mol.restricted = 1;
    mol.alpha = set_of({{1, 1}});
    compute_density(mol);
    ASSERT_TRUE(mol.density);
    EXPECT_EQ(mol.density->data, (std::vector<double>{0, 0, 0}));
    EXPECT_EQ(mol.density_checksum, 0);
}

// With the overlap matrix of the real water job, Tr(P S) = 10 electrons
// (the orbitals are orthonormal to about 1e-10 in S).
TEST(DensityMatrices, WaterElectronCount) {
    auto mol = build_molecule(KVX_TEST_DATA "/water/water");
    ASSERT_TRUE(mol && mol->density && mol->overlap);
    double n = 0;
    for (int i = 0; i < mol->nbasis; ++i)
        for (int j = 0; j < mol->nbasis; ++j) n += mol->density->sym(i, j) * mol->overlap->sym(i, j);
    EXPECT_NEAR(n, 10.0, 1e-8);
    EXPECT_EQ(static_cast<std::uint32_t>(mol->density_checksum),
              ones_complement_sum(mol->density->data.data(), mol->density->data.size() * sizeof(double), 0));
}
