#include "grid/blocks.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "common/fatal.h"
#include "common/parallel.h"
#include "gauss/shell_types.h"
#include "gauss/spherical.h"

namespace kvx::grid {

namespace {

constexpr int B = kBlockPoints;
constexpr double kInf = std::numeric_limits<double>::infinity();
// A block's bound on a radial value leaves this much room for the rounding
// of the sum it bounds.
constexpr double kBoundRoom = 1.0 + 1e-12;
// Powers a table entry holds at most: l <= 6, and at least x^0 .. x^2.
constexpr int kMaxPower = 7;

// Power k of one axis at point pt of a block: a row of the atom's run on
// the line axis, the same numbers at every point on the other two.
struct LinePowers {
    const double* p;  // row 0 at the block's first point
    int stride;       // the run's length
    int pt;
    double operator[](int k) const { return p[k * stride + pt]; }
};
struct FixedPowers {
    const double* p;
    double operator[](int k) const { return p[k]; }
};

// One atom over one block: points p0 .. p1-1 of the block have its table
// entries (the point-by-point loop skips the atom at the others).
struct AtomBlock {
    const double* fixed[3] = {nullptr, nullptr, nullptr};  // powers on the fixed axes
    const double* line = nullptr;                          // powers on the line axis
    int stride = 0;
    int p0 = 0, p1 = 0;
    int kstar = 0;      // the point nearest the atom
    double rmin = 0.0;  // its distance
    double fixed_pow[3][kMaxPower] = {};

