// Contour lines against closed-form curves; kalvex-slice on the water job:
// the plane chosen, the scale's range, the atoms drawn and the embedded
// raster checked against the property file, the XML and PNG read back by
// Python's parsers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "view/colour.h"
#include "view/contour.h"
#include "view_run.h"

namespace kvx::viewtest {
namespace {

using view::Plane;
using view::Polyline;

Plane sample(int n1, int n2, double (*f)(double, double)) {
    Plane p{n1, n2, {}};
    for (int i = 0; i < n1; ++i)
        for (int j = 0; j < n2; ++j) p.v.push_back(f(i, j));
    return p;
}

TEST(ContourLines, CircleIsOneClosedLoopAndAPlaneIsOneStraightLine) {
    // r^2 about (20.3, 17.6): the linear interpolant along an edge lies above
    // the convex field by at most 1/4 (unit steps), so the crossing falls
    // inside the circle by about 1 / (8 r) at most.
    const Plane bowl = sample(41, 37, [](double x, double y) { return (x - 20.3) * (x - 20.3) + (y - 17.6) * (y - 17.6); });
    for (double r : {3.7, 9.2, 15.0}) {
        const auto lines = view::contour_lines(bowl, r * r);
        ASSERT_EQ(lines.size(), 1u) << r;
        EXPECT_TRUE(lines[0].closed);
        EXPECT_GT(lines[0].points.size(), static_cast<std::size_t>(4 * r));
        for (const auto& p : lines[0].points) {
            const double found = std::hypot(p[0] - 20.3, p[1] - 17.6);
            EXPECT_LE(found, r + 1e-12);
            EXPECT_GE(found, r - 1.01 / (8 * r));
        }
    }
    // A circle cut by the border leaves one open line with ends on the border.
    const auto cut = view::contour_lines(bowl, 18.0 * 18.0);  // cut by the j = 0 border only
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_FALSE(cut[0].closed);
    for (const auto* end : {&cut[0].points.front(), &cut[0].points.back()})
        EXPECT_TRUE((*end)[0] == 0 || (*end)[0] == 40 || (*end)[1] == 0 || (*end)[1] == 36);

    // A linear field is reproduced exactly: x + 0.5 y = 7.3.
    const Plane ramp = sample(12, 9, [](double x, double y) { return x + 0.5 * y; });
    const auto line = view::contour_lines(ramp, 7.3);
    ASSERT_EQ(line.size(), 1u);
    EXPECT_FALSE(line[0].closed);
    for (const auto& p : line[0].points) EXPECT_NEAR(p[0] + 0.5 * p[1], 7.3, 1e-12);
    EXPECT_TRUE(view::contour_lines(ramp, 100).empty());
    // A dead band wider than the field's spread about the level draws nothing.
    EXPECT_TRUE(view::contour_lines(ramp, 7.3, 20).empty());
}

TEST(ContourLines, SaddleCellsJoinTheBranchesOfTheHyperbola) {
    // (x - 10.5)(y - 10.5) = +-0.1: the saddle sits in the middle of cell
    // (10, 10), and each branch stays in its own quadrant.
    const Plane saddle = sample(21, 21, [](double x, double y) { return (x - 10.5) * (y - 10.5); });
    for (double level : {0.1, -0.1}) {
        const auto lines = view::contour_lines(saddle, level);
        ASSERT_EQ(lines.size(), 2u);
        for (const auto& l : lines)
            for (const auto& p : l.points) {
                EXPECT_EQ(p[0] > 10.5, l.points[0][0] > 10.5) << level;
                EXPECT_EQ(p[1] > 10.5, l.points[0][1] > 10.5) << level;
            }
    }
}

// Value of attribute name in the element starting at from.
std::string attr(const std::string& s, std::size_t from, const std::string& name) {
    const std::string key = " " + name + "=\"";
    const std::size_t end = s.find('>', from), p = s.find(key, from);
    if (p == std::string::npos || p > end) return "";
    const std::size_t v = p + key.size();
    return s.substr(v, s.find('"', v) - v);
}
double num(const std::string& s, std::size_t from, const std::string& name) {
    const std::string v = attr(s, from, name);
    return v.empty() ? NAN : std::atof(v.c_str());
}

// Parses the SVG with Python's XML parser, decodes the embedded PNG checking
// every chunk CRC and the zlib stream, and prints "W H" then "R G B" for each
// pixel "x,y" asked for.
const char kCheckSvg[] = R"(import sys, base64, zlib, struct, binascii
import xml.etree.ElementTree as ET
root = ET.parse(sys.argv[1]).getroot()
img = root.find('.//{http://www.w3.org/2000/svg}image')
png = base64.b64decode(img.get('{http://www.w3.org/1999/xlink}href').split(',', 1)[1], validate=True)
assert png[:8] == b'\x89PNG\r\n\x1a\n'
pos, idat = 8, b''
while pos < len(png):
    n, = struct.unpack('>I', png[pos:pos + 4])
    kind, data = png[pos + 4:pos + 8], png[pos + 8:pos + 8 + n]
    assert binascii.crc32(kind + data) == struct.unpack('>I', png[pos + 8 + n:pos + 12 + n])[0], kind
    if kind == b'IHDR': w, h, depth, colour = struct.unpack('>IIBB', data[:10])
    if kind == b'IDAT': idat += data
    pos += 12 + n
raw = zlib.decompress(idat)
assert depth == 8 and colour == 2 and len(raw) == h * (3 * w + 1)
print(w, h)
for a in sys.argv[2:]:
    x, y = map(int, a.split(','))
    print(*raw[y * (3 * w + 1) + 1 + 3 * x:y * (3 * w + 1) + 4 + 3 * x])
)";

class SliceTool : public ::testing::Test {
protected:
    WaterDir d;
    GridText moa, den, ep;
    void SetUp() override {
        ASSERT_EQ(d.kalvex("-xp 12 -yp 14 -zp 16 -base w -moa 3 -den -ep").status, 0);
        moa = read_grid_text(d.path() / "w-moa-3.grid");
        den = read_grid_text(d.path() / "w-den.grid");
        ep = read_grid_text(d.path() / "w-ep.grid");
        std::ofstream(d.path() / "check.py") << kCheckSvg;
    }

