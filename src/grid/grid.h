// Grid geometry: the lattice record, its installation as the current grid,
// and the conversions between linear index, per-dimension indices and
// cartesian coordinates (bohr).
//
// Linear numbering: the last dimension varies fastest,
//   k = sum_{d < n-1} stride[d] * idx[d] + idx[n-1].
#pragma once

#include <memory>
#include <string>

namespace kvx::grid {

struct Grid {
    int ndim = 0;              // 1, 2 or 3
    double centre[3] = {0, 0, 0};
    double origin[3] = {0, 0, 0};   // point with all indices 0
    double axes[3][3] = {};         // axes[c][d]: component c of step vector d
    int counts[3] = {1, 1, 1};      // points along each dimension (first ndim used)
    unsigned total = 0;             // product of the counts
    double lengths[3] = {0, 0, 0};  // (count - 1) * spacing
    double spacings[3] = {0, 0, 0};
    std::string property_name;
};

// Builds a grid of dimension n from a centre, n half-axis vectors
// (half_axes[c][d]), a fallback spacing per dimension and the requested
// counts. Null when the geometry is degenerate or n is not 1..3.
std::unique_ptr<Grid> grid_build(int n, const double centre[3], const double half_axes[3][3],
                                 const double spacing[], const int counts[]);
void grid_destroy(std::unique_ptr<Grid>& grid);

// What the evaluators need of a grid: strides for linear numbering, the step
// matrix M (M[r][d] = component r of step d) and its inverse, the
// axis-aligned flag and the conversions chosen by it. A value computed from
// the grid record; evaluators keep their own, so no result depends on which
// grid was installed last.
struct GridGeometry {
    const Grid* grid = nullptr;
    int ndim = 0;
    int stride[3] = {0, 0, 0};
    double origin[3] = {0, 0, 0};
    double axes[3][3] = {};  // the record's step vectors
    double M[3][3] = {};     // M[r][d]: component r of step d
    double Minv[3][3] = {};  // Minv[d][r]
    int cartesian = 0;

    // p = origin + sum_d idx[d] M[., d] (axis-aligned: only the diagonal).
    void point_of_indices(double point[3], const int idx[]) const;
    // Nearest lattice point, ties to even.
    void indices_of_point(const double point[3], int idx[]) const;
    // k = sum_{d < n-1} stride[d] idx[d] + idx[n-1].
    int index_of_indices(const int idx[]) const;
    void indices_of_index(int idx[], int k) const;
    void point_of_index(double point[3], int k) const;
    int index_of_point(const double point[3]) const;
    void step_forward(double point[3], int d) const;
    void step_back(double point[3], int d) const;
};

// Geometry of a grid record (dimension counts outside 1..3 leave M zero).
GridGeometry grid_geometry(const Grid& grid);

// Makes the grid current for the functions below; returns the cartesian flag
// (1 = axis-aligned). A null grid returns 0 and changes nothing.
int grid_install(const Grid* grid);

using PointOfIndicesFn = void (*)(double point[3], const int idx[]);
using IndicesOfPointFn = void (*)(const double point[3], int idx[]);
using StepFn = void (*)(double point[3], int d);

// The same conversions on the installed grid.
void grid_point_of_indices(double point[3], const int idx[]);
void grid_indices_of_point(const double point[3], int idx[]);
PointOfIndicesFn grid_pick_point_of_indices();
IndicesOfPointFn grid_pick_indices_of_point();
int grid_index_of_indices(const int idx[]);
void grid_indices_of_index(int idx[], int k);
void grid_point_of_index(double point[3], int k);
int grid_index_of_point(const double point[3]);
void grid_step_forward(double point[3], int d);
void grid_step_back(double point[3], int d);
StepFn grid_pick_step_forward();
StepFn grid_pick_step_back();

// The installed geometry.
using GridState = GridGeometry;
const GridState& grid_state();

}  // namespace kvx::grid
