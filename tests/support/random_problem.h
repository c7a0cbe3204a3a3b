// Seeded random problems that a variant must accept: image widths around the
// vector width, masks larger than the image, non-zero mins, outputs beyond
// the image (where the filter allows), hostile samples and pads.
#pragma once

#include "harness.h"

#include <random>

namespace fmtest {

Problem random_problem(const Variant &v, std::mt19937 &rng);

}  // namespace fmtest
