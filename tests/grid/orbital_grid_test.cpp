// Orbital and density grids against the brute-force evaluation of
// gto_reference.h, and the progress / abort protocol on stdout.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "common/fatal.h"
#include "grid/density.h"
#include "grid/gto.h"
#include "grid/gto_reference.h"

namespace {

using kvx::grid::fill_density;
using kvx::grid::fill_mo;
using kvx::grid::gto_setup;
using kvx::test::Lcg;
using kvx::test::MolBuilder;
using kvx::test::screening_tolerance;

// Two atoms carrying a shell of the type each (the first generally
// contracted unless sp) and an s shell, and an atom without shells.
MolBuilder one_type_molecule(int type) {
    MolBuilder b;
    b.atom(0.2, -0.3, 0.4).atom(-1.1, 0.9, -0.5).atom(1.5, 1.5, 1.0);
    if (type == 3)
        b.shell(0, 3, 1, {{1.3, 0.4, 0.7}, {0.35, 0.6, -0.3}});
    else
        b.shell(0, type, 2, {{1.3, 0.4, -0.2}, {0.35, 0.6, 0.9}});
    if (type == 3)
        b.shell(1, 3, 1, {{0.8, 1.0, 0.5}});
    else
        b.shell(1, type, 1, {{0.8, 1.0}});
    b.shell(1, 1, 1, {{4.0, 0.3}, {0.6, 0.8}});
    return b;
}

class OrbitalGrid : public ::testing::TestWithParam<int> {};

// Every supported type, on a 3-D and a 2-D grid, at a tight and at the
// default threshold.
TEST_P(OrbitalGrid, MatchesBruteForce) {
    const int type = GetParam();
    MolBuilder b = one_type_molecule(type);
    Lcg gen(1234 + type);
    auto set = b.orbitals(3, gen);
    const double centre[3] = {0.1, 0.2, -0.1}, half[3] = {4.0, 3.5, 3.0};
    const int counts3[3] = {9, 8, 7}, counts2[3] = {11, 9, 1};
    for (int ndim : {3, 2}) {
        auto g = kvx::test::box_grid(ndim, centre, half, ndim == 3 ? counts3 : counts2);
        ASSERT_TRUE(g);
        for (double eps : {1e-14, 1e-6}) {
            ASSERT_EQ(gto_setup(b.mol.get(), g.get(), eps, -4), 1);
            auto pg = kvx::grid::property_grid_create(g.get());
            testing::internal::CaptureStdout();
            fill_mo(pg.get(), set.get(), "2", "moa");
            testing::internal::GetCapturedStdout();
            EXPECT_EQ(pg->name, "moa-2");
            const double* coef = set->coef.row(1);
            double max_coef = 0.0;
            for (int m = 0; m < b.mol->nbasis; ++m) max_coef = std::max(max_coef, std::fabs(coef[m]));
            double worst = 0.0;
            for (unsigned p = 0; p < g->total; ++p) {
                double pt[3];
                kvx::grid::grid_point_of_index(pt, static_cast<int>(p));
                const double ref = kvx::test::orbital_value(*b.mol, coef, pt);
                const double tol = screening_tolerance(*b.mol, eps, max_coef, ref);
                ASSERT_NEAR(pg->values[p], ref, tol) << "type " << type << " ndim " << ndim << " eps " << eps
                                                     << " point " << p;
                worst = std::max(worst, std::fabs(ref));
            }
            EXPECT_GT(worst, 1e-3);  // the grid does reach the functions
        }
    }
    kvx::grid::gto_free();
}

INSTANTIATE_TEST_SUITE_P(AllTypes, OrbitalGrid, ::testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));

// A mixed basis (cartesian and spherical d, sp, general contraction) on
// three atoms: densities with shell-wise squares, for the occupations a
// driver passes.
class DensityGrid : public ::testing::Test {
  protected:
    void SetUp() override {
        b.atom(0.0, 0.0, 0.0).atom(1.6, 0.4, -0.3).atom(-0.7, 1.5, 0.6);
        b.shell(0, 1, 2, {{12.0, 0.3, 0.1}, {2.0, 0.7, -0.9}});
        b.shell(0, 3, 1, {{1.1, -0.2, 0.5}, {0.3, 0.9, 0.6}});
        b.shell(0, 4, 1, {{0.9, 1.0}});
        b.shell(1, 5, 1, {{0.7, 1.0}});
        b.shell(1, 2, 1, {{1.5, 0.5}, {0.4, 0.6}});
        b.shell(2, 1, 1, {{0.5, 1.0}});
        Lcg gen(77);
        alpha = b.orbitals(5, gen);
        beta = b.orbitals(4, gen);
        const double centre[3] = {0.3, 0.5, 0.0}, half[3] = {3.5, 3.5, 3.0};
        const int counts[3] = {8, 8, 7};
        g = kvx::test::box_grid(3, centre, half, counts);
        ASSERT_EQ(gto_setup(b.mol.get(), g.get(), 1e-14, -4), 1);
        pg = kvx::grid::property_grid_create(g.get());
    }
    void TearDown() override { kvx::grid::gto_free(); }

