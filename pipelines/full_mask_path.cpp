#include "full_mask_path.h"

#include "border_loads.h"
#include "schedule.h"

#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

const char *const path_name = "full_mask";

// Keeps the statement a pipeline is lowered to, just before its closures are made.
class Capture : public IRMutator {
public:
    explicit Capture(Stmt *kept) : kept_(kept) {}
    Stmt mutate(const Stmt &s) override { return *kept_ = s; }

private:
    Stmt *kept_;
};

// The first parallel loop of a lowered pipeline, with the lets it sits in.
class FirstParallelLoop : public IRVisitor {
public:
    const For *loop = nullptr;
    std::vector<const LetStmt *> lets;

private:
    using IRVisitor::visit;
    std::vector<const LetStmt *> enclosing_;

    void visit(const LetStmt *op) override {
        enclosing_.push_back(op);
        IRVisitor::visit(op);
        enclosing_.pop_back();
    }
    void visit(const For *op) override {
        if (loop || op->for_type != ForType::Parallel) return IRVisitor::visit(op);
        loop = op;
        lets = enclosing_;
    }
};

// Moves the path's row body into the variant: its output's names become the
// variant's output's, the outer lets it keeps get names of their own, and its
// bound checks go (the test before the loop keeps them from failing).
class AdoptRowBody : public IRMutator {
public:
    AdoptRowBody(std::string output, Parameter output_buffer, std::set<std::string> outer_lets)
        : output_(std::move(output)), output_buffer_(std::move(output_buffer)), outer_lets_(std::move(outer_lets)) {}

    std::string rename(const std::string &name) const {
        const std::string own = path_name;
        std::string renamed = name;
        if (name == own || starts_with(name, own + ".")) renamed = output_ + name.substr(own.size());
        return outer_lets_.count(name) ? renamed + "$" + own : renamed;
    }

private:
    using IRMutator::visit;
    const std::string output_;
    const Parameter output_buffer_;
    const std::set<std::string> outer_lets_;

    Expr visit(const Variable *op) override {
        const bool buffer_field = op->param.defined() && op->param.name() == path_name;
        return Variable::make(op->type, rename(op->name), buffer_field ? output_buffer_ : op->param);
    }
    Stmt visit(const LetStmt *op) override {
        return LetStmt::make(rename(op->name), mutate(op->value), mutate(op->body));
    }
    Expr visit(const Let *op) override { return Let::make(rename(op->name), mutate(op->value), mutate(op->body)); }
    Stmt visit(const Store *op) override {
        const std::string name = rename(op->name);
        return Store::make(name, mutate(op->value), mutate(op->index), name == output_ ? output_buffer_ : op->param,
                           mutate(op->predicate), op->alignment);
    }
    Stmt visit(const For *op) override {
        return For::make(rename(op->name), mutate(op->min), mutate(op->extent), op->for_type, op->device_api,
                         mutate(op->body));
    }
    Stmt visit(const AssertStmt *) override { return Evaluate::make(0); }
};

// The names of the variables an expression or statement reads.
class VariablesUsed : public IRVisitor {
public:
    std::set<std::string> names;

private:
    using IRVisitor::visit;
    void visit(const Variable *op) override { names.insert(op->name); }
};

class FullMaskPass : public IRMutator {
public:
    FullMaskPass(const std::string &filter, const Inputs &in, const Parameter &output_buffer, int vw,
                 const Target &target)
        : output_(output_name(filter)), strel_(in.strel.parameter()) {
        FullMaskStage stage = define_full_mask_filter(filter, in, path_name);
        schedule_full_mask(stage, vw);
        Pipeline path(stage.result);
        Stmt lowered;
        // Its border chunks fold with whole-vector loads where they can, as the element-wise path does.
        path.add_custom_lowering_pass(make_border_loads_pass());
        path.add_custom_lowering_pass(new Capture(&lowered));
        path.compile_to_module({in.image, in.minmax, in.strel}, path_name, target);

        FirstParallelLoop rows;
        lowered.accept(&rows);
        if (!rows.loop) throw std::logic_error("the full-mask path has no row loop");
        // The outer lets the row body needs, directly or through another one kept.
        VariablesUsed used;
        rows.loop->body.accept(&used);
        rows.loop->min.accept(&used);
        std::vector<const LetStmt *> kept;
        std::set<std::string> kept_names;
        for (auto let = rows.lets.rbegin(); let != rows.lets.rend(); ++let) {
            if (!used.names.count((*let)->name)) continue;
            kept.insert(kept.begin(), *let);
            kept_names.insert((*let)->name);
            (*let)->value.accept(&used);
        }
        AdoptRowBody adopt(output_, output_buffer, kept_names);
        row_loop_ = adopt.rename(rows.loop->name);
        row_min_ = adopt.mutate(rows.loop->min);
        row_body_ = adopt.mutate(rows.loop->body);
        for (const LetStmt *let : kept) outer_lets_.emplace_back(adopt.rename(let->name), adopt.mutate(let->value));
    }

private:
    using IRMutator::visit;
    const std::string output_;
    const Parameter strel_;
    std::string row_loop_;
    Expr row_min_;
    Stmt row_body_;
    std::vector<std::pair<std::string, Expr>> outer_lets_;
    bool done_ = false;

