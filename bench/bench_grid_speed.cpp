// Orbital and density grids on one core, before and after the block
// evaluator, and the start-up of a 1000-function job, in one run:
//
//   build/release/bench_grid_speed [--old DIR] [--repeats N] [--quick]
//
// 1. The medium job (uracil dimer, 24 atoms, 256 basis functions) on the
//    default box at 0.2 bohr (about 1.1 M points): the density and the
//    highest occupied orbital, evaluation only, by the point-by-point loop
//    the evaluators used before (tests/grid/pointwise_grid.h) and by blocks
//    on one thread, with the largest difference between the two; then, with
//    --old DIR (a folder holding the landed kalvex, e.g. /work/baseline),
//    whole runs of that kalvex and of this build's kalvex (reading, grid,
//    writing the file) with -numt 1.
// 2. Time per point against grid size (30^3 .. 150^3, medium job) and
//    against basis size (water, the medium job, a 500+ function job: the
//    48-atom tests/data/bench/uracil4 when present, else two dimers stacked).
// 3. Start-up of a 1024-function job (four dimers stacked 12.85 bohr apart,
//    written by this program): reading, densities and the overlap matrix, in
//    this process and as whole runs of both kalvex binaries.
//
// Timings are the best of N runs (wall clock; whole runs also report CPU
// time); the load average is printed first and last. Evaluator progress goes
// to /dev/null, the report to standard error.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "bench_util.h"
#include "grid/density.h"
#include "grid/grid.h"
#include "grid/gto.h"
#include "grid/pointwise_grid.h"
#include "grid/property_grid.h"
#include "main/select.h"
#include "moldata/orbitals.h"
#include "moldata/reader.h"

namespace fs = std::filesystem;
using namespace kvx;

namespace {

int g_repeats = 3;

void report(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void report(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
}

struct Job {
    std::unique_ptr<moldata::Molecule> mol;
    std::vector<double> occ;  // occupied alpha orbitals, as the driver's -den
    std::vector<const double*> rows;
    int homo = 0;
};

Job load(const std::string& name) {
    Job j;
    j.mol = moldata::build_molecule(name).molecule;
    if (!j.mol || !j.mol->alpha) {
        report("cannot load %s\n", name.c_str());
        std::exit(1);
    }
    j.occ = *main::select_mos(*j.mol, nullptr, 1, 0);
    for (int i = 0; i < static_cast<int>(j.occ.size()); ++i) {
        j.rows.push_back(j.mol->alpha->coef.row(i));
        if (j.occ[i] != 0.0) j.homo = i + 1;
    }
    return j;
}

// Evaluation only: the density or the highest occupied orbital into pg, by
// blocks (the evaluators as the driver calls them) or point by point.
void evaluate(Job& j, grid::PropertyGrid& pg, bool density, bool blocks) {
    std::fill(pg.values.begin(), pg.values.end(), 0.0);
    const grid::GtoBuilder& b = *grid::gto_builder();
    if (blocks && density)
        grid::fill_density(&pg, j.mol->alpha.get(), j.occ.data(), nullptr, nullptr, "den");
    else if (blocks)
        grid::fill_mo(&pg, j.mol->alpha.get(), std::to_string(j.homo).c_str(), "moa");
    else if (density)
        test::pointwise_density(b, j.rows.data(), static_cast<int>(j.rows.size()), j.occ.data(), pg.values.data());
    else
        test::pointwise_orbital(b, j.rows[static_cast<std::size_t>(j.homo - 1)], pg.values.data());
}

struct Pair {
    double old_s = 0, new_s = 0, max_abs = 0, max_rel = 0;
};

// Old and new on one grid, with the largest differences (relative to the
// largest value of the grid).
Pair old_and_new(Job& j, const grid::Grid& g, bool density, int repeats, bool with_old) {
    auto pg = grid::property_grid_create(&g);
    grid::gto_setup(j.mol.get(), &g, 1e-6, 1);
    Pair r;
    r.new_s = bench::best_of(repeats, [&] { evaluate(j, *pg, density, true); });
    if (with_old) {
        const std::vector<double> fast = pg->values;
        r.old_s = bench::best_of(std::max(1, repeats / 2), [&] { evaluate(j, *pg, density, false); });
        double big = 0.0;
        for (std::size_t p = 0; p < fast.size(); ++p) {
            r.max_abs = std::max(r.max_abs, std::fabs(fast[p] - pg->values[p]));
            big = std::max(big, std::fabs(pg->values[p]));
        }
        r.max_rel = big > 0 ? r.max_abs / big : 0.0;
    }
    grid::gto_free();
    return r;
}

// A whole kalvex run in a scratch folder: wall and CPU seconds (children's
// user + system), best of the repeats.
std::pair<double, double> whole_run(const std::string& kalvex, const std::string& dir, const std::string& args,
                                    int repeats) {
    double wall = 1e300, cpu = 1e300;
    for (int r = 0; r < repeats; ++r) {
        struct rusage before, after;
        getrusage(RUSAGE_CHILDREN, &before);
        const auto t0 = std::chrono::steady_clock::now();
        const std::string cmd = "cd '" + dir + "' && '" + kalvex + "' " + args + " </dev/null >/dev/null 2>&1";
        if (std::system(cmd.c_str()) != 0) report("  (%s failed)\n", cmd.c_str());
        const double w = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        getrusage(RUSAGE_CHILDREN, &after);
        auto secs = [](const timeval& t) { return t.tv_sec + 1e-6 * t.tv_usec; };
        const double c = secs(after.ru_utime) - secs(before.ru_utime) + secs(after.ru_stime) - secs(before.ru_stime);
        wall = std::min(wall, w);
        cpu = std::min(cpu, c);
    }
    return {wall, cpu};
}

std::string self_dir() { return fs::read_symlink("/proc/self/exe").parent_path().string(); }

}  // namespace

int main(int argc, char** argv) {
    std::string old_dir;
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--old") && i + 1 < argc)
            old_dir = argv[++i];
        else if (!std::strcmp(argv[i], "--repeats") && i + 1 < argc)
            g_repeats = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--quick"))
            quick = true;
    }
    const std::string new_kalvex = self_dir() + "/kalvex";
    const std::string old_kalvex = old_dir.empty() ? "" : old_dir + "/kalvex";
    char tmpl[] = "/tmp/kvx_bench_XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const std::string scratch = tmpl;
    const int saved = dup(1);
    if (!std::freopen("/dev/null", "w", stdout)) return 1;

