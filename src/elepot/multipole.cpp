#include "elepot/multipole.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <unordered_map>
#include <utility>

#include "common/fatal.h"
#include "elepot/fmch.h"
#include "gauss/shell_types.h"
#include "gauss/spherical.h"

namespace kvx::elepot {

namespace {

constexpr int kMaxOrder = 12;  // two i shells
constexpr int kMaxTerms = (kMaxOrder + 1) * (kMaxOrder + 2) * (kMaxOrder + 3) / 6;
constexpr int kMaxCoef = (kMaxOrder + 1) * (kMaxOrder + 2) / 2;

struct Tuv {
    int t = 0, u = 0, v = 0;
};

struct Consts {
    Tuv tuv[kMaxTerms];
    // hc[t][nu] = t! / ((t-nu)! (2nu-t)!) 2^(2nu-t), ceil(t/2) <= nu <= t:
    //   d^t/dX^t g(X^2) = sum_nu hc[t][nu] X^(2nu-t) g^(nu)(X^2).
    double hc[kMaxOrder + 1][kMaxOrder + 1];
    // cn[n] = (-1)^n (2n-1)!! / 2^n: d^n/du^n u^(-1/2) = cn[n] u^(-n-1/2).
    double cn[kMaxOrder + 1];
};

constexpr Consts make_consts() {
    Consts K{};
    int i = 0;
    for (int k = 0; k <= kMaxOrder; ++k)
        for (int a = k; a >= 0; --a)
            for (int b = k - a; b >= 0; --b) K.tuv[i++] = {a, b, k - a - b};
    long long fact[kMaxOrder + 1] = {1};
    for (int n = 1; n <= kMaxOrder; ++n) fact[n] = n * fact[n - 1];
    for (int t = 0; t <= kMaxOrder; ++t)
        for (int nu = 0; nu <= kMaxOrder; ++nu)
            K.hc[t][nu] = 2 * nu < t || nu > t
                              ? 0.0
                              : static_cast<double>(fact[t] / (fact[t - nu] * fact[2 * nu - t]) << (2 * nu - t));
    double c = 1.0;
    for (int n = 0; n <= kMaxOrder; ++n) {
        K.cn[n] = c;
        c *= -(2.0 * n + 1.0) / 2.0;
    }
    return K;
}

constexpr Consts K = make_consts();

// Position of (t, u, v) in the order of K.tuv.
constexpr int tuv_index(int t, int u, int v) {
    const int k = t + u + v, s = k - t;
    return k * (k + 1) * (k + 2) / 6 + s * (s + 1) / 2 + (s - u);
}

// Position of (u, v) among the pairs with u + v <= L, by u + v, then v.
constexpr int uv_index(int u, int v) { return (u + v) * (u + v + 1) / 2 + v; }

// Hermite expansion coefficients of one direction, E[(i (lB+1) + j) (lab+1) + t]:
//   E^00_0 = 1, E^(i+1)j_t = E^ij_(t-1) / (2 gamma) + PA E^ij_t + (t+1) E^ij_(t+1),
// and the same with PB for j + 1.
void hermite_e(int lA, int lB, double PA, double PB, double g, double* E) {
    const int n = lA + lB + 1;
    const double h = 0.5 / g;
    auto at = [&](int i, int j) { return E + (i * (lB + 1) + j) * n; };
    std::fill(E, E + (lA + 1) * (lB + 1) * n, 0.0);
    at(0, 0)[0] = 1.0;
    for (int i = 0; i <= lA; ++i)
        for (int j = 0; j <= lB; ++j) {
            if (i == 0 && j == 0) continue;
            const double* q = j > 0 ? at(i, j - 1) : at(i - 1, 0);
            const double pq = j > 0 ? PB : PA;
            double* e = at(i, j);
            for (int t = 0; t <= i + j; ++t) {
                double v = pq * q[t];
                if (t > 0) v += h * q[t - 1];
                if (t + 1 < n) v += (t + 1) * q[t + 1];
                e[t] = v;
            }
        }
}

// The stages' loops unrolled by GCC: wholly up to order 6 (f with f), by
// sevens beyond, where whole bodies take minutes to compile under the
// sanitizers and such pairs are rare. Clang (the fuzz build) keeps loops:
// it takes a minute over the pragma and warns.
#if defined(__clang__)
#define KVX_UNROLL_STAGE
#else
#define KVX_UNROLL_STAGE _Pragma("GCC unroll 7")
#endif

// The moments at a line through (X, Y) in three stages, so that
//   sum_tuv M_tuv T_tuv(X, Y, Z) = sum_n |R|^-(2n+1) sum_e a[n][e] Z^e,
// from T_tuv = sum_nu hc[t][nux] X^(2nux-t) hc[u][nuy] Y^(2nuy-u) hc[v][nuz]
// Z^(2nuz-v) cn[nu] |R|^-(2nu+1), nu = nux + nuy + nuz (u = |R|^2, f = u^-1/2).
// The order is fixed at compile time (z_run's LT = -1 takes it from Lr).
//
// x stage: B[uv(u,v)][nux] = sum_t M_tuv hc[t][nux] X^(2nux-t).
template <int L>
void x_stage(const double* M, double X, double* B) {
    double xp[kMaxOrder + 1];
    xp[0] = 1.0;
    for (int k = 1; k <= L; ++k) xp[k] = xp[k - 1] * X;
    std::fill(B, B + (L + 1) * (L + 2) / 2 * (L + 1), 0.0);
    const int count = (L + 1) * (L + 2) * (L + 3) / 6;
    KVX_UNROLL_STAGE
    for (int i = 0; i < count; ++i) {
        const Tuv& e = K.tuv[i];
        double* b = B + uv_index(e.u, e.v) * (L + 1);
        KVX_UNROLL_STAGE
        for (int nx = (e.t + 1) / 2; nx <= e.t; ++nx) b[nx] += M[i] * K.hc[e.t][nx] * xp[2 * nx - e.t];
    }
}

// y stage: A[v][m] = sum over u, nuy, nux = m - nuy of B[uv(u,v)][nux] hc[u][nuy] Y^(2nuy-u);
// z stage: a[n(n+1)/2 + e] = sum over v, nuz with e = 2nuz - v of cn[n] hc[v][nuz] A[v][n - nuz].
template <int L>
void yz_stage(const double* B, double Y, double* a) {
    double yp[kMaxOrder + 1];
    yp[0] = 1.0;
    for (int k = 1; k <= L; ++k) yp[k] = yp[k - 1] * Y;
    double A[kMaxOrder + 1][kMaxOrder + 1];
    KVX_UNROLL_STAGE
    for (int v = 0; v <= L; ++v) KVX_UNROLL_STAGE
    for (int m = 0; m <= L - v; ++m) A[v][m] = 0.0;
    KVX_UNROLL_STAGE
    for (int s = 0; s <= L; ++s) KVX_UNROLL_STAGE
    for (int v = 0; v <= s; ++v) {
        const int u = s - v;
        const double* b = B + uv_index(u, v) * (L + 1);
        KVX_UNROLL_STAGE
        for (int ny = (u + 1) / 2; ny <= u; ++ny) {
            const double f = K.hc[u][ny] * yp[2 * ny - u];
            KVX_UNROLL_STAGE
            for (int nx = 0; nx <= L - s; ++nx) A[v][nx + ny] += b[nx] * f;
        }
        }
    std::fill(a, a + (L + 1) * (L + 2) / 2, 0.0);
    KVX_UNROLL_STAGE
    for (int v = 0; v <= L; ++v) KVX_UNROLL_STAGE
    for (int nz = (v + 1) / 2; nz <= v; ++nz) {
        const int e = 2 * nz - v;
        KVX_UNROLL_STAGE
        for (int m = 0; m <= L - v; ++m) {
            const int n = m + nz;
            a[n * (n + 1) / 2 + e] += K.cn[n] * K.hc[v][nz] * A[v][m];
        }
        }
}

// out[k] -= sum_n s^(2n+1) sum_e a[n][e] Z^e at the points z[k], k < n, of a
// line at rho = PCx^2 + PCy^2: Z = Pz - z[k] (zero-cut), s = 1/|PC|.
template <int LT>
inline __attribute__((always_inline)) void z_run(int Lr, const double* a, double Pz, double rho, const double* z, int n,
                                                 double* out) {
    const int L = LT >= 0 ? LT : Lr;
    for (int k = 0; k < n; ++k) {
        const double Z = cut_zero(Pz - z[k]);
        const double s = 1.0 / std::sqrt(rho + Z * Z);
        const double s2 = s * s;
        double pw = s, v = 0.0;
#pragma GCC unroll 13
        for (int m = 0; m <= L; ++m) {
            const double* am = a + m * (m + 1) / 2;
            double q = am[m];
#pragma GCC unroll 12
            for (int e = m - 1; e >= 0; --e) q = q * Z + am[e];
            v += pw * q;
            pw *= s2;
        }
        out[k] -= v;
    }
}

// The stages for every order up to kMaxOrder, each with its loops unrolled
// for that order (the same operations in the same order as plain loops).
using StageFn = void (*)(const double*, double, double*);
template <int... K>
constexpr std::pair<std::array<StageFn, sizeof...(K)>, std::array<StageFn, sizeof...(K)>> stage_tables(
    std::integer_sequence<int, K...>) {
    return {{&x_stage<K>...}, {&yz_stage<K>...}};
}
constexpr auto kStages = stage_tables(std::make_integer_sequence<int, kMaxOrder + 1>{});

void x_stage_any(int L, const double* M, double X, double* B) { kStages.first[static_cast<std::size_t>(L)](M, X, B); }

void yz_stage_any(int L, const double* B, double Y, double* a) { kStages.second[static_cast<std::size_t>(L)](B, Y, a); }

// An AVX2 clone beside the default one, picked when the program loads. The
// picking runs before ThreadSanitizer's runtime is up, so that build keeps
// the default alone.
#if defined(__SANITIZE_THREAD__)
#define KVX_AVX2_CLONE
#else
#define KVX_AVX2_CLONE __attribute__((target_clones("avx2", "default")))
#endif

KVX_AVX2_CLONE void z_run_any(int L, const double* a, double Pz, double rho, const double* z, int n, double* out) {
    switch (L) {
        case 0:
            return z_run<0>(0, a, Pz, rho, z, n, out);
        case 1:
            return z_run<1>(1, a, Pz, rho, z, n, out);
        case 2:
            return z_run<2>(2, a, Pz, rho, z, n, out);
        case 3:
            return z_run<3>(3, a, Pz, rho, z, n, out);
        case 4:
            return z_run<4>(4, a, Pz, rho, z, n, out);
        default:
            return z_run<-1>(L, a, Pz, rho, z, n, out);
    }
}

}  // namespace

int hermite_count(int L) { return (L + 1) * (L + 2) * (L + 3) / 6; }

double far_threshold(double gamma, int lab) {
    const double xf = fmch_switch_point(lab);
    double t = xf / gamma;
    constexpr double inf = std::numeric_limits<double>::infinity();
    while (t > 0.0 && t * gamma > xf) t = std::nextafter(t, 0.0);
    while (std::nextafter(t, inf) * gamma <= xf) t = std::nextafter(t, inf);
    return t;
}

void hermite_moments(const PairInfo& p, const PrimPair& q, const double* w, double* M) {
    const double Ac[3] = {p.A->center->x, p.A->center->y, p.A->center->z};
    const double Bc[3] = {p.B->center->x, p.B->center->y, p.B->center->z};
    const int n = p.lab + 1;
    double E[3][(6 + 1) * (6 + 1) * (kMaxOrder + 1)];
    for (int d = 0; d < 3; ++d) hermite_e(p.lA, p.lB, q.P[d] - Ac[d], q.P[d] - Bc[d], q.g, E[d]);
    const int count = hermite_count(p.lab);
    std::fill(M, M + count, 0.0);
    for (int i = 0; i < p.compA; ++i) {
        const gauss::CartExp ea = gauss::type_exponents(p.tA, i);
        for (int j = 0; j < p.compB; ++j) {
            const double wij = w[i * p.compB + j];
            if (wij == 0.0) continue;
            const gauss::CartExp eb = gauss::type_exponents(p.tB, j);
            const double* ex = E[0] + (ea.x * (p.lB + 1) + eb.x) * n;
            const double* ey = E[1] + (ea.y * (p.lB + 1) + eb.y) * n;
            const double* ez = E[2] + (ea.z * (p.lB + 1) + eb.z) * n;
            for (int t = 0; t <= ea.x + eb.x; ++t)
                for (int u = 0; u <= ea.y + eb.y; ++u) {
                    const double wxy = wij * ex[t] * ey[u];
                    for (int v = 0; v <= ea.z + eb.z; ++v) M[tuv_index(t, u, v)] += wxy * ez[v];
                }
        }
    }
    // F_0(x) -> sqrt(pi/x)/2: gamma |R|^2 = x gives sqrt(pi/gamma)/2 / |R|.
    const double f = 0.5 * std::sqrt(std::numbers::pi / q.g);
    for (int i = 0; i < count; ++i) M[i] *= f;
}

void cartesian_density(const PairInfo& p, const double* mult, double* multc) {
    const bool sphA = gauss::is_spherical(p.tA), sphB = gauss::is_spherical(p.tB);
    if (!sphA && !sphB) {
        std::copy(mult, mult + p.blocklen, multc);
        return;
    }
    // S[f][i]: spherical function f of cartesian component i (identity for a
    // cartesian shell); the block transform is S_A (x) S_B, so its transpose
    // takes the spherical weights back to cartesian ones.
    const int nfA = gauss::block_sph_count(p.tA), nfB = gauss::block_sph_count(p.tB);
    std::vector<double> SA(static_cast<std::size_t>(nfA) * p.compA), SB(static_cast<std::size_t>(nfB) * p.compB);
    std::vector<double> unit(28), col(28);
    for (int pass = 0; pass < 2; ++pass) {
        const int type = pass == 0 ? p.tA : p.tB, nc = pass == 0 ? p.compA : p.compB;
        const int nf = pass == 0 ? nfA : nfB;
        std::vector<double>& S = pass == 0 ? SA : SB;
        for (int i = 0; i < nc; ++i) {
            std::fill(unit.begin(), unit.end(), 0.0);
            unit[static_cast<std::size_t>(i)] = 1.0;
            gauss::spherical_combine(type, unit.data(), col.data());
            for (int f = 0; f < nf; ++f) S[static_cast<std::size_t>(f) * nc + i] = col[static_cast<std::size_t>(f)];
        }
    }
    for (int c = 0; c < p.nsub; ++c) {
        const double* ms = mult + static_cast<std::size_t>(c) * nfA * nfB;
        double* mc = multc + static_cast<std::size_t>(c) * p.sub;
        for (int i = 0; i < p.compA; ++i)
            for (int j = 0; j < p.compB; ++j) {
                double v = 0.0;
                for (int f = 0; f < nfA; ++f) {
                    const double sa = SA[static_cast<std::size_t>(f) * p.compA + i];
                    if (sa == 0.0) continue;
                    for (int g = 0; g < nfB; ++g)
                        v += sa * SB[static_cast<std::size_t>(g) * p.compB + j] * ms[f * nfB + g];
                }
                mc[i * p.compB + j] = v;
            }
    }
}

namespace {

// One far-capable primitive pair while the table is built.
struct FarPair {
    int centre;
    int lab;
    double t, s0;
    std::size_t moments;
};

struct KeyHash {
    std::size_t operator()(const std::array<double, 3>& k) const {
        std::size_t h = 0;
        for (double v : k) {
            std::uint64_t b;
            std::memcpy(&b, &v, sizeof b);
            h = h * 1000003u ^ static_cast<std::size_t>(b ^ (b >> 29));
        }
        return h;
    }
};

// The intervals of one centre from its pairs (in pair order): every t and
// s0 is a breakpoint; an interval holds the pairs with t <= lo and s0 >= hi.
void centre_intervals(const std::vector<FarPair>& pairs, const std::vector<int>& mine,
                      const std::vector<double>& pair_moments, FarField& far, FarCentre& c) {
    std::vector<double> bp;
    for (int k : mine) {
        bp.push_back(pairs[static_cast<std::size_t>(k)].t);
        bp.push_back(pairs[static_cast<std::size_t>(k)].s0);
    }
    std::sort(bp.begin(), bp.end());
    bp.erase(std::unique(bp.begin(), bp.end()), bp.end());
    c.first = static_cast<int>(far.intervals.size());
    for (std::size_t j = 0; j + 1 < bp.size(); ++j) {
        FarInterval iv;
        iv.lo = bp[j];
        iv.hi = bp[j + 1];
        for (int k : mine) {
            const FarPair& f = pairs[static_cast<std::size_t>(k)];
            if (f.t <= iv.lo && f.s0 >= iv.hi) {
                iv.L = std::max(iv.L, f.lab);
                ++iv.npairs;
            }
        }
        if (iv.npairs == 0) {  // a gap, kept so that the intervals meet
            far.intervals.push_back(iv);
            continue;
        }
        far.Lmax = std::max(far.Lmax, iv.L);
        iv.moments = far.moments.size();
        far.moments.resize(far.moments.size() + static_cast<std::size_t>(hermite_count(iv.L)), 0.0);
        double* M = far.moments.data() + iv.moments;
        for (int k : mine) {
            const FarPair& f = pairs[static_cast<std::size_t>(k)];
            if (!(f.t <= iv.lo && f.s0 >= iv.hi)) continue;
            const double* Mk = pair_moments.data() + f.moments;
            for (int i = 0; i < hermite_count(f.lab); ++i) M[i] += Mk[i];
        }
        far.intervals.push_back(iv);
    }
    c.hi = bp.back();
    c.count = static_cast<int>(far.intervals.size()) - c.first;
}

}  // namespace

void build_far_field(const moldata::Molecule& mol, double thresh, int maxfun, FarField& far) {
    far = FarField{};
    const int nsh = static_cast<int>(mol.shells.size());
    const long npairs = static_cast<long>(nsh) * (nsh + 1) / 2;
    const double nbas2 = static_cast<double>(mol.nbasis) * mol.nbasis;
    int maxprim = 0;
    for (const moldata::Shell& sh : mol.shells) maxprim = std::max(maxprim, sh.nprim);
    const std::size_t fun2 = static_cast<std::size_t>(maxfun) * maxfun;

    std::vector<double> mult, multc, cc, w, cca, ccb, pair_moments;
    std::vector<PrimPair> prim;
    std::vector<FarPair> pairs;
    std::vector<long> owner;                   // per centre: its owner's pair number
    std::vector<std::array<double, 3>> where;  // per centre: P
    std::unordered_map<std::array<double, 3>, int, KeyHash> index;
    common::alloc_or_die("Elepot comp_elepot: cannot allocate multipoles", [&] {
        mult.resize(fun2);
        multc.resize(fun2);
        cc.resize(fun2);
        w.resize(fun2);
        cca.resize(static_cast<std::size_t>(maxfun));
        ccb.resize(static_cast<std::size_t>(maxfun));
        prim.resize(static_cast<std::size_t>(maxprim) * maxprim);
    });

    common::alloc_or_die("Elepot comp_elepot: cannot allocate multipoles", [&] {
        long pairno = 0;
        for (int I = 0; I < nsh; ++I)
            for (int J = 0; J <= I; ++J) {
                ++pairno;
                const PairInfo p = start_pair(mol.shells.data(), *mol.density, I, J, mult.data());
                const int npp = screen_primitive_pairs(p, nbas2, thresh, prim.data());
                if (npp == 0) continue;
                cartesian_density(p, mult.data(), multc.data());
                for (int k = 0; k < npp; ++k) {
                    const PrimPair& q = prim[static_cast<std::size_t>(k)];
                    const double t = far_threshold(q.g, p.lab);
                    if (!(t < q.s0thrs)) continue;  // screened before it is ever far
                    coefficient_products(p, q.a, q.b, q.pre, cca.data(), ccb.data(), cc.data());
                    fold_weights(p, cc.data(), multc.data(), w.data());
                    const std::size_t at = pair_moments.size();
                    pair_moments.resize(at + static_cast<std::size_t>(hermite_count(p.lab)));
                    hermite_moments(p, q, w.data(), pair_moments.data() + at);
                    // +0.0 makes -0 and +0 one key; both give the same |PC|^2.
                    const std::array<double, 3> key = {q.P[0] + 0.0, q.P[1] + 0.0, q.P[2] + 0.0};
                    auto [it, fresh] = index.try_emplace(key, static_cast<int>(owner.size()));
                    if (fresh) {
                        owner.push_back(pairno);
                        where.push_back(key);
                    }
                    owner[static_cast<std::size_t>(it->second)] = pairno;
                    pairs.push_back({it->second, p.lab, t, q.s0thrs, at});
                }
            }

        // Centres by owner, in order of first appearance among equal owners.
        const std::size_t ncent = owner.size();
        std::vector<int> order(ncent);
        for (std::size_t c = 0; c < ncent; ++c) order[c] = static_cast<int>(c);
        std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
            return owner[static_cast<std::size_t>(a)] < owner[static_cast<std::size_t>(b)];
        });
        std::vector<std::vector<int>> members(ncent);
        for (std::size_t k = 0; k < pairs.size(); ++k)
            members[static_cast<std::size_t>(pairs[k].centre)].push_back(static_cast<int>(k));
        far.owned.assign(static_cast<std::size_t>(npairs) + 1, 0);
        for (int c : order) {
            FarCentre fc;
            for (int d = 0; d < 3; ++d) fc.P[d] = where[static_cast<std::size_t>(c)][static_cast<std::size_t>(d)];
            centre_intervals(pairs, members[static_cast<std::size_t>(c)], pair_moments, far, fc);
            if (fc.count == 0) continue;
            far.centres.push_back(fc);
            ++far.owned[static_cast<std::size_t>(owner[static_cast<std::size_t>(c)])];
        }
        for (long k = 1; k <= npairs; ++k)
            far.owned[static_cast<std::size_t>(k)] += far.owned[static_cast<std::size_t>(k - 1)];
    });
}

