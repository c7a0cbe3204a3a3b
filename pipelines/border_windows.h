// One padded window per mask row on the border tiles.
//
// A border tile folds, for each active element of a mask row, a vector whose
// lanes may lie partly outside the image. border_loads.h serves each such
// fold on its own: a fold that straddles the edge stores the vector just
// inside it into a stack buffer and reloads it shifted, and the reload waits
// for the store to complete (store forwarding fails on the shifted read),
// some 15 to 20 cycles per straddling element. With a disk of 31 on a 512 x
// 512 uint8 image that made each border tile cost as much as a dozen
// interior ones.
//
// This pass gives each mask row of a border tile its padded window: the
// samples of every column the row's folds read (the mask width plus a vector
// less one), the pad where a column lies outside. A window is filled with
// the pad, then with the image's columns inside the clamp, copied by whole
// vectors; each fold of the row then loads its vector from the window at its
// offset. The windows of all the tile's mask rows are filled before the
// first fold, so the stores have completed by the time the folds read them
// (filled and folded row by row, the first loads of each row still waited).
// Every lane holds the sample its fold read before, and the folds keep their
// order, so results are the same bit for bit.
//
// Tiles whose windows hold less than a vector of image columns, and masks
// wider or taller than the windows' fixed space on the stack (Halide puts an
// allocation of over 16 KB on the heap), keep the folds as they were.
#pragma once

#include <Halide.h>

namespace flatmorph {

// Masks up to this wide get windows, each this wide plus two vectors, as
// many rows of them as the space holds: 28 rows of float64 to 128 of bytes.
constexpr int border_window_max_columns = 64;
constexpr int border_windows_bytes = 16 * 1024;

Halide::Internal::IRMutator *make_border_windows_pass();

}  // namespace flatmorph
