// Overlap matrix of the basis functions (module Overlap).
#pragma once

#include "moldata/molecule.h"

namespace kvx::moldata {

// Allocates S (nbasis rows), computes it and stores it in mol.overlap.
void add_overlap(Molecule& mol);

}  // namespace kvx::moldata
