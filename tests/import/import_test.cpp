// kalvex-import end to end: psi4's Molden and FCHK files of real SCF jobs
// are imported with the kalvex-import binary, and kalvex's own single-point
// values are compared with psi4's at the reference points of
// tests/data/psi4 (make_reference.py). Files that cannot be converted are
// refused whole.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/reference_table.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;

namespace {

const std::string kData = KVX_TEST_DATA "/psi4/";

using Result = kvx::test::CommandResult;
using kvx::test::read_file;
using kvx::test::read_reference_table;
using kvx::test::ReferenceTable;
using kvx::test::run_command;
using kvx::test::TempDir;

Result import(const std::string& input, const std::string& job) {
    return run_command("'" KVX_BIN_DIR "/kalvex-import' '" + input + "' '" + job + "'");
}

void write_file(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// A restricted open-shell job as programs that keep one orbital set write
// it (psi4 writes both spins): FCHK without the beta arrays; Molden without
// the beta orbitals, the alpha ones occupied 2 up to nbeta, then 1.
std::string one_set(const std::string& text, bool fchk, int nbeta) {
    std::istringstream in(text);
    std::string out, line, block;
    if (fchk) {
        bool keep = true;
        while (std::getline(in, line)) {
            if (!line.empty() && line[0] != ' ') keep = line.rfind("Beta ", 0) != 0;
            if (keep) out += line + "\n";
        }
        return out;
    }
    int orbital = 0;
    auto flush = [&] {  // one orbital block, from its Sym= line on
        if (block.find("Spin= Beta") == std::string::npos) out += block;
        block.clear();
    };
    while (std::getline(in, line)) {
        if (line.find("Sym=") != std::string::npos) {
            flush();
            ++orbital;
        }
        if (line.find("Occup=") != std::string::npos && orbital <= nbeta) line = " Occup= 2.0";
        (orbital > 0 ? block : out) += line + "\n";
    }
    flush();
    return out;
}

struct Case {
    const char* job;   // tests/data/psi4/JOB.ref
    const char* file;  // the file imported
    const char* kind;  // expected in the report
    int one_set_nbeta = 0;  // > 0: import one_set() of the file
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.file << (c.one_set_nbeta ? " as one orbital set" : "") << " (" << c.job << ".ref)";
}

class Psi4Import : public ::testing::TestWithParam<Case> {};

// One kalvex run in single-point mode answers every point: per point one
// line of -px -py -pz and the requests. Orbitals: the grid tables use the
// displacement atom - point, so psi4's values with odd-l functions negated
// (the _grid columns); an orbital may flip its sign as a whole. The density
// file leaves out cross terms between shells and, in sp shells, takes the
// s-p cross term with the grid displacement: rho_shell_grid. The potential is
// psi4's own. Values are printed with six decimals: 1e-6 absolute, plus
// 1e-8 relative for the large density and potential near nuclei.
TEST_P(Psi4Import, KalvexValuesMatchPsi4) {
    const Case c = GetParam();
    const ReferenceTable ref = read_reference_table(kData + c.job + ".ref");
    ASSERT_GT(ref.rows.size(), 20u) << c.job;
    TempDir dir;
    std::string input = kData + c.file;
    if (c.one_set_nbeta > 0) {
        input = (dir.path() / c.file).string();
        write_file(input, one_set(read_file(kData + c.file), input.ends_with(".fchk"), c.one_set_nbeta));
    }
    const Result imp = import(input, (dir.path() / "job").string());
    ASSERT_EQ(imp.status, 0) << imp.out;
    EXPECT_NE(imp.out.find(c.kind), std::string::npos) << imp.out;

    struct Column {
        int index;
        std::string request;
        bool orbital;
    };
    std::vector<Column> cols;
    for (std::size_t i = 0; i < ref.columns.size(); ++i) {
        const std::string& n = ref.columns[i];
        const auto cut = n.find("_grid");
        if (cut != std::string::npos && (n[0] == 'a' || n[0] == 'b'))
            cols.push_back({static_cast<int>(i), (n[0] == 'a' ? "-moa " : "-mob ") + n.substr(1, cut - 1), true});
    }
    ASSERT_GE(cols.size(), 4u);
    cols.push_back({ref.column("rho_shell_grid"), "-den", false});
    cols.push_back({ref.column("esp"), "-ep", false});
    ASSERT_GE(cols[cols.size() - 2].index, 0);
    ASSERT_GE(cols.back().index, 0);

    std::string lines;
    for (const auto& row : ref.rows) {
        char pt[128];
        std::snprintf(pt, sizeof pt, "-px %.12f -py %.12f -pz %.12f", row[0], row[1], row[2]);
        lines += pt;
        for (const Column& col : cols) lines += " " + col.request;
        lines += "\n";
    }
    write_file(dir.path() / "stdin.txt", lines + "-end\n");
    const Result k = run_command("cd '" + dir.path().string() +
                                 "' && '" KVX_BINARY "' job -point -moacc 1e-12 -thresh 1e-12 < stdin.txt");
    ASSERT_EQ(k.status, 0) << k.out.substr(0, 2000);

    std::vector<double> got;
    std::istringstream out(k.out);
    for (std::string line; std::getline(out, line);) {
        const auto at = line.find("Property: ");
        if (line.rfind("Point:", 0) == 0 && at != std::string::npos) got.push_back(std::stod(line.substr(at + 10)));
    }
    ASSERT_EQ(got.size(), ref.rows.size() * cols.size()) << k.out.substr(0, 2000);
    for (std::size_t j = 0; j < cols.size(); ++j) {
        const Column& col = cols[j];
        double sign = 1, biggest = 0;
        for (std::size_t p = 0; p < ref.rows.size(); ++p) {  // the sign at the largest value decides
            const double r = ref.rows[p][static_cast<std::size_t>(col.index)];
            if (col.orbital && std::fabs(r) > biggest) {
                biggest = std::fabs(r);
                sign = got[p * cols.size() + j] * r < 0 ? -1 : 1;
            }
        }
        for (std::size_t p = 0; p < ref.rows.size(); ++p) {
            const double r = ref.rows[p][static_cast<std::size_t>(col.index)];
            EXPECT_NEAR(sign * got[p * cols.size() + j], r, 1e-6 + 1e-8 * std::fabs(r))
                << c.file << " " << col.request << " at " << ref.rows[p][0] << " " << ref.rows[p][1] << " "
                << ref.rows[p][2];
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Jobs, Psi4Import,
    ::testing::Values(Case{"water_cart", "water_cart.molden", "restricted"},
                      Case{"water_cart", "water_cart.fchk", "each cartesian function normalised"},
                      Case{"water_tz", "water_tz.molden", "restricted"}, Case{"water_tz", "water_tz.fchk", "restricted"},
                      Case{"oh_uhf", "oh_uhf.molden", "(unrestricted)"}, Case{"oh_uhf", "oh_uhf.fchk", "(unrestricted)"},
                      Case{"ch2_cart", "ch2_cart.molden", "(unrestricted)"},
                      Case{"ch2_cart", "ch2_cart.fchk", "(unrestricted)"}, Case{"hf_qz", "hf_qz.molden", "restricted"},
                      Case{"hf_qz", "hf_qz.fchk", "restricted"}, Case{"water_sp", "water_sp.molden", "restricted"},
                      Case{"water_sp", "water_sp.fchk", "restricted"},
                      Case{"oh_rohf", "oh_rohf.molden", "(unrestricted)"},
                      Case{"oh_rohf", "oh_rohf.fchk", "(unrestricted)"},
                      Case{"oh_rohf", "oh_rohf.molden", "restricted open-shell", 4},
                      Case{"oh_rohf", "oh_rohf.fchk", "restricted open-shell", 4},
                      // rewritten in other writers' dialects (tests/data/dialects/make_dialects.py)
                      Case{"water_tz", "../dialects/water_tz_orca.molden", "ORCA"},
                      Case{"hf_qz", "../dialects/hf_qz_orca.molden", "ORCA"},
                      Case{"oh_uhf", "../dialects/oh_uhf_molcas.molden", "(unrestricted)"},
                      Case{"ch2_cart", "../dialects/ch2_cart_scrambled.molden", "like x^l"},
                      // effective core potentials: the valence charge under the element's name
                      // (psi4's Molden file), from [Nval], from Gaussian's "Nuclear charges"
                      Case{"../dialects/hi_ecp", "../dialects/hi_ecp.molden", "valence charges (I 25)"},
                      Case{"../dialects/hi_ecp", "../dialects/hi_ecp_nval.molden", "valence charges (I 25)"},
                      Case{"../dialects/hi_ecp", "../dialects/hi_ecp_gaussian.fchk", "valence charges (I 25)"}),
    [](const ::testing::TestParamInfo<Case>& info) {
        std::string n = std::string(info.param.one_set_nbeta ? "one_set_" : "") + info.param.file;
        for (char& ch : n)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return n;
    });

// Sp shells become Kalvex "l" shells; the same job written with separate s
// and p shells gives the same orbitals with more shells.
TEST(Import, SpShellsBecomeLShells) {
    TempDir dir;
    const Result merged = import(kData + "water_sp.molden", (dir.path() / "sp").string());
    const Result plain = import(kData + "water_sp_plain.molden", (dir.path() / "plain").string());
    ASSERT_EQ(merged.status, 0) << merged.out;
    ASSERT_EQ(plain.status, 0) << plain.out;
    const std::string basis = read_file((dir.path() / "sp.basis").string());
    EXPECT_NE(basis.find("\nl "), std::string::npos) << basis;
    EXPECT_EQ(read_file((dir.path() / "plain.basis").string()).find("\nl "), std::string::npos);
}

// What a damaged or wrong file does: status 1, one message naming the file
// (and the line where one is to blame), and the folder exactly as before,
// an earlier job of the same name included.
TEST(Import, RefusedFilesLeaveNothingBehind) {
    const std::string molden = read_file(kData + "water_cart.molden"), fchk = read_file(kData + "water_cart.fchk");
    ASSERT_FALSE(molden.empty());
    ASSERT_FALSE(fchk.empty());
    auto cut_before = [](const std::string& text, const std::string& key, int extra_lines) {
        std::size_t at = text.find(key);
        for (int i = 0; i < extra_lines && at != std::string::npos; ++i) at = text.find('\n', at + 1);
        return text.substr(0, at == std::string::npos ? text.size() : at);
    };
    // The first `from` after `anchor`.
    auto replace = [](std::string text, const std::string& from, const std::string& to, const std::string& anchor = "") {
        const std::size_t at = text.find(from, text.find(anchor));
        if (at != std::string::npos) text.replace(at, from.size(), to);
        return text;
    };
    // The first occupied orbital scaled by 1.01: its norm is then 1.0201.
    std::string scaled = molden;
    {
        std::istringstream in(molden.substr(molden.find("[MO]")));
        std::string line, out;
        int orbital = 0;
        while (std::getline(in, line)) {
            if (line.find("Sym=") != std::string::npos) ++orbital;
            double idx, v;
            if (orbital == 1 && std::sscanf(line.c_str(), "%lf %lf", &idx, &v) == 2) {
                char buf[64];
                std::snprintf(buf, sizeof buf, "%4d %.12f", static_cast<int>(idx), v * 1.01);
                line = buf;
            }
            out += line + "\n";
        }
        scaled = molden.substr(0, molden.find("[MO]")) + out;
    }
    const struct {
        const char* name;
        std::string text;
        const char* message;
    } cases[] = {
        {"empty.molden", "", "neither a Molden"},
        {"noise.fchk", std::string("\x7f""ELF\x02\x01\x01\0\0\0garbage", 18), "binary data"},
        {"words.molden", "[Molden Format]\nthis is not a job\n", "no [Atoms] section"},
        {"cut_atoms.molden", cut_before(molden, "[Atoms]", 2), "no [GTO]"},
        {"cut_gto.molden", cut_before(molden, "[GTO]", 5), "line"},
        {"cut_mo.molden", cut_before(molden, "Occup=", 6), "not orthonormal"},
        {"cut_virtual.molden", molden.substr(0, molden.size() - 60), "not orthonormal"},
        {"scaled.molden", scaled, "not orthonormal"},
        {"bad_number.molden", replace(molden, "0.0018311000", "0.00x8311000"), "line 9"},
        {"bad_index.molden", replace(molden, "\n  1 ", "\n999 ", "[MO]"), "basis function 999 does not exist"},
        {"half_electron.molden", replace(molden, "Occup=  2.00000000000000000e+00", "Occup=  1.50000000000000000e+00"), "occupation"},
        {"no_atom.molden", replace(molden, "\n  3 0\n", "\n  7 0\n"), "atom 7"},
        {"cut_array.fchk", cut_before(fchk, "Alpha MO coefficients", 3), "announces"},
        {"short_shells.fchk", replace(fchk, "Shell to atom map", "Shell to atom mop"), "Shell to atom map"},
        {"wrong_count.fchk", replace(fchk, "Number of basis functions                  I               19",
                                     "Number of basis functions                  I               20"),
         "the file says 20"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        write_file(dir.path() / c.name, c.text);
        write_file(dir.path() / "job.mos", "an earlier job");
        const auto before = dir.snapshot();
        const Result r = import((dir.path() / c.name).string(), (dir.path() / "job").string());
        EXPECT_EQ(r.status, 1) << c.name << ": " << r.out;
        EXPECT_NE(r.out.find(c.name), std::string::npos) << c.name << ": " << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << c.name << ": " << r.out;
        EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << c.name << ": " << r.out;
        EXPECT_EQ(dir.snapshot(), before) << c.name;
    }
    // Usage: status 1, nothing written.
    EXPECT_EQ(run_command("'" KVX_BIN_DIR "/kalvex-import' only-one").status, 1);
}

// Cut or scrambled files never crash the importer: each run either imports
// (a change the orbitals survive) or refuses with the folder untouched.
TEST(Import, DamagedFilesNeverCrash) {
    for (const char* name : {"water_cart.molden", "oh_uhf.fchk"}) {
        const std::string text = read_file(kData + name);
        ASSERT_GT(text.size(), 1000u);
        std::mt19937 gen(7);
        std::uniform_int_distribution<std::size_t> pos(0, text.size() - 1);
        std::uniform_int_distribution<int> byte(0, 255);
        for (int k = 0; k < 24; ++k) {
            std::string damaged = text;
            if (k % 2 == 0) {
                damaged.resize(text.size() * static_cast<std::size_t>(k + 1) / 25);
            } else {
                for (int f = 0; f < 4; ++f) damaged[pos(gen)] = static_cast<char>(byte(gen));
            }
            TempDir dir;
            write_file(dir.path() / name, damaged);
            const auto before = dir.snapshot();
            const Result r = import((dir.path() / name).string(), (dir.path() / "job").string());
            ASSERT_TRUE(r.status == 0 || r.status == 1) << name << " case " << k << ": " << r.out;
            if (r.status == 1) {
                EXPECT_EQ(dir.snapshot(), before) << name << " case " << k;
            }
        }
    }
}

// The format is decided by the content, not the name; files an earlier job
// of the same name left that kalvex would mix in are removed.
TEST(Import, ContentDecidesFormatAndStaleFilesGo) {
    TempDir dir;
    write_file(dir.path() / "checkpoint.txt", read_file(kData + "oh_uhf.fchk"));
    for (const char* e : {".los", ".nos", ".sym"}) write_file(dir.path() / (std::string("job") + e), "stale");
    const Result r = import((dir.path() / "checkpoint.txt").string(), (dir.path() / "job").string());
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("formatted checkpoint"), std::string::npos);
    for (const char* e : {".control", ".coord", ".basis", ".mos", ".mob"})
        EXPECT_TRUE(fs::exists(dir.path() / (std::string("job") + e))) << e;
    for (const char* e : {".los", ".nos", ".sym"}) EXPECT_FALSE(fs::exists(dir.path() / (std::string("job") + e))) << e;
    for (const auto& e : fs::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".kalvex-import"), std::string::npos);
}

}  // namespace
