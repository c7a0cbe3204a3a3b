// Promise: hosts. The host headers: the tag choice, and typed calls' results, queries, statuses and messages.
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

// Bit positions as the processor manuals give them.
constexpr uint32_t kFma = 1u << 12, kSse41 = 1u << 19, kOsxsave = 1u << 27, kAvx = 1u << 28;  // leaf 1, ECX
constexpr uint32_t kBmi1 = 1u << 3, kAvx2 = 1u << 5;                                           // leaf 7, EBX
constexpr uint64_t kX87State = 1, kSseState = 2, kAvxState = 4, kAvx512State = 0xE0;           // XCR0
constexpr uint32_t kLeaf1 = kFma | kSse41 | kOsxsave | kAvx, kLeaf7 = kBmi1 | kAvx2;
constexpr uint64_t kOsState = kX87State | kSseState | kAvxState;

struct Row {
    const char *name;
    flatmorph::CpuidRegisters registers;
    Tag best;
    const char *missing_for_avx2;
};

const Row kRows[] = {
    {"everything", {kLeaf1, kLeaf7, kOsState}, Tag::avx2, ""},
    {"avx512_state_as_well", {kLeaf1, kLeaf7, kOsState | kAvx512State}, Tag::avx2, ""},
    {"baseline_only", {0, 0, 0}, Tag::none, "avx sse4.1 os-avx-state avx2 fma bmi1"},
    {"every_other_bit", {~kLeaf1, ~kLeaf7, ~kOsState}, Tag::none, "avx sse4.1 os-avx-state avx2 fma bmi1"},
    {"os_saves_sse_state_alone", {kLeaf1, kLeaf7, kX87State | kSseState}, Tag::none, "os-avx-state"},
    {"os_saves_avx_state_without_sse", {kLeaf1, kLeaf7, kX87State | kAvxState}, Tag::none, "os-avx-state"},
    {"xsave_not_enabled_by_os", {kLeaf1 & ~kOsxsave, kLeaf7, kOsState}, Tag::none, "os-avx-state"},
    {"without_fma", {kLeaf1 & ~kFma, kLeaf7, kOsState}, Tag::avx, "fma"},
    {"without_bmi1", {kLeaf1, kAvx2, kOsState}, Tag::avx, "bmi1"},
    {"without_avx2", {kLeaf1, kBmi1, kOsState}, Tag::avx, "avx2"},
    {"avx_and_sse41_only", {kSse41 | kOsxsave | kAvx, 0, kOsState}, Tag::avx, "avx2 fma bmi1"},
    {"without_sse41", {kLeaf1 & ~kSse41, kLeaf7, kOsState}, Tag::none, "sse4.1"},
    {"without_avx", {kLeaf1 & ~kAvx, kLeaf7, kOsState}, Tag::none, "avx"},
};

TEST(TagChoice, PicksTheWidestTagAndNamesWhatAvx2Lacks) {
    for (const Row &row : kRows) {
        const flatmorph::CpuFeatures cpu = flatmorph::decode_cpu_features(row.registers);
        EXPECT_EQ(flatmorph::best_tag(cpu), row.best) << row.name;
        EXPECT_EQ(flatmorph::missing_features(Tag::avx2, cpu), row.missing_for_avx2) << row.name;
        EXPECT_EQ(flatmorph::missing_features(Tag::none, cpu), "") << row.name;
    }
}

// GCC's __builtin_cpu_supports reads the same CPUID bits and XCR0.
TEST(ThisProcessor, AgreesWithTheCompilersProcessorTest) {
    for (Tag tag : {Tag::none, Tag::avx, Tag::avx2})
        EXPECT_EQ(flatmorph::can_run(tag, flatmorph::this_cpu()), fmtest::cpu_supports(flatmorph::tag_name(tag)))
            << flatmorph::tag_name(tag);
}

flatmorph::Region region(const fmtest::Region &r) { return {r.x0, r.w, r.y0, r.h}; }

