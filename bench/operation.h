// What one timed call computes: one filter, or two single-stage filters in
// sequence through an intermediate image that the caller owns (to compare a
// two-stage filter with the same work done by two calls).
#pragma once

#include "element_types.h"
#include "filters.h"
#include "masks.h"

#include <opencv2/core.hpp>

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Operation {
    std::string name;                      // imopen, or imerode+imdilate
    std::vector<const FilterInfo *> steps; // one or two

    static Operation of(const FilterInfo &filter) { return {filter.name, {&filter}}; }
    static Operation erode_then_dilate();
};

// Calls that run the operation on `image` into `out`, by OpenCV or by our
// variants of `tag`. They refer to their arguments, which must outlive them.
using Call = std::function<void()>;
Call opencv_call(const Operation &op, const cv::Mat &image, const Mask &mask, cv::Mat &out);
Call our_call(const Operation &op, const ElemType &type, const std::string &tag, const cv::Mat &image,
              const Mask &mask, cv::Mat &out);

}  // namespace bench
