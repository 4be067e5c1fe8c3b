// Contour lines of a sampled plane (marching squares), joined into polylines.
#pragma once

#include <array>
#include <vector>

namespace kvx::view {

// n1 x n2 samples, v[i * n2 + j] at grid position (i, j); i runs along the
// picture's horizontal axis, j along its vertical one.
struct Plane {
    int n1 = 0;
    int n2 = 0;
    std::vector<double> v;
    double at(int i, int j) const { return v[static_cast<std::size_t>(i) * n2 + j]; }
};

struct Polyline {
    std::vector<std::array<double, 2>> points;  // fractional grid positions (i, j)
    bool closed = false;                        // last point joins the first
};

// The curves where the linearly interpolated plane equals level. Cells whose
// four corners all lie within dead_band of the level are left out: a sign
// change among values that small (far tails, the file's rounding) is noise.
std::vector<Polyline> contour_lines(const Plane& p, double level, double dead_band = 0);

}  // namespace kvx::view
