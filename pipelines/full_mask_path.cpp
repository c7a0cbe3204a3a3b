#include "full_mask_path.h"

#include "border_loads.h"
#include "invariant_branches.h"
#include "lane_tests.h"
#include "loop_steps.h"
#include "row_checks.h"
#include "schedule.h"
#include "straddling_columns.h"

#include <map>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// Keeps the statement a pipeline is lowered to, just before its closures are made.
class Capture : public IRMutator {
public:
    explicit Capture(Stmt *kept) : kept_(kept) {}
    Stmt mutate(const Stmt &s) override { return *kept_ = s; }

private:
    Stmt *kept_;
};

// Halide computes an integer window's spans in every chunk, though its steps
// fold none where the window is narrow: they are computed only where it
// takes steps. The test is a loop run once or not at all, not a branch: the
// invariant branches pass would give the chunk loop's fast copy the spans'
// branch taken, and narrow windows would run the slow copy (7 x 7: 1.2 to
// 1.33 times the instructions). (As a path of its own, the steps made an
// integer variant take twice as long to compile.)
class SpansOnlyWhereSteps : public IRMutator {
public:
    SpansOnlyWhereSteps(const std::string &spans, const Param<int> &levels)
        : spans_(spans), steps_taken_(levels > one_by_one_levels) {}

private:
    using IRMutator::visit;
    const std::string spans_;
    const Expr steps_taken_;

    Stmt visit(const ProducerConsumer *op) override {
        if (!op->is_producer || op->name != spans_) return IRMutator::visit(op);
        return For::make(spans_ + ".computed", 0, select(steps_taken_, 1, 0), ForType::Serial, DeviceAPI::None, op);
    }
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

// Drops a statement's checks: the test made before the row loop keeps the
// path's own from failing.
class WithoutChecks : public IRMutator {
    using IRMutator::visit;
    Stmt visit(const AssertStmt *) override { return Evaluate::make(0); }
};

// Moves the path's row body into the variant: its output's names become the
// stage's, the outer lets it keeps get names of their own, and the buffer
// the second stage reads the first stage's samples from becomes the
// variant's intermediate (an allocation of the variant, not an argument);
// the path's other parameters, such as its levels, become lets of the variant.
class AdoptRowBody : public IRMutator {
public:
    AdoptRowBody(std::string path, std::string output, std::string stage, Parameter stage_buffer,
                 std::set<std::string> supplied, std::set<std::string> outer_lets)
        : path_(std::move(path)), output_(std::move(output)), stage_(std::move(stage)),
          stage_buffer_(std::move(stage_buffer)), supplied_(std::move(supplied)),
          outer_lets_(std::move(outer_lets)) {}

    // A name of the path's output as the stage's.
    std::string adopted_name(const std::string &name) const {
        if (name == output_ || starts_with(name, output_ + ".")) return stage_ + name.substr(output_.size());
        return name;
    }
    std::string rename(const std::string &name) const {
        return outer_lets_.count(name) ? adopted_name(name) + "$" + path_ : adopted_name(name);
    }

private:
    using IRMutator::visit;
    const std::string path_, output_, stage_;
    const Parameter stage_buffer_;
    const std::set<std::string> supplied_;
    const std::set<std::string> outer_lets_;

