// Reading and writing grey images through OpenCV's image codecs: PNG, PGM and
// TIFF (and the other formats they know) at 8 or 16 bits. Colour is read as
// its luminance and alpha is dropped.
#pragma once

#include "grey_image.h"

#include <string>

namespace demo {

// On failure returns false and a one-line reason in `error`.
bool read_grey_image(const std::string &path, GreyImage *image, std::string *error);
bool write_png(const std::string &path, const GreyImage &image, std::string *error);

}  // namespace demo
