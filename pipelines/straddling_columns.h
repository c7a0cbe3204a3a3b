// Column folds across the image's edge, folded in a register.
//
// The column-first path folds each vector of columns down the mask's rows.
// A vector that straddles the image's edge takes, on every row, the whole
// vector just inside the edge, shifted into place through a stack buffer
// (border_loads.h); the shifted reload waits for the store each time (store
// forwarding fails on it), some 15 to 20 cycles a row: a 15 x 15 uint8
// dilation of 512 x 512 spent a quarter of its time there.
//
// Where a block of column vectors is folded down the rows together (the
// rows the inner loop) and no vector's columns or lane tests change from row
// to row, this pass makes the block one loop in which every vector folds the
// vector just inside the edge (its own columns, unless it straddles) in a
// register, tested for nothing; the ones that straddle are shifted into
// place once, after the loop. The fold is a
// maximum or minimum of integers, which commutes with moving lanes: lanes
// inside get the same samples as before, lanes outside the pad as before.
// Float folds (which also gather flags) and other loop orders are left to
// border_loads.h.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_straddling_columns_pass();

}  // namespace flatmorph
