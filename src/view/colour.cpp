#include "view/colour.h"

#include <cmath>
#include <cstdio>

namespace kvx::view {

namespace {

// Evenly spaced anchors, interpolated linearly in sRGB.
constexpr Rgb kDivergingAnchors[] = {{5, 48, 97},    {33, 102, 172},  {67, 147, 195},  {146, 197, 222},
                                     {209, 229, 240}, {247, 247, 247}, {253, 219, 199}, {244, 165, 130},
                                     {214, 96, 77},   {178, 24, 43},   {103, 0, 31}};
constexpr Rgb kSequentialAnchors[] = {{68, 1, 84},    {72, 40, 120},  {62, 74, 137},  {49, 104, 142},
                                      {38, 130, 142}, {31, 158, 137}, {53, 183, 121}, {109, 205, 89},
                                      {180, 222, 44}, {253, 231, 37}};

template <std::size_t N>
Rgb interpolate(const Rgb (&anchors)[N], double t) {
    if (!(t > 0)) t = 0;
    if (t > 1) t = 1;
    const double x = t * (N - 1);
    std::size_t k = static_cast<std::size_t>(x);
    if (k >= N - 1) k = N - 2;
    const double f = x - static_cast<double>(k);
    auto mix = [f](uint8_t a, uint8_t b) { return static_cast<uint8_t>(std::lround(a + f * (b - a))); };
    const Rgb &a = anchors[k], &b = anchors[k + 1];
    return {mix(a.r, b.r), mix(a.g, b.g), mix(a.b, b.b)};
}

}  // namespace

Rgb colour_at(ColourMap map, double t) {
    return map == ColourMap::kDiverging ? interpolate(kDivergingAnchors, t) : interpolate(kSequentialAnchors, t);
}

std::string hex(Rgb c) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "#%02x%02x%02x", c.r, c.g, c.b);
    return buf;
}

}  // namespace kvx::view
