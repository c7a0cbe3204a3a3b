#include "lane_tests.h"

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

class LaneTests : public IRMutator {
    using IRMutator::visit;

    Expr visit(const Select *op) override {
        Expr condition = mutate(op->condition);
        Expr chosen = mutate(op->true_value), otherwise = mutate(op->false_value);
        const int bits = op->type.bits();
        if (op->type.is_vector() && condition.type().is_vector() && (bits == 8 || bits == 16))
            condition = narrowed(condition, Int(bits));
        return Select::make(condition, chosen, otherwise);
    }

    // `s - base` clamped into [-1, n] and converted to `lane`: the lane
    // indices compare with it as the columns compare with `s`.
    static Expr offset(const Expr &s, const Ramp *ramp, Type lane) {
        Expr d = cast<int64_t>(s) - cast<int64_t>(ramp->base);
        return Broadcast::make(cast(lane, clamp(d, make_const(Int(64), -1), make_const(Int(64), ramp->lanes))),
                               ramp->lanes);
    }
    static const Ramp *dense_ramp(const Expr &e) {
        const Ramp *r = e.as<Ramp>();
        return r && is_const_one(r->stride) && r->base.type() == Int(32) ? r : nullptr;
    }
    static const Expr *broadcast_value(const Expr &e) {
        const Broadcast *b = e.as<Broadcast>();
        return b ? &b->value : nullptr;
    }

    // Each comparison of dense columns with one column, within a lane
    // mask of ands, ors and nots, as a comparison of lane indices.
    Expr narrowed(const Expr &e, Type lane) const {
        if (const And *op = e.as<And>()) return narrowed(op->a, lane) && narrowed(op->b, lane);
        if (const Or *op = e.as<Or>()) return narrowed(op->a, lane) || narrowed(op->b, lane);
        if (const Not *op = e.as<Not>()) return !narrowed(op->a, lane);
        Expr a, b;
        bool strict;
        if (const LT *op = e.as<LT>()) a = op->a, b = op->b, strict = true;
        else if (const LE *op = e.as<LE>()) a = op->a, b = op->b, strict = false;
        else return e;
        const int n = e.type().lanes();
        if (n >= (1 << (lane.bits() - 1))) return e;  // the indices and -1 .. n must fit in the lanes
        Expr index = Ramp::make(make_zero(lane), make_one(lane), n);
        if (const Ramp *r = dense_ramp(a); r && broadcast_value(b)) {
            Expr bound = offset(*broadcast_value(b), r, lane);
            return strict ? index < bound : index <= bound;
        }
        if (const Ramp *r = dense_ramp(b); r && broadcast_value(a)) {
            Expr bound = offset(*broadcast_value(a), r, lane);
            return strict ? bound < index : bound <= index;
        }
        return e;
    }
};

}  // namespace

IRMutator *make_lane_tests_pass() { return new LaneTests; }

}  // namespace flatmorph
