#include "border_loads.h"

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

bool is_gather(const Load *op) { return op->type.is_vector() && !op->index.as<Ramp>(); }

// The first lane-wise choice between a gathered sample and something else:
// select(inside, load of clamped lanes, pad).
class FindPaddedGather : public IRVisitor {
public:
    const Select *found = nullptr;

private:
    using IRVisitor::visit;
    void visit(const Select *op) override {
        if (found) return;
        if (op->type.is_vector() && op->condition.type().is_vector() && has_gather(op->true_value)) {
            found = op;
            return;
        }
        IRVisitor::visit(op);
    }
    static bool has_gather(const Expr &e) {
        class Gathers : public IRVisitor {
            using IRVisitor::visit;
            void visit(const Load *op) override { any = any || is_gather(op); }

        public:
            bool any = false;
        } gathers;
        e.accept(&gathers);
        return gathers.any;
    }
};

// The gathered value with its lanes' clamps dropped and its index stated as
// the dense ramp it then is: in the index, max(min(ramp, hi), lo) becomes the
// ramp, and widening or offsetting a ramp gives a ramp.
class Unclamped : public IRMutator {
    using IRMutator::visit;
    bool in_index_ = false;

    Expr visit(const Max *op) override {
        const Min *inner = op->a.as<Min>();
        if (in_index_ && op->type.is_vector() && inner && inner->a.as<Ramp>()) return mutate(inner->a);
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
    Expr visit(const Load *op) override {
        if (!is_gather(op)) return IRMutator::visit(op);
        in_index_ = true;
        Expr index = simplify(mutate(op->index));
        in_index_ = false;
        if (!index.as<Ramp>()) return op;
        return Load::make(op->type, op->name, index, op->image, op->param, op->predicate, op->alignment);
    }
};

class BorderLoads : public IRMutator {
    using IRMutator::visit;

    // `with` holds a padded gather: test all its lanes at once, and where all
    // are inside use `dense`, the same statement with the whole-vector load.
    template <typename MakeStmt>
    Stmt both_ways(const Expr &with, MakeStmt make) {
        FindPaddedGather finder;
        with.accept(&finder);
        if (!finder.found) return make(with);
        const Select *choice = finder.found;
        Expr dense = Unclamped().mutate(choice->true_value);
        Expr all_inside = VectorReduce::make(VectorReduce::And, choice->condition, 1);
        return IfThenElse::make(all_inside, make(substitute(Expr(choice), dense, with)), make(with));
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
