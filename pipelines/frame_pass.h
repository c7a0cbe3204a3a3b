// Brings the entry that Halide generates for a variant to the library's exact
// calling contract. Runs as the last lowering pass, shared by every variant:
//  - drops the checks the contract does not make (the `dimensions` and
//    device-dirty tests, and the dim-0 size test that cannot fire);
//  - hands each parallel loop its real first row (y0, or the intermediate's
//    first row) instead of zero, so row tasks receive the row itself;
//  - states the output columns a call requires (one whole tile on a wide
//    image) and checks them in 32-bit wrap-around arithmetic;
//  - answers the image's required region by the filter's own reach, not
//    widened by the inward-shifted tiles of the wide path (the residual
//    filters add the output tile region, which they read directly), and
//    checks it in 64 bits, refusing an image whose span passes 2^31 and a
//    single-stage call whose coordinates would pass 2^31 (the mask around the
//    output, or the span from image to output);
//  - checks the size of an intermediate on the exact product (Halide's own
//    check misses sizes that wrap 64 bits) and asks `halide_malloc` for
//    exactly that size plus one spare element; an intermediate whose region
//    wraps around 32 bits (so its rows would not agree with its size), or a
//    two-stage call whose coordinates would pass 2^31, is refused as out of
//    memory before any row runs.
#pragma once

#include "stages.h"

namespace flatmorph {

Halide::Internal::IRMutator *make_frame_pass(const FilterDefinition &filter, const Inputs &in, int vector_width);

}  // namespace flatmorph
