#include "grid/grid.h"

#include <climits>
#include <cmath>
#include <new>

namespace kvx::grid {

namespace {

// The installed grid and the conversions picked for it.
struct GridModule {
    GridGeometry view;
    PointOfIndicesFn point_of_indices = nullptr;
    IndicesOfPointFn indices_of_point = nullptr;
    StepFn step_forward = nullptr;
    StepFn step_back = nullptr;
};

GridModule g_state;

double column_length(const double a[3][3], int d) {
    return std::sqrt(a[0][d] * a[0][d] + a[1][d] * a[1][d] + a[2][d] * a[2][d]);
}

// Nearest integer, ties to even; saturates instead of overflowing int.
int round_index(double x) {
    double r = std::nearbyint(x);
    if (!(r >= static_cast<double>(INT_MIN))) return r != r ? 0 : INT_MIN;
    if (r > static_cast<double>(INT_MAX)) return INT_MAX;
    return static_cast<int>(r);
}

void point_of_indices_cartesian(const GridGeometry& s, double point[3], const int idx[]) {
    for (int c = 0; c < 3; ++c) point[c] = s.origin[c];
    for (int d = 0; d < s.ndim; ++d) point[d] = s.origin[d] + idx[d] * s.M[d][d];
}

void point_of_indices_general(const GridGeometry& s, double point[3], const int idx[]) {
    for (int r = 0; r < 3; ++r) {
        double p = s.origin[r];
        for (int d = 0; d < s.ndim; ++d) p += idx[d] * s.M[r][d];
        point[r] = p;
    }
}

void indices_of_point_cartesian(const GridGeometry& s, const double point[3], int idx[]) {
    for (int d = 0; d < s.ndim; ++d) idx[d] = round_index(s.Minv[d][d] * (point[d] - s.origin[d]));
}

void indices_of_point_general(const GridGeometry& s, const double point[3], int idx[]) {
    for (int d = 0; d < s.ndim; ++d) {
        double t = 0.0;
        for (int r = 0; r < 3; ++r) t += (point[r] - s.origin[r]) * s.Minv[d][r];
        idx[d] = round_index(t);
    }
}

// The variants on the installed grid, for the pickers.
void installed_point_of_indices_cartesian(double point[3], const int idx[]) {
    point_of_indices_cartesian(g_state.view, point, idx);
}
void installed_point_of_indices_general(double point[3], const int idx[]) {
    point_of_indices_general(g_state.view, point, idx);
}
void installed_indices_of_point_cartesian(const double point[3], int idx[]) {
    indices_of_point_cartesian(g_state.view, point, idx);
}
void installed_indices_of_point_general(const double point[3], int idx[]) {
    indices_of_point_general(g_state.view, point, idx);
}
void installed_step_forward_cartesian(double point[3], int d) { point[d] += g_state.view.axes[d][d]; }
void installed_step_back_cartesian(double point[3], int d) { point[d] -= g_state.view.axes[d][d]; }
void installed_step_forward_general(double point[3], int d) {
    for (int c = 0; c < 3; ++c) point[c] += g_state.view.axes[c][d];
}
void installed_step_back_general(double point[3], int d) {
    for (int c = 0; c < 3; ++c) point[c] -= g_state.view.axes[c][d];
}

// Axis-aligned when every off-diagonal component of the existing steps is
// exactly zero (-0.0 included); no tolerance.
int cartesian_flag(const Grid& g) {
    const auto& a = g.axes;
    switch (g.ndim) {
        case 1: return a[1][0] == 0.0 && a[2][0] == 0.0;
        case 2: return a[1][0] == 0.0 && a[2][0] == 0.0 && a[0][1] == 0.0 && a[2][1] == 0.0;
        case 3:
            return a[1][0] == 0.0 && a[2][0] == 0.0 && a[0][1] == 0.0 && a[2][1] == 0.0 &&
                   a[0][2] == 0.0 && a[1][2] == 0.0;
        default: return 0;
    }
}

// R maps the local frame to the lab frame: e_x along step 0, and (n >= 2)
// step 1 in the local xy plane. R = Rz(phi) * Ry(theta) * Rx(psi).
void orientation(const Grid& g, double R[3][3]) {
    const auto& a = g.axes;
    const double x = a[0][0], y = a[1][0], z = a[2][0];
    const double phi = std::atan2(y, x);
    const double theta = -std::atan2(z, std::sqrt(x * x + y * y));
    const double cf = std::cos(phi), sf = std::sin(phi);
    const double ct = std::cos(theta), st = std::sin(theta);
    const double R0[3][3] = {{cf * ct, -sf, cf * st}, {sf * ct, cf, sf * st}, {-st, 0.0, ct}};

    double cp = 1.0, sp = 0.0;
    if (g.ndim >= 2) {
        // Step 1 in the frame of step 0: R0^T s1; psi turns (0, r, 0) onto (0, y', z').
        double yl = 0.0, zl = 0.0;
        for (int k = 0; k < 3; ++k) {
            yl += R0[k][1] * a[k][1];
            zl += R0[k][2] * a[k][1];
        }
        const double psi = std::atan2(zl, yl);
        cp = std::cos(psi);
        sp = std::sin(psi);
    }
    const double Rx[3][3] = {{1.0, 0.0, 0.0}, {0.0, cp, -sp}, {0.0, sp, cp}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            double t = 0.0;
            for (int k = 0; k < 3; ++k) t += R0[i][k] * Rx[k][j];
            R[i][j] = t;
        }
}

double clamp_cos(double c) { return c > 1.0 ? 1.0 : (c < -1.0 ? -1.0 : c); }

double cos_between(const double a[3][3], int d0, int d1, double l0, double l1) {
    double dot = a[0][d0] * a[0][d1] + a[1][d0] * a[1][d1] + a[2][d0] * a[2][d1];
    return clamp_cos(dot / (l0 * l1));
}

// M = R^T L and Minv = Linv R, with L the upper-triangular cell matrix of the
// step lengths and angles. M takes R transposed, so a grid that is not
// axis-aligned is laid out with the reverse orientation (a 1-D grid with step
// (0, a, 0) runs along -y); this is intended. Minv M = 1 on the spanned
// subspace because R is orthogonal.
void step_matrices(const Grid& g, double M[3][3], double Minv[3][3]) {
    const int n = g.ndim;
    if (n < 1 || n > 3) return;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) M[i][j] = Minv[i][j] = 0.0;

