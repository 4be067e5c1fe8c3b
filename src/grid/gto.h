// Contracted Gaussian shells on a cartesian grid (module Gto).
//
// Screening: every shell gets a radius around its atom beyond which none of
// its primitives exceeds the threshold eps; an atom's shells are kept sorted
// by decreasing radius (RangeTable, cached on the Molecule).
//
// Evaluation: a cartesian grid is a product of three 1-D lattices, so every
// power (A_x - x_i)^k is tabled once per x index and atom (pdx; likewise pdy,
// pdz). At a point the evaluators take the three table entries, form the
// angular factors of each shell type once per atom (comp_cterm), the radial
// parts of a shell (shell_radial) and contract both with orbital
// coefficients (sum_gto).
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "grid/grid.h"
#include "moldata/molecule.h"

namespace kvx::grid {

// Angular power used for a shell's radius, per type code: the shell's l.
inline constexpr const auto& kRangePower = gauss::kAngular;
// Coefficients per contracted function, per type code: the shell size
// (spherical counts; 4 for sp).
inline constexpr const auto& kGtoComponents = gauss::kShellSize;

// Angular factor area: kFactorBlocks blocks of kFactorBlock doubles, plus a
// cache of kFactorBlocks slots (largest |factor| of a type, 0 = not formed).
inline constexpr int kFactorBlock = 28;
inline constexpr int kFactorBlocks = 11;
inline constexpr int kFactorSize = kFactorBlock * kFactorBlocks;

// Factor block of a type code (-1 for s, which has the factor 1, and for
// unsupported codes).
constexpr int factor_block(int type) {
    constexpr std::array<int, 14> block = {-1, -1, 0, 0, 1, 2, 3, 4, 6, 8, 10, 5, 7, -1};
    return type >= 0 && type < 14 ? block[static_cast<std::size_t>(type)] : -1;
}
// Cache slot of a type code; -1 when the type is not cached (s, i28).
constexpr int cache_slot(int type) { return type == 10 ? -1 : factor_block(type); }

// Screening radii, grouped by atom and sorted by decreasing radius.
struct RangeTable {
    int natoms = 0;
    int nshell = 0;
    double threshold = 0.0;  // the eps the radii were computed for
    std::vector<int> nshat;  // shells on each atom
    std::vector<std::vector<const moldata::Shell*>> atshpt;  // per atom, its shells
    std::vector<std::vector<double>> ranges;                 // per atom, parallel radii
};

// Null when mol is null.
std::shared_ptr<RangeTable> init_ranges(const moldata::Molecule* mol, double eps);
void free_ranges(std::shared_ptr<RangeTable>& table);
// Radius of one primitive N r^l exp(-alpha r^2) |c| = eps; 0 for type 0 and
// for a primitive that never reaches eps.
double shell_range(int type, double alpha, double c, double eps);

// Powers of the displacement atom - lattice point along one axis: entry
// (i, a) is null (no shell of atom a reaches plane i) or lmax(a) + 1 doubles
// d^0 .. d^lmax with d = A - x_i.
struct PowerTable {
    int npoints = 0;
    int natoms = 0;
    std::vector<std::ptrdiff_t> offset;  // npoints * natoms, -1 for null
    std::vector<double> powers;

    const double* entry(int i, int a) const {
        const std::ptrdiff_t o = offset[static_cast<std::size_t>(i) * natoms + a];
        return o < 0 ? nullptr : powers.data() + o;
    }
};

// exp(-alpha d^2) along one axis for every primitive of every shell, d the
// displacement of the power table (0 where its entry is null): on an
// axis-aligned grid exp(-alpha r^2) is the product of the three axes' values.
// Row `slot` holds one value per point index of the axis.
struct ExpTable {
    int npoints = 0;
    std::vector<double> v;

