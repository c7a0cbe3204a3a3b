// A row's border tiles folded with their interior neighbours.
//
// A row of the wide path is a run of border tiles at each end (their lanes
// may lie past the image's edge: each fold tests them and takes the pad
// there) around the interior run, whose tiles tile_jam.h folds several at a
// time. Each border tile folds alone, with its own pass over the mask and
// its per-lane choices: on images that fit the caches the two of them cost
// as much as a dozen interior tiles (uint8, 3 x 3, 512 columns: more than
// half of the row).
//
// Where a row has one border tile at each end, its interior neighbours
// reach to the group of tiles beside it, and every vector the border tiles
// read at their own columns lies within the memory of the buffer they read
// (the span of the image's descriptor, or an earlier stage's allocation),
// this pass folds each border tile in one group with its interior
// neighbours: the group's pass over the mask folds the border tile's lanes
// from a whole-vector load at its own columns, the lanes past the edge
// (which read samples of the row before or after, or the gap between rows)
// taking the pad by their test as before. The rest of the row is the
// interior run, jammed as before. Each lane folds the same samples in the
// same order, so the results are the same bit for bit. Other rows (those
// reading the buffer's first or last row, rows narrower than one group,
// masks reaching past a tile) keep the tiles as they were.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_row_edges_pass(int tiles, int vector_width);

}  // namespace flatmorph
