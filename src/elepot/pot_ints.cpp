// The integral worker: the electronic part of the potential, shell pair by
// shell pair, in four steps per pair:
//   pair tables    the screened primitive pairs, their coefficient products,
//                  centres and f-tables (independent of the points);
//   line factors   PC powers and THO factors for the lines a slice touches;
//   slice          the point loop: Boys values, kernel, block accumulation;
//   contraction    spherical transform and out -= A^T mult (dgemv).
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <numbers>
#include <vector>

#include "common/fatal.h"
#include "elepot/accum.h"
#include "elepot/elepot.h"
#include "elepot/fmch.h"
#include "elepot/kernels.h"
#include "elepot/pot_setup.h"
#include "gauss/gtoprod.h"
#include "gauss/shell_types.h"
#include "gauss/spherical.h"

// BLAS (Fortran calling convention; the trailing length belongs to TRANS).
extern "C" void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
                       const int* lda, const double* x, const int* incx, const double* beta, double* y, const int* incy,
                       std::size_t trans_len);

namespace kvx::elepot {

using gauss::kAngular;
using gauss::kCartCount;
using moldata::Shell;
using std::size_t;

namespace {

// One shell pair: A the outer shell I, B the inner shell J <= I.
struct PairInfo {
    const Shell* A = nullptr;
    const Shell* B = nullptr;
    int tA = 0, tB = 0, lA = 0, lB = 0, lab = 0, npow = 0;
    int compA = 0, compB = 0;
    int ncA = 0, ncB = 0;      // contractions (an sp shell: one of s, x, y, z)
    int colsA = 0, colsB = 0;  // coefficient columns (an sp shell: s and p)
    int sub = 0;               // compA x compB, one contraction pair
    int nsub = 0;              // contraction pairs
    int blocklen = 0;          // one point's block, cartesian
    int m = 0;                 // one point's block after the spherical transform
    bool both_s = false;
    KernelFn kernel = nullptr;
    AccumZeroFn zero = nullptr;
    AccumInitFn init = nullptr;
    AccumAccFn accum = nullptr;
    double dmax = 0.0;  // largest |element| of the density block
};

// Work arrays of one share; nothing here is shared between shares.
struct PotWork {
    int nu_stride = 0;    // 2L + 1
    size_t pair_cf = 0;   // THO factors of one primitive pair on one line
    size_t pc_pair = 0;   // PC powers of one primitive pair on one line
    size_t fun2 = 0;      // maxfun^2
    size_t ftab_len = 0;  // one f-table
    int npp = 0;          // surviving primitive pairs of the current shell pair

