// How the stages of a filter are computed: rows in parallel, each row walked in
// tiles of one vector (the last tile shifted inward) when the image is wider
// than a vector, sample by sample otherwise. Earlier stages are computed whole
// before the output stage starts.
#pragma once

#include "stages.h"

namespace flatmorph {

// Lanes of one tile for an element type under an instruction-set tag.
int vector_width(const std::string &type_name, const std::string &tag);

// Interior tiles folded together per pass over the mask (see tile_jam.h).
int tiles_in_flight(int vector_width);

void schedule_filter(const FilterDefinition &filter, const Inputs &in, int vector_width);

// The full-mask path walks a row in chunks of this many output columns, each
// with its column folds in stack buffers of a fixed size; it serves stages at
// least one chunk wide and masks at most this many columns wide. Float and
// 8-bit stages at least a wide chunk wide may walk wide chunks.
constexpr int full_mask_chunk = 256;
constexpr int full_mask_wide_chunk = 512;
constexpr int full_mask_max_columns = 65;
// Columns of a chunk's stack buffers: its own and a mask's reach past them.
constexpr int buffer_columns(int chunk) { return chunk + full_mask_max_columns - 1; }
// Column vectors a float stage folds down the mask's rows (and a narrow
// window's over its columns) together, and window vectors an integer stage
// folds over the mask's columns together (see schedule_full_mask).
constexpr int column_block_vectors = 8;
constexpr int window_block_vectors = 8;

void schedule_full_mask(const FullMaskStage &stage, int vector_width, int chunk);

}  // namespace flatmorph
