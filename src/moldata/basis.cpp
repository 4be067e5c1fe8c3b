#include "moldata/basis.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/fatal.h"
#include "common/memory.h"
#include "gauss/spherical.h"
#include "moldata/symbols.h"
#include "moldata/textio.h"

namespace kvx::moldata {

namespace {

constexpr const char* kLabels[gauss::kNumShellTypes] = {"",    "s",   "p",   "l",   "d", "d6", "f",
                                                        "f10", "g15", "h21", "i28", "g", "h",  "i"};

// (2/pi)^(3/4)
constexpr double kPrefactConst = 0.7127054703549901;

bool parse_double(const std::string& tok, double& v) {
    if (tok.empty()) return false;
    char* end = nullptr;
    v = std::strtod(tok.c_str(), &end);
    return end != tok.c_str();
}

void report(const char* routine, const std::string& path, const std::string& why) {
    std::printf("Moldata %s: basis in %s rejected: %s\n", routine, path.c_str(), why.c_str());
    std::fflush(stdout);
}

bool check_size(long long nfunc, std::string& why) {
    if (nfunc <= kMaxBasisFunctions) return true;
    why = "more than " + std::to_string(kMaxBasisFunctions) + " basis functions";
    return false;
}

// The whole check of a basis read: function cap, then memory.
bool check_basis(const std::vector<Shell>& shells, long long nfunc, bool restricted, std::string& why) {
    return check_size(nfunc, why) && basis_fits_memory(shells, nfunc, restricted, common::usable_memory_bytes(), why);
}

}  // namespace

std::uint64_t basis_matrix_bytes(const std::vector<Shell>& shells, long long nbasis, bool restricted) {
    const std::uint64_t n = nbasis > 0 ? static_cast<std::uint64_t>(nbasis) : 0;
    const std::uint64_t triangle = n * (n + 1) / 2 * sizeof(double);
    // Overlap, alpha and total density, and beta density when unrestricted.
    std::uint64_t bytes = (restricted ? 3 : 4) * triangle;
    // The overlap's largest shell-pair block, a shell's cartesian components
    // times its contractions squared.
    std::uint64_t widest = 0;
    for (const Shell& s : shells)
        widest = std::max<std::uint64_t>(
            widest, static_cast<std::uint64_t>(gauss::block_cart_count(s.type)) * (s.type == 3 ? 1 : s.ngc));
    return bytes + widest * widest * sizeof(double);
}

bool basis_fits_memory(const std::vector<Shell>& shells, long long nbasis, bool restricted, std::uint64_t usable,
                       std::string& why) {
    const std::uint64_t need = basis_matrix_bytes(shells, nbasis, restricted);
    if (need <= usable) return true;
    why = std::to_string(nbasis) + " basis functions need " + common::memory_text(need) +
          " for the overlap and density matrices, more than the " + common::memory_text(usable) +
          " this process can use";
    return false;
}

int shell_type_of_label(std::string_view label) {
    for (int t = 1; t < gauss::kNumShellTypes; ++t)
        if (label == kLabels[t]) return t;
    return 0;
}

BasisToken next_basis_token(std::FILE* f, std::string& word) {
    word.clear();
    int c;
    // Carriage returns count as blanks so that CRLF files read alike.
    while ((c = std::getc(f)) == ' ' || c == '\t' || c == '\r') {
    }
    if (c == EOF) return BasisToken::End;
    if (c == '\n') return BasisToken::LineEnd;
    do {
        if (word.size() < kMaxToken) word.push_back(static_cast<char>(c));
        c = std::getc(f);
        if (c == EOF) return BasisToken::End;
    } while (!std::isspace(c));
    if (c == '\n') std::ungetc(c, f);
    return BasisToken::Word;
}

void normalise_shell_data(int type, int nprim, int ngc, std::vector<double>& b) {
    if (type == 3) {
        double ss = 0, sp = 0;
        for (int i = 0; i < nprim; ++i) {
            for (int k = 0; k < nprim; ++k) {
                const double ai = b[3 * i], ak = b[3 * k];
                ss +=
                    b[3 * i + 1] * b[3 * k + 1] * gauss::kNormK[1] * std::pow(ai * ak, 0.75) * std::pow(ai + ak, -1.5);
                sp +=
                    b[3 * i + 2] * b[3 * k + 2] * gauss::kNormK[2] * std::pow(ai * ak, 1.25) * std::pow(ai + ak, -2.5);
            }
        }
        const double ns = 1.0 / std::sqrt(ss), np = 2.0 / std::sqrt(sp);
        for (int i = 0; i < nprim; ++i) {
            b[3 * i + 1] = b[3 * i + 1] * ns;
            b[3 * i + 2] = b[3 * i + 2] * np * std::sqrt(b[3 * i]);
        }
        return;
    }
    const int row = ngc + 1;
    const double e = gauss::kNormExponent[type], half_l = gauss::kNormPower[type], k_norm = gauss::kNormK[type],
                 f = gauss::kNormF[type];
    for (int j = 1; j <= ngc; ++j) {
        double s = 0;
        for (int i = 0; i < nprim; ++i) {
            for (int k = 0; k < nprim; ++k) {
                const double ai = b[row * i], ak = b[row * k];
                s += b[row * i + j] * b[row * k + j] * k_norm * std::pow(ai * ak, e / 4) * std::pow(ai + ak, -e / 2);
            }
        }
        const double n = 1.0 / std::sqrt(s);
        for (int i = 0; i < nprim; ++i) b[row * i + j] = b[row * i + j] * n * f * std::pow(b[row * i], half_l);
    }
}

bool make_shell(int type, int nprim, std::vector<double> data, std::string_view basis_name,
                const std::vector<Atom>& atoms, const std::vector<std::string>& labels, std::vector<Shell>& shells,
                long long& counter, std::string& why, JobError& error) {
    if (data.empty()) return true;
    if (type < 1 || type >= gauss::kNumShellTypes) {
        why = "numbers outside a shell";
        return false;
    }
    if (type == 13) {
        why = "spherical i shells are not supported";
        return false;
    }
    const long long ndata = static_cast<long long>(data.size());
    if (nprim < 1 || nprim > ndata) {
        why = "shell with " + std::to_string(nprim) + " primitive lines and " + std::to_string(ndata) + " numbers";
        return false;
    }
    const int ngc = type == 3 ? 1 : static_cast<int>((ndata - nprim) / nprim);
    const int row = type == 3 ? 3 : ngc + 1;
    if (ngc < 1 || static_cast<long long>(row) * nprim > ndata) {
        why = "shell with " + std::to_string(nprim) + " primitives and only " + std::to_string(ndata) + " numbers";
        return false;
    }
    // Contractions are combinations of the shell's primitives: more of them
    // than primitives cannot be independent functions.
    if (ngc > nprim) {
        why = "shell with " + std::to_string(ngc) + " contractions of " + std::to_string(nprim) +
              " primitive(s), more than its primitives can make independent";
        return false;
    }
    normalise_shell_data(type, nprim, ngc, data);
    std::shared_ptr<std::vector<double>> prefact;
    if (!common::try_alloc([&] { prefact = std::make_shared<std::vector<double>>(static_cast<std::size_t>(nprim)); })) {
        error = {"Moldata make_shell cannot allocate prefact"};
        return false;
    }
    for (int i = 0; i < nprim; ++i)
        (*prefact)[i] = kPrefactConst * std::pow(data[static_cast<std::size_t>(row) * i], 0.75);
    auto basdat = std::make_shared<const std::vector<double>>(std::move(data));
    const int size = gauss::kShellSize[type];
    for (std::size_t a = 0; a < atoms.size() && a < labels.size(); ++a) {
        if (labels[a] != basis_name) continue;
        Shell s;
        s.type = type;
        s.size = size;
        s.ngc = ngc;
        s.nprim = nprim;
        s.nfirst = static_cast<int>(std::min<long long>(counter, kMaxBasisFunctions + 1));
        s.basdat = basdat;
        s.prefact = prefact;
        s.center = &atoms[a];
        shells.push_back(std::move(s));
        counter += static_cast<long long>(size) * ngc;
        if (counter > kMaxBasisFunctions + 1) {
            why = "more than " + std::to_string(kMaxBasisFunctions) + " basis functions";
            return false;
        }
    }
    return true;
}

JobError read_basis(Molecule& mol, const std::string& path) {
    mol.shells.clear();
    if (mol.atoms.empty() || mol.nshell <= 0) return {};
    File file = open_read(path);
    if (!file) return {};
    std::FILE* f = file.get();

    std::vector<std::string> labels;
    labels.reserve(mol.atoms.size());
    for (const Atom& a : mol.atoms) {
        labels.push_back(basis_label(a.symbol));
        // The double blank is the message's own.
        if (labels.back().size() > 8) return {"Atomic symbol " + a.symbol + " is  longer than 8 characters"};
    }

    std::string tok;
    do {
        if (!scan_token(f, tok)) return {};
    } while (tok != "$basis");

    std::vector<Shell> shells;
    JobError error;
    std::string element, why;
    std::vector<double> nums;
    int type = 0;
    long long lines = 0;
    long long counter = 1;
    bool ok = true;
    auto finish = [&]() {
        if (!ok || nums.empty()) return;
        const int nprim = static_cast<int>(std::min<long long>(lines - 1, 1LL << 30));
        ok = make_shell(type, nprim, std::move(nums), element, mol.atoms, labels, shells, counter, why, error);
        nums.clear();
        if (ok && static_cast<long long>(shells.size()) > mol.nshell) {
            why = "more shells than $nshell (" + std::to_string(mol.nshell) + ")";
            ok = false;
        }
    };
    while (ok) {
        BasisToken t = next_basis_token(f, tok);
        if (t == BasisToken::LineEnd) {
            ++lines;
            continue;
        }
        if (t == BasisToken::End) return {kBasisFileEnded};
        if (tok == "for") {
            finish();
            if (error) break;
            while ((t = next_basis_token(f, tok)) == BasisToken::LineEnd) {
            }
            if (t == BasisToken::End) return {kBasisFileEnded};
            element = tok;
            lines = 0;
            nums.clear();
        } else if (const int t = shell_type_of_label(tok); t != 0) {
            finish();
            type = t;
            lines = 1;
            nums.clear();
        } else if (tok == "$end") {
            finish();
            break;
        } else {
            double v;
            if (!parse_double(tok, v)) {
                why = "\"" + tok + "\" is not a number";
                ok = false;
            } else {
                nums.push_back(v);
            }
        }
    }
    if (error) return error;
    const long long nfunc = counter - 1;
    if (ok) ok = check_basis(shells, nfunc, mol.restricted, why);
    if (ok && nfunc != mol.nbasis) {
        why = "the shells give " + std::to_string(nfunc) + " functions, $nbasis is " + std::to_string(mol.nbasis);
        ok = false;
    }
    if (!ok) {
        report("read_basis", path, why);
        return {};
    }
    // Fewer shells than $nshell: the unused records would hold no functions.
    mol.nshell = static_cast<int>(shells.size());
    mol.shells = std::move(shells);
    return {};
}

namespace {

// Blank- and comma-separated (or blank- and tab-separated) tokens of a line.
std::vector<std::string> split(const std::string& line, const char* seps) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : line) {
        if (std::strchr(seps, c) || c == '\n') {
            if (!cur.empty()) out.push_back(std::move(cur));
            cur.clear();
        } else {
            cur.push_back(c);
        }
    }
    if (!cur.empty()) out.push_back(std::move(cur));
    return out;
}

