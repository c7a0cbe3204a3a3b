#include "invariant_branches.h"

#include "let_chains.h"

#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// Whether an expression reads memory.
class ReadsMemory : public IRVisitor {
public:
    bool found = false;

private:
    using IRVisitor::visit;
    void visit(const Load *) override { found = true; }
};

class InvariantBranches : public IRMutator {
    using IRMutator::visit;

    Stmt visit(const For *op) override {
        Stmt body = mutate(op->body);
        auto loop_of = [&](const Stmt &s) {
            return For::make(op->name, op->min, op->extent, op->for_type, op->device_api, s);
        };
        if (op->for_type != ForType::Serial) return loop_of(body);
        const LetChain chain(body);
        const IfThenElse *branch = chain.body.as<IfThenElse>();
        if (branch && decided_outside(branch->condition, op->name, names_of(chain.lets))) {
            // One branch: a loop for each of its cases, each unswitched again.
            auto unswitched = [&](const Stmt &s) { return visit(loop_of(chain.around(s)).as<For>()); };
            Stmt else_loop = branch->else_case.defined() ? unswitched(branch->else_case) : Stmt();
            return IfThenElse::make(branch->condition, unswitched(branch->then_case), else_loop);
        }
        // Several: one loop taking every first case, where all their conditions hold.
        std::vector<Expr> conditions;
        std::vector<std::string> lets;
        Stmt taken = taking_first_cases(body, op->name, lets, conditions);
        if (conditions.empty()) return loop_of(body);
        Expr all = conditions.front();
        for (size_t i = 1; i < conditions.size(); i++) all = all && conditions[i];
        return IfThenElse::make(all, loop_of(taken), loop_of(body));
    }

    static std::vector<std::string> names_of(const std::vector<const LetStmt *> &lets) {
        std::vector<std::string> names;
        for (const LetStmt *let : lets) names.push_back(let->name);
        return names;
    }

    // A condition reading memory could read what the loop writes: it stays.
    static bool decided_outside(const Expr &condition, const std::string &loop, const std::vector<std::string> &lets) {
        ReadsMemory reads;
        condition.accept(&reads);
        if (reads.found || expr_uses_var(condition, loop)) return false;
        for (const std::string &let : lets)
            if (expr_uses_var(condition, let)) return false;
        return true;
    }

    // `s` with each branch decided outside the loop replaced by its first
    // case (its condition kept in `conditions`), through blocks, lets,
    // allocations and their producers and consumers.
    static Stmt taking_first_cases(const Stmt &s, const std::string &loop, std::vector<std::string> &lets,
                                   std::vector<Expr> &conditions) {
        if (const Block *block = s.as<Block>())
            return Block::make(taking_first_cases(block->first, loop, lets, conditions),
                               taking_first_cases(block->rest, loop, lets, conditions));
        if (const LetStmt *let = s.as<LetStmt>()) {
            lets.push_back(let->name);
            Stmt body = taking_first_cases(let->body, loop, lets, conditions);
            lets.pop_back();
            return LetStmt::make(let->name, let->value, body);
        }
        if (const Allocate *a = s.as<Allocate>())
            return Allocate::make(a->name, a->type, a->memory_type, a->extents, a->condition,
                                  taking_first_cases(a->body, loop, lets, conditions), a->new_expr, a->free_function);
        if (const ProducerConsumer *pc = s.as<ProducerConsumer>())
            return ProducerConsumer::make(pc->name, pc->is_producer,
                                          taking_first_cases(pc->body, loop, lets, conditions));
        const IfThenElse *branch = s.as<IfThenElse>();
        if (!branch || !decided_outside(branch->condition, loop, lets)) return s;
        conditions.push_back(branch->condition);
        return taking_first_cases(branch->then_case, loop, lets, conditions);
    }
};

}  // namespace

IRMutator *make_invariant_branches_pass() { return new InvariantBranches; }

}  // namespace flatmorph
