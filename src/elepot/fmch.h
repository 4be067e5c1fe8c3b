// Boys function F_m(x) = int_0^1 t^(2m) exp(-x t^2) dt (module Fmch).
//
// Tables of F_k on an equidistant grid x_p (step 0.05, abscissae formed by
// repeated addition), a 7-term Taylor expansion about the nearest grid point
// for the top order asked for, downward recursion for the lower orders, and
// the asymptotic form sqrt(pi/x)/2 (2k-1)!!/(2x)^k beyond each order's
// switch point. Process-wide tables, only grown, freed by fmch_release.
#pragma once

namespace kvx::elepot {

// Prepares evaluation up to order n: the 1/(2k-1) and 0.5^k tables, the
// double factorial table and the grid tables.
void fmch_init(int n);
// Extends the tables to order n; returns the table top (unchanged when
// n <= top).
int fmch_table(int n);
// F[0..m] = F_0(x)..F_m(x), x >= 0, m <= fmch_top(). Allocation-free.
void fmch(double* F, int m, double x);
// F[i ld + k] = F_k(x[i]), k = 0..m, for i < n: the values of fmch at each
// argument, with the tables of the batch looked up once.
void fmch_batch(double* F, int ld, int m, const double* x, int n);
// Frees every table; the top returns to -1.
void fmch_release();

// Read-only views of the tables.
int fmch_top();
double fmch_switch_point(int k);  // x beyond which order k is asymptotic
double fmch_tab(int k, int p);    // F_k at the p-th grid abscissa
int fmch_tab_len(int k);          // points held for order k (0 if none)

}  // namespace kvx::elepot
