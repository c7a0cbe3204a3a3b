#include "hoisted_pads.h"

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
// in the body becomes a variable, bound once at the body's start.
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

class HoistedPads : public IRMutator {
    using IRMutator::visit;
    int rows_ = 0;

    Stmt visit(const For *op) override {
        if (op->for_type != ForType::Parallel) return IRMutator::visit(op);
        DefinedNames defined;
        op->body.accept(&defined);
        // Names of their own per row loop: closures capture nothing of another's.
        PadLoads pads(op->name, defined.names, "minmax.pad" + std::to_string(rows_++) + ".");
        Stmt body = pads.mutate(op->body);
        for (auto pad = pads.hoisted.rbegin(); pad != pads.hoisted.rend(); ++pad)
            body = LetStmt::make(pad->first, pad->second, body);
        return For::make(op->name, op->min, op->extent, op->for_type, op->device_api, body);
    }
};

}  // namespace

IRMutator *make_hoisted_pads_pass() { return new HoistedPads; }

}  // namespace flatmorph
