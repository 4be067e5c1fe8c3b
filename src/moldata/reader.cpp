#include "moldata/reader.h"

#include <climits>
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

namespace {

// Rewinds f and scans tokens for the first one equal to keyword; tok then
// holds the token after it (empty at end of file).
bool find_keyword(std::FILE* f, const char* keyword, std::string& tok) {
    std::rewind(f);
    while (scan_token(f, tok))
        if (tok == keyword) {
            if (!scan_token(f, tok)) tok.clear();
            return true;
        }
    return false;
}

}  // namespace

int read_keyword(std::FILE* f, const char* keyword) {
    std::string tok;
    int v = kKeywordMissing;
    if (!find_keyword(f, keyword, tok) || parse_int_token(tok, v) != IntToken::Value) return kKeywordMissing;
    return v;
}

namespace {

// The counts of one file, each checked before anything uses it: a value
// that is a number but not an integer, or lies outside its range, refuses
// the job with the first such message.
struct CountReader {
    std::FILE* f;
    std::string path;
    JobError error;

    // The integer token tok, or `missing` when it is no number (the sentinel
    // value of a file holding -666 included).
    int value(const char* keyword, const std::string& tok, int missing, long long lo, long long hi) {
        int v = missing;
        const IntToken kind = parse_int_token(tok, v);
        if (kind == IntToken::NotNumber || (kind == IntToken::Value && v == kKeywordMissing)) return missing;
        if (error) return missing;
        if (kind == IntToken::NotInteger) {
            error = {"Moldata read_counts: " + path + ": " + keyword + " \"" + tok + "\" is not an integer"};
        } else if (kind == IntToken::OutOfRange || v < lo || v > hi) {
            std::string range = std::to_string(lo) + " to " + std::to_string(hi);
            if (hi == INT_MAX) range = std::to_string(lo) + " or more";
            if (kind == IntToken::OutOfRange) range = "beyond 32 bits";
            error = {"Moldata read_counts: " + path + ": " + keyword + " " + tok + " is out of range (" + range + ")"};
        }
        return error ? missing : v;
    }
    int get(const char* keyword, int missing, long long lo = INT_MIN, long long hi = INT_MAX) {
        std::string tok;
        return find_keyword(f, keyword, tok) ? value(keyword, tok, missing, lo, hi) : missing;
    }
};

}  // namespace

MoleculeLoad read_counts(const std::string& jobname) {
    File control = open_read(jobname + ".control");
    if (!control) return {};
    CountReader counts{control.get(), jobname + ".control", {}};
    const int natoms = counts.get("$natoms", kKeywordMissing, 0);
    if (counts.error) return {nullptr, counts.error, {}};
    if (natoms == kKeywordMissing) return {};

    auto mol = std::make_unique<Molecule>();
    mol->name = jobname;
    mol->natoms = natoms;
    mol->nmol = counts.get("$nmol", 1, 0);
    mol->multiplicity = counts.get("$multiplicity", 1);
    mol->charge = counts.get("$charge", 0);
    mol->nalpha = counts.get("$nalpha", 0, 0);
    mol->nbeta = counts.get("$nbeta", 0, 0);
    // Two integers after the keyword, the second the number of dummy atoms
    // among natoms; one that is no number ends the pair with zeros.
    mol->ndummy = {0, 0};
    std::string tok;
    int first = 0;
    if (find_keyword(control.get(), "$ndummy", tok) && parse_int_token(tok, first) != IntToken::NotNumber) {
        mol->ndummy[0] = counts.value("$ndummy", tok, 0, INT_MIN, INT_MAX);
        if (!counts.error && scan_token(control.get(), tok))
            mol->ndummy[1] = counts.value("$ndummy", tok, 0, 0, natoms);
    }
    mol->nbits = counts.get("$nbits", 32);
    mol->intsize = counts.get("$intsize", 2);
    if (counts.error) return {nullptr, counts.error, {}};

    if (File basis = open_read(jobname + ".basis")) {
        CountReader bc{basis.get(), jobname + ".basis", {}};
        mol->nbasis = bc.get("$nbasis", 0, 0);
        mol->nshell = bc.get("$nshell", 0, 0);
        mol->nprim = bc.get("$nprim", 0, 0);
        if (bc.error) return {nullptr, bc.error, {}};
    }
    mol->restricted = mol->nbeta == 0 && mol->multiplicity == 1 ? 1 : 0;
    return {std::move(mol), {}, {}};
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
    File file = open_read(path, false, kOneFileLimit);
    if (!file) return {};
    std::FILE* f = file.get();

    auto mol = std::make_unique<Molecule>();
    mol->name = jobname;
    CountReader counts{f, path, {}};
    mol->nalpha = counts.get("$nalpha", 0, 0);
    mol->nbeta = counts.get("$nbeta", 0, 0);
    if (counts.error) return {nullptr, counts.error, {}};
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
        if (JobError e = read_onefile_basis(*mol, path)) return {nullptr, e, {}};
    }
    MoleculeLoad load{std::move(mol), {}, {}};
    if (load.molecule->has_shells()) read_onefile_orbitals(*load.molecule, jobname, &load.warnings);
    return load;
}

namespace {

// The multi-file layout; no molecule when the control file does not count.
MoleculeLoad read_multifile(const std::string& jobname) {
    MoleculeLoad counts = read_counts(jobname);
    if (!counts.molecule) return counts;
    Molecule& mol = *counts.molecule;
    if (JobError e = read_coordinates(mol, jobname + ".coord")) return {nullptr, e, {}};
    if (mol.has_atoms()) {
        if (JobError e = read_symmetry(mol, jobname + ".sym")) return {nullptr, e, {}};
        if (JobError e = read_basis(mol, jobname + ".basis")) return {nullptr, e, {}};
        sort_shells(mol);
        // Coefficients are read per nbasis: only for a basis that gave it.
        if (mol.has_shells()) read_orbitals(mol, jobname, &counts.warnings);
    }
    return counts;
}

}  // namespace

MoleculeLoad build_molecule(const std::string& jobname) {
    MoleculeLoad load = read_multifile(jobname);
    // A control file that counts keeps its molecule, atoms or not.
    if (!load.molecule && !load.error) load = read_onefile(jobname);
    if (!load.molecule) return load;
    Molecule& mol = *load.molecule;
    if (JobError e = compute_density(mol)) return {nullptr, e, {}};
    if (JobError e = add_overlap(mol)) return {nullptr, e, {}};
    mol.flags = compute_flags(mol);
    return load;
}

}  // namespace kvx::moldata
