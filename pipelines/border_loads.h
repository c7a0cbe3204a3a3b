// Whole-vector loads on the border tiles.
//
// A tile at the image's edge tests every lane of every sample it folds, and
// would load the lanes one by one from clamped positions, since some lanes
// lie outside (they take the pad). Yet for most mask elements all of the
// tile's lanes lie inside: a 5 x 5 mask reaches past the edge in 2 of its 5
// columns. This pass gives each such fold a test of all its lanes at once,
// worked out from the window's two ends and its row: when all are inside, the
// clamps cannot bind and the pad is not chosen, so the fold takes one
// whole-vector load instead. When some are outside, the vector of columns
// just inside the edge is loaded whole into a small stack buffer, placed so
// that each lane finds its own column there, and the lanes inside read it
// from the buffer. The values are the same either way.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_border_loads_pass();

}  // namespace flatmorph
