// Stamps, stamp text, file names, the reuse test and the grid file layout.
#include "main/output.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "common/capture.h"
#include "common/command.h"
#include "common/temp_dir.h"
#include "grid/grid.h"
#include "grid/property_grid.h"

namespace kvx::main {
namespace {

namespace fs = std::filesystem;

// Independent reference: ones'-complement sum of big-endian 32-bit words,
// added in 64 bits and the overflow folded back until it fits.
uint32_t ones_complement_sum(const std::vector<unsigned char>& b, uint32_t seed) {
    uint64_t s = seed;
    for (std::size_t i = 0; i + 4 <= b.size(); i += 4)
        s += uint64_t{b[i]} << 24 | uint64_t{b[i + 1]} << 16 | uint64_t{b[i + 2]} << 8 | b[i + 3];
    while (s >> 32) s = (s & 0xFFFFFFFFu) + (s >> 32);
    return static_cast<uint32_t>(s);
}

TEST(Stamp, MatchesHandValuesAndOnesComplementSumUnderHeavyCarry) {
    const unsigned char a[4] = {0x00, 0x01, 0x00, 0x02}, one[4] = {0, 0, 0, 1};
    EXPECT_EQ(stamp(a, 4, 0x00030004u), 0x00040006u);
    EXPECT_EQ(stamp(one, 4, 0xFFFFFFFFu), 1u);  // both columns carry, end-around
    std::vector<unsigned char> ff(4000, 0xFF);  // 1000 * (2^32 - 1): the non-zero zero
    EXPECT_EQ(stamp(ff.data(), ff.size(), 0), 0xFFFFFFFFu);

    std::mt19937 rng(12345);
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<unsigned char> b(4 * (rng() % 300));
        // Bias towards 0xFF so that both 16-bit columns carry often.
        for (auto& x : b) x = (rng() % 3 == 0) ? 0xFF : static_cast<unsigned char>(rng());
        const uint32_t seed = trial < 3 ? 0xFFFFFFFFu - trial : static_cast<uint32_t>(rng());
        ASSERT_EQ(stamp(b.data(), b.size(), seed), ones_complement_sum(b, seed)) << trial;
    }
}

TEST(StampText, HandWorkedExamples) {
    char t[17];
    const std::pair<uint32_t, const char*> examples[] = {
        {0u, "0000000000000000"}, {0xFFFFFFFFu, "orrrrooooooooooo"}, {0x12345678u, "N6AGN49EN4AEN49E"}};
    for (const auto& [s, text] : examples) {
        stamp_text(s, t);
        EXPECT_STREQ(t, text);
    }
}

TEST(GridStamp, IsTheSumOverEachGeometryFieldAndChangesWithEach) {
    grid::Grid g;
    g.ndim = 3;
    for (int i = 0; i < 3; ++i) {
        g.centre[i] = 0.25 - 1.5 * i;
        g.origin[i] = -2.0 + i;
        g.axes[i][i] = g.spacings[i] = 0.5 + 0.25 * i;
        g.counts[i] = 5 + i, g.lengths[i] = 2.0 + i;
    }
    const uint32_t seed = 0xBEEF1234u, base = grid_stamp(&g, seed);
    EXPECT_EQ(grid_stamp(nullptr, seed), seed);

    std::vector<unsigned char> b;  // the byte stream, field by field
    for (const double* f : {g.centre, g.origin, g.axes[0], g.axes[1], g.axes[2], g.lengths, g.spacings})
        b.insert(b.end(), reinterpret_cast<const char*>(f), reinterpret_cast<const char*>(f + 3));
    b.insert(b.end(), reinterpret_cast<const char*>(g.counts), reinterpret_cast<const char*>(g.counts + 3));
    EXPECT_EQ(base, ones_complement_sum(b, seed));

    for (int i = 0; i < 3; ++i) {
        grid::Grid h = g;
        h.counts[i] += 1;
        EXPECT_NE(grid_stamp(&h, seed), base) << "count " << i;
        int field = 0;
        for (double* f : {h.centre, h.origin, h.lengths, h.spacings, h.axes[0], h.axes[1], h.axes[2]}) {
            h = g;
            f[i] += 0.1;
            EXPECT_NE(grid_stamp(&h, seed), base) << "field " << field++ << " entry " << i;
        }
    }
}

TEST(NameFile, DirectoryAndOrbitalNumberForms) {
    using moldata::kPropertyWords;
    using enum moldata::RequestKind;
    const auto& den = kPropertyWords[kReqDen];
    EXPECT_EQ(name_file("B", ".", den, nullptr), "./B-den.grid");
    EXPECT_EQ(name_file("B", "./", den, nullptr), "./B-den.grid");
    EXPECT_EQ(name_file("B", "", den, nullptr), "B-den.grid");
    EXPECT_EQ(name_file("MyMol", "/tmp/scr", kPropertyWords[kReqMoa], "7"), "/tmp/scr/MyMol-moa-7.grid");
    EXPECT_EQ(name_file("B", "/tmp/scr/", kPropertyWords[kReqMoa], "3-5"), "/tmp/scr/B-moa-3.grid");
    EXPECT_EQ(name_file("B", "d", kPropertyWords[kReqNos], "12,14"), "d/B-nos-12.grid");
    EXPECT_EQ(name_file("B", "d", kPropertyWords[kReqMob], ""), "d/B-mob.grid");
    // Only orbitals carry a number: the first argument of -partd is a type.
    EXPECT_EQ(name_file("B", "d", kPropertyWords[kReqPartd], "1"), "d/B-partd.grid");
    const std::pair<int, const char*> words[] = {{kReqEp, "ep"},      {kReqDena, "dena"}, {kReqDenb, "denb"},
                                                 {kReqSpin, "spin"},  {kReqLoa, "loa"},   {kReqLob, "lob"},
                                                 {kReqParts, "parts"}};
    for (const auto& [kind, word] : words)
        EXPECT_EQ(name_file("B", "", kPropertyWords[kind], nullptr), std::string("B-") + word + ".grid");
}

// A fresh directory, removed with its contents afterwards.
class GridFile : public ::testing::Test {
protected:
    kvx::test::TempDir tmp;
    const std::string dir = tmp.path().string();
    std::string path(const std::string& leaf) const { return tmp.file(leaf); }
    static std::vector<std::string> lines(const std::string& name) {
        std::ifstream in(name);
        std::vector<std::string> out;
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
    // fout_dbs or write_property, returning what it printed.
    template <class F>
    static std::string printed(F write) {
        return kvx::test::captured(write);
    }
    // A grid of spacing 0.5 and its (unfilled) property grid, written to leaf.
    void make(const double c[3], const double half[3][3], const int n[3], const std::string& leaf) {
        const double h[3] = {0.5, 0.5, 0.5};
        g = grid::grid_build(3, c, half, h, n);
        pg = grid::property_grid_create(g.get());
        pg->filename = path(leaf);
    }
    std::unique_ptr<grid::Grid> g;
    std::unique_ptr<grid::PropertyGrid> pg;
};

TEST_F(GridFile, ReuseMatchesOnlyTheStampOnTheFirstLine) {
    const std::string name = path("B-den.grid");
    EXPECT_FALSE(file_exists(name, 42));
    std::ofstream(name) << "3735928559\n0.0 0.0\n";  // the body is not checked
    EXPECT_TRUE(file_exists(name, 3735928559u));
    EXPECT_FALSE(file_exists(name, 3735928558u));
    std::ofstream(path("junk.grid")) << "not a number\n";
    EXPECT_FALSE(file_exists(path("junk.grid"), 0));
}

TEST_F(GridFile, BothValueOrdersReadBackAndBadPlaceIsReported) {
    // 3 x 2 x 4 grid holding 100 ix + 10 iy + iz at ix*8 + iy*4 + iz (z fastest).
    const double c[3] = {1.0, 0.0, -1.0}, half[3][3] = {{1.0, 0, 0}, {0, 0.25, 0}, {0, 0, 1.5}};
    const int n[3] = {3, 2, 4};
    make(c, half, n, "B-den.grid");
    ASSERT_EQ(pg->values.size(), 24u);
    for (int k = 0; k < 24; ++k) pg->values[k] = 100 * (k / 8) + 10 * (k / 4 % 2) + k % 4;

    for (int fgrid : {1, 0}) {  // 1: x fastest; 0: storage order, replacing the file
        EXPECT_EQ(printed([&] { fout_dbs(pg.get(), 4000000000u - fgrid, fgrid); }),
                  "Property file: " + pg->filename + "\n");
        const std::vector<std::string> l = lines(pg->filename);
        ASSERT_EQ(l.size(), 28u);
        EXPECT_EQ(l[0], std::to_string(4000000000u - fgrid));
        EXPECT_EQ(l[1], "0.000000 -0.250000 -2.500000");  // centre minus half the lattice
        EXPECT_EQ(l[2], "1.000000 0.500000 1.000000");
        EXPECT_EQ(l[3], "3 2 4");
        for (int k = 0; k < 24; ++k) {
            const double want = fgrid ? 100 * (k % 3) + 10 * (k / 3 % 2) + k / 6 : pg->values[k];
            ASSERT_DOUBLE_EQ(std::stod(l[4 + k]), want) << fgrid << " " << k;
        }
    }
    EXPECT_TRUE(file_exists(pg->filename, 4000000000u));

    pg->filename = path("missing/B-den.grid");
    EXPECT_EQ(printed([&] { fout_dbs(pg.get(), 1u, 1); }),
              "Output fout_dbs: cannot open grid file " + pg->filename + "\n");
    EXPECT_FALSE(fs::exists(pg->filename));
}

// The whole file is the text printf gives, in either value order: values of
// every kind (ties of the seventh decimal, negative zero, tiny negatives,
// huge), unequal counts, a header with negative and rounded coordinates.
TEST_F(GridFile, FileIsWhatPrintfWouldWrite) {
    const double c[3] = {-0.1234565, 2.0000005, -3.75}, half[3][3] = {{1.0, 0, 0}, {0, 1.25, 0}, {0, 0, 3.0}};
    const int n[3] = {3, 5, 7};
    make(c, half, n, "P-den.grid");
    ASSERT_EQ(pg->values.size(), 105u);
    std::mt19937_64 rng(11);
    const double special[] = {0.0, -0.0, -1e-9, 5e-7, -5e-7, 1.0 / 128, -3.0 / 256, 0.9999995, 1e300, -123456.5};
    for (std::size_t k = 0; k < pg->values.size(); ++k)
        pg->values[k] = k < std::size(special)
                            ? special[k]
                            : std::ldexp(static_cast<double>(rng() % 2000001) - 1e6, -int(rng() % 30));
    const grid::GridGeometry geo = grid::grid_geometry(*g);
    for (int fgrid : {1, 0}) {
        printed([&] { fout_dbs(pg.get(), 123456789u, fgrid); });
        std::string want;
        char line[512];
        std::snprintf(line, sizeof line, "%u\n%f %f %f\n%f %f %f\n%d %d %d\n", 123456789u, g->origin[0], g->origin[1],
                      g->origin[2], geo.M[0][0], geo.M[1][1], geo.M[2][2], n[0], n[1], n[2]);
        want += line;
        for (int iz = 0; iz < n[2]; ++iz)
            for (int iy = 0; iy < n[1]; ++iy)
                for (int ix = 0; ix < n[0]; ++ix) {
                    const int idx[3] = {ix, iy, iz};
                    const int at = fgrid ? geo.index_of_indices(idx) : (iz * n[1] + iy) * n[0] + ix;
                    std::snprintf(line, sizeof line, "%f\n", pg->values[static_cast<std::size_t>(at)]);
                    want += line;
                }
        EXPECT_TRUE(kvx::test::read_file(pg->filename) == want) << "fgrid " << fgrid;
    }
}

TEST_F(GridFile, SinglePointModePrintsTheMiddlePointOnly) {
    // The driver's single-point grid: 3 x 3 x 3, spacing 0.5, around (1, 0, 0).
    const double c[3] = {1.0, 0.0, 0.0}, half[3][3] = {{0.5, 0, 0}, {0, 0.5, 0}, {0, 0, 0.5}};
    const int n[3] = {3, 3, 3};
    make(c, half, n, "P-den.grid");
    pg->values.assign(27, -1.0);
    pg->values[13] = 0.123456;  // (1, 1, 1) = 9 + 3 + 1
    int point_mode = 1;
    set_point_mode_link(&point_mode);
    EXPECT_EQ(printed([&] { write_property(pg.get(), 5u, 1); }),
              "Point:1.000000 0.000000 0.000000 Property: 0.123456 \n");
    EXPECT_FALSE(fs::exists(pg->filename));
    point_mode = 0;
    EXPECT_EQ(printed([&] { write_property(pg.get(), 5u, 1); }), "Property file: " + pg->filename + "\n");
    EXPECT_TRUE(file_exists(pg->filename, 5u));
    set_point_mode_link(nullptr);
}

}  // namespace
}  // namespace kvx::main
