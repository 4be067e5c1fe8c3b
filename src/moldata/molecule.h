// The job's molecular data: Molecule and its companions.
//
// Everything is plain data with public fields. A Molecule is built once by
// the molecule builder (moldata/reader.h), then only read. It owns every array
// it points to; the total density may share its matrix with one spin density
// (a job with one spin), which std::shared_ptr releases exactly once.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gauss/shell_types.h"

namespace kvx::grid {
struct RangeTable;  // screening radii cached on the molecule by the grid code
}

namespace kvx::moldata {

// Symmetric matrix, lower triangle stored row by row: row i holds the i + 1
// elements (i, 0) .. (i, i), rows one after another in memory. The density
// checksum runs over exactly this memory order.
struct TriMatrix {
    int n = 0;
    std::vector<double> data;

    double* row(int i) { return data.data() + static_cast<std::size_t>(i) * (i + 1) / 2; }
    const double* row(int i) const { return data.data() + static_cast<std::size_t>(i) * (i + 1) / 2; }
    // Element (i, j) with j <= i.
    double& at(int i, int j) { return row(i)[j]; }
    double at(int i, int j) const { return row(i)[j]; }
    // Element (i, j) in either order.
    double sym(int i, int j) const { return i >= j ? row(i)[j] : row(j)[i]; }
};

// rows x cols, each row contiguous, rows one after another.
struct RowMatrix {
    int rows = 0;
    int cols = 0;
    std::vector<double> data;

    double* row(int r) { return data.data() + static_cast<std::size_t>(r) * cols; }
    const double* row(int r) const { return data.data() + static_cast<std::size_t>(r) * cols; }
};

// Allocation helpers: null / false on allocation failure, never throw.
// Contents of a new TriMatrix are zero.
std::shared_ptr<TriMatrix> tri_alloc(int n);
std::unique_ptr<RowMatrix> rowmat_alloc(int rows, int cols);
// Shrinks (or grows) to new_rows rows of the same width; false on failure.
bool rowmat_resize(RowMatrix& m, int new_rows);

struct Atom {
    std::string symbol;  // label as read, at most 8 characters
    int molecule = 1;    // 1-based molecule number
    int atomic_number = 0;
    double x = 0, y = 0, z = 0;  // bohr, as read
    double nuclear_charge = 0;
    double extra = 0;  // fifth number of the atom line; kept, unused
};

struct Shell {
    int type = 0;    // shell type code (shell_types.h)
    int size = 0;    // functions per contraction (spherical count)
    int ngc = 0;     // contractions sharing the primitives; 1 for type 3
    int nprim = 0;   // primitives
    int nfirst = 0;  // 1-based number of the first basis function
    // nprim rows of (exponent, c_1 .. c_ngc), or (exponent, c_s, c_p) for
    // type 3; coefficients already normalised. Shared by every atom that
    // matched the same basis entry.
    std::shared_ptr<const std::vector<double>> basdat;
    // (2/pi)^(3/4) alpha^(3/4) per primitive.
    std::shared_ptr<const std::vector<double>> prefact;
    const Atom* center = nullptr;

    // Doubles per basdat row.
    int row_length() const { return type == 3 ? 3 : ngc + 1; }
    const double* prim(int p) const { return basdat->data() + static_cast<std::size_t>(p) * row_length(); }
    double exponent(int p) const { return prim(p)[0]; }
    double coef(int p, int c) const { return prim(p)[1 + c]; }
    // Contracted radial functions: ngc, or 2 (s and p) for type 3.
    int ncontr() const { return type == 3 ? 2 : ngc; }
};

struct OrbitalSet {
    int count = 0;  // orbitals held (rows of coef)
    int valid = 0;  // status word from the file; only 1 is usable
    RowMatrix coef; // count rows of nbasis coefficients
    std::vector<double> energy;  // count values, or empty when the file had none
    bool has_energy = false;
};

struct SymmetryInfo {
    int ntrans = 1;
    int nunique = 0;
    std::string group = "c1";
    int n = 0;                // atoms taking part (natoms - dummies)
    std::vector<int> unique;  // 1-based atom numbers; empty in the default record
    // images[a * ntrans + t]: 1-based atom onto which operation t maps atom a;
    // empty in the default record.
    std::vector<int> images;
    bool is_default() const { return unique.empty(); }
    int image(int a, int t) const { return images[static_cast<std::size_t>(a) * ntrans + t]; }
};

// What can be computed for the molecule, in the driver's order.
struct DataFlags {
    enum Index { kDensity = 0, kAlpha, kBeta, kLocalized, kLocalizedBeta, kNatural, kOccupied };
    std::array<int, 7> f{};
    int operator[](int i) const { return f[static_cast<std::size_t>(i)]; }
};

struct Molecule {
    std::string name;  // job name
    int nmol = 1;
    int natoms = 0;
    std::array<int, 2> ndummy{0, 0};  // second entry: number of dummy atoms
    int multiplicity = 1;
    int charge = 0;
    int nalpha = 0;
    int nbeta = 0;
    int restricted = 0;  // 1 when nbeta == 0 and multiplicity == 1
    int nbasis = 0;
    int nshell = 0;
    int nprim = 0;
    int nbits = 32;
    int intsize = 2;

    std::vector<Atom> atoms;  // natoms of them; never resized once shells exist
    std::unique_ptr<SymmetryInfo> symmetry;
    std::vector<Shell> shells;  // empty when the basis could not be read

    std::unique_ptr<OrbitalSet> alpha;  // alpha or restricted canonical orbitals
    std::unique_ptr<OrbitalSet> beta;
    std::unique_ptr<OrbitalSet> localized;
    std::unique_ptr<OrbitalSet> localized_beta;
    std::unique_ptr<OrbitalSet> natural;

    std::shared_ptr<TriMatrix> density;  // total P; may alias one spin matrix
    std::shared_ptr<TriMatrix> density_alpha;
    std::shared_ptr<TriMatrix> density_beta;
    std::shared_ptr<TriMatrix> overlap;

    std::optional<DataFlags> flags;
    int density_checksum = 0;

    // Screening radii cached by the grid code (owned here, rebuilt when the
    // accuracy changes).
    std::shared_ptr<grid::RangeTable> ranges;

    Molecule() = default;
    Molecule(const Molecule&) = delete;
    Molecule& operator=(const Molecule&) = delete;

    bool has_atoms() const { return !atoms.empty(); }
    bool has_shells() const { return !shells.empty(); }
};

// Flag step: what the job's data allows.
DataFlags compute_flags(const Molecule& mol);

}  // namespace kvx::moldata
