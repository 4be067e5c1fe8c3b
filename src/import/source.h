// A finished SCF job as another quantum-chemistry program describes it:
// atoms, contracted shells in that program's component order and
// normalisation, and orbital coefficients over its basis functions. The
// Molden and formatted-checkpoint readers fill it; the converter turns it
// into a Kalvex job.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "gauss/shell_types.h"

namespace kvx::import {

// A file that cannot be converted: what is wrong, and the 1-based line
// where it was found (0 when no single line is to blame).
struct ImportError : std::runtime_error {
    int line;
    ImportError(const std::string& what, int line_no) : std::runtime_error(what), line(line_no) {}
};

struct SourceAtom {
    int atomic_number = 0;
    double nuclear_charge = 0;  // differs from atomic_number with effective core potentials
    double x = 0, y = 0, z = 0;  // bohr
};

struct SourceShell {
    int atom = 0;      // 0-based
    int l = 0;         // angular momentum; 1 for an sp shell
    bool sp = false;   // s and p sharing exponents: functions s, px, py, pz
    bool pure = false; // real solid harmonics in the order m = 0, +1, -1, +2, -2, ...
    std::vector<double> exponents;
    std::vector<double> coefs;    // contraction coefficients of normalised primitives
    std::vector<double> coefs_p;  // p coefficients of an sp shell
    int nfunc() const { return sp ? 4 : pure ? 2 * l + 1 : (l + 1) * (l + 2) / 2; }
};

struct SourceOrbital {
    double energy = 0;
    double occupation = 0;
    std::vector<double> coef;  // over the source's basis functions
};

// How a program lays out and normalises the components of cartesian shells.
struct CartesianConvention {
    // order[l][m]: cartesian exponents of source function m of a shell of
    // angular momentum l (l = 0..6); empty when the program defines none.
    std::vector<std::vector<gauss::CartExp>> order;
};

// How a program normalises the components of a cartesian shell: each
// function on its own, or all with the factor that normalises x^l.
enum class CartesianNorm { EachFunction, LikeAxis };

// One way a program may normalise and sign the functions its orbital
// coefficients refer to. The contracted functions themselves are always
// normalised; what differs is what the contraction coefficients multiply
// and the factor and sign of each component.
struct Convention {
    std::string name;  // as the import report names it
    CartesianNorm cartesian = CartesianNorm::EachFunction;
    // Contraction coefficients multiply x^l exp(-a r^2) as it stands, not
    // the normalised primitive: c_normalised ~ c a^(-(2l+3)/4) (the factor
    // common to a shell drops out when the contraction is normalised).
    bool raw_primitives = false;
    // Spherical f and g functions with |m| = 3 and g with |m| = 4 carry the
    // opposite sign of the real solid harmonics.
    bool negate_m34 = false;
};

struct SourceJob {
    std::string format;  // "Molden", "formatted checkpoint", "AIM wfn", "AIM wfx"
    std::vector<SourceAtom> atoms;
    std::vector<SourceShell> shells;  // functions numbered in this order
    int nbasis = 0;
    CartesianConvention cartesian;
    // The normalisations the format allows, the likeliest first; the
    // converter takes the one whose orbitals are orthonormal.
    std::vector<Convention> conventions;
    std::vector<SourceOrbital> alpha;  // alpha, or the only set of a restricted job
    std::vector<SourceOrbital> beta;   // empty unless the job is unrestricted
    // Counts the file states; the converter derives what is missing.
    std::optional<int> charge, multiplicity, nalpha, nbeta;
};

}  // namespace kvx::import