// The 8 characters at p, cut at the newline.
std::string label_at(const std::string& line, std::size_t p) {
    std::string s = line.substr(std::min(p, line.size()), 8);
    if (auto nl = s.find('\n'); nl != std::string::npos) s.resize(nl);
    return s;
}

constexpr int kKvmLine = 500;

}  // namespace

JobError read_onefile_basis(Molecule& mol, const std::string& path) {
    mol.shells.clear();
    if (mol.atoms.empty()) return {};
    File file = open_read(path, false, kOneFileLimit);
    if (!file) return {};
    std::FILE* f = file.get();
    const std::size_t natoms = mol.atoms.size();

    // "$atoms": lists of atom numbers, each list closed by "basis=label".
    std::vector<std::string> labels(natoms);
    std::string line;
    if (!find_line(f, line, "$atoms", kKvmLine)) return {};
    std::vector<int> pending;
    bool closed = false;
    while (read_line(f, line, kKvmLine)) {
        if (line.find('$') != std::string::npos) {
            closed = true;
            break;
        }
        if (auto p = line.find("basis="); p != std::string::npos) {
            const std::string label = label_at(line, p + 6);
            for (int a : pending) labels[static_cast<std::size_t>(a - 1)] = label;
            pending.clear();
            continue;
        }
        const auto toks = split(line, " ,");
        for (std::size_t i = 0; i < toks.size(); ++i) {
            if (!std::isdigit(static_cast<unsigned char>(toks[i][0]))) continue;  // the element name
            int a = 0;
            if (parse_int_token(toks[i], a) != IntToken::Value) {
                report("read_onefile_basis", path, "atom number \"" + toks[i] + "\" is not an integer");
                return {};
            }
            if (a >= 1 && static_cast<std::size_t>(a) <= natoms) pending.push_back(a);
        }
    }
    if (!closed) return {};

    // "$basis": "*" lines bracket the basis name; then shell headers
    // "nprim label" each followed by nprim lines of numbers.
    std::rewind(f);
    if (!find_line(f, line, "$basis", kKvmLine)) return {};
    std::vector<Shell> shells;
    JobError error;
    std::string name, why;
    bool name_mode = false, ok = true;
    long long counter = 1;
    closed = false;
    while (ok && read_line(f, line, kKvmLine)) {
        if (line.find('$') != std::string::npos) {
            closed = true;
            break;
        }
        if (line.find('*') != std::string::npos) {
            name_mode = !name_mode;
            continue;
        }
        if (name_mode) {
            name = label_at(line, 0);
            continue;
        }
        const auto head = split(line, " \t\r");
        if (head.empty()) continue;
        int nprim = 0;
        const bool counted = parse_int_token(head[0], nprim) == IntToken::Value;
        const int type = head.size() > 1 ? shell_type_of_label(head[1].substr(0, 8)) : 0;
        if (!counted || nprim < 1 || nprim > (1 << 20) || type == 0) {
            why = "bad shell header \"" + label_at(line, 0) + "\"";
            ok = false;
            break;
        }
        std::vector<double> nums;
        for (int i = 0; i < nprim; ++i) {
            if (!read_line(f, line, kKvmLine)) return {};  // end of file inside the section
            for (const auto& t : split(line, " \t\r")) {
                double v;
                if (!parse_double(t, v)) {
                    why = "\"" + t + "\" is not a number";
                    ok = false;
                    break;
                }
                nums.push_back(v);
            }
            if (!ok) break;
        }
        if (ok) ok = make_shell(type, nprim, std::move(nums), name, mol.atoms, labels, shells, counter, why, error);
    }
    if (error) return error;
    if (ok) ok = check_basis(shells, counter - 1, mol.restricted, why);
    if (!ok) {
        report("read_onefile_basis", path, why);
        return {};
    }
    if (!closed) return {};

    // Functions numbered atom by atom, each atom's shells in stored order.
    int next = 1, nprim_total = 0;
    for (const Atom& atom : mol.atoms)
        for (Shell& s : shells)
            if (s.center == &atom) {
                s.nfirst = next;
                next += s.size * s.ngc;
            }
    for (const Shell& s : shells) nprim_total += s.nprim;
    mol.nshell = static_cast<int>(shells.size());
    mol.nbasis = next - 1;
    mol.nprim = nprim_total;
    mol.shells = std::move(shells);
    return {};
}

