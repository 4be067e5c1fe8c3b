#include "grid/property_grid.h"

#include <new>

namespace kvx::grid {

std::unique_ptr<PropertyGrid> property_grid_create(const Grid* grid) {
    if (!grid) return nullptr;
    try {
        auto pg = std::make_unique<PropertyGrid>();
        pg->grid = grid;
        pg->values.assign(grid->total, 0.0);
        return pg;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace kvx::grid
