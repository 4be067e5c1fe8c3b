// Molecules built by hand for tests, atom by atom and shell by shell.
#pragma once

#include <cmath>
#include <cstddef>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "gauss/shell_types.h"
#include "moldata/molecule.h"

namespace kvx::test {

// Hand-made molecules: atoms (x, y, z and nuclear charge) first, then shells
// (rows of basdat: exponent, coefficients..., used as given; the primitive
// factor (2 alpha / pi)^(3/4)), then a density matrix or orbitals with
// coefficients in [-1, 1).
struct MolBuilder {
    std::unique_ptr<moldata::Molecule> mol = std::make_unique<moldata::Molecule>();

    MolBuilder& atom(double x, double y, double z, double charge = 0.0) {
        moldata::Atom& a = mol->atoms.emplace_back();
        a.x = x, a.y = y, a.z = z, a.nuclear_charge = charge;
        mol->natoms = static_cast<int>(mol->atoms.size());
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
        mol->nshell = static_cast<int>(mol->shells.size());
        return *this;
    }
    // Total density P(i, j) = dens(i, j), i >= j, over the shells so far.
    MolBuilder& density(double (*dens)(int, int)) {
        auto D = std::make_shared<moldata::TriMatrix>();
        D->n = mol->nbasis;
        D->data.resize(static_cast<std::size_t>(D->n) * (D->n + 1) / 2);
        for (int i = 0; i < D->n; ++i)
            for (int j = 0; j <= i; ++j) D->at(i, j) = dens(i, j);
        mol->density = D;
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

}  // namespace kvx::test
