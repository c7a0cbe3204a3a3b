#include "loop_steps.h"

#include <string>
#include <utility>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

class LoopSteps : public IRMutator {
public:
    explicit LoopSteps(std::string within) : within_(std::move(within)) {}

private:
    using IRMutator::visit;
    const std::string within_;
    int inside_ = 0;                  // how many enclosing loops are named for the pass
    std::vector<std::string> loops_;  // enclosing loop variables, innermost last

    Stmt visit(const For *op) override {
        const bool named = within_.empty() || ends_with(op->name, within_);
        loops_.push_back(op->name);
        inside_ += named;
        Stmt s = IRMutator::visit(op);
        inside_ -= named;
        loops_.pop_back();
        return s;
    }

    // int64(e + k) as int64(e) + k for a constant k, and int64(e) as
    // int64(e with v = 0) + int64(v) * c when e is e(0) + c * v for a constant
    // c, for each enclosing loop variable v it uses.
    Expr widened(const Expr &e, size_t depth) {
        if (const Add *sum = e.as<Add>()) {
            if (const int64_t *c = as_const_int(sum->b)) return widened(sum->a, depth) + make_const(Int(64), *c);
        }
        for (size_t i = depth; i-- > 0;) {
            const std::string &name = loops_[i];
            if (!expr_uses_var(e, name)) continue;
            Expr v = Variable::make(Int(32), name);
            Expr at_zero = simplify(substitute(name, 0, e));
            Expr step = simplify(substitute(name, 1, e) - at_zero);
            const int64_t *c = as_const_int(step);
            if (!c || !is_const_zero(simplify(e - (at_zero + step * v)))) return cast<int64_t>(e);
            Expr rest = widened(at_zero, i);
            return *c == 1 ? rest + cast<int64_t>(v) : rest + cast<int64_t>(v) * make_const(Int(64), *c);
        }
        return cast<int64_t>(e);
    }

    Expr visit(const Cast *op) override {
        Expr value = mutate(op->value);
        if (inside_ && op->type == Int(64) && value.type() == Int(32)) return widened(value, loops_.size());
        return Cast::make(op->type, value);
    }
};

}  // namespace

IRMutator *make_loop_steps_pass(const std::string &within) { return new LoopSteps(within); }

}  // namespace flatmorph
