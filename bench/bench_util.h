// What the benchmarks share: kalvex's default box and the best of repeated
// wall-clock times.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

#include "grid/grid.h"
#include "moldata/lattice.h"
#include "moldata/molecule.h"

namespace kvx::bench {

// The atoms' bounding box plus 5.7 bohr on every side, as a grid of n points
// per axis, or with spacing h when n is 0.
inline std::unique_ptr<grid::Grid> default_box(const moldata::Molecule& mol, int n, double h = 0.5) {
    const moldata::Box box = moldata::default_box(mol.atoms);
    double centre[3], half[3][3] = {}, spacing[3];
    int counts[3];
    for (int d = 0; d < 3; ++d) {
        half[d][d] = box.length[d] / 2;
        centre[d] = box.start[d] + box.length[d] / 2;
        spacing[d] = h;
        counts[d] = n;
    }
    return grid::grid_build(3, centre, half, spacing, counts);
}

// Shortest wall-clock time of f over repeats runs, in seconds.
inline double best_of(int repeats, const std::function<void()>& f) {
    double best = 1e300;
    for (int r = 0; r < repeats; ++r) {
        const auto t0 = std::chrono::steady_clock::now();
        f();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

}  // namespace kvx::bench
