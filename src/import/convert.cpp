#include "import/convert.h"

#include <stdlib.h>  // mkdtemp

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "gauss/spherical.h"
#include "import/harmonics.h"
#include "import/replace.h"
#include "moldata/basis.h"
#include "moldata/orbitals.h"
#include "moldata/reader.h"
#include "moldata/symbols.h"

namespace kvx::import {

namespace fs = std::filesystem;

int kalvex_type(const SourceShell& s) {
    if (s.sp) return 3;
    switch (s.l) {
        case 0: return 1;
        case 1: return 2;
        case 2: return s.pure ? 4 : 5;
        case 3: return 7;
        case 4: return 8;
        case 5: return 9;
        case 6: return 10;
        default:
            throw ImportError("shells of angular momentum " + std::to_string(s.l) + " are not supported (at most i, l = 6)",
                              0);
    }
}

int shell_monomials(const SourceShell& s) { return s.sp ? 4 : cart_count(s.l); }

std::vector<double> source_functions(const SourceShell& s, const CartesianConvention& order, const Convention& conv) {
    const int nm = shell_monomials(s);
    const int nf = s.nfunc();
    std::vector<double> T(static_cast<std::size_t>(nf) * nm, 0.0);
    if (s.sp) {  // s, px, py, pz: each normalised already
        for (int k = 0; k < 4; ++k) T[static_cast<std::size_t>(k) * nm + k] = 1.0;
        return T;
    }
    if (s.pure && s.l >= 2) {
        T = solid_harmonics(s.l);
        if (conv.negate_m34 && (s.l == 3 || s.l == 4))
            for (int row = 5; row < (s.l == 3 ? 7 : 9); ++row)  // rows 5, 6: m = +3, -3; 7, 8: m = +4, -4
                for (int c = 0; c < nm; ++c) T[static_cast<std::size_t>(row) * nm + c] *= -1;
        return T;
    }
    if (s.l >= static_cast<int>(order.order.size()) || order.order[static_cast<std::size_t>(s.l)].empty())
        throw ImportError("cartesian shells of angular momentum " + std::to_string(s.l) +
                              " have no defined component order in this format",
                          0);
    const auto& comps = order.order[static_cast<std::size_t>(s.l)];
    for (int m = 0; m < nf; ++m) {
        const gauss::CartExp e = comps[static_cast<std::size_t>(m)];
        const gauss::CartExp unit = conv.cartesian == CartesianNorm::EachFunction ? e : gauss::CartExp{s.l, 0, 0};
        T[static_cast<std::size_t>(m) * nm + cart_index(e)] = 1.0 / std::sqrt(monomial_overlap(unit, unit));
    }
    return T;
}

std::vector<double> normalised_coefs(const std::vector<double>& coefs, const std::vector<double>& exponents, int l,
                                     const Convention& conv) {
    if (!conv.raw_primitives) return coefs;
    std::vector<double> out(coefs.size());
    for (std::size_t p = 0; p < coefs.size(); ++p) out[p] = coefs[p] * std::pow(exponents[p], -(2.0 * l + 3.0) / 4.0);
    return out;
}

std::vector<double> kalvex_functions(int type) {
    const int l = gauss::kAngular[type];
    const int nm = type == 3 ? 4 : cart_count(l);
    const int nk = gauss::kShellSize[type];
    std::vector<double> K(static_cast<std::size_t>(nk) * nm, 0.0);
    // A component carries F a^(l/2) where a normalised x^c R would carry
    // 2^l a^(l/2) (s and p: F = 2^l), so it is F / 2^l times x^c R.
    const double scale = type == 3 ? 1.0 : gauss::kNormF[type] / std::ldexp(1.0, l);
    std::vector<double> unit(static_cast<std::size_t>(nm)), row(static_cast<std::size_t>(nk));
    for (int c = 0; c < nm; ++c) {
        std::fill(unit.begin(), unit.end(), 0.0);
        unit[static_cast<std::size_t>(c)] = 1.0;
        gauss::spherical_combine(type, unit.data(), row.data());
        for (int k = 0; k < nk; ++k) K[static_cast<std::size_t>(k) * nm + c] = scale * row[static_cast<std::size_t>(k)];
    }
    return K;
}

std::vector<double> coefficient_map(const std::vector<double>& T, int nsrc, const std::vector<double>& K, int nk,
                                    int nmono) {
    const std::size_t ns = static_cast<std::size_t>(nsrc), n = static_cast<std::size_t>(nk),
                      nm = static_cast<std::size_t>(nmono);
    // M^T = (K K^T)^-1 K T^T: Gauss-Jordan elimination on [K K^T | K T^T].
    std::vector<double> A(n * n, 0.0), B(n * ns, 0.0);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t c = 0; c < nm; ++c) {
            for (std::size_t j = 0; j < n; ++j) A[i * n + j] += K[i * nm + c] * K[j * nm + c];
            for (std::size_t m = 0; m < ns; ++m) B[i * ns + m] += K[i * nm + c] * T[m * nm + c];
        }
    for (std::size_t p = 0; p < n; ++p) {
        std::size_t piv = p;
        for (std::size_t r = p + 1; r < n; ++r)
            if (std::fabs(A[r * n + p]) > std::fabs(A[piv * n + p])) piv = r;
        if (std::fabs(A[piv * n + p]) < 1e-300) throw ImportError("singular shell transformation", 0);
        std::swap_ranges(A.begin() + static_cast<std::ptrdiff_t>(p * n), A.begin() + static_cast<std::ptrdiff_t>((p + 1) * n),
                         A.begin() + static_cast<std::ptrdiff_t>(piv * n));
        std::swap_ranges(B.begin() + static_cast<std::ptrdiff_t>(p * ns), B.begin() + static_cast<std::ptrdiff_t>((p + 1) * ns),
                         B.begin() + static_cast<std::ptrdiff_t>(piv * ns));
        for (std::size_t r = 0; r < n; ++r) {
            const double f = r == p ? 0.0 : A[r * n + p] / A[p * n + p];
            if (f == 0) continue;
            for (std::size_t j = 0; j < n; ++j) A[r * n + j] -= f * A[p * n + j];
            for (std::size_t j = 0; j < ns; ++j) B[r * ns + j] -= f * B[p * ns + j];
        }
    }
    std::vector<double> M(ns * n);
    for (std::size_t m = 0; m < ns; ++m)
        for (std::size_t k = 0; k < n; ++k) M[m * n + k] = B[k * ns + m] / A[k * n + k];
    // T must be reproduced exactly: the Kalvex functions span the source's.
    for (std::size_t m = 0; m < ns; ++m)
        for (std::size_t c = 0; c < nm; ++c) {
            double s = 0;
            for (std::size_t k = 0; k < n; ++k) s += M[m * n + k] * K[k * nm + c];
            if (std::fabs(s - T[m * nm + c]) > 1e-12 * (1 + std::fabs(T[m * nm + c])))
                throw ImportError("the source functions of a shell are not spanned by Kalvex's", 0);
        }
    return M;
}

