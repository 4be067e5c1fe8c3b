// Gaussian product tables (module Gtoprod).
//
// Per direction, (x - A)^a (x - B)^b = sum_j f_j(a, b, PA, PB) (x - P)^j with
// PA = P - A, PB = P - B, P the Gaussian product centre.
#pragma once

#include <vector>

namespace kvx::gauss {

// |x| below this counts as exactly 0 in power tables.
inline constexpr double kPowZeroCut = 1e-15;

// xpow[0] = 1, xpow[k] = x^k for k = 1..nmax (x -> 0 when |x| < 1e-15).
void powx(double* xpow, double x, int nmax);

// Shared binomial table C(n, k), rows 0..top, only grows.
int binom_grow(int n);
void binom_release();
int binom_top();
double binom(int n, int k);

// fj[j], j = 0..l+m, from pa = PA^0..PA^l and pb = PB^0..PB^m. Reads the
// binomial table only: it must have been grown to max(l, m).
void fjlm(double* fj, int l, int m, const double* pa, const double* pb);

// f-table for all a <= la, b <= lb: tab[a][b] -> la + lb + 1 doubles.
// Stored flat: entry (a, b, j) at ((a * (lb + 1)) + b) * stride + j.
struct FjTable {
    int la = 0, lb = 0, stride = 0;
    std::vector<double> v;
    double* row(int a, int b) { return v.data() + (static_cast<std::size_t>(a) * (lb + 1) + b) * stride; }
    const double* row(int a, int b) const { return v.data() + (static_cast<std::size_t>(a) * (lb + 1) + b) * stride; }
    // Sizes the table for (la, lb) with room for j = 0..stride-1; reuses
    // capacity, so a table kept across calls allocates only when it grows.
    void shape(int la_, int lb_, int stride_);
};

// Fills tab (already shaped with stride >= la + lb + 1) for PA, PB.
void fjtab(FjTable& tab, int la, int lb, double PA, double PB);

}  // namespace kvx::gauss
