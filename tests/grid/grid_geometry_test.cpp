// Grid construction and the index / indices / coordinate conversions.
#include <gtest/gtest.h>

#include <cmath>

#include "grid/grid.h"

namespace kvx::grid {
namespace {

constexpr double kTight = 1e-12;  // a few ulps of coordinates of order 10 bohr

std::unique_ptr<Grid> box(const double c[3], double hx, double hy, double hz, const int n[3],
                          const double h[3]) {
    const double half[3][3] = {{hx, 0, 0}, {0, hy, 0}, {0, 0, hz}};
    return grid_build(3, c, half, h, n);
}

TEST(GridBuild, CountsAboveTwoPutEndPointsOnTheBoxFaces) {
    const double c[3] = {1.0, -2.0, 0.5};
    const int n[3] = {5, 7, 9};
    const double h[3] = {0.5, 0.5, 0.5};
    auto g = box(c, 2.0, 3.0, 4.0, n, h);
    ASSERT_TRUE(g);
    // spacing = 2L/(N-1): 4/4, 6/6, 8/8.
    for (int d = 0; d < 3; ++d) {
        EXPECT_DOUBLE_EQ(g->spacings[d], 1.0);
        EXPECT_EQ(g->counts[d], n[d]);
    }
    EXPECT_DOUBLE_EQ(g->lengths[0], 4.0);
    EXPECT_DOUBLE_EQ(g->lengths[2], 8.0);
    EXPECT_EQ(g->total, 5u * 7u * 9u);
    EXPECT_DOUBLE_EQ(g->origin[0], -1.0);
    EXPECT_DOUBLE_EQ(g->origin[1], -5.0);
    EXPECT_DOUBLE_EQ(g->origin[2], -3.5);
    EXPECT_DOUBLE_EQ(g->axes[1][1], 1.0);
    EXPECT_EQ(g->axes[0][1], 0.0);

    EXPECT_EQ(grid_install(g.get()), 1);
    double p[3];
    grid_point_of_index(p, static_cast<int>(g->total) - 1);
    EXPECT_NEAR(p[0], 3.0, kTight);
    EXPECT_NEAR(p[1], 1.0, kTight);
    EXPECT_NEAR(p[2], 4.5, kTight);
}

TEST(GridBuild, SmallCountsTakeTheCountFromTheSpacing) {
    const double c[3] = {0, 0, 0};
    const int n[3] = {2, 0, 1};
    const double h[3] = {0.3, 0.5, 0.25};
    auto g = box(c, 1.0, 1.0, 1.0, n, h);
    ASSERT_TRUE(g);
    // ceil(2/0.3) + 1 = 8, ceil(2/0.5) + 1 = 5, ceil(2/0.25) + 1 = 9
    EXPECT_EQ(g->counts[0], 8);
    EXPECT_EQ(g->counts[1], 5);
    EXPECT_EQ(g->counts[2], 9);
    EXPECT_NEAR(g->lengths[0], 2.1, kTight);
    EXPECT_NEAR(g->origin[0], -1.05, kTight);  // centred: the lattice overhangs the box
    EXPECT_NEAR(g->axes[0][0], 0.3, kTight);
}

TEST(GridBuild, RejectsDegenerateGeometry) {
    const double c[3] = {0, 0, 0};
    const int n[3] = {4, 4, 4};
    const double h[3] = {0.5, 0.5, 0.5};
    const double diag[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    EXPECT_FALSE(grid_build(0, c, diag, h, n));
    EXPECT_FALSE(grid_build(4, c, diag, h, n));
    const double zero_axis[3][3] = {{1, 0, 0}, {0, 0, 0}, {0, 0, 1}};
    EXPECT_FALSE(grid_build(3, c, zero_axis, h, n));
    const double parallel[3][3] = {{1, -2, 0}, {1, -2, 0}, {0, 0, 0}};
    EXPECT_FALSE(grid_build(2, c, parallel, h, n));
    const double coplanar[3][3] = {{1, 0, 1}, {0, 1, 1}, {0, 0, 0}};
    EXPECT_FALSE(grid_build(3, c, coplanar, h, n));
    const int one[3] = {1, 4, 4};
    const double no_spacing[3] = {0.0, 0.5, 0.5};
    EXPECT_FALSE(grid_build(3, c, diag, no_spacing, one));
    // A spacing that cannot cover the box, or a count too large to number.
    const double negative[3] = {-0.5, 0.5, 0.5};
    EXPECT_FALSE(grid_build(3, c, diag, negative, one));
    const double tiny[3] = {1e-9, 1e-9, 1e-9};
    const int none[3] = {0, 0, 0};
    EXPECT_FALSE(grid_build(3, c, diag, tiny, none));
    EXPECT_TRUE(grid_build(2, c, diag, h, n));
}

TEST(GridIndexing, LinearIndexHasLastDimensionFastestAndRoundTrips) {
    const double c[3] = {0, 0, 0};
    const int n[3] = {3, 4, 5};
    const double h[3] = {0.5, 0.5, 0.5};
    auto g = box(c, 1.0, 1.5, 2.0, n, h);
    ASSERT_TRUE(g);
    grid_install(g.get());
    EXPECT_EQ(grid_state().stride[0], 20);
    EXPECT_EQ(grid_state().stride[1], 5);
    int k = 0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j)
            for (int l = 0; l < 5; ++l, ++k) {
                const int idx[3] = {i, j, l};
                ASSERT_EQ(grid_index_of_indices(idx), i * 4 * 5 + j * 5 + l);
                int back[3] = {-1, -1, -1};
                grid_indices_of_index(back, k);
                ASSERT_EQ(back[0], i);
                ASSERT_EQ(back[1], j);
                ASSERT_EQ(back[2], l);
                double p[3];
                grid_point_of_index(p, k);
                ASSERT_EQ(grid_index_of_point(p), k);
            }
}

TEST(GridIndexing, NearestPointRoundsHalfWayToEven) {
    const double c[3] = {1.0, 1.0, 1.0};
    const int n[3] = {5, 5, 5};
    const double h[3] = {0.5, 0.5, 0.5};
    auto g = box(c, 1.0, 1.0, 1.0, n, h);  // origin 0, spacing 0.5: exact in binary
    ASSERT_TRUE(g);
    ASSERT_EQ(grid_install(g.get()), 1);
    int idx[3];
    const double half_way[3] = {0.25, 0.75, 1.25};  // 0.5, 1.5, 2.5 steps
    grid_indices_of_point(half_way, idx);
    EXPECT_EQ(idx[0], 0);
    EXPECT_EQ(idx[1], 2);
    EXPECT_EQ(idx[2], 2);
    const double near[3] = {0.26, 0.74, 1.6};
    grid_indices_of_point(near, idx);
    EXPECT_EQ(idx[0], 1);
    EXPECT_EQ(idx[1], 1);
    EXPECT_EQ(idx[2], 3);
}

TEST(GridOneDimensional, AlongXIsCartesianAlongYRunsAlongMinusY) {
    const double c[3] = {1.0, 2.0, 3.0};
    const int n[1] = {5};
    const double h[1] = {0.5};
    const double along_x[3][3] = {{1.0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    auto gx = grid_build(1, c, along_x, h, n);
    ASSERT_TRUE(gx);
    EXPECT_EQ(grid_install(gx.get()), 1);
    double p[3];
    grid_point_of_index(p, 3);
    EXPECT_NEAR(p[0], 1.0 - 1.0 + 1.5, kTight);
    EXPECT_EQ(p[1], 2.0);
    EXPECT_EQ(p[2], 3.0);

    const double along_y[3][3] = {{0, 0, 0}, {1.0, 0, 0}, {0, 0, 0}};
    auto gy = grid_build(1, c, along_y, h, n);
    ASSERT_TRUE(gy);
    EXPECT_NEAR(gy->origin[1], 1.0, kTight);  // the record's origin is centre - half length
    EXPECT_EQ(grid_install(gy.get()), 0);
    // Point k lies at origin - (0, k a, 0): the reverse orientation is intended.
    for (int k = 0; k < 5; ++k) {
        grid_point_of_index(p, k);
        EXPECT_NEAR(p[0], 1.0, kTight);
        EXPECT_NEAR(p[1], 1.0 - 0.5 * k, kTight);
        EXPECT_NEAR(p[2], 3.0, kTight);
        EXPECT_EQ(grid_index_of_point(p), k);
    }
    // The step operations follow the record's step vector instead.
    double q[3] = {0, 0, 0};
    grid_step_forward(q, 0);
    EXPECT_EQ(q[1], 0.5);
    grid_step_back(q, 0);
    EXPECT_EQ(q[1], 0.0);

    // A -0.0 component compares equal to zero: still cartesian.
    const double minus_zero[3][3] = {{1.0, 0, 0}, {-0.0, 0, 0}, {-0.0, 0, 0}};
    auto gz = grid_build(1, c, minus_zero, h, n);
    ASSERT_TRUE(gz);
    EXPECT_EQ(grid_install(gz.get()), 1);
}

// Lattice vectors of M must have the lengths and mutual angles of the step
// vectors (M is a rotation of the steps), and Minv must invert M.
void expect_rigid_and_inverse(const Grid& g) {
    const GridState& s = grid_state();
    const int n = g.ndim;
    for (int d = 0; d < n; ++d)
        for (int e = 0; e < n; ++e) {
            double gm = 0, ga = 0, id = 0;
            for (int r = 0; r < 3; ++r) {
                gm += s.M[r][d] * s.M[r][e];
                ga += g.axes[r][d] * g.axes[r][e];
                id += s.Minv[d][r] * s.M[r][e];
            }
            EXPECT_NEAR(gm, ga, 1e-12) << d << "," << e;
            EXPECT_NEAR(id, d == e ? 1.0 : 0.0, 1e-12) << d << "," << e;
        }
}

TEST(GridRotated, ThreeDimensionalLatticeRoundTripsThroughCoordinates) {
    const double c[3] = {0.3, -1.2, 2.0};
    // Oblique, non-orthogonal half-axes.
    const double half[3][3] = {{1.0, 0.4, -0.3}, {0.5, 1.5, 0.2}, {0.2, -0.3, 2.0}};
    const double h[3] = {0.5, 0.5, 0.5};
    const int n[3] = {4, 5, 6};
    auto g = grid_build(3, c, half, h, n);
    ASSERT_TRUE(g);
    EXPECT_EQ(grid_install(g.get()), 0);
    expect_rigid_and_inverse(*g);
    const GridState& s = grid_state();
    for (int k = 0; k < static_cast<int>(g->total); ++k) {
        int idx[3];
        grid_indices_of_index(idx, k);
        double p[3];
        grid_point_of_index(p, k);
        ASSERT_EQ(grid_index_of_point(p), k);
        // Off-lattice by less than half a step in lattice coordinates: same point.
        double q[3];
        for (int r = 0; r < 3; ++r) q[r] = p[r] + 0.3 * s.M[r][0] - 0.45 * s.M[r][1] + 0.2 * s.M[r][2];
        ASSERT_EQ(grid_index_of_point(q), k);
    }
    // General step: adds the whole step vector.
    double q[3] = {1, 1, 1};
    grid_step_forward(q, 2);
    for (int r = 0; r < 3; ++r) EXPECT_DOUBLE_EQ(q[r], 1.0 + g->axes[r][2]);
}

TEST(GridRotated, TwoDimensionalGridInvertsOnItsPlane) {
    const double c[3] = {0, 0, 0};
    const double half[3][3] = {{1.0, 0.0, 0}, {1.0, 1.0, 0}, {0.5, 2.0, 0}};
    const double h[2] = {0.5, 0.5};
    const int n[2] = {7, 3};
    auto g = grid_build(2, c, half, h, n);
    ASSERT_TRUE(g);
    EXPECT_EQ(grid_install(g.get()), 0);
    expect_rigid_and_inverse(*g);
    for (int k = 0; k < static_cast<int>(g->total); ++k) {
        double p[3];
        grid_point_of_index(p, k);
        ASSERT_EQ(grid_index_of_point(p), k);
    }
}

TEST(GridInstall, NullKeepsTheCurrentGrid) {
    const double c[3] = {0, 0, 0};
    const int n[3] = {3, 3, 3};
    const double h[3] = {0.5, 0.5, 0.5};
    auto g = box(c, 1.0, 1.0, 1.0, n, h);
    grid_install(g.get());
    EXPECT_EQ(grid_install(nullptr), 0);
    EXPECT_EQ(grid_state().grid, g.get());
    EXPECT_EQ(grid_state().cartesian, 1);
}

}  // namespace
}  // namespace kvx::grid
