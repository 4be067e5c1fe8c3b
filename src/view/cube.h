// Gaussian cube files from property files: the layout every molecular
// viewer reads.
//
//   two comment lines
//   natoms  x0 y0 z0                      (bohr; positive natoms: no orbital line)
//   nx  dx 0 0 / ny  0 dy 0 / nz  0 0 dz  (positive counts: bohr)
//   Z  charge  x y z                      one line per atom
//   values, x outermost, z innermost, six "%13.5E" per line, each z run
//   ending its line
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "moldata/molecule.h"
#include "view/property_file.h"

namespace kvx::view {

// comments[0..1] are written as given, with line breaks and other control
// characters replaced by blanks.
bool write_cube(std::FILE* f, const std::string comments[2], const PropertyFile& pf,
                const std::vector<moldata::Atom>& atoms);

// kalvex-cube JOB FILE.grid [OUT.cube] [--storage-order]; 0 on success, 1
// with one message on standard error otherwise.
int run_cube(int argc, char** argv);

}  // namespace kvx::view
