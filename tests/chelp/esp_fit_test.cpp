// The ESP fit, the RESP stages and the point sets, apart from the potential
// code: molecules of point charges (exact answers) and NWChem's own fits on
// its own points and potential (tests/data/charges).
#include "chelp/esp_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <numbers>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "chelp/charges.h"
#include "chelp/esp_points.h"
#include "chelp/resp.h"
#include "common/reference_table.h"

namespace kvx::chelp {
namespace {

moldata::Atom atom(int Z, double x, double y, double z, const char* sym = "X") {
    moldata::Atom a;
    a.symbol = sym, a.atomic_number = Z, a.x = x, a.y = y, a.z = z, a.nuclear_charge = Z;
    return a;
}

// The job's atoms as psi4 wrote them into the Molden file (bohr).
std::vector<moldata::Atom> molden_atoms(const std::string& name) {
    std::ifstream in(std::string(KVX_TEST_DATA) + "/charges/" + name + ".molden");
    std::vector<moldata::Atom> atoms;
    bool in_atoms = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("[")) {
            in_atoms = line.starts_with("[Atoms]");
            continue;
        }
        if (!in_atoms) continue;
        std::istringstream ss(line);
        std::string sym;
        int idx = 0, Z = 0;
        double x, y, z;
        if (ss >> sym >> idx >> Z >> x >> y >> z) atoms.push_back(atom(Z, x, y, z, "A"));
    }
    return atoms;
}

// Potential of point charges q at the atoms.
FitData point_charge_data(const std::vector<moldata::Atom>& atoms, const std::vector<double>& q,
                          const std::vector<double>& xyz) {
    FitData d;
    d.xyz = xyz;
    for (std::size_t k = 0; k < xyz.size() / 3; ++k) {
        double v = 0.0;
        for (std::size_t i = 0; i < atoms.size(); ++i)
            v += q[i] / std::hypot(xyz[3 * k] - atoms[i].x, xyz[3 * k + 1] - atoms[i].y, xyz[3 * k + 2] - atoms[i].z);
        d.v.push_back(v);
    }
    return d;
}

std::vector<double> bohr(const AtomRadii& r) {
    std::vector<double> out;
    for (double a : r.angstrom) out.push_back(a * kBohrPerAngstrom);
    return out;
}

// NWChem's fitting points and potential, and its charges per label.
struct NwchemFit {
    FitData data;
    std::vector<std::vector<double>> charges;  // chelpg, grid_esp, grid_resp1, grid_resp2
    std::vector<long> points;
};

NwchemFit nwchem(const std::string& name) {
    NwchemFit f;
    const test::ReferenceTable t =
        test::read_reference_table(std::string(KVX_TEST_DATA) + "/charges/" + name + ".nwgrid");
    for (const auto& row : t.rows) {
        f.data.xyz.insert(f.data.xyz.end(), row.begin(), row.begin() + 3);
        f.data.v.push_back(row[3]);
    }
    std::ifstream in(std::string(KVX_TEST_DATA) + "/charges/" + name + ".nwchem");
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#' || line.starts_with("fit ")) continue;
        std::istringstream ss(line);
        std::string label;
        long n = 0;
        ss >> label >> n;
        f.points.push_back(n);
        f.charges.emplace_back();
        for (double q; ss >> q;) f.charges.back().push_back(q);
    }
    return f;
}

// NWChem's esp module on its own points and potential: its unrestrained fit,
// its restrained fit (hyperbolic, a = 0.0005, b = 0.1, hydrogens free) and
// its second stage, which refits the sp3 carbons and their hydrogens with
// a = 0.002 (its choice; the published second-stage weight is 0.001). The
// charges are printed with six decimals and the potential with ten.
TEST(EspFit, MatchesNwchemOnItsOwnPoints) {
    for (const char* name : {"water_sto3g", "methanol", "chloromethane"}) {
        SCOPED_TRACE(name);
        const auto atoms = molden_atoms(name);
        const NwchemFit nw = nwchem(name);
        ASSERT_EQ(nw.charges.size(), 4u);
        ASSERT_EQ(nw.data.count(), nw.points[1]);
        const NormalEquations ne = normal_equations(nw.data, atoms);
        const FitResult esp = fit_charges(ne, nw.data, atoms, FitSpec{});
        RespSettings rs;
        rs.a2 = 0.002;
        const RespResult resp = resp_fit(ne, nw.data, atoms, FitSpec{}, rs);
        ASSERT_TRUE(esp.error.empty() && resp.stage2.error.empty());
        double sum = 0.0;
        for (std::size_t i = 0; i < atoms.size(); ++i) {
            EXPECT_NEAR(esp.q[i], nw.charges[1][i], 2e-6) << "atom " << i;
            EXPECT_NEAR(resp.stage1.q[i], nw.charges[2][i], 2e-6) << "atom " << i;
            EXPECT_NEAR(resp.stage2.q[i], nw.charges[3][i], 2e-6) << "atom " << i;
            sum += resp.stage2.q[i];
        }
        EXPECT_NEAR(sum, 0.0, 1e-12);
        EXPECT_GT(resp.stage1.iterations, 2);
    }
}

