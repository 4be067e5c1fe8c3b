// Property files: checksum stamps, their text form, file names, the reuse
// test, the grid file writer and the single-point line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "grid/grid.h"
#include "grid/property_grid.h"
#include "moldata/property_words.h"

namespace kvx::main {

// End-around-carry sum of the data taken as big-endian 16-bit pairs per
// 4-byte group (len a multiple of 4; a trailing partial group is ignored),
// started from seed.
uint32_t stamp(const void* data, std::size_t len, uint32_t seed);

// Stamp chained over the grid's centre, origin, axes rows x, y, z, lengths,
// spacings and counts (first ndim entries). Null grid: the seed.
uint32_t grid_stamp(const grid::Grid* g, uint32_t seed);

// 16-character text form of a stamp plus NUL.
void stamp_text(uint32_t s, char out[17]);

// dir + base + "-" + part + ".grid"; part is the property's file word, or
// for an orbital property with an argument "word-N", N the leading integer
// of orbital_arg.
std::string name_file(const char* base, const char* dir, const moldata::PropertyWord& prop, const char* orbital_arg);

// True when the file exists and its first number equals the stamp.
bool file_exists(const std::string& name, uint32_t stamp);

// Writes the grid file named in pg->filename (fgrid non-zero: x fastest;
// zero: storage order).
void fout_dbs(const grid::PropertyGrid* pg, uint32_t stamp, int fgrid);

// Single-point mode: prints the middle point's value; otherwise fout_dbs.
void write_property(const grid::PropertyGrid* pg, uint32_t stamp, int fgrid);

// Where write_property reads the single-point state (the -point option).
void set_point_mode_link(const int* point_state);

// Low 16 bits of the serial number of jobname.out, sign-extended; 0 with a
// warning when it cannot be read.
int get_inode(const char* jobname);

}  // namespace kvx::main
