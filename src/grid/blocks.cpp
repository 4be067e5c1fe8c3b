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

// Power k of one axis at point pt of a block: a row of the line powers on
// the line axis, the same table entry at every point on the other two.
struct LinePowers {
    const double* p;
    int pt;
    double operator[](int k) const { return p[k * B + pt]; }
};
struct FixedPowers {
    const double* p;
    double operator[](int k) const { return p[k]; }
};

template <int L, int D>
inline auto powers_at(const double* const* fixed, const double* line, int pt) {
    if constexpr (D == L)
        return LinePowers{line, pt};
    else
        return FixedPowers{fixed[D]};
}

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

// One atom over one block.
struct AtomBlock {
    const double* fixed[3] = {nullptr, nullptr, nullptr};  // power table entries of the fixed axes
    const double* line = nullptr;                          // powers along the line, w.lpow
    int kstar = 0;                                         // point nearest the atom
    double rmin = 0.0;                                     // its distance
};

// Set-up of an atom: the powers along the line, r^2 and r per point (r
// infinite where the atom's table entry is null: the point-by-point loop
// skips the atom there). False when no point of the block has the atom.
template <int L>
bool atom_block(const GtoBuilder& b, int a, const PointBlock& blk, BlockWork& w, AtomBlock& ab) {
    const PowerTable* pd[3] = {&b.pdx, &b.pdy, &b.pdz};
    for (int d = 0; d < 3; ++d) {
        if (d == L) continue;
        ab.fixed[d] = pd[d]->entry(blk.idx[d], a);
        if (!ab.fixed[d]) return false;
    }
    const int n = blk.npts, np = b.atom_lmax[a] + 1;
    double* lp = w.lpow.data();
    double* r2 = w.r2.data();
    double best = kInf;
    int kstar = -1;
    for (int pt = 0; pt < n; ++pt) {
        const double* e = pd[L]->entry(blk.idx[L] + pt, a);
        if (!e) {
            for (int k = 0; k < np; ++k) lp[k * B + pt] = 0.0;
            r2[pt] = kInf;
            continue;
        }
        for (int k = 0; k < np; ++k) lp[k * B + pt] = e[k];
        // (x^2 + y^2) + z^2, as the point-by-point loop adds them.
        const auto x = powers_at<L, 0>(ab.fixed, lp, pt);
        const auto y = powers_at<L, 1>(ab.fixed, lp, pt);
        const auto z = powers_at<L, 2>(ab.fixed, lp, pt);
        r2[pt] = x[2] + y[2] + z[2];
        if (r2[pt] < best) best = r2[pt], kstar = pt;
    }
    if (kstar < 0) return false;
    double* r = w.r.data();
    for (int pt = 0; pt < n; ++pt) r[pt] = std::sqrt(r2[pt]);
    ab.line = lp;
    ab.kstar = kstar;
    ab.rmin = r[kstar];
    return true;
}

// Cartesian monomials of degree Deg in component order, (x^i y^j) z^k as
// comp_cterm forms them.
template <int L, int Deg>
void block_monomials(const AtomBlock& ab, int n, double* out) {
    constexpr int count = (Deg + 1) * (Deg + 2) / 2;
    for (int k = 0; k < count; ++k) {
        const gauss::CartExp e = gauss::cart_exponents(Deg, k);
        double* o = out + k * B;
        for (int pt = 0; pt < n; ++pt) {
            const auto x = powers_at<L, 0>(ab.fixed, ab.line, pt);
            const auto y = powers_at<L, 1>(ab.fixed, ab.line, pt);
            const auto z = powers_at<L, 2>(ab.fixed, ab.line, pt);
            o[pt] = x[e.x] * y[e.y] * z[e.z];
        }
    }
}

template <int Type>
void block_combine(const double* cart, int n, double* f) {
    for (int pt = 0; pt < n; ++pt) gauss::spherical_combine_at<Type>(RowsIn{cart, pt}, RowsOut{f, pt});
}

// The angular factors of a type (types 2 .. 12) at every point, the same
// numbers comp_cterm forms point by point.
template <int L>
void block_type_factors(int type, const AtomBlock& ab, int n, BlockWork& w, double* f) {
    switch (type) {
        case 2:
        case 3:
            for (int pt = 0; pt < n; ++pt) {
                f[pt] = powers_at<L, 0>(ab.fixed, ab.line, pt)[1];
                f[B + pt] = powers_at<L, 1>(ab.fixed, ab.line, pt)[1];
                f[2 * B + pt] = powers_at<L, 2>(ab.fixed, ab.line, pt)[1];
            }
            return;
        case 4:
            block_monomials<L, 2>(ab, n, w.cart.data());
            return block_combine<4>(w.cart.data(), n, f);
        case 5:
            return block_monomials<L, 2>(ab, n, f);
        case 6:
            for (int pt = 0; pt < n; ++pt)
                f7_factors(powers_at<L, 0>(ab.fixed, ab.line, pt), powers_at<L, 1>(ab.fixed, ab.line, pt),
                           powers_at<L, 2>(ab.fixed, ab.line, pt), RowsOut{f, pt});
            return;
        case 7:
            return block_monomials<L, 3>(ab, n, f);
        case 8:
            return block_monomials<L, 4>(ab, n, f);
        case 9:
            return block_monomials<L, 5>(ab, n, f);
        case 10:
            return block_monomials<L, 6>(ab, n, f);
        case 11:
            block_monomials<L, 4>(ab, n, w.cart.data());
            return block_combine<11>(w.cart.data(), n, f);
        case 12:
            block_monomials<L, 5>(ab, n, w.cart.data());
            return block_combine<12>(w.cart.data(), n, f);
        default:
            return;
    }
}