    Parameter adopted(const Parameter &param) const {
        if (!param.defined() || supplied_.count(param.name())) return Parameter();
        return param.name() == output_ ? stage_buffer_ : param;
    }
    Expr visit(const Variable *op) override { return Variable::make(op->type, rename(op->name), adopted(op->param)); }
    Stmt visit(const LetStmt *op) override {
        return LetStmt::make(rename(op->name), mutate(op->value), mutate(op->body));
    }
    Expr visit(const Let *op) override { return Let::make(rename(op->name), mutate(op->value), mutate(op->body)); }
    Expr visit(const Load *op) override {
        return Load::make(op->type, op->name, mutate(op->index), op->image, adopted(op->param), mutate(op->predicate),
                          op->alignment);
    }
    Stmt visit(const Store *op) override {
        const std::string name = rename(op->name);
        return Store::make(name, mutate(op->value), mutate(op->index), adopted(op->param), mutate(op->predicate),
                           op->alignment);
    }
    Stmt visit(const For *op) override {
        return For::make(rename(op->name), mutate(op->min), mutate(op->extent), op->for_type, op->device_api,
                         mutate(op->body));
    }
};

// Whether every buffer a statement allocates has a size known at compile time.
class ScratchIsBounded : public IRVisitor {
public:
    explicit ScratchIsBounded(const Stmt &s) { s.accept(this); }
    bool bounded = true;

private:
    using IRVisitor::visit;
    void visit(const Allocate *op) override {
        bounded = bounded && op->constant_allocation_size() > 0;
        IRVisitor::visit(op);
    }
};

// The names of the variables an expression or statement reads.
class VariablesUsed : public IRVisitor {
public:
    std::set<std::string> names;

private:
    using IRVisitor::visit;
    void visit(const Variable *op) override { names.insert(op->name); }
};

// The buffer fields of the intermediate, as the variant lays it out: its
// realized columns, one row after another, from the first row of the
// region the filter states for it.
std::map<std::string, Expr> intermediate_fields(const FilterDefinition &filter) {
    const std::string name = filter.stages.front().result.name();
    Expr columns = Variable::make(Int(32), name + ".x.extent_realized");
    return {{name + ".min.0", Variable::make(Int(32), name + ".x.min_realized")},
            {name + ".extent.0", columns},
            {name + ".stride.0", 1},
            {name + ".min.1", filter.intermediate[1].lo},
            {name + ".extent.1", Variable::make(Int(32), name + ".y.extent_realized")},
            {name + ".stride.1", columns}};
}

// The path lowered for one chunk width: its row loop's name and first row,
// the row body to splice into the variant, and the outer lets (renamed) and
// span level count that body reads.
struct LoweredPath {
    std::string loop, levels;
    Expr min;
    Stmt body;
    std::vector<std::pair<std::string, Expr>> outer_lets;
};

class FullMaskPass : public IRMutator {
public:
    FullMaskPass(const std::string &filter, size_t index, const FilterDefinition &def, const Inputs &in, int vw,
                 const Target &target)
        : path_("full_mask" + std::to_string(index)),
          stage_(def.stages[index].result.name()),
          row_flag_(path_ + ".order_sensitive"),
          flagged_(in.image.type().is_float()),
          in_(in) {
        const bool two_stage = def.stages.size() == 2, output_stage = index + 1 == def.stages.size();
        // The second stage reads the first's samples as an input of the path.
        const std::string intermediate_name = two_stage ? def.stages.front().result.name() : path_ + "_unused";
        ImageParam intermediate(in.image.type(), 2, intermediate_name);
        std::map<std::string, Expr> fields;
        if (two_stage) fields = intermediate_fields(def);
        auto lower = [&](const std::string &name, int chunk) {
            return lower_path(filter, index, output_stage, def, intermediate, fields, name, chunk, vw, target);
        };
        paths_.push_back(lower(path_, full_mask_chunk));
        // Float and 8-bit stages at least a wide chunk wide take wide chunks:
        // fewer chunks and border chunks a row (see wide_chunks_pay; wider
        // integers lost: uint16 1.09 of the time on 4096 columns).
        if (flagged_ || eight_bit()) paths_.push_back(lower(path_ + "_wide", full_mask_wide_chunk));
        width_ = output_stage ? Variable::make(Int(32), stage_ + ".extent.0") : fields.at(stage_ + ".extent.0");
    }

private:
    using IRMutator::visit;
    const std::string path_, stage_, row_flag_;
    const bool flagged_;
    const Inputs &in_;
    // The path for full_mask_chunk, then the one for full_mask_wide_chunk if any.
    std::vector<LoweredPath> paths_;
    Expr width_;
    bool done_ = false;

