// Orbital and density grids (module Density).
//
// Both evaluators run over the current Gto builder (gto_setup first) and
// accumulate into the caller's value array, block by block of points
// (grid/blocks.h) on gto_threads() threads; threads take whole blocks, and
// each point's value is the same whichever thread forms it. Progress lines
// " %.0f%%" go to stdout as one sequence; kvx::common::abort_flag stops
// every thread after its block in progress.
#pragma once

#include <vector>

#include "grid/blocks.h"
#include "grid/property_grid.h"
#include "moldata/molecule.h"

namespace kvx::grid {

// maxcmo[a][s] over the orbitals i < norb with occ[i] != 0.
MaxCmo comp_maxcmo(const double* const* cmo, const std::vector<int>& nshat,
                   const std::vector<std::vector<const moldata::Shell*>>& atshpt, int natoms, int norb,
                   const double* occ);

struct MoRequest {
    double* out = nullptr;             // one value per grid point, added to
    const double* const* cmo = nullptr;  // the orbital's coefficient vector (one entry)
};

struct DenRequest {
    double* out = nullptr;
    const double* const* cmo = nullptr;  // per-orbital coefficient vectors
    int norb = 0;                        // last orbital with nonzero occupation + 1
    const double* occ = nullptr;         // norb occupations, any sign
    double base = 0.0;    // progress offset: 0, or 50 for a second pass
    double passes = 1.0;  // 1 or 2
};

void compute_mogrid(const MoRequest& req);
void compute_dengrid(const DenRequest& req);

// Orbital `orbital_text` (1-based number) of set into pg; named "set-n".
void fill_mo(PropertyGrid* pg, const moldata::OrbitalSet* set, const char* orbital_text, const char* set_name);
// Density sum_i occ_i phi_i^2 of the alpha and beta sets (occa has
// alpha->count entries, null = no alpha part; likewise beta).
void fill_density(PropertyGrid* pg, const moldata::OrbitalSet* alpha, const double* occa,
                  const moldata::OrbitalSet* beta, const double* occb, const char* name);

}  // namespace kvx::grid
