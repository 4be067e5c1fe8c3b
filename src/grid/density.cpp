#include "grid/density.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <new>

#include "common/fatal.h"
#include "common/parallel.h"
#include "grid/gto.h"

namespace kvx::grid {

using common::abort_flag;
using common::alloc_or_die;
using common::fatalf;

namespace {

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

// The progress lines of a pass: " %.0f%%" with pct = p step + base at the
// first point p (storage order) where pct >= last + 10, last starting at
// base. A line is printed once that many points are done, whichever threads
// did them, so the lines are those of one thread running the points in order.
class Progress {
public:
    Progress(long total, double step, double base) {
        double last = base;
        long p = 0;
        for (;;) {
            // pct grows with p: the first p reaching last + 10, by bisection.
            long lo = p, hi = total;
            while (lo < hi) {
                const long mid = lo + (hi - lo) / 2;
                if (static_cast<double>(static_cast<int>(mid)) * step + base >= last + 10.0)
                    hi = mid;
                else
                    lo = mid + 1;
            }
            if (lo >= total) break;
            last = static_cast<double>(static_cast<int>(lo)) * step + base;
            lines_.push_back({lo + 1, last});
            p = lo + 1;
        }
    }

    // Counts n more points done and prints the lines they complete.
    void advance(long n) {
        const long done = done_.fetch_add(n) + n;
        if (next_line_.load() >= lines_.size() || done < lines_[next_line_.load()].points) return;
        std::lock_guard<std::mutex> lock(print_);
        std::size_t k = next_line_.load();
        for (; k < lines_.size() && done_.load() >= lines_[k].points; ++k) progress_line(lines_[k].pct);
        next_line_.store(k);
    }

private:
    struct Line {
        long points;  // points done when the line is due
        double pct;
    };
    std::vector<Line> lines_;
    // Written by every thread: a cache line of its own.
    alignas(64) std::atomic<long> done_{0};
    std::atomic<std::size_t> next_line_{0};
    std::mutex print_;
};

// Shells of a type the factors do not cover end the run before any thread
// starts, with comp_cterm's message.
void check_shell_types(const RangeTable& rt) {
    for (const auto& list : rt.atshpt)
        for (const moldata::Shell* sh : list)
            if (sh->type <= 0 || sh->type > 12)
                fatalf("Gto comp_cterm: Gaussian type %d not yet implemented\n", sh->type);
}

// Runs block(layout, point block, work) over every block of the grid on
// gto_threads() threads. Threads take the next block in turn, so a slow
// region of the grid is shared out; which thread takes which block changes
// no value, since each point's sum is formed within its block. The calling
// thread's scratch is allocated before the threads start (its failure ends
// the run with the evaluator's message); every other thread allocates and
// fills its own, on its own cache and heap arena (measured: 2-4% of a
// two-thread density), and one that cannot leaves its blocks to the others.
// Blocks a thread takes at a time: neighbouring lines, whose per-axis
// factors the block scratch keeps from one line to the next.
constexpr long kBlocksPerTake = 64;

template <class Block>
void run_blocks(const GtoBuilder& b, const char* nomem, double step, double base, Block&& block) {
    check_shell_types(*b.ranges);
    const BlockLayout layout = block_layout(*b.grid);
    const int nthreads = static_cast<int>(std::min<long>(std::max(gto_threads(), 1), std::max(layout.nblocks, 1L)));
    std::vector<BlockWork> works;
    alloc_or_die(nomem, [&] {
        works.resize(nthreads);
        size_block_work(works[0], b);
    });
    Progress progress(static_cast<long>(b.grid->total), step, base);
    alignas(64) std::atomic<long> next{0};
    common::run_shares(nthreads, [&](int share) {
        BlockWork& w = works[share];
        if (share > 0) {
            try {
                size_block_work(w, b);
            } catch (const std::bad_alloc&) {
                return;
            }
        }
        for (;;) {
            const long k0 = next.fetch_add(kBlocksPerTake);
            if (k0 >= layout.nblocks) break;
            const long k1 = std::min(k0 + kBlocksPerTake, layout.nblocks);
            long done = 0;
            for (long k = k0; k < k1 && !abort_flag; ++k) {
                const PointBlock blk = point_block(layout, k);
                block(layout, blk, w);
                done += blk.npts;
            }
            progress.advance(done);
            if (abort_flag) break;
        }
    });
}

}  // namespace

void compute_mogrid(const MoRequest& req) {
    const GtoBuilder* b = gto_builder();
    if (!b || !req.out || !req.cmo) return;
    const RangeTable& rt = *b->ranges;
    const double one = 1.0;
    OrbitalTerms terms;
    terms.coef = req.cmo[0];
    terms.maxcmo = comp_maxcmo(req.cmo, rt.nshat, rt.atshpt, rt.natoms, 1, &one);
    run_blocks(*b, "Density compute_mogrid: cannot allocate memory", 100.0 / b->grid->total, 0.0,
               [&](const BlockLayout& layout, const PointBlock& blk, BlockWork& w) {
                   orbital_block(*b, terms, layout, blk, w, req.out);
               });
}

namespace {

// Per shell, its packed block of P = sum_i occ_i C_i C_i^T when that is
// cheaper per point than the orbitals one by one (n(n+1)/2 terms against
// about n + 2 per orbital); otherwise none.
void pack_density(const DenRequest& req, const RangeTable& rt, DensityTerms& t) {
    int nocc = 0;
    for (int i = 0; i < req.norb; ++i) nocc += req.occ[i] != 0.0;
    t.packed.resize(rt.natoms);
    for (int a = 0; a < rt.natoms; ++a) {
        t.packed[a].resize(rt.nshat[a]);
        for (int s = 0; s < rt.nshat[a]; ++s) {
            const moldata::Shell& sh = *rt.atshpt[a][s];
            const long nf = shell_functions(sh);
            if (nf * (nf + 1) / 2 > nocc * (nf + 2)) continue;
            std::vector<double>& row = t.packed[a][s];
            row.reserve(static_cast<std::size_t>(nf * (nf + 1) / 2));
            const int base = sh.nfirst - 1;
            for (int m = 0; m < nf; ++m)
                for (int k = m; k < nf; ++k) {
                    double p = 0.0;
                    for (int i = 0; i < req.norb; ++i)
                        if (req.occ[i] != 0.0) p += req.occ[i] * req.cmo[i][base + m] * req.cmo[i][base + k];
                    row.push_back(k == m ? p : 2.0 * p);
                }
        }
    }
}

}  // namespace

void compute_dengrid(const DenRequest& req) {
    const GtoBuilder* b = gto_builder();
    if (!b || !req.out || (req.norb > 0 && (!req.cmo || !req.occ))) return;
    const RangeTable& rt = *b->ranges;
    const char* nomem = "Density compute_dengrid: cannot allocate memory";
    DensityTerms terms;
    terms.cmo = req.cmo;
    terms.norb = req.norb;
    terms.occ = req.occ;
    terms.maxcmo = comp_maxcmo(req.cmo, rt.nshat, rt.atshpt, rt.natoms, req.norb, req.occ);
    alloc_or_die(nomem, [&] { pack_density(req, rt, terms); });
    run_blocks(*b, nomem, 100.0 / (b->grid->total * req.passes), req.base,
               [&](const BlockLayout& layout, const PointBlock& blk, BlockWork& w) {
                   density_block(*b, terms, layout, blk, w, req.out);
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
