#include "tile_jam.h"

#include <set>
#include <string>
#include <vector>

using namespace Halide;
using namespace Halide::Internal;

namespace flatmorph {

namespace {

// Whether an expression reads a variable or an allocation of `names`.
class Mentions : public IRVisitor {
public:
    Mentions(const std::set<std::string> &names, const Expr &e) : names_(names) { e.accept(this); }
    bool found = false;

private:
    using IRVisitor::visit;
    const std::set<std::string> &names_;
    void visit(const Variable *op) override { found = found || names_.count(op->name); }
    void visit(const Load *op) override {
        found = found || names_.count(op->name);
        IRVisitor::visit(op);
    }
};

// The names a copy of a tile's body must make its own: the tile's
// accumulators, its first lane and the lets that depend on the tile, on its
// first lane or on an accumulator (directly or through other such lets).
class TileDependentNames : public IRVisitor {
public:
    explicit TileDependentNames(const std::string &tile) : tile_(tile) {}
    std::set<std::string> names;

private:
    using IRVisitor::visit;
    const std::string tile_;

    void visit(const LetStmt *op) override {
        if (expr_uses_var(op->value, tile_) || ends_with(op->name, ".lane.base.s") || Mentions(names, op->value).found)
            names.insert(op->name);
        IRVisitor::visit(op);
    }
    void visit(const Allocate *op) override {
        names.insert(op->name);
        IRVisitor::visit(op);
    }
};

// One copy of a tile's body, the copy number `i` of a group: the names above
// suffixed by the copy's number, and the tile's first lane stated as i * VW
// lanes on from the first copy's. (Only a row's last tile is shifted inward,
// and the groups leave it out.)
class CopyForTile : public IRMutator {
public:
    CopyForTile(const std::set<std::string> &names, int i, int vw) : names_(names), i_(i), vw_(vw) {}

    static std::string suffix(int i) { return "$" + std::to_string(i); }

private:
    using IRMutator::visit;
    const std::set<std::string> &names_;
    const int i_, vw_;

    std::string rename(const std::string &name) const { return names_.count(name) ? name + suffix(i_) : name; }

    Expr visit(const Variable *op) override {
        return names_.count(op->name) ? Variable::make(op->type, op->name + suffix(i_)) : op;
    }
    Stmt visit(const LetStmt *op) override {
        Expr value = mutate(op->value);
        if (i_ > 0 && ends_with(op->name, ".lane.base.s"))
            value = Variable::make(Int(32), op->name + suffix(0)) + vw_ * i_;
        return LetStmt::make(rename(op->name), value, mutate(op->body));
    }
    Expr visit(const Load *op) override {
        return Load::make(op->type, rename(op->name), mutate(op->index), op->image, op->param, mutate(op->predicate),
                          op->alignment);
    }
    Stmt visit(const Store *op) override {
        return Store::make(rename(op->name), mutate(op->value), mutate(op->index), op->param, mutate(op->predicate),
                           op->alignment);
    }
    Stmt visit(const Allocate *op) override {
        return Allocate::make(rename(op->name), op->type, op->memory_type, op->extents, mutate(op->condition),
                              mutate(op->body), op->new_expr, op->free_function);
    }
    Stmt visit(const Free *op) override { return Free::make(rename(op->name)); }
};

template <typename Same>
bool all_same(const std::vector<Stmt> &copies, Same same) {
    for (const Stmt &s : copies) {
        if (!same(copies[0], s)) return false;
    }
    return true;
}

template <typename Node>
std::vector<Stmt> field(const std::vector<Stmt> &copies, Stmt Node::*member) {
    std::vector<Stmt> out;
    for (const Stmt &s : copies) out.push_back(s.as<Node>()->*member);
    return out;
}

// The plain vector loads of an expression or statement, in visiting order.
class VectorLoads : public IRVisitor {
public:
    std::vector<const Load *> loads;

private:
    using IRVisitor::visit;
    void visit(const Load *op) override {
        if (op->type.is_vector() && op->index.as<Ramp>()) loads.push_back(op);
        IRVisitor::visit(op);
    }
};

// A later copy's loads of the image (or of an earlier stage) stated as the
// first copy's, `lanes_on` elements further: the tiles of a group are
// neighbours, so this is the same address, and it spares each tile its own
// address arithmetic per mask element.
class AlignWithFirstCopy : public IRMutator {
public:
    AlignWithFirstCopy(const std::vector<const Load *> &first, int lanes_on) : first_(first), lanes_on_(lanes_on) {}

private:
    using IRMutator::visit;
    const std::vector<const Load *> &first_;
    const int lanes_on_;
    size_t next_ = 0;