    // Values of plane k across axis, and its picture axes.
    static std::vector<double> plane(const GridText& g, int axis, int k, int& h, int& v) {
        h = axis == 0 ? 1 : 0;
        v = axis == 2 ? 1 : 2;
        std::vector<double> out;
        int idx[3];
        idx[axis] = k;
        for (idx[h] = 0; idx[h] < g.n[h]; ++idx[h])
            for (idx[v] = 0; idx[v] < g.n[v]; ++idx[v]) out.push_back(g.at(idx[0], idx[1], idx[2]));
        return out;
    }
};

TEST_F(SliceTool, PlaneScaleAtomsAndRasterFollowTheGrid) {
    const GridText& g = moa;
    const struct {
        int axis;
        double where;  // in steps from the first plane
        int plane;     // 1-based plane expected
    } cases[] = {
        {2, 7.4, 8}, {2, 7.6, 9}, {1, 2.7, 4}, {0, 4.45, 5}, {0, 40, 12}, {2, -9, 1},
    };
    for (const auto& c : cases) {
        const char axis = static_cast<char>('x' + c.axis);
        const double value = g.origin[c.axis] + c.where * g.step[c.axis];
        char args[160];
        std::snprintf(args, sizeof args, " water w-moa-3.grid --plane %c=%.9f out.svg", axis, value);
        const Ran r = d.run(tool("kalvex-slice") + args);
        ASSERT_EQ(r.status, 0) << r.out;
        SCOPED_TRACE(args);
        EXPECT_NE(r.out.find("plane " + std::to_string(c.plane) + " of " + std::to_string(g.n[c.axis])),
                  std::string::npos)
            << r.out;
        const std::string svg = slurp(d.path() / "out.svg");
        const std::size_t root = svg.find("<svg ");
        EXPECT_EQ(attr(svg, root, "data-plane-axis"), std::string(1, axis));
        EXPECT_EQ(num(svg, root, "data-plane"), c.plane);
        const double at = g.coordinate(c.axis, c.plane - 1);
        EXPECT_NEAR(num(svg, root, "data-plane-coordinate"), at, 1e-6);

        int h, v;
        const std::vector<double> vals = plane(g, c.axis, c.plane - 1, h, v);
        const double lo = *std::min_element(vals.begin(), vals.end()), hi = *std::max_element(vals.begin(), vals.end());
        const std::size_t scale = svg.find("id=\"scale\"");
        EXPECT_EQ(attr(svg, scale, "data-map"), "diverging");
        EXPECT_EQ(num(svg, scale, "data-min"), lo);
        EXPECT_EQ(num(svg, scale, "data-max"), hi);
        EXPECT_EQ(num(svg, scale, "data-hi"), std::max(hi, -lo));
        EXPECT_EQ(num(svg, scale, "data-lo"), -std::max(hi, -lo));

        std::set<int> drawn, near;
        for (std::size_t a = svg.find("class=\"atom\""); a != std::string::npos; a = svg.find("class=\"atom\"", a + 1))
            drawn.insert(static_cast<int>(num(svg, a, "data-atom")));
        for (int a = 0; a < 3; ++a) {
            const double r3[3] = {kWater[a].x, kWater[a].y, kWater[a].z_};
            if (std::fabs(r3[c.axis] - at) <= 1) near.insert(a + 1);
        }
        EXPECT_EQ(drawn, near);

        // Pixel centres sit on grid points: the plane's largest magnitude
        // takes the end colour of its sign, the other sign's extreme is
        // coloured on the other side of white.
        std::size_t kmax = 0, kmin = 0;
        for (std::size_t k = 0; k < vals.size(); ++k) {
            if (std::fabs(vals[k]) > std::fabs(vals[kmax])) kmax = k;
            if (vals[kmax] > 0 ? vals[k] < vals[kmin] : vals[k] > vals[kmin]) kmin = k;
        }
        // Pixels every 1/f step from the first grid point, top row first.
        const int n1 = g.n[h], n2 = g.n[v];
        int w = 0, hh = 0;
        std::sscanf(attr(svg, svg.find("class=\"raster\""), "data-pixels").c_str(), "%dx%d", &w, &hh);
        const int f = (w - 1) / (n1 - 1);
        ASSERT_EQ(w, (n1 - 1) * f + 1);
        ASSERT_EQ(hh, (n2 - 1) * f + 1);
        auto pixel = [&](std::size_t k) {
            const int i = static_cast<int>(k) / n2, j = static_cast<int>(k) % n2;
            return std::to_string(i * f) + "," + std::to_string(hh - 1 - j * f);
        };
        const Ran px = d.run("python3 check.py out.svg " + pixel(kmax) + " " + pixel(kmin));
        ASSERT_EQ(px.status, 0) << px.out;
        std::istringstream s(px.out);
        int pw, ph, r0, g0, b0, r1, g1, b1;
        s >> pw >> ph >> r0 >> g0 >> b0 >> r1 >> g1 >> b1;
        EXPECT_EQ(pw, w);
        EXPECT_EQ(ph, hh);
        const view::Rgb end = view::colour_at(view::ColourMap::kDiverging, vals[kmax] > 0 ? 1 : 0);
        EXPECT_EQ(std::vector<int>({r0, g0, b0}), std::vector<int>({end.r, end.g, end.b}));
        if (std::fabs(vals[kmin]) > 0.1 * std::fabs(vals[kmax])) {
            EXPECT_EQ(vals[kmax] > 0, b1 > r1) << px.out;
        }
    }
}

TEST_F(SliceTool, DensityIsLogarithmicAndThePotentialClippedAboveItsNegativeRegion) {
    const double oz = kWater[0].z_;
    char at[64];
    std::snprintf(at, sizeof at, " --plane z=%.9f", oz);
    ASSERT_EQ(d.run(tool("kalvex-slice") + " water w-den.grid den.svg" + at).status, 0);
    ASSERT_EQ(d.run(tool("kalvex-slice") + " water w-ep.grid ep.svg" + at).status, 0);
    for (const char* svg : {"den.svg", "ep.svg"}) EXPECT_EQ(d.run(std::string("python3 check.py ") + svg).status, 0);
    const int k = static_cast<int>(std::lround((oz - den.origin[2]) / den.step[2]));
    int h, v;

    const std::string dsvg = slurp(d.path() / "den.svg");
    const std::vector<double> dv = plane(den, 2, k, h, v);
    const std::size_t ds = dsvg.find("id=\"scale\"");
    EXPECT_EQ(attr(dsvg, ds, "data-map"), "log");
    EXPECT_EQ(num(dsvg, ds, "data-max"), *std::max_element(dv.begin(), dv.end()));
    EXPECT_EQ(num(dsvg, ds, "data-hi"), *std::max_element(dv.begin(), dv.end()));
    EXPECT_EQ(num(dsvg, ds, "data-lo"), 1e-3);
    int levels = 0;
    for (std::size_t c = dsvg.find("class=\"contour\""); c != std::string::npos;
         c = dsvg.find("class=\"contour\"", c + 1), ++levels) {
        const double level = num(dsvg, c, "data-level");
        EXPECT_GE(level, 1e-3);
        EXPECT_LT(level, num(dsvg, ds, "data-hi"));
    }
    EXPECT_GE(levels, 10);  // 1, 2, 5 per decade from 0.001

    const std::string esvg = slurp(d.path() / "ep.svg");
    const std::vector<double> ev = plane(ep, 2, k, h, v);
    const double emin = *std::min_element(ev.begin(), ev.end()), emax = *std::max_element(ev.begin(), ev.end());
    const std::size_t es = esvg.find("id=\"scale\"");
    EXPECT_EQ(attr(esvg, es, "data-map"), "diverging");
    EXPECT_EQ(num(esvg, es, "data-clipped"), 1);
    EXPECT_EQ(num(esvg, es, "data-min"), emin);
    EXPECT_EQ(num(esvg, es, "data-max"), emax);
    EXPECT_LT(num(esvg, es, "data-hi"), emax / 10);  // the nuclei's spikes saturate
    EXPECT_LE(num(esvg, es, "data-lo"), emin);       // the negative region does not
    EXPECT_EQ(num(esvg, es, "data-lo"), -num(esvg, es, "data-hi"));
    EXPECT_NE(esvg.find("clipped at"), std::string::npos);
}

TEST_F(SliceTool, RefusalsGiveOneMessageStatusOneAndNoFile) {
    std::ofstream(d.path() / "flat-den.grid") << "1\n0 0 0\n0.5 0 0.5\n3 1 2\n1\n2\n3\n4\n5\n6\n";
    // A basis file cut inside its section: the readers refuse the job.
    fs::create_directory(d.path() / "j");
    for (const std::string ext : {".control", ".coord", ".mos"})
        fs::copy_file(d.path() / ("water" + ext), d.path() / "j" / ("water" + ext));
    const std::string basis = slurp(d.path() / "water.basis");
    std::ofstream(d.path() / "j" / "water.basis") << basis.substr(0, basis.find("$end"));
    expect_refusals(d, "kalvex-slice", {
        {"water w-moa-3.grid --plane w=1 out.svg", "bad plane \"w=1\""},
        {"water w-moa-3.grid --plane z=abc out.svg", "bad plane \"z=abc\""},
        {"water w-moa-3.grid out.svg", "usage: kalvex-slice"},
        {"water flat-den.grid --plane z=0 out.svg", "flat-den.grid: a z plane needs two or more points along x and y"},
        {"nosuch w-moa-3.grid --plane z=0 out.svg", "cannot read job nosuch"},
        {"j/water w-moa-3.grid --plane z=0 out.svg", "cannot read job j/water: 1 End of file reached in Basis file"},
    });
    // The same flat grid has an x-z plane to show. Kalvex writes no grid
    // with a single point along an axis: the file is taken with --any-job.
    EXPECT_EQ(d.run(tool("kalvex-slice") + " water flat-den.grid --plane y=3").status, 1);
    const Ran r = d.run(tool("kalvex-slice") + " water flat-den.grid --plane y=3 --any-job");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(fs::exists(d.path() / "flat-den-y3.svg"));
}

}  // namespace
}  // namespace kvx::viewtest
