// Screening radii, orbital and density grids against the brute-force
// evaluation of gto_reference.h and an independent program's orbital values,
// and the progress / abort / fatal lines on stdout.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>

#include "common/fatal.h"
#include "common/reference_table.h"
#include "grid/density.h"
#include "grid/gto_reference.h"
#include "moldata/reader.h"

namespace {

using namespace kvx;
using test::captured;
using test::MolBuilder;

double norm_n(double a) { return std::pow(2.0 * a / M_PI, 0.75); }

// An s primitive: N |c| exp(-a r^2) = eps in closed form; no radius when
// N |c| never reaches eps, for type 0 or a zero coefficient.
TEST(ShellRange, SPrimitiveIsClosedFormOrZero) {
    const struct { double a, c, eps; } cases[] = {
        {0.27, 1.0, 1e-6}, {5484.67, 0.0018, 1e-6}, {1.01, -0.73, 1e-12}, {0.05, 3.5, 1e-3}};
    for (const auto& k : cases) {
        const double expect = std::sqrt(std::log(norm_n(k.a) * std::fabs(k.c) / k.eps) / k.a);
        EXPECT_NEAR(grid::shell_range(1, k.a, k.c, k.eps), expect, 1e-12 * expect) << k.a;
    }
    for (int type : {1, 5}) EXPECT_EQ(grid::shell_range(type, 0.1, 1.0, 10.0), 0.0);  // N|c| = 0.19 < eps
    EXPECT_EQ(grid::shell_range(0, 1.0, 1.0, 1e-6) + grid::shell_range(2, 1.0, 0.0, 1e-6), 0.0);
}

// l > 0: the outer root of N r^l exp(-a r^2) = q = eps / |c|. Newton stops
// once its step is below q and converges with ratio about 1/2, so r is within
// about q of the root: relative residual within q |l/r - 2ar|, doubled.
TEST(ShellRange, HigherLIsOuterRootOfRadialEquation) {
    for (int type = 2; type <= 12; ++type)
        for (double a : {0.08, 0.8, 12.0})
            for (double eps : {1e-6, 1e-10}) {
                const int l = grid::kRangePower[type];
                const double q = eps / 0.6, r = grid::shell_range(type, a, 0.6, eps);
                const double value = norm_n(a) * std::pow(r, l) * std::exp(-a * r * r);
                EXPECT_NEAR(value / q, 1.0, 2.0 * q * std::fabs(l / r - 2.0 * a * r) + 1e-12)
                    << "type " << type << " a " << a << " eps " << eps;
                EXPECT_GT(r, std::sqrt(l / (2.0 * a))) << "inner root taken, type " << type;
            }
}

TEST(GtoDeathTest, RotatedGridAndUnknownTypeEndTheRun) {
    MolBuilder b;
    auto rt = grid::init_ranges(b.atom(0, 0, 0).shell(0, 1, 1, {{1.0, 1.0}}).mol.get(), 1e-6);
    const double c[3] = {0, 0, 0}, axes[3][3] = {{2, -1, 0}, {1, 2, 0}, {0, 0, 2}}, spacing[3] = {0.5, 0.5, 0.5};
    const int n[3] = {4, 4, 4};
    auto g = grid::grid_build(3, c, axes, spacing, n);
    // The messages go to stdout; dup2 routes it to stderr for EXPECT_EXIT.
    EXPECT_EXIT({ dup2(2, 1); grid::make_gtobuilder(rt, g.get()); }, ::testing::ExitedWithCode(0),
                "Gto make_gtobuilder: non cartesian grid not yet implemented");
    double factors[grid::kFactorSize] = {}, cache[grid::kFactorBlocks] = {};
    const double p[7] = {1, 1, 1, 1, 1, 1, 1};
    EXPECT_EXIT({ dup2(2, 1); grid::comp_cterm(factors, cache, p, p, p, 13); }, ::testing::ExitedWithCode(0),
                "Gto comp_cterm: Gaussian type 13 not yet implemented");
}

class OrbitalGrid : public ::testing::TestWithParam<int> {};

// Two atoms carrying a shell of the type (the first generally contracted
// unless sp) plus an s shell, and an atom without shells; 3-D and 2-D grids,
// the default threshold and then a tight one (stale radii would show).
TEST_P(OrbitalGrid, MatchesBruteForceWithinScreeningBound) {
    const int type = GetParam();
    MolBuilder b;
    b.atom(0.2, -0.3, 0.4).atom(-1.1, 0.9, -0.5).atom(1.5, 1.5, 1.0);
    if (type == 3)
        b.shell(0, 3, 1, {{1.3, 0.4, 0.7}, {0.35, 0.6, -0.3}}).shell(1, 3, 1, {{0.8, 1.0, 0.5}});
    else
        b.shell(0, type, 2, {{1.3, 0.4, -0.2}, {0.35, 0.6, 0.9}}).shell(1, type, 1, {{0.8, 1.0}});
    b.shell(1, 1, 1, {{4.0, 0.3}, {0.6, 0.8}});
    auto set = b.orbitals(3, 1234 + type);
    const double* coef = set->coef.row(1);
    const double centre[3] = {0.1, 0.2, -0.1}, half[3] = {4.0, 3.5, 3.0};
    const int counts3[3] = {9, 8, 7}, counts2[3] = {11, 9, 1};
    for (int ndim : {3, 2}) {
        auto g = test::box_grid(ndim, centre, half, ndim == 3 ? counts3 : counts2);
        for (double eps : {1e-6, 1e-14}) {
            ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), eps, -4), 1);
            auto pg = grid::property_grid_create(g.get());
            captured([&] { grid::fill_mo(pg.get(), set.get(), "2", "moa"); });
            EXPECT_EQ(pg->name, "moa-2");
            double largest = 0.0;
            for (unsigned p = 0; p < g->total; ++p) {
                double pt[3];
                grid::grid_geometry(*g).point_of_index(pt, static_cast<int>(p));
                const std::vector<double> phi = test::basis_values(*b.mol, pt);
                double ref = 0.0;
                for (int m = 0; m < b.mol->nbasis; ++m) ref += coef[m] * phi[m];
                ASSERT_NEAR(pg->values[p], ref, test::screening_tolerance(*b.mol, eps, coef, ref))
                    << "type " << type << " ndim " << ndim << " eps " << eps << " point " << p;
                largest = std::max(largest, std::fabs(ref));
            }
            EXPECT_GT(largest, 1e-3);  // the grid does reach the functions
        }
    }
    grid::gto_free();
}