    Expr visit(const Load *op) override {
        if (!op->type.is_vector() || !op->index.as<Ramp>()) return IRMutator::visit(op);
        const Load *first = first_.at(next_++);
        if (first->name != op->name || equal(first->index, op->index)) return IRMutator::visit(op);
        const Ramp *lanes = first->index.as<Ramp>();
        Expr index = Ramp::make(lanes->base + make_const(lanes->base.type(), lanes_on_), lanes->stride, lanes->lanes);
        return Load::make(op->type, op->name, index, op->image, op->param, op->predicate, op->alignment);
    }
};

// Merges the copies of a tile's body into one: loops and tests that are the
// same in every copy (the mask loops and the mask byte test) are kept once,
// lets and allocations of every copy are nested, and everything else (the
// identity, the fold, the store) follows copy after copy. Inside the fold,
// where every let of the first copy is in scope of the later ones, the later
// copies load at the first copy's addresses plus their lane offset.
class Jam {
public:
    explicit Jam(int vw) : vw_(vw) {}
    Stmt operator()(const std::vector<Stmt> &copies) { return jam(copies, false); }

private:
    const int vw_;

    template <typename T>
    T aligned(const T &copy, const T &first, size_t i) const {
        VectorLoads loads;
        first.accept(&loads);
        return AlignWithFirstCopy(loads.loads, vw_ * static_cast<int>(i)).mutate(copy);
    }

    Stmt leaves(const std::vector<Stmt> &copies, bool fold) const {
        std::vector<Stmt> out;
        for (size_t i = 0; i < copies.size(); i++)
            out.push_back(fold && i ? aligned(copies[i], copies[0], i) : copies[i]);
        return Block::make(out);
    }

