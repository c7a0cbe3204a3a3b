// OpenCV's form of our filters: the same mask as kernel, our origin as the
// anchor, and a constant border of OpenCV's default value, which each stage
// turns into its neutral value (lowest for dilation, highest for erosion),
// as our pads are.
#pragma once

#include "filters.h"
#include "masks.h"

#include <opencv2/core.hpp>

namespace bench {

void run_opencv(const FilterInfo &filter, const cv::Mat &image, const Mask &mask, cv::Mat &out);

}  // namespace bench
