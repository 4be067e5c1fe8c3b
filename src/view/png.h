// A minimal PNG writer (8-bit RGB, stored deflate blocks) for the raster
// embedded in slice pictures, and base64 for the data URI that carries it.
#pragma once

#include <string>
#include <vector>

#include "view/colour.h"

namespace kvx::view {

// width x height pixels, top row first, each row left to right.
std::string png_rgb(int width, int height, const std::vector<Rgb>& pixels);

std::string base64(const std::string& bytes);

}  // namespace kvx::view
