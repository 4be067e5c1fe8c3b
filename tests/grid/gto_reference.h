// Test-side reference for basis functions on a grid: hand-built molecules and
// a brute-force evaluation that sums every primitive directly, with no power
// tables, no factor cache and no screening.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "grid/grid.h"
#include "grid/gto.h"
#include "moldata/molecule.h"

namespace kvx::test {

// Component factors of one shell type at displacement (x, y, z) = atom -
// point, written out term by term for each type.
inline std::vector<double> component_factors(int type, double x, double y, double z) {
    const double x2 = x * x, y2 = y * y, z2 = z * z;
    switch (type) {
        case 1: return {1.0};
        case 2: return {x, y, z};
        case 3: return {1.0, x, y, z};
        case 4: {
            const double n = 1.0 / (2.0 * std::sqrt(3.0));
            return {(2 * z2 - x2 - y2) * n, (x2 - y2) / 2, x * y, x * z, y * z};
        }
        case 5: return {x2, y2, z2, x * y, x * z, y * z};
        case 6:
            // The program's f set: first factor has z y^2, sixth 4 y^2 z^2.
            return {4 * x2 * y - y2 * y - z * y2, 4 * x2 * z - z * y2 - z2 * z,  4 * x * y2 - x2 * x - x * z2,
                    4 * y2 * z - z * x2 - z2 * z, 4 * x * z2 - x2 * x - x * y2, 4 * y2 * z2 - y * x2 - y2 * y,
                    std::sqrt(40.0) * x * y * z};
        case 11: {
            const double p = 2.0 / std::sqrt(3.0), q = std::sqrt(32.0 / 3.0);
            return {(y2 * y2 + x2 * x2 - 6 * x2 * y2) * p, (z2 * z2 + x2 * x2 - 6 * x2 * z2) * p,
                    (z2 * z2 + y2 * y2 - 6 * y2 * z2) * p, (x2 * x * y - 3 * x * y * z2) * q,
                    (x * y2 * y - 3 * x * y * z2) * q,     (x2 * x * z - 3 * x * y2 * z) * q,
                    (x * z2 * z - 3 * x * y2 * z) * q,     (y2 * y * z - 3 * x2 * y * z) * q,
                    (y * z2 * z - 3 * x2 * y * z) * q};
        }
        case 12: {
            const double r = std::sqrt(8.0 / 15.0), s = 4.0 / std::sqrt(3.0), t = 16.0 / std::sqrt(3.0),
                         u = 16.0 / 3.0;
            const double x4 = x2 * x2, y4 = y2 * y2, z4 = z2 * z2;
            return {(x4 * x - 10 * x2 * x * y2 + 5 * x * y4) * r,
                    (x4 * x - 10 * x2 * x * z2 + 5 * x * z4) * r,
                    (5 * x4 * y + y4 * y - 10 * x2 * y2 * y) * r,
                    (y4 * y - 10 * y2 * y * z2 + 5 * y * z4) * r,
                    (5 * x4 * z + z4 * z - 10 * x2 * z2 * z) * r,
                    (z4 * z - 10 * y2 * z2 * z + 5 * y4 * z) * r,
                    (y4 * z + x4 * z - 6 * x2 * y2 * z) * s,
                    (y * z4 + x4 * y - 6 * x2 * y * z2) * s,
                    (x * z4 + x * y4 - 6 * x * y2 * z2) * s,
                    (x2 * x * y * z - x * y2 * y * z) * t,
                    (x2 * x * y * z - 2 * x * y * z2 * z + x * y2 * y * z) * u};
        }
        default: {
            // Cartesian f10, g15, h21, i28: monomials, x exponent descending,
            // then y descending.
            const int l = type - 4;
            std::vector<double> out;
            for (int ax = l; ax >= 0; --ax)
                for (int ay = l - ax; ay >= 0; --ay)
                    out.push_back(std::pow(x, ax) * std::pow(y, ay) * std::pow(z, l - ax - ay));
            return out;
        }
    }
}

// Values of all basis functions of the molecule at a point (nbasis entries).
inline std::vector<double> basis_values(const moldata::Molecule& mol, const double pt[3]) {
    std::vector<double> phi(mol.nbasis, 0.0);
    for (const moldata::Shell& sh : mol.shells) {
        const double x = sh.center->x - pt[0], y = sh.center->y - pt[1], z = sh.center->z - pt[2];
        const double r2 = x * x + y * y + z * z;
        const std::vector<double> f = component_factors(sh.type, x, y, z);
        const int n = static_cast<int>(f.size());
        for (int c = 0; c < sh.ngc; ++c) {
            for (int k = 0; k < n; ++k) {
                // sp: the s function takes coefficient column 0, the p functions column 1.
                const int col = sh.type == 3 ? (k == 0 ? 0 : 1) : c;
                double radial = 0.0;
                for (int p = 0; p < sh.nprim; ++p) {
                    const double a = sh.exponent(p);
                    radial += sh.coef(p, col) * std::pow(2.0 * a / M_PI, 0.75) * std::exp(-a * r2);
                }
                phi[sh.nfirst - 1 + c * n + k] = radial * f[k];
            }
        }
    }
    return phi;
}

inline double orbital_value(const moldata::Molecule& mol, const double* coef, const double pt[3]) {
    const std::vector<double> phi = basis_values(mol, pt);
    double v = 0.0;
    for (int m = 0; m < mol.nbasis; ++m) v += coef[m] * phi[m];
    return v;
}

// Density with each shell's part of an orbital squared on its own (the
// program leaves out the cross terms between shells).
inline double shellwise_density(const moldata::Molecule& mol, const moldata::OrbitalSet& set, const double* occ,
                                const double pt[3]) {
    const std::vector<double> phi = basis_values(mol, pt);
    double rho = 0.0;
    for (int i = 0; i < set.count; ++i) {
        if (occ[i] == 0.0) continue;
        const double* c = set.coef.row(i);
        for (const moldata::Shell& sh : mol.shells) {
            const int nfun = (sh.type == 3 ? 4 : sh.size) * sh.ngc;
            double part = 0.0;
            for (int m = sh.nfirst - 1; m < sh.nfirst - 1 + nfun; ++m) part += c[m] * phi[m];
            rho += occ[i] * part * part;
        }
    }
    return rho;
}

// Largest deviation from the unscreened value that screening at eps allows.
// A shell dropped by the T*R*maxcmo < eps test contributes below
// m * n_t * eps (|sum_gto| <= sum_c |R_c| sum_k |f_k| |C| <= m n_t R T maxC).
// A shell dropped by its radius has every primitive's N|c| r^l e^{-ar^2}
// below eps there; each factor is a combination of degree-l monomials whose
// coefficients sum to at most 21.4 (the h set), so 64 per primitive and
// component is a safe cover. Add the rounding of the sum itself.
inline double screening_tolerance(const moldata::Molecule& mol, double eps, double max_coef, double ref) {
    double sum = 0.0;
    for (const auto& sh : mol.shells) sum += grid::kGtoComponents[sh.type] * sh.ncontr() * sh.nprim;
    return 64.0 * eps * max_coef * sum + 1e-12 * (1.0 + std::fabs(ref));
}

// Deterministic values in [-1, 1).
struct Lcg {
    std::uint64_t s;
    explicit Lcg(std::uint64_t seed) : s(seed) {}
    double next() {
        s = s * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<double>(s >> 11) / static_cast<double>(1ULL << 53) * 2.0 - 1.0;
    }
};

// Builder for hand-made molecules: atoms first, then shells, then orbitals.
struct MolBuilder {
    std::unique_ptr<moldata::Molecule> mol = std::make_unique<moldata::Molecule>();

