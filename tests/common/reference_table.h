// The psi4 reference values of tests/data/water and tests/data/ohrad
// (reference.txt): '#' comment lines, a header naming the columns (x y z,
// orbital columns NAMEk_std and NAMEk_grid, potential), then one line of
// values per point.
#pragma once

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kvx::test {

struct ReferenceTable {
    std::vector<std::string> columns;
    std::vector<std::vector<double>> rows;

    // Index of a column; -1 when there is none of that name.
    int column(const std::string& name) const {
        const auto it = std::find(columns.begin(), columns.end(), name);
        return it == columns.end() ? -1 : static_cast<int>(it - columns.begin());
    }
};

inline ReferenceTable read_reference_table(const std::string& path) {
    ReferenceTable t;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ss(line);
        if (t.columns.empty()) {
            for (std::string w; ss >> w;) t.columns.push_back(w);
        } else {
            t.rows.emplace_back();
            for (double d; ss >> d;) t.rows.back().push_back(d);
        }
    }
    return t;
}

// The table of a bundled job: KVX_TEST_DATA/job/reference.txt.
inline ReferenceTable job_reference(const std::string& job) {
    return read_reference_table(std::string(KVX_TEST_DATA) + "/" + job + "/reference.txt");
}

}  // namespace kvx::test
