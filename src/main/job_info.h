// kalvex-info: a job at a glance, before any grid is computed.
#pragma once

#include <string>

#include "moldata/molecule.h"

namespace kvx::main {

// 1 hartree in electronvolts (CODATA 2018).
inline constexpr double kHartreeEv = 27.211386245988;

struct OrbitalMarks {
    int homo = 0;  // 1-based; 0 when the set has no occupied orbital
    int lumo = 0;  // 0 when every orbital of the set is occupied
};

// HOMO and LUMO of the canonical orbitals of one spin: alpha (or the
// restricted set) holds nalpha occupied orbitals, beta nbeta.
OrbitalMarks orbital_marks(const moldata::Molecule& mol, bool beta);

// The report: job files, charge and multiplicity, atoms, basis, each
// orbital set (number, energy, occupation, HOMO/LUMO marks; the occupied
// ones and ten virtual ones, or all with all_orbitals), the default grid
// and the density checksum that seeds the property files' stamps.
std::string job_report(const std::string& job, const moldata::Molecule& mol, bool all_orbitals);

// kalvex-info JOB [--all]: 0 with the report on standard output; 1 with one
// message on standard error when the job cannot be read.
int run_info(int argc, char** argv);

}  // namespace kvx::main
