// The demo's built-in image: a synthetic fluorescence micrograph with bright
// cells of several sizes and a few dark specks on an unevenly lit background,
// plus sensor noise. The same seed always gives the same image.
#pragma once

#include "grey_image.h"

#include <cstdint>

namespace demo {

GreyImage synthetic_micrograph(int width, int height, uint64_t seed = 20240611);

}  // namespace demo
