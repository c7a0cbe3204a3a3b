#include "row_edges.h"

#include "border_loads.h"
#include "let_chains.h"
#include "tile_jam.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

bool is_lane_base(const std::string &name) { return ends_with(name, ".lane.base.s"); }

// A tile body with its lets substituted where they are used, but for the
// tile's first lane: the bodies of a border tile and of an interior one then
// state their mask loops and tests alike, whatever names their lets had.
class InlineLets : public IRMutator {
    using IRMutator::visit;
    Stmt visit(const LetStmt *op) override {
        Stmt body = mutate(op->body);
        if (is_lane_base(op->name)) return LetStmt::make(op->name, op->value, body);
        return substitute(op->name, op->value, body);
    }
};

// A body whose first lane is `base` instead of its own.
class AtBase : public IRMutator {
public:
    explicit AtBase(Expr base) : base_(std::move(base)) {}

private:
    using IRMutator::visit;
    const Expr base_;
    Stmt visit(const LetStmt *op) override {
        if (!is_lane_base(op->name)) return IRMutator::visit(op);
        return LetStmt::make(op->name, base_, op->body);
    }
};

// The lowest or highest value `e` takes over the loops, in each of which it
// is monotonic (the columns and rows a tile reads move with the mask's).
Expr extreme(Expr e, const std::vector<const For *> &loops, bool highest) {
    for (const For *loop : loops) {
        Expr first = substitute(loop->name, loop->min, e);
        Expr last = substitute(loop->name, loop->min + loop->extent - 1, e);
        e = highest ? max(first, last) : min(first, last);
    }
    return e;
}

// A padded gather read as one whole-vector load at its own columns: the
// columns' first and their clamp, the load's first index, the buffer read
// (the image, or an earlier stage's allocation) and the loops around the
// fold, outermost first.
struct WholeRead {
    Expr start, lo, hi, index;
    bool from_image;
    std::string buffer;
    std::vector<const For *> loops;
};

// The elements of each allocation in scope, by name.
using Allocations = std::map<std::string, Expr>;

// A border tile's folds with each padded gather read whole, the lanes'
// choice kept; `reads` lists what they read.
class ReadWhole : public IRMutator {
public:
    std::vector<WholeRead> reads;
    bool every_gather = true;

private:
    using IRMutator::visit;
    std::vector<const For *> loops_;
    Stmt visit(const For *op) override {
        loops_.push_back(op);
        Stmt s = IRMutator::visit(op);
        loops_.pop_back();
        return s;
    }
    Stmt visit(const Store *op) override {
        Expr value = op->value;
        PaddedGather g;
        while (find_padded_gather(value, &g)) {
            const Expr dense = as_dense_load(Expr(g.gather));
            const Load *load = dense.as<Load>();
            const Ramp *index = load ? load->index.as<Ramp>() : nullptr;
            if (!index) {
                every_gather = false;
                break;
            }
            reads.push_back({g.start, g.lo, g.hi, index->base, g.gather->param.defined(), g.gather->name, loops_});
            value = substitute(Expr(g.choice), as_dense_load(Expr(g.choice)), value);
        }
        return Store::make(op->name, value, op->index, op->param, op->predicate, op->alignment);
    }
};

// A border tile's body (its lets inlined) with its folds reading whole
// vectors, and what those read for any first lane of the tile.
class BorderTile {
public:
    BorderTile(const Stmt &body, int vw, const Allocations &allocations) : vw_(vw) {
        const LetChain lets(body);
        if (lets.lets.empty() || !is_lane_base(lets.lets[0]->name)) return;
        lane_base_ = lets.lets[0]->name;
        ReadWhole read_whole;
        whole_ = read_whole.mutate(body);
        reads_ = read_whole.reads;
        valid_ = read_whole.every_gather && !reads_.empty();
        for (const WholeRead &r : reads_) {
            // Indices run from the buffer's first element: an allocation's
            // elements are dense, an image's span its rows (dim 0 is dense).
            Expr first = make_zero(Int(64)), last;
            if (r.from_image) {
                auto field = [&](const std::string &name, int d) {
                    return cast<int64_t>(Variable::make(Int(32), r.buffer + "." + name + "." + std::to_string(d)));
                };
                Expr rows_apart = (field("extent", 1) - 1) * field("stride", 1);
                first = min(rows_apart, 0);
                last = max(rows_apart, 0) + field("extent", 0) - 1;
            } else if (allocations.count(r.buffer)) {
                last = allocations.at(r.buffer) - 1;
            } else {
                valid_ = false;
            }
            buffers_.push_back({first, last});
        }
    }
    bool valid() const { return valid_; }
    const Stmt &whole() const { return whole_; }

    // Whether the tile at `base` reads only columns its buffer holds (the
    // image's, or those an earlier stage holds), so no lane takes the pad.
    Expr inside(Expr base) const {
        Expr all = const_true();
        for (const WholeRead &r : reads_) {
            Expr start = cast<int64_t>(at(r.start, base));
            all = all && extreme(start, r.loops, false) >= cast<int64_t>(at(r.lo, base)) &&
                  extreme(start, r.loops, true) + (vw_ - 1) <= cast<int64_t>(at(r.hi, base));
        }
        return all;
    }

