#include "import/import.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>

#include "common/version.h"
#include "import/readers.h"

namespace kvx::import {

SourceJob read_source(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ImportError("cannot open the file", 0);
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw ImportError("cannot read the file", 0);
    const std::string s = text.str();
    if (s.find('\0') != std::string::npos) throw ImportError("binary data: not a Molden, formatted checkpoint or AIM file", 0);
    const std::vector<std::string> lines = split_lines(s);
    switch (detect_format(lines)) {
        case SourceFormat::Fchk: return read_fchk(lines);
        case SourceFormat::Molden: return read_molden(lines);
        case SourceFormat::Wfn: return read_wfn(lines);
        case SourceFormat::Wfx: return read_wfx(lines);
        default:
            throw ImportError("neither a Molden, a formatted checkpoint nor an AIM wfn or wfx file (expected \"[Atoms]\", "
                              "\"Number of atoms   I\", \"GAUSSIAN ... MOL ORBITALS\" or \"<Number of Nuclei>\")",
                              1);
    }
}

namespace {

// "HOMO 5, LUMO 6", per spin for open shells; a file of occupied orbitals
// only (AIM) has no LUMO.
std::string frontier(int nocc, int norb) {
    std::string s = nocc >= 1 ? std::to_string(nocc) : "none";
    return s + ", LUMO " + (nocc < norb ? std::to_string(nocc + 1) : "none (no virtual orbitals in the file)");
}

void print_frontier(const ImportReport& r) {
    const int norb_beta = r.restricted_open ? r.norb_alpha : r.norb_beta;
    if (r.restricted)
        std::printf("  HOMO %s\n", frontier(r.nalpha, r.norb_alpha).c_str());
    else
        std::printf("  alpha HOMO %s; beta HOMO %s\n", frontier(r.nalpha, r.norb_alpha).c_str(),
                    frontier(r.nbeta, norb_beta).c_str());
}

void print_report(const std::string& input, const SourceJob& src, const ImportReport& r) {
    std::printf("kalvex-import: %s (%s)\n", input.c_str(), src.format.c_str());
    std::printf("  atoms %d, shells %d, basis functions %d (%d in the file)\n", r.natoms, r.nshells, r.nbasis,
                r.nbasis_source);
    if (r.restricted)
        std::printf("  orbitals: %d restricted\n", r.norb_alpha);
    else if (r.restricted_open)
        std::printf("  orbitals: %d restricted open-shell, written for both spins\n", r.norb_alpha);
    else
        std::printf("  orbitals: %d alpha, %d beta (unrestricted)\n", r.norb_alpha, r.norb_beta);
    print_frontier(r);
    std::printf("  electrons %d (alpha %d, beta %d), charge %d, multiplicity %d\n", r.nalpha + r.nbeta, r.nalpha,
                r.nbeta, r.charge, r.multiplicity);
    std::printf("  normalisation: %s\n", r.convention.c_str());
    if (!r.valence_charges.empty()) {
        std::printf("  effective core potentials: nuclear charges written are the valence charges (");
        std::string done;
        for (std::size_t i = 0; i < r.valence_charges.size(); ++i) {
            const auto& [label, q] = r.valence_charges[i];
            if (done.find(" " + label + " ") != std::string::npos) continue;
            std::printf("%s%s %g", done.empty() ? "" : ", ", label.c_str(), q);
            done += " " + label + " ";
        }
        std::printf("); the potential and the charge fit use them\n");
    }
    // A file of a job with effective core potentials that gives the full
    // nuclear charges (NWChem's wfn files do) shows as a highly charged ion.
    if (r.valence_charges.empty() && std::abs(r.charge) > 4)
        std::printf("  note: charge %+d; if the job used effective core potentials, the file gives the full nuclear "
                    "charges and the potential and charges Kalvex computes are wrong\n",
                    r.charge);
    std::printf("  orbitals orthonormal in Kalvex's overlap: largest |C S C^T - I| %.1e (occupied), %.1e (all)\n",
                r.orthonormality.occupied, r.orthonormality.all);
    for (const auto& f : r.removed) std::printf("  removed %s (left from an earlier job of this name)\n", f.c_str());
    std::printf("  wrote");
    for (const auto& f : r.written) std::printf(" %s", f.c_str());
    std::printf("\n");
}

}  // namespace

int run_import(int argc, char** argv) {
    static const char kUsage[] =
        "usage: kalvex-import INPUT JOB\n"
        "  INPUT: a Molden (.molden), formatted checkpoint (.fchk) or AIM (.wfn, .wfx) file\n"
        "  JOB:   the Kalvex job to write (JOB.control, JOB.coord, JOB.basis, JOB.mos, JOB.mob)\n";
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("%s\n", common::version_line("kalvex-import").c_str());
        return 0;
    }
    if (argc != 3) {
        std::fputs(kUsage, stderr);
        return 1;
    }
    const std::string input = argv[1], job = argv[2];
    try {
        const SourceJob src = read_source(input);
        const ImportReport r = write_kalvex_job(src, job, input);
        print_report(input, src, r);
        std::fflush(stdout);
        return 0;
    } catch (const ImportError& e) {
        if (e.line > 0)
            std::fprintf(stderr, "kalvex-import: %s, line %d: %s\n", input.c_str(), e.line, e.what());
        else
            std::fprintf(stderr, "kalvex-import: %s: %s\n", input.c_str(), e.what());
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kalvex-import: %s: out of memory\n", input.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kalvex-import: %s: %s\n", input.c_str(), e.what());
    }
    return 1;
}

}  // namespace kvx::import