// A molecule made of point charges: the fit on any point set recovers them
// exactly, with or without the dipole constraint, grouped or fixed charges
// consistent with them, and a restraint of weight zero.
TEST(EspFit, RecoversPointCharges) {
    const std::vector<moldata::Atom> atoms = {atom(8, 0.1, -0.2, 0.3), atom(6, 2.4, 0.5, -0.1),
                                              atom(1, -1.0, 1.3, 0.8), atom(1, 3.1, 2.2, 0.4),
                                              atom(1, 3.0, -1.2, 0.9), atom(17, 1.9, 0.1, -3.3)};
    const std::vector<double> q = {-0.61, 0.27, 0.38, 0.11, 0.11, -0.26};  // total 0
    for (PointModel model : {PointModel::kChelpg, PointModel::kMerzKollman}) {
        const AtomRadii radii = atom_radii(atoms, model, {});
        ASSERT_TRUE(radii.error.empty());
        const PointSet ps = model == PointModel::kChelpg
                                ? chelpg_points(atoms, bohr(radii), 0.3 * kBohrPerAngstrom, 2.8 * kBohrPerAngstrom)
                                : merz_kollman_points(atoms, bohr(radii), {1.4, 1.6, 1.8, 2.0},
                                                      1.0 / (kBohrPerAngstrom * kBohrPerAngstrom));
        const FitData data = point_charge_data(atoms, q, ps.xyz);
        const NormalEquations ne = normal_equations(data, atoms);

        FitSpec plain, dip, grouped, zero;
        dip.dipole = true;
        for (std::size_t i = 0; i < atoms.size(); ++i)
            for (int d = 0; d < 3; ++d)
                dip.dipole_target[d] += q[i] * (d == 0 ? atoms[i].x : d == 1 ? atoms[i].y : atoms[i].z);
        grouped.group = {-1, 0, 1, 2, 2, -1};  // the two hydrogens of charge 0.11 share one
        grouped.fixed = q;
        zero.a.assign(atoms.size(), 0.0);
        for (const FitSpec* want : {&plain, &dip, &grouped, &zero}) {
            const FitResult r = fit_charges(ne, data, atoms, *want);
            ASSERT_TRUE(r.error.empty()) << r.error;
            for (std::size_t i = 0; i < atoms.size(); ++i) EXPECT_NEAR(r.q[i], q[i], 1e-9);
            EXPECT_LT(r.rms, 1e-11);
            EXPECT_LT(r.rrms, 1e-9);
        }
        // Charges that do not add up to the molecule's: the fit obeys the constraint.
        FitSpec ion;
        ion.total_charge = 1.0;
        const FitResult r = fit_charges(ne, data, atoms, ion);
        double sum = 0.0;
        for (double x : r.q) sum += x;
        EXPECT_NEAR(sum, 1.0, 1e-12);
        EXPECT_GT(r.rms, 1e-4);
    }
}

// RESP with zero restraint in both stages: stage one is the unrestrained
// fit; stage two, with the hydrogens of each group equal, is the fit with
// those charges equal and nothing else changed when they are equal anyway.
TEST(EspFit, RespWithoutRestraintIsTheUnrestrainedFit) {
    const auto atoms = molden_atoms("methanol");
    const NwchemFit nw = nwchem("methanol");
    const NormalEquations ne = normal_equations(nw.data, atoms);
    const FitResult mk = fit_charges(ne, nw.data, atoms, FitSpec{});
    RespSettings rs;
    rs.a1 = rs.a2 = 0.0;
    const RespResult resp = resp_fit(ne, nw.data, atoms, FitSpec{}, rs);
    for (std::size_t i = 0; i < atoms.size(); ++i) EXPECT_NEAR(resp.stage1.q[i], mk.q[i], 1e-12);
    EXPECT_EQ(resp.stage1.iterations, 1);
    // Stage two: the three methyl hydrogens share one charge, the carbon
    // is refitted, O and the hydroxyl hydrogen keep their stage-one values.
    EXPECT_EQ(resp.refit, (std::vector<int>{0, -1, 1, 1, 1, -1}));
    EXPECT_DOUBLE_EQ(resp.stage2.q[1], mk.q[1]);
    EXPECT_DOUBLE_EQ(resp.stage2.q[5], mk.q[5]);
    EXPECT_EQ(resp.stage2.q[2], resp.stage2.q[3]);
    EXPECT_EQ(resp.stage2.q[2], resp.stage2.q[4]);
    FitSpec same;
    same.group = {0, -1, 1, 1, 1, -1};
    same.fixed = mk.q;
    const FitResult ref = fit_charges(ne, nw.data, atoms, same);
    for (std::size_t i = 0; i < atoms.size(); ++i) EXPECT_NEAR(resp.stage2.q[i], ref.q[i], 1e-12);
}

