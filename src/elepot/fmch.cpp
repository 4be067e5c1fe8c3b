#include "elepot/fmch.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "common/fatal.h"
#include "gauss/dfact.h"

namespace kvx::elepot {

namespace {

constexpr double kStep = 0.05;   // grid spacing h
constexpr int kTaylor = 6;       // J: Taylor terms beyond the first, extra table orders
constexpr double kAcc = 1e-15;   // series and asymptotic-switch accuracy
constexpr int kRoom = 500;       // points added to a table at a time
constexpr double kNoExp = 40.0;  // exp(-x) below 4e-18 relative: left out of the recursion

struct FmchState {
    int top = -1;                         // T: highest order with table and switch point
    std::vector<std::vector<double>> tab; // tab[k][p] = F_k(x_p), k = 0..T+J
    std::vector<double> xfl;              // switch point of order k, k = 0..T
    std::vector<double> den;              // den[k] = 1/(2k - 1)
    std::vector<double> dmv;              // 0.5^k
};
FmchState g;

// sqrt(pi/x)/2 * (2n-1)!! / (2x)^n, the large-x form of F_n.
double asymptotic(int n, double x) {
    double v = std::sqrt(0.5 / x) * 1.2533141373155;
    if (n == 1)
        v *= 0.5 / x;
    else if (n > 1) {
        const double h = 0.5 / x;
        double p = h;
        for (int k = 1; k < n; ++k) p *= h;  // (0.5/x)^n without a pow call
        v *= p * gauss::dfact(2 * n - 1);
    }
    return v;
}

bool asymptotic_ok(int n, double f, double x) { return std::fabs((f - asymptotic(n, x)) / f) <= kAcc; }

void grow_table(int k, std::size_t size) {
    common::alloc_or_die("Fmch: memory allocation for lookup table failed.",
                         [&] { g.tab[static_cast<std::size_t>(k)].resize(size); });
}

}  // namespace

void fmch_init(int n) {
    if (n < 0) n = 0;
    // Sized for the larger of n and the existing top so that evaluation at
    // any built order stays inside the table.
    const int top = n > g.top ? n : g.top;
    const std::size_t len = static_cast<std::size_t>(top + kTaylor + 2);
    common::alloc_or_die("Fmch fmch_init: cannot allocate FMCH_DEN", [&] {
        g.den.resize(len);
        for (std::size_t k = 0; k < len; ++k) g.den[k] = 1.0 / (2.0 * static_cast<double>(k) - 1.0);
    });
    common::alloc_or_die("Fmch fmch_init: cannot allocate FMCH_DMV", [&] {
        g.dmv.resize(len);
        double v = 1.0;
        for (std::size_t k = 0; k < len; ++k, v *= 0.5) g.dmv[k] = v;
    });
    gauss::dfact_grow(2 * (n + kTaylor) - 1);
    g.top = fmch_table(n);
}

int fmch_table(int n) {
    if (n <= g.top) return g.top;
    const int N = n + kTaylor;
    gauss::dfact_grow(2 * (N + 1));

    // Orders above the old top only fed its Taylor expansion; rebuilt below.
    for (int k = g.top + 1; k <= g.top + kTaylor && k < static_cast<int>(g.tab.size()); ++k) {
        g.tab[static_cast<std::size_t>(k)].clear();
        g.tab[static_cast<std::size_t>(k)].shrink_to_fit();
    }
    common::alloc_or_die("Fmch: memory allocation for lookup table failed.",
                         [&] { g.tab.resize(static_cast<std::size_t>(N) + 1); });
    common::alloc_or_die("Fmch: memory allocation for xfl array failed.",
                         [&] { g.xfl.resize(static_cast<std::size_t>(n) + 1, 0.0); });

    std::size_t room = kRoom;
    for (int k = n; k <= N; ++k) grow_table(k, room);

    // Orders n..N: series for F_N, then downward recursion.
    std::size_t npts = 0;
    double x = 0.0;
    for (std::size_t p = 0;; ++p) {
        if (p >= room) {
            room += kRoom;
            for (int k = n; k <= N; ++k) grow_table(k, room);
        }
        // F_N = exp(-x)/2 sum_i x^i / ((N+1/2)(N+3/2)...(N+i+1/2))
        double d = N + 0.5;
        double t = 1.0 / d;
        double s = t;
        for (;;) {
            d += 1.0;
            t = t * x / d;
            s += t;
            if (std::fabs(t / s) <= kAcc) break;
            if (d > N + kRoom) common::fatalf("Fmch: summation failed for v=%d x=%g ACC=%g\n", N, x, kAcc);
        }
        const double ex = std::exp(-x);
        double f = ex * 0.5 * s;
        g.tab[static_cast<std::size_t>(N)][p] = f;
        for (int k = N - 1; k >= n; --k) {
            f = (2.0 * x * f + ex) / (2 * k + 1);
            g.tab[static_cast<std::size_t>(k)][p] = f;
        }
        if (x > 0.0 && asymptotic_ok(n, f, x)) {
            g.xfl[static_cast<std::size_t>(n)] = x;
            npts = p + 1;
            break;
        }
        x += kStep;  // accumulated, not p*h: the table abscissae carry the sum's rounding
    }
    for (int k = n; k <= N; ++k) {
        auto& v = g.tab[static_cast<std::size_t>(k)];
        v.resize(npts);
        v.shrink_to_fit();
    }

    // Orders between the old top and n, each from the order above it.
    for (int k = n - 1; k > g.top; --k) {
        grow_table(k, npts);
        auto& v = g.tab[static_cast<std::size_t>(k)];
        const auto& up = g.tab[static_cast<std::size_t>(k) + 1];
        x = 0.0;
        for (std::size_t p = 0;; ++p) {
            if (p >= up.size()) common::fatal("Fmch: mismatch in number of terms. Cannot continue.");
            const double f = (2.0 * x * up[p] + std::exp(-x)) / (2 * k + 1);
            v[p] = f;
            if (x > 0.0 && asymptotic_ok(k, f, x)) {
                v.resize(p + 1);
                v.shrink_to_fit();
                g.xfl[static_cast<std::size_t>(k)] = x;
                break;
            }
            x += kStep;
        }
    }
    g.top = n;
    return n;
}

void fmch(double* F, int m, double x) {
    const auto& xfl = g.xfl;
    // Written as !(x <= xfl) so that a NaN argument never indexes the tables.
    if (!(x <= xfl[static_cast<std::size_t>(m)])) {
        F[m] = asymptotic(m, x);
    } else {
        const double q = std::floor(x / kStep);
        const bool up = std::fabs(q * kStep - x) > std::fabs((q + 1.0) * kStep - x);  // a tie expands about q
        const std::size_t c = static_cast<std::size_t>(q) + (up ? 1 : 0);
        const double delta = static_cast<double>(c) * kStep - x;
        if (delta == 0.0) {
            F[m] = g.tab[static_cast<std::size_t>(m)][c];
        } else {
            // F_m(x) = sum_j F_(m+j)(x_c) delta^j / j!, since dF_m/dx = -F_(m+1)
            double sum = g.tab[static_cast<std::size_t>(m)][c];
            double term = 1.0;
            for (int j = 1; j <= kTaylor; ++j) {
                term = term * delta / j;
                sum += g.tab[static_cast<std::size_t>(m + j)][c] * term;
            }
            F[m] = sum;
        }
    }
    const double* den = g.den.data();
    if (x >= kNoExp) {
        for (int k = m - 1; k >= 0; --k) F[k] = 2.0 * x * F[k + 1] * den[k + 1];
    } else {
        const double ex = std::exp(-x);
        for (int k = m - 1; k >= 0; --k) F[k] = (2.0 * x * F[k + 1] + ex) * den[k + 1];
    }
}

void fmch_batch(double* F, int ld, int m, const double* x, int n) {
    constexpr int kMax = 128;  // arguments per pass
    const double xf = g.xfl[static_cast<std::size_t>(m)];
    const double* tab[kTaylor + 1];
    for (int j = 0; j <= kTaylor; ++j) tab[j] = g.tab[static_cast<std::size_t>(m + j)].data();
    const double* den = g.den.data();
    int c[kMax];
    double delta[kMax], T[kTaylor + 1][kMax], ex[kMax], Fk[kMax];
    for (int i0 = 0; i0 < n; i0 += kMax) {
        const int nb = std::min(kMax, n - i0);
        const double* xb = x + i0;
        double* Fb = F + static_cast<std::ptrdiff_t>(i0) * ld;
        // The nearest grid point (a tie takes the lower): x <= xf here is >= 0
        // and below the table's end, so truncation is floor.
        for (int i = 0; i < nb; ++i) {
            const double xi = xb[i] <= xf ? xb[i] : 0.0;
            const double q = static_cast<double>(static_cast<int>(xi / kStep));
            const bool up = std::fabs(q * kStep - xi) > std::fabs((q + 1.0) * kStep - xi);
            c[i] = static_cast<int>(q) + (up ? 1 : 0);
            delta[i] = static_cast<double>(c[i]) * kStep - xi;
        }
        for (int j = 0; j <= kTaylor; ++j)
            for (int i = 0; i < nb; ++i) T[j][i] = tab[j][c[i]];
        // F_m(x) = sum_j F_(m+j)(x_c) delta^j / j! (delta = 0 leaves tab[m][c]).
        for (int i = 0; i < nb; ++i) {
            double sum = T[0][i], term = 1.0;
            for (int j = 1; j <= kTaylor; ++j) {
                term = term * delta[i] / j;
                sum += T[j][i] * term;
            }
            Fk[i] = sum;
        }
        for (int i = 0; i < nb; ++i) {
            if (!(xb[i] <= xf)) Fk[i] = asymptotic(m, xb[i]);
            ex[i] = xb[i] >= kNoExp ? 0.0 : std::exp(-xb[i]);  // 2x F + 0 is 2x F
            Fb[static_cast<std::ptrdiff_t>(i) * ld + m] = Fk[i];
        }
        for (int k = m - 1; k >= 0; --k)
            for (int i = 0; i < nb; ++i) {
                Fk[i] = (2.0 * xb[i] * Fk[i] + ex[i]) * den[k + 1];
                Fb[static_cast<std::ptrdiff_t>(i) * ld + k] = Fk[i];
            }
    }
}

void fmch_release() { g = FmchState{}; }

int fmch_top() { return g.top; }

double fmch_switch_point(int k) { return g.xfl[static_cast<std::size_t>(k)]; }

double fmch_tab(int k, int p) { return g.tab[static_cast<std::size_t>(k)][static_cast<std::size_t>(p)]; }

int fmch_tab_len(int k) {
    if (k < 0 || k >= static_cast<int>(g.tab.size())) return 0;
    return static_cast<int>(g.tab[static_cast<std::size_t>(k)].size());
}

}  // namespace kvx::elepot