// Factors of the type for the atom (formed once per atom and block), their
// largest magnitude per point (tpt) and over the block (returned).
template <int L>
const double* atom_factors(int type, const AtomBlock& ab, int n, BlockWork& w, const double*& tpt, double& tblock) {
    const int slot = factor_block(type);
    double* f = w.fac.data() + static_cast<std::size_t>(slot) * kFactorBlock * B;
    double* t = w.tmax.data() + static_cast<std::size_t>(slot) * B;
    tpt = t;
    if (!w.formed[slot]) {
        block_type_factors<L>(type, ab, n, w, f);
        std::fill(t, t + n, 0.0);
        for (int k = 0; k < kGtoComponents[static_cast<std::size_t>(type)]; ++k) {
            const double* fk = f + k * B;
            for (int pt = 0; pt < n; ++pt) {
                const double v = std::fabs(fk[pt]);
                t[pt] = v > t[pt] ? v : t[pt];
            }
        }
        double big = 0.0;
        for (int pt = 0; pt < n; ++pt) big = t[pt] > big ? t[pt] : big;
        w.tblock[slot] = big;
        w.formed[slot] = 1;
    }
    tblock = w.tblock[slot];
    return f;
}

// Radial values of a shell at the block's points (w.rad, one row per
// contraction; w.rbig their largest magnitude per point):
// sum_p c_p N_p exp(-a_p du^2) exp(-a_p dv^2) exp(-a_p dl^2). False, with
// nothing formed, when tmax R maxcmo < eps at every point of the block:
// R is bounded by its value at the point nearest the atom with every
// coefficient taken positive.
template <int L>
bool block_radial(const GtoBuilder& b, const moldata::Shell& sh, int slot, const PointBlock& blk, const AtomBlock& ab,
                  double tmax, double mx, double eps, BlockWork& w) {
    const ExpTable* et[3] = {&b.ex, &b.ey, &b.ez};
    const int m = sh.ncontr(), n = blk.npts;
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
    std::fill(rad, rad + static_cast<std::size_t>(m) * B, 0.0);
    for (int p = 0; p < sh.nprim; ++p) {
        const double s = sline[p];
        const double* el = et[L]->row(slot + p) + blk.idx[L];
        for (int pt = 0; pt < n; ++pt) e[pt] = s * el[pt];
        for (int c = 0; c < m; ++c) {
            const double cp = sh.coef(p, c);
            double* rc = rad + c * B;
            for (int pt = 0; pt < n; ++pt) rc[pt] += cp * e[pt];
        }
    }
    double* big = w.rbig.data();
    std::fill(big, big + n, 0.0);
    for (int c = 0; c < m; ++c) {
        const double* rc = rad + c * B;
        for (int pt = 0; pt < n; ++pt) {
            const double v = std::fabs(rc[pt]);
            big[pt] = v > big[pt] ? v : big[pt];
        }
    }
    return true;
}

// acc += val where the point-by-point screening keeps the shell: in reach
// (radius >= r) and T R maxcmo >= eps (T = 1 for s shells).
void keep_and_add(const BlockWork& w, const double* tpt, double radius, double mx, double eps, int n, double* acc) {
    const double* r = w.r.data();
    const double* big = w.rbig.data();
    const double* val = w.val.data();
    if (tpt) {
        for (int pt = 0; pt < n; ++pt) {
            const bool keep = (radius >= r[pt]) & (tpt[pt] * big[pt] * mx >= eps);
            acc[pt] += keep ? val[pt] : 0.0;
        }
    } else {
        for (int pt = 0; pt < n; ++pt) {
            const bool keep = (radius >= r[pt]) & (1.0 * big[pt] * mx >= eps);
            acc[pt] += keep ? val[pt] : 0.0;
        }
    }
}

