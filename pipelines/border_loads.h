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
// from the buffer. Under AVX, lanes of 32 or 64 bits instead load under a
// mask of the lanes inside, which touches no other column and needs no
// buffer: the reload from the buffer waits for its store (store forwarding
// fails on the shifted read), and a float column fold pays that three times
// a row, once for each part of its Tuple. The values are the same either way.
#pragma once

#include <Halide.h>

#include <functional>
#include <string>

namespace flatmorph {

Halide::Internal::IRMutator *make_border_loads_pass(const Halide::Target &target);

// A lane-wise choice select(inside, gathered sample, pad) whose gather reads
// the clamped columns [start, start + lanes) of one row, clamped into [lo, hi].
struct PaddedGather {
    const Halide::Internal::Select *choice;
    const Halide::Internal::Load *gather;
    Halide::Expr start, lo, hi;
};

// The first such choice in `e` (whose lets must be substituted), if any.
bool find_padded_gather(const Halide::Expr &e, PaddedGather *found);

// `e` with each padded gather read as one dense vector of its unclamped
// columns: the same values where all of its lanes lie within the clamp.
Halide::Expr as_dense_load(const Halide::Expr &e);

// The gather's columns read as one whole vector just inside the clamp (its
// bounds must be a vector apart at least).
Halide::Expr load_just_inside(const PaddedGather &g);

// The gather's columns, moved `shift` (32-bit) columns along, read as one
// whole vector: the caller keeps them within the clamp.
Halide::Expr load_moved(const PaddedGather &g, const Halide::Expr &shift);

// `use` of the gather's window, in which each lane inside the clamp holds
// its column's lane of `just_inside` (a vector read by load_just_inside, or
// a lane-wise fold of such vectors), by way of a small stack buffer named
// `buffer`. Lanes outside hold no sample.
Halide::Internal::Stmt with_window(const PaddedGather &g, const Halide::Expr &just_inside, const std::string &buffer,
                                   const std::function<Halide::Internal::Stmt(const Halide::Expr &)> &use);

}  // namespace flatmorph
