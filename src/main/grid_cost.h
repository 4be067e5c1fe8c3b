// What one request costs on a grid, estimated before it starts: the memory
// of its values, the size of its property file and a rough time.
#pragma once

#include <string>

#include "grid/grid.h"
#include "moldata/molecule.h"

namespace kvx::main {

struct GridCost {
    double memory_bytes = 0;  // the values of this property (and the fit's point arrays)
    double file_bytes = 0;    // the property file; 0 for -chelp
    double seconds = 0;       // rough, from timings of small molecules on one core
};

// kind: a request kind (RequestKind).
GridCost estimate_cost(const grid::Grid& g, int kind, const moldata::Molecule& mol);

// The line kalvex prints on standard error before a request whose estimate
// reaches a gigabyte of memory or of file, or a minute; empty otherwise.
std::string large_grid_note(const grid::Grid& g, int kind, const moldata::Molecule& mol);

}  // namespace kvx::main
