// Test-side reference for basis functions on a grid: hand-built molecules and
// a brute-force evaluation summing every primitive directly (no power tables,
// no factor cache, no screening), with the displacement atom - point.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "grid/grid.h"
#include "grid/gto.h"
#include "moldata/molecule.h"

namespace kvx::test {

// Angular factors of one shell type at displacement (x, y, z), term by term.
inline std::vector<double> component_factors(int type, double x, double y, double z) {
    const double x2 = x * x, y2 = y * y, z2 = z * z;
    switch (type) {
        case 1: return {1.0};
        case 2: return {x, y, z};
        case 3: return {1.0, x, y, z};
        case 4: return {(2 * z2 - x2 - y2) / std::sqrt(12.0), (x2 - y2) / 2, x * y, x * z, y * z};
        case 5: return {x2, y2, z2, x * y, x * z, y * z};
        case 6:  // the program's f set: first factor has z y^2, sixth 4 y^2 z^2
            return {4 * x2 * y - y2 * y - z * y2, 4 * x2 * z - z * y2 - z2 * z,  4 * x * y2 - x2 * x - x * z2,
                    4 * y2 * z - z * x2 - z2 * z, 4 * x * z2 - x2 * x - x * y2, 4 * y2 * z2 - y * x2 - y2 * y,
                    std::sqrt(40.0) * x * y * z};
        default: {  // cartesian f10, g15, h21, i28: x exponent descending, then y descending
            std::vector<double> out;
            for (int ax = type - 4; ax >= 0; --ax)
                for (int ay = type - 4 - ax; ay >= 0; --ay)
                    out.push_back(std::pow(x, ax) * std::pow(y, ay) * std::pow(z, type - 4 - ax - ay));
            return out;
        }
    }
}

// Values of all basis functions of the molecule at a point (nbasis entries).
inline std::vector<double> basis_values(const moldata::Molecule& mol, const double pt[3]) {
    std::vector<double> phi(mol.nbasis, 0.0);
    for (const moldata::Shell& sh : mol.shells) {
        const double x = sh.center->x - pt[0], y = sh.center->y - pt[1], z = sh.center->z - pt[2];
        const std::vector<double> f = component_factors(sh.type, x, y, z);
        const int n = static_cast<int>(f.size());
        for (int c = 0; c < sh.ngc; ++c)
            for (int k = 0; k < n; ++k) {
                const int col = sh.type == 3 ? (k == 0 ? 0 : 1) : c;  // sp: s column 0, p column 1
                double radial = 0.0;
                for (int p = 0; p < sh.nprim; ++p)
                    radial += sh.coef(p, col) * std::pow(2.0 * sh.exponent(p) / M_PI, 0.75) *
                              std::exp(-sh.exponent(p) * (x * x + y * y + z * z));
                phi[sh.nfirst - 1 + c * n + k] = radial * f[k];
            }
    }
    return phi;
}

// Density with each shell's part of an orbital squared on its own (the
// program leaves out the cross terms between shells).
inline double shellwise_density(const moldata::Molecule& mol, const moldata::OrbitalSet& set, const double* occ,
                                const double pt[3]) {
    const std::vector<double> phi = basis_values(mol, pt);
    double rho = 0.0;
    for (int i = 0; i < set.count; ++i)
        for (const moldata::Shell& sh : mol.shells) {
            double part = 0.0;
            for (int m = sh.nfirst - 1; m < sh.nfirst - 1 + sh.size * sh.ngc; ++m)
                part += set.coef.row(i)[m] * phi[m];
            rho += occ[i] * part * part;
        }
    return rho;
}

// Largest deviation from the unscreened value that screening at eps allows,
// for coefficients coef (null: bounded by 1). A dropped shell has every
// primitive's N|c| r^l e^{-ar^2}, or T*R*maxcmo, below eps; each factor's
// monomial coefficients sum to at most 21.4 (the h set), so 64 eps maxcmo per
// primitive and component covers it; plus the rounding of the sum.
inline double screening_tolerance(const moldata::Molecule& mol, double eps, const double* coef, double ref) {
    double sum = 0.0, max_coef = coef ? 0.0 : 1.0;
    for (const auto& sh : mol.shells) sum += grid::kGtoComponents[sh.type] * sh.ncontr() * sh.nprim;
    for (int m = 0; coef && m < mol.nbasis; ++m) max_coef = std::max(max_coef, std::fabs(coef[m]));
    return 64.0 * eps * max_coef * sum + 1e-12 * (1.0 + std::fabs(ref));
}

// Hand-made molecules: atoms first, then shells (rows of basdat: exponent,
// coefficients...), then orbitals with coefficients in [-1, 1).
struct MolBuilder {
    std::unique_ptr<moldata::Molecule> mol = std::make_unique<moldata::Molecule>();

    MolBuilder& atom(double x, double y, double z) {
        moldata::Atom& a = mol->atoms.emplace_back();
        a.x = x, a.y = y, a.z = z;
        return *this;
    }
    MolBuilder& shell(int atom, int type, int ngc, std::vector<std::vector<double>> rows) {
        moldata::Shell sh;
        sh.type = type, sh.size = gauss::kShellSize[type], sh.ngc = ngc, sh.nprim = static_cast<int>(rows.size());
        auto dat = std::make_shared<std::vector<double>>(), pre = std::make_shared<std::vector<double>>();
        for (const auto& r : rows) {
            if (static_cast<int>(r.size()) != (type == 3 ? 3 : ngc + 1))
                throw std::invalid_argument("basdat row of the wrong length");
            dat->insert(dat->end(), r.begin(), r.end());
            pre->push_back(0.7127054703549901 * std::pow(r[0], 0.75));  // (2/pi)^(3/4) a^(3/4)
        }
        sh.basdat = dat, sh.prefact = pre, sh.center = &mol->atoms[atom], sh.nfirst = mol->nbasis + 1;
        mol->nbasis += sh.size * ngc;
        mol->shells.push_back(sh);
        return *this;
    }
    std::unique_ptr<moldata::OrbitalSet> orbitals(int count, unsigned seed) const {
        auto set = std::make_unique<moldata::OrbitalSet>();
        set->count = count, set->valid = 1, set->coef.rows = count, set->coef.cols = mol->nbasis;
        std::mt19937 gen(seed);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (int k = 0; k < count * mol->nbasis; ++k) set->coef.data.push_back(u(gen));
        return set;
    }
};

// Axis-aligned grid (ndim from the counts given) centred at c.
inline std::unique_ptr<grid::Grid> box_grid(int ndim, const double c[3], const double half[3], const int counts[3]) {
    const double axes[3][3] = {{half[0], 0, 0}, {0, half[1], 0}, {0, 0, half[2]}}, spacing[3] = {0.5, 0.5, 0.5};
    return grid::grid_build(ndim, c, axes, spacing, counts);
}

template <class F>
std::string captured(F&& f) {  // what f prints on stdout
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

}  // namespace kvx::test
