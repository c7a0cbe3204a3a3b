#include "our_pipelines.h"

#include <dlfcn.h>

#include <stdexcept>

namespace bench {

namespace {

// A two-dimensional descriptor over the pixels of a cv::Mat: dim 0 along a row
// with stride 1, dim 1 with the row pitch in elements.
class MatBuffer {
public:
    MatBuffer(const cv::Mat &m, halide_type_t type)
        : dims_{{0, m.cols, 1, 0}, {0, m.rows, static_cast<int32_t>(m.step1()), 0}} {
        buf_.host = m.data;
        buf_.type = type;
        buf_.dimensions = 2;
        buf_.dim = dims_;
    }
    MatBuffer(const MatBuffer &) = delete;
    MatBuffer &operator=(const MatBuffer &) = delete;
    halide_buffer_t *get() { return &buf_; }

private:
    halide_dimension_t dims_[2];
    halide_buffer_t buf_{};
};

}  // namespace

std::vector<std::string> cpu_tags() {
    std::vector<std::string> tags{"none"};
    if (__builtin_cpu_supports("avx") && __builtin_cpu_supports("sse4.1")) tags.push_back("avx");
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && __builtin_cpu_supports("bmi"))
        tags.push_back("avx2");
    return tags;
}

Pipeline find_pipeline(const FilterInfo &filter, const ElemType &type, const std::string &tag) {
    const std::string name = std::string(filter.name) + "_" + type.name + "_" + tag;
    void *symbol = dlsym(RTLD_DEFAULT, name.c_str());
    if (!symbol) throw std::runtime_error("libflatmorph exports no " + name);
    return reinterpret_cast<Pipeline>(symbol);
}

void run_pipeline(Pipeline pipeline, const ElemType &type, const cv::Mat &image, const Mask &mask, cv::Mat &out) {
    double pad_values[2] = {type.lowest, type.highest};
    const cv::Mat pads(1, 2, CV_64F, pad_values);
    MatBuffer image_buffer(image, type.halide_type), pads_buffer(pads, {halide_type_float, 64, 1}),
        mask_buffer(mask.bytes, {halide_type_uint, 8, 1}), out_buffer(out, type.halide_type);
    const int status = pipeline(image_buffer.get(), pads_buffer.get(), mask_buffer.get(), out_buffer.get());
    if (status != 0) throw std::runtime_error("a pipeline returned status " + std::to_string(status));
}

}  // namespace bench
