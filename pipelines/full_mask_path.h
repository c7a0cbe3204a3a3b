// A second row path for each stage of a filter, taken when the mask has
// every element active (squares, rectangles): each row task folds down the
// mask's columns first and then along its rows, so a row costs about the
// mask's width plus its height per sample instead of their product. A float
// row that meets NaN or -0.0 (whose place in the fold order shows in the
// result) is folded again by the element-wise path, as is every row of a
// call whose pads are such values.
//
// Halide compiles that path as a pipeline of its own (define_full_mask_stage,
// schedule_full_mask; a float or 8-bit stage once more with wide chunks,
// taken on stages at least that wide); this pass lowers it, takes its row body, and
// puts it into the row closure of the stage's wide path behind a test made once per
// call: the mask's bytes all 1, the mask at most full_mask_max_columns wide
// and the stage at least one chunk wide. The entry, its checks, its regions
// and its parallel loops stay as they were; the row closures are the same
// symbols, and nothing new is called (the path's own bound checks cannot
// fire under that test and are dropped). The second stage of a two-stage
// filter reads the intermediate where the variant keeps it.
#pragma once

#include "stages.h"

namespace flatmorph {

Halide::Internal::IRMutator *make_full_mask_pass(const std::string &filter, size_t stage,
                                                  const FilterDefinition &definition, const Inputs &in,
                                                  int vector_width, const Halide::Target &target);

}  // namespace flatmorph