    template <int L, int D>
    auto at(int pt) const {
        if constexpr (D == L)
            return LinePowers{line, stride, pt};
        else
            return FixedPowers{fixed[D]};
    }
};

// Row m of a per-point array at one point.
struct RowsIn {
    const double* p;
    int pt;
    double operator[](int m) const { return p[m * B + pt]; }
};
struct RowsOut {
    double* p;
    int pt;
    double& operator[](int m) const { return p[m * B + pt]; }
};

// Set-up of an atom for a block: its run of points, the powers, r^2 and r.
// False when no point of the block has the atom.
template <int L>
bool atom_block(const GtoBuilder& b, int a, const PointBlock& blk, BlockWork& w, AtomBlock& ab) {
    const RunTable* rt[3] = {&b.rx, &b.ry, &b.rz};
    const int np = b.atom_lmax[a] + 1;
    for (int d = 0; d < 3; ++d) {
        if (d == L) continue;
        const AxisRun& run = rt[d]->run[a];
        const int i = blk.idx[d];
        if (i < run.lo || i >= run.hi) return false;
        const int len = run.hi - run.lo;
        for (int k = 0; k < np; ++k)
            ab.fixed_pow[d][k] = rt[d]->v[run.at + static_cast<std::size_t>(k) * len + (i - run.lo)];
        ab.fixed[d] = ab.fixed_pow[d];
    }
    const AxisRun& run = rt[L]->run[a];
    const int k0 = blk.idx[L];
    ab.p0 = std::max(0, run.lo - k0);
    ab.p1 = std::min(blk.npts, run.hi - k0);
    if (ab.p0 >= ab.p1) return false;
    ab.stride = run.hi - run.lo;
    ab.line = rt[L]->v.data() + run.at + (k0 - run.lo);
    // d^2 along the line falls, then rises: its least value on the block is
    // at the run's nearest point, clamped to the block.
    ab.kstar = std::clamp(run.nearest - k0, ab.p0, ab.p1 - 1);
    double* r2 = w.r2.data();
    double* r = w.r.data();
    for (int pt = ab.p0; pt < ab.p1; ++pt) {
        // (x^2 + y^2) + z^2, as the point-by-point loop adds them.
        r2[pt] = ab.at<L, 0>(pt)[2] + ab.at<L, 1>(pt)[2] + ab.at<L, 2>(pt)[2];
        r[pt] = std::sqrt(r2[pt]);
    }
    ab.rmin = r[ab.kstar];
    return true;
}

// Cartesian monomials of degree Deg in component order, (x^i y^j) z^k as
// comp_cterm forms them.
template <int L, int Deg>
void block_monomials(const AtomBlock& ab, double* out) {
    constexpr int count = (Deg + 1) * (Deg + 2) / 2;
    for (int k = 0; k < count; ++k) {
        const gauss::CartExp e = gauss::cart_exponents(Deg, k);
        double* o = out + k * B;
        for (int pt = ab.p0; pt < ab.p1; ++pt)
            o[pt] = ab.at<L, 0>(pt)[e.x] * ab.at<L, 1>(pt)[e.y] * ab.at<L, 2>(pt)[e.z];
    }
}

template <int Type>
void block_combine(const AtomBlock& ab, const double* cart, double* f) {
    for (int pt = ab.p0; pt < ab.p1; ++pt) gauss::spherical_combine_at<Type>(RowsIn{cart, pt}, RowsOut{f, pt});
}

// The angular factors of a type (types 2 .. 12) at the atom's points, the
// same numbers comp_cterm forms point by point.
template <int L>
void block_type_factors(int type, const AtomBlock& ab, BlockWork& w, double* f) {
    switch (type) {
        case 2:
        case 3:
            for (int pt = ab.p0; pt < ab.p1; ++pt) {
                f[pt] = ab.at<L, 0>(pt)[1];
                f[B + pt] = ab.at<L, 1>(pt)[1];
                f[2 * B + pt] = ab.at<L, 2>(pt)[1];
            }
            return;
        case 4:
            block_monomials<L, 2>(ab, w.cart.data());
            return block_combine<4>(ab, w.cart.data(), f);
        case 5:
            return block_monomials<L, 2>(ab, f);
        case 6:
            for (int pt = ab.p0; pt < ab.p1; ++pt)
                f7_factors(ab.at<L, 0>(pt), ab.at<L, 1>(pt), ab.at<L, 2>(pt), RowsOut{f, pt});
            return;
        case 7:
            return block_monomials<L, 3>(ab, f);
        case 8:
            return block_monomials<L, 4>(ab, f);
        case 9:
            return block_monomials<L, 5>(ab, f);
        case 10:
            return block_monomials<L, 6>(ab, f);
        case 11:
            block_monomials<L, 4>(ab, w.cart.data());
            return block_combine<11>(ab, w.cart.data(), f);
        case 12:
            block_monomials<L, 5>(ab, w.cart.data());
            return block_combine<12>(ab, w.cart.data(), f);
        default:
            return;
    }
}

// Factors of the type for the atom (formed once per atom and block), their
// largest magnitude per point (tpt) and over the block (returned in tblock).
template <int L>
const double* atom_factors(int type, const AtomBlock& ab, BlockWork& w, const double*& tpt, double& tblock) {
    const int slot = factor_block(type);
    double* f = w.fac.data() + static_cast<std::size_t>(slot) * kFactorBlock * B;
    double* t = w.tmax.data() + static_cast<std::size_t>(slot) * B;
    tpt = t;
    if (!w.formed[slot]) {
        block_type_factors<L>(type, ab, w, f);
        std::fill(t + ab.p0, t + ab.p1, 0.0);
        for (int k = 0; k < kGtoComponents[static_cast<std::size_t>(type)]; ++k) {
            const double* fk = f + k * B;
            for (int pt = ab.p0; pt < ab.p1; ++pt) {
                const double v = std::fabs(fk[pt]);
                t[pt] = v > t[pt] ? v : t[pt];
            }
        }
        double big = 0.0;
        for (int pt = ab.p0; pt < ab.p1; ++pt) big = t[pt] > big ? t[pt] : big;
        w.tblock[slot] = big;
        w.formed[slot] = 1;
    }
    tblock = w.tblock[slot];
    return f;
}

// Radial values of a shell at the atom's points (w.rad, one row per
// contraction; w.rbig their largest magnitude per point):
// sum_p c_p N_p exp(-a_p du^2) exp(-a_p dv^2) exp(-a_p dl^2). False, with
// nothing formed, when tmax R maxcmo < eps at every point of the block:
// R is bounded by its value at the point nearest the atom with every
// coefficient taken positive.
template <int L>
bool block_radial(const GtoBuilder& b, const moldata::Shell& sh, int slot, const PointBlock& blk, const AtomBlock& ab,
                  double tmax, double mx, double eps, BlockWork& w) {
    const ExpTable* et[3] = {&b.ex, &b.ey, &b.ez};
    const int m = sh.ncontr(), p0 = ab.p0, p1 = ab.p1;
    const double* pref = sh.prefact->data();
    double* sline = w.tmp.data();  // per primitive: N_p times the fixed axes' factors
    double bound = 0.0;
    for (int p = 0; p < sh.nprim; ++p) {
        double s = pref[p];
        for (int d = 0; d < 3; ++d)
            if (d != L) s *= et[d]->row(slot + p)[blk.idx[d]];
        sline[p] = s;
        double cmax = 0.0;
        for (int c = 0; c < m; ++c) cmax = std::max(cmax, std::fabs(sh.coef(p, c)));
        bound += cmax * (s * et[L]->row(slot + p)[blk.idx[L] + ab.kstar]);
    }
    if (!((tmax * (bound * kBoundRoom)) * mx >= eps)) return false;

    double* rad = w.rad.data();
    double* e = w.e.data();
    for (int c = 0; c < m; ++c) std::fill(rad + c * B + p0, rad + c * B + p1, 0.0);
    for (int p = 0; p < sh.nprim; ++p) {
        const double s = sline[p];
        const double* el = et[L]->row(slot + p) + blk.idx[L];
        for (int pt = p0; pt < p1; ++pt) e[pt] = s * el[pt];
        for (int c = 0; c < m; ++c) {
            const double cp = sh.coef(p, c);
            double* rc = rad + c * B;
            for (int pt = p0; pt < p1; ++pt) rc[pt] += cp * e[pt];
        }
    }
    double* big = w.rbig.data();
    std::fill(big + p0, big + p1, 0.0);
    for (int c = 0; c < m; ++c) {
        const double* rc = rad + c * B;
        for (int pt = p0; pt < p1; ++pt) {
            const double v = std::fabs(rc[pt]);
            big[pt] = v > big[pt] ? v : big[pt];
        }
    }
    return true;
}

// acc += val where the point-by-point screening keeps the shell: in reach
// (radius >= r) and T R maxcmo >= eps (T = 1 for s shells).
void keep_and_add(const BlockWork& w, const AtomBlock& ab, const double* tpt, double radius, double mx, double eps,
                  double* acc) {
    const double* r = w.r.data();
    const double* big = w.rbig.data();
    const double* val = w.val.data();
    // Selects from loaded values (a load under a condition is not vectorised).
    if (tpt) {
        for (int pt = ab.p0; pt < ab.p1; ++pt) {
            const double v = val[pt];
            const double in_reach = radius >= r[pt] ? v : 0.0;
            acc[pt] += tpt[pt] * big[pt] * mx >= eps ? in_reach : 0.0;
        }
    } else {
        for (int pt = ab.p0; pt < ab.p1; ++pt) {
            const double v = val[pt];
            const double in_reach = radius >= r[pt] ? v : 0.0;
            acc[pt] += 1.0 * big[pt] * mx >= eps ? in_reach : 0.0;
        }
    }
}

// The loop over atoms and shells of one block; contract(shell, atom, shell
// index, factors, atom block, w) leaves the shell's value per point in
// w.val. Atoms and shells are visited in the order of the point-by-point
// loop, so every point's sum is added up in the same order.
template <int L, class Contract>
void eval_block(const GtoBuilder& b, const MaxCmo& maxcmo, const PointBlock& blk, BlockWork& w, double* out,
                Contract&& contract) {
    const RangeTable& rt = *b.ranges;
    const double eps = rt.threshold;
    double* acc = w.acc.data();
    std::fill(acc, acc + blk.npts, 0.0);
    for (int a = 0; a < rt.natoms; ++a) {
        AtomBlock ab;
        if (rt.nshat[a] == 0 || !atom_block<L>(b, a, blk, w, ab)) continue;
        std::fill(w.formed.begin(), w.formed.end(), 0);
        const auto& shells = rt.atshpt[a];
        const auto& radii = rt.ranges[a];
        for (int s = 0; s < rt.nshat[a]; ++s) {
            if (radii[s] < ab.rmin) break;  // this and every later shell miss the whole block
            const moldata::Shell& sh = *shells[s];
            const double mx = maxcmo[a][s];
            const double* f = nullptr;
            const double* tpt = nullptr;
            double tmax = 1.0;
            if (sh.type != 1) f = atom_factors<L>(sh.type, ab, w, tpt, tmax);
            if (!block_radial<L>(b, sh, b.prim_slot[a][s], blk, ab, tmax, mx, eps, w)) continue;
            contract(sh, a, s, f, ab, w);
            keep_and_add(w, ab, tpt, radii[s], mx, eps, acc);
        }
    }
    double* o = out + blk.first;
    for (int pt = 0; pt < blk.npts; ++pt) o[pt] += acc[pt];
}

template <class Contract>
void eval_any_axis(const GtoBuilder& b, const MaxCmo& maxcmo, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out, Contract&& contract) {
    switch (layout.line_axis) {
        case 0:
            return eval_block<0>(b, maxcmo, blk, w, out, contract);
        case 1:
            return eval_block<1>(b, maxcmo, blk, w, out, contract);
        default:
            return eval_block<2>(b, maxcmo, blk, w, out, contract);
    }
}

// One orbital's part on a shell, in sum_gto's order:
// sum_c R_c sum_k f_k C_ck (sp: C_s R_s + (C_x x + C_y y + C_z z) R_p).
void orbital_contract(const moldata::Shell& sh, const double* coef, const double* f, const AtomBlock& ab,
                      BlockWork& w) {
    const int p0 = ab.p0, p1 = ab.p1;
    const double* cf = coef + (sh.nfirst - 1);
    const double* rad = w.rad.data();
    double* val = w.val.data();
    if (sh.type == 3) {
        const double *r0 = rad, *r1 = rad + B;
        for (int pt = p0; pt < p1; ++pt)
            val[pt] = cf[0] * r0[pt] + (cf[1] * f[pt] + cf[2] * f[B + pt] + cf[3] * f[2 * B + pt]) * r1[pt];
        return;
    }
    std::fill(val + p0, val + p1, 0.0);
    if (sh.type == 1) {
        for (int c = 0; c < sh.ngc; ++c)
            for (int pt = p0; pt < p1; ++pt) val[pt] += rad[c * B + pt] * cf[c];
        return;
    }
    const int nt = kGtoComponents[static_cast<std::size_t>(sh.type)];
    double* part = w.tmp.data();
    for (int c = 0; c < sh.ngc; ++c) {
        const double* cc = cf + c * nt;
        std::fill(part + p0, part + p1, 0.0);
        for (int k = 0; k < nt; ++k)
            for (int pt = p0; pt < p1; ++pt) part[pt] += f[k * B + pt] * cc[k];
        for (int pt = p0; pt < p1; ++pt) val[pt] += rad[c * B + pt] * part[pt];
    }
}

// The shell's basis functions per point: R_c f_k (sp: R_s, R_p x, R_p y, R_p z).
void shell_phi(const moldata::Shell& sh, const double* f, const AtomBlock& ab, BlockWork& w) {
    const int p0 = ab.p0, p1 = ab.p1;
    const double* rad = w.rad.data();
    double* phi = w.phi.data();
    if (sh.type == 1) {
        for (int c = 0; c < sh.ngc; ++c) std::copy(rad + c * B + p0, rad + c * B + p1, phi + c * B + p0);
        return;
    }
    if (sh.type == 3) {
        std::copy(rad + p0, rad + p1, phi + p0);
        for (int k = 0; k < 3; ++k)
            for (int pt = p0; pt < p1; ++pt) phi[(k + 1) * B + pt] = rad[B + pt] * f[k * B + pt];
        return;
    }
    const int nt = kGtoComponents[static_cast<std::size_t>(sh.type)];
    for (int c = 0; c < sh.ngc; ++c)
        for (int k = 0; k < nt; ++k)
            for (int pt = p0; pt < p1; ++pt) phi[(c * nt + k) * B + pt] = rad[c * B + pt] * f[k * B + pt];
}

// The shell's part of the density, the cross terms with other shells left
// out as intended: phi^T P_shell phi, or sum_i occ_i (C_i . phi)^2.
void density_contract(const moldata::Shell& sh, const DensityTerms& t, const std::vector<double>& packed,
                      const double* f, const AtomBlock& ab, BlockWork& w) {
    const int p0 = ab.p0, p1 = ab.p1;
    shell_phi(sh, f, ab, w);
    const int nf = shell_functions(sh);
    const double* phi = w.phi.data();
    double* val = w.val.data();
    double* part = w.tmp.data();
    std::fill(val + p0, val + p1, 0.0);
    if (!packed.empty()) {
        const double* row = packed.data();
        for (int m = 0; m < nf; ++m) {
            const double* pm = phi + m * B;
            for (int pt = p0; pt < p1; ++pt) part[pt] = row[0] * pm[pt];
            for (int k = 1; k < nf - m; ++k) {
                const double* pk = pm + k * B;
                for (int pt = p0; pt < p1; ++pt) part[pt] += row[k] * pk[pt];
            }
            for (int pt = p0; pt < p1; ++pt) val[pt] += pm[pt] * part[pt];
            row += nf - m;
        }
        return;
    }
    for (int i = 0; i < t.norb; ++i) {
        if (t.occ[i] == 0.0) continue;
        const double* cf = t.cmo[i] + (sh.nfirst - 1);
        std::fill(part + p0, part + p1, 0.0);
        for (int m = 0; m < nf; ++m)
            for (int pt = p0; pt < p1; ++pt) part[pt] += cf[m] * phi[m * B + pt];
        const double occ = t.occ[i];
        for (int pt = p0; pt < p1; ++pt) val[pt] += occ * part[pt] * part[pt];
    }
}

}  // namespace

BlockLayout block_layout(const Grid& grid) {
    BlockLayout l;
    const int ndim = std::clamp(grid.ndim, 1, 3);
    for (int d = 0; d < ndim; ++d) l.n[d] = std::max(grid.counts[d], 0);
    l.line_axis = ndim - 1;
    const int nl = l.n[l.line_axis];
    l.per_line = std::max(1, (nl + B - 1) / B);
    l.nblocks = nl > 0 ? static_cast<long>(l.n[0]) * l.n[1] * l.n[2] / nl * l.per_line : 0;
    return l;
}

PointBlock point_block(const BlockLayout& l, long b) {
    PointBlock blk;
    const int L = l.line_axis;
    const long line = b / l.per_line;
    const int part = static_cast<int>(b % l.per_line);
    long first = 0, count = 0;
    common::share_range(l.n[L], l.per_line, part, first, count);
    // Lines in storage order: the axes before the line axis, last fastest.
    long rest = line;
    for (int d = L - 1; d >= 0; --d) {
        blk.idx[d] = static_cast<int>(rest % l.n[d]);
        rest /= l.n[d];
    }
    blk.idx[L] = static_cast<int>(first);
    blk.npts = static_cast<int>(count);
    blk.first = line * l.n[L] + first;
    return blk;
}

int shell_functions(const moldata::Shell& sh) {
    if (sh.type == 3) return 4;
    const int t = sh.type;
    return (t >= 0 && t < 14 ? kGtoComponents[static_cast<std::size_t>(t)] : 0) * sh.ngc;
}

void size_block_work(BlockWork& w, const GtoBuilder& b) {
    int nprim = 1, ncontr = 2, nfun = 4;
    for (const auto& list : b.ranges->atshpt)
        for (const moldata::Shell* sh : list) {
            nprim = std::max(nprim, sh->nprim);
            ncontr = std::max(ncontr, sh->ncontr());
            nfun = std::max(nfun, shell_functions(*sh));
        }
    const std::size_t rows = B;
    w.lpow.assign((b.lmax + 1) * rows, 0.0);
    w.fac.assign(kFactorSize * rows, 0.0);
    w.cart.assign(21 * rows, 0.0);
    w.tmax.assign(kFactorBlocks * rows, 0.0);
    w.tblock.assign(kFactorBlocks, 0.0);
    w.rad.assign(ncontr * rows, 0.0);
    w.phi.assign(nfun * rows, 0.0);
    for (auto* v : {&w.r2, &w.r, &w.e, &w.rbig, &w.val, &w.acc}) v->assign(rows, 0.0);
    w.tmp.assign(std::max<std::size_t>(rows, nprim), 0.0);
    w.formed.assign(kFactorBlocks, 0);
}

void orbital_block(const GtoBuilder& b, const OrbitalTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out) {
    eval_any_axis(b, t.maxcmo, layout, blk, w, out,
                  [&](const moldata::Shell& sh, int, int, const double* f, const AtomBlock& ab, BlockWork& work) {
                      orbital_contract(sh, t.coef, f, ab, work);
                  });
}

void density_block(const GtoBuilder& b, const DensityTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out) {
    eval_any_axis(b, t.maxcmo, layout, blk, w, out,
                  [&](const moldata::Shell& sh, int a, int s, const double* f, const AtomBlock& ab, BlockWork& work) {
                      density_contract(sh, t, t.packed[a][s], f, ab, work);
                  });
}

}  // namespace kvx::grid
