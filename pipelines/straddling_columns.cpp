#include "straddling_columns.h"

#include "border_loads.h"
#include "index_offsets.h"
#include "let_chains.h"

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

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

// A fold of the same sample into a register beside a vector's (a float
// column's checks): its store and value, read outside the row's lets, and
// the choice of the sample in it.
struct SideFold {
    const Store *store;
    Expr value, choice;
};

// `e` without its strict_float marks (to compare it, not to compute it).
class Unmarked : public IRMutator {
    using IRMutator::visit;
    Expr visit(const Call *op) override {
        return op->is_intrinsic(Call::strict_float) ? mutate(op->args[0]) : IRMutator::visit(op);
    }
};

Expr unmarked(const Expr &e) { return Unmarked().mutate(e); }

// One vector of a block folded down the rows: the loop's body for it
// (`own`, which holds the nodes below) and what it stores, read outside the
// row's lets: stored = fold(stored, select(inside, gathered sample, pad)),
// `inside` being a test of the lanes' columns and, on the rows by the
// image's top and bottom, of the row (`row_inside`, else undefined). The
// fold is a maximum or minimum of integers, or a float's choice of the
// greater or lesser (`stored` is the load of the vector folded into).
struct FoldedVector {
    Stmt own;
    const Store *store;
    Expr value, index, stored;
    PaddedGather gather;
    Expr row_inside;
    bool by_max;
    std::vector<SideFold> sides;
    bool defined() const { return store != nullptr; }
    Expr choice() const { return Expr(gather.choice); }
    // `fold` of two vectors.
    Expr fold(const Expr &a, const Expr &b) const { return substitute(stored, a, substitute(choice(), b, value)); }
    // The side folds, of `sample` instead of the vector's own.
    std::vector<Stmt> side_folds(const Expr &sample) const {
        std::vector<Stmt> folds;
        for (const SideFold &side : sides) {
            const Store *s = side.store;
            folds.push_back(Store::make(s->name, substitute(side.choice, sample, side.value), s->index, s->param,
                                        s->predicate, s->alignment));
        }
        return folds;
    }
};

// `e` without the clamps of rows into the image: max(min(r, hi), lo) for an
// expression r of the row, where `row_inside` keeps r within [lo, hi].
class UnclampedRows : public IRMutator {
public:
    UnclampedRows(std::string row, Expr row_inside) : row_(std::move(row)), row_inside_(std::move(row_inside)) {}

private:
    using IRMutator::visit;
    const std::string row_;
    const Expr row_inside_;
    Expr visit(const Max *op) override {
        const Min *below = op->a.as<Min>();
        if (op->type.is_scalar() && below && expr_uses_var(below->a, row_) &&
            can_prove(!row_inside_ || (op->b <= below->a && below->a <= below->b)))
            return mutate(below->a);
        return IRMutator::visit(op);
    }
};

// A block moved just inside the image, in two halves: each half folds, in
// registers, the columns a fixed count along from its own (the same count
// for all its vectors, so that it reads each row as one line, as a block
// inside the image does), moved no further than to bring them inside the
// image; each vector is then folded into the column buffer at the place of
// the columns it read. The block's columns outside the image fold the pad,
// whole vectors written from each bound outwards. Each column inside thus
// gets its samples (some twice, where the halves overlap: a maximum or
// minimum takes a value twice as once), and no lane is tested. Its stores
// reach up to a block's width before or after the buffer's columns.
class MovedBlock {
public:
    // `loop` folds `block` down the rows into a buffer of `size` elements.
    // `within` gives an expression read where the loop is with the lets
    // around it substituted (each vector may have its own name for the same value).
    MovedBlock(const For *loop, const std::vector<FoldedVector> &block, int64_t size, const std::string &id,
               std::function<Expr(const Expr &)> within)
        : loop_(loop), block_(block), front_(block.front()), size_(size), id_(id), within_(std::move(within)) {}

