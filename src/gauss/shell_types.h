// Shell type codes 0..13 and their per-type constants.
//
//  code label  l  cart size class
//   0   -      -   0    0    0    not a shell
//   1   s      0   1    1    0
//   2   p      1   3    3    1
//   3   l      1   4    4    2    s and p sharing exponents
//   4   d      2   6    5    3    spherical
//   5   d6     2   6    6    3
//   6   f      3  10    7    4    spherical
//   7   f10    3  10   10    4
//   8   g15    4  15   15    5
//   9   h21    5  21   21    6
//  10   i28    6  28   28    7
//  11   g      4  15    9    5    spherical
//  12   h      5  21   11    6    spherical
//  13   i      6  28   13    7    spherical
#pragma once

#include <array>

namespace kvx::gauss {

inline constexpr int kNumShellTypes = 14;

// Cartesian component count (type 3 carries s + p = 4).
inline constexpr std::array<int, 14> kCartCount = {0, 1, 3, 4, 6, 6, 10, 10, 15, 21, 28, 15, 21, 28};
// Functions per contraction ("size"): the spherical count for spherical types.
inline constexpr std::array<int, 14> kShellSize = {0, 1, 3, 4, 5, 6, 7, 10, 15, 21, 28, 9, 11, 13};
// Kernel class: 0 s, 1 p, 2 sp, 3 d, 4 f, 5 g, 6 h, 7 i.
inline constexpr std::array<int, 14> kShellClass = {0, 0, 1, 2, 3, 3, 4, 4, 5, 6, 7, 5, 6, 7};
// Angular momentum l (type 0 counts as 0).
inline constexpr std::array<int, 14> kAngular = {0, 0, 1, 1, 2, 2, 3, 3, 4, 5, 6, 4, 5, 6};

inline constexpr bool is_spherical(int type) {
    return type == 4 || type == 6 || type == 11 || type == 12 || type == 13;
}

// Normalisation constants used by the basis reader:
// E = 2l + 3, power l/2, K = 2^(l + 3/2), and the per-type factor F.
// F is deliberately uneven (4 for both d types, 1 for spherical g/h/i):
// it fixes the component normalisation of the file format.
inline constexpr std::array<double, 14> kNormExponent = {0, 3, 5, 5, 7, 7, 9, 9, 11, 13, 15, 11, 13, 15};
inline constexpr std::array<double, 14> kNormPower = {0, 0, 0.5, 0.5, 1, 1, 1.5, 1.5, 2, 2.5, 3, 2, 2.5, 3};
inline constexpr std::array<double, 14> kNormK = {0,
                                                  2.8284271247,
                                                  5.6568542495,
                                                  5.6568542495,
                                                  11.313708499,
                                                  11.313708499,
                                                  22.627416998,
                                                  22.627416998,
                                                  45.2548339959,
                                                  90.5096679919,
                                                  181.0193359838,
                                                  45.2548339959,
                                                  90.5096679919,
                                                  181.0193359838};
inline constexpr std::array<double, 14> kNormF = {
    0, 1, 2, 2, 4, 4, 1.2649110641, 1.6329931619, 4.131182236, 3.1228802334, 2.0819201556, 1, 1, 1};

// Cartesian exponents (ax, ay, az) of component k of a shell of angular
// momentum l. d: xx, yy, zz, xy, xz, yz; all other degrees in lexicographic
// order of the exponent letters (x before y before z, higher x first).
struct CartExp {
    int x, y, z;
};

namespace detail {
template <int L>
constexpr std::array<CartExp, (L + 1) * (L + 2) / 2> make_cart_order() {
    std::array<CartExp, (L + 1) * (L + 2) / 2> out{};
    if constexpr (L == 2) {
        out = {CartExp{2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {1, 1, 0}, {1, 0, 1}, {0, 1, 1}};
    } else {
        int k = 0;
        for (int ax = L; ax >= 0; --ax)
            for (int ay = L - ax; ay >= 0; --ay) out[k++] = CartExp{ax, ay, L - ax - ay};
    }
    return out;
}
}  // namespace detail

inline constexpr auto kCart0 = detail::make_cart_order<0>();
inline constexpr auto kCart1 = detail::make_cart_order<1>();
inline constexpr auto kCart2 = detail::make_cart_order<2>();
inline constexpr auto kCart3 = detail::make_cart_order<3>();
inline constexpr auto kCart4 = detail::make_cart_order<4>();
inline constexpr auto kCart5 = detail::make_cart_order<5>();
inline constexpr auto kCart6 = detail::make_cart_order<6>();

// Component k (0-based) of a shell of angular momentum l.
constexpr CartExp cart_exponents(int l, int k) {
    switch (l) {
        case 0:
            return kCart0[k];
        case 1:
            return kCart1[k];
        case 2:
            return kCart2[k];
        case 3:
            return kCart3[k];
        case 4:
            return kCart4[k];
        case 5:
            return kCart5[k];
        default:
            return kCart6[k];
    }
}

// Component k of a shell of the given type; type 3 (sp) is s, x, y, z.
constexpr CartExp type_exponents(int type, int k) {
    if (type == 3) return k == 0 ? CartExp{0, 0, 0} : kCart1[k - 1];
    return cart_exponents(kAngular[type], k);
}

}  // namespace kvx::gauss