void sort_shells(Molecule& mol) {
    // Adjacent pairs stay when the second has a larger type, or the same type
    // and fewer primitives, or also the same nprim and an atomic number not
    // larger; stable sorting with that order gives the swap passes' result.
    auto before = [](const Shell& a, const Shell& b) {
        if (a.type != b.type) return a.type < b.type;
        if (a.nprim != b.nprim) return a.nprim > b.nprim;
        return a.center->atomic_number > b.center->atomic_number;
    };
    std::stable_sort(mol.shells.begin(), mol.shells.end(), before);
    int next = 1;
    for (Shell& s : mol.shells) {
        s.nfirst = next;
        next += s.size * s.ngc;
    }
}

void dump_shells(const Molecule& mol) {
    for (std::size_t i = 0; i < mol.shells.size(); ++i) {
        const Shell& s = mol.shells[i];
        std::printf("Shell: %d\n", static_cast<int>(i + 1));
        std::printf("type: %d\n", s.type);
        std::printf("size: %d\n", s.size);
        std::printf("ngc: %d\n", s.ngc);
        std::printf("nprim: %d\n", s.nprim);
        std::printf("nfirst: %d\n", s.nfirst);
        std::printf("center: %s\n", s.center ? s.center->symbol.c_str() : "");
        std::printf("basdat: %p\n", static_cast<const void*>(s.basdat ? s.basdat->data() : nullptr));
        const int row = s.row_length();
        const int ncoef = s.type == 3 ? 2 : s.ngc;
        for (int p = 0; p < s.nprim; ++p) {
            std::printf("Exp:  %d %lf ", p * row, s.exponent(p));
            for (int c = 0; c < ncoef; ++c) std::printf("Coef: %d %lf ", p * row + 1 + c, s.coef(p, c));
            std::printf("\n");
        }
        std::printf("\n");
    }
}

}  // namespace kvx::moldata
