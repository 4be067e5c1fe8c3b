// The multipole path of the potential against the kernel path it replaces
// beyond the Boys switch: every pair of shell types (s to i28, cartesian and
// spherical d to h, sp, general contractions) on points from inside the molecule to
// far outside it, on a lattice and as a shuffled list of points.
#include "elepot/multipole.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "common/capture.h"
#include "common/fatal.h"
#include "common/molecules.h"
#include "elepot/elepot.h"
#include "elepot/fmch.h"
#include "grid/grid.h"
#include "moldata/molecule.h"
#include "moldata/reader.h"

namespace {

namespace ep = kvx::elepot;
using kvx::moldata::Molecule;

// One shell of every type the potential takes (1..12: s, p, sp, d, d6, f,
// f10, g15, h21, i28, g, h) on three centres; exponents from tight to diffuse
// so that each shell pair has primitive pairs on both sides of the switch on
// the box below.
std::unique_ptr<Molecule> every_type_molecule() {
    kvx::test::MolBuilder b;
    b.atom(0.0, 0.0, 0.0, 6.0).atom(1.4, 0.3, -0.9, 7.0).atom(-0.6, 1.7, 0.8, 8.0);
    b.shell(0, 1, 2, {{6.0, 0.4, -0.3}, {0.5, 0.7, 0.9}}).shell(1, 2, 1, {{3.1, 0.6}, {0.3, 0.5}});
    b.shell(2, 3, 1, {{2.5, 0.4, 0.6}, {0.4, 0.7, 0.5}});
    const int types[] = {4, 5, 6, 7, 8, 9, 10, 11, 12};
    for (int k = 0; k < 9; ++k) b.shell(k % 3, types[k], 1, {{1.8 + 0.1 * k, 0.6}, {0.35 + 0.02 * k, 0.8}});
    b.density([](int i, int j) {
        return (i == j ? 0.4 : 0.0) + 0.25 * std::cos(0.41 * i + 0.23 * j) * std::exp(-0.02 * (i - j));
    });
    return std::move(b.mol);
}

std::vector<double> run(const Molecule& mol, bool multipoles, ep::PotPathCounts& counts) {
    std::vector<double> out(static_cast<std::size_t>(ep::elepot_point_count()), -123.0);
    ep::elepot_use_multipoles(multipoles);
    kvx::test::captured([&] { ep::comp_elepot(out.data(), &mol, nullptr); });
    counts = ep::elepot_path_counts();
    return out;
}

class Multipoles : public testing::Test {
protected:
    void SetUp() override { kvx::common::abort_flag = 0; }
    void TearDown() override { ep::elepot_cleanup(); }
};

// Beyond the switch both paths evaluate the same Hermite expansion of the
// pair, one through the THO factors and the Boys values, the other through
// derivatives of 1/|R|; the Boys values there are the asymptotic form to
// 1e-15 relative. Rounding of two summation orders of up to 13^3 terms per
// pair leaves differences of a few 1e-15 (2.5e-15 measured); 1e-12 relative
// to max(1, |V|) gives that room for terms that cancel, and stays far below
// the 1e-9 to which the potential is held.
TEST_F(Multipoles, EqualTheKernelsForEveryTypePairOnGridAndList) {
    auto mol = every_type_molecule();
    // x from -9 to 12 bohr through the atoms, a few lines in y and z.
    double half[3][3] = {{10.5, 0, 0}, {0, 1.0, 0}, {0, 0, 1.5}}, sp[3] = {0.5, 0.5, 0.5};
    const double centre[3] = {1.5, 0.4, 0.1};
    int n[3] = {43, 3, 4};
    auto g = kvx::grid::grid_build(3, centre, half, sp, n);
    ASSERT_EQ(ep::elepot_init(mol.get(), g.get(), 400.0, 1e-12, 1), 1);
    ep::PotPathCounts kern{}, multi{};
    const auto ref = run(*mol, false, kern);
    const auto got = run(*mol, true, multi);
    EXPECT_EQ(kern.multipoles, 0);
    // Every evaluation goes one way or the other, and both ways are taken.
    EXPECT_EQ(multi.kernels + multi.multipoles, kern.kernels);
    EXPECT_GT(multi.kernels, kern.kernels / 20);
    EXPECT_GT(multi.multipoles, kern.kernels / 5);
    for (std::size_t k = 0; k < ref.size(); ++k)
        ASSERT_NEAR(got[k], ref[k], 1e-12 * std::max(1.0, std::fabs(ref[k]))) << "point " << k;

    // The same points as a list in shuffled order: each point is its own
    // line, met in no particular order along z.
    const auto geo = kvx::grid::grid_geometry(*g);
    std::vector<int> order(g->total);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    std::vector<double> xyz(3 * g->total);
    for (std::size_t k = 0; k < order.size(); ++k) geo.point_of_index(&xyz[3 * k], order[k]);
    ASSERT_EQ(ep::elepot_init_points(mol.get(), xyz.data(), g->total, 400.0, 1e-12, 1), 1);
    ep::PotPathCounts listed{};
    const auto lst = run(*mol, true, listed);
    EXPECT_EQ(listed.multipoles, multi.multipoles);
    for (std::size_t k = 0; k < order.size(); ++k)
        ASSERT_EQ(lst[k], got[static_cast<std::size_t>(order[k])]) << "point " << order[k];
}

// The switch to multipoles is the Boys function's own: at the returned |PC|^2
// fmch still uses its tables, one step beyond it the asymptotic form.
TEST_F(Multipoles, FarThresholdIsTheBoysSwitch) {
    ep::fmch_init(12);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> lg(-3.0, 3.0);
    for (int lab = 0; lab <= 12; ++lab)
        for (int rep = 0; rep < 200; ++rep) {
            const double g = std::pow(10.0, lg(rng));
            const double t = ep::far_threshold(g, lab);
            EXPECT_LE(t * g, ep::fmch_switch_point(lab)) << lab << " " << g;
            EXPECT_GT(std::nextafter(t, 1e300) * g, ep::fmch_switch_point(lab)) << lab << " " << g;
        }
}

// The points, not the shell pairs, are divided among the threads, so every
// point receives its terms in one order: the values are the same bits for any
// thread count, the progress is one sequence of lines, and both paths count
// the same evaluations.
TEST_F(Multipoles, ThreadCountLeavesEveryBitAndTheProgressAlone) {
    auto mol = every_type_molecule();
    double half[3][3] = {{6.0, 0, 0}, {0, 1.0, 0}, {0, 0, 1.5}}, sp[3] = {0.5, 0.5, 0.5};
    const double centre[3] = {1.5, 0.4, 0.1};
    int n[3] = {13, 3, 5};
    auto g = kvx::grid::grid_build(3, centre, half, sp, n);
    std::vector<double> one;
    std::string one_text;
    ep::PotPathCounts one_counts{};
    for (int numt : {1, 2, 3, 7}) {
        ASSERT_EQ(ep::elepot_init(mol.get(), g.get(), 400.0, 1e-10, numt), 1);
        std::vector<double> out(g->total, -123.0);
        const std::string text = kvx::test::captured([&] { ep::comp_elepot(out.data(), mol.get(), nullptr); });
        const auto counts = ep::elepot_path_counts();
        if (numt == 1) {
            one = out, one_text = text, one_counts = counts;
            continue;
        }
        EXPECT_EQ(out, one) << numt << " threads";
        EXPECT_EQ(text, one_text) << numt << " threads";
        EXPECT_EQ(counts.kernels, one_counts.kernels) << numt << " threads";
        EXPECT_EQ(counts.multipoles, one_counts.multipoles) << numt << " threads";
    }
    // An interrupt stops every thread after its current shell pair.
    ASSERT_EQ(ep::elepot_init(mol.get(), g.get(), 400.0, 1e-10, 3), 1);
    kvx::common::abort_flag = 1;
    std::vector<double> out(g->total);
    EXPECT_EQ(kvx::test::captured([&] { ep::comp_elepot(out.data(), mol.get(), nullptr); }),
              "Computing Electrostatic Potential:\n ABORTED\n");
    kvx::common::abort_flag = 0;
}

// -memmax holds the blocks of all threads together: 0.01 MB is four blocks
// of 288 doubles (d6 shells of the water job), so three threads take one
// point per slice, and 0.003 MB, one block, leaves one thread.
TEST_F(Multipoles, MemmaxBoundsTheSlicesOfAllThreadsTogether) {
    auto mol = kvx::moldata::build_molecule(KVX_TEST_DATA "/water/water").molecule;
    double half[3][3] = {{1.2, 0, 0}, {0, 0.9, 0}, {0, 0, 0.6}}, sp[3] = {0.6, 0.6, 0.6};
    const double centre[3] = {0.3, -0.1, 0.4};
    int n[3] = {5, 4, 3};
    auto g = kvx::grid::grid_build(3, centre, half, sp, n);
    ASSERT_EQ(ep::elepot_init(mol.get(), g.get(), 0.01, 1e-10, 3), 1);
    EXPECT_EQ(ep::elepot_slice_sizes(), std::vector<int>(20, 1));
    std::vector<double> three(g->total), one(g->total);
    kvx::test::captured([&] { ep::comp_elepot(three.data(), mol.get(), nullptr); });
    ASSERT_EQ(ep::elepot_init(mol.get(), g.get(), 0.003, 1e-10, 3), 1);
    EXPECT_EQ(ep::elepot_slice_sizes(), std::vector<int>(60, 1));
    kvx::test::captured([&] { ep::comp_elepot(one.data(), mol.get(), nullptr); });
    EXPECT_EQ(three, one);
}

}  // namespace