bool far_scratch(FarScratch& sc, int Lmax) {
    sc.xlen = static_cast<std::size_t>((Lmax + 1) * (Lmax + 2) / 2 * (Lmax + 1));
    sc.clen = static_cast<std::size_t>((Lmax + 1) * (Lmax + 2) / 2);
    return common::try_alloc([&] {
        sc.xstage.assign(sc.xlen * FarScratch::kSlots, 0.0);
        sc.coef.assign(sc.clen * FarScratch::kSlots, 0.0);
    });
}

namespace {

// The interval of d2 among a centre's count intervals: -1 at or below the
// first lo, count beyond the last hi. Grows with d2, so a run of points
// whose smallest and largest d2 share an interval lies wholly in it.
inline int interval_of(const FarInterval* iv, int count, double d2) {
    if (count <= 8) {
        int n = 0;
        for (int i = 0; i < count; ++i) n += d2 > iv[i].lo;
        return n == count && d2 > iv[count - 1].hi ? count : n - 1;
    }
    const FarInterval* at = std::partition_point(iv, iv + count, [d2](const FarInterval& f) { return d2 > f.lo; });
    const int n = static_cast<int>(at - iv);
    return n == count && d2 > iv[count - 1].hi ? count : n - 1;
}

// The line coefficients of interval j at (X, Y): the x stage kept per x
// line (tag xtag), the y and z stages per segment (tag ctag).
const double* line_coef(const FarField& far, const FarCentre& c, int j, double X, double Y, long xtag, long ctag,
                        FarScratch& sc) {
    const int slot = j % FarScratch::kSlots;
    double* a = sc.coef.data() + static_cast<std::size_t>(slot) * sc.clen;
    if (sc.ctag[slot] == ctag && sc.cj[slot] == j) return a;
    const FarInterval& f = far.intervals[static_cast<std::size_t>(c.first + j)];
    double* B = sc.xstage.data() + static_cast<std::size_t>(slot) * sc.xlen;
    if (sc.xtag[slot] != xtag || sc.xj[slot] != j) {
        x_stage_any(f.L, far.moments.data() + f.moments, X, B);
        sc.xtag[slot] = xtag;
        sc.xj[slot] = j;
    }
    yz_stage_any(f.L, B, Y, a);
    sc.ctag[slot] = ctag;
    sc.cj[slot] = j;
    return a;
}

}  // namespace

