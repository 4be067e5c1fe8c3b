// The molecule builder and the readers of counts and coordinates
// (module Moldata).
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "moldata/job_error.h"
#include "moldata/molecule.h"

namespace kvx::moldata {

// Value of a keyword that is not in the file (a file really holding -666
// reads as missing).
inline constexpr int kKeywordMissing = -666;

// Rewinds f and scans whitespace-separated tokens for the first one equal to
// keyword; returns the integer token that follows, or kKeywordMissing when
// that token is not an integer of 32 bits. The file is left just after it.
int read_keyword(std::FILE* f, const char* keyword);

// What the molecule builder returns: the molecule, or the readers' refusal,
// or neither when no layout of the job is there to read; with the warnings
// about data that is there but incomplete (kalvex prints them on standard
// error).
struct MoleculeLoad {
    std::unique_ptr<Molecule> molecule;
    JobError error;
    std::vector<std::string> warnings;
};

// The multi-file counts: ".control" and ".basis" of the job. No molecule
// when the control file is absent or has no "$natoms"; refused when a count
// is a number but not an integer, or out of its range (negative counts, more
// dummy atoms than atoms).
MoleculeLoad read_counts(const std::string& jobname);

// Atoms of the ".coord" file between "$coordinates" and "$end" ("$molecule"
// starts the next molecule). Prints the atom- and molecule-count warnings;
// more atoms than natoms refuses the job. mol.natoms becomes the number of
// atoms kept.
JobError read_coordinates(Molecule& mol, const std::string& path);

// The one-file ".kvm" layout: counts, "$coord" atoms, basis and the five
// orbital sections. No molecule when the file is absent.
MoleculeLoad read_onefile(const std::string& jobname);

// Builds the job's molecule: the multi-file layout, else the one-file
// layout; then densities, overlap and flags. The first refusal of a reader
// ends the build; nothing after it is read or printed.
MoleculeLoad build_molecule(const std::string& jobname);

}  // namespace kvx::moldata
