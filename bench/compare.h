// Sample-by-sample comparison of two images of one type, bit for bit.
#pragma once

#include <opencv2/core.hpp>

#include <string>

namespace bench {

struct Difference {
    long long samples = 0;  // how many differ
    std::string first;      // the first of them, as "(x y): ours a OpenCV b"
};

// The samples that differ at least margin_x columns and margin_y rows inside
// the border (0 and 0: everywhere).
Difference differing_samples(const cv::Mat &ours, const cv::Mat &opencv, int margin_x, int margin_y);

}  // namespace bench
