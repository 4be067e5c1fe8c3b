// Wall-clock benchmark of the potential on one core: the medium job (stacked
// uracil dimer, RHF/6-31G*, 24 atoms, 256 basis functions) and, when asked,
// a 512-function job (two dimers stacked 12.85 bohr apart), on the default
// box (the atoms' box widened by 5.7 bohr each way) at 30^3 and, when asked,
// 100^3 points, at every point (-ep) and at the points -chelp admits. Each
// case runs with the multipole path on (as run) and off (every unscreened
// primitive pair through the Boys tables and the kernels, the potential as
// it was before the multipoles), with the share of primitive-pair
// evaluations that took each path and the largest difference between them.
//
//   build/release/bench_potential [repeats [largest n [large]]]   (defaults 3, 30, 0)
//
// large = 1 adds the 512-function job (made in a temporary folder), a folder
// name adds it made there and kept (for timing kalvex itself on it); its
// kernel-only path at 100^3 (about ten minutes) is left out. Progress output is sent to /dev/null; timings
// go to stderr.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_util.h"
#include "chelp/chelp.h"
#include "elepot/elepot.h"
#include "grid/grid.h"
#include "moldata/reader.h"

using namespace kvx;

namespace {

struct Run {
    double seconds = 0.0;
    elepot::PotPathCounts counts{};
    std::vector<double> out;
};

Run time_potential(const moldata::Molecule& mol, const grid::Grid& g, const unsigned char* admit, bool multipoles,
                   int repeats) {
    Run r;
    r.out.assign(g.total, 0.0);
    elepot::elepot_init(&mol, &g, 400.0, 1e-6, 1);
    elepot::elepot_use_multipoles(multipoles);
    r.seconds = bench::best_of(repeats, [&] { elepot::comp_elepot(r.out.data(), &mol, admit); });
    r.counts = elepot::elepot_path_counts();
    elepot::elepot_cleanup();
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const int largest = argc > 2 ? std::atoi(argv[2]) : 30;
    const std::string large = argc > 3 ? argv[3] : "0";
    std::vector<std::string> jobs = {KVX_TEST_DATA "/bench/uracil2/uracil2"};
    std::string scratch;  // removed at the end
    if (std::filesystem::is_directory(large)) {
        jobs.push_back(bench::stacked_job(large, 2, 12.85));
    } else if (std::atoi(large.c_str()) != 0) {
        char tmpl[] = "/tmp/kvx_bench_potential.XXXXXX";
        if (!mkdtemp(tmpl)) return 1;
        scratch = tmpl;
        jobs.push_back(bench::stacked_job(scratch, 2, 12.85));
    }
    const int saved = dup(1);
    if (!std::freopen("/dev/null", "w", stdout)) return 1;

    std::string report;
    for (const std::string& job : jobs) {
        auto mol = moldata::build_molecule(job).molecule;
        if (!mol) {
            std::fprintf(stderr, "cannot load %s\n", job.c_str());
            return 1;
        }
        char head[160];
        std::snprintf(head, sizeof head, "%s: %zu atoms, %d basis functions\n",
                      std::filesystem::path(job).filename().c_str(), mol->atoms.size(), mol->nbasis);
        report += head;
        for (const int n : {30, 100}) {
            if (n > largest) break;
            auto g = bench::default_box(*mol, n);
            chelp::chelp_setup(mol.get(), 1e-6);
            const std::vector<unsigned char> mask = chelp::chelp_point_mask(g.get());
            chelp::chelp_release();
            long admitted = 0;
            for (unsigned char m : mask) admitted += m != 0;
            for (const bool chelp_points : {false, true}) {
                const unsigned char* admit = chelp_points ? mask.data() : nullptr;
                const Run with = time_potential(*mol, *g, admit, true, repeats);
                // The kernel-only path at 100^3 takes minutes: once is enough.
                const bool before = !(n > 30 && job != jobs.front());
                const Run without = before ? time_potential(*mol, *g, admit, false, n > 30 ? 1 : repeats) : Run{};
                double diff = 0.0;
                if (before)
                    for (std::size_t k = 0; k < with.out.size(); ++k)
                        if (!admit || admit[k]) diff = std::max(diff, std::fabs(with.out[k] - without.out[k]));
                const double all = static_cast<double>(with.counts.kernels + with.counts.multipoles);
                const long points = chelp_points ? admitted : static_cast<long>(g->total);
                char line[400];
                std::snprintf(line, sizeof line,
                              "  %-6s %3d^3 (%7ld points): multipoles %8.3f s (%5.1f us/point), kernels only %8.3f "
                              "s, ratio %5.1f; evaluations %.4g: %.1f%% multipoles, %.1f%% kernels; largest "
                              "difference %.1e\n",
                              chelp_points ? "-chelp" : "-ep", n, points, with.seconds, with.seconds / points * 1e6,
                              without.seconds, before ? without.seconds / with.seconds : 0.0, all,
                              100.0 * with.counts.multipoles / all, 100.0 * with.counts.kernels / all, diff);
                report += line;
            }
        }
    }
    std::fflush(stdout);
    dup2(saved, 1);
    std::fprintf(stderr, "%s", report.c_str());
    if (!scratch.empty()) std::filesystem::remove_all(scratch);
    return 0;
}
