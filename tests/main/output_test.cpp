// Stamps, stamp text, file names, the reuse test and the grid file layout.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "grid/grid.h"
#include "grid/property_grid.h"
#include "main/output.h"

namespace kvx::main {
namespace {

namespace fs = std::filesystem;

// Plain ones'-complement sum of big-endian 32-bit words: add everything in 64
// bits, then fold the overflow back in until it fits.
uint32_t ones_complement_sum(const std::vector<unsigned char>& b, uint32_t seed) {
    uint64_t s = seed;
    for (std::size_t i = 0; i + 4 <= b.size(); i += 4)
        s += uint64_t{b[i]} << 24 | uint64_t{b[i + 1]} << 16 | uint64_t{b[i + 2]} << 8 | b[i + 3];
    while (s >> 32) s = (s & 0xFFFFFFFFu) + (s >> 32);
    return static_cast<uint32_t>(s);
}

TEST(Stamp, HandWorkedValues) {
    const unsigned char a[4] = {0x00, 0x01, 0x00, 0x02};
    EXPECT_EQ(stamp(a, 4, 0x00030004u), 0x00040006u);
    // 0xFFFFFFFF + 1: the low column carries into the high one, whose carry
    // comes back around into the low column.
    const unsigned char one[4] = {0, 0, 0, 1};
    EXPECT_EQ(stamp(one, 4, 0xFFFFFFFFu), 1u);
    // 1.0 in memory is 00 00 00 00 00 00 F0 3F: the second group gives F03F.
    const double d = 1.0;
    EXPECT_EQ(stamp(&d, 8, 0), 0x0000F03Fu);
    EXPECT_EQ(stamp(nullptr, 0, 0x12345678u), 0x12345678u);
    // 1000 words of all ones sum to 1000 (2^32 - 1) == 0: the folded, non-zero
    // representative.
    std::vector<unsigned char> ff(4000, 0xFF);
    EXPECT_EQ(stamp(ff.data(), ff.size(), 0), 0xFFFFFFFFu);
}

TEST(Stamp, AgreesWithPlainOnesComplementSum) {
    std::mt19937 rng(12345);
    const uint32_t seeds[] = {0u, 1u, 0xFFFFu, 0x10000u, 0xFFFF0000u, 0xFFFFFFFEu, 0xFFFFFFFFu};
    for (int trial = 0; trial < 200; ++trial) {
        const std::size_t len = 4 * (rng() % 300);
        std::vector<unsigned char> b(len);
        // Bias towards 0xFF so that both columns carry often.
        for (auto& x : b) x = (rng() % 3 == 0) ? 0xFF : static_cast<unsigned char>(rng());
        const uint32_t seed = trial < 7 ? seeds[trial] : static_cast<uint32_t>(rng());
        ASSERT_EQ(stamp(b.data(), b.size(), seed), ones_complement_sum(b, seed))
            << "trial " << trial;
    }
    // Only the low column overflows: 0x0000FFFF + 0x0000FFFF = 0x0001FFFE.
    const unsigned char lo[8] = {0, 0, 0xFF, 0xFF, 0, 0, 0xFF, 0xFF};
    EXPECT_EQ(stamp(lo, 8, 0), 0x0001FFFEu);
}

TEST(Stamp, ChainingEqualsOneStream) {
    const unsigned char a[12] = {1, 2, 3, 4, 0xFF, 0xFE, 0xFD, 0xFC, 9, 8, 7, 6};
    EXPECT_EQ(stamp(a + 4, 8, stamp(a, 4, 777)), stamp(a, 12, 777));
}

TEST(StampText, ExamplesAndDecoding) {
    char t[17];
    stamp_text(0, t);
    EXPECT_STREQ(t, "0000000000000000");
    stamp_text(0xFFFFFFFFu, t);
    EXPECT_STREQ(t, "orrrrooooooooooo");
    stamp_text(0x12345678u, t);
    EXPECT_STREQ(t, "N6AGN49EN4AEN49E");
    // Every byte value: four characters, letters or digits only, whose codes
    // sum to 4*48 + the byte (so the text decodes).
    for (unsigned b = 0; b < 256; ++b) {
        const uint32_t s = b << 24 | ((b * 7 + 3) & 0xFF) << 16 | ((255 - b) << 8) | (b ^ 0x5A);
        stamp_text(s, t);
        ASSERT_EQ(std::strlen(t), 16u);
        for (int k = 0; k < 4; ++k) {
            const unsigned byte = (s >> (8 * (3 - k))) & 0xFF;
            int sum = 0;
            for (int j = 0; j < 4; ++j) {
                const char ch = t[(4 * j + k + 1) % 16];  // undo the rotation by one
                ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(ch))) << s << " " << ch;
                sum += ch;
            }
            ASSERT_EQ(sum, 4 * 48 + static_cast<int>(byte)) << std::hex << s;
        }
    }
}