    // Whether every vector the tile at `base` reads whole lies within the
    // memory of the buffer it reads.
    Expr in_memory(Expr base) const {
        Expr all = const_true();
        for (size_t i = 0; i < reads_.size(); i++) {
            const WholeRead &r = reads_[i];
            Expr index = at(r.index, base);
            all = all && extreme(index, r.loops, false) >= buffers_[i].first &&
                  extreme(index, r.loops, true) + (vw_ - 1) <= buffers_[i].last;
        }
        return all;
    }

private:
    const int vw_;
    bool valid_ = false;
    std::string lane_base_;
    Stmt whole_;
    std::vector<WholeRead> reads_;
    struct Indices {
        Expr first, last;
    };
    std::vector<Indices> buffers_;  // the first and last index of each read's buffer

    Expr at(const Expr &e, const Expr &base) const { return substitute(lane_base_, base, e); }
};

// Where a row's tiles start: tile t's first lane is min(first + t * VW,
// last), the last tile shifted inward to end with the row.
struct RowTiles {
    Expr first, last;
    bool defined() const { return first.defined(); }
    Expr width(int vw) const { return last + vw - first; }
};

RowTiles row_tiles(const Stmt &body, const std::string &tile) {
    const LetChain lets(body);
    const Min *shifted = lets.lets.empty() ? nullptr : lets.lets[0]->value.as<Min>();
    if (!shifted) return {};
    return {simplify(substitute(tile, 0, shifted->a)), shifted->b};
}

class RowEdges : public IRMutator {
public:
    RowEdges(int tiles, int vw) : n_(tiles), vw_(vw) {}

private:
    using IRMutator::visit;
    const int n_, vw_;
    Allocations allocations_;

    Stmt visit(const Allocate *op) override {
        Expr elements = make_one(Int(64));
        for (const Expr &extent : op->extents) elements = elements * cast<int64_t>(extent);
        allocations_[op->name] = elements;
        Stmt s = IRMutator::visit(op);
        allocations_.erase(op->name);
        return s;
    }

    // A row's tile loops, each after its lets: the left border run, the
    // interior run and the right border run.
    Stmt visit(const Block *op) override {
        const LetChain at_left(op->first);
        const Block *rest = op->rest.as<Block>();
        if (!is_tile_loop(at_left.body) || !rest) return IRMutator::visit(op);
        const LetChain at_interior(rest->first), at_right(rest->rest);
        if (!is_tile_loop(at_interior.body) || !is_tile_loop(at_right.body)) return IRMutator::visit(op);
        const For *left = at_left.body.as<For>(), *interior = at_interior.body.as<For>(),
                  *right = at_right.body.as<For>();

        const Stmt left_body = InlineLets().mutate(left->body), right_body = InlineLets().mutate(right->body);
        const Stmt interior_body = InlineLets().mutate(interior->body);
        const BorderTile left_tile(left_body, vw_, allocations_), right_tile(right_body, vw_, allocations_);
        const RowTiles tiles = row_tiles(left_body, left->name);
        if (!left_tile.valid() || !right_tile.valid() || !tiles.defined()) return op;
        // The tiles' loops name them only in their first lanes, which the groups state.
        for (const Stmt &body : {left_body, right_body, interior_body})
            for (const For *loop : {left, interior, right})
                if (stmt_uses_var(AtBase(0).mutate(body), loop->name)) return op;

        const int n = n_, vw = vw_;
        const std::string tile = interior->name;
        const Stmt &left_whole = left_tile.whole(), &right_whole = right_tile.whole();
        // A group is a loop of one turn, so that loop_steps.h serves it as it does the interior groups.
        auto group = [&](const std::string &side, Expr first_lane, Stmt first_body, Stmt last_body) {
            std::vector<Stmt> bodies(n, interior_body);
            bodies.front() = AtBase(first_lane).mutate(first_body);
            bodies.back() = last_body;
            return For::make(tile + "." + side + ".jam", 0, 1, ForType::Serial, interior->device_api,
                             jam_tiles(bodies, vw));
        };
        // The left group: the row's first tile (a border tile) and interior
        // tiles after it; the right group: interior tiles, then the border
        // tile ending the row. Between them, the interior tiles from the left
        // group's end until the right group's start, at whole vectors. A row
        // of exactly one group's width is one group with a border tile at
        // each end.
        const Expr first = tiles.first, last = tiles.last, width = tiles.width(vw);
        const Expr right_start = last - (n - 1) * vw;
        const Expr middle_end = (width - n * vw + (vw - 1)) / vw;
        const Stmt middle = For::make(tile, n, max(middle_end - n, 0), ForType::Serial, interior->device_api,
                                      AtBase(first + Variable::make(Int(32), tile) * vw).mutate(interior_body));
        const Stmt grouped = Block::make({group("left", first, left_whole, interior_body), middle,
                                          group("right", right_start, interior_body, right_whole)});
        const Stmt one_group = group("whole", first, left_whole, right_whole);

        // A row without border tiles (a mask that reaches no column aside) is one interior run already.
        Expr edges = (left->extent > 0 || right->extent > 0) && left_tile.in_memory(first) &&
                     right_tile.in_memory(last) && left_tile.inside(first + vw) && right_tile.inside(last - vw);
        Expr groups_fit =
            width >= n * vw && left_tile.inside(first + (n - 1) * vw) && right_tile.inside(right_start);
        const Stmt as_before = Block::make({at_left.body, at_interior.body, at_right.body});
        Stmt chosen = IfThenElse::make(simplify(edges && width == n * vw), one_group, as_before);
        chosen = IfThenElse::make(simplify(edges && groups_fit), grouped, chosen);
        return at_left.around(at_interior.around(at_right.around(chosen)));
    }
};

}  // namespace

IRMutator *make_row_edges_pass(int tiles, int vector_width) { return new RowEdges(tiles, vector_width); }

}  // namespace flatmorph
