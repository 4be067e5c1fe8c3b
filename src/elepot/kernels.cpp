#include "elepot/kernels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "gauss/shell_types.h"

namespace kvx::elepot {

namespace {

// line_point with the angular momenta fixed at compile time (LA, LB >= 0)
// or taken from lA, lB.
template <int LA, int LB>
double line_point_t(int la, int lb, const double* C, const double* Z, int ns, const double* F) {
    const int lA = LA >= 0 ? LA : la, lB = LB >= 0 ? LB : lb, lab = lA + lB;
    double v = 0.0;
    for (int az = 0; az <= lA; ++az)
        for (int bz = 0; bz <= lB; ++bz) {
            const double* z = Z + (az * (lB + 1) + bz) * ns;
            const double* c = C + (az * (lB + 1) + bz) * (lab + 1);
            for (int nz = 0; nz <= az + bz; ++nz) {
                double t = 0.0;
                for (int m = 0; m <= lab - az - bz; ++m) t += c[m] * F[m + nz];
                v += z[nz] * t;
            }
        }
    return v;
}

template <int... K>
constexpr std::array<LinePointFn, sizeof...(K)> make_line_table(std::integer_sequence<int, K...>) {
    return {&line_point_t<K / 4, K % 4>...};
}

constexpr auto kLinePoints = make_line_table(std::make_integer_sequence<int, 16>{});

}  // namespace

void line_weights(int typeA, int typeB, const double* X, const double* Y, int ns, const double* w, double* C) {
    const int lA = gauss::kAngular[static_cast<std::size_t>(typeA)];
    const int lB = gauss::kAngular[static_cast<std::size_t>(typeB)], lab = lA + lB;
    const int nA = gauss::kCartCount[static_cast<std::size_t>(typeA)];
    const int nB = gauss::kCartCount[static_cast<std::size_t>(typeB)];
    std::fill(C, C + (lA + 1) * (lB + 1) * (lab + 1), 0.0);
    for (int i = 0; i < nA; ++i) {
        const gauss::CartExp a = gauss::type_exponents(typeA, i);
        for (int j = 0; j < nB; ++j) {
            const double wij = w[i * nB + j];
            if (wij == 0.0) continue;
            const gauss::CartExp b = gauss::type_exponents(typeB, j);
            const double* x = X + (a.x * (lB + 1) + b.x) * ns;
            const double* y = Y + (a.y * (lB + 1) + b.y) * ns;
            double* c = C + (a.z * (lB + 1) + b.z) * (lab + 1);
            for (int nx = 0; nx <= a.x + b.x; ++nx) {
                const double fx = wij * x[nx];
                for (int ny = 0; ny <= a.y + b.y; ++ny) c[nx + ny] += fx * y[ny];
            }
        }
    }
}

LinePointFn select_line_point(int lA, int lB) {
    if (lA >= 0 && lA <= 3 && lB >= 0 && lB <= 3) return kLinePoints[static_cast<std::size_t>(4 * lA + lB)];
    return &line_point_t<-1, -1>;
}

double density_gather(const moldata::TriMatrix& D, double* out, bool same_shell, int firstA, int ncontrA, int nfA,
                      int firstB, int ncontrB, int nfB) {
    double dmax = 0.0;
    std::size_t k = 0;
    for (int c1 = 0; c1 < ncontrA; ++c1)
        for (int c2 = 0; c2 < ncontrB; ++c2)
            for (int i = 0; i < nfA; ++i) {
                const int r = firstA - 1 + c1 * nfA + i;
                for (int j = 0; j < nfB; ++j) {
                    const int q = firstB - 1 + c2 * nfB + j;
                    double v;
                    if (r > q)
                        v = 2.0 * D.at(r, q);
                    else if (r == q)
                        v = D.at(r, r);
                    else
                        v = same_shell ? 0.0 : 2.0 * D.at(q, r);  // a shell with itself: upper triangle once only
                    out[k++] = v;
                    if (std::fabs(v) > dmax) dmax = std::fabs(v);
                }
            }
    return dmax;
}

}  // namespace kvx::elepot
