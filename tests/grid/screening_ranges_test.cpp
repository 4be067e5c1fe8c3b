// Screening radii (shell_range, init_ranges) and the per-axis power tables.
#include <gtest/gtest.h>

#include <cmath>
#include <unistd.h>

#include "grid/gto.h"
#include "grid/gto_reference.h"

namespace {

using kvx::grid::init_ranges;
using kvx::grid::shell_range;
using kvx::test::MolBuilder;

double norm_n(double a) { return std::pow(2.0 * a / M_PI, 0.75); }

// An s primitive: N |c| exp(-a r^2) = eps solved in closed form.
TEST(ShellRange, SPrimitiveIsClosedForm) {
    const struct {
        double a, c, eps;
    } cases[] = {{0.27, 1.0, 1e-6}, {5484.67, 0.0018, 1e-6}, {1.01, -0.73, 1e-12}, {0.05, 3.5, 1e-3}};
    for (const auto& k : cases) {
        const double expect = std::sqrt(std::log(norm_n(k.a) * std::fabs(k.c) / k.eps) / k.a);
        EXPECT_NEAR(shell_range(1, k.a, k.c, k.eps), expect, 1e-12 * expect) << k.a;
    }
}

// l > 0: the radius is the outer root of N r^l exp(-a r^2) = q = eps / |c|.
// Newton stops once its step is below q; with the derivative's factor 4 it
// converges linearly with ratio about 1/2, so r is within about q of the
// root and the relative residual within q |d ln f / dr| = q |l/r - 2ar|
// (doubled for safety).
TEST(ShellRange, HigherLSolvesRadialEquation) {
    for (int type : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}) {
        const int l = kvx::grid::kRangePower[type];
        for (double a : {0.08, 0.8, 12.0}) {
            for (double eps : {1e-6, 1e-10}) {
                const double c = 0.6;
                const double q = eps / c;
                const double r = shell_range(type, a, c, eps);
                const double value = norm_n(a) * std::pow(r, l) * std::exp(-a * r * r);
                const double tol = 2.0 * q * std::fabs(l / r - 2.0 * a * r) + 1e-12;
                EXPECT_NEAR(value / q, 1.0, tol) << "type " << type << " a " << a << " eps " << eps;
                EXPECT_GT(r, std::sqrt(l / (2.0 * a))) << "inner root taken, type " << type;
            }
        }
    }
}

TEST(ShellRange, NoRadiusWhenNeverReachingThreshold) {
    EXPECT_EQ(shell_range(0, 1.0, 1.0, 1e-6), 0.0);
    EXPECT_EQ(shell_range(1, 0.1, 1.0, 10.0), 0.0);  // N|c| = 0.19 < eps
    EXPECT_EQ(shell_range(5, 0.1, 1.0, 10.0), 0.0);
    EXPECT_EQ(shell_range(2, 1.0, 0.0, 1e-6), 0.0);  // zero coefficient
}

// Grouping by atom, decreasing radius, the coefficient choices and an atom
// without shells.
TEST(RangeTable, GroupsByAtomAndSortsByRadius) {
    MolBuilder b;
    b.atom(0, 0, 0).atom(5, 0, 0).atom(0, 5, 0);
    b.shell(0, 1, 1, {{10.0, 1.0}});                    // tight s
    b.shell(2, 2, 1, {{0.5, 1.0}});                     // p on atom 2
    b.shell(0, 1, 1, {{0.2, 1.0}, {3.0, 0.5}});         // diffuse s: widest on atom 0
    b.shell(0, 3, 1, {{1.0, 0.1, -0.9}, {0.4, 0.2, 0.1}});  // sp, p coefficient wins
    b.shell(0, 5, 2, {{0.9, -0.5, 0.3}});               // general d6, two columns
    const double eps = 1e-6;
    auto t = init_ranges(b.mol.get(), eps);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->natoms, 3);
    EXPECT_EQ(t->nshell, 5);
    EXPECT_EQ(t->threshold, eps);
    EXPECT_EQ(t->nshat, (std::vector<int>{4, 0, 1}));
    EXPECT_TRUE(t->atshpt[1].empty());
    EXPECT_TRUE(t->ranges[1].empty());

    const auto& sh = b.mol->shells;
    const double r_tight = shell_range(1, 10.0, 1.0, eps);
    const double r_diffuse = std::max(shell_range(1, 0.2, 1.0, eps), shell_range(1, 3.0, 0.5, eps));
    const double r_sp = std::max(shell_range(3, 1.0, -0.9, eps), shell_range(3, 0.4, 0.2, eps));
    // Running choice over (-0.5, 0.3): |0.3| beats the signed choice -0.5,
    // so 0.3 sets the radius, not the larger 0.5.
    const double r_d = shell_range(5, 0.9, 0.3, eps);
    EXPECT_LT(r_d, shell_range(5, 0.9, 0.5, eps));

    const std::vector<std::pair<const kvx::moldata::Shell*, double>> expect = {
        {&sh[2], r_diffuse}, {&sh[3], r_sp}, {&sh[4], r_d}, {&sh[0], r_tight}};
    ASSERT_EQ(t->atshpt[0].size(), 4u);
    for (std::size_t k = 0; k < expect.size(); ++k) {
        EXPECT_EQ(t->atshpt[0][k], expect[k].first) << k;
        EXPECT_DOUBLE_EQ(t->ranges[0][k], expect[k].second) << k;
    }
    for (std::size_t k = 1; k < 4; ++k) EXPECT_GE(t->ranges[0][k - 1], t->ranges[0][k]);
    EXPECT_EQ(t->atshpt[2][0], &sh[1]);
    EXPECT_EQ(init_ranges(nullptr, eps), nullptr);
}

