// What the potential's set-up prepares and the integral worker only reads:
// the THO coefficient tables, the basis maxima, the points (as lines), the
// thread count and the slice length that fits -memmax.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "elepot/points.h"
#include "grid/grid.h"
#include "moldata/molecule.h"

namespace kvx::elepot {

// One THO term (l, r, i): order nu = l - 2r - i, power of PC l - 2r - 2i.
struct ThoTerm {
    int l, r, i;
};

struct PotSetup {
    int numt = 1;            // threads (work shares), each with its own points
    bool multipoles = true;  // pairs beyond the Boys switch as point multipoles
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
    long per_slice = 0;           // points of one share whose integral blocks fit in memmax / numt
    std::vector<int> slice_size;  // the slices of all points of one share
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

struct FarField;
struct PotWork;
struct PotProgress;

// One work share of the integral worker: its output (indexed by point), the
// molecule's total density, shells and counts, the share index, and the
// contiguous points it integrates with their admission flags (null: all).
struct PotShare {
    double* out = nullptr;
    const moldata::TriMatrix* density = nullptr;
    const moldata::Shell* shells = nullptr;
    int nshell = 0;
    int nbasis = 0;
    int index = 0;
    long first = 0;
    long count = 0;
    const unsigned char* admit = nullptr;
};

// Work arrays of one share, allocated before its thread starts; an
// allocation failure ends the run with the array's message.
// The share's slices (of at most per_slice points) are laid out here too;
// Lmax is the highest multipole order the share will meet.
std::shared_ptr<PotWork> alloc_work(const PotSetup& S, const PotShare& share, int Lmax);

// Progress of all shares as one sequence of " %.0f%%" lines: a pair number
// counts as done once every share has finished it, and a line is printed
// whenever the done pairs' percentage passes the last line's by 10, so the
// lines are those of one share whatever the thread count.
struct PotProgress {
    std::mutex lock;
    std::vector<long> done;  // per share: pairs finished
    long seen = 0;           // pair numbers already tested for a line
    double last = 0.0;
    double npairs = 0.0;
    PotProgress(int nshares, double pairs) : done(static_cast<std::size_t>(nshares), 0), npairs(pairs) {}
    void finished(int share, long pairno);
};

// Primitive-pair evaluations by path, summed over the shares of a run.
struct alignas(64) PotCounts {  // one per thread: a cache line each
    long near = 0;  // through the Boys tables and the kernels
    long far = 0;   // as point multipoles
};

// The electronic part on the points of one share, subtracted into share.out:
// out -= sum_ab D_ab <a|1/|r-C||b>. far holds the multipoles of the pairs
// (empty when S.multipoles is off); progress collects the finished pairs of
// every share.
void integrate_share(const PotSetup& S, const PotShare& share, const FarField& far, PotWork& w, PotProgress& progress,
                     PotCounts& counts);

}  // namespace kvx::elepot
