// Electrostatic potential on the grid (module Elepot).
//
// V(r) = sum_A Z_A / |r - R_A| - sum_ab D_ab <a| 1/|r' - r| |b>
#pragma once

#include <vector>

#include "grid/grid.h"
#include "moldata/molecule.h"

namespace kvx::elepot {

// Set-up for one grid and threshold: 1 = ready, 0 = refused. numt is
// accepted and ignored (one work share).
int elepot_init(const moldata::Molecule* mol, const grid::Grid* grid, double memmax, double thresh, int numt);
// Frees everything the set-up and the integral worker hold, including the
// Boys tables.
void elepot_cleanup();
// Nuclear plus electronic potential at every point of the installed grid.
void comp_elepot(double* out, const moldata::Molecule* mol);
// out[p] = sum_A Z_A / |r_p - R_A| over the installed grid's points.
void nuclear_potential(double* out, const moldata::Atom* atoms, int natoms);

// One work share of the integral worker: its output, the molecule's total
// density, shells and counts, and the share index.
struct PotShare {
    double* out = nullptr;
    const moldata::TriMatrix* density = nullptr;
    const moldata::Shell* shells = nullptr;
    int nshell = 0;
    int nbasis = 0;
    int index = 0;
};
// Electronic part, subtracted into share.out: out -= sum_ab D_ab <a|1/|r-C||b>.
void pot_ints(PotShare& share);

// Slice sizes (points per integral-block batch) chosen by the last set-up.
const std::vector<int>& elepot_slice_sizes();

// Points for which the filter answers false are not integrated (their
// electronic part is left out): the charge fit installs its own distance
// test here while it is set up. Null removes the filter. The filter belongs
// to the module that installs it: elepot_cleanup leaves it in place.
using PointFilter = bool (*)(const double r[3]);
void elepot_set_point_filter(PointFilter f);

}  // namespace kvx::elepot
