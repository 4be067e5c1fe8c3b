#include "chelp/esp_points.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "moldata/symbols.h"

namespace kvx::chelp {

namespace {

// Breneman and Wiberg (1990) radii, angstrom, Z = 1..18: H 1.45, C 1.5, N
// and O 1.7 from the paper; He 1.45, Li-B 1.5, F-Ne 1.7 and Na-Ar 2.0 as the
// method is used with them.
constexpr double kBrenemanWiberg[19] = {0.0, 1.45, 1.45, 1.5, 1.5, 1.5, 1.5, 1.7, 1.7, 1.7,
                                        1.7, 2.0,  2.0,  2.0, 2.0, 2.0, 2.0, 2.0, 2.0};

struct Tabled {
    int Z;
    double r;
};

// Singh and Kollman (1984), angstrom.
constexpr Tabled kMerzKollman[] = {{1, 1.2}, {6, 1.5}, {7, 1.5}, {8, 1.4}, {9, 1.35}, {15, 1.8}, {16, 1.75}, {17, 1.7}};

// Bondi (1964), angstrom: the elements of his table.
constexpr Tabled kBondi[] = {{1, 1.20},  {2, 1.40},  {3, 1.82},  {6, 1.70},  {7, 1.55},  {8, 1.52},  {9, 1.47},
                             {10, 1.54}, {11, 2.27}, {12, 1.73}, {14, 2.10}, {15, 1.80}, {16, 1.80}, {17, 1.75},
                             {18, 1.88}, {19, 2.75}, {28, 1.63}, {29, 1.40}, {30, 1.39}, {31, 1.87}, {33, 1.85},
                             {34, 1.90}, {35, 1.85}, {36, 2.02}, {46, 1.63}, {47, 1.72}, {48, 1.58}, {49, 1.93},
                             {50, 2.17}, {52, 2.06}, {53, 1.98}, {54, 2.16}, {78, 1.72}, {79, 1.66}, {80, 1.55},
                             {81, 1.96}, {82, 2.02}, {92, 1.86}};

template <std::size_t N>
double lookup(const Tabled (&table)[N], int Z) {
    for (const Tabled& t : table)
        if (t.Z == Z) return t.r;
    return 0.0;
}

double distance2(const double r[3], const moldata::Atom& a) {
    const double dx = r[0] - a.x, dy = r[1] - a.y, dz = r[2] - a.z;
    return dx * dx + dy * dy + dz * dz;
}

}  // namespace

double breneman_wiberg_radius(int Z) { return Z >= 1 && Z <= 18 ? kBrenemanWiberg[Z] : 0.0; }
double merz_kollman_radius(int Z) { return lookup(kMerzKollman, Z); }
double bondi_radius(int Z) { return lookup(kBondi, Z); }

AtomRadii atom_radii(const std::vector<moldata::Atom>& atoms, PointModel model,
                     const std::vector<RadiusOverride>& overrides) {
    AtomRadii out;
    const bool chelpg = model == PointModel::kChelpg;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        const int Z = atoms[i].atomic_number;
        double r = 0.0;
        std::string source;
        for (const RadiusOverride& o : overrides)
            if (o.Z == Z) r = o.angstrom, source = "-radius";
        if (r <= 0.0) {
            r = chelpg ? breneman_wiberg_radius(Z) : merz_kollman_radius(Z);
            source = chelpg ? "Breneman-Wiberg 1990" : "Singh-Kollman 1984";
        }
        if (r <= 0.0) r = bondi_radius(Z), source = "Bondi 1964";
        if (r <= 0.0) {
            char msg[160];
            std::snprintf(msg, sizeof msg, "atom %zu (%s) has no %s radius: give one with -radius %s R (angstrom)",
                          i + 1, atoms[i].symbol.c_str(), chelpg ? "CHELPG" : "Merz-Kollman",
                          Z >= 1 && Z < moldata::kNumSymbols ? moldata::element_symbol(Z).c_str() : "SYMBOL");
            out.error = msg;
            return out;
        }
        out.angstrom.push_back(r);
        out.source.push_back(source);
    }
    return out;
}

PointSet chelpg_points(const std::vector<moldata::Atom>& atoms, const std::vector<double>& radii, double spacing,
                       double extent) {
    PointSet ps;
    if (atoms.empty() || !(spacing > 0.0) || !(extent > 0.0)) return ps;
    double lo[3] = {atoms[0].x, atoms[0].y, atoms[0].z}, hi[3] = {lo[0], lo[1], lo[2]};
    for (const moldata::Atom& a : atoms) {
        const double c[3] = {a.x, a.y, a.z};
        for (int d = 0; d < 3; ++d) lo[d] = std::min(lo[d], c[d]), hi[d] = std::max(hi[d], c[d]);
    }
    long n[3];
    double start[3];
    for (int d = 0; d < 3; ++d) {
        const double len = hi[d] - lo[d] + 2.0 * extent;
        n[d] = static_cast<long>(std::floor(len / spacing + 1e-9)) + 1;
        start[d] = lo[d] - extent + 0.5 * (len - static_cast<double>(n[d] - 1) * spacing);
    }
    ps.candidates = n[0] * n[1] * n[2];
    const double extent2 = extent * extent;
    for (long i = 0; i < n[0]; ++i)
        for (long j = 0; j < n[1]; ++j)
            for (long k = 0; k < n[2]; ++k) {
                const double r[3] = {start[0] + static_cast<double>(i) * spacing,
                                     start[1] + static_cast<double>(j) * spacing,
                                     start[2] + static_cast<double>(k) * spacing};
                bool inside = false, near = false;
                for (std::size_t a = 0; a < atoms.size() && !inside; ++a) {
                    const double d2 = distance2(r, atoms[a]);
                    inside = d2 < radii[a] * radii[a];
                    near = near || d2 <= extent2;
                }
                if (!inside && near) ps.xyz.insert(ps.xyz.end(), r, r + 3);
            }
    return ps;
}

PointSet merz_kollman_points(const std::vector<moldata::Atom>& atoms, const std::vector<double>& radii,
                             const std::vector<double>& scales, double density) {
    PointSet ps;
    constexpr double pi = std::numbers::pi;
    for (double s : scales)
        for (std::size_t a = 0; a < atoms.size(); ++a) {
            const double r = s * radii[a];
            // n points on the sphere: sqrt(pi n) on the equator, half as many
            // latitude circles, each with points in proportion to its length.
            const double n = density * 4.0 * pi * r * r;
            const int nequat = static_cast<int>(std::sqrt(pi * n));
            const int nlat = nequat / 2;
            for (int i = 0; i <= nlat; ++i) {
                const double theta = nlat > 0 ? pi * i / nlat : 0.0;
                const double z = std::cos(theta), xy = std::sin(theta);
                const int nlon = std::max(1, static_cast<int>(nequat * xy));
                for (int j = 0; j < nlon; ++j) {
                    const double phi = 2.0 * pi * j / nlon;
                    const double p[3] = {atoms[a].x + r * xy * std::cos(phi), atoms[a].y + r * xy * std::sin(phi),
                                         atoms[a].z + r * z};
                    ++ps.candidates;
                    bool inside = false;
                    for (std::size_t b = 0; b < atoms.size() && !inside; ++b) {
                        if (b == a) continue;
                        const double rb = s * radii[b];
                        inside = distance2(p, atoms[b]) < rb * rb;
                    }
                    if (!inside) ps.xyz.insert(ps.xyz.end(), p, p + 3);
                }
                if (nlat == 0) break;
            }
        }
    return ps;
}

}  // namespace kvx::chelp