    // Compiles the path named `name` with chunks of `chunk` columns and takes its row body.
    LoweredPath lower_path(const std::string &filter, size_t index, bool output_stage, const FilterDefinition &def,
                           const ImageParam &intermediate, const std::map<std::string, Expr> &fields,
                           const std::string &name, int chunk, int vw, const Target &target) const {
        // AVX2 takes the minimum of 32-bit words in one instruction; 64-bit ones none.
        const bool word_minimum = target.has_feature(Target::AVX2) && in_.image.type().bits() == 32;
        FullMaskStage stage =
            define_full_mask_stage(filter, index, in_, intermediate, name, full_mask_max_columns, word_minimum);
        schedule_full_mask(stage, vw, chunk);
        Pipeline path(stage.result);
        Stmt lowered;
        // A float stage's values are the first of its Tuple, its flags the
        // second (Halide may have made their names unique: they are read
        // back). A float row gathers its checks in registers first, so that
        // the moved edge blocks fold them too.
        const std::vector<OutputImageParam> outputs = stage.result.output_buffers();
        if (!flagged_) {
            path.add_custom_lowering_pass(new SpansOnlyWhereSteps(stage.spans.back().name(), stage.levels));
        } else {
            const std::string columns = stage.columns.name();
            path.add_custom_lowering_pass(make_row_checks_pass(
                {columns + ".1", columns + ".2", outputs[1].name(), row_flag_, word_minimum}, columns + ".checks"));
        }
        // Its border chunks fold with whole-vector loads where they can, as the
        // element-wise path does, down the rows in a register where they straddle the edge.
        path.add_custom_lowering_pass(make_straddling_columns_pass());
        path.add_custom_lowering_pass(make_border_loads_pass(target));
        path.add_custom_lowering_pass(make_lane_tests_pass());
        path.add_custom_lowering_pass(make_invariant_branches_pass());
        // Its folds down the columns step their addresses by the row stride.
        path.add_custom_lowering_pass(make_loop_steps_pass(""));
        path.add_custom_lowering_pass(new Capture(&lowered));
        std::vector<Argument> arguments = {in_.image, in_.minmax, in_.strel, stage.levels};
        if (index == 1) arguments.push_back(intermediate);
        path.compile_to_module(arguments, name, target);

        FirstParallelLoop rows;
        lowered.accept(&rows);
        if (!rows.loop) throw std::logic_error("the full-mask path has no row loop");
        const std::string path_output = outputs[0].name();
        Stmt body = WithoutChecks().mutate(rows.loop->body);
        // Its scratch must live on the row task's stack: a size known when compiling.
        if (!ScratchIsBounded(body).bounded) throw std::logic_error("the full-mask path's scratch has no fixed size");
        // The outer lets the row body needs, directly or through another one kept.
        VariablesUsed used;
        body.accept(&used);
        rows.loop->min.accept(&used);
        std::vector<const LetStmt *> kept;
        std::set<std::string> kept_names;
        for (auto let = rows.lets.rbegin(); let != rows.lets.rend(); ++let) {
            if (!used.names.count((*let)->name)) continue;
            kept.insert(kept.begin(), *let);
            kept_names.insert((*let)->name);
            (*let)->value.accept(&used);
        }
        Parameter stage_buffer;
        if (output_stage) stage_buffer = def.output().result.output_buffer().parameter();
        const std::string intermediate_name = intermediate.name(), levels = stage.levels.name();
        AdoptRowBody adopt(name, path_output, stage_, stage_buffer, {intermediate_name, levels}, kept_names);
        LoweredPath lowered_path{adopt.rename(rows.loop->name), levels, adopt.mutate(rows.loop->min),
                                 adopt.mutate(body), {}};
        for (const LetStmt *let : kept) {
            // The intermediate's fields are the variant's, not read from a buffer.
            auto field = fields.find(adopt.adopted_name(let->name));
            lowered_path.outer_lets.emplace_back(adopt.rename(let->name),
                                                 field != fields.end() ? field->second : adopt.mutate(let->value));
        }
        return lowered_path;
    }

    Expr strel_variable(const std::string &field) const { return Variable::make(Int(32), "strel." + field); }

    // The pad at (i, 0) of `minmax`, as the element type has it.
    Expr pad(int i) const {
        Expr min0 = Variable::make(Int(32), "minmax.min.0"), min1 = Variable::make(Int(32), "minmax.min.1");
        Expr stride1 = Variable::make(Int(32), "minmax.stride.1");
        Expr index = cast<int64_t>(i) - cast<int64_t>(min0) - cast<int64_t>(min1) * cast<int64_t>(stride1);
        Expr stored = Load::make(Float(64), "minmax", index, Buffer<>(), in_.minmax.parameter(), const_true(), {});
        return convert_pad(stored, in_.image.type());
    }

