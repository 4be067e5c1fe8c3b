// kalvex-import on files other programs wrote (tests/data/nwchem,
// tests/data/openmolcas): each file is imported with the kalvex-import
// binary, and kalvex's orbitals and potential are compared with the values
// the writing program printed itself at its own points.
//
// kalvex evaluates basis functions with the displacement atom - point, so its
// orbitals carry odd-l functions negated. The comparison undoes that on the
// written coefficients (a copy of the job whose odd-l coefficients are
// negated), which leaves kalvex's own evaluation of the true orbital.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/command.h"
#include "moldata/orbitals.h"
#include "moldata/reader.h"

namespace fs = std::filesystem;

namespace {

using kvx::test::CommandResult;
using kvx::test::read_file;
using kvx::test::run_command;

struct TempDir {
    fs::path path;
    TempDir() {
        char tmpl[] = "/tmp/kvx_writers_XXXXXX";
        if (mkdtemp(tmpl)) path = tmpl;
    }
    ~TempDir() { fs::remove_all(path); }
};

// '#' comments, one line of column names, rows of numbers.
struct Table {
    std::vector<std::string> names;
    std::vector<std::vector<double>> rows;
};

Table read_table(const std::string& path) {
    Table t;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ls(line);
        if (t.names.empty()) {
            for (std::string w; ls >> w;) t.names.push_back(w);
            continue;
        }
        t.rows.emplace_back();
        for (double v; ls >> v;) t.rows.back().push_back(v);
    }
    return t;
}

// JOB copied to OUT with the coefficients of odd-l functions negated; the
// numbers of alpha and beta orbitals (0, 0 when the job cannot be read).
std::pair<int, int> parity_corrected_copy(const std::string& job, const std::string& out) {
    auto mol = kvx::moldata::build_molecule(job);
    if (!mol || !mol->alpha) return {0, 0};
    for (const char* e : {".control", ".coord", ".basis"}) fs::copy_file(job + e, out + e);
    for (auto* set : {mol->alpha.get(), mol->beta.get()}) {
        if (!set) continue;
        for (const kvx::moldata::Shell& sh : mol->shells) {
            const int l = kvx::moldata::kAngular[sh.type];
            for (int k = 0; k < sh.size * sh.ngc; ++k) {
                const bool odd = sh.type == 3 ? k % 4 != 0 : l % 2 == 1;
                if (!odd) continue;
                for (int o = 0; o < set->count; ++o)
                    set->coef.data[static_cast<std::size_t>(o) * set->coef.cols + sh.nfirst - 1 + k] *= -1;
            }
        }
        if (!kvx::moldata::write_binary_orbitals(out + (set == mol->alpha.get() ? ".mos" : ".mob"), *set)) return {0, 0};
    }
    return {mol->alpha->count, mol->beta ? mol->beta->count : mol->alpha->count};
}

// kalvex in single-point mode: one line per point with its requests; the
// printed values in order.
std::vector<double> kalvex_points(const fs::path& dir, const std::string& job, const std::vector<std::vector<double>>& rows,
                                  const std::vector<std::string>& requests) {
    std::string lines;
    for (const auto& r : rows) {
        char pt[128];
        std::snprintf(pt, sizeof pt, "-px %.12f -py %.12f -pz %.12f", r[0], r[1], r[2]);
        lines += pt;
        for (const auto& q : requests) lines += " " + q;
        lines += "\n";
    }
    std::ofstream(dir / "stdin.txt") << lines << "-end\n";
    const CommandResult k = run_command("cd '" + dir.string() + "' && '" KVX_BINARY "' " + job +
                                        " -point -moacc 1e-12 -thresh 1e-12 < stdin.txt");
    std::vector<double> got;
    std::istringstream out(k.out);
    for (std::string line; std::getline(out, line);) {
        const auto at = line.find("Property: ");
        if (line.rfind("Point:", 0) == 0 && at != std::string::npos) got.push_back(std::stod(line.substr(at + 10)));
    }
    return got;
}

struct Case {
    const char* dir;   // under tests/data
    const char* job;   // JOB.orb and JOB.esp hold the program's values
    const char* file;  // the file imported
    const char* kind;  // expected in the report
};

class WriterImport : public ::testing::TestWithParam<Case> {};

