// Spherical transform of integral blocks between two shells.
//
// Blocks are computed over cartesian components (order of type_exponents in
// shell_types.h); for spherical types 4 (d), 6 (f), 11 (g) and 12 (h) the
// rows and columns are replaced by fixed real combinations. Type 13 (i) and
// every cartesian type are left as they are.
#pragma once

#include <cstddef>

namespace kvx::gauss {

// Components a shell of this type has in a block before the transform
// (kCartCount; type 3 counts s + p = 4).
int block_cart_count(int type);
// Components after the transform: kShellSize for types 4, 6, 11, 12, else
// the cartesian count.
int block_sph_count(int type);

// Block k starts at blocks + k * block_stride and holds ncontrA x ncontrB
// sub-blocks (contraction of A outer, of B inner), each cartA x cartB
// row-major, one after another. Afterwards each block holds the same number
// of sub-blocks of rowsA x colsB, packed from the start of the block. Rows
// (A) are transformed first, then columns (B). Allocates nothing.
void spherical_transform(double* blocks, int nblocks, std::size_t block_stride, int typeA, int typeB, int ncontrA,
                         int ncontrB);

// Applies the combinations of one spherical type to one vector of cartesian
// components c (block_cart_count entries), writing block_sph_count entries to
// out. For a type without combinations out is a copy of c.
void spherical_combine(int type, const double* c, double* out);

}  // namespace kvx::gauss
