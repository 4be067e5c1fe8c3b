// Symmetry reader: null and default records, group names, unique atoms and
// the image table read column by column.
#include <gtest/gtest.h>

#include "job_files.h"
#include "moldata/symmetry.h"

using namespace kvx::moldata;
using kvx::testing::TempJob;

namespace {

std::unique_ptr<SymmetryInfo> read_text(const std::string& text, int natoms, int ndummy = 0) {
    TempJob job;
    job.write(".sym", text);
    return read_symmetry(job.path(".sym"), natoms, ndummy);
}

void expect_default(const SymmetryInfo* s, int n) {
    ASSERT_TRUE(s);
    EXPECT_EQ(s->ntrans, 1);
    EXPECT_EQ(s->nunique, n);
    EXPECT_EQ(s->group, "c1");
    EXPECT_TRUE(s->is_default());
    EXPECT_TRUE(s->images.empty());
}

}  // namespace

TEST(Symmetry, NullAndDefaultRecords) {
    TempJob job;
    EXPECT_FALSE(read_symmetry(job.path(".sym"), 3, 0));           // no file
    EXPECT_FALSE(read_text("$ntrans 2\n", 2, 2));                   // only dummies
    expect_default(read_text("$group c2v\n$end\n", 3).get(), 3);    // no $ntrans
    expect_default(read_text("$ntrans 1\n$group c2v\n", 3).get(), 3);
    expect_default(read_text("$ntrans -666\n$group cs\n", 3).get(), 3);  // the sentinel
}

// Water in C2v: O unique, H1 <-> H2 under C2 and one mirror.
// Operations E, C2, s(xz), s(yz); the table lists operation by operation.
TEST(Symmetry, FullTableColumnByColumn) {
    auto s = read_text(
        "$ntrans 4\n$group c2v\n$sym_unique_atoms 2\n 1 2\n"
        "$equivalent_atoms_array:\n1 2 3\n1 3 2\n1 2 3\n1 3 2\n$end\n",
        3);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->ntrans, 4);
    EXPECT_EQ(s->group, "c2v");
    EXPECT_EQ(s->nunique, 2);
    EXPECT_EQ(s->unique[0], 1);
    EXPECT_EQ(s->unique[1], 2);
    const int expected[3][4] = {{1, 1, 1, 1}, {2, 3, 2, 3}, {3, 2, 3, 2}};
    for (int a = 0; a < 3; ++a)
        for (int t = 0; t < 4; ++t) EXPECT_EQ(s->image(a, t), expected[a][t]) << a << " " << t;
}

TEST(Symmetry, GroupNamesAndUniqueCounts) {
    auto s = read_text("$ntrans 2\n$group abcdefghi\n", 2);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->group, "c1");  // 9 characters
    EXPECT_EQ(s->nunique, 2);   // no $sym_unique_atoms: all unique
    EXPECT_EQ(s->unique, (std::vector<int>{1, 2}));
    s = read_text("$ntrans 2\n$group abcdefgh\n$sym_unique_atoms 2\n", 2);
    EXPECT_EQ(s->group, "abcdefgh");
    // With dummies, only natoms - dummies atoms take part.
    s = read_text("$ntrans 2\n$group ci\n$sym_unique_atoms 1\n1\n$equivalent_atoms_array:\n1 2\n2 1\n", 4, 2);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->n, 2);
    EXPECT_EQ(s->nunique, 1);
    EXPECT_EQ(s->image(0, 1), 2);
}

TEST(Symmetry, ShortTableMakesEveryAtomUnique) {
    auto s = read_text("$ntrans 2\n$group ci\n$sym_unique_atoms 1\n1\n$equivalent_atoms_array:\n1 2\n2\n", 2);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->ntrans, 2);
    EXPECT_EQ(s->nunique, 2);
    EXPECT_EQ(s->unique, (std::vector<int>{1, 2}));
    EXPECT_EQ(s->image(0, 0), 1);  // the part read is kept
    EXPECT_EQ(s->image(0, 1), 2);
}

// Counts that no file of this size can back, and unique counts outside
// 1..n, never size an allocation or index past the table.
TEST(Symmetry, HostileCounts) {
    expect_default(read_text("$ntrans 2000000000\n$group ci\n", 2).get(), 2);
    auto s = read_text("$ntrans 2\n$group ci\n$sym_unique_atoms 99\n1\n", 2);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->nunique, 2);
}

TEST(SymmetryDeath, MissingGroupEndsTheRunThroughTheTokenReader) {
    TempJob job;
    job.write(".sym", "$ntrans 2\n");
    EXPECT_EXIT(read_symmetry(job.path(".sym"), 2, 0), ::testing::ExitedWithCode(0), "");
}
