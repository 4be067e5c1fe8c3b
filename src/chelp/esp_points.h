// Fitting points of the ESP charge models: the radii tables, the CHELPG
// cubic grid and the Merz-Kollman shells.
#pragma once

#include <string>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::chelp {

// Bohr per angstrom, CODATA 2018 (a0 = 0.529177210903 angstrom).
inline constexpr double kBohrPerAngstrom = 1.0 / 0.529177210903;

enum class PointModel { kChelpg, kMerzKollman };

// Radius tables in angstrom by atomic number; 0 where the table has none.
// CHELPG: Breneman and Wiberg, J. Comput. Chem. 11, 361 (1990), H-Ar.
double breneman_wiberg_radius(int Z);
// Merz-Kollman: Singh and Kollman, J. Comput. Chem. 5, 129 (1984): H C N O
// F P S Cl.
double merz_kollman_radius(int Z);
// Fallback of both: Bondi's van der Waals radii, J. Phys. Chem. 68, 441
// (1964).
double bondi_radius(int Z);

struct RadiusOverride {
    int Z = 0;
    double angstrom = 0.0;
};

// One radius per atom, in angstrom, with where it came from.
struct AtomRadii {
    std::vector<double> angstrom;
    std::vector<std::string> source;  // table name or "-radius"
    std::string error;                // an atom without a radius
};

// The model's table, then Bondi's; an override replaces both for its
// element. An atom that none covers is an error naming it.
AtomRadii atom_radii(const std::vector<moldata::Atom>& atoms, PointModel model,
                     const std::vector<RadiusOverride>& overrides);

// Points x y z (bohr) and what their making counted.
struct PointSet {
    std::vector<double> xyz;
    long candidates = 0;  // lattice points or shell points before the filter
    long count() const { return static_cast<long>(xyz.size() / 3); }
};

// CHELPG grid: a cubic lattice of the given spacing over the atoms' box
// widened by extent on every side (centred on it); a point is kept when it
// lies outside every atom's radius and within extent of some atom
// (Euclidean distances, bohr throughout).
PointSet chelpg_points(const std::vector<moldata::Atom>& atoms, const std::vector<double>& radii, double spacing,
                       double extent);

// Merz-Kollman shells: for each atom and scale s, points on the sphere of
// radius s R about it, about density x 4 pi (s R)^2 of them laid out on
// latitude circles (Connolly's scheme); a point inside another atom's sphere
// of the same scale is dropped. Radii in bohr, density per square bohr.
PointSet merz_kollman_points(const std::vector<moldata::Atom>& atoms, const std::vector<double>& radii,
                             const std::vector<double>& scales, double density);

}  // namespace kvx::chelp
