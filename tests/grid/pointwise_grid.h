// The orbital and density grids point by point, as the evaluators formed
// them before they went by blocks: per point and atom the three power table
// entries, per shell shell_radial (one exponential per primitive),
// comp_cterm with its per-atom cache, the screening T R maxcmo >= eps and
// sum_gto, each orbital's shell part squared for the density. The reference
// the block evaluator is held against (tests) and timed against (bench).
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "grid/density.h"
#include "grid/gto.h"

namespace kvx::test {

// Visits every shell that survives screening at point p with its factors
// and radial values.
template <class OnShell>
void pointwise_visit(const grid::GtoBuilder& b, const grid::MaxCmo& maxcmo, int p, double* factors, double* cache,
                     double* radial, OnShell&& on_shell) {
    const grid::RangeTable& rt = *b.ranges;
    int idx[3] = {0, 0, 0};
    b.geo.indices_of_index(idx, p);
    const int ndim = b.grid->ndim;
    const int i = idx[0], j = ndim >= 2 ? idx[1] : 0, k = ndim >= 3 ? idx[2] : 0;
    for (int a = 0; a < rt.natoms; ++a) {
        const double *px = b.pdx.entry(i, a), *py = b.pdy.entry(j, a), *pz = b.pdz.entry(k, a);
        if (!px || !py || !pz) continue;
        const double r2 = px[2] + py[2] + pz[2];
        const double r = std::sqrt(r2);
        std::fill(cache, cache + grid::kFactorBlocks, 0.0);
        for (int s = 0; s < rt.nshat[a]; ++s) {
            if (rt.ranges[a][s] < r) break;
            const moldata::Shell& sh = *rt.atshpt[a][s];
            const double big_r = grid::shell_radial(radial, r2, sh);
            const double big_t = grid::comp_cterm(factors, cache, px, py, pz, sh.type);
            if (big_t * big_r * maxcmo[a][s] >= rt.threshold) on_shell(sh);
        }
    }
}

// out[p] += orbital coef at every point p of the builder's grid.
inline void pointwise_orbital(const grid::GtoBuilder& b, const double* coef, double* out) {
    const grid::RangeTable& rt = *b.ranges;
    const double one = 1.0;
    const grid::MaxCmo maxcmo = grid::comp_maxcmo(&coef, rt.nshat, rt.atshpt, rt.natoms, 1, &one);
    std::vector<double> radial(std::max(grid::gto_scratch_width(), 2));
    double factors[grid::kFactorSize] = {}, cache[grid::kFactorBlocks] = {};
    for (int p = 0; p < static_cast<int>(b.grid->total); ++p) {
        double sum = 0.0;
        pointwise_visit(b, maxcmo, p, factors, cache, radial.data(), [&](const moldata::Shell& sh) {
            sum += grid::sum_gto(factors, radial.data(), coef, sh.type, sh.ngc, sh.nfirst);
        });
        out[p] += sum;
    }
}

// out[p] += sum over shells and orbitals of occ_i (shell part of orbital i)^2.
inline void pointwise_density(const grid::GtoBuilder& b, const double* const* cmo, int norb, const double* occ,
                              double* out) {
    const grid::RangeTable& rt = *b.ranges;
    const grid::MaxCmo maxcmo = grid::comp_maxcmo(cmo, rt.nshat, rt.atshpt, rt.natoms, norb, occ);
    std::vector<double> radial(std::max(grid::gto_scratch_width(), 2));
    double factors[grid::kFactorSize] = {}, cache[grid::kFactorBlocks] = {};
    for (int p = 0; p < static_cast<int>(b.grid->total); ++p) {
        double sum = 0.0;
        pointwise_visit(b, maxcmo, p, factors, cache, radial.data(), [&](const moldata::Shell& sh) {
            double part = 0.0;
            for (int i = 0; i < norb; ++i) {
                if (occ[i] == 0.0) continue;
                const double v = grid::sum_gto(factors, radial.data(), cmo[i], sh.type, sh.ngc, sh.nfirst);
                part += occ[i] * v * v;
            }
            sum += part;
        });
        out[p] += sum;
    }
}

}  // namespace kvx::test
