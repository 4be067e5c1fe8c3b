// Orbital and density selection: orbital lists -> occupation vectors.
#pragma once

#include <optional>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::main {

// Orbital types: -2 localized beta, -1 beta, 0 natural, 1 alpha, 2 localized.
const moldata::OrbitalSet* orbital_set_of_type(const moldata::Molecule& mol, int type);

// Occupation vector over the orbital set of the given type, from an orbital
// list such as "1,3-4,7-" (modified in place) or, with no list, the occupied
// orbitals. negate turns every selected entry negative (spin densities).
// Empty optional on failure (message printed).
std::optional<std::vector<double>> select_mos(const moldata::Molecule& mol, char* list, int type, int negate);

}  // namespace kvx::main
