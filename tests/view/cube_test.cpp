// kalvex-cube on the water job: header, atoms and values against the job file,
// the property file and kalvex's own single-point values; Open Babel as a
// real reader; refusals that leave no file behind.
#include "view/cube.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>

#include "view_run.h"

namespace kvx::viewtest {
namespace {

struct Cube {
    std::string comments;
    int natoms = 0, n[3] = {};
    double origin[3] = {}, axis[3][3] = {}, atoms[3][5] = {};
    std::vector<int> per_line;  // values on each value line
    std::vector<double> v;
    double at(int ix, int iy, int iz) const { return v[static_cast<std::size_t>((ix * n[1] + iy) * n[2] + iz)]; }
};

Cube read_cube(const fs::path& p) {
    Cube c;
    std::ifstream f(p);
    std::string line[2];
    std::getline(f, line[0]);
    std::getline(f, line[1]);
    c.comments = line[0] + "\n" + line[1];
    f >> c.natoms >> c.origin[0] >> c.origin[1] >> c.origin[2];
    for (int d = 0; d < 3; ++d) f >> c.n[d] >> c.axis[d][0] >> c.axis[d][1] >> c.axis[d][2];
    for (int a = 0; a < std::min(c.natoms, 3); ++a)
        for (double& x : c.atoms[a]) f >> x;
    std::getline(f, line[0]);
    while (std::getline(f, line[0])) {
        std::istringstream s(line[0]);
        int k = 0;
        for (double x; s >> x; ++k) c.v.push_back(x);
        c.per_line.push_back(k);
    }
    return c;
}

class CubeTool : public ::testing::Test {
protected:
    WaterDir d;
    void SetUp() override {
        // Unequal counts: any mix-up of axes lands on another point or none.
        ASSERT_EQ(d.kalvex("-xp 7 -yp 9 -zp 11 -base w -moa 3").status, 0);
        ASSERT_EQ(d.kalvex("-xp 7 -yp 9 -zp 11 -base s -fgrid 0 -moa 3").status, 0);
    }
    double point_value(const double p[3]) const {
        char args[200];
        std::snprintf(args, sizeof args, "-point -px %.9f -py %.9f -pz %.9f -moa 3", p[0], p[1], p[2]);
        const Ran r = d.kalvex(args);
        const auto at = r.out.find("Property:");
        return at == std::string::npos ? NAN : std::atof(r.out.c_str() + at + 9);
    }
};

TEST_F(CubeTool, HoldsTheJobsAtomsAndEachValueAtItsGridPoint) {
    const Ran r = d.run(tool("kalvex-cube") + " water w-moa-3.grid");
    ASSERT_EQ(r.status, 0) << r.out;
    const Cube c = read_cube(d.path() / "w-moa-3.cube");
    const GridText g = read_grid_text(d.path() / "w-moa-3.grid");
    for (const std::string& word : {std::string("water"), std::string("moa-3"), std::to_string(g.stamp)})
        EXPECT_NE(c.comments.find(word), std::string::npos) << word;

    ASSERT_EQ(c.natoms, 3);
    for (int a = 0; a < 3; ++a) {
        const double want[5] = {double(kWater[a].z), double(kWater[a].z), kWater[a].x, kWater[a].y, kWater[a].z_};
        for (int k = 0; k < 5; ++k) EXPECT_NEAR(c.atoms[a][k], want[k], 1e-6) << a << " " << k;
    }
    for (int d3 = 0; d3 < 3; ++d3) {
        EXPECT_EQ(c.n[d3], g.n[d3]);
        EXPECT_EQ(c.origin[d3], g.origin[d3]);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(c.axis[d3][k], k == d3 ? g.step[d3] : 0.0);
    }
    // Each z run of 11 values fills one line of six and one of five.
    ASSERT_EQ(c.per_line.size(), 7u * 9 * 2);
    for (std::size_t l = 0; l < c.per_line.size(); ++l) ASSERT_EQ(c.per_line[l], l % 2 ? 5 : 6) << l;

    ASSERT_EQ(c.v.size(), g.v.size());
    std::vector<std::tuple<double, int, int, int>> big;
    for (int ix = 0; ix < 7; ++ix)
        for (int iy = 0; iy < 9; ++iy)
            for (int iz = 0; iz < 11; ++iz) {
                ASSERT_NEAR(c.at(ix, iy, iz), g.at(ix, iy, iz), 5e-6 * std::fabs(g.at(ix, iy, iz)) + 1e-12);
                if (ix != iy && iy != iz && ix != iz) big.emplace_back(-std::fabs(c.at(ix, iy, iz)), ix, iy, iz);
            }
    // Kalvex evaluates the orbital afresh at the points of the three largest
    // values whose indices differ pairwise; the cube holds them there, and
    // the x-z swapped point holds something else.
    std::sort(big.begin(), big.end());
    for (int k = 0; k < 3; ++k) {
        const auto [neg, ix, iy, iz] = big[k];
        const double p[3] = {g.coordinate(0, ix), g.coordinate(1, iy), g.coordinate(2, iz)};
        const double fresh = point_value(p);
        EXPECT_GT(-neg, 0.01);
        EXPECT_NEAR(c.at(ix, iy, iz), fresh, 2e-5 * std::fabs(fresh) + 2e-6) << ix << " " << iy << " " << iz;
        if (iz < 7 && ix < 11) {
            EXPECT_GT(std::fabs(c.at(iz, iy, ix) - fresh), 1e-3);
        }
    }

    // Storage-order files give the same cube with the option, another without.
    ASSERT_EQ(d.run(tool("kalvex-cube") + " water s-moa-3.grid --storage-order").status, 0);
    ASSERT_EQ(d.run(tool("kalvex-cube") + " water s-moa-3.grid wrong.cube").status, 0);
    EXPECT_EQ(read_cube(d.path() / "s-moa-3.cube").v, c.v);
    EXPECT_NE(read_cube(d.path() / "wrong.cube").v, c.v);
}

TEST_F(CubeTool, OpenBabelReadsTheAtomsBack) {
    if (std::system("command -v obabel >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "obabel is not on PATH (Debian package openbabel; scripts/setup.sh --tests installs it)";
    ASSERT_EQ(d.run(tool("kalvex-cube") + " water w-moa-3.grid").status, 0);
    const Ran r = d.run("obabel -icube w-moa-3.cube -oxyz -O back.xyz");
    ASSERT_EQ(r.status, 0) << r.out;
    std::istringstream s(slurp(d.path() / "back.xyz"));
    int n = 0;
    std::string line;
    s >> n;
    std::getline(s, line);
    std::getline(s, line);  // title
    ASSERT_EQ(n, 3) << s.str();
    const double angstrom = 0.529177210903;  // bohr
    for (int a = 0; a < 3; ++a) {
        std::string sym;
        double x, y, z;
        s >> sym >> x >> y >> z;
        EXPECT_EQ(sym, a == 0 ? "O" : "H");
        EXPECT_NEAR(x, kWater[a].x * angstrom, 1e-4);
        EXPECT_NEAR(y, kWater[a].y * angstrom, 1e-4);
        EXPECT_NEAR(z, kWater[a].z_ * angstrom, 1e-4);
    }
}

// The first comment line says which density (or orbital convention) the
// values are: Kalvex's densities leave out the cross terms between shells,
// and a closed-shell job's alpha and spin densities are its total density.
TEST_F(CubeTool, CommentLineNamesKalvexsDefinition) {
    for (const char* ext : {".control", ".coord", ".basis", ".mos", ".mob"})
        fs::copy_file(fs::path(KVX_TEST_DATA) / "ohrad" / (std::string("ohrad") + ext),
                      d.path() / (std::string("ohrad") + ext));
    ASSERT_EQ(d.kalvex("-xp 4 -yp 4 -zp 4 -base c -den -dena -spin").status, 0);
    ASSERT_EQ(d.run("'" KVX_BINARY "' ohrad -xp 4 -yp 4 -zp 4 -base o -spin -denb </dev/null").status, 0);
    const std::pair<const char*, const char*> cases[] = {
        {"water c-den.grid",
         "Kalvex cube: job water, property den: total density without the cross terms between shells"},
        {"water c-dena.grid",
         "Kalvex cube: job water, property dena: alpha density, for this closed-shell job the "
         "total density, without the cross terms between shells"},
        {"water c-spin.grid",
         "Kalvex cube: job water, property spin: spin density, for this closed-shell job the "
         "total density, without the cross terms between shells"},
        {"water w-moa-3.grid",
         "Kalvex cube: job water, property moa-3: alpha orbital 3 with the displacement atom "
         "minus point (odd-l functions negated)"},
        {"ohrad o-spin.grid",
         "Kalvex cube: job ohrad, property spin: spin density (alpha minus beta) without the "
         "cross terms between shells"},
        {"ohrad o-denb.grid",
         "Kalvex cube: job ohrad, property denb: beta density without the cross terms between "
         "shells"},
    };
    for (const auto& [args, first] : cases) {
        ASSERT_EQ(d.run(tool("kalvex-cube") + " " + args + " out.cube").status, 0) << args;
        const Cube c = read_cube(d.path() / "out.cube");
        EXPECT_EQ(c.comments.substr(0, c.comments.find('\n')), first) << args;
    }
}

// The file is the text fprintf gives: "%13.5E" values of every kind, six to
// a line and each z run ending its line (runs of 7: a line of 6 and one of 1).
TEST(CubeText, IsWhatPrintfWouldWrite) {
    view::PropertyFile pf;
    pf.count[0] = 2, pf.count[1] = 3, pf.count[2] = 7;
    pf.origin[0] = -1.25, pf.step[0] = pf.step[1] = pf.step[2] = 0.5;
    const double special[] = {0.0, -0.0, 1e-300, -9.999995e-3, 1.234565e-5, 1e300, -4.94e-324, 0.5, 99999.5};
    for (int k = 0; k < 42; ++k) pf.values.push_back(k < 9 ? special[k] : std::ldexp(std::sin(k) * 1e6, -3 * k));
    std::vector<moldata::Atom> atoms(2);
    atoms[0].atomic_number = 8, atoms[0].nuclear_charge = 8, atoms[0].z = -0.1234565;
    atoms[1].atomic_number = 1, atoms[1].nuclear_charge = 1, atoms[1].x = 1.5;
    const std::string comments[2] = {"one", "two"};
    std::FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    ASSERT_TRUE(view::write_cube(f, comments, pf, atoms));
    std::string got(static_cast<std::size_t>(std::ftell(f)), '\0');
    std::rewind(f);
    ASSERT_EQ(std::fread(got.data(), 1, got.size(), f), got.size());
    std::fclose(f);

    char line[256];
    std::string want = "one\ntwo\n";
    std::snprintf(line, sizeof line, "%5d%12.6f%12.6f%12.6f\n", 2, -1.25, 0.0, 0.0);
    want += line;
    for (int d = 0; d < 3; ++d) {
        std::snprintf(line, sizeof line, "%5d%12.6f%12.6f%12.6f\n", pf.count[d], d == 0 ? 0.5 : 0.0, d == 1 ? 0.5 : 0.0,
                      d == 2 ? 0.5 : 0.0);
        want += line;
    }
    for (const auto& a : atoms) {
        std::snprintf(line, sizeof line, "%5d%12.6f%12.6f%12.6f%12.6f\n", a.atomic_number, a.nuclear_charge, a.x, a.y,
                      a.z);
        want += line;
    }
    for (int k = 0; k < 42; ++k) {
        std::snprintf(line, sizeof line, "%13.5E", pf.values[static_cast<std::size_t>(k)]);
        want += line;
        if (k % 7 == 5 || k % 7 == 6) want += "\n";
    }
    EXPECT_EQ(got, want);
}

TEST_F(CubeTool, RefusalsGiveOneMessageStatusOneAndNoFile) {
    // Header promising one plane more than the file holds.
    std::string text = slurp(d.path() / "w-moa-3.grid");
    text.replace(text.find("\n7 9 11\n"), 8, "\n7 9 12\n");
    std::ofstream(d.path() / "bad-moa-3.grid") << text;
    // More atoms in .coord than .control announces: the readers refuse the job.
    fs::create_directory(d.path() / "j");
    for (const std::string ext : {".coord", ".basis", ".mos"})
        fs::copy_file(d.path() / ("water" + ext), d.path() / "j" / ("water" + ext));
    std::string control = slurp(d.path() / "water.control");
    control.replace(control.find("$natoms 3"), 9, "$natoms 2");
    std::ofstream(d.path() / "j" / "water.control") << control;

    expect_refusals(d, "kalvex-cube", {
        {"water bad-moa-3.grid", "bad-moa-3.grid: holds 693 values, the counts 7 x 9 x 12 = 756"},
        {"nosuch w-moa-3.grid out.cube", "cannot read job nosuch"},
        {"j/water w-moa-3.grid out.cube", "cannot read job j/water: Read_atomdata: number of atoms exceeded"},
        {"water missing.grid out.cube", "missing.grid: cannot open"},
        {"water w-moa-3.grid no/such/dir/out.cube", "cannot create no/such/dir/out.cube"},
        {"water", "usage: kalvex-cube JOB FILE.grid"},
        {"water w-moa-3.grid out.cube --zorder", "unknown option --zorder"},
    });
}

}  // namespace
}  // namespace kvx::viewtest
