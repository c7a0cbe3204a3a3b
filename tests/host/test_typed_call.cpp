// Promise: hosts. The typed front end builds the descriptors a host means:
// its results equal the reference model's, a failure comes back as the status
// and the runtime's message (kept per thread) without ending the process or
// writing, and a bounds query answers what the region model says.
#include "support/harness.h"
#include "support/regions.h"

#include <flatmorph_host.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <utility>

namespace {

using flatmorph::Filter;
using flatmorph::Plane;
using flatmorph::Status;
using flatmorph::Tag;

const fmtest::FilterInfo &model_of(Filter f) { return fmtest::filter(flatmorph::filter_name(f)); }

std::vector<Tag> runnable_tags() {
    std::vector<Tag> tags;
    for (Tag tag : {Tag::none, Tag::avx, Tag::avx2})
        if (flatmorph::can_run(tag, flatmorph::this_cpu())) tags.push_back(tag);
    return tags;
}

template <typename T>
T random_sample(std::mt19937 &rng) {
    if constexpr (std::is_same_v<T, bool>)
        return rng() & 1;
    else if constexpr (std::is_floating_point_v<T>)
        return static_cast<T>(static_cast<int>(rng() % 2001) - 1000) / 8;
    else
        return static_cast<T>(rng());
}

// A problem laid out as a host might hold it: image and output at their own
// mins with row gaps, and a mask whose row gap holds bytes of 1 (which would
// count as active if the stride were misread).
template <typename T>
struct HostProblem {
    static constexpr int kImageStride = 50, kOutputStride = 41, kMaskStride = 7;
    static inline const T kUntouched = static_cast<T>(7);
    Plane<T> image, output;
    flatmorph::Mask mask;
    // Arrays rather than vectors: std::vector<bool> has no data().
    std::unique_ptr<T[]> image_samples{new T[kImageStride * 23]}, output_samples{new T[kOutputStride * 17]};
    std::vector<uint8_t> mask_bytes = std::vector<uint8_t>(kMaskStride * 3, 1);

    explicit HostProblem(std::mt19937 &rng) {
        std::generate_n(image_samples.get(), kImageStride * 23, [&rng] { return random_sample<T>(rng); });
        std::fill_n(output_samples.get(), kOutputStride * 17, kUntouched);
        for (int j = 0; j < 3; j++)
            for (int k = 0; k < 5; k++) mask_bytes[j * kMaskStride + k] = "\0\1\1\2"[rng() % 4];
        image = {image_samples.get(), 45, 23, kImageStride, -3, 4};
        output = {output_samples.get(), 38, 17, kOutputStride, -1, 6};
        mask = {mask_bytes.data(), 5, 3, kMaskStride};
    }

