#include "filters.h"

#include <opencv2/imgproc.hpp>

#include <stdexcept>

namespace bench {

const std::vector<FilterInfo> &all_filters() {
    static const std::vector<FilterInfo> filters = {
        {"imdilate", cv::MORPH_DILATE}, {"imerode", cv::MORPH_ERODE},   {"imopen", cv::MORPH_OPEN},
        {"imclose", cv::MORPH_CLOSE},   {"imtophat", cv::MORPH_TOPHAT}, {"imbothat", cv::MORPH_BLACKHAT},
    };
    return filters;
}

const FilterInfo &filter_by_name(const std::string &name) {
    for (const FilterInfo &f : all_filters())
        if (name == f.name) return f;
    throw std::invalid_argument("unknown filter '" + name +
                                "' (imdilate, imerode, imopen, imclose, imtophat, imbothat)");
}

}  // namespace bench