grid::Grid sample_grid() {
    grid::Grid g;
    g.ndim = 3;
    const double c[3] = {0.25, -1.5, 3.0};
    const double o[3] = {-2.0, -4.5, 1.0};
    for (int i = 0; i < 3; ++i) {
        g.centre[i] = c[i];
        g.origin[i] = o[i];
        g.axes[i][i] = 0.5 + 0.25 * i;
        g.counts[i] = 5 + i;
        g.spacings[i] = g.axes[i][i];
        g.lengths[i] = (g.counts[i] - 1) * g.spacings[i];
    }
    g.total = 5 * 6 * 7;
    return g;
}

template <class T>
void append(std::vector<unsigned char>& b, const T* p, int n) {
    const auto* c = reinterpret_cast<const unsigned char*>(p);
    b.insert(b.end(), c, c + n * sizeof(T));
}

TEST(GridStamp, CoversEveryFieldInOrder) {
    const grid::Grid g = sample_grid();
    const uint32_t seed = 0xBEEF1234u;
    EXPECT_EQ(grid_stamp(nullptr, seed), seed);

    // The byte stream written out by hand, field by field.
    std::vector<unsigned char> b;
    append(b, g.centre, 3);
    append(b, g.origin, 3);
    for (int c = 0; c < 3; ++c) append(b, g.axes[c], g.ndim);
    append(b, g.lengths, g.ndim);
    append(b, g.spacings, g.ndim);
    append(b, g.counts, g.ndim);
    EXPECT_EQ(grid_stamp(&g, seed), ones_complement_sum(b, seed));

    const uint32_t base = grid_stamp(&g, seed);
    EXPECT_NE(grid_stamp(&g, seed + 1), base);
    auto changed = [&](auto edit) {
        grid::Grid h = g;
        edit(h);
        return grid_stamp(&h, seed) != base;
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(changed([i](grid::Grid& h) { h.centre[i] += 0.1; })) << i;
        EXPECT_TRUE(changed([i](grid::Grid& h) { h.origin[i] -= 0.1; })) << i;
        EXPECT_TRUE(changed([i](grid::Grid& h) { h.lengths[i] *= 2; })) << i;
        EXPECT_TRUE(changed([i](grid::Grid& h) { h.spacings[i] *= 1.5; })) << i;
        EXPECT_TRUE(changed([i](grid::Grid& h) { h.counts[i] += 1; })) << i;
        for (int d = 0; d < 3; ++d)
            EXPECT_TRUE(changed([i, d](grid::Grid& h) { h.axes[i][d] += 0.01; })) << i << d;
    }
    // The name is no part of the geometry.
    EXPECT_FALSE(changed([](grid::Grid& h) { h.property_name = "den"; }));

    // Entries beyond the dimension count are not read.
    grid::Grid two = g;
    two.ndim = 2;
    const uint32_t s2 = grid_stamp(&two, seed);
    two.axes[0][2] = 99.0;
    two.counts[2] = 1234;
    two.lengths[2] = -1.0;
    EXPECT_EQ(grid_stamp(&two, seed), s2);
}

