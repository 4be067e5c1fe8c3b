// AIM wavefunction files (.wfn and its XML-like successor .wfx): nuclei,
// primitive Gaussians (centre, cartesian type, exponent) and orbital
// coefficients over the unnormalised primitives. The primitives of one
// centre, angular momentum and exponent become one uncontracted cartesian
// shell.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <map>
#include <tuple>

#include "import/readers.h"
#include "import/text.h"
#include "moldata/symbols.h"

namespace kvx::import {

namespace {

constexpr int kMaxAimType = 35;  // s to g

// Cartesian exponents of AIM primitive types 1..35 (s, p, d, f, g).
gauss::CartExp aim_type(int type) {
    static const char* const kTypes[kMaxAimType] = {
        "",     "x",    "y",    "z",    "xx",   "yy",   "zz",   "xy",   "xz",   "yz",   "xxx",  "yyy",
        "zzz",  "xxy",  "xxz",  "yyz",  "xyy",  "xzz",  "yzz",  "xyz",  "xxxx", "yyyy", "zzzz", "xxxy",
        "xxxz", "xyyy", "yyyz", "xzzz", "yzzz", "xxyy", "xxzz", "yyzz", "xxyz", "xyyz", "xyzz"};
    gauss::CartExp e{0, 0, 0};
    for (const char* p = kTypes[type - 1]; *p; ++p) {
        if (*p == 'x') ++e.x;
        if (*p == 'y') ++e.y;
        if (*p == 'z') ++e.z;
    }
    return e;
}

struct AimOrbital {
    double occupation = 0, energy = 0;
    int spin = 0;  // 0 alpha and beta (or unknown), 1 alpha, 2 beta
    int number = 0;  // as the file numbers it
    int line = 0;
    std::vector<double> coef;  // over the primitives
};

struct AimData {
    std::vector<SourceAtom> atoms;
    std::vector<int> centres, types;  // per primitive: 1-based centre, AIM type
    std::vector<double> exponents;
    std::vector<AimOrbital> orbitals;
    int line_primitives = 0;  // where the primitives are listed
};

// |x^a y^b z^c exp(-e r^2)| = sqrt((2a-1)!! (2b-1)!! (2c-1)!! / (4e)^l (pi / 2e)^(3/2)).
double primitive_norm(gauss::CartExp c, double e) {
    double df = 1;
    for (int n : {c.x, c.y, c.z})
        for (int k = 2 * n - 1; k > 1; k -= 2) df *= k;
    const int l = c.x + c.y + c.z;
    return std::sqrt(df / std::pow(4 * e, l) * std::pow(M_PI / (2 * e), 1.5));
}

// The source job: one cartesian shell per centre, l and exponent (Kalvex's
// component order), orbital coefficients of the normalised functions.
SourceJob aim_job(AimData& d, const char* format) {
    SourceJob job;
    job.format = format;
    job.atoms = d.atoms;
    job.cartesian.order.resize(5);
    for (int l = 0; l <= 4; ++l)
        for (int k = 0; k < (l + 1) * (l + 2) / 2; ++k)
            job.cartesian.order[static_cast<std::size_t>(l)].push_back(gauss::cart_exponents(l, k));
    job.conventions = {{"AIM primitives (unnormalised cartesian Gaussians), uncontracted shells"}};

    const std::size_t np = d.exponents.size();
    std::map<std::tuple<int, int, double>, int> shell_of;  // (centre, l, exponent) -> shell
    std::vector<int> function_of(np);                        // primitive -> source function
    std::vector<double> scale(np);
    std::vector<int> first;
    for (std::size_t p = 0; p < np; ++p) {
        const int c = d.centres[p], t = d.types[p];
        if (c < 1 || c > static_cast<int>(d.atoms.size()))
            throw ImportError("primitive " + std::to_string(p + 1) + " sits on centre " + std::to_string(c) +
                                  ", which does not exist",
                              d.line_primitives);
        if (t < 1 || t > kMaxAimType)
            throw ImportError("primitive " + std::to_string(p + 1) + " has type " + std::to_string(t) +
                                  "; types 1 to 35 (s to g functions) are supported",
                              d.line_primitives);
        if (!(d.exponents[p] > 0))
            throw ImportError("primitive " + std::to_string(p + 1) + " has a non-positive exponent", d.line_primitives);
        const gauss::CartExp e = aim_type(t);
        const int l = e.x + e.y + e.z;
        const auto key = std::make_tuple(c, l, d.exponents[p]);
        auto it = shell_of.find(key);
        if (it == shell_of.end()) {
            SourceShell s;
            s.atom = c - 1;
            s.l = l;
            s.exponents = {d.exponents[p]};
            s.coefs = {1.0};
            it = shell_of.emplace(key, static_cast<int>(job.shells.size())).first;
            first.push_back(job.nbasis);
            job.nbasis += s.nfunc();
            job.shells.push_back(std::move(s));
        }
        int k = 0;
        while (gauss::cart_exponents(l, k).x != e.x || gauss::cart_exponents(l, k).y != e.y) ++k;
        function_of[p] = first[static_cast<std::size_t>(it->second)] + k;
        scale[p] = primitive_norm(e, d.exponents[p]);
    }
    // Primitives repeated across contractions are one function: their
    // coefficients add.
    auto convert = [&](const AimOrbital& o) {
        SourceOrbital s;
        s.energy = o.energy;
        s.occupation = o.occupation;
        s.coef.assign(static_cast<std::size_t>(job.nbasis), 0.0);
        for (std::size_t p = 0; p < np; ++p) s.coef[static_cast<std::size_t>(function_of[p])] += o.coef[p] * scale[p];
        return s;
    };
    const bool unrestricted =
        std::any_of(d.orbitals.begin(), d.orbitals.end(), [](const AimOrbital& o) { return o.spin == 2; });
    for (const AimOrbital& o : d.orbitals) {
        if (!unrestricted || o.spin != 2) job.alpha.push_back(convert(o));
        if (unrestricted && o.spin != 1) job.beta.push_back(convert(o));
        if (unrestricted && o.spin == 0) job.alpha.back().occupation = job.beta.back().occupation = o.occupation / 2;
    }
    if (job.alpha.empty()) throw ImportError("the file holds no orbitals", 0);
    return job;
}

// Fixed-width fields of `width` characters from column `start`, or the
// whitespace-separated tokens when those do not all read as numbers.
std::vector<std::string> fields(const std::string& line, std::size_t start, std::size_t width) {
    std::vector<std::string> out;
    bool ok = true;
    for (std::size_t at = start; at < line.size() && ok; at += width) {
        const std::string f = trim(line.substr(at, width));
        if (f.empty()) continue;
        char* end = nullptr;
        std::string g = f;
        for (char& ch : g)
            if (ch == 'D' || ch == 'd') ch = 'E';
        std::strtod(g.c_str(), &end);
        ok = *end == '\0';
        out.push_back(f);
    }
    return ok ? out : tokens(line.substr(std::min(start, line.size())));
}

// The number after `key` on the line, e.g. "OCC NO =".
double value_after(const std::string& line, const char* key, int line_no, const char* what) {
    const std::size_t at = line.find(key);
    if (at == std::string::npos) throw ImportError(std::string("expected \"") + key + "\" on the line", line_no);
    const auto t = tokens(line.substr(at + std::strlen(key)));
    if (t.empty()) throw ImportError(std::string("expected ") + what + " after \"" + key + "\"", line_no);
    return number(t[0], line_no, what);
}

}  // namespace

// title; "GAUSSIAN  nmo MOL ORBITALS  nprim PRIMITIVES  natom NUCLEI"; one
// line per nucleus "name n (CENTRE n) x y z CHARGE = q"; "CENTRE
// ASSIGNMENTS" and "TYPE ASSIGNMENTS" (20 I3 after column 20); "EXPONENTS"
// (5 D14.7 after column 10); per orbital "MO n ... OCC NO = o ORB. ENERGY = e"
// and 5 E16.8 per line; "END DATA".
SourceJob read_wfn(const std::vector<std::string>& lines) {
    const int n = static_cast<int>(lines.size());
    int i = 0;
    while (i < n && lines[static_cast<std::size_t>(i)].find("MOL ORBITALS") == std::string::npos) ++i;
    if (i >= n) throw ImportError("expected the line \"GAUSSIAN ... MOL ORBITALS ... PRIMITIVES ... NUCLEI\"", 2);
    const auto head = tokens(lines[static_cast<std::size_t>(i)]);
    if (head.size() < 8) throw ImportError("expected \"GAUSSIAN nmo MOL ORBITALS nprim PRIMITIVES natom NUCLEI\"", i + 1);
    const long nmo = integer(head[1], i + 1, "the number of orbitals");
    const long nprim = integer(head[4], i + 1, "the number of primitives");
    const long natom = integer(head[6], i + 1, "the number of nuclei");
    if (nmo < 1 || nprim < 1 || natom < 1 || nprim > 10000000 || natom > 100000 ||
        nmo * nprim > 200000000L)
        throw ImportError("implausible counts of orbitals, primitives or nuclei", i + 1);
    ++i;

    AimData d;
    auto need_line = [&](const char* what) -> const std::string& {
        if (i >= n) throw ImportError(std::string("the file ends where ") + what + " should follow", n);
        return lines[static_cast<std::size_t>(i)];
    };
    for (long a = 0; a < natom; ++a, ++i) {
        const std::string& line = need_line("a nucleus line");
        const std::size_t close = line.find(')'), charge = line.find("CHARGE");
        if (line.find("(CENTRE") == std::string::npos || close == std::string::npos || charge == std::string::npos ||
            charge < close)
            throw ImportError("expected a nucleus line \"name n (CENTRE n) x y z CHARGE = q\"", i + 1);
        const auto xyz = fields(line.substr(0, charge), close + 1, 12);
        if (xyz.size() != 3) throw ImportError("expected three coordinates after \"(CENTRE n)\"", i + 1);
        SourceAtom at;
        at.x = number(xyz[0], i + 1, "a coordinate");
        at.y = number(xyz[1], i + 1, "a coordinate");
        at.z = number(xyz[2], i + 1, "a coordinate");
        at.nuclear_charge = value_after(line, "CHARGE =", i + 1, "a nuclear charge");
        std::string sym;
        for (char c : trim(line).substr(0, 2))
            if (std::isalpha(static_cast<unsigned char>(c))) sym += c;
        at.atomic_number = moldata::atomic_number(sym);
        if (at.atomic_number == 0) throw ImportError("unknown element \"" + sym + "\"", i + 1);
        d.atoms.push_back(at);
    }
    auto read_list = [&](const char* label, std::size_t start, std::size_t width, long count, auto store) {
        d.line_primitives = i + 1;
        long got = 0;
        while (got < count) {
            const std::string& line = need_line(label);
            if (line.rfind(label, 0) != 0) throw ImportError(std::string("expected a line \"") + label + " ...\"", i + 1);
            for (const std::string& f : fields(line, start, width)) {
                if (got >= count) throw ImportError(std::string("more ") + label + " values than primitives", i + 1);
                store(f, i + 1);
                ++got;
            }
            ++i;
        }
    };
    read_list("CENTRE ASSIGNMENTS", 20, 3, nprim,
              [&](const std::string& f, int ln) { d.centres.push_back(static_cast<int>(integer(f, ln, "a centre number"))); });
    read_list("TYPE ASSIGNMENTS", 20, 3, nprim,
              [&](const std::string& f, int ln) { d.types.push_back(static_cast<int>(integer(f, ln, "a primitive type"))); });
    const int exp_line = i + 1;
    read_list("EXPONENTS", 10, 14, nprim, [&](const std::string& f, int ln) { d.exponents.push_back(number(f, ln, "an exponent")); });
    d.line_primitives = exp_line;

    for (long k = 0; k < nmo; ++k) {
        const std::string& line = need_line("an orbital");
        if (line.rfind("MO", 0) != 0) throw ImportError("expected an orbital line \"MO n ... OCC NO = ... ORB. ENERGY = ...\"", i + 1);
        AimOrbital o;
        o.line = i + 1;
        o.occupation = value_after(line, "OCC NO =", i + 1, "an occupation");
        o.energy = value_after(line, "ENERGY =", i + 1, "an orbital energy");
        const auto num = tokens(line.substr(2));
        if (num.empty()) throw ImportError("expected the orbital's number after \"MO\"", i + 1);
        o.number = static_cast<int>(whole(num[0], i + 1, "the orbital number"));
        ++i;
        while (static_cast<long>(o.coef.size()) < nprim) {
            const std::string& c = need_line("orbital coefficients");
            for (const std::string& f : fields(c, 0, 16)) {
                if (static_cast<long>(o.coef.size()) >= nprim)
                    throw ImportError("more coefficients than primitives in orbital " + std::to_string(k + 1), i + 1);
                o.coef.push_back(number(f, i + 1, "a coefficient"));
            }
            ++i;
        }
        d.orbitals.push_back(std::move(o));
    }
    if (i >= n || lines[static_cast<std::size_t>(i)].rfind("END DATA", 0) != 0)
        throw ImportError("expected \"END DATA\" after the " + std::to_string(nmo) + " orbitals", std::min(i + 1, n));

    // Spins: files of unrestricted jobs list the alpha orbitals, then the
    // beta ones, numbered afresh or (when not) in a new ascending run of
    // energies; all are occupied by at most one electron.
    const bool singly = std::all_of(d.orbitals.begin(), d.orbitals.end(),
                                    [](const AimOrbital& o) { return o.occupation <= 1 + 1e-6; });
    std::size_t beta_from = d.orbitals.size();
    if (singly)
        for (std::size_t k = 1; k < d.orbitals.size(); ++k)
            if (d.orbitals[k].number <= d.orbitals[k - 1].number || d.orbitals[k].energy < d.orbitals[k - 1].energy) {
                beta_from = k;
                break;
            }
    for (std::size_t k = 0; k < d.orbitals.size(); ++k) d.orbitals[k].spin = !singly ? 0 : k < beta_from ? 1 : 2;
    return aim_job(d, "AIM wfn");
}

// Tags "<Name>" ... "</Name>", each on a line of its own, values between.
SourceJob read_wfx(const std::vector<std::string>& lines) {
    struct Block {
        int line = 0;
        std::vector<std::string> values;  // tokens
        std::vector<int> value_lines;
    };
    std::map<std::string, Block> blocks;
    std::vector<std::pair<int, Block>> mo_blocks;  // MO number and its coefficients
    const int n = static_cast<int>(lines.size());
    std::vector<std::string> open;  // tags open, innermost last
    Block cur;
    bool in_mo_coefs = false;
    int mo_number = -1;
    for (int i = 0; i < n; ++i) {
        const std::string t = trim(lines[static_cast<std::size_t>(i)]);
        if (t.empty() || t.rfind("<!--", 0) == 0 || t.rfind("<?", 0) == 0) continue;
        if (t.size() > 2 && t[0] == '<' && t.back() == '>') {
            const bool closing = t[1] == '/';
            const std::string name = trim(t.substr(closing ? 2 : 1, t.size() - (closing ? 3 : 2)));
            if (name == "Molecular Orbital Primitive Coefficients") {
                in_mo_coefs = !closing;
                if (closing && mo_number > 0) mo_blocks.emplace_back(mo_number, cur);
                mo_number = -1;
                cur = Block{};
                continue;
            }
            if (in_mo_coefs && name == "MO Number") {
                if (!closing) {
                    if (mo_number > 0) mo_blocks.emplace_back(mo_number, cur);
                    cur = Block{};
                    cur.line = i + 1;
                    mo_number = 0;  // the number follows
                }
                continue;
            }
            if (in_mo_coefs) throw ImportError("unexpected tag \"" + t + "\" among the orbital coefficients", i + 1);
            if (!closing) {
                if (open.size() > 8) throw ImportError("tags nested too deep", i + 1);
                open.push_back(name);
                cur = Block{};
                cur.line = i + 1;
            } else {
                if (open.empty() || name != open.back())
                    throw ImportError("\"" + t + "\" closes no open tag" + (open.empty() ? "" : " (expected </" + open.back() + ">)"),
                                      i + 1);
                if (open.size() == 1) blocks[name] = cur;  // sections nested in others (core densities) are not used
                open.pop_back();
                cur = Block{};
            }
            continue;
        }
        if (in_mo_coefs && mo_number == 0) {
            mo_number = static_cast<int>(integer(t, i + 1, "an orbital number"));
            if (mo_number < 1) throw ImportError("orbital numbers start at 1", i + 1);
            continue;
        }
        if (open.empty() && !in_mo_coefs) throw ImportError("text outside any tag: \"" + t + "\"", i + 1);
        const std::string inner = open.empty() ? "" : open.back();
        if (inner == "Title" || inner == "Keywords" || inner == "Model" || inner == "Nuclear Names" ||
            inner == "Molecular Orbital Spin Types") {
            cur.values.push_back(t);
            cur.value_lines.push_back(i + 1);
            continue;
        }
        for (const std::string& v : tokens(t)) {
            cur.values.push_back(v);
            cur.value_lines.push_back(i + 1);
        }
    }
    if (!open.empty()) throw ImportError("the file ends inside <" + open.back() + ">", n);
    if (in_mo_coefs) throw ImportError("the file ends inside the orbital coefficients", n);

    auto need = [&](const char* name) -> const Block& {
        const auto it = blocks.find(name);
        if (it == blocks.end()) throw ImportError(std::string("no <") + name + "> section", 0);
        return it->second;
    };
    auto count = [&](const char* name) {
        const Block& b = need(name);
        if (b.values.size() != 1) throw ImportError(std::string("<") + name + "> should hold one number", b.line);
        const long v = integer(b.values[0], b.value_lines[0], name);
        if (v < 0 || v > 10000000) throw ImportError(std::string("implausible <") + name + ">", b.line);
        return v;
    };
    auto reals = [&](const char* name, std::size_t expect) {
        const Block& b = need(name);
        if (b.values.size() != expect)
            throw ImportError(std::string("<") + name + "> holds " + std::to_string(b.values.size()) + " values, expected " +
                                  std::to_string(expect),
                              b.line);
        std::vector<double> out;
        for (std::size_t k = 0; k < expect; ++k) out.push_back(number(b.values[k], b.value_lines[k], "a number"));
        return out;
    };
    const long natom = count("Number of Nuclei"), nprim = count("Number of Primitives");
    const long nmo = count("Number of Occupied Molecular Orbitals");
    if (natom < 1 || nprim < 1 || nmo < 1 || nmo * nprim > 200000000L)
        throw ImportError("implausible counts of nuclei, primitives or orbitals", need("Number of Nuclei").line);

    AimData d;
    const std::vector<double> zs = reals("Atomic Numbers", static_cast<std::size_t>(natom));
    const std::vector<double> qs = blocks.count("Nuclear Charges") ? reals("Nuclear Charges", static_cast<std::size_t>(natom)) : zs;
    const std::vector<double> xyz = reals("Nuclear Cartesian Coordinates", static_cast<std::size_t>(3 * natom));
    for (long a = 0; a < natom; ++a) {
        SourceAtom at;
        const Block& zb = need("Atomic Numbers");
        at.atomic_number = static_cast<int>(whole(zb.values[static_cast<std::size_t>(a)],
                                                  zb.value_lines[static_cast<std::size_t>(a)], "an atomic number"));
        if (at.atomic_number < 0 || at.atomic_number > 118)
            throw ImportError("atomic numbers run from 0 to 118", zb.value_lines[static_cast<std::size_t>(a)]);
        at.nuclear_charge = qs[static_cast<std::size_t>(a)];
        at.x = xyz[static_cast<std::size_t>(3 * a)];
        at.y = xyz[static_cast<std::size_t>(3 * a + 1)];
        at.z = xyz[static_cast<std::size_t>(3 * a + 2)];
        d.atoms.push_back(at);
    }
    d.line_primitives = need("Primitive Types").line;
    const std::vector<double> centres = reals("Primitive Centers", static_cast<std::size_t>(nprim));
    const std::vector<double> types = reals("Primitive Types", static_cast<std::size_t>(nprim));
    const Block& centre_block = need("Primitive Centers");
    const Block& type_block = need("Primitive Types");
    for (std::size_t p = 0; p < centres.size(); ++p) {
        d.centres.push_back(
            static_cast<int>(whole(centre_block.values[p], centre_block.value_lines[p], "a centre number")));
        d.types.push_back(static_cast<int>(whole(type_block.values[p], type_block.value_lines[p], "a primitive type")));
    }
    d.exponents = reals("Primitive Exponents", static_cast<std::size_t>(nprim));
    const std::vector<double> occ = reals("Molecular Orbital Occupation Numbers", static_cast<std::size_t>(nmo));
    const std::vector<double> ene = reals("Molecular Orbital Energies", static_cast<std::size_t>(nmo));
    const Block& spins = need("Molecular Orbital Spin Types");
    if (spins.values.size() != static_cast<std::size_t>(nmo))
        throw ImportError("<Molecular Orbital Spin Types> lists " + std::to_string(spins.values.size()) + " orbitals, expected " +
                              std::to_string(nmo),
                          spins.line);
    if (mo_blocks.size() != static_cast<std::size_t>(nmo))
        throw ImportError("<Molecular Orbital Primitive Coefficients> holds " + std::to_string(mo_blocks.size()) +
                              " orbitals, expected " + std::to_string(nmo),
                          0);
    for (long k = 0; k < nmo; ++k) {
        const auto& [num, b] = mo_blocks[static_cast<std::size_t>(k)];
        if (num != k + 1) throw ImportError("orbital " + std::to_string(num) + " out of order", b.line);
        if (b.values.size() != static_cast<std::size_t>(nprim))
            throw ImportError("orbital " + std::to_string(num) + " holds " + std::to_string(b.values.size()) +
                                  " coefficients, expected " + std::to_string(nprim),
                              b.line);
        AimOrbital o;
        o.line = b.line;
        o.occupation = occ[static_cast<std::size_t>(k)];
        o.energy = ene[static_cast<std::size_t>(k)];
        const std::string s = lower(spins.values[static_cast<std::size_t>(k)]);
        o.spin = s == "alpha and beta" ? 0 : s == "alpha" ? 1 : s == "beta" ? 2 : -1;
        if (o.spin < 0)
            throw ImportError("expected a spin type \"Alpha\", \"Beta\" or \"Alpha and Beta\", found \"" +
                                  spins.values[static_cast<std::size_t>(k)] + "\"",
                              spins.value_lines[static_cast<std::size_t>(k)]);
        for (std::size_t p = 0; p < b.values.size(); ++p) o.coef.push_back(number(b.values[p], b.value_lines[p], "a coefficient"));
        d.orbitals.push_back(std::move(o));
    }
    SourceJob job = aim_job(d, "AIM wfx");
    if (blocks.count("Net Charge")) {
        const Block& b = need("Net Charge");
        if (b.values.size() == 1) job.charge = static_cast<int>(whole(b.values[0], b.value_lines[0], "the net charge"));
    }
    if (blocks.count("Electronic Spin Multiplicity"))
        job.multiplicity = static_cast<int>(count("Electronic Spin Multiplicity"));
    return job;
}

}  // namespace kvx::import
