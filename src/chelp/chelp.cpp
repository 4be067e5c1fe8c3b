#include "chelp/chelp.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/fatal.h"
#include "common/parallel.h"
#include "grid/grid.h"

extern "C" void dgesv_(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b,
                       const int* ldb, int* info);

namespace kvx::chelp {

namespace {

constexpr double kAngstromToBohr = 1.889725991249198;
constexpr double kInnerScale = 1.0;
constexpr double kOuterScale = 1.8;
constexpr double kAuPerDebye = 0.393427328;
constexpr double kDefaultThresh = 1e-7;
constexpr int kMaxZ = 110;

// Element radii in angstrom by nuclear charge; entry 0 is a placeholder.
constexpr double kRadii[kMaxZ + 1] = {
    0.0,
    1.2,  1.4,  1.82, 1.87, 1.69, 1.7,  1.55, 1.52, 1.47, 1.54,   // 1-10
    2.27, 1.73, 2.06, 2.1,  1.8,  1.8,  1.75, 1.88, 2.75, 2.17,   // 11-20
    2.26, 2.26, 2.15, 2.05, 2.1,  2.06, 2.05, 1.63, 1.4,  1.39,   // 21-30
    1.87, 2.1,  1.85, 1.9,  1.85, 2.02, 3.23, 2.94, 2.9,  2.85,   // 31-40
    2.8,  2.2,  2.2,  2.2,  2.2,  1.63, 1.72, 1.58, 1.93, 2.17,   // 41-50
    2.16, 2.06, 1.98, 2.16, 3.42, 2.97, 2.4,  2.1,  2.1,  2.1,    // 51-60
    2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,    // 61-70
    2.1,  2.2,  2.2,  2.2,  2.2,  2.2,  2.2,  1.75, 1.66, 1.55,   // 71-80
    1.96, 2.02, 2.26, 2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,    // 81-90
    2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,    // 91-100
    2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,  2.1,    // 101-110
};

struct ChelpState {
    const moldata::Molecule* mol = nullptr;
    int natoms = 0;                        // atoms taking part
    const moldata::Atom* atoms = nullptr;
    int charge = 0;
    std::vector<double> radii;             // bohr, one per atom
    double thresh = kDefaultThresh;        // |V| below this is not fitted
};

ChelpState state;

void clear_state() {
    state.mol = nullptr;
    state.natoms = 0;
    state.atoms = nullptr;
    state.charge = 0;
    std::vector<double>().swap(state.radii);
}

// Writes the message, closes the report.
void fail(std::FILE* fp, const char* msg) {
    std::fputs(msg, fp);
    std::fclose(fp);
}

double distance(const double r[3], const moldata::Atom& a) {
    const double dx = r[0] - a.x, dy = r[1] - a.y, dz = r[2] - a.z;
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// Atoms that symmetry maps onto each other get the mean of their charges.
void average_equivalent(std::vector<double>& q) {
    const moldata::SymmetryInfo* sym = state.mol->symmetry.get();
    if (!sym || sym->ntrans <= 1 || sym->nunique == state.natoms) return;
    const int n = state.natoms;
    const std::size_t ntrans = static_cast<std::size_t>(sym->ntrans);
    std::vector<char> marked(static_cast<std::size_t>(n));
    const std::size_t nunique = std::min<std::size_t>(sym->nunique < 0 ? 0 : sym->nunique, sym->unique.size());
    for (std::size_t i = 0; i < nunique; ++i) {
        const int u = sym->unique[i];
        if (u < 1 || u > n) continue;
        std::fill(marked.begin(), marked.end(), 0);
        for (std::size_t t = 0; t < ntrans; ++t) {
            const std::size_t at = static_cast<std::size_t>(u - 1) * ntrans + t;
            if (at >= sym->images.size()) break;
            const int img = sym->images[at];
            if (img >= 1 && img <= n) marked[static_cast<std::size_t>(img - 1)] = 1;
        }
        double sum = 0.0;
        int count = 0;
        for (int a = 0; a < n; ++a)
            if (marked[a]) {
                sum += q[a];
                ++count;
            }
        if (count == 0) continue;
        const double mean = sum / count;
        for (int a = 0; a < n; ++a)
            if (marked[a]) q[a] = mean;
    }
}

}  // namespace

double chelp_radius(int Z) {
    if (Z < 1 || Z > kMaxZ) return 0.0;
    return kRadii[Z];
}

int chelp_setup(const moldata::Molecule* mol, double thresh) {
    clear_state();
    if (!mol) return 0;
    int n = mol->natoms - mol->ndummy[1];
    if (n < 0) n = 0;
    if (static_cast<std::size_t>(n) > mol->atoms.size()) n = static_cast<int>(mol->atoms.size());
    if (!common::try_alloc([&] { state.radii.resize(static_cast<std::size_t>(n)); })) {
        clear_state();
        return 0;
    }
    for (int a = 0; a < n; ++a) state.radii[a] = chelp_radius(mol->atoms[a].atomic_number) * kAngstromToBohr;
    state.mol = mol;
    state.natoms = n;
    state.atoms = mol->atoms.data();
    state.charge = mol->charge;
    state.thresh = thresh;
    return 1;
}

void chelp_release() {
    clear_state();
    state.thresh = kDefaultThresh;
}

bool chelp_point_in_range(const double r[3]) {
    bool near = false;
    for (int a = 0; a < state.natoms; ++a) {
        const moldata::Atom& at = state.atoms[a];
        const double dx = r[0] - at.x, dy = r[1] - at.y, dz = r[2] - at.z;
        // dy*dz in place of dy*dy is intended: it defines the fitted point set.
        // A negative sum gives NaN, which is neither inside nor near.
        const double d = std::sqrt(dx * dx + dy * dz + dz * dz);
        if (d < kInnerScale * state.radii[a]) return false;
        if (d <= kOuterScale * state.radii[a]) near = true;
    }
    return near;
}

std::vector<unsigned char> chelp_point_mask(const grid::Grid* grid) {
    std::vector<unsigned char> mask;
    if (!grid || !common::try_alloc([&] { mask.resize(grid->total); })) return mask;
    const grid::GridGeometry geo = grid::grid_geometry(*grid);
    for (unsigned k = 0; k < grid->total; ++k) {
        double r[3];
        geo.point_of_index(r, static_cast<int>(k));
        mask[k] = chelp_point_in_range(r) ? 1 : 0;
    }
    return mask;
}

namespace {

// The fitted points: x, y, z of each (rp, 3 per point) and its potential (vp).
struct FitPoints {
    std::vector<double> rp, vp;
    int n = 0;
};

// Grid points in range whose |V| reaches the value threshold, in point
// order. Null on success, else the report's message.
const char* select_points(const grid::PropertyGrid& pot, FitPoints& pts) {
    const int total = static_cast<int>(pot.grid->total);
    const grid::GridGeometry geo = grid::grid_geometry(*pot.grid);
    if (!common::try_alloc([&] { pts.rp.resize(3 * static_cast<std::size_t>(total)); }))
        return "Chelp chelpg: rp is out of memory\n";
    if (!common::try_alloc([&] { pts.vp.resize(static_cast<std::size_t>(total)); }))
        return "Chelp chelpg: vp is out of memory\n";
    int n = 0;
    for (int k = 0; k < total; ++k) {
        int idx[3] = {0, 0, 0};
        double r[3] = {0.0, 0.0, 0.0};
        geo.indices_of_index(idx, k);
        geo.point_of_indices(r, idx);
        if (!chelp_point_in_range(r)) continue;
        const double v = pot.values[static_cast<std::size_t>(k)];
        if (std::fabs(v) < state.thresh) continue;
        double* dst = &pts.rp[3 * static_cast<std::size_t>(n)];
        dst[0] = r[0];
        dst[1] = r[1];
        dst[2] = r[2];
        pts.vp[static_cast<std::size_t>(n)] = v;
        ++n;
    }
    pts.n = n;
    if (!common::try_alloc([&] {
            pts.rp.resize(3 * static_cast<std::size_t>(n));
            pts.rp.shrink_to_fit();
        }))
        return "Chelp chelpg: cannot reallocate rp\n";
    if (!common::try_alloc([&] {
            pts.vp.resize(static_cast<std::size_t>(n));
            pts.vp.shrink_to_fit();
        }))
        return "Chelp chelpg: cannot reallocate vp\n";
    return nullptr;
}

// The constrained least-squares system of order natoms + 1, column-major
// A(row, col) = a[col n + row]:
//   A(b, a) = sum_k w_k / (|r_k - R_a| |r_k - R_b|),  B(a) = sum_k w_k V_k / |r_k - R_a|,
// with a row of ones and a column of halves for the total charge. Null on
// success, else the report's message.
const char* build_system(const FitPoints& pts, std::vector<double>& a, std::vector<double>& b, int nthreads) {
    const int natoms = state.natoms;
    const moldata::Atom* atoms = state.atoms;
    const std::size_t nn = static_cast<std::size_t>(natoms) + 1;
    const int nshares = std::max(1, std::min(nthreads, natoms));
    std::vector<double> w;
    std::vector<std::vector<double>> invd(static_cast<std::size_t>(nshares));
    if (!common::try_alloc([&] { w.assign(static_cast<std::size_t>(pts.n), 1.0); }))
        return "Chelp chelpg: cannot allocate w\n";
    if (!common::try_alloc([&] {
            a.assign(nn * nn, 0.0);
            for (auto& d : invd) d.resize(static_cast<std::size_t>(natoms));
        }))
        return "Chelp chelpg: cannot allocate a\n";
    if (!common::try_alloc([&] { b.assign(nn, 0.0); })) return "Chelp chelpg: cannot allocate b\n";
    // Threads take whole columns of A (and their rows of B) and every point in
    // order, so each element adds its terms in point order whatever the
    // thread count: the same bits as one thread. Dividing the points instead
    // would need partial sums added in another order.
    common::run_shares(nshares, [&](int share) {
        long first = 0, count = 0;
        common::share_range(natoms, nshares, share, first, count);
        double* d = invd[static_cast<std::size_t>(share)].data();
        for (int k = 0; k < pts.n; ++k) {
            const double* r = &pts.rp[3 * static_cast<std::size_t>(k)];
            for (int i = 0; i < natoms; ++i) d[i] = 1.0 / distance(r, atoms[i]);
            const double wk = w[k];
            const double wv = wk * pts.vp[k];
            for (long i = first; i < first + count; ++i) {
                double* col = &a[static_cast<std::size_t>(i) * nn];
                const double wi = wk * d[i];
                for (int j = 0; j < natoms; ++j) col[j] += wi * d[j];
                b[i] += wv * d[i];
            }
        }
    });
    // The Lagrange multiplier is carried as half its value, so A is not
    // symmetric: intended.
    for (int i = 0; i < natoms; ++i) {
        a[static_cast<std::size_t>(i) * nn + natoms] = 1.0;
        a[static_cast<std::size_t>(natoms) * nn + i] = 0.5;
    }
    a[static_cast<std::size_t>(natoms) * nn + natoms] = 0.0;
    b[natoms] = state.charge;
    return nullptr;
}

// RMS error (the root of the sum of squares divided by the point count:
// square root first, intended) and the largest relative error of the charges'
// potential F(k) = sum_a q_a / |r_k - R_a| against V(k).
void fit_errors(const FitPoints& pts, const std::vector<double>& q, double& rms, double& maxrel) {
    maxrel = -1.0;
    double sumsq = 0.0;
    for (int k = 0; k < pts.n; ++k) {
        const double* r = &pts.rp[3 * static_cast<std::size_t>(k)];
        double f = 0.0;
        for (int i = 0; i < state.natoms; ++i) f += q[i] / distance(r, state.atoms[i]);
        const double diff = pts.vp[k] - f;
        const double rel = std::fabs(diff / f);
        if (rel > maxrel) maxrel = rel;
        sumsq += diff * diff;
    }
    rms = std::sqrt(sumsq) / pts.n;
}

void write_report(std::FILE* fp, const std::vector<double>& q, double rms, double maxrel) {
    const moldata::Atom* atoms = state.atoms;
    std::fputs("\nCHELPG results: \n\n", fp);
    std::fprintf(fp, "RMS error (a.u.) %f     Max. relative error %f\n\n", rms, maxrel);
    std::fputs("Atom       Charge\n\n", fp);
    double qsum = 0.0, dip[3] = {0.0, 0.0, 0.0};
    for (int i = 0; i < state.natoms; ++i) {
        std::fprintf(fp, " %-10s % f\n", atoms[i].symbol.c_str(), q[i]);
        qsum += q[i];
        dip[0] += q[i] * atoms[i].x;
        dip[1] += q[i] * atoms[i].y;
        dip[2] += q[i] * atoms[i].z;
    }
    std::fprintf(fp, "\n Total      % f\n", qsum);
    const double dtot = std::sqrt(dip[0] * dip[0] + dip[1] * dip[1] + dip[2] * dip[2]);
    std::fprintf(fp, "\n CHELP dipole/D  = % f % f % f total= % f D\n\n", dip[0] / kAuPerDebye, dip[1] / kAuPerDebye,
                 dip[2] / kAuPerDebye, dtot / kAuPerDebye);
}

}  // namespace

void chelpg(const grid::PropertyGrid* pot, const char* jobname, int nthreads) {
    std::FILE* fp = nullptr;
    if (jobname) {
        const std::string path = std::string(jobname) + ".chelp";
        fp = std::fopen(path.c_str(), "w");
    }
    if (!fp) common::fatal("Chelp chelpg: cannot open output file");

    if (!state.mol || !state.atoms || state.natoms <= 0 || state.radii.empty())
        return fail(fp, "CHELP has not been properly initialized\n");
    if (!pot || !pot->grid || pot->grid->total == 0 || pot->values.size() < pot->grid->total)
        return fail(fp, "Chelp chelpg: no electrostatic potential defined\n");
    if (pot->grid->total > static_cast<unsigned>(INT_MAX)) return fail(fp, "Chelp chelpg: rp is out of memory\n");

    FitPoints pts;
    if (const char* msg = select_points(*pot, pts)) return fail(fp, msg);
    if (pts.n == 0) return fail(fp, "Chelp chelpg: no points inside chelp range\n");
    std::fprintf(fp, "\nUsed %d out of %d points\n", pts.n, static_cast<int>(pot->grid->total));

    std::vector<double> a, b;
    if (const char* msg = build_system(pts, a, b, nthreads)) return fail(fp, msg);
    std::vector<int> ipiv;
    if (!common::try_alloc([&] { ipiv.resize(b.size()); })) return fail(fp, "Chelp chelpg: cannot allocate ipiv\n");
    const int n = state.natoms + 1, nrhs = 1;
    int info = 0;
    dgesv_(&n, &nrhs, a.data(), &n, ipiv.data(), b.data(), &n, &info);
    if (info != 0) {
        std::fprintf(fp, "Chelp chelpg: call to Lapack dgesv returned info=%d \n", info);
        std::fclose(fp);
        return;
    }
    std::vector<double>& q = b;  // charges in b[0 .. natoms-1]
    double rms = 0.0, maxrel = 0.0;
    fit_errors(pts, q, rms, maxrel);
    average_equivalent(q);
    write_report(fp, q, rms, maxrel);
    std::fclose(fp);
}

}  // namespace kvx::chelp
