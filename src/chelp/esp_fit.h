// Charges fitted to the electrostatic potential at points: least squares
// with the total charge (and optionally the dipole) held by Lagrange
// multipliers, hyperbolic restraints, charges made equal or held fixed.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::chelp {

// The points (x y z, bohr) and the potential there (hartree/e).
struct FitData {
    std::vector<double> xyz;
    std::vector<double> v;
    long count() const { return static_cast<long>(v.size()); }
};

// What is fitted. Atom i's charge is variable group[i] (atoms sharing a
// group share one charge), or held at fixed[i] when group[i] < 0; an empty
// group means one variable per atom. Restraint: a[i] (sqrt(q_i^2 + b^2) - b)
// added to the sum of squares for every atom with a[i] > 0, in the normal
// equations of Bayly et al. (1993), (A + diag(a / sqrt(q^2 + b^2))) q = B,
// solved again with the new q until no charge moves by tolerance.
struct FitSpec {
    double total_charge = 0.0;
    bool dipole = false;
    std::array<double, 3> dipole_target{};  // a.u., about the origin
    std::vector<int> group;
    std::vector<double> fixed;
    std::vector<double> a;  // empty: no restraint
    double b = 0.1;
    double tolerance = 1e-6;
    int max_iterations = 200;
};

struct FitResult {
    std::vector<double> q;  // one per atom
    double rms = 0.0;       // sqrt(sum (V - Vq)^2 / n), hartree/e
    double rrms = 0.0;      // sqrt(sum (V - Vq)^2 / sum V^2)
    int iterations = 0;     // restrained solves (1 without restraint)
    std::string error;      // empty on success
};

// Least-squares matrices A(i, j) = sum_k 1/(r_ki r_kj) and B(i) = sum_k V_k /
// r_ki over the points (A n x n row-major).
struct NormalEquations {
    int n = 0;
    std::vector<double> A, B;
    double vv = 0.0;  // sum_k V_k^2
};
NormalEquations normal_equations(const FitData& data, const std::vector<moldata::Atom>& atoms);

FitResult fit_charges(const NormalEquations& ne, const FitData& data, const std::vector<moldata::Atom>& atoms,
                      const FitSpec& want);

// RMS and relative RMS of the charges' potential against the data.
void fit_errors(const FitData& data, const std::vector<moldata::Atom>& atoms, const std::vector<double>& q, double& rms,
                double& rrms);

}  // namespace kvx::chelp
