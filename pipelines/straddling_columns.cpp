#include "straddling_columns.h"

#include "border_loads.h"
#include "let_chains.h"

#include <string>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// Whether `e` reads the vector of `buffer` at `index`.
bool reads_stored(const Expr &e, const std::string &buffer, const Expr &index) {
    const Load *load = e.as<Load>();
    return load && load->name == buffer && equal(load->index, index);
}

// Whether an expression reads a buffer anywhere but at one index.
class ReadsElsewhere : public IRVisitor {
public:
    ReadsElsewhere(std::string buffer, Expr index) : buffer_(std::move(buffer)), index_(std::move(index)) {}
    bool found = false;

private:
    using IRVisitor::visit;
    const std::string buffer_;
    const Expr index_;
    void visit(const Load *op) override {
        found = found || (op->name == buffer_ && !equal(op->index, index_));
        IRVisitor::visit(op);
    }
};

bool reads_only_at(const Expr &e, const std::string &buffer, const Expr &index) {
    ReadsElsewhere elsewhere(buffer, index);
    e.accept(&elsewhere);
    return !elsewhere.found;
}

// Whether every lane of `cond` holds, worked out from its first and last
// lanes, where it is a conjunction of comparisons between vectors whose lanes
// step evenly (ramps and broadcasts): each holds on an interval of lanes.
// Undefined for any other form.
Expr every_lane(const Expr &cond) {
    if (const And *both = cond.as<And>()) {
        Expr a = every_lane(both->a), b = every_lane(both->b);
        return a.defined() && b.defined() ? a && b : Expr();
    }
    auto lane = [](const Expr &e, int k) -> Expr {
        if (const Ramp *r = e.as<Ramp>()) return r->base + k * r->stride;
        if (const Broadcast *b = e.as<Broadcast>()) return b->value;
        return Expr();
    };
    const int last = cond.type().lanes() - 1;
    auto at_both_ends = [&](const Expr &a, const Expr &b, Expr (*compare)(Expr, Expr)) -> Expr {
        Expr a0 = lane(a, 0), b0 = lane(b, 0);
        if (!a0.defined() || !b0.defined()) return Expr();
        return compare(a0, b0) && compare(lane(a, last), lane(b, last));
    };
    if (const LT *c = cond.as<LT>()) return at_both_ends(c->a, c->b, [](Expr a, Expr b) { return a < b; });
    if (const LE *c = cond.as<LE>()) return at_both_ends(c->a, c->b, [](Expr a, Expr b) { return a <= b; });
    if (const GT *c = cond.as<GT>()) return at_both_ends(c->a, c->b, [](Expr a, Expr b) { return a > b; });
    if (const GE *c = cond.as<GE>()) return at_both_ends(c->a, c->b, [](Expr a, Expr b) { return a >= b; });
    return Expr();
}

// A vector's fold down the rows in a register: the vector just inside the
// edge (its own columns, where it does not straddle), folded into a stack
// vector `folded` (a register, once LLVM promotes it) by `first` at the first
// row and `step` at each further one, then folded into the stored vector by
// `shifted` where it straddles (its lanes moved into place) and by `in_place`
// where it does not.
struct RegisterFold {
    Expr straddles, wide_image;
    std::string folded;
    Type type;
    Stmt first, step, shifted, in_place;
    bool defined() const { return first.defined(); }
    Stmt place() const { return IfThenElse::make(straddles, shifted, in_place); }
    Stmt allocated(const Stmt &s) const {
        return Allocate::make(folded, type.element_of(), MemoryType::Stack, {type.lanes()}, const_true(), s);
    }
};

class StraddlingColumns : public IRMutator {
    using IRMutator::visit;
    int buffers_ = 0;

    // A loop over rows whose body (after its lets) folds padded gathers into
    // the vectors it stores: stored = max(stored, choice), or min.
    Stmt visit(const For *op) override {
        const LetChain chain(op->body);
        if (op->for_type != ForType::Serial) return IRMutator::visit(op);
        // A block of vectors folded down the rows together: each is folded in
        // a register from the vector just inside the edge, in one loop over
        // the rows, and the ones that straddle are shifted into place after
        // it. (Split into a loop for each vector, each paid its loop's set-up.)
        std::vector<Stmt> vectors;
        if (!chain.body.as<Block>() || !stores_in_scope(chain.body, {}, &vectors)) return IRMutator::visit(op);
        std::vector<RegisterFold> folds;
        for (const Stmt &vector : vectors) {
            Stmt own = For::make(op->name, op->min, op->extent, op->for_type, op->device_api, chain.around(vector));
            const LetChain own_chain(own.as<For>()->body);
            const Store *store = own_chain.body.as<Store>();
            // Each vector must find its own samples: none reads another's.
            if (!reads_only_at(own_chain.substituted(store->value), store->name, own_chain.substituted(store->index)))
                return IRMutator::visit(op);
            folds.push_back(register_fold(op->name, op->min, own_chain, store));
            if (!folds.back().defined()) return IRMutator::visit(op);
        }
        std::vector<Stmt> firsts, steps, places;
        for (const RegisterFold &r : folds) {
            firsts.push_back(r.first);
            steps.push_back(r.step);
            places.push_back(r.place());
        }
        Stmt together = Block::make({Block::make(firsts),
                                     For::make(op->name, op->min + 1, op->extent - 1, ForType::Serial,
                                               DeviceAPI::None, Block::make(steps)),
                                     Block::make(places)});
        for (const RegisterFold &r : folds) together = r.allocated(together);
        return IfThenElse::make(folds.front().wide_image && op->extent >= 1, together, op);
    }

