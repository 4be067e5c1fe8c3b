#include "elepot/points.h"

#include <algorithm>

namespace kvx::elepot {

void PointLines::point(long p, double r[3]) const {
    if (lattice) {
        geo.point_of_index(r, static_cast<int>(p));
    } else {
        for (int c = 0; c < 3; ++c) r[c] = xyz[static_cast<std::size_t>(3 * p + c)];
    }
}

void PointLines::lines_of(long p, int& i, int& j, int& k) const {
    if (!lattice) {
        i = j = k = static_cast<int>(p);
        return;
    }
    const long plane = static_cast<long>(ny) * nz;
    i = static_cast<int>(p / plane);
    const long rem = p % plane;
    j = static_cast<int>(rem / nz);
    k = static_cast<int>(rem % nz);
}

void PointLines::line_range(long first, long n, int lo[3], int hi[3]) const {
    if (n <= 0) {
        for (int d = 0; d < 3; ++d) lo[d] = 0, hi[d] = -1;
        return;
    }
    int a[3], b[3];
    lines_of(first, a[0], a[1], a[2]);
    lines_of(first + n - 1, b[0], b[1], b[2]);
    if (!lattice) {
        for (int d = 0; d < 3; ++d) lo[d] = a[d], hi[d] = b[d];
        return;
    }
    // Points run x slowest: a range within one x line spans its y lines from
    // the first to the last point; a range over several x lines spans all.
    lo[0] = a[0];
    hi[0] = b[0];
    const bool one_x = a[0] == b[0];
    const bool one_y = one_x && a[1] == b[1];
    lo[1] = one_x ? a[1] : 0;
    hi[1] = one_x ? b[1] : ny - 1;
    lo[2] = one_y ? a[2] : 0;
    hi[2] = one_y ? b[2] : nz - 1;
}

PointLines lattice_lines(const grid::Grid& g) {
    PointLines pl;
    if (g.ndim < 1 || g.ndim > 3) return pl;
    const int nx = g.counts[0];
    const int ny = g.ndim >= 2 ? g.counts[1] : 1;
    const int nz = g.ndim >= 3 ? g.counts[2] : 1;
    if (nx < 1 || ny < 1 || nz < 1 || static_cast<double>(g.total) != static_cast<double>(nx) * ny * nz) return pl;
    pl.geo = grid::grid_geometry(g);
    pl.nx = nx;
    pl.ny = ny;
    pl.nz = nz;
    pl.npoints = static_cast<long>(g.total);
    pl.x.resize(static_cast<std::size_t>(nx));
    pl.y.resize(static_cast<std::size_t>(ny));
    pl.z.resize(static_cast<std::size_t>(nz));
    double r[3];
    for (int i = 0; i < nx; ++i) {
        const int idx[3] = {i, 0, 0};
        pl.geo.point_of_indices(r, idx);
        pl.x[static_cast<std::size_t>(i)] = r[0];
    }
    for (int j = 0; j < ny; ++j) {
        const int idx[3] = {0, j, 0};
        pl.geo.point_of_indices(r, idx);
        pl.y[static_cast<std::size_t>(j)] = r[1];
    }
    for (int k = 0; k < nz; ++k) {
        const int idx[3] = {0, 0, k};
        pl.geo.point_of_indices(r, idx);
        pl.z[static_cast<std::size_t>(k)] = r[2];
    }
    bool up = true, down = true;
    for (std::size_t k = 1; k < pl.z.size(); ++k) {
        up = up && pl.z[k] >= pl.z[k - 1];
        down = down && pl.z[k] <= pl.z[k - 1];
    }
    pl.z_monotone = up || down;
    return pl;
}

PointLines list_lines(const double* xyz, long n) {
    PointLines pl;
    pl.lattice = false;
    pl.z_monotone = false;
    pl.npoints = n;
    pl.nx = pl.ny = pl.nz = static_cast<int>(n);
    pl.xyz.assign(xyz, xyz + 3 * n);
    pl.x.resize(static_cast<std::size_t>(n));
    pl.y.resize(static_cast<std::size_t>(n));
    pl.z.resize(static_cast<std::size_t>(n));
    for (long p = 0; p < n; ++p) {
        pl.x[static_cast<std::size_t>(p)] = xyz[3 * p];
        pl.y[static_cast<std::size_t>(p)] = xyz[3 * p + 1];
        pl.z[static_cast<std::size_t>(p)] = xyz[3 * p + 2];
    }
    return pl;
}

}  // namespace kvx::elepot