namespace {

// One line of points for one centre: what far_centre's steps share. Points
// are indexed by k, at z[k] and out[k]; only those within the segments are
// evaluated (a lattice line's segments are its runs of admitted points).
struct FarLine {
    const FarField& far;
    const FarCentre& c;
    const FarInterval* iv;
    double X, Y, rho;
    long xtag, ctag;
    const double* z;
    double* out;
    FarScratch& sc;
    const Segment* segs;
    std::size_t nseg;
    long evals = 0;

    double d2(int k) const {
        const double Z = cut_zero(c.P[2] - z[k]);
        return rho + Z * Z;
    }
    // Points [a, b), all in interval j.
    void run(int j, int a, int b) {
        if (b <= a || j < 0 || j >= c.count || iv[j].npairs == 0) return;
        const double* coef = nullptr;
        for (std::size_t s = 0; s < nseg; ++s) {
            const int lo = std::max(a, segs[s].k0), hi = std::min(b, segs[s].k1);
            if (hi <= lo) continue;
            if (!coef) coef = line_coef(far, c, j, X, Y, xtag, ctag, sc);
            z_run_any(iv[j].L, coef, c.P[2], rho, z + lo, hi - lo, out + lo);
            evals += static_cast<long>(hi - lo) * iv[j].npairs;
        }
    }
};

// Points [a, b) of a line along which d2 never falls (rising) or never
// rises: the points of each interval are one run, found by bisection.
void monotone_side(FarLine& f, int a, int b, bool rising) {
    if (b <= a) return;
    const double first = f.d2(a), last = f.d2(b - 1);
    const int j0 = interval_of(f.iv, f.c.count, rising ? first : last);
    const int j1 = interval_of(f.iv, f.c.count, rising ? last : first);
    if (j0 == j1) return f.run(j0, a, b);
    auto from = [&](double x) {  // first point beyond d2 = x going outwards
        int lo = a, hi = b;
        while (lo < hi) {
            const int mid = lo + (hi - lo) / 2;
            if ((f.d2(mid) > x) == rising)
                hi = mid;
            else
                lo = mid + 1;
        }
        return lo;
    };
    // Intervals meet (one's hi is the next one's lo): each boundary once.
    const int jlo = std::max(j0, 0), jhi = std::min(j1, f.c.count - 1);
    int e1 = jlo <= jhi ? from(f.iv[jlo].lo) : 0;
    for (int j = jlo; j <= jhi; ++j) {
        const int e2 = from(f.iv[j].hi);
        if (rising)
            f.run(j, e1, e2);
        else
            f.run(j, e2, e1);
        e1 = e2;
    }
}

// Points [0, n) of a line in any order: each point's interval, then runs.
void any_order(FarLine& f, int n) {
    FarScratch& sc = f.sc;
    for (int k0 = 0; k0 < n; k0 += FarScratch::kChunk) {
        const int m = std::min(FarScratch::kChunk, n - k0);
        for (int k = 0; k < m; ++k) sc.cls[k] = interval_of(f.iv, f.c.count, f.d2(k0 + k));
        for (int k = 0; k < m;) {
            int e = k + 1;
            while (e < m && sc.cls[e] == sc.cls[k]) ++e;
            f.run(sc.cls[k], k0 + k, k0 + e);
            k = e;
        }
    }
}

}  // namespace