// The loop over atoms and shells of one block; contract(shell, atom, shell
// index, factors, w) leaves the shell's value per point in w.val. Atoms and
// shells are visited in the order of the point-by-point loop, so every
// point's sum is added up in the same order.
template <int L, class Contract>
void eval_block(const GtoBuilder& b, const MaxCmo& maxcmo, const PointBlock& blk, BlockWork& w, double* out,
                Contract&& contract) {
    const RangeTable& rt = *b.ranges;
    const double eps = rt.threshold;
    const int n = blk.npts;
    double* acc = w.acc.data();
    std::fill(acc, acc + n, 0.0);
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
            if (sh.type != 1) f = atom_factors<L>(sh.type, ab, n, w, tpt, tmax);
            if (!block_radial<L>(b, sh, b.prim_slot[a][s], blk, ab, tmax, mx, eps, w)) continue;
            contract(sh, a, s, f, w, n);
            keep_and_add(w, tpt, radii[s], mx, eps, n, acc);
        }
    }
    double* o = out + blk.first;
    for (int pt = 0; pt < n; ++pt) o[pt] += acc[pt];
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
void orbital_contract(const moldata::Shell& sh, const double* coef, const double* f, BlockWork& w, int n) {
    const double* cf = coef + (sh.nfirst - 1);
    const double* rad = w.rad.data();
    double* val = w.val.data();
    if (sh.type == 3) {
        const double *r0 = rad, *r1 = rad + B;
        for (int pt = 0; pt < n; ++pt)
            val[pt] = cf[0] * r0[pt] + (cf[1] * f[pt] + cf[2] * f[B + pt] + cf[3] * f[2 * B + pt]) * r1[pt];
        return;
    }
    std::fill(val, val + n, 0.0);
    if (sh.type == 1) {
        for (int c = 0; c < sh.ngc; ++c)
            for (int pt = 0; pt < n; ++pt) val[pt] += rad[c * B + pt] * cf[c];
        return;
    }
    const int nt = kGtoComponents[static_cast<std::size_t>(sh.type)];
    double* part = w.tmp.data();
    for (int c = 0; c < sh.ngc; ++c) {
        const double* cc = cf + c * nt;
        std::fill(part, part + n, 0.0);
        for (int k = 0; k < nt; ++k)
            for (int pt = 0; pt < n; ++pt) part[pt] += f[k * B + pt] * cc[k];
        for (int pt = 0; pt < n; ++pt) val[pt] += rad[c * B + pt] * part[pt];
    }
}

// The shell's basis functions per point: R_c f_k (sp: R_s, R_p x, R_p y, R_p z).
void shell_phi(const moldata::Shell& sh, const double* f, BlockWork& w, int n) {
    const double* rad = w.rad.data();
    double* phi = w.phi.data();
    if (sh.type == 1) {
        std::copy(rad, rad + static_cast<std::size_t>(sh.ngc) * B, phi);
        return;
    }
    if (sh.type == 3) {
        std::copy(rad, rad + n, phi);
        for (int k = 0; k < 3; ++k)
            for (int pt = 0; pt < n; ++pt) phi[(k + 1) * B + pt] = rad[B + pt] * f[k * B + pt];
        return;
    }
    const int nt = kGtoComponents[static_cast<std::size_t>(sh.type)];
    for (int c = 0; c < sh.ngc; ++c)
        for (int k = 0; k < nt; ++k)
            for (int pt = 0; pt < n; ++pt) phi[(c * nt + k) * B + pt] = rad[c * B + pt] * f[k * B + pt];
}

// The shell's part of the density, the cross terms with other shells left
// out as intended: phi^T P_shell phi, or sum_i occ_i (C_i . phi)^2.
void density_contract(const moldata::Shell& sh, const DensityTerms& t, const std::vector<double>& packed,
                      const double* f, BlockWork& w, int n) {
    shell_phi(sh, f, w, n);
    const int nf = shell_functions(sh);
    const double* phi = w.phi.data();
    double* val = w.val.data();
    double* part = w.tmp.data();
    std::fill(val, val + n, 0.0);
    if (!packed.empty()) {
        const double* row = packed.data();
        for (int m = 0; m < nf; ++m) {
            const double* pm = phi + m * B;
            for (int pt = 0; pt < n; ++pt) part[pt] = row[0] * pm[pt];
            for (int k = 1; k < nf - m; ++k) {
                const double* pk = pm + k * B;
                for (int pt = 0; pt < n; ++pt) part[pt] += row[k] * pk[pt];
            }
            for (int pt = 0; pt < n; ++pt) val[pt] += pm[pt] * part[pt];
            row += nf - m;
        }
        return;
    }
    for (int i = 0; i < t.norb; ++i) {
        if (t.occ[i] == 0.0) continue;
        const double* cf = t.cmo[i] + (sh.nfirst - 1);
        std::fill(part, part + n, 0.0);
        for (int m = 0; m < nf; ++m)
            for (int pt = 0; pt < n; ++pt) part[pt] += cf[m] * phi[m * B + pt];
        const double occ = t.occ[i];
        for (int pt = 0; pt < n; ++pt) val[pt] += occ * part[pt] * part[pt];
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
                  [&](const moldata::Shell& sh, int, int, const double* f, BlockWork& work, int n) {
                      orbital_contract(sh, t.coef, f, work, n);
                  });
}

void density_block(const GtoBuilder& b, const DensityTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out) {
    eval_any_axis(b, t.maxcmo, layout, blk, w, out,
                  [&](const moldata::Shell& sh, int a, int s, const double* f, BlockWork& work, int n) {
                      density_contract(sh, t, t.packed[a][s], f, work, n);
                  });
}

}  // namespace kvx::grid
