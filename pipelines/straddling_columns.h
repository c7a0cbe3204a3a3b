// Column folds across the image's edge, folded in registers.
//
// The column-first path folds each vector of columns down the mask's rows,
// a block of vectors at a time. A block that meets the image's edge took,
// for each vector, its own clamped columns, tests of its lanes and a shift
// into place through a stack buffer: on a 512 x 512 uint8 7 x 7 dilation,
// where every chunk meets an edge, 1,700 instructions a row for some 250
// folds, three quarters of them set-up, addresses and tests.
//
// Where the vectors of such a block follow one another and no columns,
// lane tests or pad change from row to row (on the rows by the image's top
// and bottom, a test of the row is solved for the mask rows inside, which
// fold from the pad without clamps), this pass folds the block
// moved just inside the image instead, in two halves: each half reads the
// columns a fixed count along from its own (one address a row for all its
// vectors), folds them down the rows in registers, and is folded into the
// column buffer at the place of the columns it read. The block's columns
// outside the image fold the pad, whole vectors written from each bound
// outwards. A maximum or minimum of integers takes a value twice as once,
// so where the halves overlap the columns are the same; each column inside
// gets its own samples and each outside the pad, as before. So does a
// float's choice of the greater (lesser) sample where none is NaN or -0.0,
// and a row with one is folded again in its own order: its checks, folded
// into registers beside the column (row_checks.h), fold the moved samples
// too (some twice, which changes no check; the pad was checked once per
// call). The column buffer is widened by a block at both ends for the moved stores.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_straddling_columns_pass();

}  // namespace flatmorph
