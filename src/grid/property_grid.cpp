#include "grid/property_grid.h"

#include "common/fatal.h"

namespace kvx::grid {

std::unique_ptr<PropertyGrid> property_grid_create(const Grid* grid) {
    if (!grid) return nullptr;
    std::unique_ptr<PropertyGrid> pg;
    if (!common::try_alloc([&] {
            pg = std::make_unique<PropertyGrid>();
            pg->grid = grid;
            pg->values.assign(grid->total, 0.0);
        }))
        return nullptr;
    return pg;
}

}  // namespace kvx::grid
