// Wall-clock benchmark of kalvex-charges' three models on a molecule of 22
// atoms (N-acetylalanine N-methylamide, RHF/6-31G*, 174 basis functions,
// tests/data/charges/dipeptide.molden): the time of each step, points,
// potential and fit, best of the repeats.
//
//   build/release/bench_charges [repeats] [JOB]
//
// Without JOB the psi4 Molden file is imported into a temporary folder
// first. Progress output of the potential is sent to /dev/null; timings go
// to stderr.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "bench_util.h"
#include "chelp/charges.h"
#include "import/import.h"
#include "moldata/reader.h"

using namespace kvx;

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    std::string job = argc > 2 ? argv[2] : "";
    std::string tmpdir;
    const int saved = dup(1);
    if (!std::freopen("/dev/null", "w", stdout)) return 1;
    if (job.empty()) {
        char tmpl[] = "/tmp/kvx_bench_charges_XXXXXX";
        if (!mkdtemp(tmpl)) return 1;
        tmpdir = tmpl;
        job = tmpdir + "/dipeptide";
        std::string molden = KVX_TEST_DATA "/charges/dipeptide.molden";
        char* args[] = {const_cast<char*>("kalvex-import"), molden.data(), job.data()};
        if (import::run_import(3, args) != 0) return 1;
    }
    auto mol = moldata::build_molecule(job).molecule;
    if (!mol || !mol->density) {
        std::fprintf(stderr, "cannot load the job %s\n", job.c_str());
        return 1;
    }
    const auto atoms = chelp::fit_atoms(*mol);

    std::string report;
    char line[200];
    std::snprintf(line, sizeof line, "job %s: %zu atoms, %d basis functions, best of %d\n", job.c_str(), atoms.size(),
                  mol->nbasis, repeats);
    report += line;
    struct Case {
        const char* name;
        chelp::ChargeModel model;
    } cases[] = {{"CHELPG", chelp::ChargeModel::kChelpg},
                 {"Merz-Kollman", chelp::ChargeModel::kMerzKollman},
                 {"RESP", chelp::ChargeModel::kResp}};
    for (const Case& c : cases) {
        chelp::ChargeSettings s;
        s.model = c.model;
        chelp::AtomRadii radii;
        chelp::PointSet points;
        chelp::FitData data;
        chelp::ChargeFit fit;
        std::string err;
        const double tp = bench::best_of(repeats, [&] { err = chelp::charge_points(atoms, s, radii, points); });
        const double tv = bench::best_of(repeats, [&] { err += chelp::charge_potential(*mol, points, s, data); });
        const double tf = bench::best_of(repeats, [&] { err += chelp::charge_fit(*mol, atoms, data, s, fit); });
        if (!err.empty()) {
            std::fprintf(stderr, "%s: %s\n", c.name, err.c_str());
            return 1;
        }
        std::snprintf(line, sizeof line, "%-13s %7ld points   points %8.4f s   potential %8.3f s   fit %8.4f s\n",
                      c.name, points.count(), tp, tv, tf);
        report += line;
    }
    std::fflush(stdout);
    dup2(saved, 1);
    if (!tmpdir.empty()) std::filesystem::remove_all(tmpdir);
    std::fprintf(stderr, "%s", report.c_str());
    return 0;
}
