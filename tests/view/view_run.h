// Test helpers for the cube and slice tools: a throw-away directory holding a
// copy of the water job, command runs with their output and status, and an
// independent reader of property files in the default value order.
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

inline std::string tool(const char* name) { return std::string("'") + KVX_BIN_DIR + "/" + name + "'"; }

inline std::string slurp(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

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
    Ran run(const std::string& command) const {
        Ran r;
        FILE* p = popen(("cd '" + dir_.string() + "' && " + command + " 2>&1").c_str(), "r");
        if (!p) return r;
        char buf[4096];
        for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
        const int st = pclose(p);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        return r;
    }
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
