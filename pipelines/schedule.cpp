#include "schedule.h"

#include <algorithm>

using namespace Halide;

namespace flatmorph {

int vector_width(const std::string &type_name, const std::string &tag) {
    Type t = element_type(type_name);
    int sample_bytes = t.is_bool() ? 1 : t.bytes();
    // AVX widens only the float operations to 32 bytes; AVX2 widens everything.
    int register_bytes = tag == "avx2" || (tag == "avx" && t.is_float()) ? 32 : 16;
    return register_bytes / sample_bytes;
}

int tiles_in_flight(int vw) {
    // 256 bytes of lanes, in at most 8 accumulators (with the loaded vectors
    // they still fit the 16 vector registers). On images larger than the
    // caches, groups of 128 bytes of uint8 ran 2.5x slower, stalled on loads.
    return std::max(1, std::min(8, 256 / vw));
}

void schedule_filter(const FilterDefinition &filter, const Inputs &in, int vw) {
    // One test picks the path for every stage of a call: the image's width.
    Expr wide = in.image.dim(0).extent() > vw;
    for (const Stage &stage : filter.stages) {
        Func result = stage.result, accumulator = stage.accumulator;
        if (&stage != &filter.output()) result.compute_root();

        // Wide path: tiles of one vector, the last one shifted inward.
        // Narrow path: one sample at a time.
        Var tile("tile"), lane("lane");
        result.parallel(y);
        result.specialize(wide).split(x, tile, lane, vw, TailStrategy::ShiftInwards).vectorize(lane);
        result.rename(x, tile);

        // A tile's accumulator lives in a register; the mask loops run inside
        // the tile, rows outer and columns inner. The interior tiles of a row
        // are later folded several at a time (see tile_jam.h).
        accumulator.compute_at(result, tile);
        Halide::Stage fold = accumulator.update();
        fold.reorder(x, stage.mask.x, stage.mask.y, y);
        for (Halide::Stage step : {Halide::Stage(accumulator), fold}) step.specialize(wide).vectorize(x, vw);
    }
}

void schedule_full_mask(const FullMaskStage &stage, const Inputs &in, int vw, int chunk_columns) {
    // Rows in parallel; a row in chunks (the last one shifted inward), a chunk
    // in tiles of one vector. A chunk first folds the image columns it reaches
    // over the mask's rows into its buffer; then each tile folds its vector of
    // windows from those, or the chunk folds them into spans first.
    Var chunk("chunk"), column("column"), tile("tile"), lane("lane");
    Func result = stage.result, columns = stage.columns, window = stage.window;
    result.parallel(y)
        .split(x, chunk, column, chunk_columns, TailStrategy::ShiftInwards)
        .split(column, tile, lane, vw)
        .vectorize(lane);
    columns.compute_at(result, chunk).bound_extent(x, buffer_columns(chunk_columns));
    columns.vectorize(x, vw);
    if (!stage.folds_spans()) {
        // Image rows 4 KB apart or more are folded one after another, each read
        // along the chunk: down a column, rows at such strides share a few cache
        // sets and evict each other (31 x 31 on 4096 x 4096, one thread: uint8
        // 32.7 -> 15.7 ms). Shorter rows fold each column down, which keeps the
        // border chunks' tests out of the row loop (31 x 31 uint8 on 512 x 512:
        // 0.50 -> 0.33 ms).
        Halide::Stage fold_down = columns.update();
        fold_down.vectorize(x, vw);
        const int sample_bytes = in.image.type().bytes();
        fold_down.specialize(in.image.dim(1).stride() >= 4096 / sample_bytes).reorder(x, stage.rows);
        fold_down.reorder(stage.rows, x);
        // A tile's windows live in a register.
        window.compute_at(result, tile).vectorize(x, vw);
        window.update().reorder(x, stage.cols).vectorize(x, vw);
        return;
    }
    // A float fold waits on the one before (a maximum's latency) and checks
    // each sample: the mask's rows are folded into a block of column vectors
    // at a time, rows inner, the block's vectors independent chains (a
    // float32 31 x 31 dilation of 512 x 512 walking one vector down the rows
    // took twice as long). The buffer's width is a whole number of blocks.
    Var block("block"), in_block("in_block"), vector("vector");
    static_assert(buffer_columns(full_mask_chunk) % (column_block_vectors * 16) == 0 &&
                      buffer_columns(full_mask_wide_chunk) % (column_block_vectors * 16) == 0,
                  "blocks of up to 16 lanes must tile the buffer");
    columns.update()
        .split(x, block, in_block, column_block_vectors * vw)
        .split(in_block, vector, lane, vw)
        .vectorize(lane)
        .unroll(vector)
        .reorder(lane, vector, stage.rows, block);
    // Each count of levels is a loop nest of its own, which computes only the
    // spans it reads; the spans live in stack buffers of a fixed size.
    Var whole("whole");
    window.compute_at(result, chunk)
        .bound_extent(x, chunk_columns)
        .split(x, whole, x, chunk_columns)
        .vectorize(x, vw);
    window.specialize(stage.levels <= one_by_one_levels);
    for (int levels = one_by_one_levels + 1; levels < (int)stage.spans.size(); levels++)
        window.specialize(stage.levels == levels);
    window.specialize_fail("no count of span levels matched");
    // A narrow window folds each vector over its columns in a register.
    window.update().split(x, whole, x, chunk_columns).vectorize(x, vw).reorder(x, stage.cols, whole);
    for (size_t l = 1; l < stage.spans.size(); l++) {
        Func span = stage.spans[l];
        span.compute_at(window, whole)
            .bound_storage(x, buffer_columns(chunk_columns))
            .vectorize(x, vw, TailStrategy::ShiftInwards);
    }
}

}  // namespace flatmorph
