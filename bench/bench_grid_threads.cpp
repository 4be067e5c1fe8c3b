// Orbital and density grids on one thread and on every core: the medium job
// (uracil dimer, 24 atoms, 256 basis functions) on a 60^3 grid over the
// default box, the density (-den) and the highest occupied orbital.
//
//   build/release/bench_grid_threads [repeats] [points per axis] [-ep repeats]
//
// Prints, for -den, the HOMO and -ep, the best of N wall-clock times (N/3
// for -ep unless given; 0 leaves -ep out) with -numt 1 and -numt 0 (one thread
// per core) and the speed-up, with the load average before and after, and
// the CPU time of the process in those best runs: on a shared machine other
// work takes cores too, and threads that got a core each show a wall time
// near half their CPU time. Measure at a quiet moment.
// Evaluator progress goes to /dev/null, the report to standard error.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_util.h"
#include "elepot/elepot.h"
#include "grid/density.h"
#include "grid/grid.h"
#include "grid/gto.h"
#include "grid/property_grid.h"
#include "main/select.h"
#include "moldata/reader.h"

using namespace kvx;

namespace {

double cpu_seconds() {
    struct rusage u;
    getrusage(RUSAGE_SELF, &u);
    auto secs = [](const timeval& t) { return t.tv_sec + 1e-6 * t.tv_usec; };
    return secs(u.ru_utime) + secs(u.ru_stime);
}

// Best wall time of the repeats, and the CPU time of that run.
std::pair<double, double> best_of(int repeats, const std::function<void()>& f) {
    double best = 1e300, cpu = 0.0;
    for (int r = 0; r < repeats; ++r) {
        const double c0 = cpu_seconds();
        const auto t0 = std::chrono::steady_clock::now();
        f();
        const double w = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (w < best) best = w, cpu = cpu_seconds() - c0;
    }
    return {best, cpu};
}

}  // namespace

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const int n = argc > 2 ? std::clamp(std::atoi(argv[2]), 2, 400) : 60;
    const int ep_repeats = argc > 3 ? std::max(0, std::atoi(argv[3])) : std::max(1, repeats / 3);
    auto mol = moldata::build_molecule(KVX_TEST_DATA "/bench/uracil2/uracil2").molecule;
    if (!mol) {
        std::fprintf(stderr, "cannot load the uracil dimer job\n");
        return 1;
    }
    const int saved = dup(1);
    if (!std::freopen("/dev/null", "w", stdout)) return 1;
    std::fprintf(stderr, "load average before: %s\n", bench::load_average().c_str());

    auto occ = main::select_mos(*mol, nullptr, 1, 0);
    int homo = 0;
    for (int i = 0; i < static_cast<int>(occ->size()); ++i)
        if ((*occ)[i] != 0.0) homo = i + 1;
    const std::string orbital = std::to_string(homo);
    auto g = bench::default_box(*mol, n);
    auto pg = grid::property_grid_create(g.get());
    const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    std::fprintf(stderr, "uracil dimer (%d basis functions), %d^3 = %u points, %d cores, best of %d\n", mol->nbasis, n,
                 g->total, cores, repeats);
    std::fprintf(stderr, "%-22s %12s %12s %9s   %s\n", "", "-numt 1 (s)", "-numt 0 (s)", "speed-up",
                 "(CPU s: -numt 1 / -numt 0)");
    for (int kind = 0; kind < 2; ++kind) {
        std::pair<double, double> t[2];
        std::vector<double> values[2];
        // The two thread counts take turns, so that a change in the machine's
        // load or clock during the runs weighs on both alike.
        t[0] = t[1] = {1e300, 0.0};
        for (int r = 0; r < repeats; ++r)
            for (int k = 0; k < 2; ++k) {
                grid::gto_setup(mol.get(), g.get(), 1e-6, k == 0 ? 1 : 0);
                const auto one = best_of(1, [&] {
                    if (kind == 0)
                        grid::fill_density(pg.get(), mol->alpha.get(), occ->data(), nullptr, nullptr, "den");
                    else
                        grid::fill_mo(pg.get(), mol->alpha.get(), orbital.c_str(), "moa");
                });
                if (one.first < t[k].first) t[k] = one;
                values[k] = pg->values;
                grid::gto_free();
            }
        const std::string what = kind == 0 ? "-den" : "-moa " + orbital;
        std::fprintf(stderr, "%-22s %12.4f %12.4f %8.2fx   (%.4f / %.4f)%s\n", what.c_str(), t[0].first, t[1].first,
                     t[0].first / t[1].first, t[0].second, t[1].second,
                     values[0] == values[1] ? "" : "  (values differ!)");
    }
    if (ep_repeats > 0) {
        // The potential takes seconds: by default a third of the repeats, at least one.
        std::pair<double, double> t[2] = {{1e300, 0.0}, {1e300, 0.0}};
        std::vector<double> values[2];
        std::vector<double> out(g->total);
        for (int r = 0; r < ep_repeats; ++r)
            for (int k = 0; k < 2; ++k) {
                elepot::elepot_init(mol.get(), g.get(), 400.0, 1e-6, k == 0 ? 1 : 0);
                const auto one = best_of(1, [&] { elepot::comp_elepot(out.data(), mol.get(), nullptr); });
                if (one.first < t[k].first) t[k] = one;
                values[k] = out;
                elepot::elepot_cleanup();
            }
        std::fprintf(stderr, "%-22s %12.4f %12.4f %8.2fx   (%.4f / %.4f)%s\n", "-ep", t[0].first, t[1].first,
                     t[0].first / t[1].first, t[0].second, t[1].second,
                     values[0] == values[1] ? "" : "  (values differ!)");
    }
    std::fprintf(stderr, "load average after: %s\n", bench::load_average().c_str());
    std::fflush(stdout);
    dup2(saved, 1);
    return 0;
}
