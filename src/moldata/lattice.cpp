#include "moldata/lattice.h"

#include <climits>
#include <cmath>

#include "moldata/checksum.h"

namespace kvx::moldata {

Box default_box(const std::vector<Atom>& atoms) {
    double lo[3] = {1e10, 1e10, 1e10}, hi[3] = {-1e10, -1e10, -1e10};
    for (const Atom& a : atoms) {
        const double r[3] = {a.x, a.y, a.z};
        for (int d = 0; d < 3; ++d) {
            if (r[d] < lo[d]) lo[d] = r[d];
            if (r[d] > hi[d]) hi[d] = r[d];
        }
    }
    Box b;
    for (int d = 0; d < 3; ++d) {
        b.start[d] = lo[d] - kBoxMargin;
        b.length[d] = (hi[d] + kBoxMargin) - (lo[d] - kBoxMargin);
    }
    return b;
}

std::uint32_t lattice_stamp(const LatticeRecord& r, std::uint32_t seed) {
    // Field by field in a fixed order; never a record's memory image.
    const int n = r.ndim < 0 ? 0 : (r.ndim > 3 ? 3 : r.ndim);
    std::uint32_t s = checksum32(r.centre, sizeof r.centre, seed);
    s = checksum32(r.origin, sizeof r.origin, s);
    for (int c = 0; c < 3; ++c) s = checksum32(r.axes[c], n * sizeof(double), s);
    s = checksum32(r.lengths, n * sizeof(double), s);
    s = checksum32(r.spacings, n * sizeof(double), s);
    s = checksum32(r.counts, n * sizeof(int), s);
    return s;
}

bool box_lattice(const BoxAxis axes[3], LatticeRecord& out) {
    out = LatticeRecord{};
    // The half-axes are diagonal: column d has length |length/2|, and the
    // determinant is the product of the diagonal.
    double half[3], len[3];
    for (int d = 0; d < 3; ++d) {
        half[d] = axes[d].length / 2;
        out.centre[d] = axes[d].start + axes[d].length / 2;
        len[d] = std::sqrt(half[d] * half[d]);
        if (!(len[d] > 1e-15) || !std::isfinite(len[d])) return false;
    }
    if (!(std::fabs(half[0] * (half[1] * half[2])) > 1e-15)) return false;
    for (int d = 0; d < 3; ++d)
        if (axes[d].spacing == 0.0 && axes[d].count < 2) return false;

    double total = 1.0;
    for (int d = 0; d < 3; ++d) {
        const double L = len[d];
        int N = axes[d].count;
        double h;
        if (N > 2) {
            h = 2.0 * L / (N - 1);
        } else {
            h = axes[d].spacing;
            if (!(h > 0.0)) return false;
            const double m = std::ceil(2.0 * L / h) + 1.0;
            if (!(m < static_cast<double>(INT_MAX))) return false;
            N = static_cast<int>(m);
        }
        out.lengths[d] = (N - 1) * h;
        out.spacings[d] = h;
        out.counts[d] = N;
        for (int c = 0; c < 3; ++c) out.axes[c][d] = (c == d ? half[d] : 0.0) * h / L;
        total *= N;
    }
    if (total > static_cast<double>(INT_MAX)) return false;
    for (int c = 0; c < 3; ++c) {
        double o = out.centre[c];
        for (int d = 0; d < 3; ++d) o -= 0.5 * (out.counts[d] - 1) * out.axes[c][d];
        out.origin[c] = o;
    }
    return true;
}

}  // namespace kvx::moldata
