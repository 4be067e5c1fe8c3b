// Density matrices from the occupied canonical orbitals (Compute_density).
#pragma once

#include <cstdint>

#include "moldata/job_error.h"
#include "moldata/molecule.h"

namespace kvx::moldata {

// Whether the set holds nocc orbitals of nbasis coefficients.
bool gives_density(const OrbitalSet* set, int nocc, int nbasis);

// P(i, j) = sum over the first nocc rows k of C_k(i) C_k(j), j <= i, summed
// in ascending k in plain double arithmetic (its bits feed the checksum).
// The set must give a density; null when memory runs out.
std::shared_ptr<TriMatrix> spin_density(const OrbitalSet& set, int nocc, int nbasis);

// Fills density_alpha, density_beta and density (2 Pa for a restricted job,
// Pa + Pb, or the one spin matrix itself) and density_checksum. A spin with
// too few orbitals has no matrix; memory that runs out refuses the job.
JobError compute_density(Molecule& mol);

// Checksum of a TriMatrix: its rows in order, each 8 (i + 1) bytes, chained
// from seed 0.
std::uint32_t density_checksum(const TriMatrix& p);

}  // namespace kvx::moldata
