// kalvex-charges: ESP-fitted atomic charges by the published methods, in
// steps (points, potential, fit) that the tool and the benchmark share.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "chelp/esp_fit.h"
#include "chelp/esp_points.h"
#include "chelp/resp.h"
#include "moldata/molecule.h"

namespace kvx::chelp {

enum class ChargeModel { kChelpg, kMerzKollman, kResp };

// The tool's settings, each with its published default (lengths in
// angstrom, density per square angstrom).
struct ChargeSettings {
    ChargeModel model = ChargeModel::kChelpg;
    double spacing = 0.3;  // CHELPG lattice spacing (Breneman and Wiberg)
    double extent = 2.8;   // CHELPG box margin and farthest distance from an atom
    double density = 6.0;  // MK points per square angstrom (RESP practice; Singh and Kollman used 1)
    std::vector<double> scales{1.4, 1.6, 1.8, 2.0};  // MK shells, multiples of the radius
    bool dipole = false;                             // also hold the charges' dipole at the wavefunction's
    std::vector<RadiusOverride> radii;
    RespSettings resp;
    double thresh = 1e-6;   // integral threshold of the potential
    double memmax = 400.0;  // MB for potential integral blocks
    int numt = -4;          // threads of the potential, as -numt of kalvex
};

// The atoms that take part: the molecule's first natoms - ndummy[1].
std::vector<moldata::Atom> fit_atoms(const moldata::Molecule& mol);

// Step 1: radii and points (bohr). Empty string on success, else the error.
std::string charge_points(const std::vector<moldata::Atom>& atoms, const ChargeSettings& s, AtomRadii& radii,
                          PointSet& points);

// Step 2: the potential at the points (the potential code's progress lines
// go to standard output).
std::string charge_potential(const moldata::Molecule& mol, const PointSet& points, const ChargeSettings& s,
                             FitData& data);

// Step 3: the fit of the model; for RESP both stages.
struct ChargeFit {
    FitResult fit;  // the charges reported (RESP: stage two)
    RespResult resp;
    std::array<double, 3> wavefunction_dipole{};  // a.u., about the origin
    bool have_dipole = false;
};
std::string charge_fit(const moldata::Molecule& mol, const std::vector<moldata::Atom>& atoms, const FitData& data,
                       const ChargeSettings& s, ChargeFit& out);

// Atoms that the job's symmetry maps onto each other get the mean of their
// charges (as -chelp does).
void average_equivalent(const moldata::Molecule& mol, int natoms, std::vector<double>& q);

// kalvex-charges JOB chelpg|mk|resp [options]: the report on standard
// output, 0; one message on standard error and 1 on any failure.
int run_charges(int argc, char** argv);

}  // namespace kvx::chelp