// Stage-two groups on the dipeptide: both methyl groups of the acetyl and
// N-methyl ends and the alanine methyl are shared, the alpha carbon and its
// hydrogen refitted, carbonyl carbons, N, O and NH hydrogens held.
TEST(EspFit, RespStageTwoFindsSp3CarbonsAndTheirHydrogens) {
    const auto atoms = molden_atoms("dipeptide");
    ASSERT_EQ(atoms.size(), 22u);
    const std::vector<int> g = stage_two_groups(atoms);
    // Atoms (1-based): C1 methyl (H11-13), C2=O3, N4-H14, C5 alpha (H15),
    // C6 methyl (H16-18), C7=O8, N9-H19, C10 methyl (H20-22).
    const auto same = [&](std::initializer_list<int> ids) {
        for (int i : ids) EXPECT_EQ(g[i - 1], g[*ids.begin() - 1]) << "atom " << i;
    };
    for (int held : {2, 3, 4, 7, 8, 9, 14, 19}) EXPECT_EQ(g[held - 1], -1) << "atom " << held;
    for (int c : {1, 5, 6, 10}) EXPECT_GE(g[c - 1], 0) << "atom " << c;
    same({11, 12, 13});
    same({16, 17, 18});
    same({20, 21, 22});
    EXPECT_GE(g[15 - 1], 0);
    EXPECT_NE(g[15 - 1], g[5 - 1]);
    EXPECT_NE(g[11 - 1], g[1 - 1]);
}

// Points: the CHELPG lattice and the Merz-Kollman shells against their
// definitions, counted by brute force.
TEST(EspPoints, ChelpgAndMerzKollmanDefinitions) {
    const std::vector<moldata::Atom> atoms = molden_atoms("methanol");
    const AtomRadii cr = atom_radii(atoms, PointModel::kChelpg, {});
    EXPECT_EQ(cr.angstrom, (std::vector<double>{1.5, 1.7, 1.45, 1.45, 1.45, 1.45}));
    const double h = 0.3 * kBohrPerAngstrom, ext = 2.8 * kBohrPerAngstrom;
    const PointSet c = chelpg_points(atoms, bohr(cr), h, ext);
    // Brute force over a lattice through the first point, wider than the box.
    long expected = 0;
    const double* p0 = c.xyz.data();
    for (int i = -60; i <= 60; ++i)
        for (int j = -60; j <= 60; ++j)
            for (int k = -60; k <= 60; ++k) {
                const double r[3] = {p0[0] + i * h, p0[1] + j * h, p0[2] + k * h};
                double nearest = 1e30;
                bool inside = false;
                for (std::size_t a = 0; a < atoms.size(); ++a) {
                    const double d = std::hypot(r[0] - atoms[a].x, r[1] - atoms[a].y, r[2] - atoms[a].z);
                    nearest = std::min(nearest, d);
                    inside = inside || d < cr.angstrom[a] * kBohrPerAngstrom;
                }
                expected += !inside && nearest <= ext;
            }
    EXPECT_EQ(c.count(), expected);

    const AtomRadii mr = atom_radii(atoms, PointModel::kMerzKollman, {});
    EXPECT_EQ(mr.angstrom, (std::vector<double>{1.5, 1.4, 1.2, 1.2, 1.2, 1.2}));
    // One atom alone: every point on its sphere, about 4 pi r^2 density of
    // them (the latitude circles round their counts down: a few percent fewer).
    const std::vector<moldata::Atom> one = {atoms[0]};
    const double dens = 6.0 / (kBohrPerAngstrom * kBohrPerAngstrom);
    const PointSet s = merz_kollman_points(one, {1.5 * kBohrPerAngstrom}, {1.4}, dens);
    const double r = 1.4 * 1.5 * kBohrPerAngstrom;
    const double n = 4.0 * std::numbers::pi * r * r * dens;
    EXPECT_NEAR(static_cast<double>(s.count()), n, 0.05 * n);
    double centroid[3] = {0, 0, 0};
    for (long k = 0; k < s.count(); ++k) {
        const double* p = &s.xyz[3 * k];
        EXPECT_NEAR(std::hypot(p[0] - one[0].x, p[1] - one[0].y, p[2] - one[0].z), r, 1e-12);
        for (int d = 0; d < 3; ++d) centroid[d] += p[d] / static_cast<double>(s.count());
    }
    // Evenly spread: the centroid stays near the centre.
    EXPECT_LT(std::hypot(centroid[0] - one[0].x, centroid[1] - one[0].y, centroid[2] - one[0].z), 0.02 * r);
    // The molecule: no point inside another atom's sphere of the same scale.
    const PointSet m = merz_kollman_points(atoms, bohr(mr), {1.4, 2.0}, dens);
    EXPECT_LT(m.count(), m.candidates);
    for (long k = 0; k < m.count(); ++k) {
        const double* p = &m.xyz[3 * k];
        int on = 0;
        for (double sc : {1.4, 2.0})
            for (std::size_t a = 0; a < atoms.size(); ++a) {
                const double d = std::hypot(p[0] - atoms[a].x, p[1] - atoms[a].y, p[2] - atoms[a].z);
                const double R = sc * mr.angstrom[a] * kBohrPerAngstrom;
                if (std::fabs(d - R) > 1e-9) continue;
                ++on;
                for (std::size_t b = 0; b < atoms.size(); ++b) {
                    const double db = std::hypot(p[0] - atoms[b].x, p[1] - atoms[b].y, p[2] - atoms[b].z);
                    EXPECT_GE(db + 1e-9, sc * mr.angstrom[b] * kBohrPerAngstrom);
                }
            }
        EXPECT_GE(on, 1);
    }
}

