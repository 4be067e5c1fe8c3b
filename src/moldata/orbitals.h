// Orbital readers: binary orbital files of the multi-file layout and text
// sections of the one-file layout (module Moldata).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::moldata {

// Binary set: framed records (4-byte words around each, values unchecked):
// header norb, valid (two int32; with intsize 1 four int32 words, norb the
// first and valid the third), norb rows of nbasis doubles, optionally norb
// energies. A file cut inside the rows keeps the complete rows and no
// energies. Null when the file is absent or its header incomplete. announced,
// when given, receives the header's norb.
std::unique_ptr<OrbitalSet> read_binary_orbitals(const std::string& path, int nbasis, int intsize,
                                                 int* announced = nullptr);

// Writes a set in the binary layout read above (int32 header, energies
// when the set has them). False when the file cannot be written completely.
bool write_binary_orbitals(const std::string& path, const OrbitalSet& set);

// Text set from the section of the one-file ".kvm" file (jobname + ".kvm")
// whose line contains `section`. Orbital headers hold "eigenvalue=" and
// "ncoefs="; orbitals may come in any order and land in the row of their
// number. Null when the file or the section is absent, or when an orbital
// number lies outside 1..nbasis or a coefficient count above nbasis (then
// with one message).
std::unique_ptr<OrbitalSet> read_text_orbitals(const std::string& jobname, const char* section, int nbasis);

// Multi-file layout: ".mos" alpha; ".mob" beta (unrestricted); ".los", else
// ".loc", localized; ".los" again localized beta and ".nos" natural
// (unrestricted). A file holding fewer orbitals than its header announces,
// or than the occupied ones of its spin, adds a line to warnings.
void read_orbitals(Molecule& mol, const std::string& jobname, std::vector<std::string>* warnings = nullptr);

// One-file layout: "$scfmo", "$betamo", "$scflo", "$betalo", "$betano"; a
// section of fewer complete orbitals than the occupied ones adds a warning.
void read_onefile_orbitals(Molecule& mol, const std::string& jobname, std::vector<std::string>* warnings = nullptr);

// Debugging prints.
void print_orbitals(const OrbitalSet& set);
void print_atoms(const Molecule& mol);
void print_shells(const Molecule& mol);

}  // namespace kvx::moldata
