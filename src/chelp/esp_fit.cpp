#include "chelp/esp_fit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

extern "C" void dgesv_(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b, const int* ldb,
                       int* info);

namespace kvx::chelp {

NormalEquations normal_equations(const FitData& data, const std::vector<moldata::Atom>& atoms) {
    NormalEquations ne;
    const int n = static_cast<int>(atoms.size());
    ne.n = n;
    ne.A.assign(static_cast<std::size_t>(n) * n, 0.0);
    ne.B.assign(static_cast<std::size_t>(n), 0.0);
    std::vector<double> inv(static_cast<std::size_t>(n));
    for (long k = 0; k < data.count(); ++k) {
        const double* r = &data.xyz[3 * static_cast<std::size_t>(k)];
        for (int i = 0; i < n; ++i) {
            const double dx = r[0] - atoms[i].x, dy = r[1] - atoms[i].y, dz = r[2] - atoms[i].z;
            inv[i] = 1.0 / std::sqrt(dx * dx + dy * dy + dz * dz);
        }
        const double vk = data.v[k];
        for (int i = 0; i < n; ++i) {
            double* row = &ne.A[static_cast<std::size_t>(i) * n];
            for (int j = 0; j <= i; ++j) row[j] += inv[i] * inv[j];
            ne.B[i] += vk * inv[i];
        }
        ne.vv += vk * vk;
    }
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < i; ++j)
            ne.A[static_cast<std::size_t>(j) * n + i] = ne.A[static_cast<std::size_t>(i) * n + j];
    return ne;
}

void fit_errors(const FitData& data, const std::vector<moldata::Atom>& atoms, const std::vector<double>& q, double& rms,
                double& rrms) {
    double ss = 0.0, vv = 0.0;
    for (long k = 0; k < data.count(); ++k) {
        const double* r = &data.xyz[3 * static_cast<std::size_t>(k)];
        double f = 0.0;
        for (std::size_t i = 0; i < atoms.size(); ++i) {
            const double dx = r[0] - atoms[i].x, dy = r[1] - atoms[i].y, dz = r[2] - atoms[i].z;
            f += q[i] / std::sqrt(dx * dx + dy * dy + dz * dz);
        }
        const double d = data.v[k] - f;
        ss += d * d;
        vv += data.v[k] * data.v[k];
    }
    rms = data.count() > 0 ? std::sqrt(ss / static_cast<double>(data.count())) : 0.0;
    rrms = vv > 0.0 ? std::sqrt(ss / vv) : 0.0;
}

namespace {

// The variables: per group its atoms.
struct Groups {
    std::vector<std::vector<int>> atoms;
    std::vector<int> of_atom;  // group of each atom, -1 fixed
};

Groups make_groups(const FitSpec& want, int n) {
    Groups g;
    g.of_atom.assign(static_cast<std::size_t>(n), -1);
    if (want.group.empty()) {
        for (int i = 0; i < n; ++i) g.of_atom[i] = i, g.atoms.push_back({i});
        return g;
    }
    int ng = 0;
    for (int x : want.group) ng = std::max(ng, x + 1);
    g.atoms.resize(static_cast<std::size_t>(ng));
    for (int i = 0; i < n; ++i) {
        g.of_atom[i] = want.group[i];
        if (want.group[i] >= 0) g.atoms[want.group[i]].push_back(i);
    }
    // Group numbers that no atom carries would make the system singular.
    g.atoms.erase(std::remove_if(g.atoms.begin(), g.atoms.end(), [](const auto& v) { return v.empty(); }),
                  g.atoms.end());
    for (std::size_t v = 0; v < g.atoms.size(); ++v)
        for (int i : g.atoms[v]) g.of_atom[i] = static_cast<int>(v);
    return g;
}

// Orthonormalises the constraint rows C (nc x nv) and their values c in
// place (Gram-Schmidt), dropping a row that depends on the earlier ones: a
// dipole component the atoms cannot carry (perpendicular to a planar
// molecule, across a linear one), which holds by itself. Returns the rows kept.
int independent_constraints(std::vector<double>& C, std::vector<double>& c, int nv, int nc) {
    int kept = 0;
    for (int d = 0; d < nc; ++d) {
        double* row = &C[static_cast<std::size_t>(d) * nv];
        double norm0 = 0.0;
        for (int v = 0; v < nv; ++v) norm0 += row[v] * row[v];
        double value = c[d];
        for (int e = 0; e < kept; ++e) {
            const double* u = &C[static_cast<std::size_t>(e) * nv];
            double dot = 0.0;
            for (int v = 0; v < nv; ++v) dot += u[v] * row[v];
            for (int v = 0; v < nv; ++v) row[v] -= dot * u[v];
            value -= dot * c[e];
        }
        double norm = 0.0;
        for (int v = 0; v < nv; ++v) norm += row[v] * row[v];
        if (!(norm > 1e-20 * std::max(norm0, 1.0))) continue;
        norm = std::sqrt(norm);
        double* dst = &C[static_cast<std::size_t>(kept) * nv];
        for (int v = 0; v < nv; ++v) dst[v] = row[v] / norm;
        c[kept++] = value / norm;
    }
    return kept;
}

}  // namespace