    // Each store of a block, inside the lets that reach it (`scope`), into
    // `stores`; false where the block holds anything but lets and stores.
    static bool stores_in_scope(const Stmt &s, std::vector<const LetStmt *> scope, std::vector<Stmt> *stores) {
        if (const LetStmt *let = s.as<LetStmt>()) {
            scope.push_back(let);
            return stores_in_scope(let->body, scope, stores);
        }
        if (const Block *block = s.as<Block>())
            return stores_in_scope(block->first, scope, stores) && stores_in_scope(block->rest, scope, stores);
        if (!s.as<Store>()) return false;
        Stmt wrapped = s;
        for (auto let = scope.rbegin(); let != scope.rend(); ++let)
            wrapped = LetStmt::make((*let)->name, (*let)->value, wrapped);
        stores->push_back(wrapped);
        return true;
    }

    // The register fold of `store`, folded in the loop over `row` inside
    // `chain`, or nothing where it does not qualify.
    RegisterFold register_fold(const std::string &row, const Expr &row_min, const LetChain &chain,
                               const Store *store) {
        // The row's lets are not kept around the folded vector's placement.
        const Expr value = chain.substituted(store->value), index = chain.substituted(store->index);
        if (expr_uses_var(index, row)) return {};
        PaddedGather g;
        if (!find_padded_gather(value, &g) || !g.choice->type.is_int_or_uint() || g.choice->type.bits() < 8 ||
            !equal(g.choice->true_value, Expr(g.gather)))
            return {};
        // Only the row may change along the loop: not the columns, the lane tests or the pad.
        const Select *choice = g.choice;
        for (const Expr &e : {g.start, g.lo, g.hi, choice->condition, choice->false_value})
            if (expr_uses_var(e, row)) return {};
        const Max *max_fold = value.as<Max>();
        const Min *min_fold = value.as<Min>();
        if (!max_fold && !min_fold) return {};
        Expr a = max_fold ? max_fold->a : min_fold->a, b = max_fold ? max_fold->b : min_fold->b;
        Expr stored = reads_stored(a, store->name, index) && b.same_as(Expr(choice))   ? a
                      : reads_stored(b, store->name, index) && a.same_as(Expr(choice)) ? b
                                                                                       : Expr();
        if (!stored.defined()) return {};
        auto fold = [&](Expr p, Expr q) { return max_fold ? max(p, q) : min(p, q); };

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
        auto placed = [&](const Expr &in_window) {
            Expr chosen = select(choice->condition, in_window, choice->false_value);
            return Store::make(store->name, fold(stored, chosen), index, store->param, store->predicate,
                               store->alignment);
        };
        Expr start = cast<int64_t>(g.start), lo = cast<int64_t>(g.lo), hi = cast<int64_t>(g.hi);
        Expr straddles = start < lo || start + (lanes - 1) > hi;
        // A vector that does not straddle read its own columns: its lanes are
        // in place, and where the lane test holds for all of them (tested at
        // its ends, not lane by lane) none takes the pad.
        Stmt in_place = placed(folded_so_far);
        const Expr every_lane_inside = every_lane(choice->condition);
        if (every_lane_inside.defined())
            in_place = IfThenElse::make(every_lane_inside,
                                        Store::make(store->name, fold(stored, folded_so_far), index, store->param,
                                                    store->predicate, store->alignment),
                                        in_place);
        Stmt first = fold_into(substitute(row, row_min, just_inside));
        return {straddles, hi - lo + 1 >= lanes, folded, choice->type, first,
                fold_into(fold(folded_so_far, just_inside)), with_window(g, folded_so_far, window, placed), in_place};
    }
};

}  // namespace

IRMutator *make_straddling_columns_pass() { return new StraddlingColumns(); }

}  // namespace flatmorph
