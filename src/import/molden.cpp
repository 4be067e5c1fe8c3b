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
#include "moldata/symbols.h"

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

std::vector<Convention> molden_conventions(bool orca_first) {
    const Convention standard{"Molden (normalised primitives, each cartesian function normalised)",
                              CartesianNorm::EachFunction, false, false};
    const Convention axis{"Molden with cartesian functions normalised all like x^l (psi4)",
                          CartesianNorm::LikeAxis, false, false};
    const Convention orca{"ORCA (unnormalised primitives; f and g functions with |m| = 3, 4 negated)",
                          CartesianNorm::EachFunction, true, true};
    const Convention raw{"Molden with contraction coefficients of unnormalised primitives (NWChem)", CartesianNorm::EachFunction, true, false};
    if (orca_first) return {orca, standard, axis, raw};
    return {standard, axis, raw, orca};
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
    std::vector<std::string> atom_names;           // first column of [Atoms]
    std::vector<long> atom_numbers;                // second column of [Atoms]
    long natoms_stated = -1;                       // [N_Atoms]
    int natoms_line = 0;
    std::string writer;                            // [Title] and [Program] text, lower case
    // Valence charges of atoms with effective core potentials: [Nval]
    // "element charge", [Pseudo] "name number charge".
    std::vector<std::pair<std::string, double>> nval;
    std::map<long, double> pseudo;

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
            const std::string unit = lower(rest);  // "AU", "(AU)", "Bohr"; "Angs" or nothing: angstrom
            const double scale =
                unit.find("au") != std::string::npos || unit.find("bohr") != std::string::npos ? 1.0 : kBohrPerAngstrom;
            for (; i < n && section_name(lines[static_cast<std::size_t>(i)]).empty(); ++i) {
                const auto t = tokens(lines[static_cast<std::size_t>(i)]);
                if (t.empty()) continue;
                if (t.size() < 6)
                    throw ImportError("expected an atom line \"name number atomic-number x y z\", found \"" +
                                          trim(lines[static_cast<std::size_t>(i)]) + "\"",
                                      i + 1);
                SourceAtom a;
                const long num = integer(t[1], i + 1, "the atom's number");
                const long z = whole(t[2], i + 1, "the atomic number");
                if (z < 0 || z > 118) throw ImportError("atomic number " + t[2] + " out of range", i + 1);
                a.atomic_number = static_cast<int>(z);
                a.nuclear_charge = static_cast<double>(z);
                a.x = number(t[3], i + 1, "a coordinate") * scale;
                a.y = number(t[4], i + 1, "a coordinate") * scale;
                a.z = number(t[5], i + 1, "a coordinate") * scale;
                if (!atom_index.emplace(num, static_cast<int>(job.atoms.size())).second)
                    throw ImportError("atom number " + t[1] + " appears twice", i + 1);
                job.atoms.push_back(a);
                atom_names.push_back(lower(t[0]));
                atom_numbers.push_back(num);
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
                if (std::isdigit(static_cast<unsigned char>(t[0][0]))) {  // "atom-number 0", "atom-number"
                    atom = integer(t[0], i + 1, "an atom number");
                    if (t.size() > 2 || (t.size() == 2 && integer(t[1], i + 1, "0 after the atom number") != 0))
                        throw ImportError("expected \"atom-number 0\" or a shell line, found \"" +
                                              trim(lines[static_cast<std::size_t>(i)]) + "\"",
                                          i + 1);
                    ++i;
                    continue;
                }
                const std::string label = lower(t[0]);
                if (t.size() < 2) throw ImportError("expected a shell line \"label primitive-count\", found \"" + t[0] + "\"", i + 1);
                if (atom < 0) throw ImportError("a shell comes before the number of its atom", i + 1);
                SourceShell s;
                s.sp = label == "sp" || label == "l";
                s.l = s.sp ? 1 : shell_l(label);
                if (s.l < 0) throw ImportError("unknown shell label \"" + t[0] + "\"", i + 1);
                const long nprim = integer(t[1], i + 1, "a primitive count");
                if (nprim < 1 || nprim > n - i - 1) throw ImportError("primitive count " + t[1] + " does not fit the file", i + 1);
                // The third field is an obsolete scale factor of the exponents:
                // writers put 1.00, 0 (meaning none) or nothing.
                double scale = t.size() >= 3 ? number(t[2], i + 1, "a scale factor") : 1.0;
                if (scale == 0) scale = 1.0;
                if (scale < 0) throw ImportError("expected a positive scale factor (or 0), found \"" + t[2] + "\"", i + 1);
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
        } else if (name == "title" || name == "program") {
            writer += ' ';
            writer += lower(rest);
            for (; i < n && section_name(lines[static_cast<std::size_t>(i)]).empty(); ++i) {
                writer += ' ';
                writer += lower(lines[static_cast<std::size_t>(i)]);
            }
        } else if (name == "n_atoms") {
            for (; i < n && section_name(lines[static_cast<std::size_t>(i)]).empty(); ++i) {
                const auto t = tokens(lines[static_cast<std::size_t>(i)]);
                if (t.empty()) continue;
                if (natoms_stated >= 0 || t.size() != 1)
                    throw ImportError("expected one atom count under [N_Atoms], found \"" +
                                          trim(lines[static_cast<std::size_t>(i)]) + "\"",
                                      i + 1);
                natoms_stated = integer(t[0], i + 1, "the number of atoms");
                natoms_line = i + 1;
            }
        } else if (name == "nval" || name == "pseudo") {
            for (; i < n && section_name(lines[static_cast<std::size_t>(i)]).empty(); ++i) {
                const auto t = tokens(lines[static_cast<std::size_t>(i)]);
                if (t.empty()) continue;
                if (name == "nval") {
                    if (t.size() != 2) throw ImportError("expected \"element valence-charge\" under [Nval]", i + 1);
                    nval.emplace_back(lower(t[0]), number(t[1], i + 1, "a valence charge"));
                } else {
                    if (t.size() != 3) throw ImportError("expected \"name atom-number valence-charge\" under [Pseudo]", i + 1);
                    pseudo[integer(t[1], i + 1, "an atom number")] = number(t[2], i + 1, "a valence charge");
                }
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
                auto t = tokens(line);
                if (t.empty()) continue;
                if (!cur) throw ImportError("a coefficient comes before its orbital's Sym=, Ene=, Spin= or Occup= lines", i + 1);
                if (t.size() == 1) {  // "12-0.5": number and negative value run together
                    const std::size_t cut = t[0].find('-', 1);
                    if (cut != std::string::npos) t = {t[0].substr(0, cut), t[0].substr(cut)};
                }
                if (t.size() < 2)
                    throw ImportError("expected a coefficient line \"function-number value\", found \"" + trim(line) + "\"",
                                      i + 1);
                const long idx = integer(t[0], i + 1, "a basis function number");
                cur->entries.emplace_back(idx, number(t[1], i + 1, "a coefficient"));
            }
        }
    }
    if (!saw_atoms || job.atoms.empty()) throw ImportError("no [Atoms] section with atoms", 0);
    if (!saw_gto || job.shells.empty()) throw ImportError("no [GTO] section with shells", 0);
    if (!saw_mo || orbitals.empty()) throw ImportError("no [MO] section with orbitals", 0);
    if (natoms_stated >= 0 && natoms_stated != static_cast<long>(job.atoms.size()))
        throw ImportError("[N_Atoms] states " + std::to_string(natoms_stated) + " atoms, [Atoms] lists " +
                              std::to_string(job.atoms.size()),
                          natoms_line);
    for (std::size_t a = 0; a < job.atoms.size(); ++a) {
        SourceAtom& at = job.atoms[a];
        std::string element;  // "O1", "o_2" -> "o"
        for (char c : atom_names[a]) {
            if (!std::isalpha(static_cast<unsigned char>(c)) || element.size() == 2) break;
            element += c;
        }
        // Writers that put the valence charge of an atom with an effective
        // core potential where the atomic number belongs (psi4: "I 1 25")
        // still name the element; the difference is a usual core size.
        const int named = element.empty() ? 0 : moldata::atomic_number(element);
        static const int kCores[] = {2, 10, 18, 28, 36, 46, 54, 60, 68, 78, 92};
        if (named <= 103 && std::find(std::begin(kCores), std::end(kCores), named - at.atomic_number) != std::end(kCores))
            at.atomic_number = named;
        for (const auto& [sym, q] : nval)
            if (sym == element || sym == atom_names[a]) at.nuclear_charge = q;
        if (const auto it = pseudo.find(atom_numbers[a]); it != pseudo.end()) at.nuclear_charge = it->second;
    }

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
    job.conventions = molden_conventions(writer.find("orca") != std::string::npos);
    return job;
}

}  // namespace kvx::import
