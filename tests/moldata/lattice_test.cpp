// The box grid the view tools rebuild to check a property file's stamp must
// be the grid kalvex builds, bit for bit: box_lattice against the grid
// builder itself, and its stamp against kalvex's grid stamp.
#include "moldata/lattice.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "grid/grid.h"
#include "main/output.h"
#include "moldata/reader.h"

namespace kvx::moldata {
namespace {

// What kalvex's driver hands the grid builder for a box: the centre
// start + length/2, diagonal half-axes length/2, the spacings and counts.
std::unique_ptr<grid::Grid> driver_grid(const BoxAxis a[3]) {
    double centre[3], half[3][3] = {}, spacing[3];
    int counts[3];
    for (int d = 0; d < 3; ++d) {
        half[d][d] = a[d].length / 2;
        centre[d] = a[d].start + a[d].length / 2;
        spacing[d] = a[d].spacing;
        counts[d] = a[d].count;
    }
    return grid::grid_build(3, centre, half, spacing, counts);
}

bool same_bits(const double* a, const double* b, int n) { return std::memcmp(a, b, n * sizeof(double)) == 0; }

TEST(Lattice, DefaultBoxIsTheAtomsBoxPlusMargin) {
    auto mol = build_molecule(KVX_TEST_DATA "/water/water").molecule;
    ASSERT_TRUE(mol);
    // tests/data/water/water.coord: O (0.13, -0.21, 0.07), H (0.910079146, 1.3657812, 0.50042639),
    // H (0.715346385, -1.363405587, 1.336452487).
    const Box b = default_box(mol->atoms);
    EXPECT_DOUBLE_EQ(b.start[0], 0.13 - 5.7);
    EXPECT_DOUBLE_EQ(b.start[1], -1.363405587 - 5.7);
    EXPECT_DOUBLE_EQ(b.start[2], 0.07 - 5.7);
    EXPECT_DOUBLE_EQ(b.length[0], 0.910079146 - 0.13 + 11.4);
    EXPECT_DOUBLE_EQ(b.length[1], 1.3657812 + 1.363405587 + 11.4);
    EXPECT_DOUBLE_EQ(b.length[2], 1.336452487 - 0.07 + 11.4);
}

// Random boxes, point counts above 2 and the spacing mode, negative and
// odd lengths: every field and the stamp agree with the grid builder's.
TEST(Lattice, BoxLatticeIsTheGridKalvexBuilds) {
    std::mt19937 gen(18);
    std::uniform_real_distribution<double> start(-20, 5), length(0.3, 30), spacing(0.05, 2);
    std::uniform_int_distribution<int> count(-1, 80);
    int built = 0;
    for (int trial = 0; trial < 2000; ++trial) {
        BoxAxis a[3];
        for (BoxAxis& x : a) {
            x.start = start(gen);
            x.length = trial % 97 == 0 ? -length(gen) : length(gen);
            x.spacing = trial % 13 == 0 ? 0.0 : spacing(gen);
            x.count = count(gen);
        }
        LatticeRecord r;
        const bool ok = box_lattice(a, r);
        const auto g = driver_grid(a);
        ASSERT_EQ(ok, g != nullptr) << trial;
        if (!ok) continue;
        ++built;
        EXPECT_TRUE(same_bits(r.centre, g->centre, 3)) << trial;
        EXPECT_TRUE(same_bits(r.origin, g->origin, 3)) << trial;
        for (int c = 0; c < 3; ++c) EXPECT_TRUE(same_bits(r.axes[c], g->axes[c], 3)) << trial;
        EXPECT_TRUE(same_bits(r.lengths, g->lengths, 3)) << trial;
        EXPECT_TRUE(same_bits(r.spacings, g->spacings, 3)) << trial;
        EXPECT_EQ(std::memcmp(r.counts, g->counts, sizeof r.counts), 0) << trial;
        const std::uint32_t seed = static_cast<std::uint32_t>(gen());
        EXPECT_EQ(lattice_stamp(r, seed), main::grid_stamp(g.get(), seed)) << trial;
    }
    EXPECT_GT(built, 1500);
}

}  // namespace
}  // namespace kvx::moldata