    double R[3][3];
    orientation(g, R);
    const double a0 = column_length(g.axes, 0);
    if (n == 1) {
        for (int r = 0; r < 3; ++r) {
            M[r][0] = R[0][r] * a0;
            Minv[0][r] = R[0][r] / a0;
        }
        return;
    }

    const double a1 = column_length(g.axes, 1);
    const double a2 = n == 3 ? column_length(g.axes, 2) : 0.0;
    const double cg = cos_between(g.axes, 0, 1, a0, a1);  // gamma: steps 0, 1
    const double sg = std::sqrt(1.0 - cg * cg);
    double L[3][3] = {}, Li[3][3] = {};
    L[0][0] = a0;
    L[0][1] = a1 * cg;
    L[1][1] = a1 * sg;
    Li[0][0] = 1.0 / a0;
    Li[1][1] = 1.0 / L[1][1];
    Li[0][1] = -L[0][1] / (a0 * L[1][1]);
    if (n == 3) {
        const double ca = cos_between(g.axes, 1, 2, a1, a2);  // alpha: steps 1, 2
        const double cb = cos_between(g.axes, 0, 2, a0, a2);  // beta: steps 0, 2
        double v = 1.0 - ca * ca - cb * cb - cg * cg + 2.0 * ca * cb * cg;
        if (v < 0.0) v = 0.0;
        L[0][2] = a2 * cb;
        L[1][2] = a2 * (ca - cb * cg) / sg;
        L[2][2] = a2 * std::sqrt(v) / sg;
        Li[2][2] = 1.0 / L[2][2];
        Li[1][2] = -L[1][2] / (L[1][1] * L[2][2]);
        Li[0][2] = (L[0][1] * L[1][2]) / (a0 * L[1][1] * L[2][2]) - L[0][2] / (a0 * L[2][2]);
    }
    for (int r = 0; r < 3; ++r)
        for (int d = 0; d < n; ++d) {
            double m = 0.0, mi = 0.0;
            for (int k = 0; k < 3; ++k) {
                m += R[k][r] * L[k][d];
                mi += Li[d][k] * R[k][r];
            }
            M[r][d] = m;
            Minv[d][r] = mi;
        }
}

}  // namespace

