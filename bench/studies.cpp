#include "studies.h"

#include "compare.h"
#include "element_types.h"
#include "masks.h"
#include "operation.h"
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

// The read+write memory floor: the best copy of the image into another
// buffer, rows shared among the threads as our filters share them.
double copy_floor_ms(const cv::Mat &image, const TimingPolicy &policy) {
    cv::Mat copy(image.size(), image.type());
    const size_t row_bytes = image.cols * image.elemSize();
    auto copy_rows = [&] {
        tbb::parallel_for(tbb::blocked_range<int>(0, image.rows), [&](const tbb::blocked_range<int> &rows) {
            for (int y = rows.begin(); y < rows.end(); y++) std::memcpy(copy.ptr(y), image.ptr(y), row_bytes);
        });
    };
    return measure(copy_rows, policy).best_ms;
}

// One image under one thread count: what its rows share.
struct Setup {
    const char *study;
    const ElemType &type;
    const cv::Mat &image;
    int threads;
    TimingPolicy policy;
    double floor_ms;
};

// Times OpenCV's form of `op` once and ours for each tag. Our time is
// reported only if the output of our last timed call equals OpenCV's at least
// a mask size away from the border; nearer the border the two may treat the
// outside differently, and the row counts the samples where they do.
void compare_operation(const Setup &s, const Operation &op, const Mask &mask, const std::vector<std::string> &tags,
                       Report &report) {
    cv::Mat expected(s.image.size(), s.image.type()), got(s.image.size(), s.image.type());
    const Timing theirs = measure(opencv_call(op, s.image, mask, expected), s.policy);

    for (const std::string &tag : tags) {
        Row row{s.study, op.name, s.type.name, mask.name, tag, s.image.cols, mask.active(), s.threads};
        row.opencv_ms = theirs.median_ms;
        row.opencv_samples = theirs.samples;
        row.floor_ms = s.floor_ms;
        cv::bitwise_not(expected, got);  // so that a sample left unwritten cannot pass
        const Timing ours = measure(our_call(op, s.type, tag, s.image, mask, got), s.policy);
        const Difference interior = differing_samples(got, expected, mask.bytes.cols, mask.bytes.rows);
        row.rim_differences = differing_samples(got, expected, 0, 0).samples - interior.samples;
        row.check = interior.samples == 0 ? "ok"
                                          : "DIFFERS: " + std::to_string(interior.samples) + " samples; first at " +
                                                interior.first;
        if (row.check == "ok") {
            row.ours_ms = ours.median_ms;
            row.ours_samples = ours.samples;
        }
        report.add(row);
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

TimingPolicy policy_of(const Options &o) {
    TimingPolicy policy;
    policy.budget_s = o.budget_s;
    return policy;
}

}  // namespace

void run_cases(const Options &o, Report &report) {
    for (int side : o.sizes) require_interior(side, o.masks);
    report.begin_study("cases: ours against OpenCV, every filter, type, size, mask, tag and thread count");
    for (const std::string &type_name : o.types) {
        const ElemType &type = elem_type(type_name);
        for (int side : o.sizes) {
            const cv::Mat image = random_image(type, side);
            for (int threads : o.threads) {
                ThreadCount limit(threads);
                const Setup setup{"cases", type, image, threads, policy_of(o), copy_floor_ms(image, policy_of(o))};
                for (const std::string &mask_name : o.masks)
                    for (const std::string &filter : o.filters)
                        compare_operation(setup, Operation::of(filter_by_name(filter)), mask_by_name(mask_name),
                                          o.tags, report);
            }
        }
    }
}

void run_growth(const Options &o, Report &report) {
    const int side = o.quick ? 1024 : 2048;
    std::vector<int> mask_sides;  // odd sides 3 to 31; a quick run takes four of them
    for (int n = 3; n <= 31; n += 2)
        if (!o.quick || n == 3 || n == 7 || n == 15 || n == 31) mask_sides.push_back(n);
    report.begin_study("growth: imdilate uint8 against active mask elements");
    const ElemType &type = elem_type("uint8");
    const cv::Mat image = random_image(type, side);
    ThreadCount limit(o.most_threads());
    const Setup setup{"growth", type, image, o.most_threads(), policy_of(o), copy_floor_ms(image, policy_of(o))};
    for (const std::string shape : {"rect", "disk", "line"})
        for (int n : mask_sides) {
            const std::string name = shape + std::to_string(n) + (shape == "line" ? "h" : "");
            compare_operation(setup, Operation::of(filter_by_name("imdilate")), mask_by_name(name), {o.best_tag()},
                              report);
        }
}

void run_small(const Options &o, Report &report) {
    constexpr int side = 64;
    require_interior(side, o.masks);
    report.begin_study("small: 64 x 64 images, the two-stage imopen against imerode then imdilate");
    const std::vector<Operation> operations = {
        Operation::of(filter_by_name("imopen")), Operation::of(filter_by_name("imerode")),
        Operation::of(filter_by_name("imdilate")), Operation::erode_then_dilate()};
    for (const std::string &type_name : o.types) {
        const ElemType &type = elem_type(type_name);
        const cv::Mat image = random_image(type, side);
        for (int threads : o.threads) {
            ThreadCount limit(threads);
            const Setup setup{"small", type, image, threads, policy_of(o), copy_floor_ms(image, policy_of(o))};
            for (const std::string &mask_name : o.masks)
                for (const Operation &op : operations)
                    compare_operation(setup, op, mask_by_name(mask_name), {o.best_tag()}, report);
        }
    }
}

}  // namespace bench