    Stmt jam(const std::vector<Stmt> &copies, bool fold) const {
        const Stmt &first = copies[0];
        if (const LetStmt *let = first.as<LetStmt>()) {
            Stmt body = jam(field(copies, &LetStmt::body), fold);
            auto same_name = [](const Stmt &a, const Stmt &b) {
                return a.as<LetStmt>()->name == b.as<LetStmt>()->name;
            };
            if (all_same(copies, same_name)) return LetStmt::make(let->name, let->value, body);
            for (size_t i = copies.size(); i-- > 0;) {
                const LetStmt *copy = copies[i].as<LetStmt>();
                Expr value = fold && i ? aligned(copy->value, let->value, i) : copy->value;
                body = LetStmt::make(copy->name, value, body);
            }
            return body;
        }
        if (first.as<Allocate>()) {
            Stmt body = jam(field(copies, &Allocate::body), fold);
            for (size_t i = copies.size(); i-- > 0;) {
                const Allocate *copy = copies[i].as<Allocate>();
                body = Allocate::make(copy->name, copy->type, copy->memory_type, copy->extents, copy->condition, body,
                                      copy->new_expr, copy->free_function);
            }
            return body;
        }
        if (const ProducerConsumer *pc = first.as<ProducerConsumer>()) {
            std::vector<Stmt> bodies = field(copies, &ProducerConsumer::body);
            return ProducerConsumer::make(pc->name, pc->is_producer,
                                          pc->is_producer ? jam(bodies, true) : leaves(bodies, false));
        }
        if (first.as<Block>()) {
            return Block::make(jam(field(copies, &Block::first), fold), jam(field(copies, &Block::rest), fold));
        }
        if (const For *loop = first.as<For>()) {
            if (all_same(copies, [](const Stmt &a, const Stmt &b) {
                    const For *p = a.as<For>(), *q = b.as<For>();
                    return p->name == q->name && equal(p->min, q->min) && equal(p->extent, q->extent);
                })) {
                return For::make(loop->name, loop->min, loop->extent, loop->for_type, loop->device_api,
                                 jam(field(copies, &For::body), fold));
            }
        }
        if (const IfThenElse *test = first.as<IfThenElse>()) {
            if (!test->else_case.defined() && all_same(copies, [](const Stmt &a, const Stmt &b) {
                    return equal(a.as<IfThenElse>()->condition, b.as<IfThenElse>()->condition);
                })) {
                return IfThenElse::make(test->condition, jam(field(copies, &IfThenElse::then_case), fold));
            }
        }
        return leaves(copies, fold);
    }
};

// Whether a tile is an interior one: it loads vectors, and all of them whole.
// The border tiles gather clamped lanes instead; the narrow path loads none.
class InteriorTile : public IRVisitor {
public:
    bool vector_loads = false, gathers = false;

private:
    using IRVisitor::visit;
    void visit(const Load *op) override {
        if (op->type.is_vector()) (op->index.as<Ramp>() ? vector_loads : gathers) = true;
        IRVisitor::visit(op);
    }
};

class TileJam : public IRMutator {
public:
    TileJam(int tiles, int vw) : tiles_(tiles), vw_(vw) {}

private:
    using IRMutator::visit;
    const int tiles_, vw_;

    Stmt visit(const For *op) override {
        if (!is_tile_loop(op)) return IRMutator::visit(op);
        InteriorTile tile_kind;
        op->body.accept(&tile_kind);
        if (!tile_kind.vector_loads || tile_kind.gathers) return op;

        // Groups of n neighbouring tiles cover the run but its last tile (the
        // only one that can be a row's inward-shifted tile); the last group is
        // moved back to end there, so a few tiles are computed twice and store
        // the same values again. The last tile, and a run too short for one
        // group, go one tile at a time as before.
        const int n = tiles_;
        Expr before_last = max(op->extent - 1, 0);
        Expr grouped = select(before_last >= n, before_last, 0);
        const std::string group = op->name + ".jam";
        Expr group_start = min(Variable::make(Int(32), group) * n, grouped - n);
        TileDependentNames names(op->name);
        op->body.accept(&names);
        std::vector<Stmt> copies;
        for (int i = 0; i < n; i++) {
            Stmt copy = CopyForTile(names.names, i, vw_).mutate(op->body);
            copies.push_back(substitute(op->name, op->min + group_start + i, copy));
        }
        Stmt jammed = For::make(group, 0, (grouped + n - 1) / n, ForType::Serial, op->device_api, Jam(vw_)(copies));
        Stmt rest = For::make(op->name, op->min + grouped, max(op->extent, 0) - grouped, ForType::Serial,
                              op->device_api, op->body);
        return Block::make(jammed, rest);
    }
};

}  // namespace

bool is_tile_loop(const Stmt &s) {
    const For *loop = s.as<For>();
    return loop && loop->for_type == ForType::Serial &&
           (ends_with(loop->name, ".s0.x.tile") || ends_with(loop->name, ".s0.x.tile.rebased"));
}

Stmt jam_tiles(const std::vector<Stmt> &bodies, int vector_width) {
    TileDependentNames names("");
    for (const Stmt &body : bodies) body.accept(&names);
    std::vector<Stmt> copies;
    for (size_t i = 0; i < bodies.size(); i++)
        copies.push_back(CopyForTile(names.names, static_cast<int>(i), vector_width).mutate(bodies[i]));
    return Jam(vector_width)(copies);
}

IRMutator *make_tile_jam_pass(int tiles, int vector_width) { return new TileJam(tiles, vector_width); }

}  // namespace flatmorph
