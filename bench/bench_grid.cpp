// Wall-clock benchmark of the grid evaluators and the potential on the water
// job (RHF/6-31G*, 19 basis functions): a 30^3 density, a 30^3 orbital, a
// 60^3 density, and the potential on 30^3 and 60^3 grids.
//
//   build/release/bench_grid [repeats]
//
// Progress output of the evaluators is sent to /dev/null; timings go to stderr.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "bench_util.h"
#include "elepot/elepot.h"
#include "grid/density.h"
#include "grid/grid.h"
#include "grid/gto.h"
#include "grid/property_grid.h"
#include "main/select.h"
#include "moldata/reader.h"

using namespace kvx;

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    auto mol = moldata::build_molecule(KVX_TEST_DATA "/water/water").molecule;
    if (!mol) {
        std::fprintf(stderr, "cannot load the water job\n");
        return 1;
    }
    const int saved = dup(1);
    if (!std::freopen("/dev/null", "w", stdout)) return 1;

    auto occ = main::select_mos(*mol, nullptr, 1, 0);
    struct Case {
        const char* name;
        int n;
        int kind;  // 0 density, 1 orbital, 2 potential
    } cases[] = {{"density 30^3", 30, 0}, {"orbital 5, 30^3", 30, 1}, {"density 60^3", 60, 0},
                 {"potential 30^3", 30, 2}, {"potential 60^3", 60, 2}};
    std::string report;
    for (const Case& c : cases) {
        auto g = bench::default_box(*mol, c.n);
        auto pg = grid::property_grid_create(g.get());
        double t = 0;
        if (c.kind < 2) {
            grid::gto_setup(mol.get(), g.get(), 1e-6, 1);
            t = bench::best_of(repeats, [&] {
                if (c.kind == 0)
                    grid::fill_density(pg.get(), mol->alpha.get(), occ->data(), nullptr, nullptr, "den");
                else
                    grid::fill_mo(pg.get(), mol->alpha.get(), "5", "moa");
            });
            grid::gto_free();
        } else {
            elepot::elepot_init(mol.get(), g.get(), 400.0, 1e-6, 1);
            t = bench::best_of(repeats, [&] {
                std::fill(pg->values.begin(), pg->values.end(), 0.0);
                elepot::comp_elepot(pg->values.data(), mol.get());
            });
            elepot::elepot_cleanup();
        }
        char line[160];
        std::snprintf(line, sizeof line, "%-18s %9.3f s  (%u points, best of %d)\n", c.name, t, g->total, repeats);
        report += line;
    }
    std::fflush(stdout);
    dup2(saved, 1);
    std::fprintf(stderr, "%s", report.c_str());
    return 0;
}
