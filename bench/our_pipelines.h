// Our variants, found by their exported names and called on cv::Mat pixels
// through halide_buffer_t descriptors (no copy).
#pragma once

#include "element_types.h"
#include "filters.h"
#include "masks.h"

#include <HalideRuntime.h>
#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace bench {

using Pipeline = int (*)(halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel,
                         halide_buffer_t *output);

// The tags this processor runs, weakest first: avx2 needs AVX2, FMA and BMI1,
// avx needs AVX and SSE4.1; none runs everywhere.
std::vector<std::string> cpu_tags();

// The variant <filter>_<type>_<tag>; throws std::runtime_error if it is not exported.
Pipeline find_pipeline(const FilterInfo &filter, const ElemType &type, const std::string &tag);

// Filters `image` into `out` (same size and type) with the neutral pads: low
// the lowest value of the type, high the highest. Throws on a non-zero status.
void run_pipeline(Pipeline pipeline, const ElemType &type, const cv::Mat &image, const Mask &mask, cv::Mat &out);

}  // namespace bench
