// Test helpers for the cube and slice tools: a throw-away directory holding a
// copy of the water job, command runs with their output and status, and an
// independent reader of property files (default value order).
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kvx::viewtest {

namespace fs = std::filesystem;

struct Ran {
    std::string out;  // standard output and error together
    int status = -1;
};

// sh -c command, in dir.
inline Ran run_in(const fs::path& dir, const std::string& command) {
    const std::string cmd = "cd '" + dir.string() + "' && " + command + " 2>&1";
    Ran r;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

inline std::string tool(const char* name) { return std::string("'") + KVX_BIN_DIR + "/" + name + "'"; }

class WaterDir {
public:
    WaterDir() {
        std::string tmpl = (fs::temp_directory_path() / "kvx_view_XXXXXX").string();
        dir_ = mkdtemp(tmpl.data());
        for (const char* ext : {".control", ".coord", ".basis", ".mos"})
            fs::copy_file(fs::path(KVX_TEST_DATA) / "water" / (std::string("water") + ext), dir_ / ("water" + std::string(ext)));
    }
    ~WaterDir() {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    WaterDir(const WaterDir&) = delete;
    WaterDir& operator=(const WaterDir&) = delete;

    const fs::path& path() const { return dir_; }
    Ran run(const std::string& command) const { return run_in(dir_, command); }
    Ran kalvex(const std::string& args) const { return run(std::string("'") + KVX_BINARY + "' water " + args + " </dev/null"); }
    std::vector<std::string> names() const {
        std::vector<std::string> v;
        for (const auto& e : fs::directory_iterator(dir_)) v.push_back(e.path().filename().string());
        std::sort(v.begin(), v.end());
        return v;
    }

private:
    fs::path dir_;
};

// The water job's atoms, as in tests/data/water/water.coord (bohr).
struct RefAtom {
    int z;
    double x, y, z_;
};
inline const RefAtom kWater[3] = {{8, 0.13, -0.21, 0.07},
                                  {1, 0.910079146, 1.3657812, 0.50042639},
                                  {1, 0.715346385, -1.363405587, 1.336452487}};

struct GridText {
    double origin[3] = {}, step[3] = {};
    int n[3] = {};
    std::vector<double> v;  // as in the file
    // Default order: line ix + nx * (iy + ny * iz).
    double at(int ix, int iy, int iz) const {
        return v[static_cast<std::size_t>(ix + n[0] * (iy + n[1] * iz))];
    }
    double coordinate(int axis, int i) const { return origin[axis] + i * step[axis]; }
};

inline GridText read_grid_text(const fs::path& p) {
    GridText g;
    std::ifstream f(p);
    unsigned stamp;
    f >> stamp >> g.origin[0] >> g.origin[1] >> g.origin[2] >> g.step[0] >> g.step[1] >> g.step[2] >> g.n[0] >>
        g.n[1] >> g.n[2];
    double x;
    while (f >> x) g.v.push_back(x);
    return g;
}

inline std::string slurp(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

}  // namespace kvx::viewtest
