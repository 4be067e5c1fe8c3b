// Orbital and density values by blocks of grid points (module Gto).
//
// A block is a run of at most kBlockPoints points of one grid line along the
// fastest storage axis (z of a 3-D grid, the last axis in general), so its
// points have consecutive linear indices. Blocks are a function of the grid
// alone and every point's value is formed by the same operations whatever
// block or thread computes it: results never depend on the thread count.
//
// Along a line the displacements on the other two axes are fixed, so
//   exp(-a r^2) = exp(-a du^2) exp(-a dv^2) exp(-a dl^2)
// is one number per line and primitive times a table value per point
// (GtoBuilder's exponential tables), and an angular factor x^i y^j z^k is a
// number per line times a power per point. Screening is exactly that of the
// point-by-point evaluation (radius, then T R maxcmo >= eps at every point);
// a shell no point of the block can pass is skipped for the whole block.
#pragma once

#include <vector>

#include "grid/grid.h"
#include "grid/gto.h"
#include "moldata/molecule.h"

namespace kvx::grid {

inline constexpr int kBlockPoints = 128;

// maxcmo[a][s]: largest |coefficient| of shell s of atom a (range-table
// order) over the orbitals of a request with nonzero occupation.
using MaxCmo = std::vector<std::vector<double>>;

struct BlockLayout {
    int line_axis = 0;     // ndim - 1
    int n[3] = {1, 1, 1};  // points per axis, 1 beyond ndim
    int per_line = 1;      // blocks per line
    long nblocks = 0;
};

struct PointBlock {
    int idx[3] = {0, 0, 0};  // per-axis indices of the first point
    int npts = 0;            // points along the line axis
    long first = 0;          // linear index of the first point
};

// Each line of n points is cut into ceil(n / kBlockPoints) runs of nearly
// equal length (the first n mod runs one point longer).
BlockLayout block_layout(const Grid& grid);
PointBlock point_block(const BlockLayout& layout, long b);

// A request's contraction data, formed before the threads start.
struct OrbitalTerms {
    const double* coef = nullptr;  // the orbital's coefficient vector
    MaxCmo maxcmo;
};

// Density: per shell either its packed block of P = sum_i occ_i C_i C_i^T
// (row m holds P_mm, 2 P_m,m+1, .., 2 P_m,n-1, so rho = sum_m phi_m (row m
// . phi_m..)), or, when the orbitals are fewer than the shell's functions
// make that worth, nothing: the orbitals' parts are then squared one by one.
struct DensityTerms {
    const double* const* cmo = nullptr;
    int norb = 0;
    const double* occ = nullptr;
    MaxCmo maxcmo;
    std::vector<std::vector<std::vector<double>>> packed;  // [atom][shell]
};

// Basis functions of one shell type: kGtoComponents per contraction, sp 4.
int shell_functions(const moldata::Shell& sh);

// Per-thread scratch, sized for the builder's shells.
// Aligned to a cache line: each thread has its own, and a counter written on
// one thread must not share a line with another thread's vectors.
struct alignas(64) BlockWork {
    std::vector<double> fac;     // angular factors, kFactorSize rows
    std::vector<double> cart;    // cartesian monomials of a spherical type
    std::vector<double> tmax;    // largest |factor| per factor block, kFactorBlocks rows
    std::vector<double> tblock;  // largest |factor| per factor block over the block
    std::vector<double> rad;     // radial values, one row per contraction
    std::vector<double> phi;     // basis functions of a shell, one row each
    std::vector<double> r2, e, rbig, val, tmp, acc;
    std::vector<double> sline, smax;  // per primitive: N_p times the fixed axes' factors; its largest on the block
    // Per factor block, the visit (atom of a block) it was formed for (tblock
    // exact) or bounded for without forming (tblock a bound).
    std::vector<unsigned long long> formed, bounded;
    unsigned long long visit = 0;
};

// Sizes w for b's shells. Throws std::bad_alloc.
void size_block_work(BlockWork& w, const GtoBuilder& b);

// Adds the block's orbital (density) values to out[first .. first + npts).
void orbital_block(const GtoBuilder& b, const OrbitalTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out);
void density_block(const GtoBuilder& b, const DensityTerms& t, const BlockLayout& layout, const PointBlock& blk,
                   BlockWork& w, double* out);

}  // namespace kvx::grid
