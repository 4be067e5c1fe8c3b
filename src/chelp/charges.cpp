#include "chelp/charges.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "chelp/dipole.h"
#include "chelp/tool_args.h"
#include "common/fatal.h"
#include "common/version.h"
#include "elepot/elepot.h"
#include "moldata/reader.h"
#include "moldata/symbols.h"

namespace kvx::chelp {

namespace {

constexpr const char* kTool = "kalvex-charges";
constexpr const char* kUsage =
    "usage: kalvex-charges JOB chelpg|mk|resp [-spacing A] [-extent A] [-density D] [-scales S,S,...] [-dipole]\n"
    "       [-radius SYMBOL A]... [-a1 A] [-a2 A] [-b B] [-thresh T] [-memmax MB] [-numt N]";

int fail(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", kTool, message.c_str());
    return 1;
}

const char* model_title(ChargeModel m) {
    switch (m) {
        case ChargeModel::kChelpg:
            return "CHELPG charges (Breneman and Wiberg, J. Comput. Chem. 11, 361 (1990))";
        case ChargeModel::kMerzKollman:
            return "Merz-Kollman charges (Singh and Kollman, J. Comput. Chem. 5, 129 (1984))";
        default:
            return "RESP charges (Bayly, Cieplak, Cornell and Kollman, J. Phys. Chem. 97, 10269 (1993))";
    }
}

// Comma-separated positive numbers.
bool parse_scales(const char* word, std::vector<double>& out) {
    out.clear();
    std::string w = word ? word : "";
    std::size_t at = 0;
    while (at <= w.size()) {
        const std::size_t comma = std::min(w.find(',', at), w.size());
        double v = 0.0;
        if (!parse_number(w.substr(at, comma - at).c_str(), v) || !(v > 0.0)) return false;
        out.push_back(v);
        at = comma + 1;
    }
    return !out.empty();
}

struct Parsed {
    std::string job;
    ChargeSettings s;
    std::string error;
};

Parsed parse_args(int argc, char** argv) {
    Parsed p;
    std::vector<std::string> pos;
    auto value = [&](int& i, const char* name) -> const char* {
        if (i + 1 >= argc) {
            p.error = std::string(name) + " needs a value\n" + kUsage;
            return nullptr;
        }
        return argv[++i];
    };
    for (int i = 1; i < argc && p.error.empty(); ++i) {
        const std::string w = argv[i];
        double* target = nullptr;
        bool positive = true;
        if (w == "-spacing")
            target = &p.s.spacing;
        else if (w == "-extent")
            target = &p.s.extent;
        else if (w == "-density")
            target = &p.s.density;
        else if (w == "-a1")
            target = &p.s.resp.a1, positive = false;
        else if (w == "-a2")
            target = &p.s.resp.a2, positive = false;
        else if (w == "-b")
            target = &p.s.resp.b;
        else if (w == "-thresh")
            target = &p.s.thresh;
        else if (w == "-memmax")
            target = &p.s.memmax;
        if (target) {
            const char* v = value(i, w.c_str());
            if (!v) break;
            if (!parse_number(v, *target) || (positive ? !(*target > 0.0) : *target < 0.0))
                p.error = w + " takes a " + (positive ? "positive" : "non-negative") + " number, not " + quoted(v);
        } else if (w == "-dipole") {
            p.s.dipole = true;
        } else if (w == "-scales") {
            const char* v = value(i, "-scales");
            if (v && !parse_scales(v, p.s.scales))
                p.error = "-scales takes positive numbers separated by commas, not " + quoted(v);
        } else if (w == "-radius") {
            const char* sym = value(i, "-radius");
            const char* v = sym ? value(i, "-radius") : nullptr;
            if (!v) break;
            RadiusOverride o;
            o.Z = moldata::atomic_number(sym);
            std::string lower = sym;
            for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
            if (o.Z <= 0 || lower != moldata::kElementSymbols[o.Z])
                p.error = "-radius: " + quoted(sym) + " is not an element symbol";
            else if (!parse_number(v, o.angstrom) || !(o.angstrom > 0.0))
                p.error = "-radius " + std::string(sym) + " takes a positive number (angstrom), not " + quoted(v);
            else
                p.s.radii.push_back(o);
        } else if (w == "-numt") {
            const char* v = value(i, "-numt");
            if (v && !parse_int(v, p.s.numt)) p.error = "-numt takes a whole number, not " + quoted(v);
        } else if (w.size() > 1 && w[0] == '-') {
            p.error = "unknown option " + quoted(w) + "\n" + kUsage;
        } else {
            pos.push_back(w);
        }
    }
    if (!p.error.empty()) return p;
    if (pos.size() != 2) {
        p.error = kUsage;
        return p;
    }
    p.job = pos[0];
    std::string m = pos[1];
    std::transform(m.begin(), m.end(), m.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (m == "chelpg")
        p.s.model = ChargeModel::kChelpg;
    else if (m == "mk")
        p.s.model = ChargeModel::kMerzKollman;
    else if (m == "resp")
        p.s.model = ChargeModel::kResp;
    else
        p.error = "unknown model " + quoted(pos[1]) + " (chelpg, mk or resp)\n" + kUsage;
    return p;
}

std::array<double, 3> charge_dipole(const std::vector<moldata::Atom>& atoms, const std::vector<double>& q) {
    std::array<double, 3> mu{};
    for (std::size_t i = 0; i < atoms.size(); ++i)
        mu[0] += q[i] * atoms[i].x, mu[1] += q[i] * atoms[i].y, mu[2] += q[i] * atoms[i].z;
    return mu;
}

void print_fit(const char* label, const FitResult& f) {
    std::printf("%s: RMS error %.6e hartree/e, relative RMS error %.6f", label, f.rms, f.rrms);
    if (f.iterations > 1) std::printf(", %d iterations", f.iterations);
    std::printf("\n");
}

}  // namespace

std::vector<moldata::Atom> fit_atoms(const moldata::Molecule& mol) {
    int n = mol.natoms - mol.ndummy[1];
    n = std::clamp(n, 0, static_cast<int>(mol.atoms.size()));
    return std::vector<moldata::Atom>(mol.atoms.begin(), mol.atoms.begin() + n);
}

std::string charge_points(const std::vector<moldata::Atom>& atoms, const ChargeSettings& s, AtomRadii& radii,
                          PointSet& points) {
    const bool chelpg = s.model == ChargeModel::kChelpg;
    radii = atom_radii(atoms, chelpg ? PointModel::kChelpg : PointModel::kMerzKollman, s.radii);
    if (!radii.error.empty()) return radii.error;
    std::vector<double> bohr(radii.angstrom.size());
    for (std::size_t i = 0; i < bohr.size(); ++i) bohr[i] = radii.angstrom[i] * kBohrPerAngstrom;
    if (chelpg) {
        // The lattice grows as the cube of the box over the spacing.
        double lattice = 1.0;
        for (int d = 0; d < 3; ++d) {
            double lo = 1e300, hi = -1e300;
            for (const moldata::Atom& a : atoms) {
                const double c = d == 0 ? a.x : d == 1 ? a.y : a.z;
                lo = std::min(lo, c), hi = std::max(hi, c);
            }
            lattice *= (hi - lo) / (s.spacing * kBohrPerAngstrom) + 2.0 * s.extent / s.spacing + 1.0;
        }
        if (!(lattice < 1e9)) {
            char msg[160];
            std::snprintf(msg, sizeof msg,
                          "the CHELPG lattice would have %.3g points (more than 1e9): raise -spacing or lower -extent",
                          lattice);
            return msg;
        }
        if (!common::try_alloc([&] {
                points = chelpg_points(atoms, bohr, s.spacing * kBohrPerAngstrom, s.extent * kBohrPerAngstrom);
            }))
            return "out of memory making the CHELPG points";
    } else {
        double most = 0.0;
        for (double sc : s.scales)
            for (double r : radii.angstrom)
                most = std::max(most, s.density * 4.0 * 3.141592653589793 * sc * sc * r * r);
        if (!(most * static_cast<double>(s.scales.size()) * static_cast<double>(atoms.size()) < 2e8))
            return "too many Merz-Kollman points: lower -density or -scales";
        if (!common::try_alloc([&] {
                points = merz_kollman_points(atoms, bohr, s.scales, s.density / (kBohrPerAngstrom * kBohrPerAngstrom));
            }))
            return "out of memory making the Merz-Kollman points";
    }
    if (points.count() == 0)
        return "no fitting points: every candidate point lies inside an atom's radius (check -radius, -extent, "
               "-scales)";
    return {};
}

std::string charge_potential(const moldata::Molecule& mol, const PointSet& points, const ChargeSettings& s,
                             FitData& data) {
    data.xyz = points.xyz;
    data.v.assign(static_cast<std::size_t>(points.count()), 0.0);
    if (!elepot::elepot_init_points(&mol, data.xyz.data(), points.count(), s.memmax, s.thresh, s.numt)) {
        elepot::elepot_cleanup();
        return "cannot set up the potential (-memmax too small for one integral block, or a shell the potential "
               "code cannot integrate)";
    }
    {
        // The report is standard output; the potential's progress lines go
        // to standard error meanwhile.
        std::fflush(stdout);
        const int saved = ::dup(1);
        if (saved >= 0) ::dup2(2, 1);
        elepot::comp_elepot(data.v.data(), &mol);
        std::fflush(stdout);
        if (saved >= 0) {
            ::dup2(saved, 1);
            ::close(saved);
        }
    }
    elepot::elepot_cleanup();
    return {};
}

std::string charge_fit(const moldata::Molecule& mol, const std::vector<moldata::Atom>& atoms, const FitData& data,
                       const ChargeSettings& s, ChargeFit& out) {
    out.have_dipole = wavefunction_dipole(mol, static_cast<int>(atoms.size()), out.wavefunction_dipole);
    if (s.dipole && !out.have_dipole) return "the wavefunction's dipole cannot be computed for the -dipole constraint";
    FitSpec want;
    want.total_charge = mol.charge;
    want.dipole = s.dipole;
    want.dipole_target = out.wavefunction_dipole;
    const NormalEquations ne = normal_equations(data, atoms);
    if (s.model == ChargeModel::kResp) {
        out.resp = resp_fit(ne, data, atoms, want, s.resp);
        out.fit = out.resp.stage2;
        if (!out.resp.stage1.error.empty()) return "stage one: " + out.resp.stage1.error;
        if (!out.fit.error.empty()) return "stage two: " + out.fit.error;
    } else {
        out.fit = fit_charges(ne, data, atoms, want);
        if (!out.fit.error.empty()) return out.fit.error;
    }
    average_equivalent(mol, static_cast<int>(atoms.size()), out.fit.q);
    return {};
}

void average_equivalent(const moldata::Molecule& mol, int natoms, std::vector<double>& q) {
    const moldata::SymmetryInfo* sym = mol.symmetry.get();
    if (!sym || sym->ntrans <= 1 || sym->nunique == natoms) return;
    const std::size_t ntrans = static_cast<std::size_t>(sym->ntrans);
    const std::size_t nunique = std::min<std::size_t>(sym->nunique < 0 ? 0 : sym->nunique, sym->unique.size());
    std::vector<char> marked(static_cast<std::size_t>(natoms));
    for (std::size_t i = 0; i < nunique; ++i) {
        const int u = sym->unique[i];
        if (u < 1 || u > natoms) continue;
        std::fill(marked.begin(), marked.end(), 0);
        for (std::size_t t = 0; t < ntrans; ++t) {
            const std::size_t at = static_cast<std::size_t>(u - 1) * ntrans + t;
            if (at >= sym->images.size()) break;
            const int img = sym->images[at];
            if (img >= 1 && img <= natoms) marked[static_cast<std::size_t>(img - 1)] = 1;
        }
        double sum = 0.0;
        int count = 0;
        for (int a = 0; a < natoms; ++a)
            if (marked[a]) sum += q[a], ++count;
        if (count == 0) continue;
        for (int a = 0; a < natoms; ++a)
            if (marked[a]) q[a] = sum / count;
    }
}

int run_charges(int argc, char** argv) {
    if (common::answer_help_or_version("kalvex-charges", kUsage, argc, argv)) return 0;
    const Parsed p = parse_args(argc, argv);
    if (!p.error.empty()) return fail(p.error);
    const ChargeSettings& s = p.s;

    moldata::MoleculeLoad load = moldata::build_molecule(p.job);
    std::fflush(stdout);
    if (load.error) return fail("cannot read job " + p.job + ": " + load.error.message);
    const auto& mol = load.molecule;
    if (!mol || !mol->has_atoms())
        return fail("cannot read job " + p.job + " (no atoms in " + p.job + ".coord or " + p.job + ".kvm)");
    if (!mol->has_shells() || !mol->density)
        return fail("job " + p.job + " has no orbitals (no basis set or no " + p.job +
                    ".mos): the potential needs the density matrix");
    const std::vector<moldata::Atom> atoms = fit_atoms(*mol);
    if (atoms.empty()) return fail("job " + p.job + " has no atoms to fit (only dummy atoms)");

    AtomRadii radii;
    PointSet points;
    if (std::string e = charge_points(atoms, s, radii, points); !e.empty()) return fail(e);

    std::printf("kalvex-charges: %s\n", model_title(s.model));
    std::printf("Job %s: %zu atoms, charge %d\n", p.job.c_str(), atoms.size(), mol->charge);
    if (s.model == ChargeModel::kChelpg) {
        std::printf(
            "Points: cubic grid of spacing %.4f angstrom over the atoms' box widened by %.4f angstrom; kept "
            "outside every atom's radius and within %.4f angstrom of an atom: %ld of %ld\n",
            s.spacing, s.extent, s.extent, points.count(), points.candidates);
    } else {
        std::printf("Points: shells at");
        for (double sc : s.scales) std::printf(" %.4g", sc);
        std::printf(
            " times the radius, %.4g points per square angstrom; kept outside the other atoms' shells of "
            "the same scale: %ld of %ld\n",
            s.density, points.count(), points.candidates);
    }
    std::printf("Radii (angstrom):");
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        bool first = true;  // one entry per element
        for (std::size_t j = 0; j < i && first; ++j) first = atoms[j].atomic_number != atoms[i].atomic_number;
        if (first)
            std::printf(" %s %.3f (%s)", moldata::element_symbol(atoms[i].atomic_number).c_str(), radii.angstrom[i],
                        radii.source[i].c_str());
    }
    std::printf("\n");
    std::fflush(stdout);

