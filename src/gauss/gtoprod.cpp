#include "gauss/gtoprod.h"

#include <algorithm>
#include <cmath>

#include "common/fatal.h"

namespace kvx::gauss {

using common::fatal;

namespace {
struct BinomState {
    int top = -1;
    int width = 0;
    std::vector<double> v;  // (top+1) x width, row-major
};
BinomState g_binom;
}  // namespace

void powx(double* xpow, double x, int nmax) {
    if (nmax < 0) fatal("Gtoprod powx: nmax < 0");
    if (!xpow) fatal("Gtoprod powx: pointer xpow is null");
    if (std::fabs(x) < kPowZeroCut) x = 0.0;
    xpow[0] = 1.0;
    for (int k = 1; k <= nmax; ++k) xpow[k] = xpow[k - 1] * x;
}

int binom_grow(int n) {
    if (n <= g_binom.top) return g_binom.top;
    common::alloc_or_die("Gtoprod: memory allocation for binomial coeff. table failed.", [&] {
        const int width = n + 1;
        std::vector<double> nv(static_cast<std::size_t>(width) * width, 0.0);
        // Old rows re-sized to the new width, new columns zero.
        for (int r = 0; r <= g_binom.top; ++r)
            for (int k = 0; k < g_binom.width; ++k)
                nv[static_cast<std::size_t>(r) * width + k] =
                    g_binom.v[static_cast<std::size_t>(r) * g_binom.width + k];
        for (int r = g_binom.top + 1; r <= n; ++r) {
            double* row = nv.data() + static_cast<std::size_t>(r) * width;
            row[0] = 1.0;
            if (r > 0) {
                const double* prev = row - width;
                for (int k = 1; k <= n; ++k) row[k] = prev[k] + prev[k - 1];
            }
        }
        g_binom.v.swap(nv);
        g_binom.width = width;
        g_binom.top = n;
    });
    return g_binom.top;
}

void binom_release() {
    g_binom.v.clear();
    g_binom.v.shrink_to_fit();
    g_binom.top = -1;
    g_binom.width = 0;
}

int binom_top() { return g_binom.top; }

double binom(int n, int k) { return g_binom.v[static_cast<std::size_t>(n) * g_binom.width + k]; }

void fjlm(double* fj, int l, int m, const double* pa, const double* pb) {
    if (l < 0 || m < 0) fatal("Gtoprod fjlm: l or m < 0");
    if (!fj) fatal("Gtoprod fjlm: wrong call, fj pointer is null");
    // Read only: the set-up of each user grows the table (rows l and m are read).
    if (std::max(l, m) > g_binom.top) fatal("Gtoprod fjlm: binomial table not grown to the shells");
    const double PA = pa[1 <= l ? 1 : 0];
    const double PB = pb[1 <= m ? 1 : 0];
    // With l = 0 (m = 0) the table has no entry 1; the distance only matters
    // for powers it multiplies, and there are none.
    const bool pa_zero = l >= 1 && PA == 0.0;
    const bool pb_zero = m >= 1 && PB == 0.0;
    for (int j = 0; j <= l + m; ++j) {
        int lo = std::max(j - l, 0);
        int hi = std::min(j, m);
        // Exactly zero distances: only the term with power 0 of that distance.
        if (pb_zero && lo < m) lo = m;
        if (pa_zero && hi > lo) hi = lo;
        double s = 0.0;
        for (int t = lo; t <= hi; ++t) s += binom(m, m - t) * binom(l, j - t) * pa[l - j + t] * pb[m - t];
        fj[j] = s;
    }
}

void FjTable::shape(int la_, int lb_, int stride_) {
    la = la_;
    lb = lb_;
    stride = stride_;
    const std::size_t need = static_cast<std::size_t>(la + 1) * (lb + 1) * stride;
    if (v.size() < need) common::alloc_or_die("Gtoprod fjtab: cannot allocate memory", [&] { v.resize(need); });
}

void fjtab(FjTable& tab, int la, int lb, double PA, double PB) {
    // A table shaped for smaller shells is as unusable as a missing one.
    if (tab.v.empty() || la > tab.la || lb > tab.lb || tab.stride < la + lb + 1)
        fatal("Gtoprod fjtab: wrong call, pointer array is null ");
    if (la < 0 || lb < 0) fatal("Gtoprod powx: nmax < 0");
    double pa[16], pb[16];  // l <= 6 per shell; 16 leaves room
    if (la >= 16 || lb >= 16) fatal("Gtoprod fjtab: cannot allocate memory");
    powx(pa, PA, la);
    powx(pb, PB, lb);
    for (int a = 0; a <= la; ++a)
        for (int b = 0; b <= lb; ++b) fjlm(tab.row(a, b), a, b, pa, pb);
}

}  // namespace kvx::gauss