    MolBuilder& atom(double x, double y, double z) {
        moldata::Atom a;
        a.x = x;
        a.y = y;
        a.z = z;
        mol->atoms.push_back(a);
        mol->natoms = static_cast<int>(mol->atoms.size());
        return *this;
    }
    // rows: nprim rows of (exponent, coefficients...) as stored in basdat.
    MolBuilder& shell(int atom, int type, int ngc, std::vector<std::vector<double>> rows) {
        moldata::Shell sh;
        sh.type = type;
        sh.size = moldata::kShellSize[type];
        sh.ngc = ngc;
        sh.nprim = static_cast<int>(rows.size());
        auto dat = std::make_shared<std::vector<double>>();
        auto pre = std::make_shared<std::vector<double>>();
        for (const auto& r : rows) {
            if (static_cast<int>(r.size()) != (type == 3 ? 3 : ngc + 1))
                throw std::invalid_argument("basdat row of the wrong length");
            dat->insert(dat->end(), r.begin(), r.end());
            pre->push_back(0.7127054703549901 * std::pow(r[0], 0.75));
        }
        sh.basdat = dat;
        sh.prefact = pre;
        sh.center = &mol->atoms[atom];
        sh.nfirst = mol->nbasis + 1;
        mol->nbasis += sh.size * ngc;
        mol->shells.push_back(sh);
        mol->nshell = static_cast<int>(mol->shells.size());
        return *this;
    }
    // count orbitals with coefficients from the generator.
    std::unique_ptr<moldata::OrbitalSet> orbitals(int count, Lcg& gen) const {
        auto set = std::make_unique<moldata::OrbitalSet>();
        set->count = count;
        set->valid = 1;
        set->coef.rows = count;
        set->coef.cols = mol->nbasis;
        set->coef.data.resize(static_cast<std::size_t>(count) * mol->nbasis);
        for (double& v : set->coef.data) v = gen.next();
        return set;
    }
};

// Axis-aligned grid of nx x ny x nz points (ndim from how many counts > 0)
// centred at c with the given half lengths.
inline std::unique_ptr<grid::Grid> box_grid(int ndim, const double c[3], const double half[3], const int counts[3]) {
    double axes[3][3] = {};
    for (int d = 0; d < 3; ++d) axes[d][d] = half[d];
    const double spacing[3] = {0.5, 0.5, 0.5};
    return grid::grid_build(ndim, c, axes, spacing, counts);
}

}  // namespace kvx::test
