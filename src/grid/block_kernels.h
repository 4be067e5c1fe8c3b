// The block evaluator's pieces shared by its loop and its kernels (internal
// to src/grid): one atom over one block, and the kernels of a cartesian
// shell with one contraction, which form each factor x^i y^j z^k where they
// use it instead of storing the factors per point. One template over the
// line axis L and the degree gives every such shell type; the numbers are
// those of comp_cterm, shell_radial's sum and sum_gto, added up in the same
// order.
#pragma once

#include <cmath>
#include <utility>

#include "gauss/shell_types.h"
#include "grid/blocks.h"

namespace kvx::grid::blockeval {

inline constexpr int B = kBlockPoints;
// Powers a table entry holds at most: l <= 6, and at least x^0 .. x^2.
inline constexpr int kMaxPower = 7;

// One atom over one block: the block's points p0 .. p1-1 have the atom's
// table entries (the point-by-point loop skips the atom at the others).
struct AtomBlock {
    const double* line = nullptr;  // powers on the line axis: power k of point pt at line[k * stride + pt]
    int stride = 0;
    double fixed[3][kMaxPower] = {};  // powers on the two fixed axes
    int p0 = 0, p1 = 0;
    int kstar = 0;       // the point nearest the atom
    double rmin2 = 0.0;  // its squared distance
};

// The powers as a kernel reads them, with the fixed axes' numbers copied
// into the kernel's frame (so no store of the kernel can change them).
template <int L>
struct Powers {
    const double* line;
    int stride;
    double fixed[3][kMaxPower];

    explicit Powers(const AtomBlock& ab) : line(ab.line), stride(ab.stride) {
        for (int d = 0; d < 3; ++d)
            for (int k = 0; k < kMaxPower; ++k) fixed[d][k] = ab.fixed[d][k];
    }
    // Power k of axis D at point pt.
    template <int D>
    double at(int k, int pt) const {
        if constexpr (D == L)
            return line[k * stride + pt];
        else
            return fixed[D][k];
    }
    // The monomial (x^i y^j) z^k, multiplied in comp_cterm's order.
    double monomial(gauss::CartExp e, int pt) const { return at<0>(e.x, pt) * at<1>(e.y, pt) * at<2>(e.z, pt); }
};

// f(integral_constant<int, 0>) .. f(integral_constant<int, N - 1>).
template <int N, class F>
inline void static_for(F&& f) {
    [&]<int... K>(std::integer_sequence<int, K...>) { (f(std::integral_constant<int, K>{}), ...); }
    (std::make_integer_sequence<int, N>{});
}

inline constexpr int cart_count(int deg) { return (deg + 1) * (deg + 2) / 2; }

// Adds one cartesian shell's part of an orbital where screening keeps it:
// f_k = x^i y^j z^k, T = max |f_k|, R the radial value (sp: R_s and R_p),
// value R sum_k f_k C_k (sp: C_s R_s + (sum_k f_k C_k) R_p), kept when in
// reach (r^2 <= reach2, i.e. radius >= r) and T max|R| maxcmo >= eps.
template <int L, int Deg, bool SP>
void orbital_cartesian(const double* cf, const AtomBlock& ab, const double* rad, const double* r2, double reach2,
                       double mx, double eps, double* acc) {
    constexpr int nt = cart_count(Deg);
    const Powers<L> pw(ab);
    double c[nt];
    for (int k = 0; k < nt; ++k) c[k] = cf[k + (SP ? 1 : 0)];
    const double cs = cf[0];
    const double* r0 = rad;
    const double* r1 = rad + B;
    for (int pt = ab.p0; pt < ab.p1; ++pt) {
        double t = 0.0, part = 0.0;
        static_for<nt>([&](auto k) {
            const double f = pw.monomial(gauss::cart_exponents(Deg, k), pt);
            const double af = std::fabs(f);
            t = af > t ? af : t;
            // From the first term, not 0 + it: equal but for the sign of a
            // zero, which no sum of the block (all from +0) keeps.
            if constexpr (k == 0)
                part = f * c[k];
            else
                part += f * c[k];
        });
        double val, big;
        if constexpr (SP) {
            val = cs * r0[pt] + part * r1[pt];
            const double a0 = std::fabs(r0[pt]), a1 = std::fabs(r1[pt]);
            big = a1 > a0 ? a1 : a0;
        } else {
            val = r0[pt] * part;
            big = std::fabs(r0[pt]);
        }
        const double in_reach = r2[pt] <= reach2 ? val : 0.0;
        acc[pt] += t * big * mx >= eps ? in_reach : 0.0;
    }
}

// Adds one cartesian shell's part of the density where screening keeps it:
// phi = R f_k (sp: R_s, R_p f_k), value phi^T P phi from the packed rows
// (row m: P_mm, 2 P_m,m+1, ..), as density_contract adds it up.
template <int L, int Deg, bool SP>
void density_cartesian(const double* packed, const AtomBlock& ab, const double* rad, const double* r2, double reach2,
                       double mx, double eps, double* acc) {
    constexpr int nt = cart_count(Deg);
    constexpr int nf = nt + (SP ? 1 : 0);
    const Powers<L> pw(ab);
    double d[nf * (nf + 1) / 2];
    for (int k = 0; k < nf * (nf + 1) / 2; ++k) d[k] = packed[k];
    const double* r0 = rad;
    const double* r1 = rad + B;
    for (int pt = ab.p0; pt < ab.p1; ++pt) {
        double t = 0.0, phi[nf];
        const double rp = SP ? r1[pt] : r0[pt];
        if constexpr (SP) phi[0] = r0[pt];
        static_for<nt>([&](auto k) {
            const double f = pw.monomial(gauss::cart_exponents(Deg, k), pt);
            const double af = std::fabs(f);
            t = af > t ? af : t;
            phi[k + (SP ? 1 : 0)] = rp * f;
        });
        double val = 0.0;
        static_for<nf>([&](auto m) {
            constexpr int row = m * nf - m * (m - 1) / 2;
            double part = d[row] * phi[m];
            static_for<nf - m - 1>([&](auto k) { part += d[row + k + 1] * phi[m + k + 1]; });
            if constexpr (m == 0)
                val = phi[m] * part;
            else
                val += phi[m] * part;
        });
        double big = std::fabs(r0[pt]);
        if constexpr (SP) {
            const double a1 = std::fabs(r1[pt]);
            big = a1 > big ? a1 : big;
        }
        const double in_reach = r2[pt] <= reach2 ? val : 0.0;
        acc[pt] += t * big * mx >= eps ? in_reach : 0.0;
    }
}

}  // namespace kvx::grid::blockeval
