// RESP charges (Bayly, Cieplak, Cornell and Kollman, J. Phys. Chem. 97,
// 10269 (1993)): two restrained fits on the Merz-Kollman points.
//
// Stage one: every charge free, hyperbolic restraints of weight a1 toward
// zero on the heavy atoms, hydrogens unrestrained. Stage two: only the sp3
// carbons and their hydrogens are fitted again (weight a2 on the carbons),
// the hydrogens of each methyl and methylene group sharing one charge; every
// other charge keeps its stage-one value.
#pragma once

#include <vector>

#include "chelp/esp_fit.h"
#include "moldata/molecule.h"

namespace kvx::chelp {

struct RespSettings {
    double a1 = 0.0005;
    double a2 = 0.001;
    double b = 0.1;
    double tolerance = 1e-6;
    int max_iterations = 200;
};

// Bonds from covalent radii (Cordero et al., Dalton Trans. 2008, 2832): d <
// 1.2 (r_i + r_j). neighbours[i] lists the atoms bonded to i.
std::vector<std::vector<int>> bonded_neighbours(const std::vector<moldata::Atom>& atoms);

// The stage-two groups: group[i] >= 0 for the atoms refitted (each sp3
// carbon, a carbon with four neighbours, its own group; its hydrogens one
// shared group when there are two or three of them, else their own), -1
// for the atoms held.
std::vector<int> stage_two_groups(const std::vector<moldata::Atom>& atoms);

struct RespResult {
    FitResult stage1, stage2;  // stage2.q are the RESP charges
    std::vector<int> refit;    // stage-two group of each atom (-1 held)
    bool has_stage2 = false;   // false when no atom is refitted
};

// base carries the total charge and the dipole constraint of both stages.
RespResult resp_fit(const NormalEquations& ne, const FitData& data, const std::vector<moldata::Atom>& atoms,
                    const FitSpec& base, const RespSettings& settings);

}  // namespace kvx::chelp
