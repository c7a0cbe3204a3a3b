#include "border_loads.h"

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

bool is_gather(const Load *op) { return op->type.is_vector() && !op->index.as<Ramp>(); }

// The gathered load a sample is, perhaps converted (bool images are read as
// bytes), or null.
const Load *gathered_load(Expr e) {
    while (const Cast *c = e.as<Cast>()) e = c->value;
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

// The gathered value with its lanes' clamps dropped and its index stated as
// the dense ramp it then is: in the index, a clamp of columns becomes the
// ramp, and widening or offsetting a ramp gives a ramp.
class Unclamped : public IRMutator {
    using IRMutator::visit;
    bool in_index_ = false;

    Expr visit(const Max *op) override {
        ClampedLanes c;
        if (in_index_ && op->type.is_vector() && clamped_lanes(op, &c)) return c.lanes;
        return IRMutator::visit(op);
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
        Expr index = simplify(mutate(op->index));
        in_index_ = false;
        if (!index.as<Ramp>()) return op;
        return Load::make(op->type, op->name, index, op->image, op->param, op->predicate, op->alignment);
    }
};

// `lanes` lanes of a vector expression from lane `begin`, worked out lane-wise
// down to its ramps and broadcasts, so that the half of a gather gathers only
// its half and the half of a clamped ramp is still one.
class LanesOf : public IRMutator {
public:
    LanesOf(int begin, int lanes) : begin_(begin), lanes_(lanes) {}

private:
    using IRMutator::visit;
    const int begin_, lanes_;

    Expr visit(const Ramp *op) override {
        return Ramp::make(simplify(op->base + op->stride * begin_), op->stride, lanes_);
    }
    Expr visit(const Broadcast *op) override { return Broadcast::make(op->value, lanes_); }
    Expr visit(const Cast *op) override { return Cast::make(op->type.with_lanes(lanes_), mutate(op->value)); }
    Expr visit(const Load *op) override {
        return Load::make(op->type.with_lanes(lanes_), op->name, mutate(op->index), op->image, op->param,
                          mutate(op->predicate), op->alignment);
    }
    Expr visit(const Variable *op) override { return whole_slice(op); }
    Expr visit(const Call *op) override { return whole_slice(op); }
    Expr whole_slice(const Expr &e) const {
        return e.type().is_vector() ? Shuffle::make_slice(e, begin_, 1, lanes_) : e;
    }
};

Expr lanes_of(const Expr &e, int begin, int lanes) { return LanesOf(begin, lanes).mutate(e); }

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
    *w = {lanes->base, c.lo, c.hi};
    return true;
}

class BorderLoads : public IRMutator {
    using IRMutator::visit;

    // `with` holds a padded gather over a window of columns clamped to the
    // image's (or an earlier stage's): test its lanes at once by the window's
    // two ends and its row, and where all are inside use the same statement
    // with a whole-vector load. Otherwise, on a tile that straddles the edge,
    // one half of the lanes often lies wholly inside: that half takes a
    // whole-vector load and only the other half is gathered. The ends are
    // judged in 64 bits: lanes whose columns wrap around 32 bits are not
    // inside, however the wrapped numbers compare.
    template <typename MakeStmt>
    Stmt both_ways(const Expr &with, MakeStmt make) {
        FindPaddedGather finder;
        with.accept(&finder);
        ClampedWindow w;
        if (!finder.found || !clamped_window(gathered_load(finder.found->true_value), &w)) return make(with);
        const Select *choice = finder.found;
        const int lanes = choice->type.lanes(), half = lanes / 2;
        auto using_value = [&](const Expr &value) { return make(substitute(Expr(choice), value, with)); };
        auto all_inside = [&](int begin, int n) {
            Expr row_inside = simplify(Shuffle::make_extract_element(choice->condition, begin));
            Expr first = cast<int64_t>(w.start) + begin;
            return first >= cast<int64_t>(w.lo) && first + (n - 1) <= cast<int64_t>(w.hi) && row_inside;
        };
        Unclamped unclamped;
        Stmt otherwise = make(with);
        if (lanes >= 8) {
            Expr halves[2][2];  // [half][0: as it was, 1: whole-vector load]
            for (int h = 0; h < 2; h++) {
                Expr sample = lanes_of(choice->true_value, h * half, half);
                halves[h][0] = select(lanes_of(choice->condition, h * half, half), sample,
                                      lanes_of(choice->false_value, h * half, half));
                halves[h][1] = unclamped.mutate(sample);
            }
            otherwise = IfThenElse::make(
                all_inside(0, half), using_value(Shuffle::make_concat({halves[0][1], halves[1][0]})),
                IfThenElse::make(all_inside(half, half),
                                 using_value(Shuffle::make_concat({halves[0][0], halves[1][1]})), otherwise));
        }
        return IfThenElse::make(all_inside(0, lanes), using_value(unclamped.mutate(choice->true_value)), otherwise);
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

IRMutator *make_border_loads_pass() { return new BorderLoads(); }

}  // namespace flatmorph