bool same(const flatmorph::Region &r, const fmtest::Interval (&i)[2]) {
    return r.min_x == i[0].min && r.width == i[0].extent && r.min_y == i[1].min && r.height == i[1].extent;
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
        for (Tag tag : {Tag::none, Tag::avx, Tag::avx2}) {
            if (!flatmorph::can_run(tag, flatmorph::this_cpu())) continue;  // test_results reports the skip
            const fmtest::Variant v{&fmtest::filter(flatmorph::filter_name(filter)),
                                    &fmtest::element(flatmorph::Element<T>::name), tag_name(tag)};
            for (int i = 0; i < 6; i++) {
                SCOPED_TRACE(v.name() + " case " + std::to_string(i));
                const fmtest::Problem p = fmtest::random_problem(v, rng);
                fmtest::Call call(p);
                const flatmorph::Mask mask{call.strel->raw()->host, p.mask.sx, p.mask.sy, call.strel->dim(1).stride};
                const Status status = flatmorph::run<T>(filter, tag, plane(*call.image), mask, plane(*call.output),
                                                        {p.low_pad, p.high_pad});
                ASSERT_TRUE(status.ok()) << status.code << " " << status.message;
                EXPECT_EQ(status.message, "");
                ASSERT_EQ(fmtest::differences_from_reference(p, *call.output), "");

                flatmorph::Requirements got;
                ASSERT_TRUE(
                    flatmorph::query<T>(filter, tag, region(p.image), p.mask.sx, p.mask.sy, region(p.output), &got).ok());
                const fmtest::Required want =
                    fmtest::required_regions(*v.filter, v.vw(), p.image, p.mask.sx, p.mask.sy, p.output);
                EXPECT_TRUE(same(got.image, want.image) && same(got.minmax, want.minmax) &&
                            same(got.mask, want.strel) && same(got.output, want.output));
            }
        }
}

template <typename... T>
void expect_reference_results_of_each() {
    std::mt19937 rng(7);
    (expect_reference_results<T>(rng), ...);
}

TEST(TypedCall, EqualsTheReferenceOnEveryVariant) {
    expect_reference_results_of_each<bool, int8_t, uint8_t, int16_t, uint16_t, int32_t, uint32_t, float, double>();
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

// Makes a refused uint8 call on tag none: "" if it returns `status` with a
// one-line message naming `names` and writes nothing.
std::string refusal_differs(Filter filter, flatmorph::Region image, flatmorph::Region output, int mask_width,
                            int status, const char *names) {
    std::vector<uint8_t> in(std::max(1, image.width * image.height), 9), mask(16, 1);
    std::vector<uint8_t> out(std::max(1, output.width * output.height), 123);
    const Status s = flatmorph::run<uint8_t>(filter, Tag::none,
                                             {in.data(), image.width, image.height, 0, image.min_x, image.min_y},
                                             {mask.data(), mask_width, 3, 4},
                                             {out.data(), output.width, output.height, 0, output.min_x, output.min_y});
    if (s.code != status || s.message.find(names) == std::string::npos || s.message.find('\n') != std::string::npos)
        return std::to_string(s.code) + ": " + s.message;
    return out == std::vector<uint8_t>(out.size(), 123) ? "" : "output written";
}

// The handler is shared by the process, the message is kept per thread: while
// one call is between its report and its return, another thread's failure
// does not replace its message.
TEST(TypedCall, RefusalsReturnTheStatusAndTheirThreadsMessage) {
    std::string other;
    after_out_of_bounds_report = [&] {
        std::thread([&] {
            other = refusal_differs(Filter::dilate, {0, 8, 0, 8}, {0, 8, 0, 8}, -1,
                                    halide_error_code_buffer_extents_negative, "Input buffer strel");
        }).join();
    };
    EXPECT_EQ(refusal_differs(Filter::dilate, {0, 100, 0, 4}, {0, 3, 0, 4}, 3, halide_error_code_access_out_of_bounds,
                              "Output buffer dilate"), "") << "a narrow output of a wide image";
    EXPECT_EQ(other, "");
    EXPECT_EQ(refusal_differs(Filter::tophat, {0, 20, 0, 10}, {5, 20, 0, 10}, 3, halide_error_code_access_out_of_bounds,
                              "Input buffer keyimForType"), "") << "a top-hat output beyond the image";
    uint8_t sample = 0;  // null data is refused before any call
    const uint8_t active = 1;
    const Status status =
        flatmorph::run<uint8_t>(Filter::dilate, Tag::none, {nullptr, 1, 1}, {&active, 1, 1}, {&sample, 1, 1});
    EXPECT_EQ(status.code, halide_error_code_generic_error);
    EXPECT_NE(status.message.find("null data pointer"), std::string::npos) << status.message;
}

}  // namespace
