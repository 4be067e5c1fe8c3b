// The potential of a primitive pair where the Boys function is asymptotic:
// exact point multipoles at the pair's centre P.
//
// A product of cartesian Gaussians on A and B is, per direction, a sum of
// Hermite Gaussians about P,
//   (x-A_x)^i (x-B_x)^j exp(-gamma (x-P_x)^2) = sum_t E^ij_t (d/dP_x)^t exp(-gamma (x-P_x)^2),
// so the pair's integral at C is
//   pre sum_tuv E^x_t E^y_u E^z_v d^(t+u+v)/dP^tuv F_0(gamma |P - C|^2).
// Where the Boys function takes its asymptotic form, F_0(x) = sqrt(pi/x)/2, this
// is exactly the potential of point multipoles at P:
//   sum_tuv M_tuv T_tuv(P - C),  T_tuv(R) = d^(t+u+v)/dR^tuv 1/|R|,
//   M_tuv = pre sqrt(pi/gamma)/2 sum_ij w_ij E^x_t E^y_u E^z_v,
// with w_ij the density weight of the component pair (i, j). The kernels' THO
// sum with F_nu = A_nu(gamma |PC|^2) is the same expression, summed in another
// order; the lower orders that fmch takes by downward recursion with
// exp(-x) below x = 40 differ from A_nu by less than 1e-15 relative beyond
// the switch (|F_nu - A_nu| / F_nu grows with nu, and the switch of the top
// order is where it reaches 1e-15).
#pragma once

#include <cstddef>
#include <vector>

#include "elepot/points.h"
#include "elepot/pot_pairs.h"

namespace kvx::elepot {

// (t, u, v) with t + u + v <= L: (L+1)(L+2)(L+3)/6 of them, by order, then t
// and u descending.
int hermite_count(int L);

// The exact switch of the Boys function in |PC|^2: the largest d2 with
// d2 * gamma <= xfl[lab], fmch's test for its tables. d2 * gamma grows with d2
// in floating point too, so d2 > far_threshold(gamma, lab) holds exactly where
// fmch(F, lab, d2 * gamma) takes the asymptotic form. Using that same test
// for the switch to multipoles means that every term goes by a form that is
// mathematically the one fmch's values give, never the multipoles where the
// Gaussian's spread (the erf factor of F_0) still counts.
double far_threshold(double gamma, int lab);

// Hermite moments M_tuv (hermite_count(lA + lB) values) of primitive pair q
// of the pair p, for component-pair weights w (compA x compB, the density
// block and the coefficient products folded together).
void hermite_moments(const PairInfo& p, const PrimPair& q, const double* w, double* M);

// Cartesian density weights of a pair: the block mult (spherical functions
// for spherical shells) turned back into cartesian components, so that
// multc . block_cart = mult . (transformed block). Writes blocklen doubles.
void cartesian_density(const PairInfo& p, const double* mult, double* multc);

// One d2 interval (lo, hi] of a centre: the pairs that are far (d2 beyond
// their far threshold) and unscreened (d2 <= s0thrs) throughout it, their
// moments summed (pair order) up to the highest order L among them. A
// centre's intervals follow each other without gaps; one without pairs has
// npairs 0.
struct FarInterval {
    double lo = 0.0, hi = 0.0;
    int L = 0;
    int npairs = 0;
    std::size_t moments = 0;  // offset of hermite_count(L) values
};

// A product centre P shared by one or more primitive pairs (of any shell
// pairs), evaluated once its owner, the last shell pair holding one of its
// primitive pairs, is integrated. An interrupt stops within one shell pair as
// before, but the far terms of earlier pairs whose centre's owner was not
// reached are then missing too; an interrupted potential is never written.
struct FarCentre {
    double P[3] = {0.0, 0.0, 0.0};
    int first = 0, count = 0;  // its intervals, by ascending d2
    double hi = 0.0;           // the last interval's hi
};

// Every centre of a molecule's primitive pairs, grouped by owner.
struct FarField {
    std::vector<FarCentre> centres;
    std::vector<long> owned;  // owned[pairno - 1] .. owned[pairno]: the centres of shell pair pairno
    std::vector<FarInterval> intervals;
    std::vector<double> moments;
    int Lmax = 0;  // highest order of any interval
};

// The far field of every shell pair of the molecule at threshold thresh.
// Allocation failure ends the run with the module's message.
void build_far_field(const moldata::Molecule& mol, double thresh, int maxfun, FarField& far);

// Points p, p+1, ... lying on z lines k0..k1-1 of x line ix and y line iy (a
// point of a list is a segment of its own three lines).
struct Segment {
    int ix = 0, iy = 0, k0 = 0, k1 = 0;
    long p = 0;
};

// Work space of far_centre, one per thread.
struct FarScratch {
    static constexpr int kSlots = 16;  // intervals whose line coefficients are kept
    static constexpr int kChunk = 256;
    std::vector<double> xstage, coef;  // kSlots tables each
    std::size_t xlen = 0, clen = 0;
    long xtag[kSlots] = {}, ctag[kSlots] = {};
    int xj[kSlots] = {}, cj[kSlots] = {};
    long tag = 0;
    int cls[kChunk] = {};
};
// Sized for intervals up to order Lmax; false when memory runs out.
bool far_scratch(FarScratch& sc, int Lmax);

// out[p] -= sum_tuv M_tuv T_tuv(P - C_p) for the points of the segments,
// each with the moments of the interval its |PC|^2 falls in (zero-cut
// components of PC, summed as the kernels' |PC|^2 (PCx^2 + PCy^2) + PCz^2);
// points in no interval are left alone. Returns the primitive-pair
// evaluations this stands for (points times pairs of their interval).
long far_centre(const FarField& far, const FarCentre& c, const PointLines& lines, const Segment* segs, std::size_t nseg,
                double* out, FarScratch& sc);

}  // namespace kvx::elepot
