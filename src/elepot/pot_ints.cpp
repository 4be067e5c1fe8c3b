// The integral worker: the electronic part of the potential on the points of
// one share, shell pair by shell pair, in three steps per pair:
//   pair tables   the screened primitive pairs, their f-tables, the density
//                 block folded into weights per component pair, and the |PC|^2
//                 up to which each goes through the kernels (independent of
//                 the points);
//   near points   per primitive pair, the points of a slice within that reach,
//                 in batches: the THO factors of their lines, their Boys values
//                 at once, and out -= the kernel's block . weights;
//   far centres   the point multipoles of the centres the pair owns
//                 (multipole.h), for the points beyond the Boys switch.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

#include "common/fatal.h"
#include "elepot/fmch.h"
#include "elepot/multipole.h"
#include "elepot/pot_pairs.h"
#include "elepot/pot_setup.h"
#include "gauss/gtoprod.h"
#include "gauss/spherical.h"

namespace kvx::elepot {

using std::size_t;

namespace {

constexpr int kBatch = 128;  // near points whose Boys values are evaluated together

// One slice of a share: its points, the lines they lie on, its segments
// and their groups (segments[group[g]] .. segments[group[g + 1]] share an x
// line; group holds group_count + 1 entries from group_first on).
struct Slice {
    long first = 0;
    int np = 0;
    int lo[3] = {0, 0, 0}, hi[3] = {-1, -1, -1};
    size_t seg_first = 0, seg_count = 0;
    size_t group_first = 0, group_count = 0;
};

}  // namespace

// Work arrays of one share; nothing here is shared between shares.
struct alignas(64) PotWork {  // one per thread: a cache line of its own
    int nu_stride = 0;    // 2L + 1
    size_t pair_cf = 0;   // THO factors of one primitive pair on one line
    size_t pc_pair = 0;   // PC powers up to nF
    size_t fun2 = 0;      // maxfun^2
    size_t ftab_len = 0;  // one f-table
    int npp = 0;          // surviving primitive pairs of the current shell pair

