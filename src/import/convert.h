// From a source job to a Kalvex job: shell types, the exact transformation
// of orbital coefficients from the source's functions to Kalvex's, the job
// files, and the check that the written orbitals are orthonormal in Kalvex's
// own overlap matrix.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "import/source.h"

namespace kvx::import {

// Kalvex shell type of a source shell: s, p, "l" (sp), "d" (spherical d),
// "d6", and the cartesian "f10", "g15", "h21", "i28" for f and higher, pure
// or not (they span the spherical functions exactly).
int kalvex_type(const SourceShell& s);

// Monomials of a shell over which functions are written: cart_count(l), or
// 4 (1, x, y, z) for an sp shell.
int shell_monomials(const SourceShell& s);

// The source shell's functions over raw monomials (harmonics.h), one row per
// function in the source's order: nfunc x shell_monomials.
std::vector<double> source_functions(const SourceShell& s, const CartesianConvention& order, const Convention& conv);

// Contraction coefficients of normalised primitives under the convention.
std::vector<double> normalised_coefs(const std::vector<double>& coefs, const std::vector<double>& exponents, int l,
                                     const Convention& conv);

// Kalvex's functions of a shell type over the same monomials (the basis
// file's normalisation with its per-type factor F, the spherical d
// combinations): size x monomials. Type 3 is (1, x, y, z).
std::vector<double> kalvex_functions(int type);

// M (nsrc x nk) with T = M K, so that an orbital sum_m C_m t_m equals
// sum_k (C M)_k k_k. Throws when T does not lie in the span of K.
std::vector<double> coefficient_map(const std::vector<double>& T, int nsrc, const std::vector<double>& K, int nk,
                                    int nmono);

// Largest |C S C^T - I| among the occupied orbitals and among all. The
// occupied ones must be orthonormal to 1e-6; all to 1e-3, which passes the
// rounding of files that print 9 digits for large basis sets (virtual
// orbitals carry coefficients in the tens) and still stops a cut orbital.
struct Orthonormality {
    double occupied = 0, all = 0;
    bool ok() const { return occupied <= 1e-6 && all <= 1e-3; }
};

struct ImportReport {
    int natoms = 0, nshells = 0, nbasis = 0, nbasis_source = 0;
    int norb_alpha = 0, norb_beta = 0;
    int nalpha = 0, nbeta = 0, charge = 0, multiplicity = 1;
    bool restricted = true;
    bool restricted_open = false;  // one orbital set, written for both spins
    std::string convention;  // the name of the one the orbitals matched
    // Atoms whose nuclear charge is not their atomic number (effective core
    // potentials): element symbol and charge written.
    std::vector<std::pair<std::string, double>> valence_charges;
    Orthonormality orthonormality;
    std::vector<std::string> written, removed;
};

// Writes JOB.control, .coord, .basis, .mos (and .mob) for the source job.
// The files are made and checked in a scratch folder beside JOB and moved
// into place only when Kalvex reads them back with orthonormal orbitals;
// on any failure nothing is written and ImportError is thrown.
// Files of an earlier job of the same name that Kalvex would mix in (.mob,
// .los, .loc, .nos, .sym) are removed.
ImportReport write_kalvex_job(const SourceJob& job, const std::string& jobname, const std::string& source_name);

}  // namespace kvx::import
