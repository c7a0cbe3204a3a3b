#include "our_pipelines.h"

#include <flatmorph_host.h>

#include <stdexcept>

namespace bench {

namespace {

// A descriptor over the pixels of a cv::Mat, whose row pitch may exceed its width.
flatmorph::Descriptor over(const cv::Mat &m, halide_type_t type) {
    return {type, m.data, {0, m.cols, 0, m.rows}, static_cast<int>(m.step1())};
}

}  // namespace

std::vector<std::string> cpu_tags() {
    std::vector<std::string> tags;
    for (flatmorph::Tag tag : {flatmorph::Tag::none, flatmorph::Tag::avx, flatmorph::Tag::avx2})
        if (flatmorph::can_run(tag, flatmorph::this_cpu())) tags.push_back(flatmorph::tag_name(tag));
    return tags;
}

Pipeline find_pipeline(const FilterInfo &filter, const ElemType &type, const std::string &tag) {
    const std::string name = std::string(filter.name) + "_" + type.name + "_" + tag;
    Pipeline pipeline = flatmorph::find_pipeline(name);
    if (!pipeline) throw std::runtime_error("libflatmorph exports no " + name);
    return pipeline;
}

void run_pipeline(Pipeline pipeline, const ElemType &type, const cv::Mat &image, const Mask &mask, cv::Mat &out) {
    double pad_values[2] = {type.lowest, type.highest};
    const cv::Mat pads(1, 2, CV_64F, pad_values);
    flatmorph::Descriptor image_buffer = over(image, type.halide_type),
                          pads_buffer = over(pads, {halide_type_float, 64, 1}),
                          mask_buffer = over(mask.bytes, {halide_type_uint, 8, 1}),
                          out_buffer = over(out, type.halide_type);
    const int status = pipeline(image_buffer.raw(), pads_buffer.raw(), mask_buffer.raw(), out_buffer.raw());
    if (status != 0) throw std::runtime_error("a pipeline returned status " + std::to_string(status));
}

}  // namespace bench
