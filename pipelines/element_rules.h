// What changes with the element type: identities, the pad conversion from the
// float64 held in `minmax`, the fold of one sample into an accumulator, and the
// saturating residual of the hat filters.
#pragma once

#include <Halide.h>

#include <string>

namespace flatmorph {

// The two morphological senses a stage can fold in.
enum class Fold { Max, Min };

// Halide type of an element type name ("bool", "int8", ..., "float64").
Halide::Type element_type(const std::string &name);

// Accumulator start value: the lowest value of `t` for Max, the highest for
// Min; the infinities for floats.
Halide::Expr fold_identity(Fold fold, Halide::Type t);

// One fold step. Floats keep the accumulator only if it compares strictly
// greater (Max) or less (Min) than the sample, so NaN and signed-zero results
// follow the visiting order; the select is strict so no fast-math max replaces it.
Halide::Expr fold_step(Fold fold, Halide::Expr acc, Halide::Expr sample);

// 1 where a float sample is NaN or -0.0, the only samples whose place in the
// fold order shows in a float fold's result, else 0, as an unsigned integer
// as wide as the sample (so a vector of flags needs no narrowing); worked on
// its bits, which no float optimisation can change.
Halide::Expr order_sensitive(Halide::Expr sample);

// Plain (wrapping) conversion of a float64 pad value to `t`: truncation toward
// zero to int32 (int64 for uint32), out-of-range and NaN giving the lowest
// value of that integer, then the low bits. Written with exact float arithmetic
// only, so no float-to-integer cast ever sees an out-of-range value.
Halide::Expr convert_pad(Halide::Expr pad, Halide::Type t);

// Saturating difference a - b of two samples of type `t`, computed exactly in a
// wider domain; float, 32-bit and bool types go through float64, where NaN
// and undefined differences give plus infinity.
Halide::Expr saturating_difference(Halide::Expr a, Halide::Expr b);

}  // namespace flatmorph
