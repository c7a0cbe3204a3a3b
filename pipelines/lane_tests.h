// Lane tests in the lanes' own width.
//
// A border tile chooses each lane's sample by testing its column against the
// image's bounds: ramp(x, 1, n) >= lo, a comparison Halide makes in 32-bit
// lanes whatever the sample type. For 8-bit samples that is four vector
// comparisons per bound and a chain of packs to narrow the mask back to
// bytes (about 30 instructions per fold of a border tile). This pass states
// the same test on the lane index instead, i >= clamp(lo - x, -1, n), in
// lanes as wide as the samples chosen, so one comparison per bound remains.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_lane_tests_pass();

}  // namespace flatmorph
