#include "border_windows.h"

#include "border_loads.h"
#include "let_chains.h"

#include <string>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// A loop over one mask row's columns k whose body folds a padded gather:
// if (mask byte k is 1) { lets; accumulator = fold(accumulator, choice) }.
// `value` is the fold's value with the lets substituted; the gather reads the
// columns start(k) = first + step * k, step being 1 or -1.
struct RowOfFolds {
    const IfThenElse *active;
    const Store *fold;
    Expr value;
    PaddedGather g;
    Expr first;
    int step;
};

bool row_of_folds(const For *loop, RowOfFolds *r) {
    const IfThenElse *active = loop->body.as<IfThenElse>();
    if (loop->for_type != ForType::Serial || !active || active->else_case.defined()) return false;
    const LetChain chain(active->then_case);
    const Store *fold = chain.body.as<Store>();
    if (!fold || !fold->value.type().is_vector()) return false;
    const Expr value = chain.substituted(fold->value);
    PaddedGather g;
    if (!find_padded_gather(value, &g) || expr_uses_var(g.choice->false_value, loop->name)) return false;
    // The window is filled with dense loads: every gather must become one.
    PaddedGather left;
    if (find_padded_gather(as_dense_load(Expr(g.choice)), &left)) return false;
    Expr k = Variable::make(Int(32), loop->name);
    Expr first = simplify(substitute(loop->name, 0, g.start));
    const Expr difference = simplify(substitute(loop->name, 1, g.start) - first);
    const int64_t *step = as_const_int(difference);
    if (!step || (*step != 1 && *step != -1) || !can_prove(g.start == first + static_cast<int>(*step) * k))
        return false;
    *r = {active, fold, value, g, first, static_cast<int>(*step)};
    return true;
}

class BorderWindows : public IRMutator {
    using IRMutator::visit;
    int windows_ = 0;

    // A tile's mask rows: their windows are filled, then folded. The
    // windows have the same columns on every row: each vector of them is
    // filled down the rows, so its lane tests are worked out once.
    Stmt visit(const For *op) override {
        // The loop over a border tile's mask rows: lets, then a row of folds.
        const LetChain row_lets(op->body);
        const For *columns = row_lets.body.as<For>();
        RowOfFolds r;
        if (op->for_type != ForType::Serial || !columns || !row_of_folds(columns, &r)) return IRMutator::visit(op);
        const Select *choice = r.g.choice;
        const int lanes = choice->type.lanes();
        const std::string prefix = columns->name + ".window";
        const std::string buffer = "border_windows$" + std::to_string(windows_++);
        // Bool samples are kept as bytes.
        const Type kept = choice->type.is_bool() ? UInt(8, lanes) : choice->type;
        const int stride = border_window_max_columns + 2 * lanes;
        const int max_rows = border_windows_bytes / (stride * kept.bytes());
        auto var64 = [&](const std::string &suffix) { return Variable::make(Int(64), prefix + suffix); };
        auto wide = [](Expr e) { return cast<int64_t>(e); };

        // The window: the columns from `.min` on that the folds read, k from
        // columns->min to columns->min + columns->extent - 1, each a vector
        // wide; and those of them within the clamp, which the copy reads whole.
        Expr last_k = columns->min + columns->extent - 1;
        Expr window_min = r.step > 0 ? wide(r.first) + wide(columns->min) : wide(r.first) - wide(last_k);
        Expr width = wide(columns->extent) + (lanes - 1);
        Expr inside_lo = max(var64(".min"), wide(r.g.lo));
        Expr inside_hi = min(var64(".min") + width, wide(r.g.hi) + 1);
        for (const Expr &e : {window_min, inside_lo, inside_hi}) {
            if (expr_uses_var(e, op->name)) return op;
            for (const LetStmt *let : row_lets.lets)
                if (expr_uses_var(e, let->name)) return op;
        }
        Expr inside = var64(".inside_hi") - var64(".inside_lo");
        Expr row_start = (Variable::make(Int(32), op->name) - op->min) * stride;
        auto down_the_rows = [&](Stmt s) {
            return For::make(op->name, op->min, op->extent, op->for_type, op->device_api, row_lets.around(s));
        };

        // The choice at the vector of columns from c on: the gather read as a
        // dense load, which stays within the clamp there.
        Expr dense_choice = as_dense_load(Expr(choice));
        auto samples_from = [&](Expr c) {
            Expr k = r.step > 0 ? c - wide(r.first) : wide(r.first) - c;
            return cast(kept, substitute(columns->name, cast<int32_t>(k), dense_choice));
        };
        auto fill_at = [&](Expr position, Expr value) {
            return down_the_rows(Store::make(buffer, value, Ramp::make(row_start + position, 1, lanes), Parameter(),
                                             const_true(lanes), ModulusRemainder()));
        };
        const std::string v = prefix + ".vector", m = prefix + ".copy";
        Expr place = cast<int32_t>(var64(".inside_lo") - var64(".min"));
        Stmt pad = For::make(v, 0, cast<int32_t>((width + (lanes - 1)) / lanes), ForType::Serial, op->device_api,
                             fill_at(Variable::make(Int(32), v) * lanes, cast(kept, choice->false_value)));
        Expr copy_from = var64(".inside_lo") + wide(Variable::make(Int(32), m)) * lanes;
        Stmt copy = For::make(m, 0, cast<int32_t>((inside - 1) / lanes), ForType::Serial, op->device_api,
                              fill_at(place + Variable::make(Int(32), m) * lanes, samples_from(copy_from)));
        Stmt copy_last = fill_at(cast<int32_t>(var64(".inside_hi") - var64(".min")) - lanes,
                                 samples_from(var64(".inside_hi") - lanes));

        // Fold k reads the window from its own first column on, in the same order as before.
        Expr k = Variable::make(Int(32), columns->name);
        Expr offset = r.step > 0 ? k - columns->min : last_k - k;
        Expr from_window = cast(choice->type, Load::make(kept, buffer, Ramp::make(row_start + offset, 1, lanes),
                                                         Buffer<>(), Parameter(), const_true(lanes),
                                                         ModulusRemainder()));
        Stmt fold = Store::make(r.fold->name, substitute(Expr(choice), from_window, r.value), r.fold->index,
                                r.fold->param, r.fold->predicate, r.fold->alignment);
        Stmt folds = down_the_rows(For::make(columns->name, columns->min, columns->extent, columns->for_type,
                                             columns->device_api, IfThenElse::make(r.active->condition, fold)));

        Stmt windowed = Allocate::make(buffer, kept.element_of(), MemoryType::Stack, {max_rows * stride},
                                       const_true(), Block::make({pad, copy, copy_last, folds}));
        Expr fits = op->extent <= max_rows && columns->extent <= border_window_max_columns && inside >= lanes;
        Stmt chosen = IfThenElse::make(fits, windowed, op);
        chosen = LetStmt::make(prefix + ".inside_hi", inside_hi, chosen);
        chosen = LetStmt::make(prefix + ".inside_lo", inside_lo, chosen);
        return LetStmt::make(prefix + ".min", window_min, chosen);
    }
};

}  // namespace

IRMutator *make_border_windows_pass() { return new BorderWindows(); }

}  // namespace flatmorph