    report("load average at start: %s\n", bench::load_average().c_str());
    const std::string medium = KVX_TEST_DATA "/bench/uracil2/uracil2";
    Job j = load(medium);

    // 1. The medium job at 0.2 bohr.
    {
        auto g = bench::default_box(*j.mol, 0, 0.2);
        report(
            "\n1. Medium job (%zu atoms, %d basis functions), default box at 0.2 bohr: %d x %d x %d = %u points, "
            "one core\n",
            j.mol->atoms.size(), j.mol->nbasis, g->counts[0], g->counts[1], g->counts[2], g->total);
        report("   %-28s %12s %12s %9s %14s\n", "evaluation only", "before (s)", "after (s)", "speed-up",
               "largest diff");
        for (bool density : {true, false}) {
            const Pair r = old_and_new(j, *g, density, g_repeats, true);
            const std::string what = density ? "density" : "orbital " + std::to_string(j.homo) + " (HOMO)";
            report("   %-28s %12.3f %12.3f %8.1fx %9.1e abs, %.1e of the largest value\n", what.c_str(), r.old_s,
                   r.new_s, r.old_s / r.new_s, r.max_abs, r.max_rel);
        }
        if (!old_kalvex.empty()) {
            const std::string words = " -numt 1 -force 1 ";
            const std::string at02 = "-xp 0 -yp 0 -zp 0 -xr 0.2 -yr 0.2 -zr 0.2 ";
            const std::string homo = "-moa " + std::to_string(j.homo);
            report("   %-28s %12s %12s %9s   (CPU s before / after; files)\n", "whole kalvex run", "before (s)",
                   "after (s)", "speed-up");
            const std::pair<std::string, std::string> runs[] = {
                {"-den, 0.2 bohr", at02 + "-den"},
                {homo + ", 0.2 bohr", at02 + homo},
                {homo + ", 100^3", "-xp 100 -yp 100 -zp 100 " + homo},
            };
            for (const auto& [label, req] : runs) {
                // Each binary in its own folder, so the files can be compared.
                std::string text[2];
                double wall[2], cpu[2];
                for (int k = 0; k < 2; ++k) {
                    const std::string dir = scratch + (k == 0 ? "/old" : "/new");
                    fs::remove_all(dir);
                    fs::create_directory(dir);
                    std::tie(wall[k], cpu[k]) =
                        whole_run(k == 0 ? old_kalvex : new_kalvex, dir, medium + words + req, g_repeats);
                    for (const auto& e : fs::directory_iterator(dir)) text[k] += bench::slurp(e.path().string());
                }
                report("   %-28s %12.3f %12.3f %8.1fx   (%.3f / %.3f; %s)\n", label.c_str(), wall[0], wall[1],
                       wall[0] / wall[1], cpu[0], cpu[1],
                       text[0].empty()      ? "none written"
                       : text[0] == text[1] ? "same bytes"
                                            : "FILES DIFFER");
            }
        }
    }

