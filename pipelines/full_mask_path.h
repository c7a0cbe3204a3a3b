// A second row path for single-stage integer and bool filters whose mask has
// every element active (squares, rectangles, lines): each row task folds
// down the mask's columns first and then along its rows, so a row costs about
// the mask's width plus its height per sample instead of their product.
//
// Halide compiles that path as a pipeline of its own (define_full_mask_filter,
// schedule_full_mask); this pass lowers it, takes its row body, and puts it
// into the row closure of the variant's wide path behind a test made once per
// call: the mask's bytes all 1, the mask at most full_mask_max_columns wide
// and the output at least one chunk wide. The entry, its checks, its regions
// and its one parallel loop stay as they were; the row closure is the same
// symbol, and nothing new is called (the path's own bound checks cannot fire
// under that test and are dropped).
#pragma once

#include "stages.h"

namespace flatmorph {

Halide::Internal::IRMutator *make_full_mask_pass(const std::string &filter, const Inputs &in,
                                                  const Halide::Internal::Parameter &output_buffer,
                                                  int vector_width, const Halide::Target &target);

}  // namespace flatmorph
