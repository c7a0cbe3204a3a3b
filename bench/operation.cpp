#include "operation.h"

#include "opencv_baseline.h"
#include "our_pipelines.h"

namespace bench {

Operation Operation::erode_then_dilate() {
    const FilterInfo &erode = filter_by_name("imerode"), &dilate = filter_by_name("imdilate");
    return {std::string(erode.name) + "+" + dilate.name, {&erode, &dilate}};
}

namespace {

// Runs `step(i, source, destination)` for each step, the first from the image,
// the last into `out`, through `scratch` between two steps.
template <class Step>
void chain(size_t steps, const cv::Mat &image, cv::Mat &scratch, cv::Mat &out, Step step) {
    const cv::Mat *source = &image;
    for (size_t i = 0; i < steps; i++) {
        cv::Mat &destination = i + 1 == steps ? out : scratch;
        step(i, *source, destination);
        source = &destination;
    }
}

cv::Mat intermediate_for(const Operation &op, const cv::Mat &image) {
    return op.steps.size() > 1 ? cv::Mat(image.size(), image.type()) : cv::Mat();
}

}  // namespace

Call opencv_call(const Operation &op, const cv::Mat &image, const Mask &mask, cv::Mat &out) {
    cv::Mat scratch = intermediate_for(op, image);
    return [&op, &image, &mask, &out, scratch]() mutable {
        chain(op.steps.size(), image, scratch, out, [&](size_t i, const cv::Mat &source, cv::Mat &destination) {
            run_opencv(*op.steps[i], source, mask, destination);
        });
    };
}

Call our_call(const Operation &op, const ElemType &type, const std::string &tag, const cv::Mat &image,
              const Mask &mask, cv::Mat &out) {
    std::vector<Pipeline> pipelines;
    for (const FilterInfo *step : op.steps) pipelines.push_back(find_pipeline(*step, type, tag));
    cv::Mat scratch = intermediate_for(op, image);
    return [&type, &image, &mask, &out, pipelines, scratch]() mutable {
        chain(pipelines.size(), image, scratch, out, [&](size_t i, const cv::Mat &source, cv::Mat &destination) {
            run_pipeline(pipelines[i], type, source, mask, destination);
        });
    };
}

}  // namespace bench
