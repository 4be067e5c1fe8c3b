#include "import/import.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>

#include "common/input_file.h"
#include "common/memory.h"
#include "common/version.h"
#include "import/readers.h"

namespace kvx::import {

namespace {

// The file's bytes as they were when it was opened: only a regular file (a
// FIFO or a device would block or never end), at most kMaxSourceBytes.
std::string read_regular_file(const std::string& path) {
    common::RegularFile file = common::open_regular(path);
    if (file.fd < 0)
        throw ImportError(file.not_regular ? "cannot open the file (" + file.error + ")" : "cannot open the file", 0);
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{file.fd};
    // Its text, its lines and its numbers are held at once: about three times its size.
    const std::uint64_t most = std::min(kMaxSourceBytes, common::usable_memory_bytes() / 3);
    if (file.size > most)
        throw ImportError("the file holds " + common::memory_text(file.size) + "; at most " +
                              common::memory_text(most) + " can be read here (a third of the memory this process " +
                              "can use, 16 GB at most)",
                          0);
    std::string s(static_cast<std::size_t>(file.size), '\0');
    std::size_t got = 0;
    while (got < s.size()) {
        const ssize_t n = ::read(file.fd, s.data() + got, s.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw ImportError("cannot read the file", 0);
        if (n == 0) break;  // it shrank since it was opened
        got += static_cast<std::size_t>(n);
    }
    s.resize(got);
    return s;
}

}  // namespace

SourceJob read_source(const std::string& path) {
    const std::string s = read_regular_file(path);
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
