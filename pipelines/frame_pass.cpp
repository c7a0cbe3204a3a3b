#include "frame_pass.h"

#include <cstdint>
#include <map>
#include <stdexcept>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

class FramePass : public IRMutator {
public:
    FramePass(const FilterDefinition &filter, const Inputs &in, int vw)
        : output_(filter.output().result.name()), single_stage_(filter.stages.size() == 1) {
        const OutputImageParam out = filter.output().result.output_buffer();
        Expr wide = in.image.dim(0).extent() > vw;
        for (const Stage &stage : filter.stages) first_rows_[stage.result.name() + ".s0.y"] = stage.first_row;
        state_output_columns(out, wide, vw);
        if (filter.stages.size() == 2) state_intermediate(filter, wide, vw);
        for (int d = 0; d < 2; d++) {
            image_reach_[d] = filter.image_reach[d];
            output_span_[d] = {out.dim(d).min(), cast<int64_t>(out.dim(d).min()) + out.dim(d).extent()};
        }
        if (filter.reads_image_at_output) {
            // The wide path also reads the image under the inward-shifted last tile.
            Expr tile_min = cast<int32_t>(output_span_[0].hi - vw);
            image_reach_[0].lo = select(wide, min(image_reach_[0].lo, tile_min), image_reach_[0].lo);
        }
    }

protected:
    using IRMutator::visit;

    Stmt visit(const AssertStmt *op) override {
        Expr message = op->message;
        while (const Let *let = message.as<Let>()) message = let->body;
        const Call *report = message.as<Call>();
        if (report && (report->name == "halide_error_bad_dimensions" ||
                       report->name == "halide_error_device_dirty_with_no_device_support" ||
                       is_dim0_size_check(report))) {
            return Evaluate::make(0);
        }
        if (report && is_image_region_check(report)) {
            return AssertStmt::make(image_region_fits(report->args[1]), op->message);
        }
        if (report && is_output_columns_check(report)) {
            return AssertStmt::make(columns_.fits, Call::make(Int(32), report->name,
                                                              {report->args[0], 0, columns_.min, columns_.max,
                                                               columns_.x0, columns_.last},
                                                              Call::Extern));
        }
        return IRMutator::visit(op);
    }

    // The bounds-query answer of the output: its columns as stated below.
    Expr visit(const Call *op) override {
        const Variable *buffer = op->args.empty() ? nullptr : op->args[0].as<Variable>();
        if (op->name != Call::buffer_init || !buffer || buffer->name != output_ + ".buffer")
            return IRMutator::visit(op);
        std::vector<Expr> args = op->args;
        const Call *shape = args[8].as<Call>();
        if (!shape || shape->args.size() != 8) throw std::logic_error("unexpected shape of " + output_);
        std::vector<Expr> dims = shape->args;
        dims[0] = columns_.min;
        dims[1] = dims[6] = columns_.extent;
        args[8] = Call::make(shape->type, shape->name, dims, shape->call_type);
        return Call::make(op->type, op->name, args, op->call_type);
    }

    // Halide names the required region of an input <name>.min.<d>.required and
    // <name>.extent.<d>.required, or <name>.extent.<d>.required.s for the
    // extent less one; the image's are answered from its reach.
    Stmt visit(const LetStmt *op) override {
        const std::string prefix = "keyimForType.";
        if (!starts_with(op->name, prefix) || op->name.find(".required") == std::string::npos)
            return IRMutator::visit(op);
        Expr value;
        for (int d = 0; d < 2; d++) {
            const std::string dim = std::to_string(d);
            const Span &reach = image_reach_[d];
            if (op->name == prefix + "min." + dim + ".required") value = reach.lo;
            if (op->name == prefix + "extent." + dim + ".required") value = reach.hi - reach.lo;
            if (op->name == prefix + "extent." + dim + ".required.s") value = reach.hi - reach.lo - 1;
        }
        if (!value.defined()) throw std::logic_error("unexpected region variable " + op->name);
        return LetStmt::make(op->name, simplify(value), mutate(op->body));
    }

