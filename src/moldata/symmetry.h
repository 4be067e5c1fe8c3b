// Symmetry reader: the ".sym" file of a job (module Moldata).
#pragma once

#include <memory>
#include <string>

#include "moldata/job_error.h"
#include "moldata/molecule.h"

namespace kvx::moldata {

// mol.symmetry for n = natoms - ndummy[1] atoms from the file at path:
// null when n < 1 or the file is absent; the default record (ntrans 1,
// group "c1", every atom unique, no tables) when "$ntrans" is missing or 1;
// otherwise the group, the unique atoms and the image table. A table cut
// short by the end of the file makes every atom unique (partial images kept).
// The words before the table are read with the basis token reader, so a
// file that ends before "$group", its name, the unique-atom line or
// "$equivalent_atoms_array:" is refused as the basis file would be.
JobError read_symmetry(Molecule& mol, const std::string& path);

}  // namespace kvx::moldata