    // 2. Time per point.
    report("\n2. Time per point, one core (ns; before = the point-by-point loop)\n");
    report("   %-30s %10s %10s %10s %10s\n", "grid, medium job", "den after", "mo after", "den before", "mo before");
    for (int n : {30, 60, 90, 120, 150}) {
        if (quick && n > 60) break;
        auto g = bench::default_box(*j.mol, n, 0.5);
        const bool old_too = n <= 60;
        const Pair d = old_and_new(j, *g, true, g_repeats, old_too);
        const Pair m = old_and_new(j, *g, false, g_repeats, old_too);
        const double per = 1e9 / g->total;
        char label[64];
        std::snprintf(label, sizeof label, "%d^3 (%u points)", n, g->total);
        if (old_too)
            report("   %-30s %10.0f %10.0f %10.0f %10.0f\n", label, d.new_s * per, m.new_s * per, d.old_s * per,
                   m.old_s * per);
        else
            report("   %-30s %10.0f %10.0f %10s %10s\n", label, d.new_s * per, m.new_s * per, "-", "-");
    }
    std::string large = KVX_TEST_DATA "/bench/uracil4/uracil4";
    if (!fs::exists(large + ".mos")) large = bench::stacked_job(scratch, 2, 12.85);
    report("   %-30s %10s %10s %10s %10s\n", "job, 60^3", "den after", "mo after", "den before", "mo before");
    for (const std::string& name : {std::string(KVX_TEST_DATA "/water/water"), medium, large}) {
        Job k = load(name);
        auto g = bench::default_box(*k.mol, 60, 0.5);
        const Pair d = old_and_new(k, *g, true, g_repeats, true);
        const Pair m = old_and_new(k, *g, false, g_repeats, true);
        const double per = 1e9 / g->total;
        char label[96];
        std::snprintf(label, sizeof label, "%s (%zu atoms, %d bf)", fs::path(name).filename().c_str(),
                      k.mol->atoms.size(), k.mol->nbasis);
        report("   %-30s %10.0f %10.0f %10.0f %10.0f\n", label, d.new_s * per, m.new_s * per, d.old_s * per,
               m.old_s * per);
    }

    // 3. Start-up.
    const std::string big = bench::stacked_job(scratch, 4, 12.85);
    std::size_t nbasis = 0;
    const double t = bench::best_of(g_repeats, [&] {
        auto load = moldata::build_molecule(big);
        nbasis = load.molecule ? load.molecule->nbasis : 0;
    });
    report("\n3. Start-up, %zu basis functions (reading, densities, overlap matrix)\n", nbasis);
    report("   in this process: %.3f s\n", t);
    for (const auto& [label, exe] :
         {std::pair{"whole run, before", old_kalvex}, std::pair{"whole run, after", new_kalvex}}) {
        if (exe.empty()) continue;
        const auto [w, c] = whole_run(exe, scratch, big + " -end", g_repeats);
        report("   %-18s %.3f s wall, %.3f s CPU\n", label, w, c);
    }

    report("\nload average at end: %s\n", bench::load_average().c_str());
    std::fflush(stdout);
    dup2(saved, 1);
    fs::remove_all(scratch);
    return 0;
}
