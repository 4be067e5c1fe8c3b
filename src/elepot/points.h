// The points the potential is evaluated at, grouped into lines.
//
// The THO factors of a primitive pair depend on a point C only through
// PC_x, PC_y and PC_z, so they are tabled per line: every point of x line i
// shares the coordinate x[i], and likewise for y and z. A lattice of
// nx x ny x nz points has nx + ny + nz lines; a list of points gives each
// point its own three lines.
#pragma once

#include <vector>

#include "grid/grid.h"

namespace kvx::elepot {

struct PointLines {
    std::vector<double> x, y, z;  // line coordinates, bohr
    // Lattice: point p = (i ny + j) nz + k lies on lines (i, j, k), with 1 for
    // the extents of missing dimensions. List: point p lies on lines (p, p, p).
    bool lattice = true;
    bool z_monotone = true;  // z[k] never rises or never falls with k
    int nx = 0, ny = 0, nz = 0;
    long npoints = 0;
    grid::GridGeometry geo;   // lattice: where each point really is
    std::vector<double> xyz;  // list: the points, x y z each

    // Coordinates of point p (a lattice point of a rotated grid is not at
    // its lines' coordinates: its lines are taken all the same, as intended).
    void point(long p, double r[3]) const;
    // Lines of point p.
    void lines_of(long p, int& i, int& j, int& k) const;
    // Smallest and largest line of each axis over points [first, first + n).
    void line_range(long first, long n, int lo[3], int hi[3]) const;
};

// Lines of a grid: x[i] is the x coordinate of lattice point (i, 0, 0), y[j]
// the y coordinate of (0, j, 0), z[k] the z coordinate of (0, 0, k). Empty
// (npoints 0) for a dimension count outside 1..3 or counts that do not
// multiply to the total.
PointLines lattice_lines(const grid::Grid& g);

// Lines of n points given as x y z triples.
PointLines list_lines(const double* xyz, long n);

}  // namespace kvx::elepot
