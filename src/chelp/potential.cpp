#include "chelp/potential.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "chelp/esp_points.h"
#include "chelp/tool_args.h"
#include "common/version.h"
#include "common/fatal.h"
#include "elepot/elepot.h"
#include "moldata/reader.h"

namespace kvx::chelp {

namespace {

constexpr const char* kTool = "kalvex-potential";
constexpr const char* kUsage =
    "usage: kalvex-potential JOB POINTS [OUT] [--angstrom] [-thresh T] [-memmax MB] [-numt N]";

int fail(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", kTool, message.c_str());
    return 1;
}

// Writes through a temporary file beside path, renamed over it only when
// every byte reached the disk.
bool write_atomically(const std::string& path, const std::vector<double>& xyz, const std::vector<double>& v,
                      const std::string& header, std::string& error) {
    std::string tmp = path + ".XXXXXX";
    const int fd = ::mkstemp(tmp.data());
    std::FILE* f = fd >= 0 ? ::fdopen(fd, "w") : nullptr;
    if (!f) {
        if (fd >= 0) ::close(fd), std::remove(tmp.c_str());
        error = "cannot create " + path + " (" + std::strerror(errno) + ")";
        return false;
    }
    // mkstemp makes 0600; give the file the mode fopen would have.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    std::fputs(header.c_str(), f);
    for (std::size_t p = 0; p < v.size(); ++p)
        std::fprintf(f, "%.11e %.11e %.11e %.11e\n", xyz[3 * p], xyz[3 * p + 1], xyz[3 * p + 2], v[p]);
    bool ok = std::fflush(f) == 0 && !std::ferror(f);
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        error = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace

PointList read_point_list(const std::string& path) {
    PointList out;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        out.error = "cannot read " + path;
        return out;
    }
    std::string line;
    for (long n = 1; std::getline(in, line); ++n) {
        const std::string text = line.substr(0, line.find('#'));
        const char* c = text.c_str();
        double v[3];
        int got = 0;
        bool bad = text.find('\0') != std::string::npos;
        while (!bad) {
            while (*c == ' ' || *c == '\t' || *c == '\r') ++c;
            if (!*c) break;
            const char* start = c;
            while (*c && *c != ' ' && *c != '\t' && *c != '\r') ++c;
            const std::string word(start, c);
            double x = 0.0;
            if (got == 3 || !parse_number(word.c_str(), x))
                bad = true;
            else
                v[got++] = x;
        }
        if (got == 0 && !bad) continue;
        if (bad || got != 3) {
            out.xyz.clear();
            out.error = path + ", line " + std::to_string(n) + ": expected three numbers x y z, found " + quoted(line);
            return out;
        }
        if (!common::try_alloc([&] { out.xyz.insert(out.xyz.end(), v, v + 3); })) {
            out.xyz.clear();
            out.error = path + ", line " + std::to_string(n) + ": out of memory";
            return out;
        }
    }
    if (in.bad()) {
        out.xyz.clear();
        out.error = "cannot read " + path;
    } else if (out.xyz.empty()) {
        out.error = path + ": no points (lines of x y z)";
    }
    return out;
}

int run_potential(int argc, char** argv) {
    if (common::answer_help_or_version("kalvex-potential", kUsage, argc, argv)) return 0;
    std::vector<std::string> pos;
    bool angstrom = false;
    double thresh = 1e-6, memmax = 400.0;
    int numt = -4;
    for (int i = 1; i < argc; ++i) {
        const std::string w = argv[i];
        if (w == "--angstrom") {
            angstrom = true;
        } else if (w == "-thresh" || w == "-memmax" || w == "-numt") {
            if (i + 1 >= argc) return fail(w + " needs a value\n" + kUsage);
            const char* v = argv[++i];
            double x = 0.0;
            if (w == "-numt") {
                if (!parse_int(v, numt)) return fail("-numt takes a whole number, not " + quoted(v));
            } else if (!parse_number(v, x) || !(x > 0.0)) {
                return fail(w + " takes a positive number, not " + quoted(v));
            } else {
                (w == "-thresh" ? thresh : memmax) = x;
            }
        } else if (w.size() > 1 && w[0] == '-') {
            return fail("unknown option " + quoted(w) + "\n" + kUsage);
        } else {
            pos.push_back(w);
        }
    }
    if (pos.size() < 2 || pos.size() > 3) return fail(kUsage);
    const std::string& job = pos[0];
    const std::string& points_path = pos[1];
    const std::string out_path = pos.size() == 3 ? pos[2] : points_path + ".esp";

    const PointList list = read_point_list(points_path);
    if (!list.error.empty()) return fail(list.error);
    const long n = static_cast<long>(list.xyz.size() / 3);

    moldata::MoleculeLoad load = moldata::build_molecule(job);
    std::fflush(stdout);
    if (load.error) return fail("cannot read job " + job + ": " + load.error.message);
    const auto& mol = load.molecule;
    if (!mol || !mol->has_atoms())
        return fail("cannot read job " + job + " (no atoms in " + job + ".coord or " + job + ".kvm)");
    if (!mol->has_shells() || !mol->density)
        return fail("job " + job + " has no orbitals (no basis set or no " + job +
                    ".mos): the potential needs the density matrix");

    std::vector<double> bohr = list.xyz, v;
    if (angstrom)
        for (double& x : bohr) x *= kBohrPerAngstrom;
    if (!common::try_alloc([&] { v.assign(static_cast<std::size_t>(n), 0.0); }))
        return fail("out of memory for " + std::to_string(n) + " points");
    if (!elepot::elepot_init_points(mol.get(), bohr.data(), n, memmax, thresh, numt)) {
        elepot::elepot_cleanup();
        return fail("cannot set up the potential for job " + job +
                    " (-memmax too small for one integral block, or a shell the potential code cannot integrate)");
    }
    std::printf("Potential of job %s at %ld points of %s (%s)\n", job.c_str(), n, points_path.c_str(),
                angstrom ? "angstrom" : "bohr");
    elepot::comp_elepot(v.data(), mol.get());
    elepot::elepot_cleanup();

    const std::string unit = angstrom ? "angstrom" : "bohr";
    const std::string header =
        "# kalvex-potential: job " + job + ", points " + points_path + "\n# x y z (" + unit + ") V (hartree/e)\n";
    std::string error;
    if (!write_atomically(out_path, list.xyz, v, header, error)) return fail(error);
    std::printf("Potential file: %s\n", out_path.c_str());
    return 0;
}

}  // namespace kvx::chelp
