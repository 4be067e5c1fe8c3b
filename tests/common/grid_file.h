// A property file read back as text, independently of the program's own
// reader: stamp, first point, steps, counts and the values in file order.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <vector>

namespace kvx::test {

struct GridText {
    unsigned stamp = 0;
    double origin[3] = {}, step[3] = {};
    int n[3] = {};
    std::vector<double> v;  // as in the file: x fastest by default, line ix + nx * (iy + ny * iz)
    double at(int ix, int iy, int iz) const { return v[static_cast<std::size_t>(ix + n[0] * (iy + n[1] * iz))]; }
    double coordinate(int axis, int i) const { return origin[axis] + i * step[axis]; }
};

inline GridText read_grid_text(const std::filesystem::path& p) {
    GridText g;
    std::ifstream f(p);
    f >> g.stamp;
    for (double* x : {g.origin, g.step}) f >> x[0] >> x[1] >> x[2];
    f >> g.n[0] >> g.n[1] >> g.n[2];
    for (double x; f >> x;) g.v.push_back(x);
    return g;
}

}  // namespace kvx::test
