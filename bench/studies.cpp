#include "studies.h"

#include "compare.h"
#include "element_types.h"
#include "filters.h"
#include "masks.h"
#include "opencv_baseline.h"
#include "our_pipelines.h"
#include "timing.h"

#include <opencv2/core.hpp>
#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace bench {

namespace {

// Limits our calls (TBB) and OpenCV's pool to n threads while it lives.
class ThreadCount {
public:
    explicit ThreadCount(int n) : limit_(tbb::global_control::max_allowed_parallelism, n) { cv::setNumThreads(n); }

private:
    tbb::global_control limit_;
};

// Uniform noise, the same for every run: 0 to 1 for float32, the whole range
// of the integer types, 0 or 1 for bool.
cv::Mat random_image(const ElemType &type, int side) {
    cv::Mat image(side, side, type.cv_depth);
    cv::RNG rng(20240601);
    rng.fill(image, cv::RNG::UNIFORM, 0.0, type.cv_depth == CV_32F ? 1.0 : type.highest + 1);
    return image;
}

// One image under one thread count: what the cases on it share.
struct Bench {
    const char *study;
    const ElemType &type;
    const cv::Mat &image;
    int threads;
    TimingPolicy policy;
    double floor_ms = NAN;  // the read+write memory floor, see copy_floor_ms

    Bench(const char *study, const ElemType &type, const cv::Mat &image, int threads, double budget_s);
};

// The best copy of the image into another buffer, rows shared among the
// threads as our filters share them: what any filter that reads and writes
// the image once must pay.
double copy_floor_ms(const cv::Mat &image, const TimingPolicy &policy) {
    cv::Mat copy(image.size(), image.type());
    const size_t row_bytes = image.cols * image.elemSize();
    const Call copy_rows = [&] {
        tbb::parallel_for(tbb::blocked_range<int>(0, image.rows), [&](const tbb::blocked_range<int> &rows) {
            for (int y = rows.begin(); y < rows.end(); y++) std::memcpy(copy.ptr(y), image.ptr(y), row_bytes);
        });
    };
    return measure_side_by_side({copy_rows}, policy).front().best_ms;
}

Bench::Bench(const char *study, const ElemType &type, const cv::Mat &image, int threads, double budget_s)
    : study(study), type(type), image(image), threads(threads) {
    policy.budget_s = budget_s;
    floor_ms = copy_floor_ms(image, policy);
}

// Checks our variant of each tag against OpenCV, then times OpenCV and the
// variants that passed side by side. A variant passes if its output equals
// OpenCV's at least a mask size away from the border; nearer the border the
// two may treat the outside differently, and the row counts the samples
// where they do.
void compare(const Bench &b, const FilterInfo &filter, const Mask &mask, const std::vector<std::string> &tags,
             Results &results) {
    cv::Mat expected(b.image.size(), b.image.type());
    run_opencv(filter, b.image, mask, expected);
    std::vector<Call> calls = {[&] { run_opencv(filter, b.image, mask, expected); }};
    std::vector<Row> rows;
    std::vector<size_t> timed;  // the rows whose variant is timed, in the order of calls[1...]
    std::vector<cv::Mat> outputs(tags.size());
    for (size_t i = 0; i < tags.size(); i++) {
        Row row{b.study, filter.name, b.type.name, mask.name, tags[i], b.image.cols, mask.active(), b.threads};
        row.floor_ms = b.floor_ms;
        const Pipeline pipeline = find_pipeline(filter, b.type, tags[i]);
        cv::Mat &got = outputs[i];
        cv::bitwise_not(expected, got);  // so that a sample left unwritten cannot pass
        run_pipeline(pipeline, b.type, b.image, mask, got);
        const Difference interior = differing_samples(got, expected, mask.bytes.cols, mask.bytes.rows);
        row.rim_differences = differing_samples(got, expected, 0, 0).samples - interior.samples;
        row.check = interior.samples == 0 ? "ok"
                                          : "DIFFERS: " + std::to_string(interior.samples) + " samples; first at " +
                                                interior.first;
        if (row.check == "ok") {
            calls.push_back([&b, &mask, &got, pipeline] { run_pipeline(pipeline, b.type, b.image, mask, got); });
            timed.push_back(i);
        }
        rows.push_back(row);
    }
    const std::vector<Timing> timings = measure_side_by_side(calls, b.policy);
    for (size_t k = 0; k < timed.size(); k++) {
        rows[timed[k]].ours_ms = timings[k + 1].median_ms;
        rows[timed[k]].ours_samples = timings[k + 1].samples;
    }
    for (Row &row : rows) {
        row.opencv_ms = timings.front().median_ms;
        row.opencv_samples = timings.front().samples;
        results.add(row);
    }
}

// The check compares samples at least a mask size away from the border, so
// an image must be more than twice as wide as the widest mask.
void require_interior(int side, const std::vector<std::string> &masks) {
    for (const std::string &name : masks) {
        const Mask mask = mask_by_name(name);
        if (side <= 2 * std::max(mask.bytes.cols, mask.bytes.rows))
            throw std::invalid_argument("a " + std::to_string(side) + " x " + std::to_string(side) +
                                        " image leaves no interior to check with mask " + name);
    }
}

// Every filter x type x size x mask x threads of one study, on the given tags.
void run_set(const char *study, const Options &o, const std::vector<std::string> &filters,
             const std::vector<std::string> &types, const std::vector<int> &sizes,
             const std::vector<std::string> &masks, const std::vector<std::string> &tags,
             const std::vector<int> &threads, Results &results) {
    for (int side : sizes) require_interior(side, masks);
    for (const std::string &type_name : types) {
        const ElemType &type = elem_type(type_name);
        for (int side : sizes) {
            const cv::Mat image = random_image(type, side);
            for (int n : threads) {
                ThreadCount limit(n);
                const Bench bench(study, type, image, n, o.budget_s);
                for (const std::string &mask : masks)
                    for (const std::string &filter : filters)
                        compare(bench, filter_by_name(filter), mask_by_name(mask), tags, results);
            }
        }
    }
}

}  // namespace

void run_allround(const Options &o, Results &results) {
    run_set("allround", o, o.filters, o.types, o.sizes, o.masks, o.tags, o.threads, results);
}

void run_acceptance(const Options &o, Results &results) {
    run_set("acceptance", o, {"imdilate", "imopen", "imtophat"}, {"uint8", "float32"}, {o.large_side},
            {"rect3", "rect5", "disk7", "line21h"}, cpu_tags(), {2}, results);
}

void run_growth(const Options &o, Results &results) {
    std::vector<std::string> masks;
    for (const char *shape : {"rect%d", "disk%d", "line%dh", "line%dv"})
        for (int n = 3; n <= 63; n += 4) masks.push_back(cv::format(shape, n));
    run_set("growth", o, {"imdilate"}, {"uint8"}, {o.large_side}, masks, {o.tags.back()}, {1}, results);
}

}  // namespace bench
