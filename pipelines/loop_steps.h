// Addresses that step with their loop.
//
// Buffer indices are worked in 64 bits from 32-bit coordinates, so a row
// loop's load address reads int64(a - j) * stride: a 32-bit subtraction
// whose wrap-around LLVM cannot rule out, so it recomputes the whole address
// each iteration (sign extension, multiplication, additions: about 7 scalar
// instructions beside each vector fold). This pass widens such a coordinate
// before it varies, int64(a) - int64(j), and a constant offset likewise,
// int64(a) + 32: the same values wherever the coordinate does not wrap (it
// never does: it addresses a buffer), and LLVM then steps the address by the
// stride and folds the offsets into its addressing.
//
// `within` limits the pass to the loops named with that ending and what they
// hold (an empty one: every loop). On the border tiles of the element-wise
// path the widened forms cost more than they save (disks: 5 % more
// instructions), so there it serves the jammed interior groups only.
#pragma once

#include <Halide.h>

#include <string>

namespace flatmorph {

Halide::Internal::IRMutator *make_loop_steps_pass(const std::string &within);

}  // namespace flatmorph
