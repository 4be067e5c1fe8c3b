#include "moldata/reader.h"

#include <cstdlib>
#include <cstring>

#include "moldata/basis.h"
#include "moldata/density.h"
#include "moldata/orbitals.h"
#include "moldata/overlap.h"
#include "moldata/symbols.h"
#include "moldata/symmetry.h"
#include "moldata/textio.h"

namespace kvx::moldata {

int read_keyword(std::FILE* f, const char* keyword) {
    std::rewind(f);
    std::string tok;
    while (scan_token(f, tok)) {
        if (tok == keyword) {
            int v;
            return scan_int(f, v) ? v : kKeywordMissing;
        }
    }
    return kKeywordMissing;
}

namespace {

int keyword_or(std::FILE* f, const char* keyword, int missing) {
    const int v = read_keyword(f, keyword);
    return v == kKeywordMissing ? missing : v;
}

}  // namespace

std::unique_ptr<Molecule> read_counts(const std::string& jobname) {
    File control = open_read(jobname + ".control");
    if (!control) return nullptr;
    std::FILE* f = control.get();
    const int natoms = read_keyword(f, "$natoms");
    if (natoms == kKeywordMissing) return nullptr;

    auto mol = std::make_unique<Molecule>();
    mol->name = jobname;
    mol->natoms = natoms;
    mol->nmol = keyword_or(f, "$nmol", 1);
    mol->multiplicity = keyword_or(f, "$multiplicity", 1);
    mol->charge = keyword_or(f, "$charge", 0);
    mol->nalpha = keyword_or(f, "$nalpha", 0);
    mol->nbeta = keyword_or(f, "$nbeta", 0);
    mol->ndummy = {0, 0};
    if (read_keyword(f, "$ndummy") != kKeywordMissing) {
        // Both integers after the keyword.
        std::rewind(f);
        std::string tok;
        while (scan_token(f, tok) && tok != "$ndummy") {
        }
        for (int& d : mol->ndummy)
            if (!scan_int(f, d)) d = 0;
    }
    mol->nbits = keyword_or(f, "$nbits", 32);
    mol->intsize = keyword_or(f, "$intsize", 2);

    if (File basis = open_read(jobname + ".basis")) {
        mol->nbasis = keyword_or(basis.get(), "$nbasis", 0);
        mol->nshell = keyword_or(basis.get(), "$nshell", 0);
        mol->nprim = keyword_or(basis.get(), "$nprim", 0);
    }
    mol->restricted = mol->nbeta == 0 && mol->multiplicity == 1 ? 1 : 0;
    return mol;
}

JobError read_coordinates(Molecule& mol, const std::string& path) {
    mol.atoms.clear();
    const int expected = mol.natoms;
    mol.natoms = 0;
    if (expected <= 0) return {};
    File file = open_read(path);
    if (!file) return {};
    std::FILE* f = file.get();

    std::string tok;
    do {
        if (!scan_token(f, tok)) return {};
    } while (tok != "$coordinates");

    std::vector<Atom> atoms;
    int molecule = 1;
    for (;;) {
        if (!scan_token(f, tok)) return {};  // no "$end": the atoms are dropped
        if (tok == "$end") break;
        if (tok == "$molecule") {
            ++molecule;
            continue;
        }
        if (static_cast<int>(atoms.size()) >= expected) return {"Read_atomdata: number of atoms exceeded"};
        Atom a;
        a.symbol = tok.substr(0, 8);
        a.atomic_number = atomic_number(a.symbol);
        a.molecule = molecule;
        double* fields[5] = {&a.x, &a.y, &a.z, &a.nuclear_charge, &a.extra};
        for (double* v : fields) {
            std::string num;
            char* end = nullptr;
            if (!scan_token(f, num)) return {};
            *v = std::strtod(num.c_str(), &end);
            if (end == num.c_str()) {
                std::printf("Read_atomdata: %s: \"%s\" is not a number, atoms ignored\n", path.c_str(), num.c_str());
                std::fflush(stdout);
                return {};
            }
        }
        atoms.push_back(std::move(a));
    }
    const int got = static_cast<int>(atoms.size());
    if (molecule != mol.nmol) std::printf("Read_atondata warning: expected %d molecule(s), got %d\n", mol.nmol, molecule);
    if (got != expected) std::printf("Read_atomdata warning: expected %d atom(s), got %d\n", expected, got);
    std::fflush(stdout);
    mol.atoms = std::move(atoms);
    mol.natoms = got;
    return {};
}

MoleculeLoad read_onefile(const std::string& jobname) {
    const std::string path = jobname + ".kvm";
    File file = open_read(path);
    if (!file) return {};
    std::FILE* f = file.get();

    auto mol = std::make_unique<Molecule>();
    mol->name = jobname;
    mol->nalpha = keyword_or(f, "$nalpha", 0);
    mol->nbeta = keyword_or(f, "$nbeta", 0);
    mol->restricted = mol->nbeta == 0 ? 1 : 0;

    // "$coord": one atom per line, "x y z symbol", until a line with "$".
    std::rewind(f);
    std::string line;
    const bool found = find_line(f, line, "$coord", 300);
    std::vector<Atom> atoms;
    bool closed = false;
    while (found && read_line(f, line, 300)) {
        if (line.find('$') != std::string::npos) {
            closed = true;
            break;
        }
        if (line.find_first_not_of(" \t\r\n") == std::string::npos) continue;
        Atom a;
        char sym[301] = {0};
        if (std::sscanf(line.c_str(), "%14lf %14lf %14lf %300s", &a.x, &a.y, &a.z, sym) != 4) {
            std::printf("Moldata read_onefile: %s: bad atom line, atoms ignored\n", path.c_str());
            std::fflush(stdout);
            closed = false;
            break;
        }
        a.symbol = std::string(sym).substr(0, 8);
        a.atomic_number = atomic_number(a.symbol);
        a.nuclear_charge = a.atomic_number;
        a.molecule = 1;
        atoms.push_back(std::move(a));
    }
    if (closed) {
        mol->atoms = std::move(atoms);
        mol->natoms = static_cast<int>(mol->atoms.size());
    }
    file.reset();

    if (mol->has_atoms()) {
        if (JobError e = read_onefile_basis(*mol, path)) return {nullptr, e};
        if (mol->has_shells()) read_onefile_orbitals(*mol, jobname);
    }
    return {std::move(mol), {}};
}

namespace {

// The multi-file layout; no molecule when the control file does not count.
MoleculeLoad read_multifile(const std::string& jobname) {
    std::unique_ptr<Molecule> mol = read_counts(jobname);
    if (!mol) return {};
    if (JobError e = read_coordinates(*mol, jobname + ".coord")) return {nullptr, e};
    if (mol->has_atoms()) {
        if (JobError e = read_symmetry(*mol, jobname + ".sym")) return {nullptr, e};
        if (JobError e = read_basis(*mol, jobname + ".basis")) return {nullptr, e};
        sort_shells(*mol);
        // Coefficients are read per nbasis: only for a basis that gave it.
        if (mol->has_shells()) read_orbitals(*mol, jobname);
    }
    return {std::move(mol), {}};
}

}  // namespace

MoleculeLoad build_molecule(const std::string& jobname) {
    MoleculeLoad load = read_multifile(jobname);
    // A control file that counts keeps its molecule, atoms or not.
    if (!load.molecule && !load.error) load = read_onefile(jobname);
    if (!load.molecule) return load;
    Molecule& mol = *load.molecule;
    if (JobError e = compute_density(mol)) return {nullptr, e};
    if (JobError e = add_overlap(mol)) return {nullptr, e};
    mol.flags = compute_flags(mol);
    return load;
}

}  // namespace kvx::moldata
