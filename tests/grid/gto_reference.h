// Test-side reference for basis functions on a grid: a brute-force evaluation summing every primitive directly (no
// power tables, no factor cache, no screening), with the displacement atom - point.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/basis_values.h"
#include "common/capture.h"
#include "common/molecules.h"
#include "grid/grid.h"
#include "grid/gto.h"
#include "moldata/molecule.h"

namespace kvx::test {

// Density with each shell's part of an orbital squared on its own (the
// program leaves out the cross terms between shells).
inline double shellwise_density(const moldata::Molecule& mol, const moldata::OrbitalSet& set, const double* occ,
                                const double pt[3]) {
    const std::vector<double> phi = basis_values(mol, pt);
    double rho = 0.0;
    for (int i = 0; i < set.count; ++i)
        for (const moldata::Shell& sh : mol.shells) {
            double part = 0.0;
            for (int m = sh.nfirst - 1; m < sh.nfirst - 1 + sh.size * sh.ngc; ++m)
                part += set.coef.row(i)[m] * phi[m];
            rho += occ[i] * part * part;
        }
    return rho;
}

// Largest deviation from the unscreened value that screening at eps allows,
// for coefficients coef (null: bounded by 1). A dropped shell has every
// primitive's N|c| r^l e^{-ar^2}, or T*R*maxcmo, below eps; each factor's
// monomial coefficients sum to at most 21.4 (the h set), so 64 eps maxcmo per
// primitive and component covers it; plus the rounding of the sum.
inline double screening_tolerance(const moldata::Molecule& mol, double eps, const double* coef, double ref) {
    double sum = 0.0, max_coef = coef ? 0.0 : 1.0;
    for (const auto& sh : mol.shells) sum += grid::kGtoComponents[sh.type] * sh.ncontr() * sh.nprim;
    for (int m = 0; coef && m < mol.nbasis; ++m) max_coef = std::max(max_coef, std::fabs(coef[m]));
    return 64.0 * eps * max_coef * sum + 1e-12 * (1.0 + std::fabs(ref));
}

// Axis-aligned grid (ndim from the counts given) centred at c.
inline std::unique_ptr<grid::Grid> box_grid(int ndim, const double c[3], const double half[3], const int counts[3]) {
    const double axes[3][3] = {{half[0], 0, 0}, {0, half[1], 0}, {0, 0, half[2]}}, spacing[3] = {0.5, 0.5, 0.5};
    return grid::grid_build(ndim, c, axes, spacing, counts);
}

}  // namespace kvx::test
