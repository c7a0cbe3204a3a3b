#include "border_loads.h"

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

bool is_gather(const Load *op) { return op->type.is_vector() && !op->index.as<Ramp>(); }

// The gathered load a sample is, perhaps converted (bool images are read as
// bytes) or marked strict (a float sample folded by arithmetic), or null.
const Load *gathered_load(Expr e) {
    for (;;) {
        const Call *strict = Call::as_intrinsic(e, {Call::strict_float});
        if (const Cast *c = e.as<Cast>()) e = c->value;
        else if (strict) e = strict->args[0];
        else break;
    }
    const Load *load = e.as<Load>();
    return load && is_gather(load) ? load : nullptr;
}

// The first lane-wise choice between a gathered sample and something else:
// select(inside, load of clamped lanes, pad).
class FindPaddedGather : public IRVisitor {
public:
    const Select *found = nullptr;

private:
    using IRVisitor::visit;
    void visit(const Select *op) override {
        if (found) return;
        if (op->type.is_vector() && op->condition.type().is_vector() && gathered_load(op->true_value)) {
            found = op;
            return;
        }
        IRVisitor::visit(op);
    }
};

// A vector clamp of columns, max(min(ramp, hi), lo), which the simplifier may
// also state as max(min(ramp, hi) + c, lo): the lanes it clamps and its bounds.
struct ClampedLanes {
    Expr lanes, lo, hi;
};

bool clamped_lanes(const Max *clamp, ClampedLanes *c) {
    const Broadcast *lo = clamp->b.as<Broadcast>();
    const Add *shifted = clamp->a.as<Add>();
    const Broadcast *shift = shifted ? shifted->b.as<Broadcast>() : nullptr;
    const Min *below_hi = shift ? shifted->a.as<Min>() : clamp->a.as<Min>();
    const Ramp *lanes = below_hi ? below_hi->a.as<Ramp>() : nullptr;
    const Broadcast *hi = below_hi ? below_hi->b.as<Broadcast>() : nullptr;
    if (!lo || !lanes || !hi) return false;
    Expr offset = shift ? shift->value : make_zero(lanes->base.type());
    *c = {Ramp::make(simplify(lanes->base + offset), lanes->stride, lanes->lanes), lo->value,
          simplify(hi->value + offset)};
    return true;
}

// Narrows [lo, hi], the columns of `load`'s clamp, to those a dense load may
// read: an earlier stage, held in an allocation of the variant, has only the
// columns computed of it, which may be fewer than its clamp's (the image's
// frame). The gathers read only those; a vector just inside the clamp might not.
void readable_columns(const Load *load, Expr *lo, Expr *hi) {
    if (load->param.defined() || load->image.defined()) return;
    Expr first = Variable::make(Int(32), load->name + ".x.min_realized");
    Expr count = Variable::make(Int(32), load->name + ".x.extent_realized");
    *lo = max(*lo, first);
    *hi = min(*hi, first + count - 1);
}

// The gathered value read as one dense ramp of columns: in the index, a clamp
// of columns becomes the ramp itself (`Dense::as_is`, right where every lane
// is inside) or the ramp moved just inside the clamp's bounds
// (`Dense::moved_inside`, which needs bounds at least a vector apart); widening
// or offsetting a ramp gives a ramp.
enum class Dense { as_is, moved_inside, moved_by };

class DenseLoad : public IRMutator {
public:
    explicit DenseLoad(Dense how, Expr shift = Expr()) : how_(how), shift_(std::move(shift)) {}

private:
    using IRMutator::visit;
    const Dense how_;
    const Expr shift_;
    bool in_index_ = false;
    const Load *load_ = nullptr;

