// Folds the interior tiles of a row several at a time.
//
// The schedule computes one tile of one vector at a time: its accumulator is
// one register, and each active mask element costs the mask byte test, the
// loop step and the address arithmetic besides one load and one fold. On the
// interior run of a row (the tiles whose loads are all plain vector loads)
// this pass jams `tiles` neighbouring tiles into one pass over the mask: each
// tile keeps its own accumulator, and every active element is folded into
// each of them in turn, so the mask loop's own work is shared. Each lane still
// folds the same samples in the same order. The last group is moved back to
// end with the run (its first tiles are computed twice, to the same values),
// and the run's last tile goes through the loop as it was. Border tiles (those
// with per-lane tests and clamped loads) are left to border_loads.h.
#pragma once

#include <Halide.h>

#include <vector>

namespace flatmorph {

Halide::Internal::IRMutator *make_tile_jam_pass(int tiles, int vector_width);

// Whether `s` is a loop over a row's tiles (the wide path's, as lowered).
bool is_tile_loop(const Halide::Internal::Stmt &s);

// The bodies of neighbouring tiles folded in one pass over the mask, as the
// groups above are: each body states its first lane in a `.lane.base.s`
// let, and body i's is taken as body 0's plus i vectors. The bodies may
// differ in their folds (a border tile's and interior ones) but not in
// their mask loops and tests.
Halide::Internal::Stmt jam_tiles(const std::vector<Halide::Internal::Stmt> &bodies, int vector_width);

}  // namespace flatmorph