// The range table stays on the molecule while eps is unchanged.
TEST(RangeTable, RebuiltOnlyWhenThresholdChanges) {
    MolBuilder b;
    b.atom(0, 0, 0).shell(0, 1, 1, {{1.0, 1.0}});
    const double c[3] = {0, 0, 0}, half[3] = {2, 2, 2};
    const int n[3] = {3, 3, 3};
    auto g = kvx::test::box_grid(3, c, half, n);
    ASSERT_EQ(kvx::grid::gto_setup(b.mol.get(), g.get(), 1e-6, -4), 1);
    const kvx::grid::RangeTable* first = b.mol->ranges.get();
    ASSERT_EQ(kvx::grid::gto_setup(b.mol.get(), g.get(), 1e-6, -4), 1);
    EXPECT_EQ(b.mol->ranges.get(), first);
    ASSERT_EQ(kvx::grid::gto_setup(b.mol.get(), g.get(), 1e-8, -4), 1);
    EXPECT_EQ(b.mol->ranges->threshold, 1e-8);
    EXPECT_GT(b.mol->ranges->ranges[0][0], shell_range(1, 1.0, 1.0, 1e-6));
    EXPECT_EQ(kvx::grid::gto_setup(nullptr, g.get(), 1e-8, -4), 0);
    EXPECT_EQ(kvx::grid::gto_setup(b.mol.get(), nullptr, 1e-8, -4), 0);
    kvx::grid::gto_free();
    EXPECT_EQ(kvx::grid::gto_builder(), nullptr);
    EXPECT_EQ(kvx::grid::gto_scratch_width(), 0);
}

// Tables hold powers of atom - point; planes beyond an atom's widest shell
// have no entry; a 2-D grid has one z plane.
TEST(PowerTables, DisplacementPowersAndPlaneCut) {
    MolBuilder b;
    b.atom(0.3, -0.2, 0.1).atom(5.5, 0.0, 0.0);
    b.shell(0, 7, 1, {{0.3, 1.0}});  // diffuse f: lmax 3
    b.shell(1, 1, 1, {{2.0, 1.0}});  // s only: lmax still 2
    auto rt = init_ranges(b.mol.get(), 1e-6);
    const double c[3] = {0, 0, 0}, half[3] = {4, 3, 0};
    const int n[3] = {9, 7, 1};
    auto g = kvx::test::box_grid(2, c, half, n);
    auto bp = kvx::grid::make_gtobuilder(rt, g.get());
    ASSERT_TRUE(bp);
    EXPECT_EQ(bp->pdx.npoints, 9);
    EXPECT_EQ(bp->pdy.npoints, 7);
    EXPECT_EQ(bp->pdz.npoints, 1);
    const double rmax1 = rt->ranges[1][0];
    int reached = 0;
    for (int i = 0; i < 9; ++i) {
        const double x = -4.0 + i;  // spacing 8 / 8
        const double* e = bp->pdx.entry(i, 0);
        ASSERT_NE(e, nullptr) << i;  // atom 0 reaches every plane of this box
        const double d = 0.3 - x;
        EXPECT_EQ(e[0], 1.0);
        EXPECT_NEAR(e[1], d, 1e-14);
        EXPECT_NEAR(e[3], d * d * d, 1e-12);
        const double* e1 = bp->pdx.entry(i, 1);
        EXPECT_EQ(e1 != nullptr, std::fabs(5.5 - x) <= rmax1) << i;
        reached += e1 != nullptr;
    }
    EXPECT_GT(reached, 0);
    EXPECT_LT(reached, 9);
    const double* z0 = bp->pdz.entry(0, 0);
    ASSERT_NE(z0, nullptr);
    EXPECT_NEAR(z0[2], 0.01, 1e-15);
    EXPECT_EQ(kvx::grid::make_gtobuilder(nullptr, g.get()), nullptr);
    EXPECT_EQ(kvx::grid::make_gtobuilder(rt, nullptr), nullptr);
}

TEST(PowerTablesDeathTest, RotatedGridEndsRun) {
    MolBuilder b;
    b.atom(0, 0, 0).shell(0, 1, 1, {{1.0, 1.0}});
    auto rt = init_ranges(b.mol.get(), 1e-6);
    const double c[3] = {0, 0, 0};
    const double axes[3][3] = {{2, -1, 0}, {1, 2, 0}, {0, 0, 2}};
    const double spacing[3] = {0.5, 0.5, 0.5};
    const int n[3] = {4, 4, 4};
    auto g = kvx::grid::grid_build(3, c, axes, spacing, n);
    ASSERT_TRUE(g);
    EXPECT_EXIT(
        {
            dup2(2, 1);  // the message goes to stdout
            kvx::grid::make_gtobuilder(rt, g.get());
        },
        ::testing::ExitedWithCode(0), "Gto make_gtobuilder: non cartesian grid not yet implemented");
}

TEST(PowerTablesDeathTest, UnsupportedTypeEndsRun) {
    double factors[kvx::grid::kFactorSize] = {};
    double cache[kvx::grid::kFactorBlocks] = {};
    const double p[7] = {1, 1, 1, 1, 1, 1, 1};
    EXPECT_EXIT(
        {
            dup2(2, 1);
            kvx::grid::comp_cterm(factors, cache, p, p, p, 13);
        },
        ::testing::ExitedWithCode(0), "Gto comp_cterm: Gaussian type 13 not yet implemented");
}

}  // namespace