    Expr visit(const Max *op) override {
        ClampedLanes c;
        if (!in_index_ || !op->type.is_vector() || !clamped_lanes(op, &c)) return IRMutator::visit(op);
        if (how_ == Dense::as_is) return c.lanes;
        const Ramp *r = c.lanes.as<Ramp>();
        if (how_ == Dense::moved_by) return Ramp::make(r->base + shift_, r->stride, r->lanes);
        readable_columns(load_, &c.lo, &c.hi);
        return Ramp::make(clamp(r->base, c.lo, c.hi - (r->lanes - 1)), r->stride, r->lanes);
    }
    Expr visit(const Cast *op) override {
        Expr value = mutate(op->value);
        const Ramp *r = value.as<Ramp>();
        if (in_index_ && r) {
            const Type t = op->type.element_of();
            return Ramp::make(Cast::make(t, r->base), Cast::make(t, r->stride), r->lanes);
        }
        return Cast::make(op->type, value);
    }
    Expr visit(const Add *op) override {
        Expr a = mutate(op->a), b = mutate(op->b);
        const Ramp *r = a.as<Ramp>();
        const Broadcast *offset = b.as<Broadcast>();
        if (in_index_ && r && offset) return Ramp::make(r->base + offset->value, r->stride, r->lanes);
        return Add::make(a, b);
    }
    Expr visit(const Sub *op) override {
        Expr a = mutate(op->a), b = mutate(op->b);
        const Ramp *r = a.as<Ramp>();
        const Broadcast *offset = b.as<Broadcast>();
        if (in_index_ && r && offset) return Ramp::make(r->base - offset->value, r->stride, r->lanes);
        return Sub::make(a, b);
    }
    Expr visit(const Load *op) override {
        if (!is_gather(op)) return IRMutator::visit(op);
        in_index_ = true;
        load_ = op;
        Expr index = simplify(mutate(op->index));
        in_index_ = false;
        if (!index.as<Ramp>()) return op;
        return Load::make(op->type, op->name, index, op->image, op->param, op->predicate, op->alignment);
    }
};

// The index of a padded gather: int64(clamp(ramp(start, 1, lanes), lo, hi))
// plus the row's offset, `lo` and `hi` being the first and last column inside
// (for an earlier stage, less the first column it holds).
struct ClampedWindow {
    Expr start, lo, hi;
};

bool clamped_window(const Load *gather, ClampedWindow *w) {
    const Add *add = gather->index.as<Add>();
    const Cast *widened = add ? add->a.as<Cast>() : nullptr;
    Expr column = widened ? widened->value : Expr();
    const Sub *rebased = column.defined() ? column.as<Sub>() : nullptr;
    if (rebased && rebased->b.as<Broadcast>()) column = rebased->a;
    const Max *above_lo = column.defined() ? column.as<Max>() : nullptr;
    ClampedLanes c;
    if (!add || !add->b.as<Broadcast>() || !above_lo || !clamped_lanes(above_lo, &c)) return false;
    const Ramp *lanes = c.lanes.as<Ramp>();
    if (!is_const_one(lanes->stride)) return false;
    readable_columns(gather, &c.lo, &c.hi);
    *w = {lanes->base, c.lo, c.hi};
    return true;
}

class BorderLoads : public IRMutator {
public:
    explicit BorderLoads(const Target &target) : masked_loads_(target.has_feature(Target::AVX)) {}

private:
    using IRMutator::visit;
    // AVX loads a vector of 32- or 64-bit lanes under a mask of lanes, and
    // never touches the lanes left out.
    const bool masked_loads_;
    int windows_ = 0;

