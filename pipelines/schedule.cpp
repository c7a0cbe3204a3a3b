#include "schedule.h"

#include <algorithm>

using namespace Halide;

namespace flatmorph {

namespace {

// Tiles folded together per pass over the mask on the wide path: enough to
// cover 32 lanes, so that the mask loop's own work is spread over several
// vector folds, but no more, since a group at the image's border is computed
// lane by lane as a whole.
int tiles_in_flight(int vw) { return std::max(1, std::min(4, 32 / vw)); }

}  // namespace

int vector_width(const std::string &type_name, const std::string &tag) {
    Type t = element_type(type_name);
    int sample_bytes = t.is_bool() ? 1 : t.bytes();
    // AVX widens only the float operations to 32 bytes; AVX2 widens everything.
    int register_bytes = tag == "avx2" || (tag == "avx" && t.is_float()) ? 32 : 16;
    return register_bytes / sample_bytes;
}

void schedule_filter(const FilterDefinition &filter, const Inputs &in, int vw) {
    const int group_tiles = tiles_in_flight(vw);
    // One test picks the path for every stage of a call: the image's width.
    Expr wide = in.image.dim(0).extent() > vw;
    for (const Stage &stage : filter.stages) {
        Func result = stage.result, accumulator = stage.accumulator;
        if (&stage != &filter.output()) result.compute_root();

        // Wide path: tiles of one vector, the last one shifted inward, taken
        // group_tiles at a time so that one pass over the mask folds several
        // tiles. Narrow path: one sample at a time.
        Var tile("tile"), lane("lane"), group("group"), member("member");
        result.parallel(y);
        result.specialize(wide)
            .split(x, tile, lane, vw, TailStrategy::ShiftInwards)
            .split(tile, group, member, group_tiles, TailStrategy::GuardWithIf)
            .vectorize(lane);
        result.rename(x, group);

        // The accumulators of a group live in registers; the mask loops run
        // outside the tiles, rows outer and columns inner, and each active
        // element is folded into every tile of the group in turn.
        accumulator.compute_at(result, group).bound_storage(x, group_tiles * vw);
        // An update cannot shift its last tile. Where a group is short (the
        // region's end), a fold of the image simply folds a whole group's
        // columns into lanes nobody stores: its loads are clamped, and the
        // image's required region is stated by the filter, not inferred. A
        // fold of an earlier stage is guarded instead, since what it reads
        // sizes that stage.
        const TailStrategy tail = stage.reads_earlier_stage ? TailStrategy::GuardWithIf : TailStrategy::RoundUp;
        Var acc_tile("acc_tile"), acc_lane("acc_lane"), acc_group("acc_group"), acc_member("acc_member");
        Halide::Stage fold = accumulator.update();
        fold.reorder(x, stage.mask.x, stage.mask.y, y);
        for (Halide::Stage step : {Halide::Stage(accumulator), fold}) {
            step.specialize(wide)
                .split(x, acc_tile, acc_lane, vw, tail)
                .split(acc_tile, acc_group, acc_member, group_tiles, tail)
                .unroll(acc_member)
                .vectorize(acc_lane);
        }
    }
}

}  // namespace flatmorph