    void expect_density(const double* occa, const double* occb) {
        for (unsigned p = 0; p < g->total; ++p) {
            double pt[3];
            kvx::grid::grid_point_of_index(pt, static_cast<int>(p));
            double ref = 0.0;
            if (occa) ref += kvx::test::shellwise_density(*b.mol, *alpha, occa, pt);
            if (occb) ref += kvx::test::shellwise_density(*b.mol, *beta, occb, pt);
            // Occupations up to 2 and at most 5 orbitals: 10x the orbital bound.
            ASSERT_NEAR(pg->values[p], ref, 10.0 * screening_tolerance(*b.mol, 1e-14, 1.0, ref)) << p;
        }
    }
    double run(const double* occa, const double* occb, const char* name) {
        testing::internal::CaptureStdout();
        fill_density(pg.get(), occa ? alpha.get() : nullptr, occa, occb ? beta.get() : nullptr, occb, name);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(pg->name, name);
        double s = 0.0;
        for (double v : pg->values) s += std::fabs(v);
        return s;
    }

    MolBuilder b;
    std::unique_ptr<kvx::moldata::OrbitalSet> alpha, beta;
    std::unique_ptr<kvx::grid::Grid> g;
    std::unique_ptr<kvx::grid::PropertyGrid> pg;
};

TEST_F(DensityGrid, RestrictedDoublyOccupied) {
    const double occ[5] = {2, 2, 2, 0, 0};
    EXPECT_GT(run(occ, nullptr, "den"), 1.0);
    expect_density(occ, nullptr);
}

TEST_F(DensityGrid, UnrestrictedSpinAndPartial) {
    const double occa[5] = {1, 1, 1, 0, 0}, occb[4] = {1, 1, 0, 0};
    run(occa, occb, "den");
    expect_density(occa, occb);

    const double spinb[4] = {-1, -1, 0, 0};
    run(occa, spinb, "spin");
    expect_density(occa, spinb);

    // Zero occupations inside the range are skipped, not squared.
    const double parta[5] = {0, 1, 0, 0, 1};
    run(parta, nullptr, "partd");
    expect_density(parta, nullptr);
}

// The cross terms between shells are left out: the density differs from
// the square of the orbital grid whenever two shells overlap.
TEST_F(DensityGrid, OmitsCrossTermsBetweenShells) {
    const double occ[5] = {1, 0, 0, 0, 0};
    run(occ, nullptr, "partd");
    std::vector<double> den = pg->values;
    testing::internal::CaptureStdout();
    fill_mo(pg.get(), alpha.get(), "1", "moa");
    testing::internal::GetCapturedStdout();
    double differs = 0.0;
    for (unsigned p = 0; p < g->total; ++p)
        differs = std::max(differs, std::fabs(den[p] - pg->values[p] * pg->values[p]));
    EXPECT_GT(differs, 1e-2);
}

TEST_F(DensityGrid, NothingOccupiedStillReportsDone) {
    const double none[5] = {0, 0, 0, 0, 0};
    testing::internal::CaptureStdout();
    fill_density(pg.get(), alpha.get(), none, nullptr, nullptr, "den");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Computing Electronic Density den:\n DONE\n");
    EXPECT_EQ(*std::max_element(pg->values.begin(), pg->values.end()), 0.0);
}