    // `with` holds a padded gather over a window of columns clamped to the
    // image's (or an earlier stage's): test its lanes at once by the window's
    // two ends and its row, and where all are inside use the same statement
    // with a whole-vector load. Otherwise, on a tile that straddles the edge,
    // the lanes inside load their own columns under a mask where the target
    // can (AVX, lanes of 32 or 64 bits); elsewhere the vector of columns just
    // inside the bounds is loaded whole into a small stack buffer at the
    // place it has in the window, and the lanes inside read it from there.
    // Each lane holds the same sample as its clamped load gives, and the pad
    // is chosen as before. The ends are judged in 64 bits: lanes whose
    // columns wrap around 32 bits are not inside, however the wrapped
    // numbers compare.
    template <typename MakeStmt>
    Stmt both_ways(Expr with, MakeStmt make) {
        FindPaddedGather finder;
        with.accept(&finder);
        if (!finder.found) return make(with);
        // The window's ends are tested outside the expression: none of the
        // names they use may be bound inside it.
        with = substitute_in_all_lets(with);
        PaddedGather w;
        if (!find_padded_gather(with, &w)) return make(with);
        const Select *choice = w.choice;
        const Load *gather = w.gather;
        const int lanes = choice->type.lanes();
        auto using_value = [&](const Expr &value) { return make(substitute(Expr(choice), value, with)); };
        Expr start = cast<int64_t>(w.start), lo = cast<int64_t>(w.lo), hi = cast<int64_t>(w.hi);
        Expr row_inside = simplify(Shuffle::make_extract_element(choice->condition, 0));
        Expr all_inside = start >= lo && start + (lanes - 1) <= hi && row_inside;
        Stmt whole = using_value(DenseLoad(Dense::as_is).mutate(choice->true_value));
        const int lane_bits = gather->type.bits();
        if (masked_loads_ && (lane_bits == 32 || lane_bits == 64)) {
            const Expr dense_load = as_dense_load(Expr(gather));
            const Load *dense = dense_load.as<Load>();
            Expr masked = Load::make(dense->type, dense->name, dense->index, dense->image, dense->param,
                                     choice->condition, dense->alignment);
            Stmt straddling = using_value(
                select(choice->condition, substitute(Expr(gather), masked, choice->true_value), choice->false_value));
            return IfThenElse::make(all_inside, whole, straddling);
        }

        const std::string buffer = "border_window$" + std::to_string(windows_++);
        Stmt windowed = with_window(w, load_just_inside(w), buffer, [&](const Expr &window) {
            return using_value(select(choice->condition, substitute(Expr(gather), window, choice->true_value),
                                      choice->false_value));
        });
        // The vector just inside exists where the bounds are a vector apart at least.
        Stmt straddling = IfThenElse::make(hi - lo + 1 >= lanes, windowed, make(with));
        return IfThenElse::make(all_inside, whole, straddling);
    }

    Stmt visit(const Store *op) override {
        return both_ways(op->value, [&](const Expr &value) {
            return Store::make(op->name, value, op->index, op->param, op->predicate, op->alignment);
        });
    }
    Stmt visit(const LetStmt *op) override {
        Stmt body = mutate(op->body);
        return both_ways(op->value, [&](const Expr &value) { return LetStmt::make(op->name, value, body); });
    }
};

}  // namespace

bool find_padded_gather(const Expr &e, PaddedGather *found) {
    FindPaddedGather finder;
    e.accept(&finder);
    const Load *gather = finder.found ? gathered_load(finder.found->true_value) : nullptr;
    ClampedWindow w;
    if (!gather || !clamped_window(gather, &w)) return false;
    *found = {finder.found, gather, w.start, w.lo, w.hi};
    return true;
}

Expr as_dense_load(const Expr &e) { return DenseLoad(Dense::as_is).mutate(e); }

Expr load_just_inside(const PaddedGather &g) { return DenseLoad(Dense::moved_inside).mutate(Expr(g.gather)); }

Expr load_moved(const PaddedGather &g, const Expr &shift) {
    return DenseLoad(Dense::moved_by, shift).mutate(Expr(g.gather));
}

Stmt with_window(const PaddedGather &g, const Expr &just_inside, const std::string &buffer,
                 const std::function<Stmt(const Expr &)> &use) {
    // The buffer holds 3 vectors: the window is its middle one, and the
    // vector loaded whole lands at most one vector before or after it.
    const int lanes = g.gather->type.lanes();
    const Type t = g.gather->type.element_of();
    auto ramp_at = [&](Expr first) { return Ramp::make(first, 1, lanes); };
    Expr start = cast<int64_t>(g.start);
    Expr moved = cast<int32_t>(clamp(cast<int64_t>(clamp(g.start, g.lo, g.hi - (lanes - 1))) - start, -lanes, lanes));
    Stmt fill = Block::make(Store::make(buffer, Broadcast::make(make_zero(t), lanes), ramp_at(lanes), Parameter(),
                                        const_true(lanes), ModulusRemainder()),
                            Store::make(buffer, just_inside, ramp_at(lanes + moved), Parameter(), const_true(lanes),
                                        ModulusRemainder()));
    Expr window = Load::make(g.gather->type, buffer, ramp_at(lanes), Buffer<>(), Parameter(), const_true(lanes),
                             ModulusRemainder());
    return Allocate::make(buffer, t, MemoryType::Stack, {3 * lanes}, const_true(), Block::make(fill, use(window)));
}

IRMutator *make_border_loads_pass(const Target &target) { return new BorderLoads(target); }

}  // namespace flatmorph
