// Molden files: atoms, basis set, flags and orbitals.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>

#include "import/readers.h"
#include "import/text.h"

namespace kvx::import {

namespace {

constexpr double kBohrPerAngstrom = 1.0 / 0.529177210903;

// "[Name] rest" -> lower-case name; empty when the line opens no section.
std::string section_name(const std::string& line, std::string* rest = nullptr) {
    const std::string t = trim(line);
    if (t.empty() || t[0] != '[') return "";
    const std::size_t close = t.find(']');
    if (close == std::string::npos) return "";
    if (rest) *rest = t.substr(close + 1);
    return lower(trim(t.substr(1, close - 1)));
}

gauss::CartExp exponents_of(const char* letters) {
    gauss::CartExp e{0, 0, 0};
    for (const char* p = letters; *p; ++p) {
        if (*p == 'x') ++e.x;
        if (*p == 'y') ++e.y;
        if (*p == 'z') ++e.z;
    }
    return e;
}

int shell_l(const std::string& label) {
    static const char* kLetters = "spdfghi";
    if (label.size() != 1) return -1;
    const char* p = std::strchr(kLetters, label[0]);
    return p ? static_cast<int>(p - kLetters) : -1;
}

struct MoldenOrbital {
    SourceOrbital orb;
    bool beta = false;
    int line = 0;
    std::vector<std::pair<long, double>> entries;
};

}  // namespace

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t j = text.find('\n', i);
        if (j == std::string::npos) j = text.size();
        std::size_t k = j;
        if (k > i && text[k - 1] == '\r') --k;
        lines.push_back(text.substr(i, k - i));
        i = j + 1;
    }
    return lines;
}

CartesianConvention molden_cartesian_order() {
    CartesianConvention c;
    c.order.resize(5);
    c.order[0] = {{0, 0, 0}};
    c.order[1] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (const char* s : {"xx", "yy", "zz", "xy", "xz", "yz"}) c.order[2].push_back(exponents_of(s));
    for (const char* s : {"xxx", "yyy", "zzz", "xyy", "xxy", "xxz", "xzz", "yzz", "yyz", "xyz"})
        c.order[3].push_back(exponents_of(s));
    for (const char* s : {"xxxx", "yyyy", "zzzz", "xxxy", "xxxz", "yyyx", "yyyz", "zzzx", "zzzy", "xxyy", "xxzz",
                          "yyzz", "xxyz", "yyxz", "zzxy"})
        c.order[4].push_back(exponents_of(s));
    return c;  // h and i: the format defines no cartesian order
}

