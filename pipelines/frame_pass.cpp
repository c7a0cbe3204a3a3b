#include "frame_pass.h"

#include <map>
#include <set>
#include <stdexcept>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

bool ends_with(const std::string &s, const std::string &suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool starts_with(const std::string &s, const std::string &prefix) { return s.rfind(prefix, 0) == 0; }

class FramePass : public IRMutator {
public:
    FramePass(const FilterDefinition &filter, const Inputs &in, int vw)
        : wide_(simplify(in.image.dim(0).extent() > vw)) {
        for (const Stage &stage : filter.stages) first_rows_[stage.result.name() + ".s0.y"] = stage.first_row;
        if (filter.reads_image_at_output) {
            Expr x0 = filter.output().result.output_buffer().dim(0).min();
            Expr x1 = x0 + filter.output().result.output_buffer().dim(0).extent();
            output_tile_min_ = x1 - vw;
        }
    }

    using IRMutator::mutate;
    Stmt mutate(const Stmt &s) override {
        if (!surveyed_) {
            surveyed_ = true;
            survey_image_region(s);
        }
        return IRMutator::mutate(s);
    }

protected:
    using IRMutator::visit;

    Stmt visit(const AssertStmt *op) override {
        const Call *report = op->message.as<Call>();
        if (report && (report->name == "halide_error_bad_dimensions" ||
                       report->name == "halide_error_device_dirty_with_no_device_support" ||
                       is_dim0_size_check(report))) {
            return Evaluate::make(0);
        }
        return IRMutator::visit(op);
    }

    Stmt visit(const LetStmt *op) override {
        auto corrected = image_region_.find(op->name);
        if (corrected == image_region_.end()) return IRMutator::visit(op);
        return LetStmt::make(op->name, corrected->second, mutate(op->body));
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
        return Block::make(size_check, Allocate::make(op->name, op->type, op->memory_type, op->extents, op->condition,
                                                      mutate(op->body), block, "halide_free"));
    }

private:
    // Halide checks the dim-0 size of each buffer as well; with stride 1 that
    // check cannot fail, and the contract has only the dim-1 one.
    static bool is_dim0_size_check(const Call *report) {
        if (report->name != "halide_error_buffer_allocation_too_large" || report->args.size() < 2) return false;
        const Cast *size = report->args[1].as<Cast>();
        const Variable *extent = size ? size->value.as<Variable>() : nullptr;
        return extent && ends_with(extent->name, ".extent.0");
    }

    // Collects the lets of the image's required dim-0 region and works out
    // their corrected values (see the header comment).
    void survey_image_region(const Stmt &s) {
        std::map<std::string, Expr> lets;
        class Collector : public IRVisitor {
        public:
            std::map<std::string, Expr> &lets;
            explicit Collector(std::map<std::string, Expr> &l) : lets(l) {}
            using IRVisitor::visit;
            void visit(const LetStmt *op) override {
                if (starts_with(op->name, "keyimForType.") && op->name.find(".0.required") != std::string::npos) {
                    lets[op->name] = op->value;
                }
                IRVisitor::visit(op);
            }
        } collector(lets);
        s.accept(&collector);

        const std::string min_name = "keyimForType.min.0.required";
        if (!lets.count(min_name)) return;
        Expr footprint_min = simplify(substitute(wide_, const_false(), lets[min_name]));
        Expr new_min = footprint_min;
        if (output_tile_min_.defined()) new_min = simplify(select(wide_, min(footprint_min, output_tile_min_), footprint_min));
        for (const auto &[name, value] : lets) {
            if (name == min_name) {
                image_region_[name] = new_min;
            } else if (starts_with(name, "keyimForType.extent.0.required")) {
                // The region's end stays; the extent grows by what the min moved.
                image_region_[name] = simplify(substitute(wide_, const_false(), value) + (footprint_min - new_min));
            }
        }
    }

    Expr wide_;
    Expr output_tile_min_;
    std::map<std::string, Expr> first_rows_;
    std::map<std::string, Expr> image_region_;
    bool surveyed_ = false;
};

}  // namespace

IRMutator *make_frame_pass(const FilterDefinition &filter, const Inputs &in, int vector_width) {
    return new FramePass(filter, in, vector_width);
}

}  // namespace flatmorph
