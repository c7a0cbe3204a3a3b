#include "schedule.h"

#include <stdexcept>

using namespace Halide;

namespace flatmorph {

int vector_width(const std::string &type_name, const std::string &tag) {
    Type t = element_type(type_name);
    int sample_bytes = t.is_bool() ? 1 : t.bytes();
    // AVX widens only the float operations to 32 bytes; AVX2 widens everything.
    int register_bytes = tag == "avx2" || (tag == "avx" && t.is_float()) ? 32 : 16;
    return register_bytes / sample_bytes;
}

void schedule_filter(const FilterDefinition &filter, const Inputs &in, int vw) {
    // One test picks the path for every stage of a call: the image's width.
    Expr wide = in.image.dim(0).extent() > vw;
    for (const Stage &stage : filter.stages) {
        Func result = stage.result, accumulator = stage.accumulator;
        if (&stage != &filter.output()) result.compute_root();

        Var tile("tile"), lane("lane");
        result.parallel(y);
        result.specialize(wide).split(x, tile, lane, vw, TailStrategy::ShiftInwards).vectorize(lane);
        result.rename(x, tile);

        // The accumulator of one tile (or one sample) lives in registers; the
        // mask loops run outside the lanes, rows outer and columns inner.
        accumulator.compute_at(result, tile);
        accumulator.specialize(wide).vectorize(x, vw);
        accumulator.update().reorder(x, stage.mask.x, stage.mask.y, y);
        accumulator.update().specialize(wide).vectorize(x, vw);
    }
}

}  // namespace flatmorph
