// Line and number parsing shared by the importers' readers; every failure
// is an ImportError naming the line.
#pragma once

#include <string>
#include <vector>

namespace kvx::import {

std::string lower(std::string s);
std::string trim(const std::string& s);
std::vector<std::string> tokens(const std::string& s);

// A finite real number, as C or Fortran writes it ("1.5D+01" too).
double number(const std::string& tok, int line, const char* what);
// A decimal integer that fits 32 bits; a number that is not an integer is
// refused with "not an integer", one beyond 32 bits with "out of range".
long integer(const std::string& tok, int line, const char* what);
// An integer that may be written as a real number ("8", "8.0", "8.00D+00");
// refused as integer() refuses.
long whole(const std::string& tok, int line, const char* what);

}  // namespace kvx::import
