// Readers of the orbital files other quantum-chemistry programs write: the
// Molden format and the formatted checkpoint (FCHK) format. Both throw
// ImportError with the line at fault.
#pragma once

#include <string>
#include <vector>

#include "import/source.h"

namespace kvx::import {

enum class SourceFormat { Unknown, Molden, Fchk, Wfn, Wfx };

// Decided by content: FCHK files carry "Number of atoms ... I" among their
// first lines, AIM wfn files "GAUSSIAN ... MOL ORBITALS" as their second
// line, wfx files the tag "<Number of Nuclei>", Molden files bracketed
// section names such as "[Atoms]".
SourceFormat detect_format(const std::vector<std::string>& lines);

// Molden: [Atoms] (AU or Angs), [GTO] (s, p, sp, d, f, g, h, i shells; "D"
// exponents accepted), the [5D], [5D7F], [5D10F], [7F], [9G] flags, and
// [MO] with Sym=, Ene=, Spin=, Occup= and sparse "index value" lines.
SourceJob read_molden(const std::vector<std::string>& lines);

// FCHK: atomic numbers, nuclear charges, coordinates, shells (negative types
// spherical, -1 sp), exponents and contraction coefficients, alpha and beta
// MO coefficients and energies, electron counts, charge, multiplicity.
SourceJob read_fchk(const std::vector<std::string>& lines);

// The normalisations Molden writers use, ORCA's first when the file names
// its writer as ORCA.
std::vector<Convention> molden_conventions(bool orca_first);

// AIM wavefunction files: primitives grouped by centre, angular momentum
// and exponent into uncontracted cartesian shells (s to g).
SourceJob read_wfn(const std::vector<std::string>& lines);
SourceJob read_wfx(const std::vector<std::string>& lines);

// Component orders of cartesian shells in each format.
CartesianConvention molden_cartesian_order();
CartesianConvention fchk_cartesian_order();

// Splits text into lines (without their "\n" or "\r\n").
std::vector<std::string> split_lines(const std::string& text);

}  // namespace kvx::import
