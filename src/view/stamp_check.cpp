#include "view/stamp_check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "moldata/checksum.h"
#include "moldata/lattice.h"

namespace kvx::view {

namespace {

using moldata::BoxAxis;

// The double a user's decimal text gives, as the option reader takes it.
double typed(double v, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, v);
    return std::strtod(text, nullptr);
}

// Decimal values with up to max_decimals decimals within tol of v (a few
// per axis; a decimal count that would give more than 50 is skipped).
std::vector<double> decimals_near(double v, double tol, int max_decimals) {
    std::vector<double> out;
    for (int k = 0; k <= max_decimals; ++k) {
        const double scale = std::pow(10.0, k);
        const double lo = std::ceil((v - tol) * scale), hi = std::floor((v + tol) * scale);
        if (hi - lo > 50) continue;
        for (double m = lo; m <= hi; ++m) {
            const double c = typed(m / scale, k);
            if (std::find(out.begin(), out.end(), c) == out.end()) out.push_back(c);
        }
    }
    return out;
}

// The boxes along one axis that can have given the header's first point o,
// step h and count n.
std::vector<BoxAxis> axis_candidates(double start0, double length0, double o, double h, int n) {
    std::vector<BoxAxis> out;
    auto add = [&](double start, double length, double spacing, int count) {
        BoxAxis a;
        a.start = start;
        a.length = length;
        a.spacing = spacing;
        a.count = count;
        out.push_back(a);
    };
    const double printed = 5.000001e-7;  // %f rounding of the header
    if (n > 2) {
        // N points across the box: the step is edge / (N - 1).
        std::vector<double> lengths = {length0};
        for (double l : decimals_near(h * (n - 1), printed * (n - 1) + 1e-12, 4))
            if (l != length0) lengths.push_back(l);
        for (double start : {start0, o})
            for (double l : lengths) add(start, l, moldata::kDefaultSpacing, n);
    }
    // Counts of 2 or less: the step is the spacing (the default, or typed as
    // printed), the box the default one or one of one decimal.
    for (double r : {moldata::kDefaultSpacing, h}) {
        if (!(r > 0)) continue;
        add(start0, length0, r, 2);
        if (r > 5) continue;  // a one-decimal box of a coarse spacing: too many to try
        const double centre = o + 0.5 * (n - 1) * r;
        for (double l = std::ceil((n - 2) * r * 10) / 10; l <= (n - 1) * r + 1e-9; l += 0.1) {
            const double length = typed(l, 1);
            for (double start : decimals_near(centre - length / 2, 2 * printed, 3)) add(start, length, r, 2);
        }
    }
    return out;
}

// -moacc / -thresh as typed: d x 10^-k.
std::vector<double> accuracies() {
    std::vector<double> out;
    for (int k = 1; k <= 16; ++k)
        for (int d = 1; d <= 9; ++d) {
            char text[16];
            std::snprintf(text, sizeof text, "%de-%d", d, k);
            out.push_back(std::strtod(text, nullptr));
        }
    return out;
}

}  // namespace

StampFit check_job_stamp(const PropertyFile& pf, const std::vector<moldata::Atom>& atoms,
                         std::uint32_t density_checksum) {
    if (density_checksum == 0 || atoms.empty()) return StampFit::kUnchecked;
    const moldata::Box box = moldata::default_box(atoms);
    std::vector<BoxAxis> axis[3];
    for (int d = 0; d < 3; ++d) {
        for (const BoxAxis& a : axis_candidates(box.start[d], box.length[d], pf.origin[d], pf.step[d], pf.count[d])) {
            // Only boxes that give the header's count, first point and step
            // (the other two axes a small box of their own).
            BoxAxis three[3];
            for (BoxAxis& t : three) t.length = 1, t.count = 3;
            three[d] = a;
            moldata::LatticeRecord r;
            if (!moldata::box_lattice(three, r) || r.counts[d] != pf.count[d]) continue;
            if (std::fabs(r.origin[d] - pf.origin[d]) > 1e-6 || std::fabs(r.axes[d][d] - pf.step[d]) > 1e-6) continue;
            axis[d].push_back(a);
        }
    }
    const std::vector<double> acc = accuracies();
    for (const BoxAxis& x : axis[0])
        for (const BoxAxis& y : axis[1])
            for (const BoxAxis& z : axis[2]) {
                const BoxAxis three[3] = {x, y, z};
                moldata::LatticeRecord r;
                if (!moldata::box_lattice(three, r)) continue;
                const std::uint32_t grid = moldata::lattice_stamp(r, density_checksum);
                for (double a : acc)
                    if (moldata::checksum32(&a, sizeof a, grid) == pf.stamp) return StampFit::kMatches;
            }
    return StampFit::kOtherJob;
}

}  // namespace kvx::view
