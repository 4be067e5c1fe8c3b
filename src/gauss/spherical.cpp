#include "gauss/spherical.h"

#include <algorithm>

#include "gauss/shell_types.h"

namespace kvx::gauss {

namespace {

constexpr int kMaxCart = 28;

bool has_combinations(int type) { return type == 4 || type == 6 || type == 11 || type == 12; }

bool valid_type(int type) { return type >= 0 && type < kNumShellTypes; }

}  // namespace

int block_cart_count(int type) { return valid_type(type) ? kCartCount[type] : 0; }

int block_sph_count(int type) {
    if (!valid_type(type)) return 0;
    return has_combinations(type) ? kShellSize[type] : kCartCount[type];
}

void spherical_combine(int type, const double* c, double* o) {
    switch (type) {
        case 4:
            // (2zz - xx - yy) / (2 sqrt 3), (xx - yy) / 2, xy, xz, yz
            o[0] = (2.0 * c[2] - c[0] - c[1]) * 0.2886751345948129;
            o[1] = (c[0] - c[1]) * 0.5;
            o[2] = c[3];
            o[3] = c[4];
            o[4] = c[5];
            return;
        case 6:
            // Uneven pairs (4xyy - xxx - xzz next to 4xzz - xxx - xyy) are
            // intended: the f component normalisation F = sqrt(8/5) is tuned
            // to exactly this set.
            o[0] = 4.0 * c[1] - c[6] - c[8];
            o[1] = 4.0 * c[2] - c[7] - c[9];
            o[2] = 4.0 * c[3] - c[0] - c[5];
            o[3] = 4.0 * c[7] - c[2] - c[9];
            o[4] = 4.0 * c[5] - c[0] - c[3];
            o[5] = 4.0 * c[8] - c[1] - c[6];
            o[6] = 6.324555320336759 * c[4];  // sqrt 40 xyz
            return;
        case 11: {
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
            return;
        }
        case 12: {
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
            return;
        }
        default:
            std::copy(c, c + block_cart_count(type), o);
            return;
    }
}

void spherical_transform(double* blocks, int nblocks, std::size_t block_stride, int typeA, int typeB, int ncontrA,
                         int ncontrB) {
    const bool rowsA = valid_type(typeA) && has_combinations(typeA);
    const bool colsB = valid_type(typeB) && has_combinations(typeB);
    if (!rowsA && !colsB) return;
    if (!blocks || nblocks <= 0 || ncontrA <= 0 || ncontrB <= 0) return;

    const int ca = block_cart_count(typeA), cb = block_cart_count(typeB);
    const int ra = block_sph_count(typeA), rb = block_sph_count(typeB);
    const std::size_t in_size = static_cast<std::size_t>(ca) * cb;
    const std::size_t out_size = static_cast<std::size_t>(ra) * rb;
    const int nsub = ncontrA * ncontrB;

    double buf[kMaxCart * kMaxCart];  // one sub-block, rows transformed in place
    double in[kMaxCart], out[kMaxCart];

    for (int k = 0; k < nblocks; ++k) {
        double* blk = blocks + static_cast<std::size_t>(k) * block_stride;
        // Output sub-block s never starts after input sub-block s, and each
        // is read into buf before it is written, so packing in order is safe.
        for (int s = 0; s < nsub; ++s) {
            const double* src = blk + s * in_size;
            std::copy(src, src + in_size, buf);
            int rows = ca;
            if (rowsA) {
                // buf: ca x cb -> ra x cb, column by column.
                for (int j = 0; j < cb; ++j) {
                    for (int i = 0; i < ca; ++i) in[i] = buf[i * cb + j];
                    spherical_combine(typeA, in, out);
                    for (int i = 0; i < ra; ++i) buf[i * cb + j] = out[i];
                }
                rows = ra;
            }
            double* dst = blk + s * out_size;
            for (int i = 0; i < rows; ++i) {
                const double* row = buf + i * cb;
                if (colsB) {
                    spherical_combine(typeB, row, out);
                    std::copy(out, out + rb, dst + i * rb);
                } else {
                    std::copy(row, row + cb, dst + i * rb);
                }
            }
        }
    }
}

}  // namespace kvx::gauss
