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
            return spherical_combine_at<4>(c, o);
        case 6:
            return spherical_combine_at<6>(c, o);
        case 11:
            return spherical_combine_at<11>(c, o);
        case 12:
            return spherical_combine_at<12>(c, o);
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