// Orbitals to 2e-6 (kalvex prints six decimals; the programs print ten), the
// sign of each orbital as a whole free; the potential to 1e-4.
TEST_P(WriterImport, OrbitalsAndPotentialMatchTheWriter) {
    const Case c = GetParam();
    const std::string data = std::string(KVX_TEST_DATA "/") + c.dir + "/";
    const Table orb = read_table(data + c.job + ".orb"), esp = read_table(data + c.job + ".esp");
    ASSERT_GE(orb.rows.size(), 20u);
    ASSERT_GE(esp.rows.size(), 20u);
    TempDir dir;
    const CommandResult imp =
        run_command("'" KVX_BIN_DIR "/kalvex-import' '" + data + c.file + "' '" + (dir.path / "job").string() + "'");
    ASSERT_EQ(imp.status, 0) << imp.out;
    EXPECT_NE(imp.out.find(c.kind), std::string::npos) << imp.out;
    const auto [nalpha, nbeta] = parity_corrected_copy((dir.path / "job").string(), (dir.path / "true").string());
    ASSERT_GT(nalpha, 0);

    // AIM files hold the occupied orbitals only: the columns of virtual ones drop out.
    std::vector<std::string> requests;
    std::vector<std::size_t> columns;
    for (std::size_t i = 3; i < orb.names.size(); ++i) {
        const bool beta = orb.names[i][0] == 'b';
        if (std::stoi(orb.names[i].substr(1)) > (beta ? nbeta : nalpha)) continue;
        requests.push_back((beta ? "-mob " : "-moa ") + orb.names[i].substr(1));
        columns.push_back(i);
    }
    ASSERT_GE(requests.size(), 2u);
    const std::vector<double> got = kalvex_points(dir.path, "true", orb.rows, requests);
    ASSERT_EQ(got.size(), orb.rows.size() * requests.size());
    double worst = 0;
    for (std::size_t j = 0; j < requests.size(); ++j) {
        double sign = 1, biggest = 0;
        for (std::size_t p = 0; p < orb.rows.size(); ++p) {
            const double r = orb.rows[p][columns[j]];
            if (std::fabs(r) > biggest) {
                biggest = std::fabs(r);
                sign = got[p * requests.size() + j] * r < 0 ? -1 : 1;
            }
        }
        for (std::size_t p = 0; p < orb.rows.size(); ++p) {
            const double r = orb.rows[p][columns[j]], d = std::fabs(sign * got[p * requests.size() + j] - r);
            worst = std::max(worst, d);
            EXPECT_LE(d, 2e-6) << c.file << " " << requests[j] << " at " << orb.rows[p][0] << " " << orb.rows[p][1]
                               << " " << orb.rows[p][2] << ": " << r;
        }
    }
    const std::vector<double> pot = kalvex_points(dir.path, "job", esp.rows, {"-ep"});
    ASSERT_EQ(pot.size(), esp.rows.size());
    double worst_ep = 0;
    for (std::size_t p = 0; p < esp.rows.size(); ++p) {
        const double d = std::fabs(pot[p] - esp.rows[p][3]);
        worst_ep = std::max(worst_ep, d);
        EXPECT_LE(d, 1e-4) << c.file << " potential at " << esp.rows[p][0] << " " << esp.rows[p][1] << " "
                           << esp.rows[p][2];
    }
    std::printf("%s/%s: largest deviation %.1e (orbitals), %.1e (potential)\n", c.dir, c.file, worst, worst_ep);
}

INSTANTIATE_TEST_SUITE_P(
    Programs, WriterImport,
    ::testing::Values(Case{"nwchem", "water_cart", "water_cart.molden", "restricted"},
                      Case{"nwchem", "water_cart", "water_cart.wfn", "AIM"},
                      Case{"nwchem", "water_cart", "water_cart.wfx", "AIM"},
                      Case{"nwchem", "water_tz", "water_tz.molden", "restricted"},
                      Case{"nwchem", "oh_uhf", "oh_uhf.molden", "(unrestricted)"},
                      Case{"nwchem", "ch2_cart", "ch2_cart.molden", "(unrestricted)"},
                      Case{"nwchem", "ch2_cart", "ch2_cart.wfn", "(unrestricted)"},
                      Case{"nwchem", "ch2_cart", "ch2_cart.wfx", "(unrestricted)"},
                      Case{"nwchem", "oh_rohf", "oh_rohf.molden", "open-shell"},
                      Case{"nwchem", "oh_rohf_cart", "oh_rohf_cart.molden", "open-shell"},
                      Case{"nwchem", "oh_rohf_cart", "oh_rohf_cart.wfn", "open-shell"},
                      Case{"nwchem", "oh_rohf_cart", "oh_rohf_cart.wfx", "open-shell"},
                      Case{"openmolcas", "water_cart", "water_cart.molden", "restricted"},
                      Case{"openmolcas", "water_tz", "water_tz.molden", "restricted"}),
    [](const ::testing::TestParamInfo<Case>& info) {
        std::string n = std::string(info.param.dir) + "_" + info.param.file;
        for (char& ch : n)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return n;
    });

}  // namespace