// Named by the basis file's shell label.
std::string shell_label(const ::testing::TestParamInfo<int>& info) {
    static const char* const kLabel[] = {"", "s", "p", "l", "d", "d6", "f", "f10", "g15", "h21", "i28"};
    return kLabel[info.param];
}
INSTANTIATE_TEST_SUITE_P(AllTypes, OrbitalGrid, ::testing::Range(1, 11), shell_label);

// A mixed basis (cartesian and spherical d, sp, general contraction) on three
// atoms, so shells overlap and the omitted cross terms would show.
TEST(DensityGrid, MatchesShellwiseSumForDriverOccupations) {
    MolBuilder b;
    b.atom(0.0, 0.0, 0.0).atom(1.6, 0.4, -0.3).atom(-0.7, 1.5, 0.6);
    b.shell(0, 1, 2, {{12.0, 0.3, 0.1}, {2.0, 0.7, -0.9}}).shell(0, 3, 1, {{1.1, -0.2, 0.5}, {0.3, 0.9, 0.6}});
    b.shell(0, 4, 1, {{0.9, 1.0}}).shell(1, 5, 1, {{0.7, 1.0}}).shell(1, 2, 1, {{1.5, 0.5}, {0.4, 0.6}});
    b.shell(2, 1, 1, {{0.5, 1.0}});
    auto alpha = b.orbitals(5, 77), beta = b.orbitals(4, 78);
    const double centre[3] = {0.3, 0.5, 0.0}, half[3] = {3.5, 3.5, 3.0};
    const int counts[3] = {8, 8, 7};
    auto g = test::box_grid(3, centre, half, counts);
    ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), 1e-14, -4), 1);
    auto pg = grid::property_grid_create(g.get());
    const double closed[5] = {2, 2, 2, 0, 0}, opena[5] = {1, 1, 1, 0, 0}, openb[4] = {1, 1, 0, 0},
                 spinb[4] = {-1, -1, 0, 0}, partial[5] = {0, 1, 0, 0, 1}, none[5] = {};
    const struct { const char* name; const double *occa, *occb; } cases[] = {
        {"den", closed, nullptr}, {"den", opena, openb}, {"spin", opena, spinb}, {"partd", partial, nullptr},
        {"den", none, nullptr}};
    for (const auto& k : cases) {
        captured([&] { grid::fill_density(pg.get(), alpha.get(), k.occa, beta.get(), k.occb, k.name); });
        EXPECT_EQ(pg->name, k.name);
        for (unsigned p = 0; p < g->total; ++p) {
            double pt[3];
            grid::grid_geometry(*g).point_of_index(pt, static_cast<int>(p));
            double ref = test::shellwise_density(*b.mol, *alpha, k.occa, pt);
            if (k.occb) ref += test::shellwise_density(*b.mol, *beta, k.occb, pt);
            // Occupations up to 2 over at most 5 orbitals: 10x the orbital bound.
            ASSERT_NEAR(pg->values[p], ref, 10.0 * test::screening_tolerance(*b.mol, 1e-14, nullptr, ref))
                << k.name << " point " << p;
        }
    }
    grid::gto_free();
}

