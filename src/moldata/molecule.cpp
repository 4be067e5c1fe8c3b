#include "moldata/molecule.h"

#include "common/fatal.h"

namespace kvx::moldata {

std::shared_ptr<TriMatrix> tri_alloc(int n) {
    if (n < 0) return nullptr;
    std::shared_ptr<TriMatrix> m;
    if (!common::try_alloc([&] {
            m = std::make_shared<TriMatrix>();
            m->n = n;
            m->data.assign(static_cast<std::size_t>(n) * (n + 1) / 2, 0.0);
        }))
        return nullptr;
    return m;
}

std::unique_ptr<RowMatrix> rowmat_alloc(int rows, int cols) {
    if (rows < 0 || cols < 0) return nullptr;
    std::unique_ptr<RowMatrix> m;
    if (!common::try_alloc([&] {
            m = std::make_unique<RowMatrix>();
            m->rows = rows;
            m->cols = cols;
            m->data.assign(static_cast<std::size_t>(rows) * cols, 0.0);
        }))
        return nullptr;
    return m;
}

bool rowmat_resize(RowMatrix& m, int new_rows) {
    if (new_rows < 0) return false;
    if (!common::try_alloc([&] {
            m.data.resize(static_cast<std::size_t>(new_rows) * m.cols, 0.0);
            m.data.shrink_to_fit();
        }))
        return false;
    m.rows = new_rows;
    return true;
}

DataFlags compute_flags(const Molecule& mol) {
    DataFlags fl;
    const bool base = mol.has_atoms() && mol.has_shells();
    auto usable = [&](const std::unique_ptr<OrbitalSet>& s) { return base && s && s->valid == 1 ? 1 : 0; };
    fl.f[DataFlags::kDensity] = base && mol.density ? 1 : 0;
    fl.f[DataFlags::kAlpha] = usable(mol.alpha);
    fl.f[DataFlags::kBeta] = usable(mol.beta);
    fl.f[DataFlags::kLocalized] = usable(mol.localized);
    fl.f[DataFlags::kLocalizedBeta] = usable(mol.localized_beta);
    fl.f[DataFlags::kNatural] = usable(mol.natural);
    int occ = (mol.nalpha < 1 || fl.f[DataFlags::kAlpha]) ? 1 : 0;
    if (mol.nbeta > 0 && !fl.f[DataFlags::kBeta]) occ = 0;
    fl.f[DataFlags::kOccupied] = occ;
    return fl;
}

}  // namespace kvx::moldata
