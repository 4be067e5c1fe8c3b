#include "chelp/dipole.h"

#include <algorithm>
#include <cmath>

#include "gauss/dfact.h"
#include "gauss/gtoprod.h"
#include "gauss/shell_types.h"
#include "gauss/spherical.h"

namespace kvx::chelp {

namespace {

int block_ncontr(const moldata::Shell& s) { return s.type == 3 ? 1 : s.ngc; }

bool usable(const moldata::Shell& s) {
    return s.type >= 1 && s.type <= 12 && s.nprim > 0 && s.basdat && s.center && block_ncontr(s) > 0 &&
           s.basdat->size() >= static_cast<std::size_t>(s.nprim) * s.row_length();
}

}  // namespace

std::array<std::vector<double>, 3> dipole_block(const moldata::Shell& A, const moldata::Shell& B) {
    std::array<std::vector<double>, 3> out;
    if (!usable(A) || !usable(B)) return out;
    const int lA = gauss::kAngular[A.type], lB = gauss::kAngular[B.type];
    const int nA = gauss::block_cart_count(A.type), nB = gauss::block_cart_count(B.type);
    const int gA = block_ncontr(A), gB = block_ncontr(B);
    const std::size_t sub = static_cast<std::size_t>(nA) * nB, total = sub * gA * gB;
    for (auto& b : out) b.assign(total, 0.0);

    gauss::binom_grow(lA + lB + 1);
    gauss::dfact_grow(lA + lB + 2);
    gauss::CartExp eA[28], eB[28];
    for (int i = 0; i < nA; ++i) eA[i] = gauss::type_exponents(A.type, i);
    for (int i = 0; i < nB; ++i) eB[i] = gauss::type_exponents(B.type, i);

    const double Bc[3] = {B.center->x, B.center->y, B.center->z};
    const double AB[3] = {Bc[0] - A.center->x, Bc[1] - A.center->y, Bc[2] - A.center->z};
    const double r2 = AB[0] * AB[0] + AB[1] * AB[1] + AB[2] * AB[2];
    // One more power of b than the overlap: x = (x - B_x) + B_x.
    const int mB = lB + 1, w = mB + 1;
    gauss::FjTable tab[3];
    std::vector<double> s1[3];
    for (int d = 0; d < 3; ++d) {
        tab[d].shape(lA, mB, lA + mB + 1);
        s1[d].assign(static_cast<std::size_t>(lA + 1) * w, 0.0);
    }
    std::vector<double> prim(3 * sub);
    for (int ia = 0; ia < A.nprim; ++ia) {
        const double alpha = A.exponent(ia);
        for (int ib = 0; ib < B.nprim; ++ib) {
            const double beta = B.exponent(ib), gamma = alpha + beta;
            // Overlap of two normalised s primitives.
            const double pref = 2.8284271247461903 * std::pow(alpha, 0.75) * std::pow(beta, 0.75) *
                                std::pow(gamma, -1.5) * std::exp(-(alpha * beta / gamma) * r2);
            const double fa = beta / gamma, fb = -alpha / gamma;
            // 1D overlap I_d(a, b) = sum_{j even} f_j(a, b) (2 gamma)^(-j/2) (j-1)!!
            for (int d = 0; d < 3; ++d) {
                gauss::fjtab(tab[d], lA, mB, fa * AB[d], fb * AB[d]);
                for (int a = 0; a <= lA; ++a)
                    for (int b = 0; b <= mB; ++b) {
                        const double* f = tab[d].row(a, b);
                        double s = 0.0;
                        for (int j = 0; j <= a + b; j += 2)
                            s += f[j] * std::pow(0.5 / gamma, j / 2) * gauss::dfact(j - 1);
                        s1[d][a * w + b] = s;
                    }
            }
            for (int i = 0; i < nA; ++i)
                for (int j = 0; j < nB; ++j) {
                    const int ea[3] = {eA[i].x, eA[i].y, eA[i].z}, eb[3] = {eB[j].x, eB[j].y, eB[j].z};
                    double ov[3], mom[3];
                    for (int d = 0; d < 3; ++d) {
                        ov[d] = s1[d][ea[d] * w + eb[d]];
                        mom[d] = s1[d][ea[d] * w + eb[d] + 1] + Bc[d] * ov[d];
                    }
                    prim[0 * sub + i * nB + j] = pref * mom[0] * ov[1] * ov[2];
                    prim[1 * sub + i * nB + j] = pref * ov[0] * mom[1] * ov[2];
                    prim[2 * sub + i * nB + j] = pref * ov[0] * ov[1] * mom[2];
                }
            for (int g = 0; g < gA; ++g)
                for (int h = 0; h < gB; ++h)
                    for (int i = 0; i < nA; ++i) {
                        // sp shells: s coefficient for the first component, p for the rest.
                        const double c1 = A.type == 3 ? A.coef(ia, i == 0 ? 0 : 1) : A.coef(ia, g);
                        for (int j = 0; j < nB; ++j) {
                            const double c2 = B.type == 3 ? B.coef(ib, j == 0 ? 0 : 1) : B.coef(ib, h);
                            const std::size_t at = (static_cast<std::size_t>(g) * gB + h) * sub + i * nB + j;
                            for (int d = 0; d < 3; ++d) out[d][at] += prim[d * sub + i * nB + j] * c1 * c2;
                        }
                    }
        }
    }
    for (auto& b : out) {
        gauss::spherical_transform(b.data(), 1, total, A.type, B.type, gA, gB);
        b.resize(static_cast<std::size_t>(gauss::block_sph_count(A.type)) * gauss::block_sph_count(B.type) * gA * gB);
    }
    return out;
}

bool wavefunction_dipole(const moldata::Molecule& mol, int natoms, std::array<double, 3>& mu) {
    mu = {0.0, 0.0, 0.0};
    if (!mol.density || mol.density->n < mol.nbasis) return false;
    for (int a = 0; a < natoms && a < static_cast<int>(mol.atoms.size()); ++a) {
        const moldata::Atom& at = mol.atoms[a];
        mu[0] += at.nuclear_charge * at.x, mu[1] += at.nuclear_charge * at.y, mu[2] += at.nuclear_charge * at.z;
    }
    const moldata::TriMatrix& P = *mol.density;
    const int nsh = static_cast<int>(mol.shells.size());
    for (int a = 0; a < nsh; ++a) {
        const moldata::Shell& A = mol.shells[a];
        for (int b = 0; b <= a; ++b) {
            const moldata::Shell& B = mol.shells[b];
            const auto blk = dipole_block(A, B);
            if (blk[0].empty()) return false;
            const int rA = gauss::block_sph_count(A.type), rB = gauss::block_sph_count(B.type);
            const int gA = block_ncontr(A), gB = block_ncontr(B);
            // Pairs (a, b) and (b, a) both count when a != b.
            const double pair = a == b ? 1.0 : 2.0;
            std::size_t k = 0;
            for (int g = 0; g < gA; ++g)
                for (int h = 0; h < gB; ++h)
                    for (int i = 0; i < rA; ++i) {
                        const long row = A.nfirst - 1L + static_cast<long>(g) * A.size + i;
                        for (int j = 0; j < rB; ++j, ++k) {
                            const long col = B.nfirst - 1L + static_cast<long>(h) * B.size + j;
                            if (row < 0 || col < 0 || row >= P.n || col >= P.n) continue;
                            const double p = pair * P.sym(static_cast<int>(row), static_cast<int>(col));
                            for (int d = 0; d < 3; ++d) mu[d] -= p * blk[d][k];
                        }
                    }
        }
    }
    return true;
}

}  // namespace kvx::chelp
