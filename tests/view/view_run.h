// Test helpers for the cube and slice tools: a throw-away directory holding a
// copy of the water job, command runs with their output and status, and an
// independent reader of property files in the default value order.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/grid_file.h"
#include "common/temp_dir.h"

namespace kvx::viewtest {

namespace fs = std::filesystem;

using Ran = test::CommandResult;

inline std::string tool(const char* name) { return std::string("'") + KVX_BIN_DIR + "/" + name + "'"; }

inline std::string slurp(const fs::path& p) { return test::read_file(p); }

class WaterDir {
public:
    WaterDir() { tmp_.copy_job(KVX_TEST_DATA "/water/water", "water", {".control", ".coord", ".basis", ".mos"}); }

    const fs::path& path() const { return tmp_.path(); }
    // sh -c command in the directory.
    Ran run(const std::string& command) const {
        return test::run_command("cd '" + path().string() + "' && " + command);
    }
    Ran kalvex(const std::string& args) const { return run("'" KVX_BINARY "' water " + args + " </dev/null"); }
    std::vector<std::string> names() const {
        std::vector<std::string> v;
        for (const auto& e : fs::directory_iterator(path())) v.push_back(e.path().filename().string());
        std::sort(v.begin(), v.end());
        return v;
    }

private:
    test::TempDir tmp_;
};

// Runs of a tool that must be refused: status 1, "TOOL: says" in the
// output, and the folder's file names unchanged.
struct Refusal {
    std::string args, says;
};
inline void expect_refusals(const WaterDir& d, const char* tool_name, const std::vector<Refusal>& cases) {
    const auto before = d.names();
    for (const Refusal& c : cases) {
        const Ran r = d.run(tool(tool_name) + " " + c.args);
        EXPECT_EQ(r.status, 1) << c.args;
        EXPECT_NE(r.out.find(std::string(tool_name) + ": " + c.says), std::string::npos) << c.args << "\n" << r.out;
        EXPECT_EQ(d.names(), before) << c.args;
    }
}

// The water job's atoms, as in tests/data/water/water.coord (bohr).
struct RefAtom {
    int z;
    double x, y, z_;
};
inline const RefAtom kWater[3] = {
    {8, 0.13, -0.21, 0.07}, {1, 0.910079146, 1.3657812, 0.50042639}, {1, 0.715346385, -1.363405587, 1.336452487}};

using test::GridText;
using test::read_grid_text;

}  // namespace kvx::viewtest
