// What every row shares, worked out once per call.
//
// A fold reads its pad from the `minmax` table where a lane falls outside the
// image, and converts it to the sample type there: a load and about ten float
// operations per fold of a border tile, which LLVM cannot move out of the
// loops since the load sits behind the test of whether any lane falls
// outside (it cannot know the table may be read anyway). This pass reads
// each such entry once, before the row loop, instead. Scalars a row body
// works out from nothing that varies by row (the pads' conversion, the tests
// of a row's edges on its columns) are worked out there as well: LLVM can
// move them out of the inner loops, not out of the row task (uint8 3 x 3 on
// 512 x 512: 4 % fewer instructions a call, a top-hat 6 %). The row tasks
// find them in their closure.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_row_invariants_pass();

}  // namespace flatmorph