    std::vector<double> farray, intp;
    std::vector<double> cfl, cfm, cfn;           // [line - lo][pair][ab][nu]
    gauss::FjTable ftabx, ftaby, ftabz;          // scratch of one primitive pair
    std::vector<double> powe;                    // [pair][k]: (1/(4 gamma))^k
    std::vector<double> pcpowx, pcpowy, pcpowz;  // [line - lo][pair][k]: PC^k
    std::vector<double> cca, ccb, ccab, mult, ga, s0thrs;
    std::vector<double> P;   // [pair][3]: product centre
    std::vector<double> fj;  // [pair][direction]: f-tables kept for the line factors
    std::vector<double> intcf;
    std::vector<double*> intc;
};

// Allocates the work arrays in a fixed order; a failure ends the run with
// the array's message.
void alloc_work(const PotSetup& S, int share, PotWork& w) {
    const int L = S.L;
    w.nu_stride = 2 * L + 1;
    w.pair_cf = static_cast<size_t>(L + 1) * (L + 1) * w.nu_stride;
    w.pc_pair = static_cast<size_t>(S.nF) + 1;
    w.fun2 = static_cast<size_t>(S.maxfun) * S.maxfun;
    w.ftab_len = w.pair_cf;
    const size_t mp2 = static_cast<size_t>(S.maxprim2);
    // Lines one slice can touch: all of a lattice axis, or one per point of a list.
    const size_t lines[3] = {S.lines.lattice ? static_cast<size_t>(S.lines.nx) : static_cast<size_t>(S.max_slice),
                             S.lines.lattice ? static_cast<size_t>(S.lines.ny) : static_cast<size_t>(S.max_slice),
                             S.lines.lattice ? static_cast<size_t>(S.lines.nz) : static_cast<size_t>(S.max_slice)};

    char msg[96];
    auto fail = [&](const char* name) {
        std::snprintf(msg, sizeof msg, "Elepot pot_ints: thread %d cannot allocate %s", share, name);
        return msg;
    };
    auto vec = [&](std::vector<double>& v, const char* name, size_t n) {
        common::alloc_or_die(fail(name), [&] { v.assign(n, 0.0); });
    };
    auto ftab = [&](gauss::FjTable& t, const char* name) {
        common::alloc_or_die(fail(name), [&] {
            t.v.assign(w.ftab_len, 0.0);
            t.shape(L, L, w.nu_stride);
        });
    };
    vec(w.farray, "farray", w.pc_pair);
    vec(w.intp, "intp", static_cast<size_t>(S.maxcomp) * S.maxcomp);
    vec(w.cfl, "cfl", lines[0] * mp2 * w.pair_cf);
    vec(w.cfm, "cfm", lines[1] * mp2 * w.pair_cf);
    vec(w.cfn, "cfn", lines[2] * mp2 * w.pair_cf);
    ftab(w.ftabx, "ftabx");
    ftab(w.ftaby, "ftaby");
    ftab(w.ftabz, "ftabz");
    vec(w.powe, "powe", mp2 * w.pc_pair);
    vec(w.pcpowx, "pcpowx", lines[0] * mp2 * w.pc_pair);
    vec(w.pcpowy, "pcpowy", lines[1] * mp2 * w.pc_pair);
    vec(w.pcpowz, "pcpowz", lines[2] * mp2 * w.pc_pair);
    vec(w.cca, "cca", static_cast<size_t>(S.maxfun));
    vec(w.ccb, "ccb", static_cast<size_t>(S.maxfun));
    vec(w.ccab, "ccab", mp2 * w.fun2);
    vec(w.P, "ccab", mp2 * 3);
    vec(w.fj, "ccab", mp2 * 3 * w.ftab_len);
    vec(w.mult, "mult", w.fun2);
    vec(w.ga, "ga", mp2);
    vec(w.s0thrs, "s0thrs", mp2);
    // Zero-initialised: a point that is never integrated holds zeros.
    vec(w.intcf, "intcf", static_cast<size_t>(S.max_slice) * w.fun2);
    common::alloc_or_die(fail("intc"), [&] { w.intc.assign(static_cast<size_t>(S.max_slice), nullptr); });
}

// Types, sizes, kernel and accumulators of the pair (I, J), and its density
// block gathered into w.mult.
PairInfo start_pair(const PotShare& share, int I, int J, PotWork& w) {
    PairInfo p;
    p.A = &share.shells[I];
    p.B = &share.shells[J];
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
    p.kernel = select_kernel(p.tA, p.tB);
    p.zero = which_intc_zero(p.tA, p.tB);
    p.init = which_intc_init(p.tA, p.tB);
    p.accum = which_intc_accum(p.tA, p.tB);
    p.dmax = density_gather(*share.density, w.mult.data(), I == J, A.nfirst, p.ncA, A.size, B.nfirst, p.ncB, B.size);
    return p;
}

// Coefficient products of primitive pair pp into ccab:
//   ccab[((c1 ncB + c2) compA + i) compB + j] = cA(c1, i) cB(c2, j) pre,
// an sp shell taking its s column for component 0 and its p column after.
void coefficient_products(const PairInfo& p, int a, int b, double pre, size_t pp, PotWork& w) {
    const Shell& A = *p.A;
    const Shell& B = *p.B;
    for (int c = 0; c < p.ncA; ++c)
        for (int i = 0; i < p.compA; ++i)
            w.cca[static_cast<size_t>(c * p.compA + i)] = p.tA == 3 ? A.coef(a, i == 0 ? 0 : 1) : A.coef(a, c);
    for (int c = 0; c < p.ncB; ++c)
        for (int j = 0; j < p.compB; ++j)
            w.ccb[static_cast<size_t>(c * p.compB + j)] = p.tB == 3 ? B.coef(b, j == 0 ? 0 : 1) : B.coef(b, c);
    double* cc = w.ccab.data() + pp * w.fun2;
    for (int c1 = 0; c1 < p.ncA; ++c1)
        for (int c2 = 0; c2 < p.ncB; ++c2)
            for (int i = 0; i < p.compA; ++i)
                for (int j = 0; j < p.compB; ++j)
                    cc[static_cast<size_t>(((c1 * p.ncB + c2) * p.compA + i) * p.compB + j)] =
                        w.cca[static_cast<size_t>(c1 * p.compA + i)] * w.ccb[static_cast<size_t>(c2 * p.compB + j)] *
                        pre;
}

// The primitive pairs of the shell pair that survive screening, with all
// that does not depend on the point. For primitives a of A and b of B:
//   gamma = alpha_a + alpha_b, P = (alpha_a A + alpha_b B) / gamma,
//   pre = N_a N_b 2 pi / gamma exp(-alpha_a alpha_b |AB|^2 / gamma),
//   est = cmax_a cmax_b Dmax sqrt(max alpha) nbasis^2 sqrt(pi/(4 gamma)) pre
// (nbasis^2 makes thresh bound the sum over all function pairs); a pair is
// kept when est >= thresh, and then integrated at points with
// |PC|^2 <= est^2 / thresh^2.
void build_pair_tables(const PotSetup& S, const PairInfo& p, double nbas2, PotWork& w) {
    const Shell& A = *p.A;
    const Shell& B = *p.B;
    const double Ac[3] = {A.center->x, A.center->y, A.center->z};
    const double Bc[3] = {B.center->x, B.center->y, B.center->z};
    const double AB2 =
        (Ac[0] - Bc[0]) * (Ac[0] - Bc[0]) + (Ac[1] - Bc[1]) * (Ac[1] - Bc[1]) + (Ac[2] - Bc[2]) * (Ac[2] - Bc[2]);
    if (!p.both_s) {
        w.ftabx.shape(p.lA, p.lB, w.nu_stride);
        w.ftaby.shape(p.lA, p.lB, w.nu_stride);
        w.ftabz.shape(p.lA, p.lB, w.nu_stride);
    }
    const double thresh = S.thresh;
    int npp = 0;
    for (int a = 0; a < A.nprim; ++a) {
        double cmaxA = 0.0;
        for (int c = 0; c < p.colsA; ++c) cmaxA = std::max(cmaxA, std::fabs(A.coef(a, c)));
        const double alA = A.exponent(a);
        for (int b = 0; b < B.nprim; ++b) {
            double cmaxB = 0.0;
            for (int c = 0; c < p.colsB; ++c) cmaxB = std::max(cmaxB, std::fabs(B.coef(b, c)));
            const double alB = B.exponent(b);
            const double g = alA + alB;
            const double P[3] = {(alA * Ac[0] + alB * Bc[0]) / g, (alA * Ac[1] + alB * Bc[1]) / g,
                                 (alA * Ac[2] + alB * Bc[2]) / g};
            const double K = std::exp(-alA * alB * AB2 / g);
            const double pre = (*A.prefact)[static_cast<size_t>(a)] * 2.0 * std::numbers::pi *
                               (*B.prefact)[static_cast<size_t>(b)] * (1.0 / g) * K;
            const double est = cmaxB * cmaxA * p.dmax * std::sqrt(std::max(alA, alB)) * nbas2 * std::sqrt(1.0 / g) *
                               0.8862269254527579 * pre;
            if (!(est >= thresh)) continue;
            const size_t pp = static_cast<size_t>(npp);
            w.ga[pp] = g;
            w.s0thrs[pp] = est * est / (thresh * thresh);
            for (int d = 0; d < 3; ++d) w.P[pp * 3 + d] = P[d];
            coefficient_products(p, a, b, pre, pp, w);
            if (!p.both_s) {
                gauss::powx(w.powe.data() + pp * w.pc_pair, 0.25 / g, p.lab);  // eps = 1/(4 gamma)
                gauss::fjtab(w.ftabx, p.lA, p.lB, P[0] - Ac[0], P[0] - Bc[0]);
                gauss::fjtab(w.ftaby, p.lA, p.lB, P[1] - Ac[1], P[1] - Bc[1]);
                gauss::fjtab(w.ftabz, p.lA, p.lB, P[2] - Ac[2], P[2] - Bc[2]);
                double* fj = w.fj.data() + pp * 3 * w.ftab_len;
                std::copy(w.ftabx.v.begin(), w.ftabx.v.begin() + static_cast<std::ptrdiff_t>(w.ftab_len), fj);
                std::copy(w.ftaby.v.begin(), w.ftaby.v.begin() + static_cast<std::ptrdiff_t>(w.ftab_len),
                          fj + w.ftab_len);
                std::copy(w.ftabz.v.begin(), w.ftabz.v.begin() + static_cast<std::ptrdiff_t>(w.ftab_len),
                          fj + 2 * w.ftab_len);
            }
            ++npp;
        }
    }
    w.npp = npp;
}

// THO factors of one primitive pair along one direction, for lines
// 0..nlines-1 of the slice:
//   cf[line][ab][nu] = sum_(l,r,i) f_l(a,b) tho[l][r][i] eps^(r+i) PC^(l-2r-2i)
// over the term list (a+b, nu), skipping terms whose coefficient is at most
// 1e-16. The coefficient is formed once and applied to every line, so each
// entry sums its terms in list order.
void line_factors(const PotSetup& S, double* cf, size_t cf_line, const double* pcpow, size_t pc_line, int nlines,
                  const double* ft, int lA, int lB, const double* powe, int nu_stride) {
    for (int a = 0; a <= lA; ++a)
        for (int b = 0; b <= lB; ++b) {
            const int lam = a + b;
            const double* f = ft + static_cast<size_t>(a * (lB + 1) + b) * nu_stride;
            const size_t ab = static_cast<size_t>(a * (lB + 1) + b) * nu_stride;
            for (int nu = 0; nu <= lam; ++nu) {
                double* dst = cf + ab + nu;
                for (int line = 0; line < nlines; ++line) dst[line * cf_line] = 0.0;
                const size_t at = static_cast<size_t>(lam) * (lam + 1) / 2 + nu;
                const ThoTerm* t = S.terms.data() + S.term_start[at];
                const ThoTerm* tend = t + S.term_count[at];
                for (; t != tend; ++t) {
                    const double coef = f[t->l] * S.tho_coef(t->l, t->r, t->i) * powe[t->r + t->i];
                    if (std::fabs(coef) <= 1e-16) continue;
                    const int e = t->l - 2 * t->r - 2 * t->i;
                    for (int line = 0; line < nlines; ++line) dst[line * cf_line] += coef * pcpow[line * pc_line + e];
                }
            }
        }
}

// PC powers and THO factors of every surviving primitive pair on lines
// lo[d]..hi[d] of each direction (stored from line lo[d] on).
void build_line_factors(const PotSetup& S, const PairInfo& p, const int lo[3], const int hi[3], PotWork& w) {
    const size_t mp2 = static_cast<size_t>(S.maxprim2);
    const size_t cf_line = mp2 * w.pair_cf;
    const size_t pc_line = mp2 * w.pc_pair;
    const std::vector<double>* coord[3] = {&S.lines.x, &S.lines.y, &S.lines.z};
    double* pcpow[3] = {w.pcpowx.data(), w.pcpowy.data(), w.pcpowz.data()};
    double* cf[3] = {w.cfl.data(), w.cfm.data(), w.cfn.data()};
    for (int pp = 0; pp < w.npp; ++pp) {
        const size_t q = static_cast<size_t>(pp);
        for (int d = 0; d < 3; ++d) {
            const int nlines = hi[d] - lo[d] + 1;
            for (int i = 0; i < nlines; ++i)
                gauss::powx(pcpow[d] + i * pc_line + q * w.pc_pair,
                            w.P[q * 3 + d] - (*coord[d])[static_cast<size_t>(lo[d] + i)], p.npow);
        }
        if (p.both_s) continue;
        const double* fj = w.fj.data() + q * 3 * w.ftab_len;
        for (int d = 0; d < 3; ++d)
            line_factors(S, cf[d] + q * w.pair_cf, cf_line, pcpow[d] + q * w.pc_pair, pc_line, hi[d] - lo[d] + 1,
                         fj + d * w.ftab_len, p.lA, p.lB, w.powe.data() + q * w.pc_pair, w.nu_stride);
    }
}

// The point loop of one slice: points first .. first+np-1 into consecutive
// blocks of intcf. At each point every contraction block is set from the
// first surviving primitive pair (zeroed when the point is beyond its reach)
// and added to by the others within reach; a point that admit rejects gets a
// zero block.
void integrate_slice(const PotSetup& S, const PairInfo& p, long first, int np, const int lo[3],
                     const unsigned char* admit, PotWork& w) {
    // Locals, not members: the kernel and accumulators are called through
    // pointers, after which members would be loaded again.
    const int npp = w.npp, nsub = p.nsub, sub = p.sub, lab = p.lab, nu_stride = w.nu_stride, tA = p.tA, tB = p.tB;
    const KernelFn kernel = p.kernel;
    const AccumZeroFn zero = p.zero;
    const AccumInitFn init = p.init;
    const AccumAccFn accum = p.accum;
    const size_t pc_pair = w.pc_pair, pair_cf = w.pair_cf, fun2 = w.fun2;
    const size_t cf_line = static_cast<size_t>(S.maxprim2) * pair_cf;
    const size_t pc_line = static_cast<size_t>(S.maxprim2) * pc_pair;
    const double* s0thrs = w.s0thrs.data();
    const double* ga = w.ga.data();
    const double* ccab = w.ccab.data();
    double* farray = w.farray.data();
    double* intp = w.intp.data();
    const bool lattice = S.lines.lattice;
    const int ny = S.lines.ny, nz = S.lines.nz;

    for (int j = 0; j < np; ++j) w.intc[static_cast<size_t>(j)] = w.intcf.data() + static_cast<size_t>(j) * p.blocklen;
    int ix = 0, iy = 0, iz = 0;
    S.lines.lines_of(first, ix, iy, iz);
    for (int j = 0; j < np; ++j) {
        double* blk = w.intc[static_cast<size_t>(j)];
        if (admit && !admit[first + j]) {
            // Not integrated: the block must not carry another pair's values.
            for (int c = 0; c < nsub; ++c) zero(blk + c * sub);
        } else {
            const size_t lx = static_cast<size_t>(ix - lo[0]), ly = static_cast<size_t>(iy - lo[1]),
                         lz = static_cast<size_t>(iz - lo[2]);
            const double* px = w.pcpowx.data() + lx * pc_line;
            const double* py = w.pcpowy.data() + ly * pc_line;
            const double* pz = w.pcpowz.data() + lz * pc_line;
            const double* X = w.cfl.data() + lx * cf_line;
            const double* Y = w.cfm.data() + ly * cf_line;
            const double* Z = w.cfn.data() + lz * cf_line;
            for (int pp = 0; pp < npp; ++pp) {
                const size_t q = static_cast<size_t>(pp);
                const double d2 = px[q * pc_pair + 2] + py[q * pc_pair + 2] + pz[q * pc_pair + 2];
                if (d2 > s0thrs[q]) {
                    if (pp == 0)
                        for (int c = 0; c < nsub; ++c) zero(blk + c * sub);
                    continue;
                }
                fmch(farray, lab, d2 * ga[q]);
                kernel(tA, tB, X + q * pair_cf, Y + q * pair_cf, Z + q * pair_cf, nu_stride, farray, intp);
                const double* cc = ccab + q * fun2;
                if (pp == 0)
                    for (int c = 0; c < nsub; ++c) init(cc + c * sub, intp, blk + c * sub);
                else
                    for (int c = 0; c < nsub; ++c) accum(cc + c * sub, intp, blk + c * sub);
            }
        }
        if (!lattice) {
            ix = iy = iz = static_cast<int>(first + j + 1);
        } else if (++iz == nz) {
            iz = 0;
            if (++iy == ny) {
                iy = 0;
                ++ix;
            }
        }
    }
}

// out[first..first+np-1] += -1 * A^T mult, A the slice's blocks as columns
// (after the spherical transform: m rows, leading dimension the cartesian
// block length).
void contract_slice(const PairInfo& p, int np, PotWork& w, double* out) {
    if (gauss::is_spherical(p.tA) || gauss::is_spherical(p.tB))
        gauss::spherical_transform(w.intcf.data(), np, static_cast<size_t>(p.blocklen), p.tA, p.tB, p.ncA, p.ncB);
    const char trans = 'T';
    const double alpha = -1.0, beta = 1.0;
    const int one = 1;
    if (np > 0 && p.m > 0)
        dgemv_(&trans, &p.m, &np, &alpha, w.intcf.data(), &p.blocklen, w.mult.data(), &one, &beta, out, &one, 1);
}

}  // namespace

std::vector<int> slice_sizes(long npoints, long per_slice) {
    std::vector<int> sizes;
    if (npoints <= 0 || per_slice <= 0) return sizes;
    const long ns = (npoints + per_slice - 1) / per_slice;
    sizes.assign(static_cast<size_t>(ns), static_cast<int>(npoints / ns));
    for (long s = 0; s < npoints % ns; ++s) ++sizes[static_cast<size_t>(s)];
    return sizes;
}

void integrate_share(const PotSetup& S, PotShare& share) {
    if (S.L < 0 || !share.out || !share.density || !share.shells) return;
    PotWork w;
    alloc_work(S, share.index, w);

    const int nsh = share.nshell;
    const double npairs = static_cast<double>(nsh) * (nsh + 1) / 2.0;
    const double nbas2 = static_cast<double>(share.nbasis) * share.nbasis;
    const long count = share.count < 0 ? S.lines.npoints - share.first : share.count;
    const std::vector<int> slices = count == S.lines.npoints ? S.slice_size : slice_sizes(count, S.per_slice);
    double last = 0.0;
    long pairno = 0;
    for (int I = 0; I < nsh; ++I) {
        for (int J = 0; J <= I; ++J) {
            ++pairno;
            if ((pairno - 1) % S.numt != share.index % S.numt) continue;
            const double percent = static_cast<double>(pairno) / npairs * 100.0;
            const PairInfo p = start_pair(share, I, J, w);
            build_pair_tables(S, p, nbas2, w);
            if (w.npp > 0) {
                long first = share.first;
                for (const int np : slices) {
                    int lo[3], hi[3];
                    S.lines.line_range(first, np, lo, hi);
                    build_line_factors(S, p, lo, hi, w);
                    integrate_slice(S, p, first, np, lo, share.admit, w);
                    contract_slice(p, np, w, share.out + first);
                    first += np;
                }
            }
            if (percent >= last + 10.0) {
                last = percent;
                if (S.numt - 1 == share.index) {
                    std::printf(" %.0f%%\n", percent);
                    std::fflush(stdout);
                }
            }
            if (common::abort_flag) break;
        }
        if (common::abort_flag) break;
    }
}

}  // namespace kvx::elepot