    // The wide path's row loop (the first one) gets the path: each row takes
    // it when the call's test said so, and its own body otherwise.
    Stmt visit(const For *op) override {
        if (done_ || op->for_type != ForType::Parallel || op->name != stage_ + ".s0.y") return IRMutator::visit(op);
        done_ = true;
        const std::string taken = path_ + ".taken";
        Expr row = Variable::make(Int(32), op->name);
        auto spliced = [&](const LoweredPath &p) { return substitute(p.loop, row - op->min + p.min, p.body); };
        Stmt path = spliced(paths_.front());
        const std::string wide = path_ + ".wide";
        if (paths_.size() > 1) path = IfThenElse::make(Variable::make(Bool(), wide), spliced(paths_.back()), path);
        if (flagged_) {
            // A float row folded a NaN or -0.0: it is folded again, element by
            // element. (The element-wise body is written twice: behind one
            // shared flag instead, it ran 10 to 20 % slower when not taken.)
            Expr flag = Load::make(UInt(8), row_flag_, 0, Buffer<>(), Parameter(), const_true(), {});
            path = Block::make(path, IfThenElse::make(flag != 0, op->body));
            path = Allocate::make(row_flag_, UInt(8), MemoryType::Stack, {1}, const_true(), path);
        }
        Stmt body = IfThenElse::make(Variable::make(Bool(), taken), path, op->body);
        Stmt loop = For::make(op->name, op->min, op->extent, op->for_type, op->device_api, body);
        // Which chunks a row takes is decided once per call.
        if (paths_.size() > 1) loop = LetStmt::make(wide, wide_chunks_pay(), loop);
        for (const LoweredPath &p : paths_) {
            for (auto let = p.outer_lets.rbegin(); let != p.outer_lets.rend(); ++let)
                loop = LetStmt::make(let->first, let->second, loop);
            // The levels of spans a window needs, where it folds spans: floor(log2) of the mask's width.
            if (stmt_uses_var(loop, p.levels)) {
                Expr sx = cast<uint32_t>(strel_variable("extent.0"));
                loop = LetStmt::make(p.levels, 31 - cast<int>(count_leading_zeros(sx)), loop);
            }
        }
        return decide(taken, loop);
    }

    // Whether a stage takes wide chunks: where it is one wide at least and
    // they fold no more columns than the narrow ones. (The last chunk of a
    // row shifts inward over the one before: a closing's first stage, a mask
    // wider than its output, folded 1024 columns a row in wide chunks on 512
    // columns, 768 in narrow ones; float32 closing of 512 x 512 in narrow
    // chunks: 0.95 of the time for 7 x 7, 0.91 for 15 x 15.)
    //
    // Measured, one thread, wide chunks' time over narrow ones: float32 15 x 15
    // and 31 x 31, 0.93 and 0.94 on 512 x 512, 0.85 and 0.91 on 4096 columns;
    // uint8 7 x 7, 15 x 15 and 31 x 31, 0.88, 0.87 and 0.92 on 512 x 512, 0.86
    // to 0.94 on 2048 columns, but on 4096 columns 0.92, 0.99 and 1.0 to 1.05
    // (21 x 21: 1.04): 8-bit stages wider than 2048 take them for masks of at
    // most 15 rows only.
    Expr wide_chunks_pay() const {
        auto folded = [&](int chunk) { return (width_ + (chunk - 1)) / chunk * chunk; };
        Expr pays = width_ >= full_mask_wide_chunk && folded(full_mask_wide_chunk) <= folded(full_mask_chunk);
        if (eight_bit()) pays = pays && (width_ <= 2048 || strel_variable("extent.1") <= 15);
        return pays;
    }

    bool eight_bit() const { return in_.image.type().bytes() == 1; }

