// Overlap matrix of the basis functions (module Overlap).
//
// S(i, j) = integral of basis function i times basis function j, built shell
// pair by shell pair from per-direction Gaussian product expansions:
//   <a|b> = E_AB prod_d sum_{j even} f_j(a_d, b_d) (2 gamma)^(-j/2) (j-1)!!
#pragma once

#include <vector>

#include "moldata/job_error.h"
#include "moldata/molecule.h"

namespace kvx::moldata {

// Allocates S (nbasis rows), computes it and stores it in mol.overlap.
// Memory that runs out refuses the job.
JobError add_overlap(Molecule& mol);

// Lower triangle of S for the molecule's shells into s (nbasis rows). The
// module's scratch tables must have been sized by overlap_prepare.
void comp_overlap(const Molecule& mol, TriMatrix& s);

// Grows the scratch tables for the largest shell of the molecule; the first
// table that cannot grow refuses the job with its message.
JobError overlap_prepare(const Molecule& mol);

// Scratch growth operations; each keeps what it has when already big
// enough and returns false when memory runs out.
bool ov_intc(int n);   // pair block n x n, two coefficient vectors of n
bool ov_intp(int n);   // primitive block n x n
bool ov_pow(int n);    // (2 gamma)^(-k) (2k-1)!!, k = 0..n
bool ov_fjtab(int l);  // x, y, z f-tables for la, lb <= l, and the per-direction sums
// Releases every scratch table of the module.
void ov_cleanup();

// Block of one shell pair: ncontrA x ncontrB sub-blocks (contraction of A
// outer), each rowsA x colsB after the spherical transform (rows = size for
// spherical types, the cartesian count otherwise; type 3 is one contraction
// of s, x, y, z). Grows the scratch tables as needed; empty when they
// cannot grow.
void overlap_block(const Shell& A, const Shell& B, std::vector<double>& out);

}  // namespace kvx::moldata