    // Whether the vectors follow one another in the buffer and in the image
    // and share their bounds, fold and row test (whose rows inside are then
    // known), so that the block can move as a whole.
    bool valid() {
        const Ramp *first_index = front_.index.as<Ramp>();
        front_columns_ = load_moved(front_.gather, 0);
        front_load_ = front_columns_.as<Load>();
        const Ramp *front_ramp = front_load_ ? front_load_->index.as<Ramp>() : nullptr;
        if (count() < 2 || !first_index || !is_const_one(first_index->stride) || !front_ramp ||
            !is_const_one(front_ramp->stride))
            return false;
        for (int k = 1; k < count(); k++) {
            const FoldedVector &v = block_[k];
            const Ramp *index = v.index.as<Ramp>();
            const Expr columns = load_moved(v.gather, 0);
            const Load *load = columns.as<Load>();
            const Ramp *ramp = load ? load->index.as<Ramp>() : nullptr;
            // Float blocks name each vector's values apart (integer ones
            // keep the matching they were measured with).
            const bool through_lets = type().is_float();
            auto apart = [&](const Expr &a, const Expr &b) {
                return apart_by(a, b, k * lanes()) || (through_lets && apart_by(within_(a), within_(b), k * lanes()));
            };
            auto same = [&](const Expr &a, const Expr &b) {
                return equal(a, b) || (through_lets && equal(within_(a), within_(b)));
            };
            if (v.store->name != buffer() || !index || !is_const_one(index->stride) || !ramp ||
                load->name != front_load_->name || !apart(ramp->base, front_ramp->base) ||
                !apart(index->base, first_index->base) || !apart(v.gather.start, front_.gather.start) ||
                !same(v.gather.lo, front_.gather.lo) || !same(v.gather.hi, front_.gather.hi) ||
                v.by_max != front_.by_max ||
                v.row_inside.defined() != front_.row_inside.defined() ||
                (v.row_inside.defined() && !equal(v.row_inside, front_.row_inside)))
                return false;
        }
        return rows_inside();
    }

    // The moved block where the image holds a half's columns, else the loop.
    Stmt made() const {
        std::vector<Stmt> firsts, steps, places[2];
        for (int k = 0; k < count(); k++) {
            Expr first = substitute(loop_->name, first_row(), columns(k, false));
            if (front_.row_inside.defined()) first = select(padded(), pad(), first);
            firsts.push_back(into_register(k, first));
            const Expr step = columns(k, true);
            steps.push_back(into_register(k, fold(in_register(k), step)));
            // A side fold takes the same samples (some twice, none of the pad:
            // a float's checks are not changed by a sample taken twice).
            for (const Stmt &side : block_[k].side_folds(first)) firsts.push_back(side);
            for (const Stmt &side : block_[k].side_folds(step)) steps.push_back(side);
            places[half_of(k)].push_back(
                into_buffer(buffer_vector(start() + k * lanes() + cast<int64_t>(move(half_of(k)))), in_register(k)));
        }
        // A half folds into the buffer where its columns lie within a
        // block's width of the buffer's: that is, always where any of them
        // is inside the image (it is moved less than its width). A half
        // moved further holds the pad alone, which `pads` folded.
        const Expr first = cast<int64_t>(first_index()), last = make_const(Int(64), size_ + width());
        for (int half = 0; half < 2; half++) {
            const Expr placed = first + half_start(half) * lanes() + cast<int64_t>(move(half));
            const int half_width = (half_start(half + 1) - half_start(half)) * lanes();
            const Expr within = placed >= -width() && placed + half_width <= last;
            places[half] = {IfThenElse::make(within, Block::make(places[half]))};
        }
        const Expr steps_from = first_row() + (front_.row_inside.defined() ? select(padded(), 0, 1) : 1);
        Stmt moved = Block::make({pads(), Block::make(firsts),
                                  For::make(loop_->name, steps_from, last_row() - steps_from + 1, ForType::Serial,
                                            DeviceAPI::None, Block::make(steps)),
                                  places[0].front(), places[1].front()});
        for (int k = 0; k < count(); k++)
            moved = Allocate::make(register_name(k), type().element_of(), MemoryType::Stack, {lanes()}, const_true(),
                                   moved);
        for (int half = 0; half < 2; half++) {
            const Expr from = start() + half_start(half) * lanes();
            const int half_width = (half_start(half + 1) - half_start(half)) * lanes();
            moved = LetStmt::make(name("shift." + std::to_string(half)),
                                  cast<int32_t>(clamp(from, lo(), hi() - (half_width - 1)) - from), moved);
        }
        // Only a row test can leave mask rows outside the image.
        if (front_.row_inside.defined()) {
            const Expr loop_last = loop_->min + loop_->extent - 1;
            moved = LetStmt::make(name("rows.padded"), first_row() > loop_->min || last_row() < loop_last, moved);
        }
        moved = LetStmt::make(name("rows.to"), rows_to_, moved);
        moved = LetStmt::make(name("rows.from"), rows_from_, moved);
        // Each half must find its columns inside the image.
        const Expr taken = loop_->extent >= 1 && hi() - lo() + 1 >= half_start(1) * lanes();
        return IfThenElse::make(taken, moved, loop_);
    }

