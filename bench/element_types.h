// The element types the benchmark runs, with how each is held on both sides:
// as a cv::Mat depth for OpenCV and as a halide_type_t for our pipelines.
#pragma once

#include <HalideRuntime.h>

#include <string>
#include <vector>

namespace bench {

struct ElemType {
    const char *name;          // as in the variant names: uint8, uint16, float32, bool
    int cv_depth;              // CV_8U, CV_16U, CV_32F; bool is a 0/1 CV_8U image
    halide_type_t halide_type; // what our variants demand of image and output
    double lowest, highest;    // the neutral pads: low for dilation, high for erosion
};

const std::vector<ElemType> &all_elem_types();
const ElemType &elem_type(const std::string &name);  // throws std::invalid_argument

}  // namespace bench