namespace {

// One Kalvex shell: a source shell placed on one atom.
struct TargetShell {
    int atom = 0;
    int source = 0;  // index into SourceJob::shells
    int type = 0;
    int first = 0;   // 0-based first Kalvex function after the reader's sort
    bool placed = false;
};

struct Occupations {
    std::vector<SourceOrbital> alpha, beta;  // occupied first
    int nalpha = 0, nbeta = 0;
    bool restricted = true, restricted_open = false;
};

bool near(double x, double v) { return std::fabs(x - v) < 1e-6; }

// Occupied orbitals first (stable), counts and the kind of job.
Occupations sort_occupations(const SourceJob& job) {
    Occupations o;
    auto by_occupation = [](std::vector<SourceOrbital> v) {
        std::stable_sort(v.begin(), v.end(),
                         [](const SourceOrbital& a, const SourceOrbital& b) { return a.occupation > b.occupation + 1e-6; });
        return v;
    };
    auto count = [](const std::vector<SourceOrbital>& v, double occ) {
        return static_cast<int>(std::count_if(v.begin(), v.end(), [&](const SourceOrbital& s) { return near(s.occupation, occ); }));
    };
    if (!job.beta.empty()) {
        for (const auto* set : {&job.alpha, &job.beta})
            for (const auto& orb : *set)
                if (!near(orb.occupation, 0) && !near(orb.occupation, 1))
                    throw ImportError("unrestricted orbitals need occupations 0 or 1, found " + std::to_string(orb.occupation), 0);
        o.alpha = by_occupation(job.alpha);
        o.beta = by_occupation(job.beta);
        o.nalpha = count(job.alpha, 1);
        o.nbeta = count(job.beta, 1);
        o.restricted = false;
        return o;
    }
    for (const auto& orb : job.alpha)
        if (!near(orb.occupation, 0) && !near(orb.occupation, 1) && !near(orb.occupation, 2))
            throw ImportError("orbital occupations must be 0, 1 or 2 (natural orbitals cannot be imported), found " +
                                  std::to_string(orb.occupation),
                              0);
    o.alpha = by_occupation(job.alpha);
    const int n2 = count(job.alpha, 2), n1 = count(job.alpha, 1);
    if (n1 == 0) {  // closed shell: one set, nbeta 0 marks it restricted
        o.nalpha = n2;
        return o;
    }
    o.nalpha = n2 + n1;
    o.nbeta = n2;
    o.restricted = false;
    o.restricted_open = true;
    o.beta = o.alpha;
    return o;
}

// Element labels; a second basis on atoms of one element gets "H_a", "H_b", ...
// (digits cannot tell labels apart: the reader drops them when matching).
std::vector<std::string> atom_labels(const SourceJob& job, const std::vector<std::vector<int>>& atom_shells) {
    auto same_basis = [&](int a, int b) {
        const auto& sa = atom_shells[static_cast<std::size_t>(a)];
        const auto& sb = atom_shells[static_cast<std::size_t>(b)];
        if (sa.size() != sb.size()) return false;
        for (std::size_t i = 0; i < sa.size(); ++i) {
            const SourceShell& x = job.shells[static_cast<std::size_t>(sa[i])];
            const SourceShell& y = job.shells[static_cast<std::size_t>(sb[i])];
            if (x.l != y.l || x.sp != y.sp || x.pure != y.pure || x.exponents != y.exponents || x.coefs != y.coefs ||
                x.coefs_p != y.coefs_p)
                return false;
        }
        return true;
    };
    const int n = static_cast<int>(job.atoms.size());
    std::vector<std::string> labels(static_cast<std::size_t>(n));
    std::vector<int> representative;  // first atom of each label
    for (int a = 0; a < n; ++a) {
        const int z = job.atoms[static_cast<std::size_t>(a)].atomic_number;
        int variants = 0;
        for (int r : representative) {
            if (job.atoms[static_cast<std::size_t>(r)].atomic_number != z) continue;
            if (same_basis(a, r)) {
                labels[static_cast<std::size_t>(a)] = labels[static_cast<std::size_t>(r)];
                break;
            }
            ++variants;
        }
        if (!labels[static_cast<std::size_t>(a)].empty()) continue;
        std::string sym = z >= 1 && z <= 105 ? moldata::element_symbol(z) : "X";
        if (variants > 0) {
            if (sym.size() > 1)
                throw ImportError("atoms of element " + sym + " carry different basis sets; a Kalvex job has one basis " +
                                      "per element label, and two-letter symbols cannot take a suffix",
                                  0);
            std::string suffix;
            for (int v = variants - 1;; v = v / 26 - 1) {
                suffix.insert(suffix.begin(), static_cast<char>('a' + v % 26));
                if (v < 26) break;
            }
            if (suffix.size() > 6) throw ImportError("too many different basis sets on one element", 0);
            sym += "_" + suffix;
        }
        labels[static_cast<std::size_t>(a)] = sym;
        representative.push_back(a);
    }
    return labels;
}

// Shortest text that reads back as the same double.
std::string exact(double v) {
    char buf[64];
    const auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

void write_text(const fs::path& path, const std::string& text) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (!f) throw ImportError("cannot write " + path.string(), 0);
    const bool ok = std::fputs(text.c_str(), f) >= 0;
    if (std::fclose(f) != 0 || !ok) throw ImportError("cannot write " + path.string(), 0);
}

std::string control_text(const SourceJob& job, const std::string& source_name, const ImportReport& rep,
                         const Occupations& occ) {
    std::string title = source_name;  // no '$' (keywords) or line end in the title
    for (char& c : title)
        if (c == '$' || c == '\n' || c == '\r') c = '_';
    return "$title imported from " + title + " (" + job.format + ")\n$nmol 1\n$natoms " +
           std::to_string(job.atoms.size()) + "\n$charge " + std::to_string(rep.charge) + "\n$multiplicity " +
           std::to_string(rep.multiplicity) + "\n$nalpha " + std::to_string(occ.nalpha) + "\n$nbeta " +
           std::to_string(occ.nbeta) + "\n$end\n";
}

// LABEL x y z nuclear-charge 0 (bohr; the mass column is not used).
std::string coord_text(const SourceJob& job, const std::vector<std::string>& labels) {
    std::string out = "$coordinates\n";
    for (std::size_t a = 0; a < job.atoms.size(); ++a) {
        const SourceAtom& at = job.atoms[a];
        char line[200];
        std::snprintf(line, sizeof line, "%-8s %22.15f %22.15f %22.15f %8.3f %8.3f\n", labels[a].c_str(), at.x, at.y,
                      at.z, at.nuclear_charge, 0.0);
        out += line;
    }
    return out + "$end\n";
}

std::string basis_text(const SourceJob& job, const Convention& conv, const std::vector<std::string>& labels,
                       const std::vector<std::vector<int>>& atom_shells, int nbasis, int nshell, int nprim) {
    static const char* kLabel[] = {"", "s", "p", "l", "d", "d6", "f", "f10", "g15", "h21", "i28"};
    std::string out = "$nbasis " + std::to_string(nbasis) + "\n$nshell " + std::to_string(nshell) + "\n$nprim " +
                      std::to_string(nprim) + "\n$basis\n";
    std::vector<std::string> done;
    for (std::size_t a = 0; a < labels.size(); ++a) {
        if (atom_shells[a].empty() || std::find(done.begin(), done.end(), labels[a]) != done.end()) continue;
        done.push_back(labels[a]);
        out += "for " + labels[a] + "\n";
        for (int si : atom_shells[a]) {
            const SourceShell& s = job.shells[static_cast<std::size_t>(si)];
            const std::vector<double> c = normalised_coefs(s.coefs, s.exponents, s.sp ? 0 : s.l, conv);
            const std::vector<double> cp = s.sp ? normalised_coefs(s.coefs_p, s.exponents, 1, conv) : c;
            out += kLabel[kalvex_type(s)];
            for (std::size_t p = 0; p < s.exponents.size(); ++p) {
                out += p == 0 ? " " : "  ";  // the first primitive shares the label's line
                out += exact(s.exponents[p]);
                out += ' ';
                out += exact(c[p]);
                if (s.sp) {
                    out += ' ';
                    out += exact(cp[p]);
                }
                out += '\n';
            }
        }
    }
    return out + "$end\n";
}

// Largest |C S C^T - I| among the occupied orbitals (the first nocc rows of
// C) and among all `rows` rows (n columns each).
Orthonormality orthonormality(const moldata::TriMatrix& S, const double* C, int rows, int nocc, int n) {
    std::vector<double> sc(static_cast<std::size_t>(rows) * n, 0.0);
    for (int r = 0; r < rows; ++r) {
        const double* c = C + static_cast<std::size_t>(r) * n;
        double* o = sc.data() + static_cast<std::size_t>(r) * n;
        for (int i = 0; i < n; ++i) {
            const double* si = S.row(i);
            for (int j = 0; j < i; ++j) {
                o[i] += si[j] * c[j];
                o[j] += si[j] * c[i];
            }
            o[i] += si[i] * c[i];
        }
    }
    Orthonormality out;
    for (int r = 0; r < rows; ++r)
        for (int q = 0; q <= r; ++q) {
            double d = 0;
            const double* c = C + static_cast<std::size_t>(q) * n;
            const double* o = sc.data() + static_cast<std::size_t>(r) * n;
            for (int i = 0; i < n; ++i) d += c[i] * o[i];
            const double e = std::fabs(d - (r == q ? 1.0 : 0.0));
            out.all = std::max(out.all, e);
            if (r < nocc) out.occupied = std::max(out.occupied, e);
        }
    return out;
}

Orthonormality worse(Orthonormality a, Orthonormality b) {
    return {std::max(a.occupied, b.occupied), std::max(a.all, b.all)};
}

std::string orthonormality_text(Orthonormality o) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "largest |C S C^T - I| %.1e (occupied), %.1e (all)", o.occupied, o.all);
    return buf;
}

