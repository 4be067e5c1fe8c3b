// Grid construction and the index / indices / coordinate conversions.
#include <gtest/gtest.h>

#include <cmath>

#include "grid/grid.h"

namespace kvx::grid {
namespace {

constexpr double kTight = 1e-12;  // a few ulps of coordinates of order 10 bohr
const double kHalfStep[3] = {0.5, 0.5, 0.5};

std::unique_ptr<Grid> box(const double c[3], double hx, double hy, double hz, const int n[3],
                          const double h[3] = kHalfStep) {
    const double half[3][3] = {{hx, 0, 0}, {0, hy, 0}, {0, 0, hz}};
    return grid_build(3, c, half, h, n);
}

void expect_point(int k, double x, double y, double z) {
    double p[3];
    grid_point_of_index(p, k);
    EXPECT_NEAR(p[0], x, kTight) << k;
    EXPECT_NEAR(p[1], y, kTight) << k;
    EXPECT_NEAR(p[2], z, kTight) << k;
}

// Every point maps back to its index, also when moved by less than half a
// step along each lattice vector.
void expect_round_trips(const Grid& g) {
    const GridState& s = grid_state();
    for (int k = 0; k < static_cast<int>(g.total); ++k) {
        int idx[3] = {0, 0, 0};
        grid_indices_of_index(idx, k);
        ASSERT_EQ(grid_index_of_indices(idx), k);
        double p[3], q[3];
        grid_point_of_index(p, k);
        ASSERT_EQ(grid_index_of_point(p), k);
        for (int r = 0; r < 3; ++r) q[r] = p[r] + 0.3 * s.M[r][0] - 0.45 * s.M[r][1] + 0.2 * s.M[r][2];
        ASSERT_EQ(grid_index_of_point(q), k) << k;
    }
}

// Counts above 2 put the end points on the box faces (spacing 2L/(N-1));
// smaller counts come from the spacing, ceil(2L/h) + 1, centred so that the
// lattice overhangs the box.
TEST(GridBuild, CountsAndSpacingsFromTheBox) {
    const double c[3] = {1.0, -2.0, 0.5};
    const int n[3] = {5, 7, 9};
    auto g = box(c, 2.0, 3.0, 4.0, n);
    ASSERT_EQ(grid_install(g.get()), 1);
    expect_point(0, -1.0, -5.0, -3.5);
    expect_point(5 * 7 * 9 - 1, 3.0, 1.0, 4.5);

    const double zero[3] = {0, 0, 0}, h[3] = {0.3, 0.5, 0.25};
    const int small[3] = {2, 0, 1};
    auto s = box(zero, 1.0, 1.0, 1.0, small, h);
    ASSERT_EQ(grid_install(s.get()), 1);
    EXPECT_EQ(s->total, 8u * 5u * 9u);
    expect_point(0, -1.05, -1.0, -1.0);
}

// Last dimension fastest, k = 20 i + 5 j + l on a 3 x 4 x 5 grid. Origin 0
// and spacing 1 make 0.5, 1.5, 2.5 exact half steps: they round to even.
TEST(GridIndexing, CartesianRoundTripsAndRoundsHalfWayToEven) {
    const double c[3] = {1.0, 1.5, 2.0}, half_way[3] = {0.5, 1.5, 2.5}, near[3] = {0.51, 1.49, 3.2};
    const int n[3] = {3, 4, 5};
    auto g = box(c, 1.0, 1.5, 2.0, n);
    ASSERT_EQ(grid_install(g.get()), 1);
    expect_round_trips(*g);
    EXPECT_EQ(grid_index_of_point(half_way), 0 * 20 + 2 * 5 + 2);
    EXPECT_EQ(grid_index_of_point(near), 1 * 20 + 1 * 5 + 3);
}

// Along x a 1-D grid is cartesian; along y point k lies at origin - (0, k a, 0)
// (the reverse orientation is intended) while the step operations follow the
// record's step vector.
TEST(GridOneDimensional, AlongXIsCartesianAlongYRunsAlongMinusY) {
    const double c[3] = {1.0, 2.0, 3.0}, along_x[3][3] = {{1.0, 0, 0}, {-0.0, 0, 0}, {-0.0, 0, 0}},
                 along_y[3][3] = {{0, 0, 0}, {1.0, 0, 0}, {0, 0, 0}};
    const int n[1] = {5};
    auto gx = grid_build(1, c, along_x, kHalfStep, n);
    ASSERT_EQ(grid_install(gx.get()), 1);  // -0.0 compares equal to zero
    expect_point(3, 1.5, 2.0, 3.0);

    auto gy = grid_build(1, c, along_y, kHalfStep, n);
    ASSERT_TRUE(gy && grid_install(gy.get()) == 0);
    EXPECT_NEAR(gy->origin[1], 1.0, kTight);
    for (int k = 0; k < 5; ++k) expect_point(k, 1.0, 1.0 - 0.5 * k, 3.0);
    expect_round_trips(*gy);
    double q[3] = {0, 0, 0};
    grid_step_forward(q, 0);
    EXPECT_EQ(q[1], 0.5);
}

// Oblique half-axes, 3-D and 2-D: the lattice vectors of M keep the lengths
// and angles of the step vectors (a rotation of them), Minv inverts M, and
// every point round-trips.
TEST(GridRotated, LatticeIsRigidAndRoundTrips) {
    const double c[3] = {0.3, -1.2, 2.0};
    const double oblique[3][3] = {{1.0, 0.4, -0.3}, {0.5, 1.5, 0.2}, {0.2, -0.3, 2.0}},
                 plane[3][3] = {{1.0, 0.0, 0}, {1.0, 1.0, 0}, {0.5, 2.0, 0}};
    const int n3[3] = {4, 5, 6}, n2[2] = {7, 3};
    for (int ndim : {3, 2}) {
        auto g = grid_build(ndim, c, ndim == 3 ? oblique : plane, kHalfStep, ndim == 3 ? n3 : n2);
        ASSERT_TRUE(g && grid_install(g.get()) == 0);
        const GridState& s = grid_state();
        for (int d = 0; d < ndim; ++d)
            for (int e = 0; e < ndim; ++e) {
                double gm = 0, ga = 0, id = 0;
                for (int r = 0; r < 3; ++r) {
                    gm += s.M[r][d] * s.M[r][e];
                    ga += g->axes[r][d] * g->axes[r][e];
                    id += s.Minv[d][r] * s.M[r][e];
                }
                EXPECT_NEAR(gm, ga, 1e-12) << d << "," << e;
                EXPECT_NEAR(id, d == e ? 1.0 : 0.0, 1e-12) << d << "," << e;
            }
        expect_round_trips(*g);
    }
}

}  // namespace
}  // namespace kvx::grid
