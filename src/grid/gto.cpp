#include "grid/gto.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

#include "common/fatal.h"
#include "common/parallel.h"
#include "gauss/gtoprod.h"
#include "gauss/spherical.h"

namespace kvx::grid {

using common::alloc_or_die;
using common::fatal;
using common::fatalf;

namespace {

struct GtoState {
    std::unique_ptr<GtoBuilder> bptr;
    int threads = 1;
    int scratch_width = 0;
};
GtoState g_gto;

constexpr double kPi = 3.141592653589793;
constexpr double kLnTwoOverPiTimes3 = -1.354748115868365;  // 3 ln(2/pi)
constexpr int kNewtonMaxSteps = 1000;

// Largest primitive radius of one shell.
double shell_radius(const moldata::Shell& sh, double eps) {
    double radius = 0.0;
    if (!sh.basdat) return radius;
    for (int p = 0; p < sh.nprim; ++p) {
        double c;
        if (sh.type == 3) {
            c = sh.coef(p, 0);
            if (std::fabs(sh.coef(p, 1)) > std::fabs(c)) c = sh.coef(p, 1);
        } else {
            // Compared with the signed running choice, not its magnitude:
            // intended, a negative choice yields to any larger |c_k|.
            c = 0.0;
            for (int k = 0; k < sh.ngc; ++k)
                if (std::fabs(sh.coef(p, k)) > c) c = sh.coef(p, k);
        }
        const double r = shell_range(sh.type, sh.exponent(p), c, eps);
        if (r > radius) radius = r;
    }
    return radius;
}

void fill_axis(PowerTable& t, const GridGeometry& geo, int axis, int npoints,
               const std::vector<std::array<double, 3>>& pos, const std::vector<int>& lmax,
               const std::vector<double>& rmax, const char* name) {
    const int natoms = static_cast<int>(pos.size());
    char msg[64];
    std::snprintf(msg, sizeof msg, "Gto make_gtobuilder: cannot allocate %s", name);
    std::size_t room = 0;
    for (int a = 0; a < natoms; ++a) room += static_cast<std::size_t>(lmax[a]) + 1;
    alloc_or_die(msg, [&] {
        t.offset.assign(static_cast<std::size_t>(npoints) * natoms, -1);
        t.powers.reserve(room * static_cast<std::size_t>(npoints));
    });
    t.npoints = npoints;
    t.natoms = natoms;
    for (int i = 0; i < npoints; ++i) {
        int idx[3] = {0, 0, 0};
        idx[axis] = i;
        double point[3];
        geo.point_of_indices(point, idx);
        for (int a = 0; a < natoms; ++a) {
            if (rmax[a] < 0.0) continue;  // atom without shells
            const double d = pos[a][axis] - point[axis];
            if (std::fabs(d) > rmax[a]) continue;  // no shell of a reaches this plane
            const std::size_t at = t.powers.size();
            t.powers.resize(at + lmax[a] + 1);
            gauss::powx(t.powers.data() + at, d, lmax[a]);
            t.offset[static_cast<std::size_t>(i) * natoms + a] = static_cast<std::ptrdiff_t>(at);
        }
    }
}

// Primitive rows of the exponential tables: shells in range-table order.
int number_primitives(const RangeTable& rt, std::vector<std::vector<int>>& slot) {
    int next = 0;
    slot.resize(rt.natoms);
    for (int a = 0; a < rt.natoms; ++a) {
        slot[a].resize(rt.atshpt[a].size());
        for (std::size_t s = 0; s < rt.atshpt[a].size(); ++s) {
            slot[a][s] = next;
            next += rt.atshpt[a][s]->nprim;
        }
    }
    return next;
}

// exp(-alpha d^2) with d^2 the power table's element 2, for every primitive
// and every point of one axis.
void fill_exp(ExpTable& t, const PowerTable& pd, const RangeTable& rt, const std::vector<std::vector<int>>& slot,
              int nslots, const char* name) {
    char msg[64];
    std::snprintf(msg, sizeof msg, "Gto make_gtobuilder: cannot allocate %s", name);
    alloc_or_die(msg, [&] { t.v.assign(static_cast<std::size_t>(nslots) * pd.npoints, 0.0); });
    t.npoints = pd.npoints;
    for (int a = 0; a < rt.natoms; ++a)
        for (std::size_t s = 0; s < rt.atshpt[a].size(); ++s) {
            const moldata::Shell& sh = *rt.atshpt[a][s];
            for (int p = 0; p < sh.nprim; ++p) {
                double* row = t.v.data() + static_cast<std::size_t>(slot[a][s] + p) * t.npoints;
                for (int i = 0; i < pd.npoints; ++i)
                    if (const double* e = pd.entry(i, a)) row[i] = std::exp(-sh.exponent(p) * e[2]);
            }
        }
}

// The power table's entries of each atom as rows over its run of points.
void fill_runs(RunTable& t, const PowerTable& pd, const std::vector<int>& lmax, const char* name) {
    char msg[64];
    std::snprintf(msg, sizeof msg, "Gto make_gtobuilder: cannot allocate %s", name);
    alloc_or_die(msg, [&] { t.run.assign(pd.natoms, AxisRun{}); });
    std::size_t room = 0;
    for (int a = 0; a < pd.natoms; ++a) {
        AxisRun& r = t.run[a];
        int i = 0;
        while (i < pd.npoints && !pd.entry(i, a)) ++i;
        r.lo = r.hi = r.nearest = i;
        while (r.hi < pd.npoints && pd.entry(r.hi, a)) {
            if (pd.entry(r.hi, a)[2] < pd.entry(r.nearest, a)[2]) r.nearest = r.hi;
            ++r.hi;
        }
        r.at = room;
        room += static_cast<std::size_t>(r.hi - r.lo) * (lmax[a] + 1);
    }
    alloc_or_die(msg, [&] { t.v.assign(room, 0.0); });
    for (int a = 0; a < pd.natoms; ++a) {
        const AxisRun& r = t.run[a];
        const int len = r.hi - r.lo;
        for (int i = r.lo; i < r.hi; ++i)
            for (int k = 0; k <= lmax[a]; ++k)
                t.v[r.at + static_cast<std::size_t>(k) * len + (i - r.lo)] = pd.entry(i, a)[k];
    }
}

// The largest x with fl(sqrt(x)) <= radius (sqrt is correctly rounded and
// monotone, so those x are [0, x]); infinite for an infinite radius.
double reach_limit(double radius) {
    const double inf = std::numeric_limits<double>::infinity();
    double x = radius * radius;
    while (std::sqrt(x) > radius) x = std::nextafter(x, 0.0);
    while (x < inf && std::sqrt(std::nextafter(x, inf)) <= radius) x = std::nextafter(x, inf);
    return x;
}

}  // namespace

double shell_range(int type, double alpha, double c, double eps) {
    if (type <= 0 || type >= static_cast<int>(kRangePower.size())) return 0.0;
    const double q = eps / std::fabs(c);
    const double arg = (3.0 * std::log(alpha) - 4.0 * std::log(q) + kLnTwoOverPiTimes3) / alpha;
    if (!(arg >= 0.0)) return 0.0;  // the primitive never reaches eps
    const double r0 = 0.5 * std::sqrt(arg);  // N exp(-alpha r0^2) = q
    if (type == 1) return r0;

    // Newton on f(r) = N r^l exp(-alpha r^2) - q. The derivative carries 4
    // alpha where the exact one has 2: intended, it only slows the approach.
    const int l = kRangePower[static_cast<std::size_t>(type)];
    const double n = std::pow(2.0 * alpha / kPi, 0.75);
    double r = r0;
    for (int it = 0; it < kNewtonMaxSteps; ++it) {
        const double e = std::exp(-alpha * r * r);
        const double f = n * std::pow(r, l) * e - q;
        const double df = n * l * std::pow(r, l - 1) * e - 4.0 * alpha * n * std::pow(r, l + 1) * e;
        const double step = f / df;
        r -= step;
        if (!(std::fabs(step) >= q)) break;
    }
    return std::isfinite(r) ? r : r0;
}

std::shared_ptr<RangeTable> init_ranges(const moldata::Molecule* mol, double eps) {
    if (!mol) return nullptr;
    std::shared_ptr<RangeTable> t;
    try {
        t = std::make_shared<RangeTable>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    const int natoms = static_cast<int>(mol->atoms.size());
    const int nshell = static_cast<int>(mol->shells.size());

    alloc_or_die("Gto init_ranges: cannot allocate nshat", [&] { t->nshat.assign(natoms, 0); });
    // Owning atom by identity; a shell on no atom of the molecule is dropped.
    std::vector<int> owner;
    alloc_or_die("Gto init_ranges: cannot allocate nshat", [&] { owner.assign(nshell, -1); });
    for (int s = 0; s < nshell; ++s)
        for (int a = 0; a < natoms; ++a)
            if (mol->shells[s].center == &mol->atoms[a]) {
                owner[s] = a;
                ++t->nshat[a];
                break;
            }

    alloc_or_die("Gto init_ranges: cannot allocate atshpt", [&] { t->atshpt.resize(natoms); });
    for (int a = 0; a < natoms; ++a) {
        try {
            t->atshpt[a].reserve(t->nshat[a]);
        } catch (const std::bad_alloc&) {
            fatalf("Gto init_ranges: cannot allocate atshpt[%d]\n", a);
        }
    }
    for (int s = 0; s < nshell; ++s)
        if (owner[s] >= 0) t->atshpt[owner[s]].push_back(&mol->shells[s]);

    alloc_or_die("Gto init_ranges: cannot allocate ranges", [&] { t->ranges.resize(natoms); });
    for (int a = 0; a < natoms; ++a) {
        try {
            t->ranges[a].resize(t->nshat[a]);
        } catch (const std::bad_alloc&) {
            fatalf("Gto init_ranges: cannot allocate ranges[%d]\n", a);
        }
        for (int s = 0; s < t->nshat[a]; ++s) t->ranges[a][s] = shell_radius(*t->atshpt[a][s], eps);
    }

    // Exchange sort by decreasing radius, both lists together.
    for (int a = 0; a < natoms; ++a) {
        auto& r = t->ranges[a];
        auto& sp = t->atshpt[a];
        for (int i = 0; i < t->nshat[a]; ++i)
            for (int j = i + 1; j < t->nshat[a]; ++j)
                if (r[j] > r[i]) {
                    std::swap(r[i], r[j]);
                    std::swap(sp[i], sp[j]);
                }
    }

    t->natoms = natoms;
    t->nshell = nshell;
    t->threshold = eps;
    return t;
}

void free_ranges(std::shared_ptr<RangeTable>& table) { table.reset(); }

std::unique_ptr<GtoBuilder> make_gtobuilder(std::shared_ptr<RangeTable> table, const Grid* grid) {
    if (!table || !grid) return nullptr;
    const int natoms = table->natoms;
    std::vector<std::array<double, 3>> pos(natoms, {0.0, 0.0, 0.0});
    std::vector<int> lmax(natoms, 2);  // element 2 is always the squared displacement
    std::vector<double> rmax(natoms, -1.0);
    for (int a = 0; a < natoms; ++a) {
        if (table->nshat[a] <= 0) continue;
        const moldata::Atom* at = table->atshpt[a][0]->center;
        pos[a] = {at->x, at->y, at->z};
        rmax[a] = table->ranges[a][0];
        for (const moldata::Shell* sh : table->atshpt[a])
            if (sh->type >= 0 && sh->type < 14)
                lmax[a] = std::max(lmax[a], kRangePower[static_cast<std::size_t>(sh->type)]);
    }

    const GridGeometry geo = grid_geometry(*grid);
    if (!geo.cartesian) fatal("Gto make_gtobuilder: non cartesian grid not yet implemented");
    const int nx = grid->counts[0];
    const int ny = grid->ndim >= 2 ? grid->counts[1] : 1;
    const int nz = grid->ndim >= 3 ? grid->counts[2] : 1;

    std::unique_ptr<GtoBuilder> b;
    try {
        b = std::make_unique<GtoBuilder>();
    } catch (const std::bad_alloc&) {
        fatal("Gto make_gtobuilder: cannot allocate bptr");
    }
    fill_axis(b->pdx, geo, 0, nx, pos, lmax, rmax, "pdx");
    fill_axis(b->pdy, geo, 1, ny, pos, lmax, rmax, "pdy");
    fill_axis(b->pdz, geo, 2, nz, pos, lmax, rmax, "pdz");
    int nslots = 0;
    alloc_or_die("Gto make_gtobuilder: cannot allocate bptr",
                 [&] { nslots = number_primitives(*table, b->prim_slot); });
    alloc_or_die("Gto make_gtobuilder: cannot allocate bptr", [&] {
        b->prim_cmax.assign(nslots, 0.0);
        b->reach2.resize(natoms);
        for (int a = 0; a < natoms; ++a) b->reach2[a].resize(table->ranges[a].size());
    });
    for (int a = 0; a < natoms; ++a)
        for (std::size_t s = 0; s < table->ranges[a].size(); ++s) b->reach2[a][s] = reach_limit(table->ranges[a][s]);
    for (int a = 0; a < natoms; ++a)
        for (std::size_t s = 0; s < table->atshpt[a].size(); ++s) {
            const moldata::Shell& sh = *table->atshpt[a][s];
            for (int p = 0; p < sh.nprim; ++p)
                for (int c = 0; c < sh.ncontr(); ++c)
                    b->prim_cmax[b->prim_slot[a][s] + p] =
                        std::max(b->prim_cmax[b->prim_slot[a][s] + p], std::fabs(sh.coef(p, c)));
        }
    fill_exp(b->ex, b->pdx, *table, b->prim_slot, nslots, "pdx");
    fill_exp(b->ey, b->pdy, *table, b->prim_slot, nslots, "pdy");
    fill_exp(b->ez, b->pdz, *table, b->prim_slot, nslots, "pdz");
    fill_runs(b->rx, b->pdx, lmax, "pdx");
    fill_runs(b->ry, b->pdy, lmax, "pdy");
    fill_runs(b->rz, b->pdz, lmax, "pdz");
    b->atom_lmax = std::move(lmax);
    b->grid = grid;
    b->geo = geo;
    b->ranges = std::move(table);
    return b;
}

int gto_setup(moldata::Molecule* mol, const Grid* grid, double eps, int numt) {
    if (!mol || !grid) return 0;
    g_gto.threads = common::thread_count(numt);
    int width = 2;
    for (const auto& sh : mol->shells) width = std::max(width, sh.ncontr());
    g_gto.scratch_width = width;

    if (!(mol->ranges && mol->ranges->threshold == eps)) {
        free_ranges(mol->ranges);
        mol->ranges = init_ranges(mol, eps);
        if (!mol->ranges) return 0;
    }
    g_gto.bptr.reset();
    g_gto.bptr = make_gtobuilder(mol->ranges, grid);
    return g_gto.bptr ? 1 : 0;
}

void gto_free() {
    g_gto.bptr.reset();
    g_gto.threads = 1;
    g_gto.scratch_width = 0;
}

const GtoBuilder* gto_builder() { return g_gto.bptr.get(); }
int gto_threads() { return g_gto.threads; }
int gto_scratch_width() { return g_gto.scratch_width; }

namespace {

// The cartesian monomials x^ax y^ay z^az of a type's degree, in component order.
void monomials(int type, const double* x, const double* y, const double* z, double* out) {
    const int l = gauss::kAngular[static_cast<std::size_t>(type)];
    for (int k = 0; k < gauss::kCartCount[static_cast<std::size_t>(type)]; ++k) {
        const gauss::CartExp e = gauss::cart_exponents(l, k);
        out[k] = x[e.x] * y[e.y] * z[e.z];
    }
}

}  // namespace

double comp_cterm(double* factors, double* cache, const double* pdx, const double* pdy, const double* pdz,
                  int type) {
    if (type == 1) return 1.0;
    if (type <= 0 || type > 12) fatalf("Gto comp_cterm: Gaussian type %d not yet implemented\n", type);
    const int slot = cache_slot(type);
    if (slot >= 0 && cache[slot] > 0.0) return cache[slot];

    const double* x = pdx;
    const double* y = pdy;
    const double* z = pdz;
    double* f = factors + kFactorBlock * factor_block(type);
    const int n = kGtoComponents[static_cast<std::size_t>(type)];
    switch (type) {
        case 2:
        case 3:
            f[0] = x[1];
            f[1] = y[1];
            f[2] = z[1];
            break;
        case 6:
            f7_factors(x, y, z, f);
            break;
        case 5:
        case 7:
        case 8:
        case 9:
        case 10:
            monomials(type, x, y, z, f);
            break;
        case 4:
        case 11:
        case 12: {
            // Spherical d, g, h: the real combinations of the cartesian
            // monomials, as in the integral blocks.
            double c[21];
            monomials(type, x, y, z, c);
            gauss::spherical_combine(type, c, f);
            break;
        }
        default: break;
    }
    double big = 0.0;
    for (int k = 0; k < n; ++k)
        if (std::fabs(f[k]) > big) big = std::fabs(f[k]);
    if (slot >= 0) cache[slot] = big;
    return big;
}

double shell_radial(double* values, double r2, const moldata::Shell& shell) {
    const int m = shell.ncontr();
    for (int c = 0; c < m; ++c) values[c] = 0.0;
    const double* prefact = shell.prefact->data();
    for (int p = 0; p < shell.nprim; ++p) {
        const double* row = shell.prim(p);
        const double e = std::exp(-row[0] * r2) * prefact[p];
        for (int c = 0; c < m; ++c) values[c] += row[1 + c] * e;
    }
    double big = 0.0;
    for (int c = 0; c < m; ++c)
        if (std::fabs(values[c]) > big) big = std::fabs(values[c]);
    return big;
}

double sum_gto(const double* factors, const double* radial, const double* coefficients, int type, int ncontr,
               int first) {
    if (type > 12) fatalf("Gto sum_gto: Gaussian type %d not yet implemented\n", type);
    if (type <= 0) return 0.0;
    const double* cf = coefficients + (first - 1);
    if (type == 3) {
        const double* f = factors;  // block 0: x, y, z
        return cf[0] * radial[0] + (cf[1] * f[0] + cf[2] * f[1] + cf[3] * f[2]) * radial[1];
    }
    double sum = 0.0;
    if (type == 1) {
        for (int c = 0; c < ncontr; ++c) sum += radial[c] * cf[c];
        return sum;
    }
    const int n = kGtoComponents[static_cast<std::size_t>(type)];
    const double* f = factors + kFactorBlock * factor_block(type);
    for (int c = 0; c < ncontr; ++c) {
        const double* cc = cf + c * n;
        double part = 0.0;
        for (int k = 0; k < n; ++k) part += f[k] * cc[k];
        sum += radial[c] * part;
    }
    return sum;
}

}  // namespace kvx::grid