    FitData data;
    if (std::string e = charge_potential(*mol, points, s, data); !e.empty()) return fail(e);
    ChargeFit fit;
    if (std::string e = charge_fit(*mol, atoms, data, s, fit); !e.empty()) return fail(e);

    std::printf("Fit: least squares, charges summing to %d (Lagrange multiplier)%s\n", mol->charge,
                s.dipole ? ", dipole held at the wavefunction's" : "");
    if (s.model == ChargeModel::kResp) {
        std::printf("Restraints: a (sqrt(q^2 + b^2) - b) on heavy atoms, b = %g; hydrogens free\n", s.resp.b);
        std::printf("Stage one (a = %g, every charge)\n", s.resp.a1);
        print_fit(" fit", fit.resp.stage1);
        if (fit.resp.has_stage2) {
            std::printf(
                "Stage two (a = %g): sp3 carbons and their hydrogens refitted, methyl and methylene "
                "hydrogens equal, the rest held:",
                s.resp.a2);
            for (std::size_t i = 0; i < atoms.size(); ++i)
                if (fit.resp.refit[i] >= 0) std::printf(" %s%zu", atoms[i].symbol.c_str(), i + 1);
            std::printf("\n");
            print_fit(" fit", fit.resp.stage2);
        } else {
            std::printf("Stage two: no sp3 carbon, the stage-one charges stand\n");
        }
    } else {
        print_fit("Fit", fit.fit);
    }
    std::printf("\nCharges\n");
    double total = 0.0;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        std::printf(" %-8s % .6f\n", atoms[i].symbol.c_str(), fit.fit.q[i]);
        total += fit.fit.q[i];
    }
    std::printf(" %-8s % .6f\n", "Total", total);
    const auto mq = charge_dipole(atoms, fit.fit.q);
    std::printf(" Dipole of the charges (debye)      % .6f % .6f % .6f  total % .6f\n", mq[0] * kDebyePerAu,
                mq[1] * kDebyePerAu, mq[2] * kDebyePerAu,
                std::sqrt(mq[0] * mq[0] + mq[1] * mq[1] + mq[2] * mq[2]) * kDebyePerAu);
    if (fit.have_dipole) {
        const auto& mw = fit.wavefunction_dipole;
        std::printf(" Dipole of the wavefunction (debye) % .6f % .6f % .6f  total % .6f\n", mw[0] * kDebyePerAu,
                    mw[1] * kDebyePerAu, mw[2] * kDebyePerAu,
                    std::sqrt(mw[0] * mw[0] + mw[1] * mw[1] + mw[2] * mw[2]) * kDebyePerAu);
    }
    std::fflush(stdout);
    return 0;
}

}  // namespace kvx::chelp
