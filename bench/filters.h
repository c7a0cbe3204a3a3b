// The six filters, by our name, with the OpenCV operation that computes the same.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct FilterInfo {
    const char *name;  // imdilate, imerode, imopen, imclose, imtophat, imbothat
    int cv_op;         // cv::MORPH_DILATE, ... cv::MORPH_BLACKHAT
};

const std::vector<FilterInfo> &all_filters();
const FilterInfo &filter_by_name(const std::string &name);  // throws std::invalid_argument

}  // namespace bench