    T image_at(int x, int y) const { return image_samples[(y - image.min_y) * kImageStride + x - image.min_x]; }
    T output_at(int x, int y) const { return output_samples[(y - output.min_y) * kOutputStride + x - output.min_x]; }
};

// The problem as the reference model takes it.
template <typename T>
fmtest::Problem model_problem(Filter filter, const HostProblem<T> &hp, flatmorph::Pads pads) {
    fmtest::Problem p;
    p.elem = &fmtest::element(flatmorph::Element<T>::name);
    p.filter = &model_of(filter);
    p.image = {hp.image.min_x, hp.image.min_y, hp.image.width, hp.image.height};
    for (int y = p.image.y0; y < p.image.y1(); y++)
        for (int x = p.image.x0; x < p.image.x1(); x++) p.pixels.push_back(static_cast<double>(hp.image_at(x, y)));
    p.low_pad = pads.low;
    p.high_pad = pads.high;
    p.mask = {hp.mask.width, hp.mask.height, {}};
    for (int j = 0; j < hp.mask.height; j++)
        for (int k = 0; k < hp.mask.width; k++) p.mask.bytes.push_back(hp.mask_bytes[j * hp.mask.stride + k]);
    p.output = {hp.output.min_x, hp.output.min_y, hp.output.width, hp.output.height};
    return p;
}

template <typename T>
class TypedCall : public testing::Test {};

using ElementTypes = testing::Types<bool, int8_t, uint8_t, int16_t, uint16_t, int32_t, uint32_t, float, double>;

struct ElementName {
    template <typename T>
    static std::string GetName(int) {
        return flatmorph::Element<T>::name;
    }
};

TYPED_TEST_SUITE(TypedCall, ElementTypes, ElementName);

TYPED_TEST(TypedCall, EqualsTheReferenceOnEveryFilterTagAndPadChoice) {
    using T = TypeParam;
    std::mt19937 rng(7);
    for (Filter filter : flatmorph::all_filters)
        for (Tag tag : runnable_tags())
            for (flatmorph::Pads pads : {flatmorph::neutral_pads<T>(), flatmorph::Pads{2, 5}}) {
                SCOPED_TRACE(flatmorph::variant_name(filter, flatmorph::Element<T>::name, tag) +
                             " pads " + std::to_string(pads.low) + " " + std::to_string(pads.high));
                HostProblem<T> p(rng);
                const Status status = flatmorph::run<T>(filter, tag, p.image, p.mask, p.output, pads);
                ASSERT_TRUE(status.ok()) << status.code << " " << status.message;
                EXPECT_EQ(status.message, "");

                const fmtest::Problem model = model_problem(filter, p, pads);
                const std::vector<double> want = fmtest::reference_output(model);
                for (int y = 0; y < p.output.height; y++)
                    for (int x = 0; x < p.output.width; x++)
                        ASSERT_EQ(fmtest::encode(*model.elem, p.output_samples[y * p.kOutputStride + x]),
                                  fmtest::encode(*model.elem, want[y * p.output.width + x]))
                            << "at (" << x + p.output.min_x << ", " << y + p.output.min_y << ")";
                for (int y = 0; y < p.output.height; y++)
                    for (int x = p.output.width; x < HostProblem<T>::kOutputStride; x++)
                        ASSERT_EQ(p.output_samples[y * HostProblem<T>::kOutputStride + x], HostProblem<T>::kUntouched)
                            << "row gap written at column " << x << " of row " << y;
            }
}

// Calls the runtime refuses: the status of the failing check and its message
// come back, and nothing is written.
struct Refusal {
    const char *name;
    Filter filter;
    flatmorph::Region image, output;
    int mask_width, mask_height;
    int status;
    const char *message_names;  // the buffer the message must name
};

void PrintTo(const Refusal &r, std::ostream *os) { *os << r.name; }

const Refusal kRefusals[] = {
    {"TopHatOutputBeyondTheImage", Filter::tophat, {0, 20, 0, 10}, {5, 20, 0, 10}, 3, 3,
     halide_error_code_access_out_of_bounds, "Input buffer keyimForType"},
    {"NarrowOutputOfAWideImage", Filter::dilate, {0, 100, 0, 4}, {0, 3, 0, 4}, 3, 3,
     halide_error_code_access_out_of_bounds, "Output buffer dilate"},
    {"EmptyImage", Filter::close, {0, 0, 0, 5}, {0, 4, 0, 5}, 3, 3, halide_error_code_access_out_of_bounds,
     "Input buffer keyimForType"},
    {"NegativeOutputExtent", Filter::erode, {0, 8, 0, 8}, {0, 8, 0, -1}, 3, 3,
     halide_error_code_buffer_extents_negative, "Output buffer erode"},
    {"NegativeMaskExtent", Filter::dilate, {0, 8, 0, 8}, {0, 8, 0, 8}, -1, 3,
     halide_error_code_buffer_extents_negative, "Input buffer strel"},
};

// Makes the refused call on uint8 with tag none; `output` must hold at least
// one sample and is where the call would write.
Status refused_call(const Refusal &r, std::vector<uint8_t> &output) {
    std::vector<uint8_t> image(std::max(1, r.image.width * r.image.height), 9), mask(16, 1);
    return flatmorph::run<uint8_t>(
        r.filter, Tag::none, {image.data(), r.image.width, r.image.height, 0, r.image.min_x, r.image.min_y},
        {mask.data(), r.mask_width, r.mask_height, 4},
        {output.data(), r.output.width, r.output.height, 0, r.output.min_x, r.output.min_y});
}

class TypedCallRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(TypedCallRefusal, ReturnsTheStatusAndTheRuntimesMessage) {
    const Refusal &r = GetParam();
    std::vector<uint8_t> output(std::max(1, r.output.width * r.output.height), 123);
    const Status status = refused_call(r, output);
    EXPECT_EQ(status.code, r.status);
    EXPECT_NE(status.message.find(r.message_names), std::string::npos) << status.message;
    EXPECT_EQ(status.message.find('\n'), std::string::npos) << status.message;
    EXPECT_EQ(output, std::vector<uint8_t>(output.size(), 123));
}

INSTANTIATE_TEST_SUITE_P(Calls, TypedCallRefusal, testing::ValuesIn(kRefusals),
                         [](const testing::TestParamInfo<Refusal> &info) { return info.param.name; });

// Run between the runtime's report of an out-of-bounds access and the return
// of the failing call, when set.
std::function<void()> after_out_of_bounds_report;

}  // namespace

// The pipelines call the runtime's error functions by name, so this definition
// in the (symbol-exporting) test program stands in for the library's: it
// passes the report on, then runs the hook.
extern "C" int halide_error_access_out_of_bounds(void *user_context, const char *name, int dimension, int min,
                                                 int max, int valid_min, int valid_max) {
    using Report = int (*)(void *, const char *, int, int, int, int, int);
    static const auto library_report = reinterpret_cast<Report>(dlsym(RTLD_NEXT, "halide_error_access_out_of_bounds"));
    const int status = library_report(user_context, name, dimension, min, max, valid_min, valid_max);
    if (after_out_of_bounds_report) std::exchange(after_out_of_bounds_report, nullptr)();
    return status;
}

