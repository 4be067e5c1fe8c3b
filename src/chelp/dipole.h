// Dipole moment of the wavefunction from the density matrix and the dipole
// integrals over the basis functions.
#pragma once

#include <array>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::chelp {

// Debye per atomic unit of dipole (e a0), CODATA 2018.
inline constexpr double kDebyePerAu = 2.541746473;

// Cartesian dipole integrals <a| r_d |b> of one shell pair about the
// origin, d = x, y, z: three blocks laid out as the overlap code's
// (moldata/overlap.h, overlap_block), spherical transform included. Empty
// when a shell is unusable.
std::array<std::vector<double>, 3> dipole_block(const moldata::Shell& A, const moldata::Shell& B);

// mu = sum_A Z_A R_A - sum_ab P_ab <a| r |b>, a.u., about the origin of the
// job's coordinates; atoms 0 .. natoms-1 give the nuclear part. False when
// the molecule has no density matrix or an unusable shell.
bool wavefunction_dipole(const moldata::Molecule& mol, int natoms, std::array<double, 3>& mu);

}  // namespace kvx::chelp
