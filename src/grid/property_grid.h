// A property on a grid: one value per point, its name and its file name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "grid/grid.h"

namespace kvx::grid {

struct PropertyGrid {
    const Grid* grid = nullptr;  // not owned
    std::vector<double> values;  // grid->total values, zero at creation
    std::string name;            // property name ("ep", "moa-3", "den", ...)
    std::string filename;
};

// Null when the grid is missing or the values cannot be allocated.
std::unique_ptr<PropertyGrid> property_grid_create(const Grid* grid);

}  // namespace kvx::grid
