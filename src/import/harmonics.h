// Cartesian monomials and real solid harmonics of one shell, written over
// the raw monomials x^a y^b z^c R(r) of a common contracted radial part R.
//
// R is scaled so that <x^a R | x^b R> = prod_i (a_i + b_i - 1)!!, zero when
// any a_i + b_i is odd: the monomials with every exponent below 2 (s, x, xy,
// xyz) are then normalised, and x^2 R has norm sqrt 3.
#pragma once

#include <vector>

#include "gauss/shell_types.h"

namespace kvx::import {

// Overlap of two monomials over the common radial part.
double monomial_overlap(gauss::CartExp a, gauss::CartExp b);

// Number of cartesian monomials of degree l.
inline constexpr int cart_count(int l) { return (l + 1) * (l + 2) / 2; }

// Index of a monomial among Kalvex's components of degree a.x + a.y + a.z
// (order of gauss::cart_exponents); -1 when none.
int cart_index(gauss::CartExp a);

// The 2l + 1 real solid harmonics of degree l (m = 0, +1, -1, +2, -2, ...),
// each normalised, as rows of a (2l + 1) x cart_count(l) matrix over
// Kalvex's monomial order:
//   S_lm ~ sum_{t,u,v} (-1)^(t + v - v_m) 4^(-t) C(l,t) C(l-t,|m|+t) C(t,u) C(|m|,2v)
//          x^(2t + |m| - 2(u+v)) y^(2(u+v)) z^(l - 2t - |m|),  v_m = 0 (m >= 0), 1/2 (m < 0).
std::vector<double> solid_harmonics(int l);

}  // namespace kvx::import