    Expr strel_variable(const std::string &field) const { return Variable::make(Int(32), "strel." + field); }

    // The wide path's row loop (the first one) gets the path: each row takes
    // it when the call's test said so, and its own body otherwise.
    Stmt visit(const For *op) override {
        if (done_ || op->for_type != ForType::Parallel || op->name != output_ + ".s0.y") return IRMutator::visit(op);
        done_ = true;
        const std::string taken = std::string(path_name) + ".taken";
        Expr row = Variable::make(Int(32), op->name);
        Stmt path = substitute(row_loop_, row - op->min + row_min_, row_body_);
        Stmt loop = For::make(op->name, op->min, op->extent, op->for_type, op->device_api,
                              IfThenElse::make(Variable::make(Bool(), taken), path, op->body));
        for (auto let = outer_lets_.rbegin(); let != outer_lets_.rend(); ++let)
            loop = LetStmt::make(let->first, let->second, loop);
        return decide(taken, loop);
    }

    // Once per call: whether the output is at least one chunk wide, the mask
    // at most full_mask_max_columns wide, large enough in both directions for
    // the path to pay, and all its bytes 1. (Counted in instructions, a 1024 x
    // 1024 uint8 dilation costs about one per mask element and sample on the
    // element-wise path and 8 + 1.6 per mask row or column on this one: so
    // 5 x 5 breaks even, and on images beyond the caches it lost, 7 x 7 gains
    // 1.5x, 31 x 31 9x, and lines never gain.)
    Stmt decide(const std::string &taken, Stmt loop) const {
        const std::string flag = std::string(path_name) + ".all_active";
        const std::string k = std::string(path_name) + ".k", j = std::string(path_name) + ".j";
        Expr sx = strel_variable("extent.0"), sy = strel_variable("extent.1");
        Expr width = Variable::make(Int(32), output_ + ".extent.0");
        Expr sx64 = cast<int64_t>(sx), sy64 = cast<int64_t>(sy);
        Expr pays = 5 * sx64 * sy64 > 48 + 8 * (sx64 + sy64);
        Expr eligible = sx >= 1 && sy >= 1 && sx <= full_mask_max_columns && width >= full_mask_chunk && pays;

        auto flag_value = [&] { return Load::make(UInt(8), flag, 0, Buffer<>(), Parameter(), const_true(), {}); };
        auto set_flag = [&](Expr value) { return Store::make(flag, value, 0, Parameter(), const_true(), {}); };
        Expr index = cast<int64_t>(Variable::make(Int(32), k)) +
                     cast<int64_t>(Variable::make(Int(32), j)) * cast<int64_t>(strel_variable("stride.1"));
        Expr byte = Load::make(UInt(8), "strel", index, Buffer<>(), strel_, const_true(), {});
        Stmt scan = For::make(j, 0, sy, ForType::Serial, DeviceAPI::None,
                              For::make(k, 0, sx, ForType::Serial, DeviceAPI::None,
                                        set_flag(select(byte == 1, flag_value(), make_zero(UInt(8))))));
        Stmt body = Block::make({set_flag(cast<uint8_t>(eligible)), IfThenElse::make(eligible, scan),
                                 LetStmt::make(taken, flag_value() == 1, loop)});
        return Allocate::make(flag, UInt(8), MemoryType::Stack, {1}, const_true(), body);
    }
};

}  // namespace

IRMutator *make_full_mask_pass(const std::string &filter, const Inputs &in, const Parameter &output_buffer,
                               int vector_width, const Target &target) {
    return new FullMaskPass(filter, in, output_buffer, vector_width, target);
}

}  // namespace flatmorph
