// Potential integral kernels for one primitive pair at one point.
//
// V_ij = sum_(nx,ny,nz) X[ax,bx][nx] Y[ay,by][ny] Z[az,bz][nz] F[nx+ny+nz]
// with X, Y, Z the directional THO factors of the pair and F the Boys values
// F_0..F_(lA+lB) at gamma |PC|^2.
#pragma once

#include "moldata/molecule.h"

namespace kvx::elepot {

// X, Y, Z: directional factor tables of one primitive pair. The row of the
// exponent pair (a, b), a = 0..lA of shell A and b = 0..lB of shell B in that
// direction, starts at X + (a*(lB+1) + b)*nu_stride and holds nu = 0..a+b;
// row 0 is [1]. out[i*compB + j], i over A's cartesian components and j over
// B's, in the order of gauss::type_exponents (sp: s, x, y, z).
using KernelFn = void (*)(int typeA, int typeB, const double* X, const double* Y, const double* Z, int nu_stride,
                          const double* F, double* out);

// Kernel for a pair of shell types 1..13: the specialised form for classes
// s, p, sp, d, f on both sides, else generic_kernel.
KernelFn select_kernel(int typeA, int typeB);

// Any pair of shell types, by loops; the three directions are visited in
// ascending degree and exactly-zero partial products are skipped.
void generic_kernel(int typeA, int typeB, const double* X, const double* Y, const double* Z, int nu_stride,
                    const double* F, double* out);

// Density block of a shell pair for the potential contraction: out index
// ((c1*ncontrB + c2)*nfA + i)*nfB + j; D(r, q) doubled for r != q, the
// diagonal single, and zero above the diagonal when both shells are the same
// (that pair is visited once). first = the shell's 1-based nfirst, nf its
// size, ncontr its ngc. Returns the largest magnitude written.
double density_gather(const moldata::TriMatrix& D, double* out, bool same_shell, int firstA, int ncontrA, int nfA,
                      int firstB, int ncontrB, int nfB);

}  // namespace kvx::elepot
