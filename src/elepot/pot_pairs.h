// A shell pair and its screened primitive pairs, as both integral paths
// (kernels near a pair, multipoles far from it) see them.
#pragma once

#include <cmath>
#include <cstddef>

#include "elepot/kernels.h"
#include "gauss/gtoprod.h"
#include "moldata/molecule.h"

namespace kvx::elepot {

// One shell pair: A the outer shell I, B the inner shell J <= I.
struct PairInfo {
    const moldata::Shell* A = nullptr;
    const moldata::Shell* B = nullptr;
    int tA = 0, tB = 0, lA = 0, lB = 0, lab = 0, npow = 0;
    int compA = 0, compB = 0;
    int ncA = 0, ncB = 0;      // contractions (an sp shell: one of s, x, y, z)
    int colsA = 0, colsB = 0;  // coefficient columns (an sp shell: s and p)
    int sub = 0;               // compA x compB, one contraction pair
    int nsub = 0;              // contraction pairs
    int blocklen = 0;          // one point's block, cartesian
    int m = 0;                 // one point's block after the spherical transform
    bool both_s = false;
    LinePointFn line_point = nullptr;
    double dmax = 0.0;  // largest |element| of the density block
};

// Types, sizes and line kernel of the pair (I, J), and its density block gathered
// into mult (blocklen doubles at most), with its largest magnitude in dmax.
PairInfo start_pair(const moldata::Shell* shells, const moldata::TriMatrix& density, int I, int J, double* mult);

// One primitive pair that survives screening: primitives a of A and b of B,
//   gamma = alpha_a + alpha_b, P = (alpha_a A + alpha_b B) / gamma,
//   pre = N_a N_b 2 pi / gamma exp(-alpha_a alpha_b |AB|^2 / gamma),
// and s0thrs, the largest |PC|^2 at which it is integrated.
struct PrimPair {
    int a = 0, b = 0;
    double g = 0.0, pre = 0.0, s0thrs = 0.0;
    double P[3] = {0.0, 0.0, 0.0};
};

// The primitive pairs of the shell pair (a outer, b inner) whose estimate
//   est = cmax_a cmax_b Dmax sqrt(max alpha) nbasis^2 sqrt(pi/(4 gamma)) pre
// reaches thresh (nbasis^2 makes thresh bound the sum over all function
// pairs), each with s0thrs = est^2 / thresh^2. Writes at most
// nprimA x nprimB entries to out and returns their count.
int screen_primitive_pairs(const PairInfo& p, double nbas2, double thresh, PrimPair* out);

// Coefficient products of primitives (a, b) with their factor pre:
//   cc[((c1 ncB + c2) compA + i) compB + j] = cA(c1, i) cB(c2, j) pre,
// an sp shell taking its s column for component 0 and its p column after.
// cca and ccb are scratch of maxfun doubles.
void coefficient_products(const PairInfo& p, int a, int b, double pre, double* cca, double* ccb, double* cc);

// The density folded into a primitive pair's component pairs:
//   w[ij] = sum over contraction pairs c of cc[c][ij] multc[c][ij],
// so that the pair's share of sum_ab D_ab <a|1/r|b> is sum_ij w[ij] V_ij.
void fold_weights(const PairInfo& p, const double* cc, const double* multc, double* w);

// A component of P - C as the power tables of the line factors take it
// (|x| < 1e-15 counts as 0), so that both paths see the same |PC|^2.
inline double cut_zero(double x) { return std::fabs(x) < gauss::kPowZeroCut ? 0.0 : x; }

}  // namespace kvx::elepot