    std::vector<Slice> slices;
    std::vector<Segment> segs;
    std::vector<size_t> groups;
    FarScratch far;
    std::vector<double> farray;         // Boys values of a batch, nF + 1 per point
    std::vector<double> batchx;         // their arguments gamma |PC|^2
    std::vector<double> linew;          // one primitive pair's weights folded with one line's x and y factors
    std::vector<double> cfl, cfm, cfn;  // [line - lo][ab][nu]: one primitive pair's THO factors
    gauss::FjTable ftabx, ftaby, ftabz;
    std::vector<double> pcpow;  // one line's PC powers
    std::vector<double> powe;   // [pair][k]: (1/(4 gamma))^k
    std::vector<double> cca, ccb, ccab, mult, multc;
    std::vector<PrimPair> prim;
    std::vector<double> tau;  // [pair]: |PC|^2 up to which it goes through the kernels
    std::vector<double> fj;   // [pair][direction]: f-tables kept for the line factors
    std::vector<double> wts;  // [pair][ij]: density weights of its component pairs
};

namespace {

// The slices of a share and their segments: runs of admitted points along z
// lines (a list: one segment per admitted point).
void make_slices(const PotSetup& S, const PotShare& share, PotWork& w) {
    const PointLines& L = S.lines;
    long first = share.first;
    for (const int np : slice_sizes(share.count, S.per_slice)) {
        Slice s;
        s.first = first;
        s.np = np;
        L.line_range(first, np, s.lo, s.hi);
        s.seg_first = w.segs.size();
        for (long p = first; p < first + np;) {
            int ix = 0, iy = 0, iz = 0;
            L.lines_of(p, ix, iy, iz);
            const long run = L.lattice ? std::min<long>(L.nz - iz, first + np - p) : 1;
            for (long k = 0; k < run;) {
                if (share.admit && !share.admit[p + k]) {
                    ++k;
                    continue;
                }
                long e = k + 1;
                while (e < run && (!share.admit || share.admit[p + e])) ++e;
                w.segs.push_back({ix, iy, static_cast<int>(iz + k), static_cast<int>(iz + e), p + k});
                k = e;
            }
            p += run;
        }
        s.seg_count = w.segs.size() - s.seg_first;
        s.group_first = w.groups.size();
        for (size_t g = s.seg_first; g < s.seg_first + s.seg_count; ++g)
            if (g == s.seg_first || w.segs[g].ix != w.segs[g - 1].ix) w.groups.push_back(g);
        s.group_count = w.groups.size() - s.group_first;
        w.groups.push_back(s.seg_first + s.seg_count);
        w.slices.push_back(s);
        first += np;
    }
}

// THO factors of one primitive pair along one direction, for lines
// 0..nlines-1:
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

// The screened primitive pairs of the shell pair with all that does not
// depend on the point; tau, the |PC|^2 up to which a pair goes through the
// kernels: its screening limit s0thrs, and with multipoles also its far
// threshold (beyond which fmch would take the asymptotic form).
void build_pair_tables(const PotSetup& S, const PairInfo& p, double nbas2, PotWork& w) {
    const moldata::Shell& A = *p.A;
    const moldata::Shell& B = *p.B;
    if (!p.both_s) {
        w.ftabx.shape(p.lA, p.lB, w.nu_stride);
        w.ftaby.shape(p.lA, p.lB, w.nu_stride);
        w.ftabz.shape(p.lA, p.lB, w.nu_stride);
    }
    w.npp = screen_primitive_pairs(p, nbas2, S.thresh, w.prim.data());
    if (w.npp > 0) cartesian_density(p, w.mult.data(), w.multc.data());
    for (int k = 0; k < w.npp; ++k) {
        const size_t q = static_cast<size_t>(k);
        const PrimPair& pr = w.prim[q];
        w.tau[q] = S.multipoles ? std::min(pr.s0thrs, far_threshold(pr.g, p.lab)) : pr.s0thrs;
        coefficient_products(p, pr.a, pr.b, pr.pre, w.cca.data(), w.ccb.data(), w.ccab.data());
        fold_weights(p, w.ccab.data(), w.multc.data(), w.wts.data() + q * w.fun2);
        if (p.both_s) continue;
        gauss::powx(w.powe.data() + q * w.pc_pair, 0.25 / pr.g, p.lab);  // eps = 1/(4 gamma)
        gauss::fjtab(w.ftabx, p.lA, p.lB, pr.P[0] - A.center->x, pr.P[0] - B.center->x);
        gauss::fjtab(w.ftaby, p.lA, p.lB, pr.P[1] - A.center->y, pr.P[1] - B.center->y);
        gauss::fjtab(w.ftabz, p.lA, p.lB, pr.P[2] - A.center->z, pr.P[2] - B.center->z);
        double* fj = w.fj.data() + q * 3 * w.ftab_len;
        const auto len = static_cast<std::ptrdiff_t>(w.ftab_len);
        std::copy(w.ftabx.v.begin(), w.ftabx.v.begin() + len, fj);
        std::copy(w.ftaby.v.begin(), w.ftaby.v.begin() + len, fj + w.ftab_len);
        std::copy(w.ftabz.v.begin(), w.ftabz.v.begin() + len, fj + 2 * w.ftab_len);
    }
}

// The THO factors of primitive pair q on the lines of the slice within its
// reach (PC_d^2 <= tau along direction d), where the kernel will read them.
void build_line_tables(const PotSetup& S, const PairInfo& p, int q, const Slice& sl, PotWork& w) {
    if (p.both_s) return;  // the (s, s) kernel reads F_0 only
    const size_t qq = static_cast<size_t>(q);
    const PrimPair& pr = w.prim[qq];
    const std::vector<double>* coord[3] = {&S.lines.x, &S.lines.y, &S.lines.z};
    std::vector<double>* cf[3] = {&w.cfl, &w.cfm, &w.cfn};
    for (int d = 0; d < 3; ++d)
        for (int line = sl.lo[d]; line <= sl.hi[d]; ++line) {
            const double pc = pr.P[d] - (*coord[d])[static_cast<size_t>(line)];
            const double c = cut_zero(pc);
            if (c * c > w.tau[qq]) continue;
            gauss::powx(w.pcpow.data(), pc, p.npow);
            line_factors(S, cf[d]->data() + static_cast<size_t>(line - sl.lo[d]) * w.pair_cf, 0, w.pcpow.data(), 0, 1,
                         w.fj.data() + (qq * 3 + d) * w.ftab_len, p.lA, p.lB, w.powe.data() + qq * w.pc_pair,
                         w.nu_stride);
        }
}

// The points [a, b) of a segment with |PC|^2 <= tau: along a line whose z
// never rises or never falls, |PC|^2 falls towards the point nearest P, then
// rises, so they are one run, found by bisection.
void near_run(const PointLines& L, const PrimPair& pr, double rho, double tau, const Segment& sg, int& a, int& b) {
    const double* z = L.z.data() + sg.k0;
    const int n = sg.k1 - sg.k0;
    auto near = [&](int k) {
        const double Z = cut_zero(pr.P[2] - z[k]);
        return rho + Z * Z <= tau;
    };
    const bool up = z[n - 1] >= z[0];
    int lo = 0, hi = n;
    while (lo < hi) {  // m: the first point at or beyond P
        const int mid = lo + (hi - lo) / 2;
        if (up ? z[mid] < pr.P[2] : z[mid] > pr.P[2])
            lo = mid + 1;
        else
            hi = mid;
    }
    const int m = lo;
    lo = 0, hi = m;
    while (lo < hi) {  // before m |PC|^2 falls: the first near point
        const int mid = lo + (hi - lo) / 2;
        if (near(mid))
            hi = mid;
        else
            lo = mid + 1;
    }
    a = lo;
    lo = m, hi = n;
    while (lo < hi) {  // from m on it rises: the first point beyond reach
        const int mid = lo + (hi - lo) / 2;
        if (near(mid))
            lo = mid + 1;
        else
            hi = mid;
    }
    b = lo;
}

// Primitive pair q at the points [a, b) of a segment, all within its reach:
// the x and y factors folded with the weights once per z line (fold: the
// segment starts a line), then per point its Boys values (in batches) and its
// z factors; out -= sum_ij w_ij V_ij.
void near_points(const PotSetup& S, const PairInfo& p, int q, const Slice& sl, const Segment& sg, double rho, int a,
                 int b, bool fold, PotWork& w, double* out) {
    const PrimPair& pr = w.prim[static_cast<size_t>(q)];
    const double* wq = w.wts.data() + static_cast<size_t>(q) * w.fun2;
    const double* z = S.lines.z.data() + sg.k0;
    const int ld = p.lab + 1;
    if (!p.both_s && fold)
        line_weights(p.tA, p.tB, w.cfl.data() + static_cast<size_t>(sg.ix - sl.lo[0]) * w.pair_cf,
                     w.cfm.data() + static_cast<size_t>(sg.iy - sl.lo[1]) * w.pair_cf, w.nu_stride, wq, w.linew.data());
    for (int k0 = a; k0 < b; k0 += kBatch) {
        const int n = std::min(kBatch, b - k0);
        for (int i = 0; i < n; ++i) {
            const double Z = cut_zero(pr.P[2] - z[k0 + i]);
            w.batchx[static_cast<size_t>(i)] = (rho + Z * Z) * pr.g;
        }
        fmch_batch(w.farray.data(), ld, p.lab, w.batchx.data(), n);
        double* o = out + sg.p + k0;
        if (p.both_s) {
            for (int i = 0; i < n; ++i) o[i] -= wq[0] * w.farray[static_cast<size_t>(i)];
            continue;
        }
        const double* Zt = w.cfn.data() + static_cast<size_t>(sg.k0 + k0 - sl.lo[2]) * w.pair_cf;
        for (int i = 0; i < n; ++i)
            o[i] -= p.line_point(p.lA, p.lB, w.linew.data(), Zt + static_cast<size_t>(i) * w.pair_cf, w.nu_stride,
                                 w.farray.data() + static_cast<size_t>(i) * ld);
    }
}

// The points of the slice within reach of each primitive pair (|PC|^2 <= tau,
// with |PC|^2 summed as (PCx^2 + PCy^2) + PCz^2). Returns the evaluations
// made.
long near_slice(const PotSetup& S, const PairInfo& p, const Slice& sl, PotWork& w, double* out) {
    const PointLines& L = S.lines;
    long evals = 0;
    for (int q = 0; q < w.npp; ++q) {
        const PrimPair& pr = w.prim[static_cast<size_t>(q)];
        const double tau = w.tau[static_cast<size_t>(q)];
        bool tables = false;
        for (size_t g = sl.group_first; g < sl.group_first + sl.group_count; ++g) {
            const size_t s0 = w.groups[g], s1 = w.groups[g + 1];
            const double X = cut_zero(pr.P[0] - L.x[static_cast<size_t>(w.segs[s0].ix)]);
            const double px2 = X * X;
            if (px2 > tau) continue;  // |PC|^2 >= px2 on the whole x line
            int folded = -1;          // the y line whose weights linew holds
            for (size_t s = s0; s < s1; ++s) {
                const Segment& sg = w.segs[s];
                const double Y = cut_zero(pr.P[1] - L.y[static_cast<size_t>(sg.iy)]);
                const double rho = px2 + Y * Y;
                if (rho > tau) continue;
                int a = 0, b = 0;
                if (L.z_monotone) {
                    near_run(L, pr, rho, tau, sg, a, b);
                } else {  // a point of a list is a segment of its own
                    const double Z = cut_zero(pr.P[2] - L.z[static_cast<size_t>(sg.k0)]);
                    b = rho + Z * Z <= tau ? 1 : 0;
                }
                if (b <= a) continue;
                if (!tables) build_line_tables(S, p, q, sl, w);
                tables = true;
                // Segments of one z line (broken by unadmitted points) follow
                // each other: their line weights are the same.
                near_points(S, p, q, sl, sg, rho, a, b, sg.iy != folded, w, out);
                folded = sg.iy;
                evals += b - a;
            }
        }
    }
    return evals;
}

// The centres that shell pair pairno owns, on every segment of the slice.
long far_slice(const PotSetup& S, const FarField& far, long pairno, const Slice& sl, PotWork& w, double* out) {
    if (far.owned.empty()) return 0;
    long evals = 0;
    for (long c = far.owned[static_cast<size_t>(pairno - 1)]; c < far.owned[static_cast<size_t>(pairno)]; ++c)
        evals += far_centre(far, far.centres[static_cast<size_t>(c)], S.lines, w.segs.data() + sl.seg_first,
                            sl.seg_count, out, w.far);
    return evals;
}

}  // namespace

std::shared_ptr<PotWork> alloc_work(const PotSetup& S, const PotShare& share, int Lmax) {
    auto w = std::make_shared<PotWork>();
    const int L = S.L;
    w->nu_stride = 2 * L + 1;
    w->pair_cf = static_cast<size_t>(L + 1) * (L + 1) * w->nu_stride;
    w->pc_pair = static_cast<size_t>(S.nF) + 1;
    w->fun2 = static_cast<size_t>(S.maxfun) * S.maxfun;
    w->ftab_len = w->pair_cf;
    const size_t mp2 = static_cast<size_t>(S.maxprim2);
    // Lines one slice can touch: all of a lattice axis, or one per point of a list.
    const size_t lines[3] = {S.lines.lattice ? static_cast<size_t>(S.lines.nx) : static_cast<size_t>(S.max_slice),
                             S.lines.lattice ? static_cast<size_t>(S.lines.ny) : static_cast<size_t>(S.max_slice),
                             S.lines.lattice ? static_cast<size_t>(S.lines.nz) : static_cast<size_t>(S.max_slice)};

    char msg[96];
    auto fail = [&](const char* name) {
        std::snprintf(msg, sizeof msg, "Elepot pot_ints: thread %d cannot allocate %s", share.index, name);
        return msg;
    };
    auto vec = [&](std::vector<double>& v, const char* name, size_t n) {
        common::alloc_or_die(fail(name), [&] { v.assign(n, 0.0); });
    };
    auto ftab = [&](gauss::FjTable& t, const char* name) {
        common::alloc_or_die(fail(name), [&] {
            t.v.assign(w->ftab_len, 0.0);
            t.shape(L, L, w->nu_stride);
        });
    };
    common::alloc_or_die(fail("slices"), [&] { make_slices(S, share, *w); });
    if (!far_scratch(w->far, Lmax)) common::fatal(fail("multipoles"));
    vec(w->farray, "farray", kBatch * w->pc_pair);
    vec(w->batchx, "farray", kBatch);
    vec(w->linew, "farray", static_cast<size_t>(L + 1) * (L + 1) * (2 * L + 1));
    vec(w->cfl, "cfl", lines[0] * w->pair_cf);
    vec(w->cfm, "cfm", lines[1] * w->pair_cf);
    vec(w->cfn, "cfn", lines[2] * w->pair_cf);
    ftab(w->ftabx, "ftabx");
    ftab(w->ftaby, "ftaby");
    ftab(w->ftabz, "ftabz");
    vec(w->powe, "powe", mp2 * w->pc_pair);
    vec(w->pcpow, "pcpowx", w->pc_pair);
    vec(w->cca, "cca", static_cast<size_t>(S.maxfun));
    vec(w->ccb, "ccb", static_cast<size_t>(S.maxfun));
    vec(w->ccab, "ccab", w->fun2);
    common::alloc_or_die(fail("ccab"), [&] { w->prim.resize(mp2); });
    vec(w->wts, "ccab", mp2 * w->fun2);
    vec(w->fj, "ccab", mp2 * 3 * w->ftab_len);
    vec(w->mult, "mult", w->fun2);
    vec(w->multc, "mult", w->fun2);
    vec(w->tau, "s0thrs", mp2);
    return w;
}

void PotProgress::finished(int share, long pairno) {
    std::lock_guard<std::mutex> hold(lock);
    done[static_cast<size_t>(share)] = pairno;
    const long all = *std::min_element(done.begin(), done.end());
    for (; seen < all; ++seen) {
        const double percent = static_cast<double>(seen + 1) / npairs * 100.0;
        if (percent >= last + 10.0) {
            last = percent;
            std::printf(" %.0f%%\n", percent);
            std::fflush(stdout);
        }
    }
}

std::vector<int> slice_sizes(long npoints, long per_slice) {
    std::vector<int> sizes;
    if (npoints <= 0 || per_slice <= 0) return sizes;
    const long ns = (npoints + per_slice - 1) / per_slice;
    sizes.assign(static_cast<size_t>(ns), static_cast<int>(npoints / ns));
    for (long s = 0; s < npoints % ns; ++s) ++sizes[static_cast<size_t>(s)];
    return sizes;
}

void integrate_share(const PotSetup& S, const PotShare& share, const FarField& far, PotWork& w, PotProgress& progress,
                     PotCounts& counts) {
    if (S.L < 0 || !share.out || !share.density || !share.shells) return;
    const int nsh = share.nshell;
    const double nbas2 = static_cast<double>(share.nbasis) * share.nbasis;
    long pairno = 0;
    for (int I = 0; I < nsh; ++I) {
        for (int J = 0; J <= I; ++J) {
            ++pairno;
            const PairInfo p = start_pair(share.shells, *share.density, I, J, w.mult.data());
            build_pair_tables(S, p, nbas2, w);
            for (const Slice& sl : w.slices) {
                if (w.npp > 0) counts.near += near_slice(S, p, sl, w, share.out);
                counts.far += far_slice(S, far, pairno, sl, w, share.out);
            }
            progress.finished(share.index, pairno);
            if (common::abort_flag) break;
        }
        if (common::abort_flag) break;
    }
}

}  // namespace kvx::elepot
