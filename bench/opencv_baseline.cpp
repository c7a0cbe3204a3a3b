#include "opencv_baseline.h"

#include <opencv2/imgproc.hpp>

namespace bench {

void run_opencv(const FilterInfo &filter, const cv::Mat &image, const Mask &mask, cv::Mat &out) {
    const cv::Scalar neutral = cv::morphologyDefaultBorderValue();
    switch (filter.cv_op) {
    case cv::MORPH_DILATE:
        cv::dilate(image, out, mask.bytes, mask.origin(), 1, cv::BORDER_CONSTANT, neutral);
        break;
    case cv::MORPH_ERODE:
        cv::erode(image, out, mask.bytes, mask.origin(), 1, cv::BORDER_CONSTANT, neutral);
        break;
    default:
        cv::morphologyEx(image, out, filter.cv_op, mask.bytes, mask.origin(), 1, cv::BORDER_CONSTANT, neutral);
    }
}

}  // namespace bench
