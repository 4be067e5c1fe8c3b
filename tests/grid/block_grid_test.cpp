// Grid evaluation by blocks of points: the blocks cover every grid point once
// in storage order, the block evaluator gives the values of the
// point-by-point loop (pointwise_grid.h) for every shell type, grid shape and
// threshold, and every thread count gives the same bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "grid/blocks.h"
#include "grid/density.h"
#include "grid/gto_reference.h"
#include "grid/pointwise_grid.h"

namespace {

using namespace kvx;
using test::MolBuilder;

// Lines of up to kBlockPoints points are one block; longer lines are cut
// into nearly equal runs; the runs follow one another in storage order with
// no gap.
TEST(BlockLayout, RunsCoverEveryPointOnceInStorageOrder) {
    constexpr int K = grid::kBlockPoints;
    struct Shape {
        int ndim, n[3];
        std::vector<int> runs;  // expected block lengths along one line
    } shapes[] = {{3, {3, 4, 3 * K - 3}, {K - 1, K - 1, K - 1}},
                  {3, {3, 3, K}, {K}},
                  {3, {4, 3, K + 1}, {K / 2 + 1, K / 2}},
                  {2, {5, 3 * K, 3}, {K, K, K}},
                  {1, {4 * K - 4, 3, 3}, {K - 1, K - 1, K - 1, K - 1}},
                  {3, {4, 3, 3}, {3}}};
    const double c[3] = {0.0, 0.0, 0.0}, half[3] = {2.0, 2.0, 2.0};
    for (const Shape& s : shapes) {
        auto g = test::box_grid(s.ndim, c, half, s.n);
        ASSERT_TRUE(g);
        const grid::GridGeometry geo = grid::grid_geometry(*g);
        const grid::BlockLayout layout = grid::block_layout(*g);
        EXPECT_EQ(layout.line_axis, s.ndim - 1);
        long next = 0;
        for (long b = 0; b < layout.nblocks; ++b) {
            const grid::PointBlock blk = grid::point_block(layout, b);
            ASSERT_EQ(blk.first, next) << "block " << b;
            EXPECT_EQ(blk.npts, s.runs[static_cast<std::size_t>(b % layout.per_line)]);
            int idx[3] = {0, 0, 0};
            geo.indices_of_index(idx, static_cast<int>(blk.first));
            for (int d = 0; d < s.ndim; ++d) EXPECT_EQ(blk.idx[d], idx[d]) << "block " << b << " axis " << d;
            next += blk.npts;
        }
        EXPECT_EQ(next, static_cast<long>(g->total));
    }
}

// Shells of every type the grid code takes (general contractions, sp,
// spherical d, f, g, h, cartesian up to i) on four atoms, one without shells,
// placed so that atoms' reach ends inside the box and runs start mid-block.
MolBuilder every_type() {
    MolBuilder b;
    b.atom(0.3, -0.4, 0.2).atom(-1.7, 1.1, -0.9).atom(1.9, 1.4, 1.3).atom(0.0, 2.5, -2.0);
    b.shell(0, 1, 2, {{9.0, 0.3, 0.1}, {1.2, 0.7, -0.9}, {0.25, 0.2, 0.6}})
        .shell(0, 3, 1, {{1.1, -0.2, 0.5}, {0.3, 0.9, 0.6}});
    b.shell(0, 4, 1, {{0.9, 1.0}}).shell(0, 6, 1, {{0.7, 0.8}}).shell(0, 11, 1, {{0.6, 0.5}});
    b.shell(1, 2, 2, {{1.5, 0.5, 0.2}, {0.4, 0.6, -0.7}}).shell(1, 5, 1, {{0.8, 1.0}}).shell(1, 12, 1, {{0.5, 0.4}});
    b.shell(1, 7, 1, {{0.9, 0.6}}).shell(2, 8, 1, {{1.0, 0.7}}).shell(2, 9, 1, {{1.3, 0.5}});
    b.shell(2, 10, 1, {{1.6, 0.4}}).shell(2, 1, 1, {{3.0, 0.4}, {0.35, 0.8}});
    return b;
}

struct Shape {
    int ndim, n[3];
};

class BlockEvaluator : public ::testing::TestWithParam<Shape> {};

// Orbitals and densities (closed shell, negative occupations as for a spin
// density, gaps of zero occupation, one orbital alone) at thresholds from
// loose to none: screening must drop exactly the shells the point-by-point
// loop drops, so the values differ only by the rounding of
// exp(-a r^2) = exp(-a dx^2) exp(-a dy^2) exp(-a dz^2) and of the sums.
TEST_P(BlockEvaluator, MatchesThePointByPointLoop) {
    const Shape shape = GetParam();
    MolBuilder b = every_type();
    auto set = b.orbitals(6, 99);
    std::vector<const double*> rows;
    for (int i = 0; i < set->count; ++i) rows.push_back(set->coef.row(i));
    const double c[3] = {0.2, 0.5, -0.3}, half[3] = {6.0, 5.5, 6.5};
    auto g = test::box_grid(shape.ndim, c, half, shape.n);
    ASSERT_TRUE(g);
    const double occupations[][6] = {{2, 2, 2, 0, 0, 0}, {-1, 0, -1, 0, 0, -1}, {0, 0, 0, 1, 0, 0}, {1, 2, 1, 2, 1, 2}};
    for (double eps : {1e-3, 1e-6, 1e-10, 0.0}) {
        ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), eps, -4), 1);
        const grid::GtoBuilder& builder = *grid::gto_builder();
        for (int i : {0, 3, 5}) {
            std::vector<double> fast(g->total, 0.0), ref(g->total, 0.0);
            const double* coef = rows[static_cast<std::size_t>(i)];
            grid::MoRequest req;
            req.out = fast.data();
            req.cmo = &coef;
            test::captured([&] { grid::compute_mogrid(req); });
            test::pointwise_orbital(builder, coef, ref.data());
            for (unsigned p = 0; p < g->total; ++p)
                ASSERT_NEAR(fast[p], ref[p], 1e-13 * (1.0 + std::fabs(ref[p])))
                    << "orbital " << i << " eps " << eps << " point " << p;
        }
        for (const auto& occ : occupations) {
            std::vector<double> fast(g->total, 0.0), ref(g->total, 0.0);
            grid::DenRequest req;
            req.out = fast.data();
            req.cmo = rows.data();
            req.norb = 6;
            req.occ = occ;
            test::captured([&] { grid::compute_dengrid(req); });
            test::pointwise_density(builder, rows.data(), 6, occ, ref.data());
            double scale = 1.0;
            for (double v : ref) scale = std::max(scale, std::fabs(v));
            for (unsigned p = 0; p < g->total; ++p)
                ASSERT_NEAR(fast[p], ref[p], 1e-13 * scale)
                    << "occupations " << occ[0] << " eps " << eps << " point " << p;
        }
    }
    grid::gto_free();
}

