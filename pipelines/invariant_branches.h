// Branches taken out of the loops that do not decide them.
//
// A fold down a chunk's columns walks the mask's rows with, inside each
// step and for each vector it folds, the choice between an interior load
// and the padded ones: a choice made by the columns alone. LLVM keeps such
// branches in the loop (their bodies are too large to unswitch), and with a
// store to the vector in each branch it cannot keep the vector in a register
// either: each row then waits on the store of the row before. This pass
// turns `for (j) { lets; if (c) A else B }`, where c reads neither j nor the
// lets nor memory, into `if (c) for (j) { lets; A } else for (j) { lets; B }`,
// repeatedly, and a loop holding several such branches (in its body or in
// the allocations it makes, as a chunk's column buffer holds its blocks)
// into a copy that takes every first case, where all their conditions hold,
// and the loop as it was otherwise: LLVM works out the set-up of every
// branch a loop holds before it, taken or not. (Float folds of 31 x 31 on
// 4096 columns: 40 -> 18 M instructions a call; uint8 7 x 7 on 512 x 512,
// the copy without the column-first edge blocks' fallback: 0.75 M -> 0.59 M.)
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_invariant_branches_pass();

}  // namespace flatmorph
