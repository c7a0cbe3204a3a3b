// The algorithm of the six filters: what every sample of every stage is.
// How the stages are computed (loops, vectors, threads) lives in schedule.h.
#pragma once

#include "element_rules.h"

#include <Halide.h>

#include <string>
#include <vector>

namespace flatmorph {

// The three input buffers every variant takes, in argument order.
struct Inputs {
    Halide::ImageParam image;   // keyimForType
    Halide::ImageParam minmax;  // float64 pad table: low pad at (0, 0), high pad at (1, 0)
    Halide::ImageParam strel;   // uint8 mask; an element is active iff its byte is exactly 1

    explicit Inputs(Halide::Type element);
};

// A half-open range [lo, hi) of coordinates along one dimension.
struct Span {
    Halide::Expr lo, hi;
};

// One morphological fold over the mask. `accumulator` holds the reduction
// (identity, then one fold per active mask element, mask rows outer, mask
// columns inner; the float folds take the rows from the first); `result` is
// what the stage stores, named after the stage.
struct Stage {
    Halide::Func accumulator;
    Halide::Func result;
    Halide::RDom mask;
    // The first row this stage is computed for: the output's own first row for
    // the output stage, the lowest row the output stage reads for an earlier one.
    Halide::Expr first_row;
};

// A whole filter: its stages in execution order, the last one being the output.
struct FilterDefinition {
    std::vector<Stage> stages;
    // The part of the image a call reads, per dimension: the footprint of the
    // stage that reads it over the region that stage is defined on, clamped to
    // the image (never widened by how a schedule walks the region).
    Span image_reach[2];
    // The region a two-stage filter's first stage is defined on, per dimension
    // (before the wide path widens its columns to a whole tile).
    Span intermediate[2];
    // The output stage also reads the image at the output's own coordinates.
    bool reads_image_at_output = false;
    const Stage &output() const { return stages.back(); }
};

extern const Halide::Var x, y;

// Defines the filter named `filter` ("imdilate", ..., "imbothat") over `in`.
FilterDefinition define_filter(const std::string &filter, const Inputs &in);

// Stage `index` of `filter` for a mask whose every element is active, folded
// column first: `columns` folds each column over the mask's rows, and
// `window` folds a mask's width of those columns, which `result` finishes.
// A float window wider than 7 columns is the fold of two spans of 2^levels
// columns at its ends, which overlap (`levels` is floor(log2 of the mask's
// width), a parameter the path binds): `spans[l]` folds 2^l neighbouring
// columns (spans[0] is the columns' values, each level two halves of the one
// before). An integer or bool window wider than 7 columns folds spans of
// `integer_span` neighbouring columns (spans[1]) that many columns apart
// (`steps`), the last one ending at the window's end. Other windows fold
// their columns one by one (`cols`). The integer and bool folds do not
// depend on the order or repetition of their samples.
// The float folds do only through NaN and the sign of zero, so a float
// column also gathers whether it holds such a sample, and a float stage is a
// Tuple: its value and a flag, 1 where its window's first or last column
// holds one (a row of such flags covers every column the row reads; a row
// flagged anywhere is then folded in its own order, element by element;
// row_checks.h gathers them a row at a time).
// The second stage of a two-stage filter reads the first stage's samples
// from `intermediate`; `result` is named `name`.
struct FullMaskStage {
    Halide::Func columns;
    std::vector<Halide::Func> spans;
    Halide::Func window, result;
    Halide::RDom rows, cols, steps;
    Halide::Param<int> levels;
    // Whether the window folds float spans where it is wide enough.
    bool folds_spans() const { return !steps.defined() && spans.size() > 1; }
};
// Windows needing at most this many levels fold their columns one by one:
// for a float window, three passes of spans and their ends would cost more
// than the six folds they save. (Windows of up to 15 columns one by one, in
// blocks of 8 vectors, took 5 % fewer instructions but 6 to 9 % more time
// on float32 15 x 15: each fold reads the column buffer.) An integer fold
// is one instruction: a pass of spans of 4 columns and a step every 4
// columns pay from 8 columns on (31 columns: 8 steps instead of 30 folds).
constexpr int one_by_one_levels = 2;
constexpr int integer_span = 4;
// `word_minimum`: whether the target's vectors take the minimum of signed
// words as wide as a float sample in one instruction (see the float column).
FullMaskStage define_full_mask_stage(const std::string &filter, size_t index, const Inputs &in,
                                     const Halide::ImageParam &intermediate, const std::string &name,
                                     int max_columns, bool word_minimum);

// Name of the output buffer of a filter ("dilate" for "imdilate", ...).
std::string output_name(const std::string &filter);

}  // namespace flatmorph
