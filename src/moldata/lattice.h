// The grid a job's property files are computed on, as far as their stamps
// are concerned: the default box around the atoms, the lattice record that
// kalvex builds from an axis-aligned box, and the stamp of such a record.
// Shared by kalvex, kalvex-info and the view tools, which check that a
// property file belongs to the job they are given.
#pragma once

#include <cstdint>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::moldata {

inline constexpr double kBoxMargin = 5.7;  // bohr around the atoms
inline constexpr int kDefaultPoints = 30;  // per axis
inline constexpr double kDefaultSpacing = 0.5;

// Start (lowest corner) and edge lengths of a box, bohr.
struct Box {
    double start[3] = {0, 0, 0};
    double length[3] = {0, 0, 0};
};

// The atoms' bounding box plus kBoxMargin on every side: start = min - 5.7,
// length = (max + 5.7) - start. Without atoms the start stays 1e10 - 5.7 and
// the length is negative, as kalvex leaves it.
Box default_box(const std::vector<Atom>& atoms);

// The fields of a grid record that its stamp covers.
struct LatticeRecord {
    int ndim = 3;
    double centre[3] = {0, 0, 0};
    double origin[3] = {0, 0, 0};
    double axes[3][3] = {};  // axes[c][d]: component c of step vector d
    double lengths[3] = {0, 0, 0};
    double spacings[3] = {0, 0, 0};
    int counts[3] = {1, 1, 1};
};

// Stamp chained from seed over centre, origin, the rows of axes (x, y, z;
// ndim entries each), lengths, spacings and counts (ndim entries each).
std::uint32_t lattice_stamp(const LatticeRecord& r, std::uint32_t seed);

// One axis of an axis-aligned box grid: the box's start and length, the
// requested point count and the spacing used when that count is 2 or less.
struct BoxAxis {
    double start = 0, length = 0, spacing = kDefaultSpacing;
    int count = kDefaultPoints;
};

// The record of the 3-D grid kalvex builds for the box, with the arithmetic
// of its grid builder (centre start + length/2, half-axes length/2; step
// 2L/(N-1) for N > 2, else the spacing with as many points as cover the
// box, plus one). False when the builder refuses the box.
bool box_lattice(const BoxAxis axes[3], LatticeRecord& out);

}  // namespace kvx::moldata
