// Problems many rows high and several vectors wide, so that the rows of one
// call spread over the worker threads; small enough for the reference model.
#pragma once

#include "support/harness.h"

#include <random>

namespace fmrel {

// A valid call of `v` on the wide path: the output is the image's own region.
fmtest::Problem large_problem(const fmtest::Variant &v, std::mt19937 &rng);

}  // namespace fmrel
