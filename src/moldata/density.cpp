#include "moldata/density.h"

#include "moldata/checksum.h"

namespace kvx::moldata {

bool gives_density(const OrbitalSet* set, int nocc, int nbasis) {
    return set && !set->coef.data.empty() && set->count >= nocc && set->coef.rows >= nocc && set->coef.cols >= nbasis;
}

std::shared_ptr<TriMatrix> spin_density(const OrbitalSet& set, int nocc, int nbasis) {
    auto p = tri_alloc(nbasis);
    if (!p) return nullptr;
    const RowMatrix& c = set.coef;
    // P_ij = sum_k c_ki c_kj, summed over k in order for every element (the
    // density checksum needs these exact bits); k outside j keeps the
    // orbitals' rows streaming through the cache.
    for (int i = 0; i < nbasis; ++i) {
        double* row = p->row(i);
        for (int k = 0; k < nocc; ++k) {
            const double* ck = c.row(k);
            const double cki = ck[i];
            for (int j = 0; j <= i; ++j) row[j] += cki * ck[j];
        }
    }
    return p;
}

JobError compute_density(Molecule& mol) {
    mol.density.reset();
    mol.density_alpha.reset();
    mol.density_beta.reset();
    const int n = mol.nbasis;
    if (n < 0) return {};
    if (gives_density(mol.alpha.get(), mol.nalpha, n)) {
        mol.density_alpha = spin_density(*mol.alpha, mol.nalpha, n);
        if (!mol.density_alpha) return {"Compute_density: cannot allocate memory for alpha density"};
    }
    if (!mol.restricted && gives_density(mol.beta.get(), mol.nbeta, n)) {
        mol.density_beta = spin_density(*mol.beta, mol.nbeta, n);
        if (!mol.density_beta) return {"Compute_density: cannot allocate memory for beta density"};
    }

    const auto& pa = mol.density_alpha;
    const auto& pb = mol.density_beta;
    if (mol.restricted && pa) {
        auto p = tri_alloc(n);
        if (!p) return {"Compute_density: cannot allocate memory for total density"};
        for (std::size_t e = 0; e < p->data.size(); ++e) p->data[e] = 2.0 * pa->data[e];
        mol.density = p;
    } else if (!mol.restricted && pa && pb) {
        auto p = tri_alloc(n);
        if (!p) return {"Compute_density: cannot allocate memory for total density"};
        for (std::size_t e = 0; e < p->data.size(); ++e) p->data[e] = pa->data[e] + pb->data[e];
        mol.density = p;
    } else if (!mol.restricted && pa) {
        mol.density = pa;
    } else if (!mol.restricted && pb) {
        mol.density = pb;
    }
    if (mol.density) mol.density_checksum = static_cast<int>(density_checksum(*mol.density));
    return {};
}

std::uint32_t density_checksum(const TriMatrix& p) {
    std::uint32_t sum = 0;
    for (int i = 0; i < p.n; ++i) sum = checksum32(p.row(i), sizeof(double) * static_cast<std::size_t>(i + 1), sum);
    return sum;
}

}  // namespace kvx::moldata
