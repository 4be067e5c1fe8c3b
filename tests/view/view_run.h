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

namespace kvx::viewtest {

namespace fs = std::filesystem;

using Ran = test::CommandResult;

inline std::string tool(const char* name) { return std::string("'") + KVX_BIN_DIR + "/" + name + "'"; }

inline std::string slurp(const fs::path& p) { return test::read_file(p); }

class WaterDir {
public:
    WaterDir() {
        std::string tmpl = (fs::temp_directory_path() / "kvx_view_XXXXXX").string();
        dir_ = mkdtemp(tmpl.data());
        for (const std::string ext : {".control", ".coord", ".basis", ".mos"})
            fs::copy_file(fs::path(KVX_TEST_DATA) / "water" / ("water" + ext), dir_ / ("water" + ext));
    }
    ~WaterDir() {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    WaterDir(const WaterDir&) = delete;
    WaterDir& operator=(const WaterDir&) = delete;

    const fs::path& path() const { return dir_; }
    // sh -c command in the directory.
    Ran run(const std::string& command) const { return test::run_command("cd '" + dir_.string() + "' && " + command); }
    Ran kalvex(const std::string& args) const { return run("'" KVX_BINARY "' water " + args + " </dev/null"); }
    std::vector<std::string> names() const {
        std::vector<std::string> v;
        for (const auto& e : fs::directory_iterator(dir_)) v.push_back(e.path().filename().string());
        std::sort(v.begin(), v.end());
        return v;
    }

private:
    fs::path dir_;
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

struct GridText {
    unsigned stamp = 0;
    double origin[3] = {}, step[3] = {};
    int n[3] = {};
    std::vector<double> v;  // as in the file: line ix + nx * (iy + ny * iz)
    double at(int ix, int iy, int iz) const { return v[static_cast<std::size_t>(ix + n[0] * (iy + n[1] * iz))]; }
    double coordinate(int axis, int i) const { return origin[axis] + i * step[axis]; }
};

inline GridText read_grid_text(const fs::path& p) {
    GridText g;
    std::ifstream f(p);
    f >> g.stamp;
    for (double* x : {g.origin, g.step}) f >> x[0] >> x[1] >> x[2];
    f >> g.n[0] >> g.n[1] >> g.n[2];
    for (double x; f >> x;) g.v.push_back(x);
    return g;
}

}  // namespace kvx::viewtest
