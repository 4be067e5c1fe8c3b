// Colour maps of the slice pictures.
#pragma once

#include <cstdint>
#include <string>

namespace kvx::view {

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
};

enum class ColourMap {
    kDiverging,   // blue (t = 0) through near-white (t = 0.5) to red (t = 1)
    kSequential,  // dark violet (t = 0) through teal to yellow (t = 1)
};

// t is clamped to [0, 1]; NaN maps to t = 0.
Rgb colour_at(ColourMap map, double t);

// "#rrggbb".
std::string hex(Rgb c);

}  // namespace kvx::view
