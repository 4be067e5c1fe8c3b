#include "import/harmonics.h"

#include <cmath>
#include <cstdlib>

namespace kvx::import {

namespace {

double double_factorial_odd(int n) {  // (n)!! for odd n >= -1
    double r = 1;
    for (int k = n; k > 1; k -= 2) r *= k;
    return r;
}

double binomial(int n, int k) {
    if (k < 0 || k > n) return 0;
    double r = 1;
    for (int i = 1; i <= k; ++i) r = r * (n - k + i) / i;
    return r;
}

}  // namespace

double monomial_overlap(gauss::CartExp a, gauss::CartExp b) {
    const int e[3] = {a.x + b.x, a.y + b.y, a.z + b.z};
    double r = 1;
    for (int n : e) {
        if (n % 2) return 0;
        r *= double_factorial_odd(n - 1);
    }
    return r;
}

int cart_index(gauss::CartExp a) {
    const int l = a.x + a.y + a.z;
    if (a.x < 0 || a.y < 0 || a.z < 0 || l > 6) return -1;
    for (int k = 0; k < cart_count(l); ++k) {
        const gauss::CartExp c = gauss::cart_exponents(l, k);
        if (c.x == a.x && c.y == a.y && c.z == a.z) return k;
    }
    return -1;
}

std::vector<double> solid_harmonics(int l) {
    const int nc = cart_count(l);
    std::vector<double> out(static_cast<std::size_t>(2 * l + 1) * nc, 0.0);
    for (int row = 0; row < 2 * l + 1; ++row) {
        const int m = row == 0 ? 0 : (row % 2 ? (row + 1) / 2 : -(row / 2));
        const int am = std::abs(m);
        const int vm2 = m < 0 ? 1 : 0;  // 2 v_m
        double* s = out.data() + static_cast<std::size_t>(row) * nc;
        for (int t = 0; t <= (l - am) / 2; ++t)
            for (int u = 0; u <= t; ++u)
                for (int v2 = vm2; v2 <= am; v2 += 2) {
                    const int sign = ((t + (v2 - vm2) / 2) % 2) ? -1 : 1;
                    const double c = sign * std::pow(0.25, t) * binomial(l, t) * binomial(l - t, am + t) *
                                     binomial(t, u) * binomial(am, v2);
                    const gauss::CartExp e{2 * t + am - 2 * u - v2, 2 * u + v2, l - 2 * t - am};
                    s[cart_index(e)] += c;
                }
        double norm = 0;
        for (int a = 0; a < nc; ++a)
            for (int b = 0; b < nc; ++b)
                norm += s[a] * s[b] * monomial_overlap(gauss::cart_exponents(l, a), gauss::cart_exponents(l, b));
        for (int a = 0; a < nc; ++a) s[a] /= std::sqrt(norm);
    }
    return out;
}

}  // namespace kvx::import
