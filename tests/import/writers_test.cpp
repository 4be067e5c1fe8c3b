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

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/command.h"
#include "common/reference_table.h"
#include "common/temp_dir.h"
#include "moldata/orbitals.h"
#include "moldata/reader.h"

namespace fs = std::filesystem;

namespace {

using kvx::test::CommandResult;
using kvx::test::read_file;
using kvx::test::read_reference_table;
using kvx::test::ReferenceTable;
using kvx::test::run_command;
using kvx::test::TempDir;

// JOB copied to OUT with the coefficients of odd-l functions negated; the
// numbers of alpha and beta orbitals (0, 0 when the job cannot be read).
std::pair<int, int> parity_corrected_copy(const std::string& job, const std::string& out) {
    auto mol = kvx::moldata::build_molecule(job).molecule;
    if (!mol || !mol->alpha) return {0, 0};
    for (const char* e : {".control", ".coord", ".basis"}) fs::copy_file(job + e, out + e);
    for (auto* set : {mol->alpha.get(), mol->beta.get()}) {
        if (!set) continue;
        for (const kvx::moldata::Shell& sh : mol->shells) {
            const int l = kvx::gauss::kAngular[sh.type];
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

void PrintTo(const Case& c, std::ostream* os) { *os << c.dir << "/" << c.file; }

class WriterImport : public ::testing::TestWithParam<Case> {};

// Orbitals to 2e-6 (kalvex prints six decimals; the programs print ten), the
// sign of each orbital as a whole free; the potential to 1e-4.
TEST_P(WriterImport, OrbitalsAndPotentialMatchTheWriter) {
    const Case c = GetParam();
    const std::string data = std::string(KVX_TEST_DATA "/") + c.dir + "/";
    const ReferenceTable orb = read_reference_table(data + c.job + ".orb"),
                         esp = read_reference_table(data + c.job + ".esp");
    ASSERT_GE(orb.rows.size(), 20u);
    ASSERT_GE(esp.rows.size(), 20u);
    TempDir dir;
    const CommandResult imp =
        run_command("'" KVX_BIN_DIR "/kalvex-import' '" + data + c.file + "' '" + (dir.path() / "job").string() + "'");
    ASSERT_EQ(imp.status, 0) << imp.out;
    EXPECT_NE(imp.out.find(c.kind), std::string::npos) << imp.out;
    const auto [nalpha, nbeta] = parity_corrected_copy((dir.path() / "job").string(), (dir.path() / "true").string());
    ASSERT_GT(nalpha, 0);

    // AIM files hold the occupied orbitals only: the columns of virtual ones drop out.
    std::vector<std::string> requests;
    std::vector<std::size_t> columns;
    for (std::size_t i = 3; i < orb.columns.size(); ++i) {
        const bool beta = orb.columns[i][0] == 'b';
        if (std::stoi(orb.columns[i].substr(1)) > (beta ? nbeta : nalpha)) continue;
        requests.push_back((beta ? "-mob " : "-moa ") + orb.columns[i].substr(1));
        columns.push_back(i);
    }
    ASSERT_GE(requests.size(), 2u);
    const std::vector<double> got = kalvex_points(dir.path(), "true", orb.rows, requests);
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
    const std::vector<double> pot = kalvex_points(dir.path(), "job", esp.rows, {"-ep"});
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
                      Case{"nwchem", "hi_ecp", "hi_ecp.molden", "valence charges (I 25)"},
                      Case{"openmolcas", "water_cart", "water_cart.molden", "restricted"},
                      Case{"openmolcas", "water_tz", "water_tz.molden", "restricted"},
                      Case{"openmolcas", "oh_uhf", "oh_uhf.molden", "(unrestricted)"}),
    [](const ::testing::TestParamInfo<Case>& info) {
        std::string n = std::string(info.param.dir) + "_" + info.param.file;
        for (char& ch : n)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return n;
    });

}  // namespace

namespace {

// Every file below the folder with its contents.
std::map<std::string, std::string> snapshot(const fs::path& dir) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(dir)) out[e.path().lexically_relative(dir).string()] = read_file(e.path());
    return out;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

CommandResult import_into(const fs::path& dir, const std::string& name, const std::string& text) {
    std::ofstream(dir / name, std::ios::binary) << text;
    return run_command("'" KVX_BIN_DIR "/kalvex-import' '" + (dir / name).string() + "' '" + (dir / "job").string() + "'");
}

// Damaged and hostile files of the new formats and dialects: status 1, one
// line naming the file (and the line where one is to blame), nothing written.
TEST(WriterImport, DamagedFilesAreRefusedWhole) {
    const std::string data = KVX_TEST_DATA "/nwchem/";
    const std::string wfn = read_file(data + "water_cart.wfn"), wfx = read_file(data + "water_cart.wfx");
    const std::string molden = read_file(data + "water_cart.molden");
    ASSERT_GT(wfn.size(), 1000u);
    ASSERT_GT(wfx.size(), 1000u);
    const struct {
        const char* name;
        std::string text;
        const char* message;
    } cases[] = {
        {"cut.wfn", wfn.substr(0, wfn.find("MO  3")), "the file ends where"},
        {"no_end.wfn", replaced(wfn, "END DATA", "END"), "expected \"END DATA\""},
        {"bad_exponent.wfn", replaced(wfn, "5.4846717E+03", "5.48x6717E+03"), "line 10: expected an exponent"},
        {"far_centre.wfn", replaced(wfn, "CENTRE ASSIGNMENTS    1", "CENTRE ASSIGNMENTS    9"), "centre 9"},
        {"h_type.wfn", replaced(wfn, "TYPE ASSIGNMENTS      1", "TYPE ASSIGNMENTS     36"), "types 1 to 35"},
        {"huge.wfn", replaced(wfn, "GAUSSIAN              5 MOL ORBITALS     36 PRIMITIVES",
                              "GAUSSIAN         999999 MOL ORBITALS 999999 PRIMITIVES"), "implausible"},
        {"cut.wfx", wfx.substr(0, wfx.size() / 2), "the file ends inside"},
        {"wrong_close.wfx", replaced(wfx, "</Primitive Types>", "</Primitive Centers>"), "closes no open tag"},
        {"spin.wfx", replaced(wfx, "Alpha and Beta", "Up"), "expected a spin type"},
        {"short.wfx", replaced(wfx, "<Number of Primitives>\n 36", "<Number of Primitives>\n 37"), "expected 37"},
        {"n_atoms.molden", replaced(molden, "[Atoms] AU", "[N_Atoms]\n 4\n[Atoms] AU"), "[N_Atoms] states 4 atoms"},
        {"scale.molden", replaced(molden, "  s      6  0", "  s      6  -1"), "line 8: expected a positive scale factor"},
        {"atom_line.molden", replaced(molden, "    1  0", "    1  7"), "expected \"atom-number 0\""},
    };
    for (const auto& c : cases) {
        TempDir dir;
        std::ofstream(dir.path() / "job.mos") << "an earlier job";
        std::ofstream(dir.path() / c.name) << c.text;
        const auto before = snapshot(dir.path());
        const CommandResult r = run_command("'" KVX_BIN_DIR "/kalvex-import' '" + (dir.path() / c.name).string() +
                                            "' '" + (dir.path() / "job").string() + "'");
        EXPECT_EQ(r.status, 1) << c.name << ": " << r.out;
        EXPECT_NE(r.out.find(c.name), std::string::npos) << c.name << ": " << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << c.name << ": " << r.out;
        EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << c.name << ": " << r.out;
        EXPECT_EQ(snapshot(dir.path()), before) << c.name;
    }
}

// NWChem 7.0.2's wfn files of spherical basis sets carry the d functions
// scaled by about 0.83 (against its own Molden file of the same job): no
// known convention makes them orthonormal, and the refusal says by how much.
TEST(WriterImport, UnknownNormalisationIsRefusedWithItsDeviation) {
    TempDir dir;
    const CommandResult r = import_into(dir.path(), "water_tz.wfn", read_file(KVX_TEST_DATA "/nwchem/water_tz.wfn"));
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_NE(r.out.find("water_tz.wfn"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("not orthonormal"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("largest |C S C^T - I| 1.2e-03"), std::string::npos) << r.out;
    EXPECT_FALSE(fs::exists(dir.path() / "job.mos"));
}

// NWChem's wfn file of a job with an effective core potential gives iodine
// its full charge: the import goes through, and the report points at it.
TEST(WriterImport, FullChargesOfCorePotentialJobsAreNoted) {
    TempDir dir;
    const CommandResult r = import_into(dir.path(), "hi_ecp.wfn", read_file(KVX_TEST_DATA "/nwchem/hi_ecp.wfn"));
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("note: charge +28; if the job used effective core potentials"), std::string::npos) << r.out;
}

// Cut or scrambled AIM files never crash the importer.
TEST(WriterImport, DamagedAimFilesNeverCrash) {
    for (const char* name : {"ch2_cart.wfn", "ch2_cart.wfx"}) {
        const std::string text = read_file(std::string(KVX_TEST_DATA "/nwchem/") + name);
        ASSERT_GT(text.size(), 1000u);
        std::mt19937 gen(11);
        std::uniform_int_distribution<std::size_t> pos(0, text.size() - 1);
        std::uniform_int_distribution<int> byte(0, 255);
        for (int k = 0; k < 16; ++k) {
            std::string damaged = text;
            if (k % 2 == 0) {
                damaged.resize(text.size() * static_cast<std::size_t>(k + 1) / 17);
            } else {
                for (int f = 0; f < 4; ++f) damaged[pos(gen)] = static_cast<char>(byte(gen));
            }
            TempDir dir;
            const CommandResult r = import_into(dir.path(), name, damaged);
            ASSERT_TRUE(r.status == 0 || r.status == 1) << name << " case " << k << ": " << r.out;
            if (r.status == 1) {
                EXPECT_FALSE(fs::exists(dir.path() / "job.mos")) << name << " case " << k;
            }
        }
    }
}

}  // namespace