SourceJob read_molden(const std::vector<std::string>& lines) {
    SourceJob job;
    job.format = "Molden";
    job.cartesian = molden_cartesian_order();
    const int n = static_cast<int>(lines.size());

    std::map<long, int> atom_index;  // atom number in the file -> 0-based
    bool pure_d = false, pure_f = false, pure_g = false;
    bool saw_atoms = false, saw_gto = false, saw_mo = false;
    std::vector<MoldenOrbital> orbitals;
    std::vector<std::pair<long, int>> shell_atom;  // file atom number and line of each shell

    int i = 0;
    while (i < n) {
        std::string rest;
        const std::string name = section_name(lines[static_cast<std::size_t>(i)], &rest);
        if (name.empty()) {
            ++i;
            continue;
        }
        ++i;
        if (name == "atoms") {
            saw_atoms = true;
            const std::string unit = lower(rest);
            const double scale = unit.find("au") != std::string::npos ? 1.0 : kBohrPerAngstrom;
            for (; i < n && section_name(lines[static_cast<std::size_t>(i)]).empty(); ++i) {
                const auto t = tokens(lines[static_cast<std::size_t>(i)]);
                if (t.empty()) continue;
                if (t.size() < 6) throw ImportError("an atom line needs name, number, atomic number, x, y, z", i + 1);
                SourceAtom a;
                const long num = integer(t[1], i + 1, "the atom's number");
                const long z = integer(t[2], i + 1, "the atomic number");
                if (z < 0 || z > 118) throw ImportError("atomic number " + t[2] + " out of range", i + 1);
                a.atomic_number = static_cast<int>(z);
                a.nuclear_charge = static_cast<double>(z);
                a.x = number(t[3], i + 1, "a coordinate") * scale;
                a.y = number(t[4], i + 1, "a coordinate") * scale;
                a.z = number(t[5], i + 1, "a coordinate") * scale;
                if (!atom_index.emplace(num, static_cast<int>(job.atoms.size())).second)
                    throw ImportError("atom number " + t[1] + " appears twice", i + 1);
                job.atoms.push_back(a);
            }
        } else if (name == "gto") {
            saw_gto = true;
            long atom = -1;
            while (i < n && section_name(lines[static_cast<std::size_t>(i)]).empty()) {
                const auto t = tokens(lines[static_cast<std::size_t>(i)]);
                if (t.empty()) {
                    ++i;
                    continue;
                }
                if (std::isdigit(static_cast<unsigned char>(t[0][0]))) {  // "atom-number 0"
                    atom = integer(t[0], i + 1, "an atom number");
                    ++i;
                    continue;
                }
                const std::string label = lower(t[0]);
                if (t.size() < 2) throw ImportError("a shell line needs a label and a primitive count", i + 1);
                if (atom < 0) throw ImportError("a shell comes before the number of its atom", i + 1);
                SourceShell s;
                s.sp = label == "sp" || label == "l";
                s.l = s.sp ? 1 : shell_l(label);
                if (s.l < 0) throw ImportError("unknown shell label \"" + t[0] + "\"", i + 1);
                const long nprim = integer(t[1], i + 1, "a primitive count");
                if (nprim < 1 || nprim > n - i - 1) throw ImportError("primitive count " + t[1] + " does not fit the file", i + 1);
                const double scale = t.size() >= 3 ? number(t[2], i + 1, "a scale factor") : 1.0;
                if (scale <= 0) throw ImportError("scale factor must be positive", i + 1);
                shell_atom.emplace_back(atom, i + 1);
                ++i;
                for (long p = 0; p < nprim; ++p, ++i) {
                    const auto q = tokens(lines[static_cast<std::size_t>(i)]);
                    if (q.size() < (s.sp ? 3u : 2u))
                        throw ImportError(s.sp ? "an sp primitive needs exponent, s and p coefficients"
                                               : "a primitive needs exponent and coefficient",
                                          i + 1);
                    const double e = number(q[0], i + 1, "an exponent") * scale * scale;
                    if (!(e > 0)) throw ImportError("exponents must be positive", i + 1);
                    s.exponents.push_back(e);
                    s.coefs.push_back(number(q[1], i + 1, "a contraction coefficient"));
                    if (s.sp) s.coefs_p.push_back(number(q[2], i + 1, "a p contraction coefficient"));
                }
                job.shells.push_back(std::move(s));
            }
        } else if (name == "5d" || name == "5d7f") {
            pure_d = pure_f = true;
        } else if (name == "5d10f") {
            pure_d = true;
        } else if (name == "7f") {
            pure_f = true;
        } else if (name == "9g") {
            pure_g = true;
        } else if (name == "mo") {
            saw_mo = true;
            MoldenOrbital* cur = nullptr;
            for (; i < n && section_name(lines[static_cast<std::size_t>(i)]).empty(); ++i) {
                const std::string& line = lines[static_cast<std::size_t>(i)];
                const std::size_t eq = line.find('=');
                if (eq != std::string::npos) {
                    if (!cur || !cur->entries.empty()) {
                        orbitals.emplace_back();
                        cur = &orbitals.back();
                        cur->line = i + 1;
                    }
                    const std::string key = lower(trim(line.substr(0, eq)));
                    const std::string value = trim(line.substr(eq + 1));
                    if (key == "ene") {
                        cur->orb.energy = number(value, i + 1, "an orbital energy");
                    } else if (key == "occup") {
                        cur->orb.occupation = number(value, i + 1, "an occupation");
                        const double o = cur->orb.occupation;
                        if (std::fabs(o) > 1e-6 && std::fabs(o - 1) > 1e-6 && std::fabs(o - 2) > 1e-6)
                            throw ImportError("occupation " + value +
                                                  ": only occupations 0, 1 or 2 of SCF orbitals can be imported",
                                              i + 1);
                    } else if (key == "spin") {
                        const std::string v = lower(value);
                        if (v != "alpha" && v != "beta") throw ImportError("spin must be Alpha or Beta", i + 1);
                        cur->beta = v == "beta";
                    }
                    continue;
                }
                const auto t = tokens(line);
                if (t.empty()) continue;
                if (!cur) throw ImportError("a coefficient comes before its orbital's Sym=, Ene=, Spin= or Occup= lines", i + 1);
                if (t.size() < 2) throw ImportError("a coefficient line needs a function number and a value", i + 1);
                const long idx = integer(t[0], i + 1, "a basis function number");
                cur->entries.emplace_back(idx, number(t[1], i + 1, "a coefficient"));
            }
        }
    }
    if (!saw_atoms || job.atoms.empty()) throw ImportError("no [Atoms] section with atoms", 0);
    if (!saw_gto || job.shells.empty()) throw ImportError("no [GTO] section with shells", 0);
    if (!saw_mo || orbitals.empty()) throw ImportError("no [MO] section with orbitals", 0);

    int nbasis = 0;
    for (std::size_t k = 0; k < job.shells.size(); ++k) {
        SourceShell& s = job.shells[k];
        const auto it = atom_index.find(shell_atom[k].first);
        if (it == atom_index.end())
            throw ImportError("a shell refers to atom " + std::to_string(shell_atom[k].first) + ", which [Atoms] does not list",
                              shell_atom[k].second);
        s.atom = it->second;
        s.pure = (s.l == 2 && pure_d) || (s.l == 3 && pure_f) || (s.l >= 4 && pure_g);
        if (!s.pure && !s.sp && s.l >= 5)
            throw ImportError("cartesian " + std::string(1, "spdfghi"[s.l]) +
                                  " shells have no component order in Molden files",
                              shell_atom[k].second);
        nbasis += s.nfunc();
    }
    job.nbasis = nbasis;

    for (MoldenOrbital& m : orbitals) {
        m.orb.coef.assign(static_cast<std::size_t>(nbasis), 0.0);
        for (const auto& [idx, v] : m.entries) {
            if (idx < 1 || idx > nbasis)
                throw ImportError("basis function " + std::to_string(idx) + " does not exist (the basis has " +
                                      std::to_string(nbasis) + ")",
                                  m.line);
            m.orb.coef[static_cast<std::size_t>(idx - 1)] = v;
        }
        (m.beta ? job.beta : job.alpha).push_back(std::move(m.orb));
    }
    if (job.alpha.empty()) throw ImportError("the [MO] section has no alpha orbitals", 0);
    return job;
}

}  // namespace kvx::import
