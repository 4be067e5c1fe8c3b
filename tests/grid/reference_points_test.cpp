// Orbital values of real SCF jobs at scattered points, against the NAMEk_grid
// columns of tests/data/<job>/reference.txt (unscreened values from an
// independent program, taken with the same atom - point displacement).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "grid/density.h"
#include "grid/gto.h"
#include "grid/gto_reference.h"
#include "moldata/reader.h"

namespace {

struct Column {
    std::string set;  // "alpha" or "beta"
    int orbital = 0;  // 1-based
    int index = 0;    // column in the row
};

struct Reference {
    std::vector<Column> columns;
    std::vector<std::vector<double>> rows;
};

// Comment lines start with '#'; then the column names, then one row per
// point: x y z and the values.
Reference read_reference(const std::string& path) {
    Reference ref;
    std::ifstream in(path);
    std::string line;
    bool header = false;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ls(line);
        if (!header) {
            std::string name;
            for (int i = 0; ls >> name; ++i) {
                const auto cut = name.find("_grid");
                if (cut == std::string::npos) continue;
                const auto digit = name.find_first_of("0123456789");
                ref.columns.push_back({name.substr(0, digit), std::stoi(name.substr(digit, cut - digit)), i});
            }
            header = true;
            continue;
        }
        std::vector<double> row;
        double v;
        while (ls >> v) row.push_back(v);
        ref.rows.push_back(row);
    }
    return ref;
}

class ReferencePoints : public ::testing::TestWithParam<const char*> {};

// A 3 x 3 x 3 grid centred on each point: its middle point (1, 1, 1) is the
// point itself. eps = 1e-12 keeps the screening error below
// screening_tolerance (a few 1e-9 for these bases); the reference values
// carry 13 significant digits.
TEST_P(ReferencePoints, OrbitalsMatchIndependentProgram) {
    const std::string job = GetParam();
    const std::string dir = std::string(KVX_TEST_DATA) + "/" + job + "/";
    auto mol = kvx::moldata::build_molecule(dir + job);
    ASSERT_TRUE(mol) << job;
    ASSERT_TRUE(mol->has_shells());
    const Reference ref = read_reference(dir + "reference.txt");
    ASSERT_FALSE(ref.columns.empty());
    ASSERT_GT(ref.rows.size(), 20u);

    const double eps = 1e-12;
    const double half[3] = {0.5, 0.5, 0.5};
    const int counts[3] = {3, 3, 3};
    const int mid[3] = {1, 1, 1};
    int checked = 0;
    for (const auto& row : ref.rows) {
        ASSERT_GT(row.size(), static_cast<std::size_t>(ref.columns.back().index));
        const double centre[3] = {row[0], row[1], row[2]};
        auto g = kvx::test::box_grid(3, centre, half, counts);
        ASSERT_EQ(kvx::grid::gto_setup(mol.get(), g.get(), eps, -4), 1);
        const int p = kvx::grid::grid_index_of_indices(mid);
        auto pg = kvx::grid::property_grid_create(g.get());
        for (const Column& col : ref.columns) {
            const kvx::moldata::OrbitalSet* set = col.set == "alpha" ? mol->alpha.get() : mol->beta.get();
            ASSERT_NE(set, nullptr) << col.set;
            const std::string n = std::to_string(col.orbital);
            testing::internal::CaptureStdout();
            kvx::grid::fill_mo(pg.get(), set, n.c_str(), col.set.c_str());
            testing::internal::GetCapturedStdout();
            const double* c = set->coef.row(col.orbital - 1);
            const double max_coef = std::fabs(*std::max_element(
                c, c + mol->nbasis, [](double a, double b) { return std::fabs(a) < std::fabs(b); }));
            const double expect = row[col.index];
            EXPECT_NEAR(pg->values[p], expect, kvx::test::screening_tolerance(*mol, eps, max_coef, expect))
                << job << " " << col.set << col.orbital << " at " << row[0] << " " << row[1] << " " << row[2];
            ++checked;
        }
    }
    EXPECT_GT(checked, 100);
    kvx::grid::gto_free();
}

INSTANTIATE_TEST_SUITE_P(Jobs, ReferencePoints, ::testing::Values("water", "ohrad"));

}  // namespace
