// Structuring elements by name: rect<N> (N x N), disk<N> (diameter N),
// line<N>h and line<N>v (N long, horizontal or vertical).
#pragma once

#include <opencv2/core.hpp>

#include <string>

namespace bench {

struct Mask {
    std::string name;
    cv::Mat bytes;  // CV_8U, sy rows by sx columns: 1 active, 0 absent; also OpenCV's kernel

    // Our origin ((s + 1) >> 1) - 1 in each dimension, given to OpenCV as the anchor.
    cv::Point origin() const { return {((bytes.cols + 1) >> 1) - 1, ((bytes.rows + 1) >> 1) - 1}; }
    int active() const { return cv::countNonZero(bytes); }
};

// Throws std::invalid_argument for an unknown shape. Every mask has odd sides
// and is point-symmetric about its origin: our dilation reflects the mask and
// OpenCV's does not, and only such a mask reads the same both ways.
Mask mask_by_name(const std::string &name);

}  // namespace bench
