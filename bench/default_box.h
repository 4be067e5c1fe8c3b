// kalvex's default box for the benchmarks: the atoms' bounding box plus
// 5.7 bohr on every side, as a grid of n points per axis, or with spacing h
// when n is 0.
#pragma once

#include <memory>

#include "grid/grid.h"
#include "moldata/lattice.h"
#include "moldata/molecule.h"

namespace kvx::bench {

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

}  // namespace kvx::bench