    // Once per call: whether the stage is at least one chunk wide, the mask
    // at most full_mask_max_columns wide, large enough in both directions for
    // the path to pay, and all its bytes 1. Where it pays, measured side by
    // side with the element-wise path (one thread; column-first time over
    // element-wise): integer masks whose area exceeds their sides by 7 and
    // more (uint8 5 x 3 0.98, 5 x 5 0.70, 15 x 2 0.85 on 512 x 512; uint16
    // 5 x 5 0.57 to 0.65 under avx2, avx and none, on 512 and 4096 columns;
    // int32 5 x 5 0.59 to 0.71; uint8 3 x 3 1.24, 9 x 2 1.02, 2 x 3 1.47),
    // columns of 5 rows and more (1 x 21: uint8 0.58 to 0.64, uint16 0.62
    // to 0.90, int32 0.82; uint8 1 x 3 0.99), 8-bit 3 x 3 on stages 2048
    // columns wide and more (0.92 at 2048, 0.79 to 0.87 at 4096 on every
    // tag; uint16 3 x 3 1.0 to 1.12 under avx and none); floats, which also
    // check each sample for NaN and -0.0, from 7 x 7 (float32 7 x 7: 0.72 on
    // 512 x 512 and 0.93 on 4096 columns under avx2, 0.92 under avx, 1.0
    // under none; 5 x 5 about 1, 3 x 3 and 1 x 21 1.7 to 1.8). One-row
    // masks never do (21 x 1: 1.06 to 1.31).
    Expr pays() const {
        Expr sx = cast<int64_t>(strel_variable("extent.0")), sy = cast<int64_t>(strel_variable("extent.1"));
        const Type t = in_.image.type();
        if (t.is_float()) return sx * sy > 3 * (sx + sy);
        // Beyond its folds, the column-first path pays a chunk's set-up: the
        // area must exceed the sides by some elements (fewer for 8-bit
        // samples on long rows), or the mask be a column.
        const Expr saved = sx * sy - (sx + sy);
        Expr pays = sy >= 2 && (saved >= 7 || (sx == 1 && sy >= 5));
        return t.bytes() > 1 ? pays : pays || (sy >= 2 && saved >= 3 && width_ >= 2048);
    }

    Stmt decide(const std::string &taken, Stmt loop) const {
        const std::string flag = path_ + ".all_active", k = path_ + ".k", j = path_ + ".j";
        Expr sx = strel_variable("extent.0"), sy = strel_variable("extent.1");
        Expr eligible = sx >= 1 && sy >= 1 && sx <= full_mask_max_columns && width_ >= full_mask_chunk && pays();
        // A float stage may also read a pad: neither may be NaN or -0.0.
        if (flagged_) eligible = eligible && order_sensitive(pad(0)) == 0 && order_sensitive(pad(1)) == 0;

        auto flag_value = [&] { return Load::make(UInt(8), flag, 0, Buffer<>(), Parameter(), const_true(), {}); };
        auto set_flag = [&](Expr value) { return Store::make(flag, value, 0, Parameter(), const_true(), {}); };
        Expr index = cast<int64_t>(Variable::make(Int(32), k)) +
                     cast<int64_t>(Variable::make(Int(32), j)) * cast<int64_t>(strel_variable("stride.1"));
        Expr byte = Load::make(UInt(8), "strel", index, Buffer<>(), in_.strel.parameter(), const_true(), {});
        Stmt scan = For::make(j, 0, sy, ForType::Serial, DeviceAPI::None,
                              For::make(k, 0, sx, ForType::Serial, DeviceAPI::None,
                                        set_flag(select(byte == 1, flag_value(), make_zero(UInt(8))))));
        Stmt body = Block::make({set_flag(cast<uint8_t>(eligible)), IfThenElse::make(eligible, scan),
                                 LetStmt::make(taken, flag_value() == 1, loop)});
        return Allocate::make(flag, UInt(8), MemoryType::Stack, {1}, const_true(), body);
    }
};

}  // namespace

IRMutator *make_full_mask_pass(const std::string &filter, size_t stage, const FilterDefinition &definition,
                               const Inputs &in, int vector_width, const Target &target) {
    return new FullMaskPass(filter, stage, definition, in, vector_width, target);
}

}  // namespace flatmorph
