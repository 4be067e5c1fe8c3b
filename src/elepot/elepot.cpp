#include "elepot/elepot.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <new>
#include <vector>

#include "common/fatal.h"
#include "common/parallel.h"
#include "elepot/fmch.h"
#include "elepot/multipole.h"
#include "elepot/pot_setup.h"
#include "gauss/gtoprod.h"
#include "gauss/shell_types.h"

namespace kvx::elepot {

using gauss::kAngular;
using gauss::kCartCount;
using moldata::Shell;
using std::size_t;

namespace {

PotSetup g_ep;
PotCounts g_counts;  // of the last comp_elepot

// Factorials to index n; false when memory runs out.
bool grow_factorials(PotSetup& S, int n) {
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
bool build_tho(PotSetup& S, int L) {
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

}  // namespace

const std::vector<int>& elepot_slice_sizes() { return g_ep.slice_size; }

void elepot_cleanup() {
    g_ep = PotSetup{};
    g_ep.thresh = 1e-14;
    fmch_release();
}

namespace {

// Set-up on the points of lines (moved into the state). The slices hold the
// integral blocks (maxfun^2 doubles per point) and, for a list, also the line
// tables of their points; the slices of all threads together fit in memmax
// megabytes (fewer threads when memmax holds fewer than one block each).
int setup(const moldata::Molecule* mol, PointLines&& lines, const grid::Grid* grid, double memmax, double thresh,
          int numt) {
    elepot_cleanup();
    if (!mol || mol->shells.empty()) return 0;
    PotSetup& S = g_ep;

    int L = 0, maxcomp = 0, maxcontr = 0, maxfun = 0, maxprim = 0;
    for (const Shell& sh : mol->shells) {
        if (!shell_usable(sh, mol->nbasis)) return 0;
        L = std::max(L, kAngular[sh.type]);
        maxcomp = std::max(maxcomp, kCartCount[sh.type]);
        maxcontr = std::max(maxcontr, sh.ncontr());
        maxfun = std::max(maxfun, sh.ngc * kCartCount[sh.type]);
        maxprim = std::max(maxprim, sh.nprim);
    }
    if (!mol->density || mol->density->n < mol->nbasis) return 0;

    const double avail = memmax * 131072.0;
    double need = static_cast<double>(maxfun) * maxfun * 8.0;
    if (!lines.lattice) {
        // Per point of a list: its own x, y and z line of THO factors and PC
        // powers for every primitive pair.
        const double pairs = static_cast<double>(maxprim) * maxprim;
        const double per_line = static_cast<double>(L + 1) * (L + 1) * (2 * L + 1) + std::max(2 * L, 2) + 1;
        need += 3.0 * pairs * per_line * 8.0;
    }
    if (!(need <= avail)) return 0;
    S.numt = static_cast<int>(std::min<double>(common::thread_count(numt), std::floor(avail / need)));

    if (!grow_factorials(S, 2 * L)) return 0;
    if (!build_tho(S, L)) {
        S.L = -1;
        elepot_cleanup();
        return 0;
    }
    S.L = L;
    S.maxcomp = maxcomp;

    S.lines = std::move(lines);
    if (S.lines.npoints <= 0) {
        elepot_cleanup();
        return 0;
    }
    const long npoints = S.lines.npoints;
    S.per_slice = static_cast<long>(std::min(avail / S.numt / need, static_cast<double>(std::max(npoints, 1L))));
    long first0 = 0, count0 = 0;
    common::share_range(npoints, S.numt, 0, first0, count0);
    if (!common::try_alloc([&] { S.slice_size = slice_sizes(count0, S.per_slice); })) {
        elepot_cleanup();
        return 0;
    }
    S.max_slice = static_cast<int>(std::min(S.per_slice, std::max(count0, 1L)));

    S.maxcontr = maxcontr;
    S.maxprim2 = maxprim * maxprim;
    S.maxprim = maxprim;
    S.maxfun = maxfun;
    S.nF = std::max(2 * L, 2);
    // Every table evaluation reads is grown here: Boys function to 2L,
    // binomials to L (the f-tables read rows up to the larger shell's l).
    fmch_init(2 * L);
    gauss::binom_grow(L);
    S.grid = grid;
    S.thresh = thresh;
    return 1;
}

}  // namespace

int elepot_init(const moldata::Molecule* mol, const grid::Grid* grid, double memmax, double thresh, int numt) {
    if (!grid) {
        elepot_cleanup();
        return 0;
    }
    PointLines lines;
    if (!common::try_alloc([&] { lines = lattice_lines(*grid); })) {
        elepot_cleanup();
        return 0;
    }
    return setup(mol, std::move(lines), grid, memmax, thresh, numt);
}

int elepot_init_points(const moldata::Molecule* mol, const double* xyz, long n, double memmax, double thresh,
                       int numt) {
    PointLines lines;
    if (!xyz || n <= 0 || !common::try_alloc([&] { lines = list_lines(xyz, n); })) {
        elepot_cleanup();
        return 0;
    }
    return setup(mol, std::move(lines), nullptr, memmax, thresh, numt);
}

long elepot_point_count() { return g_ep.L >= 0 ? g_ep.lines.npoints : 0; }

namespace {

// out[p] for the points first .. first + count - 1.
void nuclear_range(double* out, const PointLines& lines, const moldata::Atom* atoms, int natoms, long first,
                   long count) {
    for (long p = first; p < first + count; ++p) {
        double r[3];
        lines.point(p, r);
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

}  // namespace

void nuclear_potential(double* out, const PointLines& lines, const moldata::Atom* atoms, int natoms) {
    if (out) nuclear_range(out, lines, atoms, natoms, 0, lines.npoints);
}

// The points, not the shell pairs, are divided among the threads: each
// thread takes a contiguous part of the points through every shell pair, so
// every point receives its terms in the order one thread gives them and the
// values do not depend on the thread count (divided by pairs, the threads'
// partial sums would be added at each point in another order).
void comp_elepot(double* out, const moldata::Molecule* mol, const unsigned char* admit) {
    if (!out || !mol) return;
    std::puts("Computing Electrostatic Potential:");
    std::fflush(stdout);
    g_counts = PotCounts{};
    const PotSetup& S = g_ep;
    const int natoms = std::min(mol->natoms, static_cast<int>(mol->atoms.size()));
    const bool electrons = S.L >= 0 && mol->density;
    FarField far;
    if (electrons && S.multipoles) build_far_field(*mol, S.thresh, S.maxfun, far);
    const int nshares = std::max(S.numt, 1);
    std::vector<PotShare> shares(static_cast<std::size_t>(nshares));
    std::vector<std::shared_ptr<PotWork>> work(static_cast<std::size_t>(nshares));
    std::vector<PotCounts> counts(static_cast<std::size_t>(nshares));
    for (int s = 0; s < nshares; ++s) {
        PotShare& sh = shares[static_cast<std::size_t>(s)];
        sh.out = out;
        sh.density = mol->density.get();
        sh.shells = mol->shells.data();
        sh.nshell = static_cast<int>(mol->shells.size());
        sh.nbasis = mol->nbasis;
        sh.index = s;
        sh.admit = admit;
        common::share_range(S.lines.npoints, nshares, s, sh.first, sh.count);
        if (electrons) work[static_cast<std::size_t>(s)] = alloc_work(S, sh, far.Lmax);
    }
    const double nsh = static_cast<double>(mol->shells.size());
    PotProgress progress(nshares, nsh * (nsh + 1) / 2.0);
    common::run_shares(nshares, [&](int s) {
        const PotShare& sh = shares[static_cast<std::size_t>(s)];
        nuclear_range(out, S.lines, mol->atoms.data(), natoms, sh.first, sh.count);
        if (electrons)
            integrate_share(S, sh, far, *work[static_cast<std::size_t>(s)], progress,
                            counts[static_cast<std::size_t>(s)]);
    });
    for (const PotCounts& c : counts) {
        g_counts.near += c.near;
        g_counts.far += c.far;
    }
    std::puts(common::abort_flag ? " ABORTED" : " DONE");
    std::fflush(stdout);
}

PotPathCounts elepot_path_counts() { return {g_counts.near, g_counts.far}; }

void elepot_use_multipoles(bool on) { g_ep.multipoles = on; }

}  // namespace kvx::elepot
