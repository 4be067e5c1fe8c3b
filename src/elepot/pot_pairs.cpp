#include "elepot/pot_pairs.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "gauss/shell_types.h"

namespace kvx::elepot {

using gauss::kAngular;
using gauss::kCartCount;
using moldata::Shell;

PairInfo start_pair(const Shell* shells, const moldata::TriMatrix& density, int I, int J, double* mult) {
    PairInfo p;
    p.A = &shells[I];
    p.B = &shells[J];
    const Shell& A = *p.A;
    const Shell& B = *p.B;
    p.tA = A.type;
    p.tB = B.type;
    p.lA = kAngular[p.tA];
    p.lB = kAngular[p.tB];
    p.lab = p.lA + p.lB;
    p.npow = std::max(p.lab, 2);
    p.compA = kCartCount[p.tA];
    p.compB = kCartCount[p.tB];
    p.ncA = A.ngc;
    p.ncB = B.ngc;
    p.colsA = A.ncontr();
    p.colsB = B.ncontr();
    p.sub = p.compA * p.compB;
    p.nsub = p.ncA * p.ncB;
    p.blocklen = p.sub * p.nsub;
    p.m = p.ncA * A.size * p.ncB * B.size;
    p.both_s = p.tA == 1 && p.tB == 1;
    p.line_point = select_line_point(p.lA, p.lB);
    p.dmax = density_gather(density, mult, I == J, A.nfirst, p.ncA, A.size, B.nfirst, p.ncB, B.size);
    return p;
}

int screen_primitive_pairs(const PairInfo& p, double nbas2, double thresh, PrimPair* out) {
    const Shell& A = *p.A;
    const Shell& B = *p.B;
    const double Ac[3] = {A.center->x, A.center->y, A.center->z};
    const double Bc[3] = {B.center->x, B.center->y, B.center->z};
    const double AB2 =
        (Ac[0] - Bc[0]) * (Ac[0] - Bc[0]) + (Ac[1] - Bc[1]) * (Ac[1] - Bc[1]) + (Ac[2] - Bc[2]) * (Ac[2] - Bc[2]);
    int n = 0;
    for (int a = 0; a < A.nprim; ++a) {
        double cmaxA = 0.0;
        for (int c = 0; c < p.colsA; ++c) cmaxA = std::max(cmaxA, std::fabs(A.coef(a, c)));
        const double alA = A.exponent(a);
        for (int b = 0; b < B.nprim; ++b) {
            double cmaxB = 0.0;
            for (int c = 0; c < p.colsB; ++c) cmaxB = std::max(cmaxB, std::fabs(B.coef(b, c)));
            const double alB = B.exponent(b);
            const double g = alA + alB;
            const double K = std::exp(-alA * alB * AB2 / g);
            const double pre = (*A.prefact)[static_cast<std::size_t>(a)] * 2.0 * std::numbers::pi *
                               (*B.prefact)[static_cast<std::size_t>(b)] * (1.0 / g) * K;
            const double est = cmaxB * cmaxA * p.dmax * std::sqrt(std::max(alA, alB)) * nbas2 * std::sqrt(1.0 / g) *
                               0.8862269254527579 * pre;
            if (!(est >= thresh)) continue;
            PrimPair& q = out[n++];
            q.a = a;
            q.b = b;
            q.g = g;
            q.pre = pre;
            q.s0thrs = est * est / (thresh * thresh);
            for (int d = 0; d < 3; ++d) q.P[d] = (alA * Ac[d] + alB * Bc[d]) / g;
        }
    }
    return n;
}

void coefficient_products(const PairInfo& p, int a, int b, double pre, double* cca, double* ccb, double* cc) {
    const Shell& A = *p.A;
    const Shell& B = *p.B;
    for (int c = 0; c < p.ncA; ++c)
        for (int i = 0; i < p.compA; ++i) cca[c * p.compA + i] = p.tA == 3 ? A.coef(a, i == 0 ? 0 : 1) : A.coef(a, c);
    for (int c = 0; c < p.ncB; ++c)
        for (int j = 0; j < p.compB; ++j) ccb[c * p.compB + j] = p.tB == 3 ? B.coef(b, j == 0 ? 0 : 1) : B.coef(b, c);
    for (int c1 = 0; c1 < p.ncA; ++c1)
        for (int c2 = 0; c2 < p.ncB; ++c2)
            for (int i = 0; i < p.compA; ++i)
                for (int j = 0; j < p.compB; ++j)
                    cc[((c1 * p.ncB + c2) * p.compA + i) * p.compB + j] =
                        cca[c1 * p.compA + i] * ccb[c2 * p.compB + j] * pre;
}

void fold_weights(const PairInfo& p, const double* cc, const double* multc, double* w) {
    for (int e = 0; e < p.sub; ++e) w[e] = 0.0;
    for (int c = 0; c < p.nsub; ++c)
        for (int e = 0; e < p.sub; ++e) w[e] += cc[c * p.sub + e] * multc[c * p.sub + e];
}

}  // namespace kvx::elepot