    int width() const { return lanes() * count(); }

private:
    const For *loop_;
    const std::vector<FoldedVector> &block_;
    const FoldedVector &front_;
    const int64_t size_;
    const std::string id_;
    const std::function<Expr(const Expr &)> within_;
    // The first vector's columns, read whole (`front_load_` in it).
    Expr front_columns_;
    const Load *front_load_ = nullptr;
    // The rows inside the image: [rows_from_, rows_to_] of the loop's.
    Expr rows_from_, rows_to_;

    int count() const { return static_cast<int>(block_.size()); }
    int lanes() const { return type().lanes(); }
    Type type() const { return front_.gather.choice->type; }
    const std::string &buffer() const { return front_.store->name; }
    Expr first_index() const { return front_.index.as<Ramp>()->base; }
    Expr pad() const { return front_.gather.choice->false_value; }
    Expr lo() const { return cast<int64_t>(front_.gather.lo); }
    Expr hi() const { return cast<int64_t>(front_.gather.hi); }
    Expr start() const { return cast<int64_t>(front_.gather.start); }
    Expr end() const { return start() + width(); }
    Expr fold(const Expr &a, const Expr &b) const { return front_.fold(a, b); }
    // The first vector of each half (and, for 2, the end of the second).
    int half_start(int half) const { return half == 0 ? 0 : half == 1 ? (count() + 1) / 2 : count(); }
    int half_of(int k) const { return k < half_start(1) ? 0 : 1; }
    std::string name(const std::string &what) const { return "moved_block$" + id_ + "." + what; }
    Expr move(int half) const { return Variable::make(Int(32), name("shift." + std::to_string(half))); }
    Expr first_row() const { return Variable::make(Int(32), name("rows.from")); }
    Expr last_row() const { return Variable::make(Int(32), name("rows.to")); }
    Expr padded() const { return Variable::make(Bool(), name("rows.padded")); }

    // All of the loop's rows, but by the image's top and bottom those the
    // row test passes (where the solver finds them exactly).
    bool rows_inside() {
        rows_from_ = loop_->min;
        rows_to_ = loop_->min + loop_->extent - 1;
        if (!front_.row_inside.defined()) return true;
        const Interval inner = solve_for_inner_interval(front_.row_inside, loop_->name);
        const Interval outer = solve_for_outer_interval(front_.row_inside, loop_->name);
        if (!inner.has_lower_bound() || !inner.has_upper_bound() || !equal(inner.min, outer.min) ||
            !equal(inner.max, outer.max))
            return false;
        rows_from_ = max(rows_from_, inner.min);
        rows_to_ = min(rows_to_, inner.max);
        return true;
    }

