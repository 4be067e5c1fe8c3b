#include "main/grid_cost.h"

#include <cstdio>

#include "moldata/property_words.h"

namespace kvx::main {

namespace {

using enum moldata::RequestKind;

// Seconds per point on one core of the development machine (water, HF with
// 19 to 100 basis functions, 50^3 points, file writing included): a fixed
// part, and the evaluation, which grows with the basis (orbitals, densities)
// and with the basis squared (the potential's shell pairs).
constexpr double kPerPoint = 4e-7;
constexpr double kPerFunction = 2e-9;
constexpr double kPerFunctionPair = 1.5e-8;
// A property file line ("-0.123456\n") and a value in memory.
constexpr double kFileBytesPerPoint = 10;
constexpr double kValueBytes = 8;
// -chelp: potential values, the admitted-point mask, the fit's coordinates and values.
constexpr double kChelpBytesPerPoint = 8 + 1 + 24 + 8;

constexpr double kLargeBytes = 1e9;
constexpr double kLongSeconds = 60;

std::string size_text(double bytes) {
    char b[32];
    if (bytes >= 1e9)
        std::snprintf(b, sizeof b, "%.1f GB", bytes / 1e9);
    else
        std::snprintf(b, sizeof b, "%.0f MB", bytes / 1e6);
    return b;
}

std::string time_text(double s) {
    char b[32];
    if (s >= 3600)
        std::snprintf(b, sizeof b, "%.1f h", s / 3600);
    else if (s >= 60)
        std::snprintf(b, sizeof b, "%.0f min", s / 60);
    else
        std::snprintf(b, sizeof b, "%.0f s", s);
    return b;
}

}  // namespace

GridCost estimate_cost(const grid::Grid& g, int kind, const moldata::Molecule& mol) {
    const double points = g.total;
    const double nbf = mol.nbasis;
    const double nocc = mol.nalpha + mol.nbeta;
    GridCost c;
    c.memory_bytes = kValueBytes * points;
    c.file_bytes = kFileBytesPerPoint * points;
    switch (kind) {
        case kReqEp:
            c.seconds = points * (kPerPoint + kPerFunctionPair * nbf * nbf);
            break;
        case kReqChelp:
            c.seconds = points * (kPerPoint + kPerFunctionPair * nbf * nbf);
            c.memory_bytes = kChelpBytesPerPoint * points;
            c.file_bytes = 0;
            break;
        case kReqMoa:
        case kReqMob:
        case kReqLoa:
        case kReqLob:
        case kReqNos:
            c.seconds = points * (kPerPoint + kPerFunction * nbf);
            break;
        case kReqEnd:
            return GridCost{};
        default:  // densities: every occupied orbital at every point
            c.seconds = points * (kPerPoint + kPerFunction * nbf * (nocc > 1 ? nocc : 1));
            break;
    }
    return c;
}

std::string large_grid_note(const grid::Grid& g, int kind, const moldata::Molecule& mol) {
    const GridCost c = estimate_cost(g, kind, mol);
    if (c.memory_bytes < kLargeBytes && c.file_bytes < kLargeBytes && c.seconds < kLongSeconds) return "";
    int n[3] = {1, 1, 1};
    for (int d = 0; d < g.ndim && d < 3; ++d) n[d] = g.counts[d];
    char head[160];
    std::snprintf(head, sizeof head, "%s on %d x %d x %d = %u points: ", moldata::kPropertyWords[kind].request, n[0],
                  n[1], n[2], g.total);
    std::string note = head;
    note += "about " + size_text(c.memory_bytes) + " of memory";
    if (c.file_bytes > 0) note += ", a property file of " + size_text(c.file_bytes);
    note += " and roughly " + time_text(c.seconds) + " (a rough estimate); starting";
    return note;
}

}  // namespace kvx::main
