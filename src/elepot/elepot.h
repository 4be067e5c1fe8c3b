// Electrostatic potential on the grid (module Elepot).
//
// V(r) = sum_A Z_A / |r - R_A| - sum_ab D_ab <a| 1/|r' - r| |b>
#pragma once

#include <vector>

#include "grid/grid.h"
#include "moldata/molecule.h"

namespace kvx::elepot {

struct PointLines;

// Set-up for one grid and threshold: 1 = ready, 0 = refused. numt is the
// -numt value (common::thread_count): the threads comp_elepot runs, each on
// its own contiguous part of the points; -memmax bounds their integral
// blocks together.
int elepot_init(const moldata::Molecule* mol, const grid::Grid* grid, double memmax, double thresh, int numt);
// Set-up for a list of n points (x y z each, bohr) instead of a grid; the
// potential is then computed at those points in their order.
int elepot_init_points(const moldata::Molecule* mol, const double* xyz, long n, double memmax, double thresh, int numt);
// Points of the current set-up (0 when not set up).
long elepot_point_count();
// Frees everything the set-up and the integral worker hold, including the
// Boys tables.
void elepot_cleanup();
// Nuclear plus electronic potential at every point of the set-up's grid or
// list (out holds elepot_point_count() values).
// admit (one flag per point, or null for all): a point whose flag is 0 gets
// only the nuclear term.
void comp_elepot(double* out, const moldata::Molecule* mol, const unsigned char* admit = nullptr);
// out[p] = sum_A Z_A / |r_p - R_A| over the points of lines; a point on a
// nucleus takes no term from it.
void nuclear_potential(double* out, const PointLines& lines, const moldata::Atom* atoms, int natoms);

// Primitive-pair evaluations of the last comp_elepot by path: near a pair's
// centre through the Boys tables and the kernels, beyond the Boys function's
// asymptotic switch as point multipoles.
struct PotPathCounts {
    long kernels = 0;
    long multipoles = 0;
};
PotPathCounts elepot_path_counts();

// Multipoles on (the default after every set-up) or off: off sends every
// unscreened pair through the Boys tables and the kernels, as the potential
// was computed before the multipole path (kept for comparisons).
void elepot_use_multipoles(bool on);

// Slice sizes (points per integral-block batch) chosen by the last set-up.
const std::vector<int>& elepot_slice_sizes();

}  // namespace kvx::elepot
