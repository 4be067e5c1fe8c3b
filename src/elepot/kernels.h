// Potential integral kernels of one primitive pair along a line of points.
//
// At a point, the pair's integral block is
//   V_ij = sum_(nx,ny,nz) X[ax,bx][nx] Y[ay,by][ny] Z[az,bz][nz] F[nx+ny+nz]
// with X, Y, Z the directional THO factors of the pair on the point's x, y and
// z lines and F the Boys values F_0..F_(lA+lB) at gamma |PC|^2. The potential
// needs only sum_ij w_ij V_ij (w: the density block folded with the
// coefficient products); along a z line X and Y are fixed, so they are folded
// with w once per line and each point adds only its Z and F.
#pragma once

#include "moldata/molecule.h"

namespace kvx::elepot {

// X, Y, Z: directional factor tables of one primitive pair. The row of the
// exponent pair (a, b), a = 0..lA of shell A and b = 0..lB of shell B in that
// direction, starts at X + (a*(lB+1) + b)*nu_stride and holds nu = 0..a+b;
// row 0 is [1]. w[i*compB + j], i over A's cartesian components and j over
// B's, in the order of gauss::type_exponents (sp: s, x, y, z).
//
// line_weights: the x and y factors of a line folded with w,
//   C[(az (lB+1) + bz) (lab+1) + m] = sum over the component pairs (i, j) with
//     z exponents az, bz of w_ij sum_(nux + nuy = m) X[ax,bx][nux] Y[ay,by][nuy]
// ((lA+1)(lB+1)(lab+1) doubles, lab = lA + lB).
void line_weights(int typeA, int typeB, const double* X, const double* Y, int nu_stride, const double* w, double* C);

// line_point: sum_ij w_ij V_ij at a point of the line, from its Z table and F:
//   sum_(az,bz) sum_nuz Z[az,bz][nuz] sum_m C[az,bz][m] F[m + nuz].
using LinePointFn = double (*)(int lA, int lB, const double* C, const double* Z, int nu_stride, const double* F);
// With the loops fixed at compile time for lA, lB <= 3, else general.
LinePointFn select_line_point(int lA, int lB);

// Density block of a shell pair for the potential contraction: out index
// ((c1*ncontrB + c2)*nfA + i)*nfB + j; D(r, q) doubled for r != q, the
// diagonal single, and zero above the diagonal when both shells are the same
// (that pair is visited once). first = the shell's 1-based nfirst, nf its
// size, ncontr its ngc. Returns the largest magnitude written.
double density_gather(const moldata::TriMatrix& D, double* out, bool same_shell, int firstA, int ncontrA, int nfA,
                      int firstB, int ncontrB, int nfB);

}  // namespace kvx::elepot