TEST(NameFile, Forms) {
    EXPECT_EQ(name_file("B", ".", "den", nullptr), "./B-den.grid");
    EXPECT_EQ(name_file("B", "./", "den", nullptr), "./B-den.grid");
    EXPECT_EQ(name_file("B", "", "den", nullptr), "B-den.grid");
    EXPECT_EQ(name_file("MyMol", "/tmp/scr", "moa", "7"), "/tmp/scr/MyMol-moa-7.grid");
    EXPECT_EQ(name_file("B", "/tmp/scr/", "moa", "3-5"), "/tmp/scr/B-moa-3.grid");
    EXPECT_EQ(name_file("B", "d", "nos", "12,14"), "d/B-nos-12.grid");
    EXPECT_EQ(name_file("B", "d", "mob", ""), "d/B-mob.grid");  // no number to read
}

// A fresh directory, removed with its contents afterwards.
class TempDir : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kvx_output_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& leaf) const { return dir + "/" + leaf; }
    std::vector<std::string> lines(const std::string& name) const {
        std::ifstream in(name);
        std::vector<std::string> out;
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
    std::string dir;
};

using FileExists = TempDir;

TEST_F(FileExists, MatchesOnlyTheStampOfTheFirstLine) {
    const std::string name = path("B-den.grid");
    EXPECT_FALSE(file_exists(name, 42));
    std::ofstream(name) << "3735928559\n0.0 0.0\n";  // body is not checked
    EXPECT_TRUE(file_exists(name, 3735928559u));
    EXPECT_FALSE(file_exists(name, 3735928558u));
    std::ofstream(path("junk.grid")) << "not a number\n";
    EXPECT_FALSE(file_exists(path("junk.grid"), 0));
    EXPECT_FALSE(file_exists(dir, 0));  // a directory cannot be read as a file
}

using GridFile = TempDir;

// 3 x 2 x 4 grid (nx, ny, nz) with value 100 ix + 10 iy + iz stored at the
// position ix*ny*nz + iy*nz + iz (last dimension fastest).
struct Filled {
    std::unique_ptr<grid::Grid> g;
    std::unique_ptr<grid::PropertyGrid> pg;
};

Filled filled_grid(const std::string& filename) {
    Filled f;
    const double c[3] = {1.0, 0.0, -1.0};
    const double half[3][3] = {{1.0, 0, 0}, {0, 0.25, 0}, {0, 0, 1.5}};
    const double h[3] = {0.5, 0.5, 0.5};
    const int n[3] = {3, 2, 4};  // 2 points: from the spacing, ceil(0.5/0.5) + 1
    f.g = grid::grid_build(3, c, half, h, n);
    f.pg = grid::property_grid_create(f.g.get());
    for (int ix = 0; ix < 3; ++ix)
        for (int iy = 0; iy < 2; ++iy)
            for (int iz = 0; iz < 4; ++iz) f.pg->values[ix * 8 + iy * 4 + iz] = 100 * ix + 10 * iy + iz;
    f.pg->filename = filename;
    return f;
}