INSTANTIATE_TEST_SUITE_P(Grids, BlockEvaluator,
                         ::testing::Values(Shape{3, {9, 8, 70}}, Shape{3, {13, 11, 12}}, Shape{2, {23, 140, 1}},
                                           Shape{1, {150, 1, 1}}),
                         [](const ::testing::TestParamInfo<Shape>& info) {
                             const Shape& s = info.param;
                             std::string name = "n";
                             for (int d = 0; d < s.ndim; ++d) (name += d ? "x" : "") += std::to_string(s.n[d]);
                             return name;
                         });

// Threads take whole blocks, so any number of them gives the same bits.
TEST(BlockEvaluator, EveryThreadCountGivesTheSameBits) {
    MolBuilder b = every_type();
    auto set = b.orbitals(4, 5);
    std::vector<const double*> rows;
    for (int i = 0; i < set->count; ++i) rows.push_back(set->coef.row(i));
    const double c[3] = {0.2, 0.5, -0.3}, half[3] = {5.0, 5.0, 5.0}, occ[4] = {2, 2, 1, 0};
    const int n[3] = {17, 15, 90};
    auto g = test::box_grid(3, c, half, n);
    std::vector<double> first_mo, first_den;
    for (int numt : {1, 2, 3, 7}) {
        ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), 1e-8, numt), 1);
        EXPECT_EQ(grid::gto_threads(), numt);
        std::vector<double> mo(g->total, 0.0), den(g->total, 0.0);
        grid::MoRequest mreq;
        mreq.out = mo.data();
        mreq.cmo = rows.data() + 2;
        grid::DenRequest dreq;
        dreq.out = den.data();
        dreq.cmo = rows.data();
        dreq.norb = 3;
        dreq.occ = occ;
        test::captured([&] {
            grid::compute_mogrid(mreq);
            grid::compute_dengrid(dreq);
        });
        if (numt == 1) {
            first_mo = mo, first_den = den;
            continue;
        }
        EXPECT_EQ(std::memcmp(mo.data(), first_mo.data(), mo.size() * sizeof(double)), 0) << numt << " threads";
        EXPECT_EQ(std::memcmp(den.data(), first_den.data(), den.size() * sizeof(double)), 0) << numt << " threads";
    }
    grid::gto_free();
    EXPECT_EQ(grid::gto_threads(), 1);
}

}  // namespace