std::unique_ptr<Grid> grid_build(int n, const double centre[3], const double half_axes[3][3],
                                 const double spacing[], const int counts[]) {
    if (n < 1 || n > 3) return nullptr;

    double len[3] = {0, 0, 0};
    for (int d = 0; d < n; ++d) {
        len[d] = column_length(half_axes, d);
        if (!(len[d] > 1e-15) || !std::isfinite(len[d])) return nullptr;
    }
    if (n == 2) {
        double dot = half_axes[0][0] * half_axes[0][1] + half_axes[1][0] * half_axes[1][1] +
                     half_axes[2][0] * half_axes[2][1];
        double c = std::fabs(dot) / (len[0] * len[1]);
        if (!(std::fabs(c - 1.0) > 1e-15)) return nullptr;
    } else if (n == 3) {
        const auto& h = half_axes;
        double det = h[0][0] * (h[1][1] * h[2][2] - h[2][1] * h[1][2]) -
                     h[0][1] * (h[1][0] * h[2][2] - h[2][0] * h[1][2]) +
                     h[0][2] * (h[1][0] * h[2][1] - h[2][0] * h[1][1]);
        if (!(std::fabs(det) > 1e-15)) return nullptr;
    }
    for (int d = 0; d < n; ++d)
        if (spacing[d] == 0.0 && counts[d] < 2) return nullptr;

    std::unique_ptr<Grid> g;
    try {
        g = std::make_unique<Grid>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    g->ndim = n;
    for (int c = 0; c < 3; ++c) g->centre[c] = centre[c];

    double total = 1.0;
    for (int d = 0; d < n; ++d) {
        const double L = len[d];
        int N = counts[d];
        double h;
        if (N > 2) {
            h = 2.0 * L / (N - 1);
        } else {
            // Count from the spacing: enough points to cover the box, plus one.
            // A spacing that is not positive cannot cover it.
            h = spacing[d];
            if (!(h > 0.0)) return nullptr;
            const double m = std::ceil(2.0 * L / h) + 1.0;
            if (!(m < static_cast<double>(INT_MAX))) return nullptr;
            N = static_cast<int>(m);
        }
        g->lengths[d] = (N - 1) * h;
        g->spacings[d] = h;
        g->counts[d] = N;
        for (int c = 0; c < 3; ++c) g->axes[c][d] = half_axes[c][d] * h / L;
        total *= N;
    }
    // Linear indices are int: refuse lattices that cannot be numbered.
    if (total > static_cast<double>(INT_MAX)) return nullptr;
    g->total = static_cast<unsigned>(total);

    for (int c = 0; c < 3; ++c) {
        double o = centre[c];
        for (int d = 0; d < n; ++d) o -= 0.5 * (g->counts[d] - 1) * g->axes[c][d];
        g->origin[c] = o;
    }
    return g;
}

void grid_destroy(std::unique_ptr<Grid>& grid) { grid.reset(); }

GridGeometry grid_geometry(const Grid& grid) {
    GridGeometry s;
    s.grid = &grid;
    s.ndim = grid.ndim;
    for (int c = 0; c < 3; ++c) {
        s.origin[c] = grid.origin[c];
        for (int d = 0; d < 3; ++d) s.axes[c][d] = grid.axes[c][d];
    }
    const int n = grid.ndim;
    if (n >= 1 && n <= 3) {
        s.stride[n - 1] = 1;
        for (int d = n - 2; d >= 0; --d) s.stride[d] = s.stride[d + 1] * grid.counts[d + 1];
        for (int d = n; d < 3; ++d) s.stride[d] = 0;
    }
    s.cartesian = cartesian_flag(grid);
    step_matrices(grid, s.M, s.Minv);
    return s;
}

void GridGeometry::point_of_indices(double point[3], const int idx[]) const {
    if (cartesian)
        point_of_indices_cartesian(*this, point, idx);
    else
        point_of_indices_general(*this, point, idx);
}

void GridGeometry::indices_of_point(const double point[3], int idx[]) const {
    if (cartesian)
        indices_of_point_cartesian(*this, point, idx);
    else
        indices_of_point_general(*this, point, idx);
}

int GridGeometry::index_of_indices(const int idx[]) const {
    const int n = ndim;
    if (n < 1 || n > 3) return 0;
    int k = idx[n - 1];
    for (int d = 0; d < n - 1; ++d) k += stride[d] * idx[d];
    return k;
}

void GridGeometry::indices_of_index(int idx[], int k) const {
    if (ndim >= 2 && (stride[0] == 0 || (ndim == 3 && stride[1] == 0))) {
        for (int d = 0; d < ndim; ++d) idx[d] = 0;  // a dimension with no points
        return;
    }
    switch (ndim) {
        case 1: idx[0] = k; break;
        case 2:
            idx[0] = k / stride[0];
            idx[1] = k % stride[0];
            break;
        case 3: {
            idx[0] = k / stride[0];
            const int r = k % stride[0];
            idx[1] = r / stride[1];
            idx[2] = r % stride[1];
            break;
        }
        default: break;
    }
}

void GridGeometry::point_of_index(double point[3], int k) const {
    int idx[3] = {0, 0, 0};
    indices_of_index(idx, k);
    point_of_indices(point, idx);
}

int GridGeometry::index_of_point(const double point[3]) const {
    int idx[3] = {0, 0, 0};
    indices_of_point(point, idx);
    return index_of_indices(idx);
}

void GridGeometry::step_forward(double point[3], int d) const {
    if (cartesian) {
        point[d] += axes[d][d];
    } else {
        for (int c = 0; c < 3; ++c) point[c] += axes[c][d];
    }
}

void GridGeometry::step_back(double point[3], int d) const {
    if (cartesian) {
        point[d] -= axes[d][d];
    } else {
        for (int c = 0; c < 3; ++c) point[c] -= axes[c][d];
    }
}

int grid_install(const Grid* grid) {
    if (!grid) return 0;
    GridModule& m = g_state;
    m.view = grid_geometry(*grid);
    if (m.view.cartesian) {
        m.point_of_indices = installed_point_of_indices_cartesian;
        m.indices_of_point = installed_indices_of_point_cartesian;
        m.step_forward = installed_step_forward_cartesian;
        m.step_back = installed_step_back_cartesian;
    } else {
        m.point_of_indices = installed_point_of_indices_general;
        m.indices_of_point = installed_indices_of_point_general;
        m.step_forward = installed_step_forward_general;
        m.step_back = installed_step_back_general;
    }
    return m.view.cartesian;
}

const GridState& grid_state() { return g_state.view; }

PointOfIndicesFn grid_pick_point_of_indices() {
    return g_state.point_of_indices ? g_state.point_of_indices : installed_point_of_indices_general;
}
IndicesOfPointFn grid_pick_indices_of_point() {
    return g_state.indices_of_point ? g_state.indices_of_point : installed_indices_of_point_general;
}
StepFn grid_pick_step_forward() { return g_state.step_forward ? g_state.step_forward : installed_step_forward_general; }
StepFn grid_pick_step_back() { return g_state.step_back ? g_state.step_back : installed_step_back_general; }

void grid_point_of_indices(double point[3], const int idx[]) { grid_pick_point_of_indices()(point, idx); }
void grid_indices_of_point(const double point[3], int idx[]) { grid_pick_indices_of_point()(point, idx); }
int grid_index_of_indices(const int idx[]) { return g_state.view.index_of_indices(idx); }
void grid_indices_of_index(int idx[], int k) { g_state.view.indices_of_index(idx, k); }

void grid_point_of_index(double point[3], int k) {
    int idx[3] = {0, 0, 0};
    grid_indices_of_index(idx, k);
    grid_point_of_indices(point, idx);
}

int grid_index_of_point(const double point[3]) {
    int idx[3] = {0, 0, 0};
    grid_indices_of_point(point, idx);
    return grid_index_of_indices(idx);
}

void grid_step_forward(double point[3], int d) { grid_pick_step_forward()(point, d); }
void grid_step_back(double point[3], int d) { grid_pick_step_back()(point, d); }

}  // namespace kvx::grid
