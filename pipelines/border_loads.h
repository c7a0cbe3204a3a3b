// Whole-vector loads on the border tiles where all their lanes are inside.
//
// A tile at the image's edge tests every lane of every sample it folds, and
// loads the lanes one by one from clamped positions, since some lanes lie
// outside (they take the pad). Yet for most mask elements all of the tile's
// lanes lie inside: a 5 x 5 mask reaches past the edge in 2 of its 5 columns.
// This pass gives each such fold a test of all its lanes at once, worked out
// from the window's two ends and its row: when all are inside, the clamps
// cannot bind and the pad is not chosen, so the fold takes one whole-vector
// load instead. Otherwise each half of the lanes is tested the same way, so
// that a half wholly inside still loads whole and only the other half is
// gathered; failing both, the fold runs as before. The values are the same
// either way.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_border_loads_pass();

}  // namespace flatmorph
