// Fixed-length block accumulators (module Accum).
//
// One routine triple per block length cart(A) x cart(B): the integral loop
// selects them once per shell pair, so the per-point, per-primitive-pair call
// carries no length and no length test.
#pragma once

namespace kvx::elepot {

// dst[k] = 0
using AccumZeroFn = void (*)(double* dst);
// dst[k] = val[k] * fac[k]
using AccumInitFn = void (*)(const double* fac, const double* val, double* dst);
// dst[k] += val[k] * fac[k]
using AccumAccFn = void (*)(const double* fac, const double* val, double* dst);

// Routines for the block length of shell types (typeA, typeB); a pair whose
// length is not one of the 34 that shells produce ends the run.
AccumZeroFn which_intc_zero(int typeA, int typeB);
AccumInitFn which_intc_init(int typeA, int typeB);
AccumAccFn which_intc_accum(int typeA, int typeB);

}  // namespace kvx::elepot