// Progress on a 1-D grid of 20 points: one line per 10%, taken at the first
// point at or past each step.
class Progress : public ::testing::Test {
  protected:
    void SetUp() override {
        b.atom(0, 0, 0).shell(0, 1, 1, {{0.5, 1.0}});
        Lcg gen(5);
        set = b.orbitals(2, gen);
        make_grid(20);
    }
    void TearDown() override {
        kvx::common::abort_flag = 0;
        kvx::grid::gto_free();
    }
    void make_grid(int n) {
        const double centre[3] = {0, 0, 0}, half[3] = {3, 0, 0};
        const int counts[3] = {n, 1, 1};
        g = kvx::test::box_grid(1, centre, half, counts);
        ASSERT_EQ(gto_setup(b.mol.get(), g.get(), 1e-8, -4), 1);
        pg = kvx::grid::property_grid_create(g.get());
    }
    MolBuilder b;
    std::unique_ptr<kvx::moldata::OrbitalSet> set;
    std::unique_ptr<kvx::grid::Grid> g;
    std::unique_ptr<kvx::grid::PropertyGrid> pg;
};

TEST_F(Progress, OrbitalTenPercentSteps) {
    testing::internal::CaptureStdout();
    fill_mo(pg.get(), set.get(), "1", "moa");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Computing Molecular Orbital moa No. 1:\n 10%\n 20%\n 30%\n 40%\n 50%\n 60%\n 70%\n 80%\n 90%\n"
              " DONE\n");
}

// 7 points: 100/7 per point, so lines at 14, 29, 43, 57, 71 and 86%.
TEST_F(Progress, FewPointsSkipSteps) {
    make_grid(7);
    testing::internal::CaptureStdout();
    fill_mo(pg.get(), set.get(), "2", "lob");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Computing Molecular Orbital lob No. 2:\n 14%\n 29%\n 43%\n 57%\n 71%\n 86%\n DONE\n");
}

// Two passes share one scale: 2.5% per point, the 50% line between them.
TEST_F(Progress, DensityTwoPasses) {
    const double occa[2] = {1, 0}, occb[2] = {0, 1};
    testing::internal::CaptureStdout();
    fill_density(pg.get(), set.get(), occa, set.get(), occb, "den");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Computing Electronic Density den:\n 10%\n 20%\n 30%\n 40%\n 50%\n 60%\n 70%\n 80%\n 90%\n DONE\n");
}

TEST_F(Progress, AbortStopsAfterFirstPoint) {
    kvx::common::abort_flag = 1;
    testing::internal::CaptureStdout();
    fill_mo(pg.get(), set.get(), "1", "moa");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Computing Molecular Orbital moa No. 1:\n ABORTED\n");
    EXPECT_EQ(pg->name, "moa-1");
    EXPECT_NE(pg->values[0], 0.0);
    for (unsigned p = 1; p < g->total; ++p) EXPECT_EQ(pg->values[p], 0.0) << p;

    // The beta pass is never started.
    const double occa[2] = {1, 0}, occb[2] = {0, 1};
    testing::internal::CaptureStdout();
    fill_density(pg.get(), set.get(), occa, set.get(), occb, "den");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Computing Electronic Density den:\n ABORTED\n");
    EXPECT_GT(pg->values[0], 0.0);
    for (unsigned p = 1; p < g->total; ++p) EXPECT_EQ(pg->values[p], 0.0) << p;
}

TEST_F(Progress, OrbitalNumberOutOfRange) {
    for (const char* text : {"0", "3", "x"}) {
        testing::internal::CaptureStdout();
        fill_mo(pg.get(), set.get(), text, "moa");
        const std::string n = text[0] == 'x' ? "0" : text;
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Density fill_mo: Molecular Orbital moa No. " + n + " cannot be computed\n");
    }
    testing::internal::CaptureStdout();
    fill_mo(pg.get(), set.get(), "", "moa");
    fill_mo(nullptr, set.get(), "1", "moa");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// Points beyond every atom's reach stay exactly zero.
TEST_F(Progress, FarPointsStayZero) {
    const double centre[3] = {40, 0, 0}, half[3] = {5, 0, 0};
    const int counts[3] = {11, 1, 1};
    auto far = kvx::test::box_grid(1, centre, half, counts);
    ASSERT_EQ(gto_setup(b.mol.get(), far.get(), 1e-8, -4), 1);
    auto fpg = kvx::grid::property_grid_create(far.get());
    std::fill(fpg->values.begin(), fpg->values.end(), 7.0);  // reset by fill_mo
    testing::internal::CaptureStdout();
    fill_mo(fpg.get(), set.get(), "1", "moa");
    testing::internal::GetCapturedStdout();
    for (double v : fpg->values) EXPECT_EQ(v, 0.0);
}

}  // namespace
