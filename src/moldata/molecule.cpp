#include "moldata/molecule.h"

#include <new>
#include <stdexcept>

namespace kvx::moldata {

std::shared_ptr<TriMatrix> tri_alloc(int n) {
    if (n < 0) return nullptr;
    try {
        auto m = std::make_shared<TriMatrix>();
        m->n = n;
        m->data.assign(static_cast<std::size_t>(n) * (n + 1) / 2, 0.0);
        return m;
    } catch (const std::bad_alloc&) {
        return nullptr;
    } catch (const std::length_error&) {
        return nullptr;
    }
}

std::unique_ptr<RowMatrix> rowmat_alloc(int rows, int cols) {
    if (rows < 0 || cols < 0) return nullptr;
    try {
        auto m = std::make_unique<RowMatrix>();
        m->rows = rows;
        m->cols = cols;
        m->data.assign(static_cast<std::size_t>(rows) * cols, 0.0);
        return m;
    } catch (const std::bad_alloc&) {
        return nullptr;
    } catch (const std::length_error&) {
        return nullptr;
    }
}

bool rowmat_resize(RowMatrix& m, int new_rows) {
    if (new_rows < 0) return false;
    try {
        m.data.resize(static_cast<std::size_t>(new_rows) * m.cols, 0.0);
        m.data.shrink_to_fit();
        m.rows = new_rows;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
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