// The reader sorts the shells; each read-back shell is matched to the target
// on its atom with its type and exponents (the first unused one: equal
// shells keep their order), whose first function it then gives.
void place_shells(const SourceJob& job, const moldata::Molecule& km, std::vector<TargetShell>& targets) {
    for (const moldata::Shell& ks : km.shells) {
        const int a = static_cast<int>(ks.center - km.atoms.data());
        auto it = std::find_if(targets.begin(), targets.end(), [&](const TargetShell& t) {
            if (t.placed || t.atom != a || t.type != ks.type) return false;
            const auto& e = job.shells[static_cast<std::size_t>(t.source)].exponents;
            if (static_cast<int>(e.size()) != ks.nprim) return false;
            for (int p = 0; p < ks.nprim; ++p)
                if (e[static_cast<std::size_t>(p)] != ks.exponent(p)) return false;
            return true;
        });
        if (it == targets.end()) throw ImportError("the basis read back does not match the basis written", 0);
        it->placed = true;
        it->first = ks.nfirst - 1;
    }
}

// Scratch folder beside the job, removed with everything in it.
struct Scratch {
    fs::path dir;
    explicit Scratch(const fs::path& parent) {
        std::string tmpl = (parent / ".kalvex-import-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) throw ImportError("cannot create a scratch folder in " + parent.string(), 0);
        dir = tmpl;
    }
    ~Scratch() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

// Where each source shell goes: the atoms' shells, the first source
// function of each shell, and the Kalvex shells atom by atom.
struct Layout {
    std::vector<std::vector<int>> atom_shells;
    std::vector<int> source_first;
    std::vector<TargetShell> targets;
    int nbasis = 0, nprim = 0;
};

Layout plan_layout(const SourceJob& job) {
    const int natoms = static_cast<int>(job.atoms.size());
    if (natoms == 0) throw ImportError("the file holds no atoms", 0);
    if (job.alpha.empty()) throw ImportError("the file holds no orbitals", 0);
    Layout lay;
    lay.atom_shells.resize(static_cast<std::size_t>(natoms));
    lay.source_first.resize(job.shells.size());
    int nsource = 0;
    for (std::size_t i = 0; i < job.shells.size(); ++i) {
        const SourceShell& s = job.shells[i];
        if (s.atom < 0 || s.atom >= natoms)
            throw ImportError("a shell sits on atom " + std::to_string(s.atom + 1) + ", which does not exist", 0);
        kalvex_type(s);
        lay.atom_shells[static_cast<std::size_t>(s.atom)].push_back(static_cast<int>(i));
        lay.source_first[i] = nsource;
        nsource += s.nfunc();
    }
    if (nsource != job.nbasis)
        throw ImportError("the shells give " + std::to_string(nsource) + " basis functions, the orbitals " +
                              std::to_string(job.nbasis),
                          0);
    for (const auto* set : {&job.alpha, &job.beta})
        for (const auto& orb : *set)
            if (static_cast<int>(orb.coef.size()) != job.nbasis)
                throw ImportError("an orbital has the wrong number of coefficients", 0);

    for (int a = 0; a < natoms; ++a)
        for (int si : lay.atom_shells[static_cast<std::size_t>(a)]) {
            const int type = kalvex_type(job.shells[static_cast<std::size_t>(si)]);
            lay.targets.push_back({a, si, type, 0, false});
            lay.nbasis += gauss::kShellSize[type];
            lay.nprim += static_cast<int>(job.shells[static_cast<std::size_t>(si)].exponents.size());
        }
    if (lay.targets.empty()) throw ImportError("the file holds no basis functions", 0);
    if (lay.nbasis > moldata::kMaxBasisFunctions)
        throw ImportError("the job needs " + std::to_string(lay.nbasis) + " Kalvex basis functions, more than the " +
                              std::to_string(moldata::kMaxBasisFunctions) + " Kalvex reads",
                          0);
    return lay;
}

// Counts, charge and multiplicity of the job written, checked against the
// counts the file states.
ImportReport start_report(const SourceJob& job, const Layout& lay, const Occupations& occ) {
    const bool closed = occ.restricted && !occ.restricted_open;
    const int electrons = closed ? 2 * occ.nalpha : occ.nalpha + occ.nbeta;
    double nuclear = 0;
    for (const auto& at : job.atoms) nuclear += at.nuclear_charge;
    ImportReport rep;
    rep.natoms = static_cast<int>(job.atoms.size());
    rep.nshells = static_cast<int>(lay.targets.size());
    rep.nbasis = lay.nbasis;
    rep.nbasis_source = job.nbasis;
    rep.nalpha = occ.nalpha;
    rep.nbeta = closed ? occ.nalpha : occ.nbeta;
    rep.charge = static_cast<int>(std::lround(nuclear)) - electrons;
    rep.multiplicity = closed ? 1 : std::abs(occ.nalpha - occ.nbeta) + 1;
    if (job.multiplicity && !occ.restricted) rep.multiplicity = *job.multiplicity;
    rep.restricted = occ.restricted;
    rep.restricted_open = occ.restricted_open;
    rep.norb_alpha = static_cast<int>(occ.alpha.size());
    rep.norb_beta = static_cast<int>(occ.beta.size());
    if (job.nalpha && *job.nalpha != rep.nalpha)
        throw ImportError("the file counts " + std::to_string(*job.nalpha) + " alpha electrons, its orbitals " +
                              std::to_string(rep.nalpha),
                          0);
    if (job.nbeta && *job.nbeta != rep.nbeta)
        throw ImportError("the file counts " + std::to_string(*job.nbeta) + " beta electrons, its orbitals " +
                              std::to_string(rep.nbeta),
                          0);
    return rep;
}

// Orbitals over Kalvex's functions under one convention, for the molecule
// read back with that convention's basis file.
std::vector<double> transform(const SourceJob& job, const Layout& lay, const std::vector<SourceOrbital>& set,
                              const Convention& conv, const std::vector<TargetShell>& placed) {
    const std::size_t nbasis = static_cast<std::size_t>(lay.nbasis);
    std::vector<double> C(set.size() * nbasis, 0.0);
    for (const TargetShell& t : placed) {
        const SourceShell& s = job.shells[static_cast<std::size_t>(t.source)];
        const int nf = s.nfunc(), nk = gauss::kShellSize[t.type];
        const std::vector<double> M = coefficient_map(source_functions(s, job.cartesian, conv), nf,
                                                      kalvex_functions(t.type), nk, shell_monomials(s));
        const int src0 = lay.source_first[static_cast<std::size_t>(t.source)];
        for (std::size_t o = 0; o < set.size(); ++o) {
            double* out = C.data() + o * nbasis + t.first;
            const double* in = set[o].coef.data() + src0;
            for (int m = 0; m < nf; ++m)
                for (int k = 0; k < nk; ++k) out[k] += in[m] * M[static_cast<std::size_t>(m) * nk + k];
        }
    }
    return C;
}

// The convention whose orbitals are orthonormal in the overlap of the basis
// written for it, read back as kalvex reads it.
struct Choice {
    std::vector<double> Ca, Cb;
    std::unique_ptr<moldata::Molecule> molecule;
    std::string basis;
    Orthonormality error{HUGE_VAL, HUGE_VAL};
};

Choice choose_convention(const SourceJob& job, const Layout& lay, const Occupations& occ,
                         const std::vector<std::string>& labels, const std::string& tmpjob, ImportReport& rep) {
    // The smallest error wins; a later convention must halve it (equal
    // conventions keep the first name).
    std::vector<Convention> conventions = job.conventions;
    if (conventions.empty()) conventions.push_back({"normalised primitives and functions"});
    Choice best;
    for (const Convention& conv : conventions) {
        const std::string basis = basis_text(job, conv, labels, lay.atom_shells, lay.nbasis, rep.nshells, lay.nprim);
        write_text(tmpjob + ".basis", basis);
        moldata::MoleculeLoad load = moldata::build_molecule(tmpjob);
        if (load.error) throw ImportError("Kalvex cannot read back the job written: " + load.error.message, 0);
        std::unique_ptr<moldata::Molecule> read_back = std::move(load.molecule);
        if (!read_back || !read_back->has_shells() || read_back->nbasis != lay.nbasis || !read_back->overlap)
            throw ImportError("Kalvex cannot read back the basis written for this job", 0);
        std::vector<TargetShell> placed = lay.targets;
        place_shells(job, *read_back, placed);
        std::vector<double> a = transform(job, lay, occ.alpha, conv, placed);
        std::vector<double> b = transform(job, lay, occ.beta, conv, placed);
        const Orthonormality err =
            worse(orthonormality(*read_back->overlap, a.data(), rep.norb_alpha, occ.nalpha, lay.nbasis),
                  orthonormality(*read_back->overlap, b.data(), rep.norb_beta, occ.nbeta, lay.nbasis));
        if (!best.molecule || err.all < 0.5 * best.error.all) {
            best = {std::move(a), std::move(b), std::move(read_back), basis, err};
            rep.convention = conv.name;
        }
    }
    if (!best.error.ok())
        throw ImportError("the orbitals are not orthonormal in the basis Kalvex reads under any known normalisation (" +
                              orthonormality_text(best.error) + "; tolerances 1e-6 and 1e-3): a damaged file or an " +
                              "unknown convention; nothing written",
                          0);
    return best;
}

// The orbital files of the chosen convention, read back into its molecule
// as kalvex reads them and checked once more; returns their extensions.
std::vector<std::string> write_orbital_files(Choice& best, const Occupations& occ, int nbasis,
                                             const std::string& tmpjob, ImportReport& rep) {
    auto orbital_set = [&](const std::vector<SourceOrbital>& set, std::vector<double>& C) {
        moldata::OrbitalSet os;
        os.count = static_cast<int>(set.size());
        os.valid = 1;
        os.coef.rows = os.count;
        os.coef.cols = nbasis;
        os.coef.data = std::move(C);
        for (const auto& o : set) os.energy.push_back(o.energy);
        os.has_energy = true;
        return os;
    };
    std::vector<std::string> exts = {".mos"};
    if (!moldata::write_binary_orbitals(tmpjob + ".mos", orbital_set(occ.alpha, best.Ca)))
        throw ImportError("cannot write " + tmpjob + ".mos", 0);
    if (!occ.restricted) {
        if (!moldata::write_binary_orbitals(tmpjob + ".mob", orbital_set(occ.beta, best.Cb)))
            throw ImportError("cannot write " + tmpjob + ".mob", 0);
        exts.push_back(".mob");
    }

    moldata::Molecule& km = *best.molecule;
    moldata::read_orbitals(km, tmpjob);
    km.flags = moldata::compute_flags(km);
    if (!(*km.flags)[moldata::DataFlags::kAlpha] || (!occ.restricted && !(*km.flags)[moldata::DataFlags::kBeta]))
        throw ImportError("Kalvex cannot read back the orbitals written", 0);
    rep.orthonormality = orthonormality(*km.overlap, km.alpha->coef.data.data(), km.alpha->count, occ.nalpha, nbasis);
    if (km.beta)
        rep.orthonormality = worse(rep.orthonormality, orthonormality(*km.overlap, km.beta->coef.data.data(),
                                                                      km.beta->count, occ.nbeta, nbasis));
    if (!rep.orthonormality.ok())
        throw ImportError(
            "the orbitals read back are not orthonormal (" + orthonormality_text(rep.orthonormality) + ")", 0);
    return exts;
}

}  // namespace

ImportReport write_kalvex_job(const SourceJob& job, const std::string& jobname, const std::string& source_name) {
    const Layout lay = plan_layout(job);
    const Occupations occ = sort_occupations(job);
    const std::vector<std::string> labels = atom_labels(job, lay.atom_shells);
    ImportReport rep = start_report(job, lay, occ);

    const fs::path dest(jobname);
    const fs::path parent = dest.has_parent_path() ? dest.parent_path() : fs::path(".");
    const std::string stem = dest.filename().string();
    if (stem.empty()) throw ImportError("the job name " + jobname + " names a folder, not a job", 0);
    Scratch scratch(parent);
    const std::string tmpjob = (scratch.dir / stem).string();

    write_text(tmpjob + ".control", control_text(job, source_name, rep, occ));
    write_text(tmpjob + ".coord", coord_text(job, labels));
    for (std::size_t a = 0; a < job.atoms.size(); ++a)
        if (job.atoms[a].nuclear_charge != job.atoms[a].atomic_number)
            rep.valence_charges.emplace_back(labels[a], job.atoms[a].nuclear_charge);

    Choice best = choose_convention(job, lay, occ, labels, tmpjob, rep);
    write_text(tmpjob + ".basis", best.basis);
    std::vector<std::string> exts = {".control", ".coord", ".basis"};
    for (const std::string& e : write_orbital_files(best, occ, lay.nbasis, tmpjob, rep)) exts.push_back(e);

    // Every file of the new job, or (on any failure) every file of the
    // earlier one: the earlier files wait in the scratch folder until all
    // the new ones are in place. Files of an earlier job that kalvex would
    // mix in go with them.
    std::vector<std::string> stale;
    for (const char* e : {".mob", ".los", ".loc", ".nos", ".sym"})
        if (std::find(exts.begin(), exts.end(), e) == exts.end()) stale.push_back(e);
    rep.removed = replace_job_files(tmpjob, jobname, exts, stale, (scratch.dir / "earlier").string());
    for (const std::string& e : exts) rep.written.push_back(jobname + e);
    return rep;
}

}  // namespace kvx::import
