// CHELPG charges (module Chelp): one point charge per atom fitted to the
// electrostatic potential on the grid points that lie in a shell around the
// molecule, constrained to add up to the molecule's charge.
//
// Lifecycle per -chelp request: chelp_setup -> potential run -> chelpg ->
// chelp_release.
#pragma once

#include <vector>

#include "grid/grid.h"
#include "grid/property_grid.h"
#include "moldata/molecule.h"

namespace kvx::chelp {

// Stores the molecule, its atom count (natoms - ndummy[1]), charge and the
// radii in bohr and sets the value threshold to thresh. 1 on success, 0 (and
// a cleared state) without a molecule or when the radii cannot be allocated.
int chelp_setup(const moldata::Molecule* mol, double thresh);

// Clears the state, value threshold back to 1e-7.
void chelp_release();

// Radius of element Z in angstrom; 0.0 outside 1..110.
double chelp_radius(int Z);

// True when r is inside no atom (d < 1.0 radius) and within 1.8 radii of
// some atom. False when the module is not set up.
bool chelp_point_in_range(const double r[3]);

// chelp_point_in_range for every point of the grid, in point order: the
// points the fit can use, so that the potential need not integrate the
// others. Empty when the grid is null or memory runs out.
std::vector<unsigned char> chelp_point_mask(const grid::Grid* grid);

// Fit and report, written to "<jobname>.chelp". Ends the process (status 0)
// only when that file cannot be opened; every other failure is reported in
// the file. The fit's matrix is built on nthreads threads, with the same bits
// for every count.
void chelpg(const grid::PropertyGrid* pot, const char* jobname, int nthreads = 1);

}  // namespace kvx::chelp
