#include "row_invariants.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// The names a statement defines: its loop variables, lets and buffers.
class DefinedNames : public IRVisitor {
public:
    std::set<std::string> names;

private:
    using IRVisitor::visit;
    void visit(const For *op) override {
        names.insert(op->name);
        IRVisitor::visit(op);
    }
    void visit(const LetStmt *op) override {
        names.insert(op->name);
        IRVisitor::visit(op);
    }
    void visit(const Let *op) override {
        names.insert(op->name);
        IRVisitor::visit(op);
    }
};

// Within one row body: each load of the pad table whose index does not vary
// in the body becomes a variable, bound once before the row loop.
class PadLoads : public IRMutator {
public:
    PadLoads(std::string row, std::set<std::string> defined, std::string prefix)
        : row_(std::move(row)), defined_(std::move(defined)), prefix_(std::move(prefix)) {}
    std::vector<std::pair<std::string, Expr>> hoisted;

private:
    using IRMutator::visit;
    const std::string row_;
    const std::set<std::string> defined_;
    const std::string prefix_;

    bool invariant(const Expr &e) const {
        for (const std::string &name : defined_)
            if (expr_uses_var(e, name)) return false;
        return !expr_uses_var(e, row_);
    }
    Expr visit(const Load *op) override {
        if (op->name != "minmax" || op->type.is_vector() || !invariant(op->index)) return IRMutator::visit(op);
        for (const auto &[name, load] : hoisted)
            if (equal(load, Expr(op))) return Variable::make(op->type, name);
        const std::string name = prefix_ + std::to_string(hoisted.size());
        hoisted.emplace_back(name, op);
        return Variable::make(op->type, name);
    }
};

// The variables an expression reads, whether it reads memory, and how many
// of its operations are not simple arithmetic.
class Reads : public IRVisitor {
public:
    std::set<std::string> variables;
    bool memory = false;
    int work = 0;

private:
    using IRVisitor::visit;
    void visit(const Variable *op) override { variables.insert(op->name); }
    void visit(const Load *op) override {
        memory = true;
        IRVisitor::visit(op);
    }
    void visit(const Select *op) override {
        work++;
        IRVisitor::visit(op);
    }
    void visit(const Call *op) override {
        work++;
        IRVisitor::visit(op);
    }
    void visit(const Min *op) override {
        work++;
        IRVisitor::visit(op);
    }
    void visit(const Max *op) override {
        work++;
        IRVisitor::visit(op);
    }
};

// Within one row body: each scalar the body works out from what every row
// shares (the pads' conversion to the sample type, the tests of the row's
// edges on the columns, the mask's bounds) becomes a variable, bound once
// before the row loop. Each is taken whole: its parts are not looked into.
class RowInvariants : public IRMutator {
public:
    RowInvariants(std::string row, std::set<std::string> defined, std::string prefix)
        : row_(std::move(row)), defined_(std::move(defined)), prefix_(std::move(prefix)) {}
    std::vector<std::pair<std::string, Expr>> hoisted;
    using IRMutator::mutate;

private:
    using IRMutator::visit;
    const std::string row_;
    const std::set<std::string> defined_;
    const std::string prefix_;
    // Lighter work LLVM folds into what uses it better than a closure field
    // (with none spared, a column-first 15 x 15 dilation took up to 5 % more
    // instructions).
    static constexpr int min_work = 4;

    bool shared_by_rows(const Expr &e) const {
        if (!e.type().is_scalar() || e.as<Variable>() || is_const(e) || e.type().is_handle()) return false;
        Reads reads;
        e.accept(&reads);
        if (reads.memory || reads.variables.count(row_) || reads.work < min_work) return false;
        for (const std::string &name : reads.variables)
            if (defined_.count(name)) return false;
        return true;
    }
    Expr mutate(const Expr &e) override {
        if (!e.defined() || !shared_by_rows(e)) return IRMutator::mutate(e);
        for (const auto &[name, value] : hoisted)
            if (equal(value, e)) return Variable::make(e.type(), name);
        const std::string name = prefix_ + std::to_string(hoisted.size());
        hoisted.emplace_back(name, e);
        return Variable::make(e.type(), name);
    }
};

class RowInvariantsPass : public IRMutator {
    using IRMutator::visit;
    int rows_ = 0;

    Stmt visit(const For *op) override {
        if (op->for_type != ForType::Parallel) return IRMutator::visit(op);
        DefinedNames defined;
        op->body.accept(&defined);
        // Names of their own per row loop: closures capture nothing of another's.
        const std::string prefix = "minmax.pad" + std::to_string(rows_++) + ".";
        PadLoads pads(op->name, defined.names, prefix);
        Stmt body = pads.mutate(op->body);
        RowInvariants shared(op->name, defined.names, prefix + "shared.");
        body = shared.mutate(body);
        Stmt loop = For::make(op->name, op->min, op->extent, op->for_type, op->device_api, body);
        for (auto c = shared.hoisted.rbegin(); c != shared.hoisted.rend(); ++c)
            loop = LetStmt::make(c->first, c->second, loop);
        for (auto pad = pads.hoisted.rbegin(); pad != pads.hoisted.rend(); ++pad)
            loop = LetStmt::make(pad->first, pad->second, loop);
        return loop;
    }
};

}  // namespace

IRMutator *make_row_invariants_pass() { return new RowInvariantsPass; }

}  // namespace flatmorph
