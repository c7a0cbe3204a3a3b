// Addresses that step with their loop.
//
// Buffer indices are worked in 64 bits from 32-bit coordinates, so a row
// loop's load address reads int64(a - j) * stride: a 32-bit subtraction
// whose wrap-around LLVM cannot rule out, so it recomputes the whole address
// each iteration (sign extension, multiplication, additions: about 7 scalar
// instructions beside each vector fold). This pass widens such a coordinate
// before it varies, int64(a) - int64(j), which is the same value wherever
// the coordinate does not wrap (it never does: it addresses a buffer), and
// lets LLVM step the address by the stride instead.
#pragma once

#include <Halide.h>

namespace flatmorph {

Halide::Internal::IRMutator *make_loop_steps_pass();

}  // namespace flatmorph
