// Reading and writing grey images: PNG through libpng, binary PGM (P5) through
// Halide's image I/O helpers. Colour PNGs are read as their luminance, alpha
// is dropped, and palette and low bit depths are expanded to 8 bits.
#pragma once

#include "grey_image.h"

#include <string>

namespace demo {

// On failure returns false and a one-line reason in `error`.
bool read_grey_image(const std::string &path, GreyImage *image, std::string *error);
bool write_png(const std::string &path, const GreyImage &image, std::string *error);

}  // namespace demo