    // Vector k's columns, moved with its half: the first's, a fixed count
    // along (one address a row for the block, not one a vector). Read in the
    // loop over the rows inside, the rows need no clamp.
    Expr columns(int k, bool rows_inside) const {
        const Expr first_moved = load_moved(front_.gather, move(0));
        const Ramp *ramp = first_moved.as<Load>()->index.as<Ramp>();
        const Type t = ramp->base.type();
        Expr base = ramp->base + make_const(t, k * lanes());
        if (half_of(k)) base += cast(t, move(1) - move(0));
        if (rows_inside && front_.row_inside.defined())
            base = UnclampedRows(loop_->name, front_.row_inside).mutate(base);
        return Load::make(front_load_->type, front_load_->name, Ramp::make(base, ramp->stride, lanes()),
                          front_load_->image, front_load_->param, front_load_->predicate, front_load_->alignment);
    }

    // The buffer's vector of `column`, and `value` folded into it.
    Expr buffer_vector(const Expr &column) const {
        const Type t = first_index().type();
        return Ramp::make(first_index() + cast(t, column - start()), make_one(t), lanes());
    }
    Stmt into_buffer(const Expr &index, const Expr &value) const {
        const Parameter &param = front_.store->param;
        Expr held = Load::make(type(), buffer(), index, Buffer<>(), param, const_true(lanes()), ModulusRemainder());
        return Store::make(buffer(), fold(held, value), index, param, const_true(lanes()), ModulusRemainder());
    }

    // Vector k's fold: a stack vector of its own, which LLVM keeps in a register.
    std::string register_name(int k) const { return name("fold." + std::to_string(k)); }
    Expr in_register(int k) const {
        return Load::make(type(), register_name(k), Ramp::make(0, 1, lanes()), Buffer<>(), Parameter(),
                          const_true(lanes()), ModulusRemainder());
    }
    Stmt into_register(int k, const Expr &value) const {
        return Store::make(register_name(k), value, Ramp::make(0, 1, lanes()), Parameter(), const_true(lanes()),
                           ModulusRemainder());
    }

    // The pad, folded into the block's columns before `lo` and after `hi`,
    // a whole vector at a time from each bound outwards (counts not above
    // zero leave a loop empty).
    Stmt pads() const {
        const std::string vector = name("pad");
        const Expr nth = cast<int64_t>(Variable::make(Int(32), vector)) * lanes();
        const Expr before = min(lo(), end()) - start(), after = end() - max(hi() + 1, start());
        auto pads_from = [&](int first, const Expr &count, const Expr &column) {
            return For::make(vector, first, cast<int32_t>((count + (lanes() - 1)) / lanes()), ForType::Serial,
                             DeviceAPI::None, into_buffer(buffer_vector(column), pad()));
        };
        return Block::make(pads_from(1, before, start() + before - nth), pads_from(0, after, end() - after + nth));
    }
};

class StraddlingColumns : public IRMutator {
    using IRMutator::visit;
    int buffers_ = 0;
    // The constant sizes of the buffers the pass is inside, by name.
    std::map<std::string, int64_t> sizes_;
    // The buffers a moved block writes around, with the block's width.
    std::map<std::string, int> widened_;
    // The lets the pass is inside, outermost first.
    std::vector<const LetStmt *> lets_;

    Stmt visit(const LetStmt *op) override {
        lets_.push_back(op);
        Stmt body = mutate(op->body);
        lets_.pop_back();
        return body.same_as(op->body) ? Stmt(op) : LetStmt::make(op->name, op->value, body);
    }