    Stmt visit(const For *op) override {
        const std::string suffix = ".rebased";
        if (op->for_type != ForType::Parallel || !ends_with(op->name, suffix)) return IRMutator::visit(op);
        const std::string loop = op->name.substr(0, op->name.size() - suffix.size());
        auto first = first_rows_.find(loop);
        if (first == first_rows_.end()) return IRMutator::visit(op);
        Expr row = Variable::make(Int(32), loop);
        Stmt body = substitute(op->name, row - first->second, mutate(op->body));
        return For::make(loop, first->second, op->extent, op->for_type, op->device_api, body);
    }

    Stmt visit(const Allocate *op) override {
        if (op->new_expr.defined() || op->constant_allocation_size() > 0) return IRMutator::visit(op);
        // The block's element count, from extents taken as unsigned 32-bit
        // numbers; two of them cannot overflow 64 bits.
        if (op->extents.size() != 2) throw std::logic_error("an intermediate is not two-dimensional: " + op->name);
        Expr count = make_const(UInt(64), 1);
        for (const Expr &extent : op->extents) count *= cast(UInt(64), cast(UInt(32), extent));
        const uint64_t bytes = op->type.bytes(), limit = 0x7fffffffffffffffULL;
        Expr size = count * make_const(UInt(64), bytes);
        // Judged on the exact product, so that a size that wraps 64 bits is refused too.
        Stmt size_check = AssertStmt::make(
            count <= make_const(UInt(64), limit / bytes),
            Call::make(Int(32), "halide_error_buffer_allocation_too_large",
                       {op->name, size, make_const(UInt(64), limit)}, Call::Extern));
        // Exactly one spare element behind the block, whatever the element size.
        // The user context goes in first by itself: halide_malloc is a runtime call.
        Expr block = Call::make(Handle(), "halide_malloc", {size + make_const(UInt(64), bytes)}, Call::Extern);
        // Where the region wraps around 32 bits, the block the rows would need
        // cannot be had, and where the call's coordinates would not stay within
        // 32 bits, the rows would index by wrapped ones: either is refused as
        // out of memory before any row runs.
        Expr sized_as_stated = cast(UInt(32), op->extents[0]) == intermediate_columns_ &&
                               cast(UInt(32), op->extents[1]) == intermediate_rows_;
        Expr usable = sized_as_stated && reach_fits(0) && reach_fits(1);
        block = Call::make(Handle(), Call::if_then_else, {usable, block, make_zero(Handle())}, Call::PureIntrinsic);
        return Block::make(size_check, Allocate::make(op->name, op->type, op->memory_type, op->extents, op->condition,
                                                      mutate(op->body), block, "halide_free"));
    }

private:
    // The output columns a call requires, in 32-bit wrap-around arithmetic
    // (worked in 64 bits and truncated, so nothing overflows on the way): a
    // wide image needs at least one whole tile, shifted left of x0 if the
    // output is narrower. Halide's own answer holds only for non-empty
    // outputs, and its check does not wrap.
    struct OutputColumns {
        Expr x0, last, min, max, extent, fits;
    };

    void state_output_columns(const OutputImageParam &out, Expr wide, int vw) {
        auto wrap = [](Expr e) { return cast<int32_t>(e); };
        Expr x0 = out.dim(0).min(), w = out.dim(0).extent();
        Expr x0l = cast<int64_t>(x0), wl = cast<int64_t>(w);
        Expr x1l = cast<int64_t>(wrap(x0l + wl));
        Expr last = wrap(x1l - 1);
        Expr tiles_before_last = ((wl - 1) / vw) * vw;  // (W - 1) rounded down to a multiple of VW
        Expr min_col = select(wide, min(wrap(x1l - vw), x0), x0);
        Expr max_col = select(wide, min(wrap(x0l + tiles_before_last + (vw - 1)), last), last);
        Expr fits = min_col >= x0 && wrap(cast<int64_t>(max_col) - wl) < x0;
        columns_ = {x0, last, min_col, max_col, wrap(cast<int64_t>(max_col) - cast<int64_t>(min_col) + 1), fits};
    }