namespace {

// The handler is shared by the process, the message is kept per thread: while
// one call is between its report and its return, another thread's failure
// does not replace its message.
TEST(TypedCallMessages, StayWithTheThreadThatFailed) {
    std::vector<uint8_t> output(4096), other_output(4096);
    Status other;
    after_out_of_bounds_report = [&] {
        std::thread([&] { other = refused_call(kRefusals[4], other_output); }).join();
    };
    const Status status = refused_call(kRefusals[1], output);
    EXPECT_EQ(status.code, halide_error_code_access_out_of_bounds);
    EXPECT_NE(status.message.find("Output buffer dilate"), std::string::npos) << status.message;
    EXPECT_EQ(other.code, halide_error_code_buffer_extents_negative);
    EXPECT_NE(other.message.find("Input buffer strel"), std::string::npos) << other.message;
}

TEST(TypedCallMessages, NullDataIsRefusedBeforeAnyCall) {
    uint8_t sample = 0;
    const uint8_t active = 1;
    const Status status = flatmorph::run<uint8_t>(Filter::dilate, Tag::none, {nullptr, 1, 1}, {&active, 1, 1},
                                                  {&sample, 1, 1});
    EXPECT_EQ(status.code, halide_error_code_generic_error);
    EXPECT_NE(status.message.find("null data pointer"), std::string::npos) << status.message;
}

// Bounds queries answer the required regions of the test suite's model.
struct QueryRow {
    const char *name;
    flatmorph::Region image, output;
    int mask_width, mask_height;
};

const QueryRow kQueries[] = {
    {"OutputInsideTheImage", {-5, 120, -2, 70}, {3, 101, 7, 53}, 5, 3},
    {"OneColumnOutputOfAWideImage", {0, 100, 0, 40}, {10, 1, 5, 4}, 7, 7},
    {"EvenMaskAtTheCorner", {0, 64, 0, 48}, {0, 64, 0, 48}, 4, 6},
    {"NarrowImage", {2, 3, 0, 9}, {2, 3, 0, 9}, 9, 1},
};

void PrintTo(const QueryRow &q, std::ostream *os) { *os << q.name; }

fmtest::Region model_region(const flatmorph::Region &r) { return {r.min_x, r.min_y, r.width, r.height}; }

void expect_region(const flatmorph::Region &got, const fmtest::Interval (&want)[2], const char *buffer) {
    EXPECT_EQ(got.min_x, want[0].min) << buffer;
    EXPECT_EQ(got.width, want[0].extent) << buffer;
    EXPECT_EQ(got.min_y, want[1].min) << buffer;
    EXPECT_EQ(got.height, want[1].extent) << buffer;
}

template <typename T>
void check_query(const QueryRow &q) {
    const fmtest::ElemInfo &e = fmtest::element(flatmorph::Element<T>::name);
    for (Filter filter : flatmorph::all_filters)
        for (Tag tag : runnable_tags()) {
            SCOPED_TRACE(flatmorph::variant_name(filter, e.name, tag));
            flatmorph::Requirements got;
            const Status status =
                flatmorph::query<T>(filter, tag, q.image, q.mask_width, q.mask_height, q.output, &got);
            ASSERT_TRUE(status.ok()) << status.message;
            const fmtest::Required want =
                fmtest::required_regions(model_of(filter), fmtest::vector_width(e, flatmorph::tag_name(tag)),
                                         model_region(q.image), q.mask_width, q.mask_height, model_region(q.output));
            expect_region(got.image, want.image, "image");
            expect_region(got.minmax, want.minmax, "minmax");
            expect_region(got.mask, want.strel, "mask");
            expect_region(got.output, want.output, "output");
        }
}

class TypedBoundsQuery : public testing::TestWithParam<QueryRow> {};

TEST_P(TypedBoundsQuery, AnswersTheRequiredRegions) {
    check_query<uint8_t>(GetParam());
    check_query<double>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Regions, TypedBoundsQuery, testing::ValuesIn(kQueries),
                         [](const testing::TestParamInfo<QueryRow> &info) { return info.param.name; });

TEST(PipelineLookup, FindsEveryVariantByName) {
    int found = 0;
    for (Filter filter : flatmorph::all_filters)
        for (const fmtest::ElemInfo &e : fmtest::all_elements())
            for (Tag tag : {Tag::none, Tag::avx, Tag::avx2})
                found += flatmorph::find_pipeline(flatmorph::variant_name(filter, e.name, tag)) != nullptr;
    EXPECT_EQ(found, 162);
    EXPECT_EQ(flatmorph::find_pipeline("imdilate_uint8_sse9"), nullptr);
    EXPECT_EQ(flatmorph::find_pipeline("imdilate_uint8"), nullptr);
}

}  // namespace
