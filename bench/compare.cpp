#include "compare.h"

#include <cstring>
#include <sstream>

namespace bench {

namespace {

double sample(const cv::Mat &m, int x, int y) {
    switch (m.depth()) {
    case CV_8U: return m.at<uint8_t>(y, x);
    case CV_16U: return m.at<uint16_t>(y, x);
    default: return m.at<float>(y, x);
    }
}

}  // namespace

Difference differing_samples(const cv::Mat &ours, const cv::Mat &opencv, int margin_x, int margin_y) {
    const size_t bytes = ours.elemSize();
    Difference d;
    for (int y = margin_y; y < ours.rows - margin_y; y++) {
        const uint8_t *a = ours.ptr(y), *b = opencv.ptr(y);
        for (int x = margin_x; x < ours.cols - margin_x; x++) {
            if (std::memcmp(a + x * bytes, b + x * bytes, bytes) == 0) continue;
            if (d.samples++ > 0) continue;
            std::ostringstream first;
            first << "(" << x << " " << y << "): ours " << sample(ours, x, y) << " OpenCV " << sample(opencv, x, y);
            d.first = first.str();
        }
    }
    return d;
}

}  // namespace bench
