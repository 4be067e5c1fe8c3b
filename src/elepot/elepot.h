// Electrostatic potential on the grid (module Elepot).
//
// V(r) = sum_A Z_A / |r - R_A| - sum_ab D_ab <a| 1/|r' - r| |b>
#pragma once

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

// Points for which the filter answers false are not integrated (their
// electronic part is left out): the charge fit installs its own distance
// test here while it is set up. Null removes the filter.
using PointFilter = bool (*)(const double r[3]);
void elepot_set_point_filter(PointFilter f);

}  // namespace kvx::elepot
