#include "schedule.h"

#include <algorithm>
#include <vector>

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

// Folds a Func's vectors over the reduction `over` a block of `vectors` at a
// time: `over` inner, the block's vectors unrolled in registers, so a step
// costs a load and a fold per vector and nothing else. `outer` are the
// stage's loops kept outside the blocks.
void fold_in_blocks(Halide::Stage stage, const RVar &over, int vw, int vectors, const std::vector<Var> &outer = {}) {
    Var block("block"), in_block("in_block"), vector("vector"), lane("lane");
    stage.split(x, block, in_block, vectors * vw).split(in_block, vector, lane, vw).vectorize(lane).unroll(vector);
    std::vector<VarOrRVar> order = {lane, vector, over, block};
    order.insert(order.end(), outer.begin(), outer.end());
    stage.reorder(order);
}

// Integer blocks: the largest count of vectors up to 10 that tiles the
// buffer (with the vector loaded, 10 accumulators fit the 16 registers).
int integer_block_vectors(int vw, int chunk_columns) {
    const int vectors = buffer_columns(chunk_columns) / vw;
    for (int block = 10; block > 1; block--)
        if (vectors % block == 0) return block;
    return 1;
}

}  // namespace

void schedule_full_mask(const FullMaskStage &stage, int vw, int chunk_columns) {
    // Rows in parallel; a row in chunks (the last one shifted inward), a chunk
    // in tiles of one vector. A chunk first folds the image columns it reaches
    // over the mask's rows into its buffer; then it folds its windows from
    // those, or folds them into spans first.
    Var chunk("chunk"), column("column"), tile("tile"), lane("lane");
    Func result = stage.result, columns = stage.columns, window = stage.window;
    result.parallel(y)
        .split(x, chunk, column, chunk_columns, TailStrategy::ShiftInwards)
        .split(column, tile, lane, vw)
        .vectorize(lane);
    columns.compute_at(result, chunk).bound_extent(x, buffer_columns(chunk_columns));
    columns.vectorize(x, vw);
    if (!stage.folds_spans()) {
        // Blocks of column vectors are folded down the rows, each line of a
        // row read whole in one pass (against one vector at a time, 7 x 7 uint8
        // on 512 x 512: 0.80 of the time; 31 x 31 on 2048 columns, where rows
        // share two cache sets and evict each other: 0.46). Against each row
        // folded along the chunk into the buffer, as rows 4 KB apart and more
        // were (down a column they all share a set), blocks of 10 vectors:
        // uint8 7 x 7 and 31 x 31 on 4096 columns, 0.62 and 0.88 of the time
        // (on 512 columns, 1.04 and 1.1 against blocks of 5, but choosing the
        // block by the stride cost more on both).
        fold_in_blocks(columns.update(), stage.rows, vw, integer_block_vectors(vw, chunk_columns));
        // The chunk's windows are folded over the mask's columns a block of
        // vectors at a time, in registers (a tile at a time, each paid its
        // loop over the columns: 18 % more instructions on 7 x 7 uint8).
        static_assert(full_mask_chunk % (window_block_vectors * 32) == 0, "blocks of up to 32 lanes must tile a chunk");
        // Unrolled where it starts from the columns and where the result
        // reads it, the window's vectors have fixed places, which LLVM keeps
        // in registers (it copied them to the stack and back: 4 % of the
        // instructions at 512 columns, 11 % at 4096).
        window.compute_at(result, chunk).bound_extent(x, chunk_columns).vectorize(x, vw).unroll(x);
        fold_in_blocks(window.update(0), stage.cols, vw, window_block_vectors);
        // A wider window's spans cover the column buffer but its last columns,
        // where none starts, in blocks of 4 vectors (the last one shifted
        // inward); they are computed only where the window takes steps (see
        // full_mask_path.cpp), which fold them in blocks of vectors too.
        Func spans = stage.spans.back();
        Var block("block"), vector("vector");
        spans.compute_at(result, chunk)
            .bound_extent(x, buffer_columns(chunk_columns) - (integer_span - 1))
            .split(x, block, x, 4 * vw, TailStrategy::ShiftInwards)
            .split(x, vector, x, vw)
            .vectorize(x)
            .unroll(vector);
        fold_in_blocks(window.update(1), stage.steps, vw, window_block_vectors);
        result.unroll(tile);
        return;
    }
    // A float fold waits on the one before (a maximum's latency) and checks
    // each sample: blocks of column vectors are folded down the rows as
    // independent chains (a float32 31 x 31 dilation of 512 x 512 walking
    // one vector down the rows took twice as long). Blocks of 8 vectors hold
    // in registers with the checks' few accumulators (row_checks.h): against
    // blocks of 4, float32 7 x 7 and 15 x 15 took 0.95 and 0.86 of the time
    // on 4096 columns, 15 x 15 and 31 x 31 0.93 and 0.94 on 512 x 512 (7 x 7
    // there 1.01).
    static_assert(buffer_columns(full_mask_chunk) % (column_block_vectors * 8) == 0 &&
                      buffer_columns(full_mask_wide_chunk) % (column_block_vectors * 8) == 0,
                  "blocks of up to 8 float lanes must tile the buffer");
    fold_in_blocks(columns.update(), stage.rows, vw, column_block_vectors);
    // A column starts from its first row's sample a block of vectors at a
    // time as well (a vector at a time, its addresses and its checks' chain
    // cost 11 instructions a vector: float32 7 x 7 on 4096 columns, 8 % more a row).
    columns.unroll(x, column_block_vectors);
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
    // A narrow window folds blocks of vectors over its columns in registers
    // (one column at a time along the chunk, each vector was loaded and
    // stored again for each column: float32 7 x 7 on 512 x 512, 0.92 of the time).
    Halide::Stage narrow = window.update();
    narrow.split(x, whole, x, chunk_columns);
    fold_in_blocks(narrow, stage.cols, vw, column_block_vectors, {whole});
    for (size_t l = 1; l < stage.spans.size(); l++) {
        Func span = stage.spans[l];
        span.compute_at(window, whole)
            .bound_storage(x, buffer_columns(chunk_columns))
            .vectorize(x, vw, TailStrategy::ShiftInwards);
    }
}

}  // namespace flatmorph
