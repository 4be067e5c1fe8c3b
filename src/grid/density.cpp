#include "grid/density.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "common/fatal.h"
#include "grid/gto.h"

namespace kvx::grid {

using common::abort_flag;
using common::alloc_or_die;
using common::fatalf;

namespace {

// Visits every shell that survives screening at point p and hands it, with
// its factors and radial values, to on_shell. Allocation-free.
template <class OnShell>
void visit_point(const GtoBuilder& b, const MaxCmo& maxcmo, int p, double* factors, double* cache,
                 double* radial, OnShell&& on_shell) {
    const RangeTable& rt = *b.ranges;
    const double eps = rt.threshold;
    int idx[3] = {0, 0, 0};
    b.geo.indices_of_index(idx, p);
    const int ndim = b.grid->ndim;
    const int i = idx[0];
    const int j = ndim >= 2 ? idx[1] : 0;
    const int k = ndim >= 3 ? idx[2] : 0;
    for (int a = 0; a < rt.natoms; ++a) {
        const double* px = b.pdx.entry(i, a);
        if (!px) continue;
        const double* py = b.pdy.entry(j, a);
        if (!py) continue;
        const double* pz = b.pdz.entry(k, a);
        if (!pz) continue;
        const double r2 = px[2] + py[2] + pz[2];
        const double r = std::sqrt(r2);
        std::fill(cache, cache + kFactorBlocks, 0.0);
        const auto& shells = rt.atshpt[a];
        const auto& radii = rt.ranges[a];
        const auto& mx = maxcmo[a];
        for (int s = 0; s < rt.nshat[a]; ++s) {
            if (radii[s] < r) break;  // later shells are shorter still
            const moldata::Shell& sh = *shells[s];
            const double big_r = shell_radial(radial, r2, sh);
            const double big_t = comp_cterm(factors, cache, px, py, pz, sh.type);
            if (big_t * big_r * mx[s] >= eps) on_shell(sh);
        }
    }
}

// Highest column any shell's coefficients reach, plus one.
int basis_extent(const RangeTable& rt) {
    int need = 0;
    for (const auto& list : rt.atshpt)
        for (const moldata::Shell* sh : list) {
            const int t = sh->type;
            const int n = t >= 0 && t < 14 ? kGtoComponents[static_cast<std::size_t>(t)] : 0;
            need = std::max(need, sh->nfirst - 1 + n * sh->ngc);
        }
    return need;
}

bool covers_basis(const moldata::OrbitalSet* set) {
    const GtoBuilder* b = gto_builder();
    return !b || set->coef.cols >= basis_extent(*b->ranges);
}

void progress_line(double pct) {
    std::printf(" %.0f%%\n", pct);
    std::fflush(stdout);
}

}  // namespace

MaxCmo comp_maxcmo(const double* const* cmo, const std::vector<int>& nshat,
                   const std::vector<std::vector<const moldata::Shell*>>& atshpt, int natoms, int norb,
                   const double* occ) {
    MaxCmo out;
    alloc_or_die("Density comp_maxcmo: cannot allocate maxcmo", [&] { out.resize(natoms); });
    for (int a = 0; a < natoms; ++a) {
        try {
            out[a].assign(nshat[a], 0.0);
        } catch (const std::bad_alloc&) {
            fatalf("Density comp_maxcmo: cannot allocate maxcmo[%d]\n", a);
        }
        for (int s = 0; s < nshat[a]; ++s) {
            const moldata::Shell& sh = *atshpt[a][s];
            const int t = sh.type;
            const int n = t >= 0 && t < 14 ? kGtoComponents[static_cast<std::size_t>(t)] : 0;
            const int base = sh.nfirst - 1;
            double big = 0.0;
            for (int c = 0; c < sh.ngc; ++c)
                for (int k = 0; k < n; ++k)
                    for (int i = 0; i < norb; ++i) {
                        if (occ[i] == 0.0) continue;
                        const double v = std::fabs(cmo[i][base + c * n + k]);
                        if (v > big) big = v;
                    }
            out[a][s] = big;
        }
    }
    return out;
}

namespace {

// The point loop shared by orbital and density grids: out[p] += the sum of
// shell_value(shell) over the shells surviving screening at p, with progress
// lines from `base` on in steps of `step` per point. Stops on the abort flag.
template <class ShellValue>
void point_loop(const GtoBuilder& b, const MaxCmo& maxcmo, const char* nomem, double* out, int first, double step,
                double base, ShellValue&& shell_value) {
    const int total = static_cast<int>(b.grid->total);
    const int stride = gto_stride();
    std::vector<double> radial;
    alloc_or_die(nomem, [&] { radial.assign(std::max(gto_scratch_width(), 2), 0.0); });
    double factors[kFactorSize] = {};
    double cache[kFactorBlocks] = {};
    const bool prints = first == stride - 1;
    double last = base;
    for (int p = first; p < total; p += stride) {
        const double pct = p * step + base;
        double sum = 0.0;
        visit_point(b, maxcmo, p, factors, cache, radial.data(),
                    [&](const moldata::Shell& sh) { sum += shell_value(factors, radial.data(), sh); });
        out[p] += sum;
        if (prints && pct >= last + 10.0) {
            progress_line(pct);
            last = pct;
        }
        if (abort_flag) break;
    }
}

}  // namespace

void compute_mogrid(const MoRequest& req) {
    const GtoBuilder* b = gto_builder();
    if (!b || !req.out || !req.cmo) return;
    const RangeTable& rt = *b->ranges;
    const double one = 1.0;
    const MaxCmo maxcmo = comp_maxcmo(req.cmo, rt.nshat, rt.atshpt, rt.natoms, 1, &one);
    const double* coef = req.cmo[0];
    point_loop(*b, maxcmo, "Density compute_mogrid: cannot allocate memory", req.out, req.first_point,
               100.0 / b->grid->total, 0.0, [&](const double* factors, const double* radial, const moldata::Shell& sh) {
                   return sum_gto(factors, radial, coef, sh.type, sh.ngc, sh.nfirst);
               });
}

void compute_dengrid(const DenRequest& req) {
    const GtoBuilder* b = gto_builder();
    if (!b || !req.out || (req.norb > 0 && (!req.cmo || !req.occ))) return;
    const RangeTable& rt = *b->ranges;
    const MaxCmo maxcmo = comp_maxcmo(req.cmo, rt.nshat, rt.atshpt, rt.natoms, req.norb, req.occ);
    point_loop(*b, maxcmo, "Density compute_dengrid: cannot allocate memory", req.out, req.first_point,
               100.0 / (b->grid->total * req.passes), req.base,
               [&](const double* factors, const double* radial, const moldata::Shell& sh) {
                   // Each shell's part of an orbital is squared on its own: the
                   // cross terms between shells are left out, as intended.
                   double sum = 0.0;
                   for (int i = 0; i < req.norb; ++i) {
                       if (req.occ[i] == 0.0) continue;
                       const double v = sum_gto(factors, radial, req.cmo[i], sh.type, sh.ngc, sh.nfirst);
                       sum += req.occ[i] * v * v;
                   }
                   return sum;
               });
}

void fill_mo(PropertyGrid* pg, const moldata::OrbitalSet* set, const char* orbital_text, const char* set_name) {
    if (!pg || !set || !orbital_text || !*orbital_text) return;
    if (!set_name) set_name = "";
    int n = 0;
    if (std::sscanf(orbital_text, "%d", &n) != 1) n = 0;
    if (n < 1 || n > set->count || n > set->coef.rows) {
        std::printf("Density fill_mo: Molecular Orbital %s No. %d cannot be computed\n", set_name, n);
        std::fflush(stdout);
        return;
    }
    if (!covers_basis(set)) {
        std::printf("Density fill_mo: orbital set %s has fewer coefficients than the basis\n", set_name);
        std::fflush(stdout);
        return;
    }
    std::printf("Computing Molecular Orbital %s No. %d:\n", set_name, n);
    std::fflush(stdout);
    std::fill(pg->values.begin(), pg->values.end(), 0.0);

    const double* coef = set->coef.row(n - 1);
    MoRequest req;
    req.out = pg->values.data();
    req.cmo = &coef;
    const GtoBuilder* b = gto_builder();
    if (b && pg->values.size() >= b->grid->total) compute_mogrid(req);

    char name[128];
    std::snprintf(name, sizeof name, "%s-%d", set_name, n);
    pg->name = name;
    std::puts(abort_flag ? " ABORTED" : " DONE");
    std::fflush(stdout);
}

void fill_density(PropertyGrid* pg, const moldata::OrbitalSet* alpha, const double* occa,
                  const moldata::OrbitalSet* beta, const double* occb, const char* name) {
    if (!pg) return;
    if (!name) name = "";
    auto occupied = [](const moldata::OrbitalSet* set, const double* occ) {
        int n = 0;
        if (set && occ)
            for (int i = 0; i < std::min(set->count, set->coef.rows); ++i)
                if (occ[i] != 0.0) n = i + 1;
        return n;
    };
    const int na = occupied(alpha, occa);
    const int nb = occupied(beta, occb);
    if ((na > 0 && !covers_basis(alpha)) || (nb > 0 && !covers_basis(beta))) {
        std::printf("Density fill_density: orbital coefficients of %s do not cover the basis\n", name);
        std::fflush(stdout);
        return;
    }
    const double passes = (na > 0 ? 1.0 : 0.0) + (nb > 0 ? 1.0 : 0.0);

    std::printf("Computing Electronic Density %s:\n", name);
    std::fflush(stdout);
    std::fill(pg->values.begin(), pg->values.end(), 0.0);
    const GtoBuilder* b = gto_builder();
    const bool fits = b && pg->values.size() >= b->grid->total;

    auto run = [&](const moldata::OrbitalSet* set, const double* occ, int norb, double base) {
        std::vector<const double*> rows;
        alloc_or_die("Density compute_dengrid: cannot allocate memory", [&] { rows.resize(norb); });
        for (int i = 0; i < norb; ++i) rows[i] = set->coef.row(i);
        DenRequest req;
        req.out = pg->values.data();
        req.cmo = rows.data();
        req.norb = norb;
        req.occ = occ;
        req.base = base;
        req.passes = passes;
        if (fits) compute_dengrid(req);
    };

    double base = 0.0;
    if (na > 0) {
        run(alpha, occa, na, 0.0);
        if (passes == 2.0 && !abort_flag) {
            progress_line(50.0);
            base = 50.0;
        }
    }
    if (nb > 0 && !abort_flag) run(beta, occb, nb, base);

    pg->name = name;
    std::puts(abort_flag ? " ABORTED" : " DONE");
    std::fflush(stdout);
}

}  // namespace kvx::grid