TEST(EspPoints, RadiiTablesFallbackAndOverride) {
    const std::vector<moldata::Atom> atoms = {atom(35, 0, 0, 0, "Br"), atom(5, 3, 0, 0, "B"), atom(1, 5, 0, 0, "H")};
    // CHELPG: Br from Bondi, B and H from Breneman-Wiberg.
    const AtomRadii c = atom_radii(atoms, PointModel::kChelpg, {});
    ASSERT_TRUE(c.error.empty());
    EXPECT_EQ(c.angstrom, (std::vector<double>{1.85, 1.5, 1.45}));
    EXPECT_EQ(c.source[0], "Bondi 1964");
    // Merz-Kollman: boron is in neither table.
    const AtomRadii m = atom_radii(atoms, PointModel::kMerzKollman, {});
    EXPECT_EQ(m.error, "atom 2 (B) has no Merz-Kollman radius: give one with -radius B R (angstrom)");
    const AtomRadii o = atom_radii(atoms, PointModel::kMerzKollman, {{5, 1.9}, {1, 1.1}});
    ASSERT_TRUE(o.error.empty());
    EXPECT_EQ(o.angstrom, (std::vector<double>{1.85, 1.9, 1.1}));
    EXPECT_EQ(o.source[1], "-radius");
}

TEST(EspFit, RefusesWhatCannotBeFitted) {
    const std::vector<moldata::Atom> atoms = {atom(8, 0, 0, 0), atom(1, 0, 0, 0), atom(1, 1.5, 0, 0)};
    FitData none;
    EXPECT_EQ(fit_charges(normal_equations(none, atoms), none, atoms, FitSpec{}).error, "no fitting points");
    // Two atoms on one spot: their columns are equal.
    const FitData d = point_charge_data(atoms, {0.5, 0.0, -0.5}, {3, 1, 0, -2, 2, 1, 0, -3, 2, 4, 4, 4});
    const FitResult r = fit_charges(normal_equations(d, atoms), d, atoms, FitSpec{});
    EXPECT_TRUE(r.error.starts_with("singular system")) << r.error;
    const FitData two = point_charge_data(atoms, {0.5, 0.0, -0.5}, {3, 1, 0, -2, 2, 1});
    EXPECT_EQ(fit_charges(normal_equations(two, atoms), two, atoms, FitSpec{}).error,
              "singular system: 2 points for 3 charges");
}

// Symmetry-equivalent atoms get the mean of their charges, as -chelp gives
// them: water with the two hydrogens mapped onto each other.
TEST(EspFit, SymmetryEquivalentAtomsShareTheirMean) {
    moldata::Molecule mol;
    mol.atoms = {atom(8, 0, 0, 0), atom(1, 1, 0, 1), atom(1, -1, 0, 1)};
    mol.natoms = 3;
    mol.symmetry = std::make_unique<moldata::SymmetryInfo>();
    *mol.symmetry = {.ntrans = 2, .nunique = 2, .n = 3, .unique = {1, 2, 0}, .images = {1, 1, 2, 3, 3, 2}};
    std::vector<double> q = {-0.75, 0.5, 0.25};
    average_equivalent(mol, 3, q);
    EXPECT_EQ(q, (std::vector<double>{-0.75, 0.375, 0.375}));
}

}  // namespace
}  // namespace kvx::chelp
