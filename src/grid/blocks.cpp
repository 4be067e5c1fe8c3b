#include "grid/blocks.h"

#include <algorithm>
#include <cmath>

#include "common/fatal.h"
#include "common/parallel.h"
#include "gauss/shell_types.h"
#include "gauss/spherical.h"
#include "grid/block_kernels.h"

namespace kvx::grid {

namespace {

using blockeval::AtomBlock;
using blockeval::B;
using blockeval::kMaxPower;

// A block's bound on a radial value leaves this much room for the rounding
// of the sum it bounds.
constexpr double kBoundRoom = 1.0 + 1e-12;

// Power k of one axis at point pt of a block: a row of the atom's run on
// the line axis, the same numbers at every point on the other two.
struct LinePowers {
    const double* p;
    int stride;
    int pt;
    double operator[](int k) const { return p[k * stride + pt]; }
};
struct FixedPowers {
    const double* p;
    double operator[](int k) const { return p[k]; }
};

template <int L, int D>
inline auto powers_at(const AtomBlock& ab, int pt) {
    if constexpr (D == L)
        return LinePowers{ab.line, ab.stride, pt};
    else
        return FixedPowers{ab.fixed[D]};
}

// Types whose factors are single monomials x^i y^j z^k.
constexpr bool is_cartesian(int type) { return type == 2 || type == 3 || type == 5 || (type >= 7 && type <= 10); }

// Shells the kernels of block_kernels.h take: s and cartesian types with
// one contraction (sp has one).
bool is_fused(const moldata::Shell& sh) { return sh.ngc == 1 && (sh.type == 1 || is_cartesian(sh.type)); }

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

// Set-up of an atom for a block: its run of points, the fixed axes'
// powers, the nearest point and its squared distance (added as the
// point-by-point loop adds it, (x^2 + y^2) + z^2). False when no point of
// the block has the atom.
template <int L>
bool atom_block(const GtoBuilder& b, int a, const PointBlock& blk, AtomBlock& ab) {
    const RunTable* rt[3] = {&b.rx, &b.ry, &b.rz};
    const int np = b.atom_lmax[a] + 1;
    for (int d = 0; d < 3; ++d) {
        if (d == L) continue;
        const AxisRun& run = rt[d]->run[a];
        const int i = blk.idx[d];
        if (i < run.lo || i >= run.hi) return false;
        const int len = run.hi - run.lo;
        for (int k = 0; k < np; ++k)
            ab.fixed[d][k] = rt[d]->v[run.at + static_cast<std::size_t>(k) * len + (i - run.lo)];
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
    const int k = ab.kstar;
    ab.rmin2 = powers_at<L, 0>(ab, k)[2] + powers_at<L, 1>(ab, k)[2] + powers_at<L, 2>(ab, k)[2];
    return true;
}

// r^2 at the atom's points of the block.
template <int L>
void point_distances(const AtomBlock& ab, BlockWork& w) {
    double* r2 = w.r2.data();
    for (int pt = ab.p0; pt < ab.p1; ++pt)
        r2[pt] = powers_at<L, 0>(ab, pt)[2] + powers_at<L, 1>(ab, pt)[2] + powers_at<L, 2>(ab, pt)[2];
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
            o[pt] = powers_at<L, 0>(ab, pt)[e.x] * powers_at<L, 1>(ab, pt)[e.y] * powers_at<L, 2>(ab, pt)[e.z];
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
                f[pt] = powers_at<L, 0>(ab, pt)[1];
                f[B + pt] = powers_at<L, 1>(ab, pt)[1];
                f[2 * B + pt] = powers_at<L, 2>(ab, pt)[1];
            }
            return;
        case 4:
            block_monomials<L, 2>(ab, w.cart.data());
            return block_combine<4>(ab, w.cart.data(), f);
        case 5:
            return block_monomials<L, 2>(ab, f);
        case 6:
            for (int pt = ab.p0; pt < ab.p1; ++pt)
                f7_factors(powers_at<L, 0>(ab, pt), powers_at<L, 1>(ab, pt), powers_at<L, 2>(ab, pt), RowsOut{f, pt});
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
    if (w.formed[slot] != w.visit) {
        block_type_factors<L>(type, ab, w, f);
        for (int pt = ab.p0; pt < ab.p1; ++pt) t[pt] = std::fabs(f[pt]);
        for (int k = 1; k < kGtoComponents[static_cast<std::size_t>(type)]; ++k) {
            const double* fk = f + k * B;
            for (int pt = ab.p0; pt < ab.p1; ++pt) {
                const double v = std::fabs(fk[pt]);
                t[pt] = v > t[pt] ? v : t[pt];
            }
        }
        double big = 0.0;
        for (int pt = ab.p0; pt < ab.p1; ++pt) big = t[pt] > big ? t[pt] : big;
        w.tblock[slot] = big;
        w.formed[slot] = w.visit;
    }
    tblock = w.tblock[slot];
    return f;
}

// Bound of a shell's radial values over the block: each primitive's
// exp(-a r^2) at its largest (the block's point nearest the atom) times its
// largest |coefficient|, with room for rounding. Leaves the per-line
// numbers N_p exp(-a_p du^2) exp(-a_p dv^2) in w.sline and their largest
// values on the block in w.smax.
template <int L>
double radial_bound(const GtoBuilder& b, const moldata::Shell& sh, int slot, const PointBlock& blk, const AtomBlock& ab,
                    BlockWork& w) {
    const ExpTable* et[3] = {&b.ex, &b.ey, &b.ez};
    const double* pref = sh.prefact->data();
    const double* cmax = b.prim_cmax.data() + slot;
    double* sline = w.sline.data();
    double* smax = w.smax.data();
    double bound = 0.0;
    for (int p = 0; p < sh.nprim; ++p) {
        double s = pref[p];
        for (int d = 0; d < 3; ++d)
            if (d != L) s *= et[d]->row(slot + p)[blk.idx[d]];
        sline[p] = s;
        smax[p] = s * et[L]->row(slot + p)[blk.idx[L] + ab.kstar];
        bound += cmax[p] * smax[p];
    }
    return bound * kBoundRoom;
}

// Radial values of a shell at the atom's points (w.rad, one row per
// contraction; with `largest`, w.rbig their largest magnitude per point):
// sum_p c_p N_p exp(-a_p du^2) exp(-a_p dv^2) exp(-a_p dl^2), the per-line
// numbers from radial_bound.
template <int L>
void block_radial(const GtoBuilder& b, const moldata::Shell& sh, int slot, const PointBlock& blk, const AtomBlock& ab,
                  bool largest, BlockWork& w) {
    const int m = sh.ncontr(), p0 = ab.p0, p1 = ab.p1;
    const ExpTable& line_exp = L == 0 ? b.ex : L == 1 ? b.ey : b.ez;
    const double* sline = w.sline.data();
    const double* smax = w.smax.data();
    double* rad = w.rad.data();
    double* e = w.e.data();
    // Sums start from their first term instead of 0 + it, and skip primitives
    // whose exponential is 0 at every point of the block (adding +-0): equal
    // but for the sign of a zero, which no sum of the block (from +0) keeps.
    bool first = true;
    for (int p = 0; p < sh.nprim; ++p) {
        if (smax[p] == 0.0) continue;
        const double s = sline[p];
        const double* el = line_exp.row(slot + p) + blk.idx[L];
        if (m == 1) {
            // One contraction (most shells): the same products in one pass.
            const double cp = sh.coef(p, 0);
            if (first)
                for (int pt = p0; pt < p1; ++pt) rad[pt] = cp * (s * el[pt]);
            else
                for (int pt = p0; pt < p1; ++pt) rad[pt] += cp * (s * el[pt]);
            first = false;
            continue;
        }
        for (int pt = p0; pt < p1; ++pt) e[pt] = s * el[pt];
        for (int c = 0; c < m; ++c) {
            const double cp = sh.coef(p, c);
            double* rc = rad + c * B;
            if (first)
                for (int pt = p0; pt < p1; ++pt) rc[pt] = cp * e[pt];
            else
                for (int pt = p0; pt < p1; ++pt) rc[pt] += cp * e[pt];
        }
        first = false;
    }
    if (first)
        for (int c = 0; c < m; ++c) std::fill(rad + c * B + p0, rad + c * B + p1, 0.0);
    if (!largest) return;
    double* big = w.rbig.data();
    for (int pt = p0; pt < p1; ++pt) big[pt] = std::fabs(rad[pt]);
    for (int c = 1; c < m; ++c) {
        const double* rc = rad + c * B;
        for (int pt = p0; pt < p1; ++pt) {
            const double v = std::fabs(rc[pt]);
            big[pt] = v > big[pt] ? v : big[pt];
        }
    }
}

// Bound of a cartesian type's factors (types 2, 3, 5, 7 .. 10) over the
// block without forming them: |x^i y^j z^k| is largest where the line
// displacement is, at one end of the atom's points.
template <int L>
double cartesian_bound(int type, const AtomBlock& ab) {
    const int ends[2] = {ab.p0, ab.p1 - 1};
    const int pe =
        std::fabs(powers_at<L, L>(ab, ends[0])[1]) >= std::fabs(powers_at<L, L>(ab, ends[1])[1]) ? ends[0] : ends[1];
    const auto x = powers_at<L, 0>(ab, pe);
    const auto y = powers_at<L, 1>(ab, pe);
    const auto z = powers_at<L, 2>(ab, pe);
    const int l = gauss::kAngular[static_cast<std::size_t>(type)];
    double big = 0.0;
    for (int k = 0; k < (l + 1) * (l + 2) / 2; ++k) {
        const gauss::CartExp e = gauss::cart_exponents(l, k);
        big = std::max(big, std::fabs(x[e.x]) * std::fabs(y[e.y]) * std::fabs(z[e.z]));
    }
    return big;
}

// acc += val where the point-by-point screening keeps the shell: in reach
// (r^2 <= reach2) and T R maxcmo >= eps (T = 1 for s shells).
void keep_and_add(const BlockWork& w, const AtomBlock& ab, const double* tpt, double reach2, double mx, double eps,
                  double* acc) {
    const double* r2 = w.r2.data();
    const double* big = w.rbig.data();
    const double* val = w.val.data();
    // Selects from loaded values (a load under a condition is not vectorised).
    if (tpt) {
        for (int pt = ab.p0; pt < ab.p1; ++pt) {
            const double v = val[pt];
            const double in_reach = r2[pt] <= reach2 ? v : 0.0;
            acc[pt] += tpt[pt] * big[pt] * mx >= eps ? in_reach : 0.0;
        }
    } else {
        for (int pt = ab.p0; pt < ab.p1; ++pt) {
            const double v = val[pt];
            const double in_reach = r2[pt] <= reach2 ? v : 0.0;
            acc[pt] += 1.0 * big[pt] * mx >= eps ? in_reach : 0.0;
        }
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
    // Sums start from their first term instead of 0 + first term: equal but
    // for the sign of a zero, which the block's sums (from +0) never keep.
    if (sh.type == 1) {
        for (int pt = p0; pt < p1; ++pt) val[pt] = rad[pt] * cf[0];
        for (int c = 1; c < sh.ngc; ++c)
            for (int pt = p0; pt < p1; ++pt) val[pt] += rad[c * B + pt] * cf[c];
        return;
    }
    const int nt = kGtoComponents[static_cast<std::size_t>(sh.type)];
    double* part = w.e.data();
    for (int c = 0; c < sh.ngc; ++c) {
        const double* cc = cf + c * nt;
        for (int pt = p0; pt < p1; ++pt) part[pt] = f[pt] * cc[0];
        for (int k = 1; k < nt; ++k)
            for (int pt = p0; pt < p1; ++pt) part[pt] += f[k * B + pt] * cc[k];
        if (c == 0)
            for (int pt = p0; pt < p1; ++pt) val[pt] = rad[pt] * part[pt];
        else
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

// The kernels of a request: the value of a shell at the block's points
// for the generic path (into w.val), and the kernels of block_kernels.h.
struct OrbitalKernels {
    const OrbitalTerms& t;
    bool fused(int, int, const moldata::Shell& sh) const { return is_fused(sh); }
    void value(const moldata::Shell& sh, int, int, const double* f, const AtomBlock& ab, BlockWork& w) const {
        orbital_contract(sh, t.coef, f, ab, w);
    }
    template <int L, int Deg, bool SP>
    void add(int, int, const double* cf, const AtomBlock& ab, const BlockWork& w, double reach2, double mx, double eps,
             double* acc) const {
        blockeval::orbital_cartesian<L, Deg, SP>(cf, ab, w.rad.data(), w.r2.data(), reach2, mx, eps, acc);
    }
    const double* coef() const { return t.coef; }
};

struct DensityKernels {
    const DensityTerms& t;
    bool fused(int a, int s, const moldata::Shell& sh) const { return is_fused(sh) && !t.packed[a][s].empty(); }
    void value(const moldata::Shell& sh, int a, int s, const double* f, const AtomBlock& ab, BlockWork& w) const {
        density_contract(sh, t, t.packed[a][s], f, ab, w);
    }
    template <int L, int Deg, bool SP>
    void add(int a, int s, const double*, const AtomBlock& ab, const BlockWork& w, double reach2, double mx, double eps,
             double* acc) const {
        blockeval::density_cartesian<L, Deg, SP>(t.packed[a][s].data(), ab, w.rad.data(), w.r2.data(), reach2, mx, eps,
                                                 acc);
    }
    const double* coef() const { return nullptr; }
};

// A fused shell's kernel for its degree.
template <int L, class Kernels>
void add_fused(const Kernels& k, const moldata::Shell& sh, int a, int s, const AtomBlock& ab, const BlockWork& w,
               double reach2, double mx, double eps, double* acc) {
    const double* cf = k.coef() ? k.coef() + (sh.nfirst - 1) : nullptr;
    switch (sh.type) {
        case 1:
            return k.template add<L, 0, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
        case 2:
            return k.template add<L, 1, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
        case 3:
            return k.template add<L, 1, true>(a, s, cf, ab, w, reach2, mx, eps, acc);
        case 5:
            return k.template add<L, 2, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
        case 7:
            return k.template add<L, 3, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
        case 8:
            return k.template add<L, 4, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
        case 9:
            return k.template add<L, 5, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
        default:
            return k.template add<L, 6, false>(a, s, cf, ab, w, reach2, mx, eps, acc);
    }
}

// The loop over atoms and shells of one block, in the order of the
// point-by-point loop, so every point's sum is added up in the same order.
// A shell is skipped for the whole block when T R maxcmo < eps at every
// point (T and R bounded over the block; a cartesian type's factors bounded
// without forming them); otherwise its radial values are formed and the
// shell added where screening keeps it, by a kernel of block_kernels.h or by
// the generic path (factors per point, value, keep_and_add).
template <int L, class Kernels>
void eval_block(const GtoBuilder& b, const MaxCmo& maxcmo, const Kernels& kernels, const PointBlock& blk, BlockWork& w,
                double* out) {
    const RangeTable& rt = *b.ranges;
    const double eps = rt.threshold;
    double* acc = w.acc.data();
    std::fill(acc, acc + blk.npts, 0.0);
    for (int a = 0; a < rt.natoms; ++a) {
        AtomBlock ab;
        if (rt.nshat[a] == 0 || !atom_block<L>(b, a, blk, ab) || ab.rmin2 > b.reach2[a][0]) continue;
        ++w.visit;  // no factor block formed or bounded for this atom yet
        bool distances = false;
        for (int s = 0; s < rt.nshat[a]; ++s) {
            const double reach2 = b.reach2[a][s];
            if (ab.rmin2 > reach2) break;  // this and every later shell miss the whole block
            const moldata::Shell& sh = *rt.atshpt[a][s];
            const int slot = b.prim_slot[a][s];
            const double mx = maxcmo[a][s];
            const bool fused = kernels.fused(a, s, sh);
            double tmax = 1.0;
            const double* f = nullptr;
            const double* tpt = nullptr;
            if (sh.type != 1) {
                const int fb = factor_block(sh.type);
                if (is_cartesian(sh.type) && w.formed[fb] != w.visit) {
                    if (w.bounded[fb] != w.visit)
                        w.tblock[fb] = cartesian_bound<L>(sh.type, ab), w.bounded[fb] = w.visit;
                    tmax = w.tblock[fb];
                } else
                    f = atom_factors<L>(sh.type, ab, w, tpt, tmax);
            }
            if (!(tmax * radial_bound<L>(b, sh, slot, blk, ab, w) * mx >= eps)) continue;
            if (!distances) point_distances<L>(ab, w), distances = true;
            block_radial<L>(b, sh, slot, blk, ab, !fused, w);
            if (fused) {
                add_fused<L>(kernels, sh, a, s, ab, w, reach2, mx, eps, acc);
                continue;
            }
            if (sh.type != 1 && !f) f = atom_factors<L>(sh.type, ab, w, tpt, tmax);
            kernels.value(sh, a, s, f, ab, w);
            keep_and_add(w, ab, tpt, reach2, mx, eps, acc);
        }
    }
    double* o = out + blk.first;
    for (int pt = 0; pt < blk.npts; ++pt) o[pt] += acc[pt];
}

template <class Kernels>
void eval_any_axis(const GtoBuilder& b, const MaxCmo& maxcmo, const Kernels& kernels, const BlockLayout& layout,
                   const PointBlock& blk, BlockWork& w, double* out) {
    switch (layout.line_axis) {
        case 0:
            return eval_block<0>(b, maxcmo, kernels, blk, w, out);
        case 1:
            return eval_block<1>(b, maxcmo, kernels, blk, w, out);
        default:
            return eval_block<2>(b, maxcmo, kernels, blk, w, out);
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
    w.fac.assign(kFactorSize * rows, 0.0);
    w.cart.assign(21 * rows, 0.0);
    w.tmax.assign(kFactorBlocks * rows, 0.0);
    w.tblock.assign(kFactorBlocks, 0.0);
    w.rad.assign(ncontr * rows, 0.0);
    w.phi.assign(nfun * rows, 0.0);
    for (auto* v : {&w.r2, &w.e, &w.rbig, &w.val, &w.acc}) v->assign(rows, 0.0);
    w.tmp.assign(rows, 0.0);
    w.sline.assign(nprim, 0.0);
    w.smax.assign(nprim, 0.0);
    w.formed.assign(kFactorBlocks, 0);
    w.bounded.assign(kFactorBlocks, 0);
    w.visit = 0;
}

void orbital_block(const GtoBuilder& b, const OrbitalTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out) {
    eval_any_axis(b, t.maxcmo, OrbitalKernels{t}, layout, blk, w, out);
}

void density_block(const GtoBuilder& b, const DensityTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out) {
    eval_any_axis(b, t.maxcmo, DensityKernels{t}, layout, blk, w, out);
}

}  // namespace kvx::grid