    // `e`, read inside the pass's lets, with their values substituted.
    Expr within(Expr e) const {
        for (auto let = lets_.rbegin(); let != lets_.rend(); ++let) e = Let::make((*let)->name, (*let)->value, e);
        return simplify(substitute_in_all_lets(e));
    }
    // Whether two expressions read inside the pass's lets are the same.
    bool same(const Expr &a, const Expr &b) const { return equal(a, b) || equal(within(a), within(b)); }

    // A loop over rows whose body (after its lets) is a block of padded
    // gathers folded into the vectors it stores.
    Stmt visit(const For *op) override {
        const LetChain chain(op->body);
        std::vector<Stmt> vectors;
        if (op->for_type != ForType::Serial || !chain.body.as<Block>() || !stores_in_scope(chain.body, {}, &vectors))
            return IRMutator::visit(op);
        std::vector<FoldedVector> block;
        for (const Stmt &vector : vectors) {
            Stmt own = For::make(op->name, op->min, op->extent, op->for_type, op->device_api, chain.around(vector));
            const LetChain store_chain(own.as<For>()->body);
            const Store *store = store_chain.body.as<Store>();
            // A store at a fixed index of another buffer folds into a
            // register beside the vector before it.
            if (!block.empty() && store->name != block.back().store->name &&
                fixed(store_chain.substituted(store->index))) {
                const Expr value = store_chain.substituted(store->value);
                const PaddedGather &sample = block.back().gather;
                PaddedGather g;
                if (!find_padded_gather(value, &g) || !same(Expr(g.gather), Expr(sample.gather)) ||
                    !same(g.choice->condition, sample.choice->condition) ||
                    !same(unmarked(g.choice->false_value), unmarked(sample.choice->false_value)))
                    return IRMutator::visit(op);
                block.back().sides.push_back({store, value, Expr(g.choice)});
                continue;
            }
            block.push_back(folded_vector(op->name, own));
            if (!block.back().defined()) return IRMutator::visit(op);
        }
        Stmt moved = moved_block(op, block);
        return moved.defined() ? moved : IRMutator::visit(op);
    }

    // A moved block writes up to a block's width before or after its
    // buffer's columns: each buffer that has one is widened by that width
    // at both ends, and all its accesses move along by it.
    Stmt visit(const Allocate *op) override {
        int64_t size = 1;
        for (const Expr &extent : op->extents) {
            const int64_t *known = as_const_int(extent);
            size = known && size ? size * *known : 0;
        }
        if (size) sizes_[op->name] = size;
        Stmt body = mutate(op->body);
        sizes_.erase(op->name);
        auto widened = widened_.find(op->name);
        if (widened == widened_.end())
            return Allocate::make(op->name, op->type, op->memory_type, op->extents, op->condition, body, op->new_expr,
                                  op->free_function);
        const int margin = widened->second;
        widened_.erase(widened);
        return Allocate::make(op->name, op->type, op->memory_type, {Expr(static_cast<int32_t>(size + 2 * margin))},
                              op->condition, MovedIndices(op->name, margin).mutate(body), op->new_expr,
                              op->free_function);
    }

    // Every load and store of one buffer `by` elements further along.
    class MovedIndices : public IRMutator {
    public:
        MovedIndices(std::string buffer, int by) : buffer_(std::move(buffer)), by_(by) {}

    private:
        using IRMutator::visit;
        const std::string buffer_;
        const int by_;
        Expr moved(const Expr &index) const { return simplify(index + make_const(index.type(), by_)); }
        Expr visit(const Load *op) override {
            Expr load = IRMutator::visit(op);
            op = load.as<Load>();
            if (op->name != buffer_) return load;
            return Load::make(op->type, op->name, moved(op->index), op->image, op->param, op->predicate,
                              op->alignment + by_);
        }
        Stmt visit(const Store *op) override {
            Stmt store = IRMutator::visit(op);
            op = store.as<Store>();
            if (op->name != buffer_) return store;
            return Store::make(op->name, op->value, moved(op->index), op->param, op->predicate,
                               op->alignment + by_);
        }
    };

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