TEST_F(GridFile, XFastestAndStorageOrdersReadBack) {
    Filled f = filled_grid(path("B-den.grid"));
    ASSERT_TRUE(f.pg);
    ASSERT_EQ(f.g->counts[1], 2);

    testing::internal::CaptureStdout();
    fout_dbs(f.pg.get(), 4000000000u, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Property file: " + f.pg->filename + "\n");
    std::vector<std::string> l = lines(f.pg->filename);
    ASSERT_EQ(l.size(), 4u + 24u);
    EXPECT_EQ(l[0], "4000000000");
    EXPECT_EQ(l[1], "0.000000 -0.250000 -2.500000");  // centre minus half the lattice
    EXPECT_EQ(l[2], "1.000000 0.500000 1.000000");
    EXPECT_EQ(l[3], "3 2 4");
    std::size_t at = 4;
    for (int iz = 0; iz < 4; ++iz)
        for (int iy = 0; iy < 2; ++iy)
            for (int ix = 0; ix < 3; ++ix)
                ASSERT_DOUBLE_EQ(std::stod(l[at++]), 100 * ix + 10 * iy + iz) << ix << iy << iz;

    // -fgrid 0: storage order, z fastest; replaces the older file.
    testing::internal::CaptureStdout();
    fout_dbs(f.pg.get(), 7u, 0);
    testing::internal::GetCapturedStdout();
    l = lines(f.pg->filename);
    ASSERT_EQ(l.size(), 28u);
    EXPECT_EQ(l[0], "7");
    at = 4;
    for (int ix = 0; ix < 3; ++ix)
        for (int iy = 0; iy < 2; ++iy)
            for (int iz = 0; iz < 4; ++iz) ASSERT_DOUBLE_EQ(std::stod(l[at++]), 100 * ix + 10 * iy + iz);
    EXPECT_TRUE(file_exists(f.pg->filename, 7u));

    // Nothing but the file itself is left in the directory.
    int entries = 0;
    for (const auto& e : fs::directory_iterator(dir)) entries += e.is_regular_file();
    EXPECT_EQ(entries, 1);
}

TEST_F(GridFile, LowerDimensionsPrintThreeCountsAndSmallValuesAsZero) {
    const double c[3] = {0, 0, 0};
    const double half[3][3] = {{1.0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    const double h[1] = {0.5};
    const int n[1] = {3};
    auto g = grid::grid_build(1, c, half, h, n);
    auto pg = grid::property_grid_create(g.get());
    pg->values = {4e-7, -4e-7, 2.5};
    pg->filename = path("line.grid");
    testing::internal::CaptureStdout();
    fout_dbs(pg.get(), 1u, 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(lines(pg->filename),
              (std::vector<std::string>{"1", "-1.000000 0.000000 0.000000", "1.000000 0.000000 0.000000",
                                        "3 1 1", "0.000000", "-0.000000", "2.500000"}));
}

TEST_F(GridFile, UnwritablePlaceReportsAndWritesNothing) {
    Filled f = filled_grid(path("missing/B-den.grid"));
    testing::internal::CaptureStdout();
    fout_dbs(f.pg.get(), 1u, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Output fout_dbs: cannot open grid file " + f.pg->filename + "\n");
    EXPECT_FALSE(fs::exists(f.pg->filename));

    // No name, no grid: nothing happens at all.
    f.pg->filename.clear();
    testing::internal::CaptureStdout();
    fout_dbs(f.pg.get(), 1u, 1);
    fout_dbs(nullptr, 1u, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(GridFile, SinglePointModePrintsTheMiddlePointOnly) {
    // The driver's single-point grid: 3 x 3 x 3, spacing 0.5, around (1, 0, 0).
    const double c[3] = {1.0, 0.0, 0.0};
    const double half[3][3] = {{0.5, 0, 0}, {0, 0.5, 0}, {0, 0, 0.5}};
    const double h[3] = {0.5, 0.5, 0.5};
    const int n[3] = {3, 3, 3};
    auto g = grid::grid_build(3, c, half, h, n);
    auto pg = grid::property_grid_create(g.get());
    for (std::size_t k = 0; k < pg->values.size(); ++k) pg->values[k] = -1.0;
    pg->values[13] = 0.123456;  // (1, 1, 1) = 9 + 3 + 1
    pg->filename = path("P-den.grid");

    int point_mode = 1;
    set_point_mode_link(&point_mode);
    testing::internal::CaptureStdout();
    write_property(pg.get(), 5u, 1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Point:1.000000 0.000000 0.000000 Property: 0.123456 \n");
    EXPECT_FALSE(fs::exists(pg->filename));

    point_mode = 0;
    testing::internal::CaptureStdout();
    write_property(pg.get(), 5u, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Property file: " + pg->filename + "\n");
    EXPECT_TRUE(file_exists(pg->filename, 5u));
    set_point_mode_link(nullptr);
}

TEST_F(TempDir, InodeOfTheJobOutput) {
    const std::string job = path("job");
    testing::internal::CaptureStdout();
    EXPECT_EQ(get_inode(job.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Output get_inode: Warning, cannot get inode for " + job + ".out\n");
    std::ofstream(job + ".out") << "x";
    struct stat st;
    ASSERT_EQ(stat((job + ".out").c_str(), &st), 0);
    const int v = get_inode(job.c_str());
    EXPECT_GE(v, -32768);
    EXPECT_LE(v, 32767);
    EXPECT_EQ(static_cast<unsigned>(v) & 0xFFFFu, st.st_ino & 0xFFFFu);
}

}  // namespace
}  // namespace kvx::main
