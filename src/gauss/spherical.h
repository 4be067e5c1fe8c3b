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

// The combinations of type 4, 6, 11 or 12 for any indexable c and o (c[j]
// readable, o[m] assignable), so that callers holding the components of many
// points in columns form exactly the same numbers as spherical_combine.
template <int Type, class In, class Out>
inline void spherical_combine_at(const In& c, Out&& o) {
    static_assert(Type == 4 || Type == 6 || Type == 11 || Type == 12, "types with combinations only");
    if constexpr (Type == 4) {
        // (2zz - xx - yy) / (2 sqrt 3), (xx - yy) / 2, xy, xz, yz
        o[0] = (2.0 * c[2] - c[0] - c[1]) * 0.2886751345948129;
        o[1] = (c[0] - c[1]) * 0.5;
        o[2] = c[3];
        o[3] = c[4];
        o[4] = c[5];
    } else if constexpr (Type == 6) {
        // Uneven pairs (4xyy - xxx - xzz next to 4xzz - xxx - xyy) are
        // intended: the f component normalisation F = sqrt(8/5) is tuned to
        // exactly this set.
        o[0] = 4.0 * c[1] - c[6] - c[8];
        o[1] = 4.0 * c[2] - c[7] - c[9];
        o[2] = 4.0 * c[3] - c[0] - c[5];
        o[3] = 4.0 * c[7] - c[2] - c[9];
        o[4] = 4.0 * c[5] - c[0] - c[3];
        o[5] = 4.0 * c[8] - c[1] - c[6];
        o[6] = 6.324555320336759 * c[4];  // sqrt 40 xyz
    } else if constexpr (Type == 11) {
        const double p = 1.15470053837925;  // 2 / sqrt 3
        const double q = 3.2659863237109;   // sqrt(32/3)
        o[0] = (c[10] + c[0] - 6.0 * c[3]) * p;
        o[1] = (c[14] + c[0] - 6.0 * c[5]) * p;
        o[2] = (c[14] + c[10] - 6.0 * c[12]) * p;
        o[3] = (c[1] - 3.0 * c[8]) * q;
        o[4] = (c[6] - 3.0 * c[8]) * q;
        o[5] = (c[2] - 3.0 * c[7]) * q;
        o[6] = (c[9] - 3.0 * c[7]) * q;
        o[7] = (c[11] - 3.0 * c[4]) * q;
        o[8] = (c[13] - 3.0 * c[4]) * q;
    } else {
        const double r = 0.730296743340221;  // sqrt(8/15)
        const double s = 2.3094010767585;    // 4 / sqrt 3
        const double t = 9.23760430703401;   // 16 / sqrt 3
        const double u = 5.333333333333333;  // 16 / 3
        o[0] = (c[0] - 10.0 * c[3] + 5.0 * c[10]) * r;
        o[1] = (c[0] - 10.0 * c[5] + 5.0 * c[14]) * r;
        o[2] = (5.0 * c[1] + c[15] - 10.0 * c[6]) * r;
        o[3] = (c[15] - 10.0 * c[17] + 5.0 * c[19]) * r;
        o[4] = (5.0 * c[2] + c[20] - 10.0 * c[9]) * r;
        o[5] = (c[20] - 10.0 * c[18] + 5.0 * c[16]) * r;
        o[6] = (c[16] + c[2] - 6.0 * c[7]) * s;
        o[7] = (c[19] + c[1] - 6.0 * c[8]) * s;
        o[8] = (c[14] + c[10] - 6.0 * c[12]) * s;
        o[9] = (c[4] - c[11]) * t;
        o[10] = (c[4] - 2.0 * c[13] + c[11]) * u;
    }
}

}  // namespace kvx::gauss
