// Symmetry reader: the ".sym" file of a job (module Moldata).
#pragma once

#include <memory>
#include <string>

#include "moldata/molecule.h"

namespace kvx::moldata {

// Symmetry record for n = natoms - ndummy atoms from the file at path:
// null when n < 1 or the file is absent; the default record (ntrans 1,
// group "c1", every atom unique, no tables) when "$ntrans" is missing or 1;
// otherwise the group, the unique atoms and the image table. A table cut
// short by the end of the file makes every atom unique (partial images kept).
std::unique_ptr<SymmetryInfo> read_symmetry(const std::string& path, int natoms, int ndummy);

}  // namespace kvx::moldata
