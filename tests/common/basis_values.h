// Basis functions evaluated straight from the shells, as a reference for
// the grid code and the job readers: no power tables, no factor cache, no
// screening.
#pragma once

#include <cmath>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::test {

// Angular factors of one shell type at displacement (x, y, z), term by term.
inline std::vector<double> component_factors(int type, double x, double y, double z) {
    const double x2 = x * x, y2 = y * y, z2 = z * z;
    switch (type) {
        case 1:
            return {1.0};
        case 2:
            return {x, y, z};
        case 3:
            return {1.0, x, y, z};
        case 4:
            return {(2 * z2 - x2 - y2) / std::sqrt(12.0), (x2 - y2) / 2, x * y, x * z, y * z};
        case 5:
            return {x2, y2, z2, x * y, x * z, y * z};
        case 6:  // the program's f set: first factor has z y^2, sixth 4 y^2 z^2
            return {4 * x2 * y - y2 * y - z * y2, 4 * x2 * z - z * y2 - z2 * z, 4 * x * y2 - x2 * x - x * z2,
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

// The displacement the angular factors take: the grid tables use atom -
// point (odd-l functions change sign), the integrals point - atom.
enum class Displacement { AtomMinusPoint, PointMinusAtom };

// Values of all basis functions of the molecule at a point (nbasis entries),
// every primitive summed directly.
inline std::vector<double> basis_values(const moldata::Molecule& mol, const double pt[3],
                                        Displacement disp = Displacement::AtomMinusPoint) {
    std::vector<double> phi(mol.nbasis, 0.0);
    const double s = disp == Displacement::AtomMinusPoint ? 1.0 : -1.0;
    for (const moldata::Shell& sh : mol.shells) {
        const double x = s * (sh.center->x - pt[0]), y = s * (sh.center->y - pt[1]), z = s * (sh.center->z - pt[2]);
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

}  // namespace kvx::test
