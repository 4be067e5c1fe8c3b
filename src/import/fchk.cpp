// Formatted checkpoint files: named scalars and arrays, one header line each
// ("Name   I   5" or "Name   R   N=   12" followed by the values).
#include <cctype>
#include <cmath>
#include <map>

#include "import/readers.h"
#include "import/text.h"

namespace kvx::import {

namespace {

struct Entry {
    char type = 0;  // I, R, C, L or H
    int line = 0;   // of the header
    bool array = false;
    std::vector<double> values;  // numeric entries only
};

using Entries = std::map<std::string, Entry>;

bool is_header(const std::string& line) { return !line.empty() && !std::isspace(static_cast<unsigned char>(line[0])); }

Entries parse_entries(const std::vector<std::string>& lines) {
    Entries out;
    const int n = static_cast<int>(lines.size());
    int i = 2;  // title and job type lines
    while (i < n) {
        const std::string& line = lines[static_cast<std::size_t>(i)];
        if (!is_header(line)) {
            if (!trim(line).empty()) throw ImportError("values outside any named entry", i + 1);
            ++i;
            continue;
        }
        const auto t = tokens(line);
        Entry e;
        e.line = i + 1;
        std::size_t name_end;
        long count = 1;
        if (t.size() >= 4 && t[t.size() - 2] == "N=") {
            e.array = true;
            name_end = t.size() - 3;
            count = integer(t.back(), i + 1, "an array length");
            if (count < 0) throw ImportError("negative array length", i + 1);
        } else if (t.size() >= 3) {
            name_end = t.size() - 2;
        } else {
            throw ImportError("not an entry header: \"" + trim(line) + "\"", i + 1);
        }
        const std::string& type = t[name_end];
        if (type.size() != 1 || std::string("IRCLH").find(type[0]) == std::string::npos)
            throw ImportError("unknown entry type \"" + type + "\"", i + 1);
        e.type = type[0];
        std::string name;
        for (std::size_t k = 0; k < name_end; ++k) name += (k ? " " : "") + t[k];
        ++i;
        const bool numeric = e.type == 'I' || e.type == 'R';
        // Integer entries are read as integers, never cast from a real number.
        const std::string integer_what = "an integer (\"" + name + "\")";
        auto value = [&](const std::string& tok, int line_no) {
            return e.type == 'I' ? static_cast<double>(integer(tok, line_no, integer_what.c_str()))
                                 : number(tok, line_no, "a number");
        };
        if (!e.array) {
            if (numeric) e.values.push_back(value(t.back(), e.line));
        } else {
            // Values until the next header; count them against N=.
            for (; i < n && !is_header(lines[static_cast<std::size_t>(i)]); ++i) {
                if (!numeric) continue;
                for (const auto& v : tokens(lines[static_cast<std::size_t>(i)])) {
                    if (static_cast<long>(e.values.size()) >= count)
                        throw ImportError("\"" + name + "\" holds more than its " + std::to_string(count) + " values", i + 1);
                    e.values.push_back(value(v, i + 1));
                }
            }
            if (numeric && static_cast<long>(e.values.size()) != count)
                throw ImportError("\"" + name + "\" announces " + std::to_string(count) + " values and holds " +
                                      std::to_string(e.values.size()),
                                  e.line);
        }
        out[name] = std::move(e);
    }
    return out;
}

const Entry& need(const Entries& es, const std::string& name) {
    const auto it = es.find(name);
    if (it == es.end()) throw ImportError("no \"" + name + "\" entry", 0);
    return it->second;
}

// Values of integer entries were read as 32-bit integers: exact in a double.
int need_int(const Entries& es, const std::string& name) {
    const Entry& e = need(es, name);
    if (e.values.size() != 1 || e.type != 'I') throw ImportError("\"" + name + "\" should be one integer", e.line);
    return static_cast<int>(e.values[0]);
}

// An integer from an array: exact when the entry is an integer one; a real
// entry in its place must hold whole numbers of 32 bits.
int as_int(const Entry& e, double v) {
    if (e.type != 'I' && (v != std::floor(v) || std::fabs(v) > 2147483647.0))
        throw ImportError("expected integers, found " + std::to_string(v) + ": not an integer", e.line);
    return static_cast<int>(v);
}

}  // namespace

CartesianConvention fchk_cartesian_order() {
    CartesianConvention c;
    c.order.resize(7);
    c.order[0] = {{0, 0, 0}};
    c.order[1] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    c.order[2] = {{2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {1, 1, 0}, {1, 0, 1}, {0, 1, 1}};
    c.order[3] = {{3, 0, 0}, {0, 3, 0}, {0, 0, 3}, {1, 2, 0}, {2, 1, 0},
                  {2, 0, 1}, {1, 0, 2}, {0, 1, 2}, {0, 2, 1}, {1, 1, 1}};
    // g and higher: x exponent ascending, then y ascending (zzzz, yzzz, ... xxxx).
    for (int l = 4; l <= 6; ++l)
        for (int x = 0; x <= l; ++x)
            for (int y = 0; y <= l - x; ++y) c.order[static_cast<std::size_t>(l)].push_back({x, y, l - x - y});
    return c;
}

SourceJob read_fchk(const std::vector<std::string>& lines) {
    const Entries es = parse_entries(lines);
    SourceJob job;
    job.format = "formatted checkpoint";
    job.cartesian = fchk_cartesian_order();
    job.conventions = {{"formatted checkpoint (each cartesian function normalised)", CartesianNorm::EachFunction},
                       {"formatted checkpoint with cartesian functions normalised all like x^l", CartesianNorm::LikeAxis}};

    const Entry& zs = need(es, "Atomic numbers");
    const Entry& xyz = need(es, "Current cartesian coordinates");
    const std::size_t natoms = zs.values.size();
    if (natoms == 0) throw ImportError("no atoms", zs.line);
    if (xyz.values.size() != 3 * natoms)
        throw ImportError("the coordinates do not match the " + std::to_string(natoms) + " atoms", xyz.line);
    const auto charges = es.find("Nuclear charges");
    if (charges != es.end() && charges->second.values.size() != natoms)
        throw ImportError("the nuclear charges do not match the atoms", charges->second.line);
    for (std::size_t a = 0; a < natoms; ++a) {
        SourceAtom at;
        at.atomic_number = as_int(zs, zs.values[a]);
        if (at.atomic_number < 0 || at.atomic_number > 118) throw ImportError("atomic number out of range", zs.line);
        at.nuclear_charge = charges != es.end() ? charges->second.values[a] : at.atomic_number;
        at.x = xyz.values[3 * a];
        at.y = xyz.values[3 * a + 1];
        at.z = xyz.values[3 * a + 2];
        job.atoms.push_back(at);
    }

    const Entry& types = need(es, "Shell types");
    const Entry& nprims = need(es, "Number of primitives per shell");
    const Entry& map = need(es, "Shell to atom map");
    const Entry& exps = need(es, "Primitive exponents");
    const Entry& coefs = need(es, "Contraction coefficients");
    const std::size_t nshell = types.values.size();
    if (nprims.values.size() != nshell || map.values.size() != nshell)
        throw ImportError("shell types, primitive counts and the shell-to-atom map differ in length", types.line);
    const Entry* sp = nullptr;
    std::size_t p0 = 0;
    for (std::size_t s = 0; s < nshell; ++s) {
        SourceShell sh;
        const int t = as_int(types, types.values[s]);
        sh.sp = t == -1;
        sh.l = sh.sp ? 1 : std::abs(t);
        sh.pure = t <= -2;
        if (sh.l > 6) throw ImportError("shell type " + std::to_string(t) + " is not supported (at most i, l = 6)", types.line);
        const int atom = as_int(map, map.values[s]);
        if (atom < 1 || atom > static_cast<int>(natoms))
            throw ImportError("a shell sits on atom " + std::to_string(atom) + ", which does not exist", map.line);
        sh.atom = atom - 1;
        const int np = as_int(nprims, nprims.values[s]);
        if (np < 1 || p0 + static_cast<std::size_t>(np) > exps.values.size() ||
            p0 + static_cast<std::size_t>(np) > coefs.values.size())
            throw ImportError("the primitive counts run past the exponents or coefficients", nprims.line);
        if (sh.sp && !sp) {
            sp = &need(es, "P(S=P) Contraction coefficients");
            if (sp->values.size() != exps.values.size())
                throw ImportError("the P(S=P) coefficients do not match the exponents", sp->line);
        }
        for (int p = 0; p < np; ++p, ++p0) {
            if (!(exps.values[p0] > 0)) throw ImportError("exponents must be positive", exps.line);
            sh.exponents.push_back(exps.values[p0]);
            sh.coefs.push_back(coefs.values[p0]);
            if (sh.sp) sh.coefs_p.push_back(sp->values[p0]);
        }
        job.nbasis += sh.nfunc();
        job.shells.push_back(std::move(sh));
    }
    if (p0 != exps.values.size()) throw ImportError("the primitive counts do not add up to the exponents", nprims.line);

    const int nbf = need_int(es, "Number of basis functions");
    if (nbf != job.nbasis)
        throw ImportError("the shells give " + std::to_string(job.nbasis) + " basis functions, the file says " +
                              std::to_string(nbf),
                          need(es, "Number of basis functions").line);
    const int na = need_int(es, "Number of alpha electrons");
    const int nb = need_int(es, "Number of beta electrons");
    if (na < 0 || nb < 0) throw ImportError("negative electron count", need(es, "Number of alpha electrons").line);
    job.charge = es.count("Charge") ? need_int(es, "Charge") : 0;
    if (es.count("Multiplicity")) job.multiplicity = need_int(es, "Multiplicity");

    const bool unrestricted = es.count("Beta MO coefficients") > 0;
    auto orbitals = [&](const char* coef_name, const char* energy_name, auto occupation) {
        const Entry& c = need(es, coef_name);
        const Entry& e = need(es, energy_name);
        const std::size_t nmo = e.values.size();
        if (nmo == 0 || c.values.size() != nmo * static_cast<std::size_t>(job.nbasis))
            throw ImportError(std::string("\"") + coef_name + "\" does not hold " + std::to_string(nmo) + " orbitals of " +
                                  std::to_string(job.nbasis) + " coefficients",
                              c.line);
        std::vector<SourceOrbital> set(nmo);
        for (std::size_t k = 0; k < nmo; ++k) {
            set[k].energy = e.values[k];
            set[k].occupation = occupation(static_cast<int>(k));
            set[k].coef.assign(c.values.begin() + static_cast<std::ptrdiff_t>(k * job.nbasis),
                               c.values.begin() + static_cast<std::ptrdiff_t>((k + 1) * job.nbasis));
        }
        return set;
    };
    if (unrestricted) {
        job.alpha = orbitals("Alpha MO coefficients", "Alpha Orbital Energies", [&](int k) { return k < na ? 1.0 : 0.0; });
        job.beta = orbitals("Beta MO coefficients", "Beta Orbital Energies", [&](int k) { return k < nb ? 1.0 : 0.0; });
        if (static_cast<int>(job.alpha.size()) < na || static_cast<int>(job.beta.size()) < nb)
            throw ImportError("fewer orbitals than electrons", need(es, "Alpha MO coefficients").line);
        job.nalpha = na;
        job.nbeta = nb;
    } else {
        // One set for both spins: doubly occupied, then singly occupied orbitals.
        job.alpha = orbitals("Alpha MO coefficients", "Alpha Orbital Energies",
                             [&](int k) { return (k < na ? 1.0 : 0.0) + (k < nb ? 1.0 : 0.0); });
        if (static_cast<int>(job.alpha.size()) < std::max(na, nb))
            throw ImportError("fewer orbitals than electrons", need(es, "Alpha MO coefficients").line);
        job.nalpha = std::max(na, nb);
        job.nbeta = std::min(na, nb);
    }
    return job;
}

SourceFormat detect_format(const std::vector<std::string>& lines) {
    for (std::size_t i = 0; i < lines.size() && i < 12; ++i) {
        const auto t = tokens(lines[i]);
        if (t.size() >= 5 && t[0] == "Number" && t[1] == "of" && t[2] == "atoms" && t[3] == "I") return SourceFormat::Fchk;
    }
    if (lines.size() > 1 && lines[1].find("MOL ORBITALS") != std::string::npos &&
        lines[1].find("PRIMITIVES") != std::string::npos)
        return SourceFormat::Wfn;
    for (std::size_t i = 0; i < lines.size() && i < 200; ++i)
        if (trim(lines[i]) == "<Number of Nuclei>" || trim(lines[i]) == "<Keywords>") return SourceFormat::Wfx;
    for (const std::string& line : lines) {
        const std::string t = lower(trim(line));
        if (t.rfind("[molden format]", 0) == 0 || t.rfind("[atoms]", 0) == 0 || t.rfind("[gto]", 0) == 0)
            return SourceFormat::Molden;
    }
    return SourceFormat::Unknown;
}

}  // namespace kvx::import
