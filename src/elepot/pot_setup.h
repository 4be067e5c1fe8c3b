// What the potential's set-up prepares and the integral worker only reads:
// the THO coefficient tables, the basis maxima, the points (as lines) and
// the slice length that fits -memmax.
#pragma once

#include <cstddef>
#include <vector>

#include "elepot/points.h"
#include "grid/grid.h"

namespace kvx::elepot {

// One THO term (l, r, i): order nu = l - 2r - i, power of PC l - 2r - 2i.
struct ThoTerm {
    int l, r, i;
};

struct PotSetup {
    int numt = 1;
    double thresh = 1e-08;
    // n! and 1/n!, n = 0..2L.
    std::vector<double> fact, invfact;
    // tho[(l * (L+1) + r) * (L+1) + i] = (-1)^(l+i) l! / (r! i! (l-2r-2i)!)
    std::vector<double> tho;
    // Term lists for (lambda, nu) at lambda(lambda+1)/2 + nu, back to back,
    // in the order l, then r, then i ascending.
    std::vector<ThoTerm> terms;
    std::vector<int> term_start, term_count;
    int L = -1;   // highest angular momentum of the basis; -1 when not set up
    int nF = -1;  // Boys orders kept: max(2L, 2)
    int maxcontr = 0, maxprim = 0, maxprim2 = 0, maxcomp = 0, maxfun = 0;
    PointLines lines;
    long per_slice = 0;           // points whose integral blocks fit in memmax
    std::vector<int> slice_size;  // the slices of all points
    int max_slice = 0;
    const grid::Grid* grid = nullptr;  // the grid the lines were made from, if any

    double tho_coef(int l, int r, int i) const {
        const std::size_t n = static_cast<std::size_t>(L) + 1;
        return tho[(static_cast<std::size_t>(l) * n + r) * n + i];
    }
};

// Slices of npoints points, at most per_slice each: ceil(npoints/per_slice)
// slices of npoints/nslices points, the first npoints mod nslices one longer.
std::vector<int> slice_sizes(long npoints, long per_slice);

struct PotShare;
// The integral worker on the points of one share, with its own work arrays.
void integrate_share(const PotSetup& S, PotShare& share);

}  // namespace kvx::elepot