FitResult fit_charges(const NormalEquations& ne, const FitData& data, const std::vector<moldata::Atom>& atoms,
                      const FitSpec& want) {
    FitResult res;
    const int n = ne.n;
    const Groups g = make_groups(want, n);
    const int nv = static_cast<int>(g.atoms.size());
    res.q.assign(static_cast<std::size_t>(n), 0.0);
    for (int i = 0; i < n; ++i)
        if (g.of_atom[i] < 0) res.q[i] = want.fixed.empty() ? 0.0 : want.fixed[i];
    if (data.count() == 0) {
        res.error = "no fitting points";
        return res;
    }
    if (data.count() < nv) {
        char msg[120];
        std::snprintf(msg, sizeof msg, "singular system: %ld points for %d charges", data.count(), nv);
        res.error = msg;
        return res;
    }

    // Reduced system over the variables: A_g = G^T A G, B_g = G^T (B - A f).
    std::vector<double> Ag(static_cast<std::size_t>(nv) * nv, 0.0), Bg(static_cast<std::size_t>(nv), 0.0);
    for (int v = 0; v < nv; ++v) {
        for (int i : g.atoms[v]) {
            double b = ne.B[i];
            for (int j = 0; j < n; ++j) {
                const double aij = ne.A[static_cast<std::size_t>(i) * n + j];
                if (g.of_atom[j] < 0)
                    b -= aij * res.q[j];
                else
                    Ag[static_cast<std::size_t>(v) * nv + g.of_atom[j]] += aij;
            }
            Bg[v] += b;
        }
    }
    // Constraint rows: total charge, then the dipole components.
    int nc = want.dipole ? 4 : 1;
    std::vector<double> C(static_cast<std::size_t>(nc) * nv, 0.0), c(static_cast<std::size_t>(nc), 0.0);
    c[0] = want.total_charge;
    for (int d = 1; d < nc; ++d) c[d] = want.dipole_target[d - 1];
    for (int i = 0; i < n; ++i) {
        const double R[3] = {atoms[i].x, atoms[i].y, atoms[i].z};
        const int v = g.of_atom[i];
        if (v < 0) {
            c[0] -= res.q[i];
            for (int d = 1; d < nc; ++d) c[d] -= res.q[i] * R[d - 1];
        } else {
            C[v] += 1.0;
            for (int d = 1; d < nc; ++d) C[static_cast<std::size_t>(d) * nv + v] += R[d - 1];
        }
    }
    nc = independent_constraints(C, c, nv, nc);
    // Restraint weight of each variable: the sum over its atoms.
    std::vector<double> av(static_cast<std::size_t>(nv), 0.0);
    bool restrained = false;
    if (!want.a.empty())
        for (int v = 0; v < nv; ++v)
            for (int i : g.atoms[v]) av[v] += want.a[i], restrained = restrained || want.a[i] > 0.0;

    const int N = nv + nc;
    std::vector<double> M(static_cast<std::size_t>(N) * N), rhs(static_cast<std::size_t>(N));
    std::vector<int> ipiv(static_cast<std::size_t>(N));
    std::vector<double> qv(static_cast<std::size_t>(nv), 0.0);
    const int max_iter = restrained ? std::max(1, want.max_iterations) : 1;
    bool converged = !restrained;
    for (int it = 0; it < max_iter; ++it) {
        // Column-major for dgesv; the system is symmetric.
        std::fill(M.begin(), M.end(), 0.0);
        for (int v = 0; v < nv; ++v) {
            for (int w = 0; w < nv; ++w)
                M[static_cast<std::size_t>(w) * N + v] = Ag[static_cast<std::size_t>(v) * nv + w];
            if (av[v] > 0.0)
                M[static_cast<std::size_t>(v) * N + v] += av[v] / std::sqrt(qv[v] * qv[v] + want.b * want.b);
            rhs[v] = Bg[v];
        }
        for (int d = 0; d < nc; ++d) {
            for (int v = 0; v < nv; ++v) {
                const double x = C[static_cast<std::size_t>(d) * nv + v];
                M[static_cast<std::size_t>(nv + d) * N + v] = x;
                M[static_cast<std::size_t>(v) * N + nv + d] = x;
            }
            rhs[nv + d] = c[d];
        }
        int info = 0, one = 1;
        dgesv_(&N, &one, M.data(), &N, ipiv.data(), rhs.data(), &N, &info);
        bool finite = info == 0;
        for (int v = 0; v < nv && finite; ++v) finite = std::isfinite(rhs[v]);
        if (!finite) {
            res.error = info > 0 ? "singular system: the points do not determine the charges (LAPACK dgesv info " +
                                       std::to_string(info) + ")"
                                 : "singular system: the solution is not finite";
            return res;
        }
        double change = 0.0;
        for (int v = 0; v < nv; ++v) change = std::max(change, std::fabs(rhs[v] - qv[v]));
        std::copy(rhs.begin(), rhs.begin() + nv, qv.begin());
        res.iterations = it + 1;
        if (restrained && it > 0 && change < want.tolerance) {
            converged = true;
            break;
        }
    }
    if (!converged) {
        res.error = "restrained fit did not converge in " + std::to_string(max_iter) + " iterations";
        return res;
    }
    for (int i = 0; i < n; ++i)
        if (g.of_atom[i] >= 0) res.q[i] = qv[g.of_atom[i]];
    fit_errors(data, atoms, res.q, res.rms, res.rrms);
    return res;
}

}  // namespace kvx::chelp
