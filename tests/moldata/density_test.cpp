// Density matrices against hand sums, and the density checksum against
// hand-worked words.
#include <gtest/gtest.h>

#include "moldata/checksum.h"
#include "moldata/density.h"

using namespace kvx::moldata;

namespace {

std::unique_ptr<OrbitalSet> set_of(const std::vector<std::vector<double>>& rows) {
    auto s = std::make_unique<OrbitalSet>();
    s->count = s->coef.rows = static_cast<int>(rows.size());
    s->coef.cols = static_cast<int>(rows[0].size());
    for (const auto& r : rows) s->coef.data.insert(s->coef.data.end(), r.begin(), r.end());
    return s;
}

}  // namespace

TEST(Checksum, HandWorkedWordsAndCarries) {
    const unsigned char word[4] = {0x12, 0x34, 0x56, 0x78};
    EXPECT_EQ(checksum32(word, 4, 0), 0x12345678u);
    EXPECT_EQ(checksum32(word, 4, 0x00010001u), 0x12355679u);  // seed halves start the sums
    // high = low = 0x1fffe: each folds to 0xfffe + 1.
    const unsigned char ones[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(checksum32(ones, 8, 0), 0xffffffffu);
    EXPECT_EQ(checksum32(ones, 7, 0), 0xffffffffu);  // the partial group is ignored
    // high = 0x10000, low = 0: the high half's carry lands in the low half.
    const unsigned char cross[8] = {0xff, 0xff, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00};
    EXPECT_EQ(checksum32(cross, 8, 0), 0x00000001u);
    // low = 0xffff + 1: its carry lands in the high half.
    const unsigned char low[8] = {0x00, 0x00, 0xff, 0xff, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(checksum32(low, 8, 0), 0x00010000u);
    // Chaining over pieces equals one pass.
    EXPECT_EQ(checksum32(low + 4, 4, checksum32(low, 4, 0)), 0x00010000u);
}

// Pa(i,j) = sum_k C_k(i) C_k(j) over the occupied rows, by hand:
// C_0 = (1, 2, 0), C_1 = (0, 1, 3), C_2 (virtual) = (5, 5, 5).
TEST(DensityMatrices, RestrictedAndUnrestrictedAgainstHandSums) {
    Molecule mol;
    mol.nbasis = 3;
    mol.nalpha = 2;
    mol.restricted = 1;
    mol.alpha = set_of({{1, 2, 0}, {0, 1, 3}, {5, 5, 5}});
    mol.beta = set_of({{9, 9, 9}});  // never used for a restricted job
    ASSERT_FALSE(compute_density(mol));
    ASSERT_TRUE(mol.density_alpha && mol.density);
    EXPECT_FALSE(mol.density_beta);
    EXPECT_EQ(mol.density_alpha->data, (std::vector<double>{1, 2, 5, 0, 3, 9}));
    EXPECT_EQ(mol.density->data, (std::vector<double>{2, 4, 10, 0, 6, 18}));
    // Unrestricted: Pa + Pb, with Pb from C_0 = (2, 0, 1).
    mol.restricted = 0;
    mol.nbeta = 1;
    mol.beta = set_of({{2, 0, 1}});
    ASSERT_FALSE(compute_density(mol));
    ASSERT_TRUE(mol.density_beta);
    EXPECT_EQ(mol.density->data, (std::vector<double>{5, 2, 5, 2, 3, 10}));
    // A set shorter than its occupied count gives no density of that spin;
    // the total is then the other spin's matrix itself.
    mol.nbeta = 2;
    ASSERT_FALSE(compute_density(mol));
    EXPECT_FALSE(mol.density_beta);
    EXPECT_EQ(mol.density, mol.density_alpha);
}
