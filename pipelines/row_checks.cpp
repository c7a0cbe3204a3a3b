#include "row_checks.h"

#include <map>
#include <stdexcept>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// Reads of one buffer within a fold, made reads of an accumulator instead.
class ReadAccumulator : public IRMutator {
public:
    ReadAccumulator(const std::string &buffer, Expr accumulator)
        : buffer_(buffer), accumulator_(std::move(accumulator)) {}
    bool replaced = false;

private:
    using IRMutator::visit;
    const std::string &buffer_;
    const Expr accumulator_;

    Expr visit(const Load *op) override {
        if (op->name != buffer_) return IRMutator::visit(op);
        if (op->type != accumulator_.type()) throw std::logic_error("a check's fold reads a column of another width");
        replaced = true;
        return accumulator_;
    }
};

// The accumulators a loop body's sums alternate between.
constexpr int sum_chains = 2;

class GatherChecks : public IRMutator {
public:
    GatherChecks(const RowChecks &checks, std::string prefix) : checks_(checks), prefix_(std::move(prefix)) {}

    // Each accumulator the folds went to: its name and type, and whether it holds sums.
    struct Accumulator {
        Type type;
        bool sums;
    };
    std::map<std::string, Accumulator> accumulators;

    Expr identity(const Accumulator &a) const {
        if (a.sums || !checks_.word_minimum) return make_zero(a.type);
        return in_lanes(a.type.element_of().max(), a.type);
    }

    // Whether an accumulator saw a NaN or -0.0 (see the float column in stages.h).
    Expr flagged(const std::string &name, const Accumulator &a) const {
        Expr value = Load::make(a.type, name, index(a.type), Buffer<>(), Parameter(), const_true(a.type.lanes()), {});
        if (a.sums) return is_nan(value);
        if (checks_.word_minimum) return value == in_lanes(a.type.element_of().min(), a.type);
        return value != make_zero(a.type);
    }

    static Expr index(const Type &t) { return t.is_vector() ? Ramp::make(0, 1, t.lanes()) : Expr(0); }
    static Expr in_lanes(Expr scalar, const Type &t) {
        return t.is_vector() ? Broadcast::make(scalar, t.lanes()) : scalar;
    }

private:
    using IRMutator::visit;
    const RowChecks &checks_;
    const std::string prefix_;
    // The sums folded so far in each enclosing loop's body.
    std::vector<int> sums_{0};

    Stmt visit(const For *op) override {
        sums_.push_back(0);
        Stmt s = IRMutator::visit(op);
        sums_.pop_back();
        return s;
    }

    Stmt visit(const Store *op) override {
        if (op->name == checks_.tests) return Evaluate::make(0);
        const bool sums = op->name == checks_.sums;
        if (!sums && op->name != checks_.words) return IRMutator::visit(op);
        const Type t = op->value.type();
        const int chain = sums ? sums_.back()++ % sum_chains : 0;
        const std::string name =
            prefix_ + (sums ? ".sums" : ".words") + std::to_string(t.lanes()) + "_" + std::to_string(chain);
        accumulators.emplace(name, Accumulator{t, sums});
        Expr accumulator = Load::make(t, name, index(t), Buffer<>(), Parameter(), const_true(t.lanes()), {});
        ReadAccumulator read(op->name, accumulator);
        Expr value = read.mutate(op->value);
        // A column's first sample starts its fold: it is folded into the accumulator instead.
        if (!read.replaced) {
            if (sums) value = strict_float(accumulator + value);
            else value = checks_.word_minimum ? min(accumulator, value) : accumulator | value;
        }
        return Store::make(name, value, index(t), Parameter(), const_true(t.lanes()), {});
    }

    Expr visit(const Load *op) override {
        if (op->name == checks_.sums || op->name == checks_.words)
            throw std::logic_error("a column's check is read outside its fold");
        return IRMutator::visit(op);
    }

    Stmt visit(const Allocate *op) override {
        if (op->name == checks_.sums || op->name == checks_.words) return mutate(op->body);
        return IRMutator::visit(op);
    }

    Stmt visit(const Free *op) override {
        if (op->name == checks_.sums || op->name == checks_.words) return Evaluate::make(0);
        return IRMutator::visit(op);
    }

    // The lets that placed the tests are no longer read.
    Stmt visit(const LetStmt *op) override {
        Stmt body = mutate(op->body);
        return stmt_uses_var(body, op->name) ? LetStmt::make(op->name, op->value, body) : body;
    }
};

Stmt gathered(const Stmt &row_body, const RowChecks &checks, const std::string &accumulators) {
    GatherChecks gather(checks, accumulators);
    Stmt body = gather.mutate(row_body);
    std::vector<Stmt> starts;
    Expr any = make_zero(UInt(8));
    for (const auto &[name, a] : gather.accumulators) {
        starts.push_back(Store::make(name, gather.identity(a), GatherChecks::index(a.type), Parameter(),
                                     const_true(a.type.lanes()), {}));
        Expr flagged = cast(UInt(8, a.type.lanes()), gather.flagged(name, a));
        if (a.type.is_vector()) flagged = VectorReduce::make(VectorReduce::Max, flagged, 1);
        any = max(any, flagged);
    }
    starts.push_back(body);
    starts.push_back(Store::make(checks.row_flag, any, 0, Parameter(), const_true(), {}));
    body = Block::make(starts);
    for (const auto &[name, a] : gather.accumulators)
        body = Allocate::make(name, a.type.element_of(), MemoryType::Stack, {a.type.lanes()}, const_true(), body);
    return body;
}

class RowChecksPass : public IRMutator {
public:
    RowChecksPass(RowChecks checks, std::string accumulators)
        : checks_(std::move(checks)), accumulators_(std::move(accumulators)) {}

private:
    using IRMutator::visit;
    const RowChecks checks_;
    const std::string accumulators_;
    bool done_ = false;

    Stmt visit(const For *op) override {
        if (done_ || op->for_type != ForType::Parallel) return IRMutator::visit(op);
        done_ = true;
        return For::make(op->name, op->min, op->extent, op->for_type, op->device_api,
                         gathered(op->body, checks_, accumulators_));
    }
};

}  // namespace

IRMutator *make_row_checks_pass(const RowChecks &checks, const std::string &accumulators) {
    return new RowChecksPass(checks, accumulators);
}

}  // namespace flatmorph
