// Wall-clock benchmark of the potential on the medium job (stacked uracil
// dimer, RHF/6-31G*, 24 atoms, 256 basis functions) on one core, on the
// default box (the atoms' box widened by 5.7 bohr each way) at 30^3 and,
// when asked, 100^3 points: the multipole path on (as run) and off (every
// unscreened primitive pair through the Boys tables and the kernels), with
// the share of primitive-pair evaluations that took each path.
//
//   build/release/bench_potential [repeats [largest n]]   (defaults 3, 30)
//
// Progress output is sent to /dev/null; timings go to stderr.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_util.h"
#include "elepot/elepot.h"
#include "grid/grid.h"
#include "moldata/reader.h"

using namespace kvx;

namespace {

}  // namespace

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const int largest = argc > 2 ? std::atoi(argv[2]) : 30;
    auto mol = moldata::build_molecule(KVX_TEST_DATA "/bench/uracil2/uracil2").molecule;
    if (!mol) {
        std::fprintf(stderr, "cannot load the uracil2 job\n");
        return 1;
    }
    const int saved = dup(1);
    if (!std::freopen("/dev/null", "w", stdout)) return 1;

    std::string report;
    for (const int n : {30, 100}) {
        if (n > largest) break;
        auto g = bench::default_box(*mol, n);
        std::vector<double> out(g->total), with_multipoles;
        double times[2] = {0.0, 0.0};
        elepot::PotPathCounts counts{};
        for (const bool multipoles : {true, false}) {
            elepot::elepot_init(mol.get(), g.get(), 400.0, 1e-6, 1);
            elepot::elepot_use_multipoles(multipoles);
            double best = 1e300;
            // The kernel-only path at 100^3 takes minutes: once is enough.
            const int reps = n > 30 && !multipoles ? 1 : repeats;
            for (int r = 0; r < reps; ++r) {
                const auto t0 = std::chrono::steady_clock::now();
                elepot::comp_elepot(out.data(), mol.get(), nullptr);
                best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
            }
            times[multipoles ? 0 : 1] = best;
            if (multipoles) counts = elepot::elepot_path_counts(), with_multipoles = out;
            elepot::elepot_cleanup();
        }
        // The kernel-only path is the potential as it was before the multipoles.
        double diff = 0.0;
        for (std::size_t k = 0; k < out.size(); ++k) diff = std::max(diff, std::fabs(out[k] - with_multipoles[k]));
        const double all = static_cast<double>(counts.kernels + counts.multipoles);
        char line[320];
        std::snprintf(line, sizeof line,
                      "potential %d^3 (%u points): multipoles %.3f s (%.1f us/point), kernels only %.3f s, "
                      "ratio %.1f; evaluations %.4g: %.1f%% multipoles, %.1f%% kernels; largest difference %.1e\n",
                      n, g->total, times[0], times[0] / g->total * 1e6, times[1], times[1] / times[0], all,
                      100.0 * counts.multipoles / all, 100.0 * counts.kernels / all, diff);
        report += line;
    }
    std::fflush(stdout);
    dup2(saved, 1);
    std::fprintf(stderr, "%s", report.c_str());
    return 0;
}