    const double* row(int slot) const { return v.data() + static_cast<std::size_t>(slot) * npoints; }
};

// The same powers per atom in rows, for loops over the points of an axis:
// the run of points lo .. hi-1 where the atom's entry exists (contiguous,
// since the displacement is monotone along the axis; empty when lo == hi),
// power k of point i at v[at + k * (hi - lo) + i - lo], and the point of the
// run nearest the atom.
struct AxisRun {
    int lo = 0, hi = 0;
    int nearest = 0;
    std::size_t at = 0;
};
struct RunTable {
    std::vector<AxisRun> run;  // per atom
    std::vector<double> v;
};

struct GtoBuilder {
    const Grid* grid = nullptr;
    GridGeometry geo;  // of grid
    std::shared_ptr<RangeTable> ranges;
    PowerTable pdx, pdy, pdz;
    RunTable rx, ry, rz;
    // Primitive p of shell s of atom a (range-table order) is row
    // prim_slot[a][s] + p of the exponential tables.
    std::vector<std::vector<int>> prim_slot;
    std::vector<double> prim_cmax;  // per slot: the primitive's largest |coefficient|
    // reach2[a][s]: the largest r^2 whose square root (rounded) is within the
    // radius of shell s of atom a, so that r^2 <= reach2 exactly when the
    // point-by-point loop's radius >= sqrt(r^2) holds.
    std::vector<std::vector<double>> reach2;
    ExpTable ex, ey, ez;
    std::vector<int> atom_lmax;  // lmax(a): a table entry of atom a holds lmax(a) + 1 powers
};

// Null when either argument is missing. A grid that is not axis-aligned ends
// the run.
std::unique_ptr<GtoBuilder> make_gtobuilder(std::shared_ptr<RangeTable> table, const Grid* grid);

// Prepares the current builder for grid and eps (range table cached on mol
// and reused while eps is unchanged) and the evaluators' thread count for
// numt (common::thread_count). Returns 1 when a builder is ready, 0 when mol
// or grid is missing or the ranges fail.
int gto_setup(moldata::Molecule* mol, const Grid* grid, double eps, int numt);
void gto_free();

// Current builder (null before setup / after free), the evaluators' thread
// count (1 after free), and the radial scratch width (largest contraction
// count, sp counting 2, >= 2).
const GtoBuilder* gto_builder();
int gto_threads();
int gto_scratch_width();

// The f set (type 6) from powers of the displacement atom - point, x[k] =
// x^k (likewise y, z), into f[0..6]. zy^2 in the first and 4y^2z^2 in the
// sixth factor are intended. Any indexable x, y, z and f.
template <class X, class Y, class Z, class F>
inline void f7_factors(const X& x, const Y& y, const Z& z, F&& f) {
    f[0] = 4.0 * x[2] * y[1] - y[3] - z[1] * y[2];
    f[1] = 4.0 * x[2] * z[1] - z[1] * y[2] - z[3];
    f[2] = 4.0 * x[1] * y[2] - x[3] - x[1] * z[2];
    f[3] = 4.0 * y[2] * z[1] - z[1] * x[2] - z[3];
    f[4] = 4.0 * x[1] * z[2] - x[3] - x[1] * y[2];
    f[5] = 4.0 * y[2] * z[2] - y[1] * x[2] - y[3];
    f[6] = 6.324555320336759 * x[1] * y[1] * z[1];
}

// Writes the angular factors of the type into its block of factors (size
// kFactorSize) and returns the largest |factor|; a cached type whose cache
// slot is already positive returns the slot. pdx/pdy/pdz are table entries.
double comp_cterm(double* factors, double* cache, const double* pdx, const double* pdy, const double* pdz,
                  int type);
// values[c] = sum_p coef(p, c) prefact(p) exp(-alpha_p r2), c < ncontr();
// returns the largest |values[c]|.
double shell_radial(double* values, double r2, const moldata::Shell& shell);
// Contribution of one shell (first basis function `first`, counted from 1)
// to the orbital with the given coefficient vector.
double sum_gto(const double* factors, const double* radial, const double* coefficients, int type, int ncontr,
               int first);

}  // namespace kvx::grid