long far_centre(const FarField& far, const FarCentre& c, const PointLines& lines, const Segment* segs, std::size_t nseg,
                double* out, FarScratch& sc) {
    const FarInterval* iv = far.intervals.data() + c.first;
    long evals = 0;
    int ix = -1;
    double X = 0.0, px2 = 0.0;
    long xtag = 0;
    const double* zl = lines.z.data();
    // A lattice shares one z axis among its lines: mz, the first z line at or
    // beyond P (z rising, else falling), splits every line where d2 stops
    // falling and starts rising.
    int mz = 0;
    if (lines.z_monotone && !lines.z.empty()) {
        const int nz = static_cast<int>(lines.z.size());
        const bool up = zl[nz - 1] >= zl[0];
        int lo = 0, hi = nz;
        while (lo < hi) {
            const int mid = lo + (hi - lo) / 2;
            if (up ? zl[mid] < c.P[2] : zl[mid] > c.P[2])
                lo = mid + 1;
            else
                hi = mid;
        }
        mz = lo;
    }
    for (std::size_t s = 0; s < nseg;) {
        const Segment& sg = segs[s];
        // The segments of sg's z line: one on a list, every run of admitted
        // points of the line on a lattice (they follow each other).
        std::size_t e = s + 1;
        if (lines.z_monotone)
            while (e < nseg && segs[e].ix == sg.ix && segs[e].iy == sg.iy) ++e;
        const std::size_t first = s;
        s = e;
        if (sg.ix != ix) {
            ix = sg.ix;
            X = cut_zero(c.P[0] - lines.x[static_cast<std::size_t>(ix)]);
            px2 = X * X;
            xtag = ++sc.tag;
        }
        if (px2 > c.hi) continue;  // |PC|^2 >= px2: screened all along
        const double Y = cut_zero(c.P[1] - lines.y[static_cast<std::size_t>(sg.iy)]);
        const double rho = px2 + Y * Y;
        if (rho > c.hi) continue;
        if (lines.z_monotone) {
            // Lattice point p of line k lies at out[p - k0 + k]: one pass over
            // the line, whatever its admitted runs.
            FarLine f{far, c, iv, X, Y, rho, xtag, ++sc.tag, zl, out + (sg.p - sg.k0), sc, segs + first, e - first};
            const int k0 = sg.k0, k1 = segs[e - 1].k1;
            const int m = std::clamp(mz, k0, k1);
            // d2 is least at m - 1 or m and greatest at an end: when both
            // extremes share an interval, so does the whole line.
            const double lo = std::min(m > k0 ? f.d2(m - 1) : f.d2(m), m < k1 ? f.d2(m) : f.d2(m - 1));
            const double hi = std::max(f.d2(k0), f.d2(k1 - 1));
            const int j = interval_of(iv, c.count, lo);
            if (j == interval_of(iv, c.count, hi)) {
                f.run(j, k0, k1);
            } else {
                monotone_side(f, k0, m, false);
                monotone_side(f, m, k1, true);
            }
            evals += f.evals;
        } else {
            const int n = sg.k1 - sg.k0;
            const Segment whole{sg.ix, sg.iy, 0, n, sg.p};
            FarLine f{far, c, iv, X, Y, rho, xtag, ++sc.tag, zl + sg.k0, out + sg.p, sc, &whole, 1};
            any_order(f, n);
            evals += f.evals;
        }
    }
    return evals;
}

}  // namespace kvx::elepot