    // The intermediate's columns and rows as the filter states them, in 32-bit
    // wrap-around arithmetic; on the wide path its columns start early enough
    // to hold one whole tile.
    void state_intermediate(const FilterDefinition &filter, Expr wide, int vw) {
        auto wrap = [](Expr e) { return cast<int32_t>(e); };
        const Span &columns = filter.intermediate[0], &rows = filter.intermediate[1];
        Expr last = wrap(cast<int64_t>(columns.hi) - 1);
        Expr first = select(wide, min(columns.lo, wrap(cast<int64_t>(last) - (vw - 1))), columns.lo);
        intermediate_columns_ = cast(UInt(32), wrap(cast<int64_t>(last) - first + 1));
        intermediate_rows_ = cast(UInt(32), wrap(cast<int64_t>(rows.hi) - rows.lo));
    }

    bool is_image_region_check(const Call *report) const {
        const StringImm *label = report->args.empty() ? nullptr : report->args[0].as<StringImm>();
        return report->name == "halide_error_access_out_of_bounds" && label &&
               label->value == "Input buffer keyimForType";
    }

    // Whether the coordinates a call works with stay within 32 bits in
    // dimension d: the mask around the output, and the whole span from image
    // to output with the mask around it (the loop bounds of the rows measure
    // one from the other), with a margin for the lanes a wide path computes
    // beyond its columns. Otherwise rows would index by wrapped coordinates.
    Expr reach_fits(int d) const {
        const std::string dim = std::to_string(d);
        const Span &out = output_span_[d];
        Expr i0 = cast<int64_t>(Variable::make(Int(32), "keyimForType.min." + dim));
        Expr i1 = i0 + cast<int64_t>(Variable::make(Int(32), "keyimForType.extent." + dim));
        Expr o0 = cast<int64_t>(out.lo), o1 = cast<int64_t>(out.hi);
        Expr margin = cast<int64_t>(Variable::make(Int(32), "strel.extent." + dim)) + 256;
        return o0 - margin >= INT32_MIN && o1 + margin <= INT32_MAX && max(i1, o1) - min(i0, o0) + margin <= INT32_MAX;
    }

    // The image must hold its required region, judged in 64 bits so that an
    // image whose own span passes 2^31 is refused rather than wrapped into
    // range. A single-stage call whose coordinates would not stay within 32
    // bits is refused here too. (A two-stage call is refused beside its
    // intermediate's allocation instead, since huge masks must meet that
    // block's size check first.)
    Expr image_region_fits(const Expr &dimension) const {
        const int64_t *d = as_const_int(dimension);
        if (!d || *d < 0 || *d > 1) throw std::logic_error("unexpected dimension of an image region check");
        const std::string dim = std::to_string(*d);
        Expr i0 = cast<int64_t>(Variable::make(Int(32), "keyimForType.min." + dim));
        Expr iw = cast<int64_t>(Variable::make(Int(32), "keyimForType.extent." + dim));
        const Span &reach = image_reach_[*d];
        Expr holds = cast<int64_t>(reach.lo) >= i0 && cast<int64_t>(reach.hi) <= i0 + iw;
        return single_stage_ ? holds && reach_fits(static_cast<int>(*d)) : holds;
    }

    bool is_output_columns_check(const Call *report) const {
        const StringImm *label = report->args.empty() ? nullptr : report->args[0].as<StringImm>();
        return report->name == "halide_error_access_out_of_bounds" && label &&
               label->value == "Output buffer " + output_ && is_const_zero(report->args[1]);
    }

    // Halide checks the dim-0 size of each buffer as well; with stride 1 that
    // check cannot fail, and the contract has only the dim-1 one.
    static bool is_dim0_size_check(const Call *report) {
        if (report->name != "halide_error_buffer_allocation_too_large" || report->args.size() < 2) return false;
        const Cast *size = report->args[1].as<Cast>();
        const Variable *extent = size ? size->value.as<Variable>() : nullptr;
        return extent && ends_with(extent->name, ".extent.0");
    }

    const std::string output_;
    const bool single_stage_;
    OutputColumns columns_;
    Expr intermediate_columns_, intermediate_rows_;
    Span image_reach_[2];
    Span output_span_[2];  // the output's min and, in 64 bits, its end
    std::map<std::string, Expr> first_rows_;
};

}  // namespace

IRMutator *make_frame_pass(const FilterDefinition &filter, const Inputs &in, int vector_width) {
    return new FramePass(filter, in, vector_width);
}

}  // namespace flatmorph
