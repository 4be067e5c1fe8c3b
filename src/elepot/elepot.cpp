#include "elepot/elepot.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <new>
#include <numbers>
#include <vector>

#include "common/fatal.h"
#include "elepot/accum.h"
#include "elepot/fmch.h"
#include "elepot/kernels.h"
#include "gauss/gtoprod.h"
#include "gauss/shell_types.h"
#include "gauss/spherical.h"

// BLAS (Fortran calling convention; the trailing length belongs to TRANS).
extern "C" void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
                       const int* lda, const double* x, const int* incx, const double* beta, double* y,
                       const int* incy, std::size_t trans_len);

namespace kvx::elepot {

using gauss::kAngular;
using gauss::kCartCount;
using moldata::Shell;
using std::size_t;

namespace {

// One THO term (l, r, i): order nu = l - 2r - i, power of PC l - 2r - 2i.
struct ThoTerm {
    int l, r, i;
};

struct ElepotState {
    int numt = 1;
    double thresh = 1e-08;
    // n! and 1/n!, n = 0..size-1.
    std::vector<double> fact, invfact;
    // tho[(l * (L+1) + r) * (L+1) + i] = (-1)^(l+i) l! / (r! i! (l-2r-2i)!)
    std::vector<double> tho;
    // Term lists for (lambda, nu) at lambda(lambda+1)/2 + nu, back to back.
    std::vector<ThoTerm> terms;
    std::vector<int> term_start, term_count;
    int L = -1;
    int nF = -1;
    int nslices = 0;
    std::vector<int> slice_size;
    int max_slice = 0;
    int nx = 1, ny = 1, nz = 1;
    int maxcontr = 0, maxprim = 0, maxprim2 = 0, maxcomp = 0, maxfun = 0;
    // The grid the slices and line counts were made for.
    const grid::Grid* grid = nullptr;
};

ElepotState g_ep;
// Installed by the charge fit; outlives set-up and clean-up.
PointFilter g_filter = nullptr;

double tho_coef(const ElepotState& S, int l, int r, int i) {
    const size_t n = static_cast<size_t>(S.L) + 1;
    return S.tho[(static_cast<size_t>(l) * n + r) * n + i];
}

// Factorials to index n; false when memory runs out.
bool grow_factorials(ElepotState& S, int n) {
    const size_t want = static_cast<size_t>(n) + 1;
    if (S.fact.size() >= want) return true;
    try {
        size_t k = S.fact.size();
        S.fact.resize(want);
        S.invfact.resize(want);
        for (; k < want; ++k) {
            S.fact[k] = k == 0 ? 1.0 : static_cast<double>(k) * S.fact[k - 1];
            S.invfact[k] = 1.0 / S.fact[k];
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// THO term lists for lambda = 0..2L and the coefficient table tho[l][r][i].
bool build_tho(ElepotState& S, int L) {
    try {
        const int lmax = 2 * L;
        const size_t nlist = static_cast<size_t>(lmax + 1) * (lmax + 2) / 2;
        S.term_start.assign(nlist, 0);
        S.term_count.assign(nlist, 0);
        S.terms.clear();
        for (int lam = 0; lam <= lmax; ++lam)
            for (int nu = 0; nu <= lam; ++nu) {
                const size_t at = static_cast<size_t>(lam) * (lam + 1) / 2 + nu;
                S.term_start[at] = static_cast<int>(S.terms.size());
                for (int l = 0; l <= lam; ++l)
                    for (int r = 0; r <= l / 2; ++r)
                        for (int i = 0; i <= (l - 2 * r) / 2; ++i)
                            if (l - 2 * r - i == nu) S.terms.push_back({l, r, i});
                S.term_count[at] = static_cast<int>(S.terms.size()) - S.term_start[at];
            }
        const size_t n = static_cast<size_t>(L) + 1;
        S.tho.assign(static_cast<size_t>(lmax + 1) * n * n, 0.0);
        for (int l = 0; l <= lmax; ++l)
            for (int r = 0; 2 * r <= l; ++r)
                for (int i = 0; 2 * r + 2 * i <= l; ++i) {
                    const double sign = (l + i) % 2 ? -1.0 : 1.0;
                    S.tho[(static_cast<size_t>(l) * n + r) * n + i] =
                        sign * S.fact[l] * S.invfact[r] * S.invfact[i] * S.invfact[l - 2 * r - 2 * i];
                }
    } catch (const std::bad_alloc&) {
        S.terms.clear();
        S.term_start.clear();
        S.term_count.clear();
        S.tho.clear();
        return false;
    }
    return true;
}

// A shell the integral worker can take: known type (type 13 has no
// spherical combinations, so its blocks would not match its 13 functions),
// consistent primitive data, functions inside the density matrix.
bool shell_usable(const Shell& sh, int nbasis) {
    if (sh.type < 1 || sh.type > 12) return false;
    // Counts far beyond any real basis would only size absurd work arrays.
    if (sh.nprim < 1 || sh.nprim > 4096 || sh.ngc < 1 || sh.ngc > 4096 || (sh.type == 3 && sh.ngc != 1))
        return false;
    if (sh.size != gauss::kShellSize[sh.type] || !sh.center) return false;
    if (!sh.basdat || !sh.prefact) return false;
    if (sh.basdat->size() < static_cast<size_t>(sh.nprim) * sh.row_length()) return false;
    if (sh.prefact->size() < static_cast<size_t>(sh.nprim)) return false;
    const long last = static_cast<long>(sh.nfirst) - 1 + static_cast<long>(sh.size) * sh.ngc;
    return sh.nfirst >= 1 && last <= nbasis;
}

// Directional THO factors of one primitive pair for every grid line of one
// direction:
//   cf[line][ab][nu] = sum_(l,r,i) f_l(a,b) tho[l][r][i] eps^(r+i) PC^(l-2r-2i)
// over the term list (a+b, nu). The line-independent coefficient is formed
// once and applied to all lines, so each entry still sums its terms in list
// order.
void line_factors(const ElepotState& S, double* cf, size_t cf_line, const double* pcpow, size_t pc_line, int nlines,
                  const gauss::FjTable& ft, int lA, int lB, const double* powe, int nu_stride) {
    for (int a = 0; a <= lA; ++a)
        for (int b = 0; b <= lB; ++b) {
            const int lam = a + b;
            const double* f = ft.row(a, b);
            const size_t ab = static_cast<size_t>(a * (lB + 1) + b) * nu_stride;
            for (int nu = 0; nu <= lam; ++nu) {
                double* dst = cf + ab + nu;
                for (int line = 0; line < nlines; ++line) dst[line * cf_line] = 0.0;
                const size_t at = static_cast<size_t>(lam) * (lam + 1) / 2 + nu;
                const ThoTerm* t = S.terms.data() + S.term_start[at];
                const ThoTerm* tend = t + S.term_count[at];
                for (; t != tend; ++t) {
                    const double coef = f[t->l] * tho_coef(S, t->l, t->r, t->i) * powe[t->r + t->i];
                    if (std::fabs(coef) <= 1e-16) continue;
                    const int e = t->l - 2 * t->r - 2 * t->i;
                    for (int line = 0; line < nlines; ++line) dst[line * cf_line] += coef * pcpow[line * pc_line + e];
                }
            }
        }
}

}  // namespace

void elepot_set_point_filter(PointFilter f) { g_filter = f; }

const std::vector<int>& elepot_slice_sizes() { return g_ep.slice_size; }

void elepot_cleanup() {
    g_ep = ElepotState{};
    g_ep.thresh = 1e-14;
    fmch_release();
}

int elepot_init(const moldata::Molecule* mol, const grid::Grid* grid, double memmax, double thresh, int /*numt*/) {
    elepot_cleanup();
    if (!mol || !grid || mol->shells.empty()) return 0;
    ElepotState& S = g_ep;

    int L = 0, maxcomp = 0, maxcontr = 0, maxfun = 0, maxprim = 0;
    for (const Shell& sh : mol->shells) {
        if (!shell_usable(sh, mol->nbasis)) return 0;
        L = std::max(L, gauss::kAngular[sh.type]);
        maxcomp = std::max(maxcomp, gauss::kCartCount[sh.type]);
        maxcontr = std::max(maxcontr, sh.ncontr());
        maxfun = std::max(maxfun, sh.ngc * gauss::kCartCount[sh.type]);
        maxprim = std::max(maxprim, sh.nprim);
    }
    if (!mol->density || mol->density->n < mol->nbasis) return 0;
    S.numt = 1;

    // Integral blocks are sliced so that one slice (maxfun^2 doubles per
    // point) fits in memmax megabytes.
    const double avail = memmax * 131072.0;
    const double need = static_cast<double>(maxfun) * maxfun * 8.0;
    if (!(need <= avail)) return 0;

    if (!grow_factorials(S, 2 * L)) return 0;
    if (!build_tho(S, L)) {
        S.L = -1;
        elepot_cleanup();
        return 0;
    }
    S.L = L;
    S.maxcomp = maxcomp;

    const int ndim = grid->ndim;
    if (ndim < 1 || ndim > 3) {
        elepot_cleanup();
        return 0;
    }
    const int nx = grid->counts[0];
    const int ny = ndim >= 2 ? grid->counts[1] : 1;
    const int nz = ndim >= 3 ? grid->counts[2] : 1;
    if (nx < 1 || ny < 1 || nz < 1 ||
        static_cast<double>(grid->total) != static_cast<double>(nx) * ny * nz) {
        elepot_cleanup();
        return 0;
    }
    const long npoints = static_cast<long>(grid->total);
    const long per_slice = static_cast<long>(std::min(avail / need, static_cast<double>(std::max(npoints, 1L))));
    try {
        const long ns = (npoints + per_slice - 1) / per_slice;
        S.slice_size.assign(static_cast<size_t>(ns), static_cast<int>(ns ? npoints / ns : 0));
        for (long s = 0; s < (ns ? npoints % ns : 0); ++s) ++S.slice_size[static_cast<size_t>(s)];
        S.nslices = static_cast<int>(ns);
        S.max_slice = ns ? S.slice_size[0] : 0;
    } catch (const std::bad_alloc&) {
        elepot_cleanup();
        return 0;
    }

    S.maxcontr = maxcontr;
    S.maxprim2 = maxprim * maxprim;
    S.maxprim = maxprim;
    S.maxfun = maxfun;
    S.nx = nx;
    S.ny = ny;
    S.nz = nz;
    S.nF = std::max(2 * L, 2);
    fmch_init(2 * L);
    gauss::binom_grow(L);
    grid::grid_install(grid);
    S.grid = grid;
    S.thresh = thresh;
    return 1;
}

void nuclear_potential(double* out, const moldata::Atom* atoms, int natoms) {
    const grid::GridState& gs = grid::grid_state();
    if (!out || !gs.grid) return;
    const auto point_of = grid::grid_pick_point_of_indices();
    const long total = static_cast<long>(gs.grid->total);
    for (long p = 0; p < total; ++p) {
        int idx[3] = {0, 0, 0};
        double r[3];
        grid::grid_indices_of_index(idx, static_cast<int>(p));
        point_of(r, idx);
        double v = 0.0;
        for (int a = 0; a < natoms; ++a) {
            const double dx = r[0] - atoms[a].x, dy = r[1] - atoms[a].y, dz = r[2] - atoms[a].z;
            const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
            if (d < 1e-17) continue;  // a point on a nucleus takes no term from it
            v += atoms[a].nuclear_charge / d;
        }
        out[p] = v;
    }
}

void comp_elepot(double* out, const moldata::Molecule* mol) {
    if (!out || !mol) return;
    std::puts("Computing Electrostatic Potential:");
    std::fflush(stdout);
    // Other evaluators may have installed their own grid since the set-up.
    if (g_ep.grid && grid::grid_state().grid != g_ep.grid) grid::grid_install(g_ep.grid);
    const int natoms = std::min(mol->natoms, static_cast<int>(mol->atoms.size()));
    nuclear_potential(out, mol->atoms.data(), natoms);
    if (g_ep.L >= 0 && mol->density) {
        PotShare share;
        share.out = out;
        share.density = mol->density.get();
        share.shells = mol->shells.data();
        share.nshell = static_cast<int>(mol->shells.size());
        share.nbasis = mol->nbasis;
        share.index = 0;
        pot_ints(share);
    }
    std::puts(common::abort_flag ? " ABORTED" : " DONE");
    std::fflush(stdout);
}

void pot_ints(PotShare& share) {
    const ElepotState& S = g_ep;
    if (S.L < 0 || !share.out || !share.density || !share.shells) return;
    const grid::GridState& gs = grid::grid_state();
    if (!gs.grid || gs.grid != S.grid) return;

    const int L = S.L;
    const int nF = S.nF;
    const int nx = S.nx, ny = S.ny, nz = S.nz;
    const int nu_stride = 2 * L + 1;
    const size_t pair_cf = static_cast<size_t>(L + 1) * (L + 1) * nu_stride;  // per primitive pair
    const size_t mp2 = static_cast<size_t>(S.maxprim2);
    const size_t pc_pair = static_cast<size_t>(nF) + 1;
    const size_t fun2 = static_cast<size_t>(S.maxfun) * S.maxfun;
    const long npoints = static_cast<long>(gs.grid->total);

    char msg[96];
    auto fail = [&](const char* name) {
        std::snprintf(msg, sizeof msg, "Elepot pot_ints: thread %d cannot allocate %s", share.index, name);
        return msg;
    };
    auto vec = [&](const char* name, size_t n) {
        return common::alloc_or_die(fail(name), [&] { return std::vector<double>(n); });
    };
    auto ftab = [&](const char* name) {
        return common::alloc_or_die(fail(name), [&] {
            gauss::FjTable t;
            t.v.assign(static_cast<size_t>(L + 1) * (L + 1) * nu_stride, 0.0);
            t.shape(L, L, nu_stride);
            return t;
        });
    };

    std::vector<double> farray = vec("farray", static_cast<size_t>(nF) + 1);
    std::vector<double> intp = vec("intp", static_cast<size_t>(S.maxcomp) * S.maxcomp);
    std::vector<double> cfl = vec("cfl", static_cast<size_t>(nx) * mp2 * pair_cf);
    std::vector<double> cfm = vec("cfm", static_cast<size_t>(ny) * mp2 * pair_cf);
    std::vector<double> cfn = vec("cfn", static_cast<size_t>(nz) * mp2 * pair_cf);
    gauss::FjTable ftabx = ftab("ftabx");
    gauss::FjTable ftaby = ftab("ftaby");
    gauss::FjTable ftabz = ftab("ftabz");
    std::vector<double> powe = vec("powe", static_cast<size_t>(nF) + 1);
    // Line coordinates travel with their power tables.
    std::vector<double> pcpowx = vec("pcpowx", static_cast<size_t>(nx) * mp2 * pc_pair);
    std::vector<double> linex = vec("pcpowx", static_cast<size_t>(nx));
    std::vector<double> pcpowy = vec("pcpowy", static_cast<size_t>(ny) * mp2 * pc_pair);
    std::vector<double> liney = vec("pcpowy", static_cast<size_t>(ny));
    std::vector<double> pcpowz = vec("pcpowz", static_cast<size_t>(nz) * mp2 * pc_pair);
    std::vector<double> linez = vec("pcpowz", static_cast<size_t>(nz));
    std::vector<double> cca = vec("cca", static_cast<size_t>(S.maxfun));
    std::vector<double> ccb = vec("ccb", static_cast<size_t>(S.maxfun));
    std::vector<double> ccab = vec("ccab", mp2 * fun2);
    std::vector<double> mult = vec("mult", fun2);
    std::vector<double> ga = vec("ga", mp2);
    std::vector<double> s0thrs = vec("s0thrs", mp2);
    // Zero-initialised: a point that is never integrated holds zeros.
    std::vector<double> intcf = vec("intcf", static_cast<size_t>(S.max_slice) * fun2);
    std::vector<double*> intc = common::alloc_or_die(
        fail("intc"), [&] { return std::vector<double*>(static_cast<size_t>(S.max_slice)); });
    // Points the installed filter admits (all when there is none).
    std::vector<unsigned char> admit = common::alloc_or_die(
        fail("intc"), [&] { return std::vector<unsigned char>(g_filter ? static_cast<size_t>(npoints) : 0); });

    const auto point_of = grid::grid_pick_point_of_indices();
    // Lattice lines through (i,0,0), (0,j,0), (0,0,k); every point of a line
    // shares that coordinate on an axis-aligned grid. Rotated grids use the
    // same per-line values all the same (intended).
    for (int i = 0; i < nx; ++i) {
        const int idx[3] = {i, 0, 0};
        double r[3];
        point_of(r, idx);
        linex[static_cast<size_t>(i)] = r[0];
    }
    for (int j = 0; j < ny; ++j) {
        const int idx[3] = {0, j, 0};
        double r[3];
        point_of(r, idx);
        liney[static_cast<size_t>(j)] = r[1];
    }
    for (int k = 0; k < nz; ++k) {
        const int idx[3] = {0, 0, k};
        double r[3];
        point_of(r, idx);
        linez[static_cast<size_t>(k)] = r[2];
    }
    if (g_filter) {
        int ix = 0, iy = 0, iz = 0;
        for (long p = 0; p < npoints; ++p) {
            const int idx[3] = {ix, iy, iz};
            double r[3];
            point_of(r, idx);
            admit[static_cast<size_t>(p)] = g_filter(r) ? 1 : 0;
            if (++iz == nz) {
                iz = 0;
                if (++iy == ny) {
                    iy = 0;
                    ++ix;
                }
            }
        }
    }

    const moldata::TriMatrix& D = *share.density;
    const int nsh = share.nshell;
    const double npairs = static_cast<double>(nsh) * (nsh + 1) / 2.0;
    const double nbas2 = static_cast<double>(share.nbasis) * share.nbasis;
    const double thresh = S.thresh;
    const size_t cf_line = mp2 * pair_cf;
    const size_t pc_line = mp2 * pc_pair;
    double last = 0.0;
    long pairno = 0;

    for (int I = 0; I < nsh; ++I) {
        const Shell& A = share.shells[I];
        for (int J = 0; J <= I; ++J) {
            ++pairno;
            if ((pairno - 1) % S.numt != share.index) continue;
            const double percent = static_cast<double>(pairno) / npairs * 100.0;
            const Shell& B = share.shells[J];

            const int tA = A.type, tB = B.type;
            const int lA = gauss::kAngular[tA], lB = gauss::kAngular[tB];
            const int compA = gauss::kCartCount[tA], compB = gauss::kCartCount[tB];
            const int ncA = A.ngc, ncB = B.ngc;  // an sp shell: one contraction of s, x, y, z
            const int colsA = A.ncontr(), colsB = B.ncontr();
            const int lab = lA + lB;
            const int npow = std::max(lab, 2);
            const bool both_s = tA == 1 && tB == 1;
            const KernelFn kernel = select_kernel(tA, tB);
            const AccumZeroFn zero = which_intc_zero(tA, tB);
            const AccumInitFn init = which_intc_init(tA, tB);
            const AccumAccFn accum = which_intc_accum(tA, tB);
            const double dmax =
                density_gather(D, mult.data(), I == J, A.nfirst, ncA, A.size, B.nfirst, ncB, B.size);

            const int sub = compA * compB;     // one contraction pair
            const int nsub = ncA * ncB;
            const int blocklen = sub * nsub;  // one point, cartesian
            const int m = ncA * A.size * ncB * B.size;
            const double Ac[3] = {A.center->x, A.center->y, A.center->z};
            const double Bc[3] = {B.center->x, B.center->y, B.center->z};
            const double AB2 = (Ac[0] - Bc[0]) * (Ac[0] - Bc[0]) + (Ac[1] - Bc[1]) * (Ac[1] - Bc[1]) +
                               (Ac[2] - Bc[2]) * (Ac[2] - Bc[2]);

            // Surviving primitive pairs and their per-line factors; they are
            // the same for every slice, so they are built once per shell pair.
            if (!both_s) {
                ftabx.shape(lA, lB, nu_stride);
                ftaby.shape(lA, lB, nu_stride);
                ftabz.shape(lA, lB, nu_stride);
            }
            int npp = 0;
            for (int a = 0; a < A.nprim; ++a) {
                double cmaxA = 0.0;
                for (int c = 0; c < colsA; ++c) cmaxA = std::max(cmaxA, std::fabs(A.coef(a, c)));
                const double alA = A.exponent(a);
                for (int b = 0; b < B.nprim; ++b) {
                    double cmaxB = 0.0;
                    for (int c = 0; c < colsB; ++c) cmaxB = std::max(cmaxB, std::fabs(B.coef(b, c)));
                    const double alB = B.exponent(b);
                    const double g = alA + alB;
                    const double P[3] = {(alA * Ac[0] + alB * Bc[0]) / g, (alA * Ac[1] + alB * Bc[1]) / g,
                                         (alA * Ac[2] + alB * Bc[2]) / g};
                    const double K = std::exp(-alA * alB * AB2 / g);
                    const double pre = (*A.prefact)[static_cast<size_t>(a)] * 2.0 * std::numbers::pi *
                                       (*B.prefact)[static_cast<size_t>(b)] * (1.0 / g) * K;
                    // Bound on the pair's share of the sum over all nbasis^2 function pairs.
                    const double est = cmaxB * cmaxA * dmax * std::sqrt(std::max(alA, alB)) * nbas2 *
                                       std::sqrt(1.0 / g) * 0.8862269254527579 * pre;
                    if (!(est >= thresh)) continue;
                    const size_t pp = static_cast<size_t>(npp);
                    ga[pp] = g;
                    s0thrs[pp] = est * est / (thresh * thresh);

                    for (int c = 0; c < ncA; ++c)
                        for (int i = 0; i < compA; ++i)
                            cca[static_cast<size_t>(c * compA + i)] =
                                tA == 3 ? A.coef(a, i == 0 ? 0 : 1) : A.coef(a, c);
                    for (int c = 0; c < ncB; ++c)
                        for (int j = 0; j < compB; ++j)
                            ccb[static_cast<size_t>(c * compB + j)] =
                                tB == 3 ? B.coef(b, j == 0 ? 0 : 1) : B.coef(b, c);
                    double* cc = ccab.data() + pp * fun2;
                    for (int c1 = 0; c1 < ncA; ++c1)
                        for (int c2 = 0; c2 < ncB; ++c2)
                            for (int i = 0; i < compA; ++i)
                                for (int j = 0; j < compB; ++j)
                                    cc[static_cast<size_t>(((c1 * ncB + c2) * compA + i) * compB + j)] =
                                        cca[static_cast<size_t>(c1 * compA + i)] *
                                        ccb[static_cast<size_t>(c2 * compB + j)] * pre;

                    for (int i = 0; i < nx; ++i)
                        gauss::powx(pcpowx.data() + i * pc_line + pp * pc_pair, P[0] - linex[static_cast<size_t>(i)],
                                    npow);
                    for (int j = 0; j < ny; ++j)
                        gauss::powx(pcpowy.data() + j * pc_line + pp * pc_pair, P[1] - liney[static_cast<size_t>(j)],
                                    npow);
                    for (int k = 0; k < nz; ++k)
                        gauss::powx(pcpowz.data() + k * pc_line + pp * pc_pair, P[2] - linez[static_cast<size_t>(k)],
                                    npow);

                    if (!both_s) {
                        gauss::powx(powe.data(), 0.25 / g, lab);  // eps = 1/(4 gamma)
                        gauss::fjtab(ftabx, lA, lB, P[0] - Ac[0], P[0] - Bc[0]);
                        gauss::fjtab(ftaby, lA, lB, P[1] - Ac[1], P[1] - Bc[1]);
                        gauss::fjtab(ftabz, lA, lB, P[2] - Ac[2], P[2] - Bc[2]);
                        line_factors(S, cfl.data() + pp * pair_cf, cf_line, pcpowx.data() + pp * pc_pair, pc_line,
                                     nx, ftabx, lA, lB, powe.data(), nu_stride);
                        line_factors(S, cfm.data() + pp * pair_cf, cf_line, pcpowy.data() + pp * pc_pair, pc_line,
                                     ny, ftaby, lA, lB, powe.data(), nu_stride);
                        line_factors(S, cfn.data() + pp * pair_cf, cf_line, pcpowz.data() + pp * pc_pair, pc_line,
                                     nz, ftabz, lA, lB, powe.data(), nu_stride);
                    }
                    ++npp;
                }
            }

            long start = 0;
            for (int sl = 0; sl < S.nslices; ++sl) {
                const int np = S.slice_size[static_cast<size_t>(sl)];
                for (int j = 0; j < np; ++j) intc[static_cast<size_t>(j)] = intcf.data() + static_cast<size_t>(j) * blocklen;

                if (npp > 0) {
                    // Grid indices of the slice's first point (missing extents are 1).
                    int ix = static_cast<int>(start / (static_cast<long>(ny) * nz));
                    const long rem = start % (static_cast<long>(ny) * nz);
                    int iy = static_cast<int>(rem / nz);
                    int iz = static_cast<int>(rem % nz);
                    for (int j = 0; j < np; ++j) {
                        double* blk = intc[static_cast<size_t>(j)];
                        if (g_filter && !admit[static_cast<size_t>(start + j)]) {
                            // Not integrated: the block must not carry another pair's values.
                            for (int c = 0; c < nsub; ++c) zero(blk + c * sub);
                        } else {
                            const double* px = pcpowx.data() + ix * pc_line;
                            const double* py = pcpowy.data() + iy * pc_line;
                            const double* pz = pcpowz.data() + iz * pc_line;
                            const double* X = cfl.data() + ix * cf_line;
                            const double* Y = cfm.data() + iy * cf_line;
                            const double* Z = cfn.data() + iz * cf_line;
                            for (int p = 0; p < npp; ++p) {
                                const size_t pp = static_cast<size_t>(p);
                                const double d2 = px[pp * pc_pair + 2] + py[pp * pc_pair + 2] + pz[pp * pc_pair + 2];
                                if (d2 > s0thrs[pp]) {
                                    if (p == 0)
                                        for (int c = 0; c < nsub; ++c) zero(blk + c * sub);
                                    continue;
                                }
                                fmch(farray.data(), lab, d2 * ga[pp]);
                                kernel(tA, tB, X + pp * pair_cf, Y + pp * pair_cf, Z + pp * pair_cf, nu_stride,
                                       farray.data(), intp.data());
                                const double* cc = ccab.data() + pp * fun2;
                                if (p == 0)
                                    for (int c = 0; c < nsub; ++c) init(cc + c * sub, intp.data(), blk + c * sub);
                                else
                                    for (int c = 0; c < nsub; ++c) accum(cc + c * sub, intp.data(), blk + c * sub);
                            }
                        }
                        if (++iz == nz) {
                            iz = 0;
                            if (++iy == ny) {
                                iy = 0;
                                ++ix;
                            }
                        }
                    }

                    if (gauss::is_spherical(tA) || gauss::is_spherical(tB))
                        gauss::spherical_transform(intcf.data(), np, static_cast<size_t>(blocklen), tA, tB, ncA, ncB);
                    // out[slice] += -1 * A^T mult, one column of A per point.
                    const char trans = 'T';
                    const double alpha = -1.0, beta = 1.0;
                    const int one = 1;
                    if (np > 0 && m > 0)
                        dgemv_(&trans, &m, &np, &alpha, intcf.data(), &blocklen, mult.data(), &one, &beta,
                               share.out + start, &one, 1);
                }
                start += np;
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
