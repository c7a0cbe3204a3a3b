// Promise: hosts. The typed front end builds the descriptors a host means:
// its results equal the reference model's, a failure comes back as the status
// and the runtime's message (kept per thread) without ending the process or
// writing, and a bounds query answers what the region model says.
#include "support/harness.h"
#include "support/regions.h"

#include <flatmorph_host.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <functional>
#include <random>
#include <thread>
#include <utility>

namespace {

using flatmorph::Filter;
using flatmorph::Status;
using flatmorph::Tag;

const fmtest::FilterInfo &model_of(Filter f) { return fmtest::filter(flatmorph::filter_name(f)); }

std::vector<Tag> runnable_tags() {
    std::vector<Tag> tags;
    for (Tag tag : {Tag::none, Tag::avx, Tag::avx2})
        if (flatmorph::can_run(tag, flatmorph::this_cpu())) tags.push_back(tag);
    return tags;
}

// The front end's descriptors over a host's memory: image, mask and output at
// their own mins and with row gaps (the mask's holding bytes of 1), random
// problems and pads as the sweep draws them; a query of the same regions
// answers what the region model says.
template <typename T>
void expect_reference_results(std::mt19937 &rng) {
    const auto plane = [](fmtest::TestBuffer &b) {
        const halide_buffer_t &r = *b.raw();
        return flatmorph::Plane<T>(reinterpret_cast<T *>(r.host), r.dim[0].extent, r.dim[1].extent, r.dim[1].stride,
                                   r.dim[0].min, r.dim[1].min);
    };
    for (Filter filter : flatmorph::all_filters)
        for (Tag tag : runnable_tags()) {
            const fmtest::Variant v{&model_of(filter), &fmtest::element(flatmorph::Element<T>::name), tag_name(tag)};
            for (int i = 0; i < 6; i++) {
                const fmtest::Problem p = fmtest::random_problem(v, rng);
                fmtest::Call call(p);
                const flatmorph::Mask mask{call.strel->raw()->host, p.mask.sx, p.mask.sy, call.strel->dim(1).stride};
                const Status status = flatmorph::run<T>(filter, tag, plane(*call.image), mask, plane(*call.output),
                                                        {p.low_pad, p.high_pad});
                ASSERT_TRUE(status.ok()) << v.name() << ": " << status.code << " " << status.message;
                EXPECT_EQ(status.message, "");
                ASSERT_EQ(fmtest::differences_from_reference(p, *call.output), "") << v.name() << " case " << i;

                const auto region = [](const fmtest::Region &r) { return flatmorph::Region{r.x0, r.w, r.y0, r.h}; };
                flatmorph::Requirements got;
                ASSERT_TRUE(flatmorph::query<T>(filter, tag, region(p.image), p.mask.sx, p.mask.sy, region(p.output), &got).ok());
                const fmtest::Required want = fmtest::required_regions(*v.filter, v.vw(), p.image, p.mask.sx, p.mask.sy, p.output);
                const auto same = [](const flatmorph::Region &r, const fmtest::Interval(&i)[2]) {
                    return r.min_x == i[0].min && r.width == i[0].extent && r.min_y == i[1].min && r.height == i[1].extent;
                };
                EXPECT_TRUE(same(got.image, want.image) && same(got.minmax, want.minmax) && same(got.mask, want.strel) &&
                            same(got.output, want.output)) << v.name() << " query " << i;
            }
        }
}

TEST(TypedCall, EqualsTheReferenceOnEveryVariant) {
    std::mt19937 rng(7);
    expect_reference_results<bool>(rng);
    expect_reference_results<int8_t>(rng);
    expect_reference_results<uint8_t>(rng);
    expect_reference_results<int16_t>(rng);
    expect_reference_results<uint16_t>(rng);
    expect_reference_results<int32_t>(rng);
    expect_reference_results<uint32_t>(rng);
    expect_reference_results<float>(rng);
    expect_reference_results<double>(rng);
}

// Calls the runtime refuses: the status of the failing check and its message
// come back, and nothing is written.
struct Refusal {
    Filter filter;
    flatmorph::Region image, output;
    int mask_width, mask_height;
    int status;
    const char *message_names;  // the buffer the message must name
};

const Refusal kRefusals[] = {
    {Filter::tophat, {0, 20, 0, 10}, {5, 20, 0, 10}, 3, 3, halide_error_code_access_out_of_bounds,
     "Input buffer keyimForType"},  // output beyond the image
    {Filter::dilate, {0, 100, 0, 4}, {0, 3, 0, 4}, 3, 3, halide_error_code_access_out_of_bounds,
     "Output buffer dilate"},  // a narrow output of a wide image
    {Filter::dilate, {0, 8, 0, 8}, {0, 8, 0, 8}, -1, 3, halide_error_code_buffer_extents_negative,
     "Input buffer strel"},
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

TEST(TypedCallRefusal, ReturnsTheStatusAndTheRuntimesMessage) {
    for (const Refusal &r : kRefusals) {
        SCOPED_TRACE(r.message_names);
        std::vector<uint8_t> output(std::max(1, r.output.width * r.output.height), 123);
        const Status status = refused_call(r, output);
        EXPECT_EQ(status.code, r.status);
        EXPECT_NE(status.message.find(r.message_names), std::string::npos) << status.message;
        EXPECT_EQ(status.message.find('\n'), std::string::npos) << status.message;
        EXPECT_EQ(output, std::vector<uint8_t>(output.size(), 123));
    }
    uint8_t sample = 0;  // null data is refused before any call
    const uint8_t active = 1;
    const Status status =
        flatmorph::run<uint8_t>(Filter::dilate, Tag::none, {nullptr, 1, 1}, {&active, 1, 1}, {&sample, 1, 1});
    EXPECT_EQ(status.code, halide_error_code_generic_error);
    EXPECT_NE(status.message.find("null data pointer"), std::string::npos) << status.message;
}

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
        std::thread([&] { other = refused_call(kRefusals[2], other_output); }).join();
    };
    const Status status = refused_call(kRefusals[1], output);
    EXPECT_EQ(status.code, halide_error_code_access_out_of_bounds);
    EXPECT_NE(status.message.find("Output buffer dilate"), std::string::npos) << status.message;
    EXPECT_EQ(other.code, halide_error_code_buffer_extents_negative);
    EXPECT_NE(other.message.find("Input buffer strel"), std::string::npos) << other.message;
}

}  // namespace