    // Whether an index names no variable (a register's).
    static bool fixed(const Expr &index) {
        const Ramp *ramp = index.as<Ramp>();
        return is_const(ramp ? ramp->base : index);
    }

    // Whether `value` folds `choice` into `stored` by a maximum (`by_max`)
    // or minimum: of integers, or a float's strict choice of the greater
    // (lesser) of the two, which takes a value twice as once as well where
    // neither is NaN or -0.0 (a row holding one is folded again).
    static bool fold_of(const Expr &value, const Expr &choice, Expr *stored, bool *by_max) {
        if (const Max *greatest = value.as<Max>()) {
            *stored = greatest->a, *by_max = true;
            return equal(greatest->b, choice);
        }
        if (const Min *least = value.as<Min>()) {
            *stored = least->a, *by_max = false;
            return equal(least->b, choice);
        }
        const Expr plain = unmarked(value);
        const Select *kept = plain.as<Select>();
        if (!kept || !equal(unmarked(kept->false_value), choice)) return false;
        *stored = unmarked(kept->true_value);
        if (const GT *greater = kept->condition.as<GT>()) {
            *by_max = true;
            return equal(unmarked(greater->a), *stored) && equal(unmarked(greater->b), choice);
        }
        const LT *less = kept->condition.as<LT>();
        *by_max = false;
        return less && equal(unmarked(less->a), *stored) && equal(unmarked(less->b), choice);
    }

    // The vector `own` (a loop over `row` around one store) folds, or
    // nothing where it does not fold integers or floats from a padded
    // gather whose columns, lane tests and pad stay the same from row to row.
    static FoldedVector folded_vector(const std::string &row, const Stmt &own) {
        const LetChain chain(own.as<For>()->body);
        const Store *store = chain.body.as<Store>();
        const Expr value = chain.substituted(store->value), index = chain.substituted(store->index);
        PaddedGather g;
        if (expr_uses_var(index, row) || !find_padded_gather(value, &g) ||
            !(g.choice->type.is_float() || (g.choice->type.is_int_or_uint() && g.choice->type.bits() >= 8)) ||
            !equal(g.choice->true_value, Expr(g.gather)))
            return {};
        // A row test, where there is one, is the same for every lane.
        Expr columns_inside = g.choice->condition, row_inside;
        const And *both = columns_inside.as<And>();
        const Broadcast *row_test = both ? both->b.as<Broadcast>() : nullptr;
        if (row_test && expr_uses_var(row_test->value, row)) {
            columns_inside = both->a;
            row_inside = row_test->value;
        }
        for (const Expr &e : {g.start, g.lo, g.hi, columns_inside, g.choice->false_value})
            if (expr_uses_var(e, row)) return {};
        Expr stored;
        bool by_max = false;
        if (!fold_of(value, Expr(g.choice), &stored, &by_max)) return {};
        const Load *load = stored.as<Load>();
        // Each vector must find its own samples: none reads another's.
        if (!load || load->name != store->name || !equal(load->index, index) ||
            !reads_only_at(value, store->name, index))
            return {};
        return {own, store, value, index, stored, g, row_inside, by_max, {}};
    }

    // A block whose vectors follow one another is folded moved just
    // inside the image (MovedBlock); others keep their loop.
    Stmt moved_block(const For *op, const std::vector<FoldedVector> &block) {
        const std::string &buffer = block.front().store->name;
        if (!sizes_.count(buffer)) return Stmt();
        MovedBlock moved(op, block, sizes_.at(buffer), std::to_string(buffers_++),
                         [this](const Expr &e) { return within(e); });
        if (!moved.valid()) return Stmt();
        // Its stores reach a block's width either side of the buffer's columns.
        widened_[buffer] = std::max(widened_[buffer], moved.width());
        return moved.made();
    }
};

}  // namespace

IRMutator *make_straddling_columns_pass() { return new StraddlingColumns(); }

}  // namespace flatmorph
