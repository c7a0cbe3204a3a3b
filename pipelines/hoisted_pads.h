// The pads, read once per row.
//
// A fold reads its pad from the `minmax` table where a lane falls outside the
// image, and converts it to the sample type there: a load and about ten float
// operations per fold of a border tile, which LLVM cannot move out of the
// loops since the load sits behind the test of whether any lane falls
// outside (it cannot know the table may be read anyway). This pass reads
// each such entry once at the start of the row task instead; the conversion
// then depends on nothing that varies and LLVM moves it out of the loops.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_hoisted_pads_pass();

}  // namespace flatmorph
