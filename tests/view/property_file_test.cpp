// Property files read back: both value orders against hand-placed values,
// damaged files refused with the file and line named, names parsed.
#include <gtest/gtest.h>

#include "view/property_file.h"
#include "view_run.h"

namespace kvx::view {
namespace {

using viewtest::WaterDir;

// A 2 x 3 x 4 grid whose value at (ix, iy, iz) is 100 ix + 10 iy + iz,
// written in the requested order by the test's own loops.
std::string hand_grid(bool x_fastest) {
    std::string s = "4294967295\n-1.000000 0.500000 2.000000\n0.100000 0.200000 0.300000\n2 3 4\n";
    if (x_fastest) {
        for (int iz = 0; iz < 4; ++iz)
            for (int iy = 0; iy < 3; ++iy)
                for (int ix = 0; ix < 2; ++ix) s += std::to_string(100 * ix + 10 * iy + iz) + ".000000\n";
    } else {
        for (int ix = 0; ix < 2; ++ix)
            for (int iy = 0; iy < 3; ++iy)
                for (int iz = 0; iz < 4; ++iz) s += std::to_string(100 * ix + 10 * iy + iz) + ".000000\n";
    }
    return s;
}

TEST(PropertyFile, BothValueOrdersPutEachValueAtItsIndices) {
    WaterDir d;
    for (bool x_fastest : {true, false}) {
        const auto path = d.path() / "g.grid";
        std::ofstream(path) << hand_grid(x_fastest);
        PropertyFile pf;
        std::string err;
        ASSERT_TRUE(read_property_file(path, x_fastest ? ValueOrder::kXFastest : ValueOrder::kStorage, pf, err))
            << err;
        EXPECT_EQ(pf.stamp, 4294967295u);
        EXPECT_DOUBLE_EQ(pf.coordinate(1, 2), 0.9);
        for (int ix = 0; ix < 2; ++ix)
            for (int iy = 0; iy < 3; ++iy)
                for (int iz = 0; iz < 4; ++iz) EXPECT_EQ(pf.at(ix, iy, iz), 100 * ix + 10 * iy + iz);
    }
}

TEST(PropertyFile, DamagedFilesAreRefusedNamingFileAndLine) {
    const std::string head = "12\n0 0 0\n0.5 0.5 0.5\n";
    const struct {
        std::string text, says;
    } cases[] = {
        {"", "ends before line 1 (stamp)"},
        {"12\n0 0 0\n", "ends before line 3 (step lengths (dx dy dz))"},
        {"-3\n", ":1: bad stamp"},
        {"4294967296\n", ":1: bad stamp"},
        {"12\n0 0\n", ":2: expected first grid point (x y z)"},
        {head + "2 0 1\n", ":4: bad point counts"},
        {head + "2 1 1.5\n", ":4: bad point counts"},
        {"12\n0 0 0\n0 0.5 0.5\n2 1 1\n1\n2\n", ":4: the step along x must be positive"},
        {head + "2000000000 2000000000 2000000000\n1\n", ":4: point counts too large"},
        {head + "100000 100000 100000\n1\n", "holds 1 values, the counts 100000 x 100000 x 100000 = 1000000000000000"},
        {head + "2 1 1\n1.0\n", "holds 1 values, the counts 2 x 1 x 1 = 2 on line 4"},
        {head + "2 1 1\n1.0\n2.0\n3.0\n", ":7: more values than the counts 2 x 1 x 1 = 2"},
        {head + "2 1 1\n1.0\nabc\n", ":6: not a finite number: \"abc\""},
        {head + "2 1 1\n1.0 2.0\n", ":5: expected one value per line"},
        {head + "2 1 1\n1.0\n\n2.0\n", ":6: empty line among the values"},
    };
    WaterDir d;
    const std::string path = (d.path() / "bad-den.grid").string();
    for (const auto& c : cases) {
        std::ofstream(path, std::ios::trunc) << c.text;
        PropertyFile pf;
        std::string err;
        EXPECT_FALSE(read_property_file(path, ValueOrder::kXFastest, pf, err)) << c.text;
        EXPECT_EQ(err.rfind(path, 0), 0u) << err;
        EXPECT_NE(err.find(c.says), std::string::npos) << "got: " << err << "\nwant: " << c.says;
    }
    // Windows line ends and trailing blank lines are harmless.
    std::ofstream(path, std::ios::trunc) << "12\r\n0 0 0\r\n0.5 0.5 0.5\r\n2 1 1\r\n1.5\r\n-2.5\r\n\n\n";
    PropertyFile pf;
    std::string err;
    ASSERT_TRUE(read_property_file(path, ValueOrder::kXFastest, pf, err)) << err;
    EXPECT_EQ(pf.values, (std::vector<double>{1.5, -2.5}));
}

TEST(PropertyFile, NamesEndInAKnownPropertyWord) {
    const struct {
        const char* path;
        const char* label;
        bool is_signed;
        const char* description;
    } cases[] = {
        {"dir/N6AGN49EN4AEN49E-moa-3.grid", "moa-3", true, "alpha orbital 3"},
        {"my-run-den.grid", "den", false, "total density"},
        {"x-dena.grid", "dena", false, "alpha density"},
        {"x-denb.grid", "denb", false, "beta density"},
        {"x-spin.grid", "spin", true, "spin density"},
        {"a-b-ep.grid", "ep", true, "electrostatic potential"},
        {"p-partd.grid", "partd", false, "partial density"},
        {"p-parts.grid", "parts", true, "partial spin density"},
        {"run-1-nos-12.grid", "nos-12", true, "natural orbital 12"},
        {"q-mob-2.grid", "mob-2", true, "beta orbital 2"},
        {"q-loa-1.grid", "loa-1", true, "localized alpha orbital 1"},
        {"q-lob-7.grid", "lob-7", true, "localized beta orbital 7"},
        {"q-moa.grid", "moa", true, "alpha orbital"},
        {"den.grid", "", false, ""},      // no base separator
        {"x-moa-0.grid", "", false, ""},  // orbitals count from 1
        {"x-dens.grid", "", false, ""},
        {"x-chelp.grid", "", false, ""},  // no request of that name writes a file
        {"x-end.grid", "", false, ""},
        {"ep-den-x.grid", "", false, ""},  // the word must end the name
    };
    for (const auto& c : cases) {
        const PropertyName n = property_name_of(c.path);
        EXPECT_EQ(n.label(), c.label) << c.path;
        EXPECT_EQ(is_signed_property(n.word), c.is_signed) << c.path;
        EXPECT_EQ(describe_property(n), c.description) << c.path;
    }
}

}  // namespace
}  // namespace kvx::view