// Progress on a 1-D grid: one line per 10%, taken at the first point at or
// past each step; a second pass shares the scale, with 50% between passes.
TEST(GridProgress, LinesPerTenPercentAndAbort) {
    MolBuilder b;
    b.atom(0, 0, 0).shell(0, 1, 1, {{0.5, 1.0}});
    auto set = b.orbitals(2, 5);
    const double occa[2] = {1, 0}, occb[2] = {0, 1}, centre[3] = {0, 0, 0}, half[3] = {3, 0, 0};
    const int n[3] = {20, 1, 1};
    auto g = test::box_grid(1, centre, half, n);
    ASSERT_EQ(grid::gto_setup(b.mol.get(), g.get(), 1e-8, -4), 1);
    auto pg = grid::property_grid_create(g.get());
    const std::string steps = " 10%\n 20%\n 30%\n 40%\n 50%\n 60%\n 70%\n 80%\n 90%\n DONE\n";
    EXPECT_EQ(captured([&] { grid::fill_mo(pg.get(), set.get(), "2", "lob"); }),
              "Computing Molecular Orbital lob No. 2:\n" + steps);
    EXPECT_EQ(captured([&] { grid::fill_density(pg.get(), set.get(), occa, set.get(), occb, "den"); }),
              "Computing Electronic Density den:\n" + steps);
    for (const char* text : {"0", "3", "x"})
        EXPECT_EQ(captured([&] { grid::fill_mo(pg.get(), set.get(), text, "moa"); }),
                  std::string("Density fill_mo: Molecular Orbital moa No. ") + (text[0] == 'x' ? "0" : text) +
                      " cannot be computed\n");

    // Threads take no new block once the flag is set (here: before the
    // first); the beta pass never starts.
    common::abort_flag = 1;
    EXPECT_EQ(captured([&] { grid::fill_mo(pg.get(), set.get(), "1", "moa"); }),
              "Computing Molecular Orbital moa No. 1:\n ABORTED\n");
    EXPECT_EQ(std::count(pg->values.begin(), pg->values.end(), 0.0), 20);
    EXPECT_EQ(captured([&] { grid::fill_density(pg.get(), set.get(), occa, set.get(), occb, "den"); }),
              "Computing Electronic Density den:\n ABORTED\n");
    EXPECT_EQ(std::count(pg->values.begin(), pg->values.end(), 0.0), 20);
    common::abort_flag = 0;
    grid::gto_free();
}

class ReferencePoints : public ::testing::TestWithParam<const char*> {};

// A 3 x 3 x 3 grid centred on each point has the point itself in the middle.
// eps = 1e-12 keeps the screening error within screening_tolerance (a few
// 1e-9 for these bases); the reference values carry 13 significant digits.
TEST_P(ReferencePoints, OrbitalsMatchIndependentProgram) {
    const std::string job = GetParam(), dir = std::string(KVX_TEST_DATA) + "/" + job + "/";
    auto mol = moldata::build_molecule(dir + job).molecule;
    ASSERT_TRUE(mol && mol->has_shells()) << job;
    // The NAMEk_grid columns: orbital k of set NAME with the grid's displacement.
    struct Column { std::string set; int orbital, index; };
    std::vector<Column> columns;
    const test::ReferenceTable ref = test::job_reference(job);
    for (std::size_t i = 0; i < ref.columns.size(); ++i) {
        const std::string& name = ref.columns[i];
        const auto cut = name.find("_grid"), digit = name.find_first_of("0123456789");
        if (cut != std::string::npos)
            columns.push_back({name.substr(0, digit), std::stoi(name.substr(digit, cut - digit)), static_cast<int>(i)});
    }
    const auto& rows = ref.rows;
    ASSERT_GT(rows.size(), 20u);
    ASSERT_FALSE(columns.empty());

    const double eps = 1e-12, half[3] = {0.5, 0.5, 0.5};
    const int counts[3] = {3, 3, 3}, mid[3] = {1, 1, 1};
    for (const auto& row : rows) {
        ASSERT_GT(row.size(), static_cast<std::size_t>(columns.back().index));
        auto g = test::box_grid(3, row.data(), half, counts);
        ASSERT_EQ(grid::gto_setup(mol.get(), g.get(), eps, -4), 1);
        const int p = grid::grid_geometry(*g).index_of_indices(mid);
        auto pg = grid::property_grid_create(g.get());
        for (const Column& col : columns) {
            const moldata::OrbitalSet* set = col.set == "alpha" ? mol->alpha.get() : mol->beta.get();
            ASSERT_NE(set, nullptr) << col.set;
            const std::string n = std::to_string(col.orbital);
            captured([&] { grid::fill_mo(pg.get(), set, n.c_str(), col.set.c_str()); });
            const double *c = set->coef.row(col.orbital - 1), expect = row[col.index];
            EXPECT_NEAR(pg->values[p], expect, test::screening_tolerance(*mol, eps, c, expect))
                << job << " " << col.set << col.orbital << " at " << row[0] << " " << row[1] << " " << row[2];
        }
    }
    grid::gto_free();
}

INSTANTIATE_TEST_SUITE_P(Jobs, ReferencePoints, ::testing::Values("water", "ohrad"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

}  // namespace
