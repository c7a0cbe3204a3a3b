#include "straddling_columns.h"

#include "border_loads.h"
#include "let_chains.h"

#include <string>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// Whether `e` reads the vector that `store` writes, at the same place.
bool reads_stored(const Expr &e, const Store *store) {
    const Load *load = e.as<Load>();
    return load && load->name == store->name && equal(load->index, store->index);
}

class StraddlingColumns : public IRMutator {
    using IRMutator::visit;
    int buffers_ = 0;

    // A loop over rows whose body (after its lets) folds one padded gather
    // into the vector it stores: stored = max(stored, choice), or min.
    Stmt visit(const For *op) override {
        const LetChain chain(op->body);
        const Store *store = chain.body.as<Store>();
        if (op->for_type != ForType::Serial || !store || expr_uses_var(store->index, op->name))
            return IRMutator::visit(op);
        const Expr value = chain.substituted(store->value);
        PaddedGather g;
        if (!find_padded_gather(value, &g) || !g.choice->type.is_int_or_uint() || g.choice->type.bits() < 8 ||
            !equal(g.choice->true_value, Expr(g.gather)))
            return op;
        // Only the row may change along the loop: not the columns, the lane tests or the pad.
        const Select *choice = g.choice;
        for (const Expr &e : {g.start, g.lo, g.hi, choice->condition, choice->false_value})
            if (expr_uses_var(e, op->name)) return op;
        const Max *max_fold = value.as<Max>();
        const Min *min_fold = value.as<Min>();
        if (!max_fold && !min_fold) return op;
        Expr a = max_fold ? max_fold->a : min_fold->a, b = max_fold ? max_fold->b : min_fold->b;
        Expr stored = reads_stored(a, store) && b.same_as(Expr(choice))   ? a
                      : reads_stored(b, store) && a.same_as(Expr(choice)) ? b
                                                                           : Expr();
        if (!stored.defined()) return op;
        auto fold = [&](Expr p, Expr q) { return max_fold ? max(p, q) : min(p, q); };

        // The vectors just inside the edge, folded down the rows in a stack
        // vector (a register, once LLVM promotes it), then moved into place.
        const int lanes = choice->type.lanes();
        const std::string folded = "straddling_fold$" + std::to_string(buffers_);
        const std::string window = "straddling_window$" + std::to_string(buffers_++);
        const Expr whole = Ramp::make(0, 1, lanes);
        auto fold_into = [&](Expr v) {
            return Store::make(folded, v, whole, Parameter(), const_true(lanes), ModulusRemainder());
        };
        Expr folded_so_far =
            Load::make(choice->type, folded, whole, Buffer<>(), Parameter(), const_true(lanes), ModulusRemainder());
        Expr just_inside = load_just_inside(g);
        Stmt first = fold_into(substitute(op->name, op->min, just_inside));
        Stmt rest = For::make(op->name, op->min + 1, op->extent - 1, op->for_type, op->device_api,
                              fold_into(fold(folded_so_far, just_inside)));
        Stmt place = with_window(g, folded_so_far, window, [&](const Expr &in_window) {
            Expr chosen = select(choice->condition, in_window, choice->false_value);
            return Store::make(store->name, fold(stored, chosen), store->index, store->param, store->predicate,
                               store->alignment);
        });
        Stmt register_fold = Allocate::make(folded, choice->type.element_of(), MemoryType::Stack, {lanes},
                                            const_true(), Block::make({first, rest, place}));

        Expr start = cast<int64_t>(g.start), lo = cast<int64_t>(g.lo), hi = cast<int64_t>(g.hi);
        Expr straddles = (start < lo || start + (lanes - 1) > hi) && hi - lo + 1 >= lanes && op->extent >= 1;
        return IfThenElse::make(straddles, register_fold, op);
    }
};

}  // namespace

IRMutator *make_straddling_columns_pass() { return new StraddlingColumns(); }

}  // namespace flatmorph
