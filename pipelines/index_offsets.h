// Constant offsets between buffer indices.
#pragma once

#include <Halide.h>

#include <cstdint>

namespace flatmorph {

// `e` with each 64-bit widening of a 32-bit sum with a constant split into
// the widened sum and the constant, so that indices a constant apart are
// seen to be (the simplifier keeps the widening whole: the sum may wrap).
class SplitWidenedOffsets : public Halide::Internal::IRMutator {
    using IRMutator::visit;
    Halide::Expr visit(const Halide::Internal::Cast *op) override {
        Halide::Expr value = mutate(op->value);
        const Halide::Internal::Add *sum = value.as<Halide::Internal::Add>();
        if (op->type.is_int() && op->type.bits() == 64 && sum && Halide::Internal::is_const(sum->b))
            return Halide::Internal::Cast::make(op->type, sum->a) + Halide::Internal::Cast::make(op->type, sum->b);
        return Halide::Internal::Cast::make(op->type, value);
    }
};

// Whether `a` - `b` is a constant, and which (in `difference`).
inline bool constant_difference(const Halide::Expr &a, const Halide::Expr &b, int64_t *difference) {
    SplitWidenedOffsets split;
    const Halide::Expr d = Halide::Internal::simplify(split.mutate(a) - split.mutate(b));
    const int64_t *known = Halide::Internal::as_const_int(d);
    if (known) *difference = *known;
    return known != nullptr;
}

// Whether `a` - `b` is the constant `difference`.
inline bool apart_by(const Halide::Expr &a, const Halide::Expr &b, int64_t difference) {
    int64_t d;
    return constant_difference(a, b, &d) && d == difference;
}

}  // namespace flatmorph
