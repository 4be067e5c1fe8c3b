#include "elepot/accum.h"

#include <array>
#include <cstddef>
#include <utility>

#include "common/fatal.h"
#include "gauss/shell_types.h"

namespace kvx::elepot {

namespace {

// Every product of two cartesian counts from {1, 3, 4, 6, 10, 15, 21, 28},
// ascending.
constexpr std::array<int, 34> kLengths = {1,  3,  4,   6,   9,   10,  12,  15,  16,  18,  21,  24,
                                          28, 30, 36,  40,  45,  60,  63,  84,  90,  100, 112, 126,
                                          150, 168, 210, 225, 280, 315, 420, 441, 588, 784};

template <int N>
void zero_n(double* dst) {
    for (int k = 0; k < N; ++k) dst[k] = 0.0;
}

template <int N>
void init_n(const double* fac, const double* val, double* dst) {
    for (int k = 0; k < N; ++k) dst[k] = val[k] * fac[k];
}

template <int N>
void accum_n(const double* fac, const double* val, double* dst) {
    for (int k = 0; k < N; ++k) dst[k] += val[k] * fac[k];
}

template <std::size_t... I>
constexpr auto make_zero(std::index_sequence<I...>) {
    return std::array<AccumZeroFn, sizeof...(I)>{&zero_n<kLengths[I]>...};
}
template <std::size_t... I>
constexpr auto make_init(std::index_sequence<I...>) {
    return std::array<AccumInitFn, sizeof...(I)>{&init_n<kLengths[I]>...};
}
template <std::size_t... I>
constexpr auto make_accum(std::index_sequence<I...>) {
    return std::array<AccumAccFn, sizeof...(I)>{&accum_n<kLengths[I]>...};
}

constexpr auto kSeq = std::make_index_sequence<kLengths.size()>{};
constexpr auto kZero = make_zero(kSeq);
constexpr auto kInit = make_init(kSeq);
constexpr auto kAccum = make_accum(kSeq);

// Index of cart(A) * cart(B) in kLengths by bisection (a balanced
// comparison tree of depth 6), or -1.
int length_index(int typeA, int typeB) {
    if (typeA < 0 || typeA >= gauss::kNumShellTypes || typeB < 0 || typeB >= gauss::kNumShellTypes) return -1;
    const int n =
        gauss::kCartCount[static_cast<std::size_t>(typeA)] * gauss::kCartCount[static_cast<std::size_t>(typeB)];
    int lo = 0, hi = static_cast<int>(kLengths.size()) - 1;
    while (lo <= hi) {
        const int mid = (lo + hi) / 2;
        const int v = kLengths[static_cast<std::size_t>(mid)];
        if (n == v) return mid;
        if (n < v)
            hi = mid - 1;
        else
            lo = mid + 1;
    }
    return -1;
}

}  // namespace

AccumZeroFn which_intc_zero(int typeA, int typeB) {
    const int i = length_index(typeA, typeB);
    if (i < 0) common::fatal("Accum which_intc_zero: cannot select function");
    return kZero[static_cast<std::size_t>(i)];
}

AccumInitFn which_intc_init(int typeA, int typeB) {
    const int i = length_index(typeA, typeB);
    if (i < 0) common::fatal("Accum which_intc_init: cannot select function");
    return kInit[static_cast<std::size_t>(i)];
}

AccumAccFn which_intc_accum(int typeA, int typeB) {
    const int i = length_index(typeA, typeB);
    if (i < 0) common::fatal("Accum which_intc_accum: cannot select function");
    return kAccum[static_cast<std::size_t>(i)];
}

}  // namespace kvx::elepot
