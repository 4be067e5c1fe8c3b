#include "moldata/overlap.h"

#include <algorithm>
#include <cmath>

#include "common/fatal.h"
#include "gauss/dfact.h"
#include "gauss/gtoprod.h"
#include "gauss/spherical.h"

namespace kvx::moldata {

namespace {

constexpr int kMaxCart = 28;

// Process-wide scratch of the module; grown on demand, released by
// ov_cleanup.
struct OverlapScratch {
    std::vector<double> block;     // shell-pair block
    std::vector<double> ca, cb;    // per-primitive contraction coefficients
    std::vector<double> powb;      // beta^(3/4) of B's primitives
    std::vector<double> prim;      // one primitive pair, cartesian
    std::vector<double> pw;        // (2 gamma)^(-k) (2k-1)!!
    gauss::FjTable fx, fy, fz;     // f_j(a, b) per direction
    std::vector<double> sx, sy, sz;  // I_d(a, b) = sum_j even f_j pw[j/2]
    int fj_l = -1;
};
OverlapScratch g_ov;

int shell_l(const Shell& s) { return gauss::kAngular[s.type]; }
// Contractions in the block: type 3 is one contraction of s, x, y, z.
int block_ncontr(const Shell& s) { return s.type == 3 ? 1 : s.ngc; }

bool valid_shell(const Shell& s) {
    return s.type >= 1 && s.type < gauss::kNumShellTypes && s.nprim > 0 && s.basdat && s.center &&
           block_ncontr(s) > 0 && s.basdat->size() >= static_cast<std::size_t>(s.nprim) * s.row_length();
}

bool grow_powb(int n) {
    const std::size_t nn = static_cast<std::size_t>(std::max(n, 1));
    return g_ov.powb.size() >= nn || common::try_alloc([&] { g_ov.powb.resize(nn); });
}

// Cartesian block of the pair into g_ov.block, then the spherical transform.
// Returns the number of doubles of the transformed block; 0 when the scratch
// tables cannot grow.
std::size_t pair_block(const Shell& A, const Shell& B) {
    const int lA = shell_l(A), lB = shell_l(B);
    const int nA = gauss::block_cart_count(A.type), nB = gauss::block_cart_count(B.type);
    const int gA = block_ncontr(A), gB = block_ncontr(B);
    const std::size_t sub = static_cast<std::size_t>(nA) * nB;
    const std::size_t total = sub * gA * gB;

    if (!ov_intc(std::max({nA * gA, nB * gB, gA, gB, 2})) || !ov_intp(std::max(nA, nB)) || !ov_pow((lA + lB) / 2) ||
        !ov_fjtab(std::max(lA, lB)) || !grow_powb(B.nprim))
        return 0;

    double* blk = g_ov.block.data();
    std::fill(blk, blk + total, 0.0);

    gauss::CartExp eA[kMaxCart], eB[kMaxCart];
    for (int i = 0; i < nA; ++i) eA[i] = gauss::type_exponents(A.type, i);
    for (int i = 0; i < nB; ++i) eB[i] = gauss::type_exponents(B.type, i);

    const double AB[3] = {B.center->x - A.center->x, B.center->y - A.center->y, B.center->z - A.center->z};
    const double r2 = AB[0] * AB[0] + AB[1] * AB[1] + AB[2] * AB[2];
    const int lmax = lA + lB;
    const int wb = lB + 1;

    double* ca = g_ov.ca.data();
    double* cb = g_ov.cb.data();
    double* prim = g_ov.prim.data();
    double* pw = g_ov.pw.data();

    gauss::FjTable* tabs[3] = {&g_ov.fx, &g_ov.fy, &g_ov.fz};
    double* sums[3] = {g_ov.sx.data(), g_ov.sy.data(), g_ov.sz.data()};
    for (gauss::FjTable* t : tabs) t->shape(lA, lB, lmax + 1);
    // Two s shells: f_0(0, 0) = 1 and pw[0] = 1, so every sum is exactly 1.
    if (lmax == 0)
        for (double* sd : sums) sd[0] = 1.0;
    double* powb = g_ov.powb.data();
    for (int ib = 0; ib < B.nprim; ++ib) powb[ib] = std::pow(B.exponent(ib), 0.75);

    for (int ia = 0; ia < A.nprim; ++ia) {
        const double alpha = A.exponent(ia);
        const double pa = 2.8284271247461903 * std::pow(alpha, 0.75);
        for (int g = 0; g < (A.type == 3 ? 2 : gA); ++g) ca[g] = A.coef(ia, g);
        for (int ib = 0; ib < B.nprim; ++ib) {
            const double beta = B.exponent(ib);
            for (int h = 0; h < (B.type == 3 ? 2 : gB); ++h) cb[h] = B.coef(ib, h);

            const double gamma = alpha + beta;
            // Overlap of two normalised s primitives.
            const double pref = pa * powb[ib] * std::pow(gamma, -1.5) * std::exp(-(alpha * beta / gamma) * r2);
            // An exponential below the smallest double adds exactly nothing.
            if (pref == 0.0) continue;
            // P - A = beta/gamma (B - A), P - B = -alpha/gamma (B - A): exactly
            // zero for two shells on one atom.
            const double fa = beta / gamma, fb = -alpha / gamma;
            for (int k = 0; k <= lmax / 2; ++k)
                pw[k] = std::pow(0.5 / gamma, k) * (k >= 2 ? gauss::dfact(2 * k - 1) : 1.0);

            for (int d = 0; d < 3 && lmax > 0; ++d) {
                gauss::FjTable& t = *tabs[d];
                gauss::fjtab(t, lA, lB, fa * AB[d], fb * AB[d]);
                for (int a = 0; a <= lA; ++a)
                    for (int b = 0; b <= lB; ++b) {
                        const double* f = t.row(a, b);
                        double s = 0.0;
                        for (int j = 0; j <= a + b; j += 2) s += f[j] * pw[j / 2];
                        sums[d][a * wb + b] = s;
                    }
            }
            for (int i = 0; i < nA; ++i) {
                const gauss::CartExp& ea = eA[i];
                for (int j = 0; j < nB; ++j) {
                    const gauss::CartExp& eb = eB[j];
                    prim[i * nB + j] = pref * sums[0][ea.x * wb + eb.x] * sums[1][ea.y * wb + eb.y] *
                                       sums[2][ea.z * wb + eb.z];
                }
            }
            for (int g = 0; g < gA; ++g)
                for (int h = 0; h < gB; ++h) {
                    double* out = blk + (static_cast<std::size_t>(g) * gB + h) * sub;
                    for (int i = 0; i < nA; ++i) {
                        // sp shells: s coefficient for the first component, p for the rest.
                        const double c1 = A.type == 3 ? ca[i == 0 ? 0 : 1] : ca[g];
                        for (int j = 0; j < nB; ++j) {
                            const double c2 = B.type == 3 ? cb[j == 0 ? 0 : 1] : cb[h];
                            out[i * nB + j] += prim[i * nB + j] * c1 * c2;
                        }
                    }
                }
        }
    }
    gauss::spherical_transform(blk, 1, total, A.type, B.type, gA, gB);
    return static_cast<std::size_t>(gauss::block_sph_count(A.type)) * gauss::block_sph_count(B.type) * gA * gB;
}

}  // namespace

bool ov_intc(int n) {
    const std::size_t nn = static_cast<std::size_t>(std::max(n, 1));
    if (g_ov.block.size() >= nn * nn && g_ov.ca.size() >= nn) return true;
    return common::try_alloc([&] {
        if (g_ov.block.size() < nn * nn) g_ov.block.resize(nn * nn);
        if (g_ov.ca.size() < nn) g_ov.ca.resize(nn);
        if (g_ov.cb.size() < nn) g_ov.cb.resize(nn);
    });
}

bool ov_intp(int n) {
    const std::size_t nn = static_cast<std::size_t>(std::max(n, 1));
    if (g_ov.prim.size() >= nn * nn) return true;
    return common::try_alloc([&] { g_ov.prim.resize(nn * nn); });
}

bool ov_pow(int n) {
    const std::size_t need = static_cast<std::size_t>(std::max(n, 1)) + 1;
    if (g_ov.pw.size() < need && !common::try_alloc([&] { g_ov.pw.resize(need); })) return false;
    gauss::dfact_grow(2 * static_cast<int>(need) - 1);
    return true;
}

bool ov_fjtab(int l) {
    if (l <= g_ov.fj_l) return true;
    const bool grown = common::try_alloc([&] {
        const std::size_t n = static_cast<std::size_t>(l + 1) * (l + 1);
        g_ov.sx.resize(n);
        g_ov.sy.resize(n);
        g_ov.sz.resize(n);
        for (gauss::FjTable* t : {&g_ov.fx, &g_ov.fy, &g_ov.fz}) {
            t->v.clear();
            t->shape(l, l, 2 * l + 1);
        }
    });
    if (grown) g_ov.fj_l = l;
    return grown;
}

void ov_cleanup() {
    // The double factorials belong to the Boys tables as well and stay.
    g_ov = OverlapScratch{};
}

JobError overlap_prepare(const Molecule& mol) {
    int ncomp = 2, nc = 1, lmax = 0, nprim = 1;
    for (const Shell& s : mol.shells) {
        if (!valid_shell(s)) continue;
        nprim = std::max(nprim, s.nprim);
        ncomp = std::max(ncomp, gauss::block_cart_count(s.type) * block_ncontr(s));
        nc = std::max(nc, gauss::block_cart_count(s.type));
        lmax = std::max(lmax, shell_l(s));
    }
    if (!ov_intc(ncomp) || !grow_powb(nprim)) return {"Overlap ov_intc: array allocation failed."};
    if (!ov_intp(nc)) return {"Overlap ov_intp: array allocation failed."};
    if (!ov_pow(lmax)) return {"Overlap ov_pow: array allocation failed."};
    if (!ov_fjtab(lmax)) return {"Overlap ov_fjtab: partial sum array allocation failed."};
    gauss::binom_grow(lmax);
    return {};
}

void overlap_block(const Shell& A, const Shell& B, std::vector<double>& out) {
    out.clear();
    if (!valid_shell(A) || !valid_shell(B)) return;
    const std::size_t n = pair_block(A, B);
    out.assign(g_ov.block.begin(), g_ov.block.begin() + static_cast<std::ptrdiff_t>(n));
}

void comp_overlap(const Molecule& mol, TriMatrix& s) {
    const int nb = s.n;
    const int nsh = static_cast<int>(mol.shells.size());
    for (int a = 0; a < nsh; ++a) {
        const Shell& A = mol.shells[a];
        if (!valid_shell(A)) continue;
        for (int b = 0; b <= a; ++b) {
            const Shell& B = mol.shells[b];
            // Never 0 once overlap_prepare has sized the tables.
            if (!valid_shell(B) || pair_block(A, B) == 0) continue;
            const double* v = g_ov.block.data();
            const int rA = gauss::block_sph_count(A.type), rB = gauss::block_sph_count(B.type);
            const int gA = block_ncontr(A), gB = block_ncontr(B);
            for (int g = 0; g < gA; ++g)
                for (int h = 0; h < gB; ++h)
                    for (int i = 0; i < rA; ++i) {
                        const long row = A.nfirst - 1L + static_cast<long>(g) * A.size + i;
                        for (int j = 0; j < rB; ++j) {
                            const double x = *v++;
                            const long col = B.nfirst - 1L + static_cast<long>(h) * B.size + j;
                            if (row < 0 || col < 0 || row >= nb || col >= nb) continue;
                            if (row >= col)
                                s.at(static_cast<int>(row), static_cast<int>(col)) = x;
                            else if (a != b)
                                // Functions numbered against the shell order
                                // (one-file layout): the pair (b, a) is never
                                // formed, so keep the element transposed.
                                s.at(static_cast<int>(col), static_cast<int>(row)) = x;
                        }
                    }
        }
    }
}

JobError add_overlap(Molecule& mol) {
    if (!mol.has_shells() || mol.nbasis <= 0) return {};
    auto s = tri_alloc(mol.nbasis);
    if (!s) return {"Moldata add_overlap: cannot allocate s matrix"};
    if (JobError e = overlap_prepare(mol)) {
        ov_cleanup();
        return e;
    }
    comp_overlap(mol, *s);
    ov_cleanup();
    mol.overlap = std::move(s);
    return {};
}

}  // namespace kvx::moldata
