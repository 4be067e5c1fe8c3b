#include "main/job_info.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/version.h"
#include "gauss/shell_types.h"
#include "main/usage.h"
#include "moldata/lattice.h"
#include "moldata/reader.h"

namespace kvx::main {

using moldata::Molecule;
using moldata::OrbitalSet;

namespace {

constexpr int kVirtualShown = 10;
constexpr const char* kUsage = "usage: kalvex-info JOB [--all]";

void add(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void add(std::string& out, const char* fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    out += line;
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// The job's files: those there, and the orbital files kalvex passes over
// (a beta file of a closed-shell job, natural orbitals of a restricted one).
void files_section(std::string& out, const std::string& job, const Molecule& mol) {
    static const char* const kExts[] = {".control", ".coord", ".basis", ".sym", ".mos",
                                        ".mob",     ".los",   ".loc",   ".nos", ".kvm"};
    std::string there, absent;
    for (const char* e : kExts) (exists(job + e) ? there : absent) += std::string(" ") + e;
    add(out, "Job %s\n  files:%s\n", job.c_str(), there.empty() ? " none" : there.c_str());
    if (!absent.empty()) add(out, "  absent:%s\n", absent.c_str());
    if (mol.restricted && exists(job + ".mob"))
        add(out, "  %s.mob is not read: the job is closed-shell\n", job.c_str());
    if (mol.restricted && exists(job + ".nos"))
        add(out, "  %s.nos is not read: natural orbitals are read for open-shell jobs only\n", job.c_str());
}

void electrons_section(std::string& out, const Molecule& mol) {
    if (mol.restricted)
        add(out, "Charge %d, multiplicity %d, closed shell: %d electrons in %d doubly occupied orbital%s\n", mol.charge,
            mol.multiplicity, 2 * mol.nalpha, mol.nalpha, mol.nalpha == 1 ? "" : "s");
    else
        add(out, "Charge %d, multiplicity %d, open shell: %d electrons, %d alpha and %d beta\n", mol.charge,
            mol.multiplicity, mol.nalpha + mol.nbeta, mol.nalpha, mol.nbeta);
}

void atoms_section(std::string& out, const Molecule& mol) {
    add(out, "\nAtoms: %d (bohr)\n", mol.natoms);
    add(out, "     #  label      Z   charge            x            y            z\n");
    for (std::size_t k = 0; k < mol.atoms.size(); ++k) {
        const moldata::Atom& a = mol.atoms[k];
        add(out, "  %4zu  %-8s %3d %8.3f %12.6f %12.6f %12.6f\n", k + 1, a.symbol.c_str(), a.atomic_number,
            a.nuclear_charge, a.x, a.y, a.z);
    }
}

// Shells per basis-file label, in the order of the shell types; d and
// higher say whether they are spherical or cartesian.
void basis_section(std::string& out, const Molecule& mol) {
    static const char* const kLabel[gauss::kNumShellTypes] = {"",    "s",   "p",   "sp (l)", "d", "d6", "f",
                                                              "f10", "g15", "h21", "i28",    "g", "h",  "i"};
    int per_type[gauss::kNumShellTypes] = {};
    for (const moldata::Shell& sh : mol.shells)
        if (sh.type > 0 && sh.type < gauss::kNumShellTypes) ++per_type[sh.type];
    add(out, "\nBasis: %d shells, %d basis functions\n", static_cast<int>(mol.shells.size()), mol.nbasis);
    static const int kOrder[] = {1, 2, 3, 4, 5, 6, 7, 11, 8, 12, 9, 13, 10};
    for (int t : kOrder) {
        if (!per_type[t]) continue;
        const int l = gauss::kAngular[t];
        std::string kind;
        if (l >= 2) kind = gauss::is_spherical(t) ? ", spherical" : ", cartesian";
        const int size = gauss::kShellSize[t];
        add(out, "  %3d %-6s (%d function%s each%s)\n", per_type[t], kLabel[t], size, size == 1 ? "" : "s",
            kind.c_str());
    }
}

int occupied_count(const Molecule& mol, bool beta) {
    const int n = beta ? mol.nbeta : mol.nalpha;
    return n < 0 ? 0 : n;
}

// One orbital set; occupations of canonical and localized sets from the
// electron counts, of natural orbitals from the file.
void orbital_section(std::string& out, const char* title, const char* request, const OrbitalSet* set,
                     const Molecule& mol, bool beta, bool canonical, bool natural, bool all) {
    if (!set) return;
    const int n = set->count;
    add(out, "\n%s (%s N): %d%s\n", title, request, n,
        natural           ? ", with occupation numbers"
        : set->has_energy ? ", with energies"
                          : ", without energies");
    if (set->valid != 1) {
        add(out, "  status %d in the file: kalvex does not use this set\n", set->valid);
        return;
    }
    const int nocc = natural ? 0 : std::min(occupied_count(mol, beta), n);
    const double occ_each = mol.restricted ? 2.0 : 1.0;
    const OrbitalMarks marks = canonical ? orbital_marks(mol, beta) : OrbitalMarks{};
    const bool energies = set->has_energy && !natural && static_cast<int>(set->energy.size()) >= n;
    if (energies)
        add(out, "      #     energy/Eh     energy/eV  occupation\n");
    else
        add(out, "      #  occupation\n");
    int last = n;
    if (!all && !natural) last = std::min(n, nocc + kVirtualShown);
    for (int k = 1; k <= last; ++k) {
        double occ = k <= nocc ? occ_each : 0.0;
        if (natural) occ = set->has_energy && k <= static_cast<int>(set->energy.size()) ? set->energy[k - 1] : 0.0;
        const char* mark = k == marks.homo ? "  HOMO" : k == marks.lumo ? "  LUMO" : "";
        if (energies) {
            const double e = set->energy[k - 1];
            add(out, "  %5d %13.6f %13.4f %11.4g%s\n", k, e, e * kHartreeEv, occ, mark);
        } else {
            add(out, "  %5d %11.4g%s\n", k, occ, mark);
        }
    }
    if (last < n) add(out, "  ... %d more up to %d (kalvex-info --all lists them)\n", n - last, n);
}

void grid_section(std::string& out, const Molecule& mol) {
    const moldata::Box box = moldata::default_box(mol.atoms);
    moldata::BoxAxis axes[3];
    for (int d = 0; d < 3; ++d) {
        axes[d].start = box.start[d];
        axes[d].length = box.length[d];
    }
    moldata::LatticeRecord r;
    add(out, "\nDefault grid: the atoms' box plus %.1f bohr on every side, %d points per axis\n", moldata::kBoxMargin,
        moldata::kDefaultPoints);
    if (!mol.has_atoms() || !moldata::box_lattice(axes, r)) {
        add(out, "  none: the job has no atoms\n");
        return;
    }
    for (int d = 0; d < 3; ++d)
        add(out, "  %c from %10.6f to %10.6f (edge %.6f), %d points, spacing %.4f bohr\n", 'x' + d, r.origin[d],
            r.origin[d] + r.lengths[d], box.length[d], r.counts[d], r.spacings[d]);
    add(out, "  the spacing grows with the molecule; -xp -yp -zp set the point counts, -xs .. -zl the box\n");
}

}  // namespace

OrbitalMarks orbital_marks(const Molecule& mol, bool beta) {
    const OrbitalSet* set = beta ? mol.beta.get() : mol.alpha.get();
    OrbitalMarks m;
    if (!set) return m;
    const int nocc = occupied_count(mol, beta);
    if (nocc >= 1 && nocc <= set->count) m.homo = nocc;
    if (nocc + 1 <= set->count) m.lumo = nocc + 1;
    return m;
}

std::string job_report(const std::string& job, const Molecule& mol, bool all) {
    std::string out;
    files_section(out, job, mol);
    electrons_section(out, mol);
    atoms_section(out, mol);
    basis_section(out, mol);
    const bool open = !mol.restricted;
    orbital_section(out, open ? "Alpha orbitals" : "Orbitals", "-moa", mol.alpha.get(), mol, false, true, false, all);
    orbital_section(out, "Beta orbitals", "-mob", mol.beta.get(), mol, true, true, false, all);
    orbital_section(out, open ? "Localized alpha orbitals" : "Localized orbitals", "-loa", mol.localized.get(), mol,
                    false, false, false, all);
    orbital_section(out, "Localized beta orbitals", "-lob", mol.localized_beta.get(), mol, true, false, false, all);
    orbital_section(out, "Natural orbitals", "-nos", mol.natural.get(), mol, false, false, true, all);
    if (!mol.alpha && !mol.beta && !mol.natural) add(out, "\nOrbitals: none read\n");
    grid_section(out, mol);
    add(out, "\nDensity checksum %u: the job's part of every property file's stamp%s\n",
        static_cast<unsigned>(mol.density_checksum),
        mol.density_checksum ? "" : " (0: kalvex uses its process id, so files are never reused)");
    return out;
}

int run_info(int argc, char** argv) {
    std::string job;
    bool all = false;
    for (int i = 1; i < argc; ++i) {
        if (is_help_word(argv[i])) {
            std::printf(
                "%s\n  the job's files, charge and multiplicity, atoms, basis, orbitals (energies,\n"
                "  occupations, HOMO and LUMO; --all lists every orbital) and the default grid\n",
                kUsage);
            return 0;
        }
        if (is_version_word(argv[i])) {
            std::printf("%s\n", common::version_line("kalvex-info").c_str());
            return 0;
        }
        if (std::strcmp(argv[i], "--all") == 0) {
            all = true;
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            std::fprintf(stderr, "kalvex-info: unknown option %s\n%s\n", argv[i], kUsage);
            return 1;
        } else if (job.empty()) {
            job = argv[i];
        } else {
            std::fprintf(stderr, "kalvex-info: one job at a time\n%s\n", kUsage);
            return 1;
        }
    }
    if (job.empty()) {
        std::fprintf(stderr, "%s\n", kUsage);
        return 1;
    }
    moldata::MoleculeLoad load = moldata::build_molecule(job);
    std::fflush(stdout);
    if (load.error) {
        std::fprintf(stderr, "kalvex-info: cannot read job %s: %s\n", job.c_str(), load.error.message.c_str());
        return 1;
    }
    if (!load.molecule) {
        std::fprintf(stderr, "kalvex-info: cannot read job %s (no %s.control or %s.kvm)\n", job.c_str(), job.c_str(),
                     job.c_str());
        return 1;
    }
    std::fputs(job_report(job, *load.molecule, all).c_str(), stdout);
    return 0;
}

}  // namespace kvx::main
