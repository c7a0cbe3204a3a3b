// Branches taken out of the loops that do not decide them.
//
// A fold down a chunk's column walks the mask's rows with, inside each
// step, the choice between an interior load and the padded ones: a choice
// made by the column alone. LLVM keeps such a branch in the loop (its
// bodies are too large to unswitch), and with three stores to the column's
// vector in three branches it cannot keep that vector in a register either:
// each row then waits on the store of the row before. This pass turns
// `for (j) { lets; if (c) A else B }`, where c reads neither j nor the lets,
// into `if (c) for (j) { lets; A } else for (j) { lets; B }`, repeatedly, so
// each loop left holds one straight body.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_invariant_branches_pass();

}  // namespace flatmorph
