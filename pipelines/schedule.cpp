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

namespace {

// Folds a chunk's column vectors down the mask's rows a block of `vectors`
// at a time: the rows inner, the block's vectors unrolled in registers, so a
// step down the rows costs a load and a fold per vector and nothing else.
void fold_down_in_blocks(Halide::Stage fold_down, const RVar &rows, int vw, int vectors) {
    Var block("block"), in_block("in_block"), vector("vector"), lane("lane");
    fold_down.split(x, block, in_block, vectors * vw)
        .split(in_block, vector, lane, vw)
        .vectorize(lane)
        .unroll(vector)
        .reorder(lane, vector, rows, block);
}

// Integer blocks: the largest count of vectors up to 8 that tiles the buffer.
int integer_block_vectors(int vw, int chunk_columns) {
    const int vectors = buffer_columns(chunk_columns) / vw;
    for (int block = 8; block > 1; block--)
        if (vectors % block == 0) return block;
    return 1;
}

}  // namespace

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
        // along the chunk: down a column, rows at such strides share a cache
        // set and evict each other (31 x 31 uint8 on 4096 x 4096, one thread:
        // 32.7 -> 15.7 ms; by blocks, twice as slow). Shorter rows fold blocks
        // of column vectors down, each line of a row read whole in one pass
        // (against one vector at a time, uint8 7 x 7 on 512 x 512: 0.80 of
        // the time; 31 x 31 on 2048 columns, where rows share two sets: 0.46).
        Halide::Stage fold_down = columns.update();
        const int sample_bytes = in.image.type().bytes();
        Expr stride = in.image.dim(1).stride();
        fold_down.specialize(stride >= 4096 / sample_bytes).vectorize(x, vw).reorder(x, stage.rows);
        fold_down_in_blocks(fold_down, stage.rows, vw, integer_block_vectors(vw, chunk_columns));
        // A tile's windows live in a register.
        window.compute_at(result, tile).vectorize(x, vw);
        window.update().reorder(x, stage.cols).vectorize(x, vw);
        return;
    }
    // A float fold waits on the one before (a maximum's latency) and checks
    // each sample: blocks of column vectors are folded down the rows as
    // independent chains (a float32 31 x 31 dilation of 512 x 512 walking
    // one vector down the rows took twice as long).
    static_assert(buffer_columns(full_mask_chunk) % (column_block_vectors * 16) == 0 &&
                      buffer_columns(full_mask_wide_chunk) % (column_block_vectors * 16) == 0,
                  "blocks of up to 16 lanes must tile the buffer");
    fold_down_in_blocks(columns.update(), stage.rows, vw, column_block_vectors);
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
