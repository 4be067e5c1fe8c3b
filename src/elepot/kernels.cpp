#include "elepot/kernels.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "gauss/shell_types.h"

namespace kvx::elepot {

namespace {

using gauss::CartExp;

// Directions ordered by degree, smallest first (outermost loop), by the
// three-comparison network x/y, then the larger of those with z, then the
// first two again; ties keep x, y, z order.
struct DirOrder {
    int dir[3];
    int deg[3];
};

constexpr DirOrder order_dirs(int dx, int dy, int dz) {
    DirOrder o{{0, 1, 2}, {dx, dy, dz}};
    auto swap = [&o](int i, int j) {
        const int d = o.dir[i], g = o.deg[i];
        o.dir[i] = o.dir[j];
        o.deg[i] = o.deg[j];
        o.dir[j] = d;
        o.deg[j] = g;
    };
    if (o.deg[0] > o.deg[1]) swap(0, 1);
    if (o.deg[1] > o.deg[2]) swap(1, 2);
    if (o.deg[0] > o.deg[1]) swap(0, 1);
    return o;
}

// ---- Specialised kernels: one per class pair s, p, sp, d, f ----

constexpr std::array<int, 5> kClassL = {0, 1, 1, 2, 3};
constexpr std::array<int, 5> kClassComp = {1, 3, 4, 6, 10};

template <int C>
constexpr gauss::CartExp class_exp(int k) {
    if constexpr (C == 0) return gauss::CartExp{0, 0, 0};
    if constexpr (C == 1) return gauss::kCart1[static_cast<std::size_t>(k)];
    if constexpr (C == 2) return k == 0 ? gauss::CartExp{0, 0, 0} : gauss::kCart1[static_cast<std::size_t>(k - 1)];
    if constexpr (C == 3) return gauss::kCart2[static_cast<std::size_t>(k)];
    return gauss::kCart3[static_cast<std::size_t>(k)];
}

// f(integral_constant<int, 0>), ..., f(integral_constant<int, N-1>), in order.
template <int N, class Fn>
inline __attribute__((always_inline)) void static_for(Fn&& f) {
    [&]<int... I>(std::integer_sequence<int, I...>) {
        (f(std::integral_constant<int, I>{}), ...);
    }(std::make_integer_sequence<int, N>{});
}

// One element of the block, all trip counts constant. The term order and
// association match generic_kernel, so both give the same bits.
template <int CA, int CB, int I, int J>
inline __attribute__((always_inline)) double element(const double* X, const double* Y, const double* Z, int ns,
                                                     const double* F) {
    constexpr gauss::CartExp a = class_exp<CA>(I);
    constexpr gauss::CartExp b = class_exp<CB>(J);
    constexpr int lB1 = kClassL[CB] + 1;
    constexpr DirOrder o = order_dirs(a.x + b.x, a.y + b.y, a.z + b.z);
    constexpr int row[3] = {a.x * lB1 + b.x, a.y * lB1 + b.y, a.z * lB1 + b.z};
    const double* base[3] = {X, Y, Z};
    const double* W1 = base[o.dir[0]] + row[o.dir[0]] * ns;
    const double* W2 = base[o.dir[1]] + row[o.dir[1]] * ns;
    const double* W3 = base[o.dir[2]] + row[o.dir[2]] * ns;
    constexpr int d1 = o.deg[0], d2 = o.deg[1], d3 = o.deg[2];
    double v = 0.0;
    if constexpr (d1 > 0) {
        static_for<d1 + 1>([&](auto n1) {
            static_for<d2 + 1>([&](auto n2) {
                static_for<d3 + 1>([&](auto n3) { v += W1[n1] * W2[n2] * W3[n3] * F[n1 + n2 + n3]; });
            });
        });
    } else if constexpr (d2 > 0) {
        static_for<d2 + 1>([&](auto n2) {
            static_for<d3 + 1>([&](auto n3) { v += W2[n2] * W3[n3] * F[n2 + n3]; });
        });
    } else if constexpr (d3 > 0) {
        static_for<d3 + 1>([&](auto n3) { v += W3[n3] * F[n3]; });
    } else {
        (void)W1;
        (void)W2;
        (void)W3;
        v = F[0];
    }
    return v;
}

template <int CA, int CB>
void class_kernel(int, int, const double* X, const double* Y, const double* Z, int ns, const double* F,
                  double* out) {
    constexpr int nA = kClassComp[CA], nB = kClassComp[CB];
    static_for<nA>([&](auto i) {
        static_for<nB>([&](auto j) { out[i * nB + j] = element<CA, CB, i, j>(X, Y, Z, ns, F); });
    });
}

template <int... K>
constexpr std::array<KernelFn, sizeof...(K)> make_table(std::integer_sequence<int, K...>) {
    return {&class_kernel<K / 5, K % 5>...};
}

constexpr auto kKernels = make_table(std::make_integer_sequence<int, 25>{});

}  // namespace

KernelFn select_kernel(int typeA, int typeB) {
    if (typeA < 0 || typeA >= gauss::kNumShellTypes || typeB < 0 || typeB >= gauss::kNumShellTypes)
        return &generic_kernel;
    const int cA = gauss::kShellClass[static_cast<std::size_t>(typeA)];
    const int cB = gauss::kShellClass[static_cast<std::size_t>(typeB)];
    if (cA > 4 || cB > 4) return &generic_kernel;
    return kKernels[static_cast<std::size_t>(5 * cA + cB)];
}

void generic_kernel(int typeA, int typeB, const double* X, const double* Y, const double* Z, int ns,
                    const double* F, double* out) {
    const int nA = gauss::kCartCount[static_cast<std::size_t>(typeA)];
    const int nB = gauss::kCartCount[static_cast<std::size_t>(typeB)];
    const int lB1 = gauss::kAngular[static_cast<std::size_t>(typeB)] + 1;
    const double* base[3] = {X, Y, Z};
    for (int i = 0; i < nA; ++i) {
        const gauss::CartExp a = gauss::type_exponents(typeA, i);
        for (int j = 0; j < nB; ++j) {
            const gauss::CartExp b = gauss::type_exponents(typeB, j);
            const DirOrder o = order_dirs(a.x + b.x, a.y + b.y, a.z + b.z);
            const int row[3] = {a.x * lB1 + b.x, a.y * lB1 + b.y, a.z * lB1 + b.z};
            const double* W1 = base[o.dir[0]] + row[o.dir[0]] * ns;
            const double* W2 = base[o.dir[1]] + row[o.dir[1]] * ns;
            const double* W3 = base[o.dir[2]] + row[o.dir[2]] * ns;
            const int d1 = o.deg[0], d2 = o.deg[1], d3 = o.deg[2];
            double v = 0.0;
            if (d1 > 0) {
                for (int n1 = 0; n1 <= d1; ++n1) {
                    const double f1 = W1[n1];
                    if (f1 == 0.0) continue;
                    for (int n2 = 0; n2 <= d2; ++n2) {
                        const double f12 = f1 * W2[n2];
                        if (f12 == 0.0) continue;
                        for (int n3 = 0; n3 <= d3; ++n3) v += f12 * W3[n3] * F[n1 + n2 + n3];
                    }
                }
            } else if (d2 > 0) {
                for (int n2 = 0; n2 <= d2; ++n2) {
                    const double f2 = W2[n2];
                    if (f2 == 0.0) continue;
                    for (int n3 = 0; n3 <= d3; ++n3) v += f2 * W3[n3] * F[n2 + n3];
                }
            } else if (d3 > 0) {
                for (int n3 = 0; n3 <= d3; ++n3) v += W3[n3] * F[n3];
            } else {
                v = F[0];
            }
            out[i * nB + j] = v;
        }
    }
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
