// The entry frame as a host sees it: which call is refused, in which order,
// by which runtime error function with which arguments, and that nothing is
// written on failure; and what a bounds query answers.
#include "support/harness.h"
#include "support/regions.h"
#include "support/runtime_log.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

using namespace fmtest;

namespace {

// A valid narrow call of uint8_none: an 8 by 6 image, a 3 by 3 mask of ones,
// the output equal to the image, both pads present.
struct FrameCall {
    Variant v;
    TestBuffer image{element("uint8"), 0, 8, 0, 6};
    TestBuffer minmax{element("float64"), 0, 2, 0, 1};
    TestBuffer strel{element("uint8"), 0, 3, 0, 3};
    TestBuffer output{element("uint8"), 0, 8, 0, 6, 11};
    halide_buffer_t *args[4] = {image.raw(), minmax.raw(), strel.raw(), output.raw()};

    explicit FrameCall(const FilterInfo &f) : v{&f, &element("uint8"), "none"} {
        for (int y = 0; y < 6; y++)
            for (int x = 0; x < 8; x++) image.set(x, y, x * 10 + y);
        for (int j = 0; j < 3; j++)
            for (int k = 0; k < 3; k++) strel.set(k, j, 1);
    }
    int run() { return entry(v)(args[0], args[1], args[2], args[3]); }
};

using Mutation = std::function<void(FrameCall &)>;
using Expectation = std::function<std::string(const FilterInfo &)>;

struct BadCall {
    const char *what;
    Mutation mutate;
    int status;
    Expectation call;  // the one error call expected
};

std::string out_label(const FilterInfo &f) { return std::string("Output buffer ") + f.output; }

// Filters whose output buffer sorts before keyimForType check it first.
bool output_first(const FilterInfo &f) { return std::string(f.output) < "keyimForType"; }

const halide_type_t kUInt16(halide_type_uint, 16), kInt8(halide_type_int, 8), kFloat32(halide_type_float, 32);
const uint32_t kPackedUInt8 = 0x00010801, kPackedUInt16 = 0x00011001, kPackedInt8 = 0x00010800,
               kPackedFloat32 = 0x00012002, kPackedFloat64 = 0x00014002;

const std::vector<BadCall> &bad_calls() {
    static const std::vector<BadCall> rows = {
        {"strel null", [](FrameCall &c) { c.args[2] = nullptr; }, -12,
         [](const FilterInfo &) { return "halide_error_buffer_argument_is_null(strel)"; }},
        {"all null: the last buffer in order is tested first",
         [](FrameCall &c) { c.args[0] = c.args[1] = c.args[2] = c.args[3] = nullptr; }, -12,
         [](const FilterInfo &f) {
             return std::string("halide_error_buffer_argument_is_null(") + std::max<std::string>("strel", f.output) + ")";
         }},
        {"image and output null: order reversed",
         [](FrameCall &c) { c.args[0] = c.args[3] = nullptr; }, -12,
         [](const FilterInfo &f) {
             return std::string("halide_error_buffer_argument_is_null(") + (output_first(f) ? "keyimForType" : f.output) + ")";
         }},
        {"output type uint16", [](FrameCall &c) { c.output.raw()->type = kUInt16; }, -3,
         [](const FilterInfo &f) { return "halide_error_bad_type(" + out_label(f) + ", " + std::to_string(kPackedUInt16) + ", " + std::to_string(kPackedUInt8) + ")"; }},
        {"image and output type wrong: buffer order",
         [](FrameCall &c) { c.output.raw()->type = kUInt16; c.image.raw()->type = kInt8; }, -3,
         [](const FilterInfo &f) {
             return output_first(f) ? "halide_error_bad_type(" + out_label(f) + ", " + std::to_string(kPackedUInt16) + ", " + std::to_string(kPackedUInt8) + ")"
                                    : "halide_error_bad_type(Input buffer keyimForType, " + std::to_string(kPackedInt8) + ", " + std::to_string(kPackedUInt8) + ")";
         }},
        {"minmax float32", [](FrameCall &c) { c.minmax.raw()->type = kFloat32; }, -3,
         [](const FilterInfo &) { return "halide_error_bad_type(Input buffer minmax, " + std::to_string(kPackedFloat32) + ", " + std::to_string(kPackedFloat64) + ")"; }},
        {"strel int8", [](FrameCall &c) { c.strel.raw()->type = kInt8; }, -3,
         [](const FilterInfo &) { return "halide_error_bad_type(Input buffer strel, " + std::to_string(kPackedInt8) + ", " + std::to_string(kPackedUInt8) + ")"; }},
        {"output extent 0 negative", [](FrameCall &c) { c.output.dim(0).extent = -1; }, -28,
         [](const FilterInfo &f) { return "halide_error_buffer_extents_negative(" + out_label(f) + ", 0, -1)"; }},
        {"output extent 1 negative", [](FrameCall &c) { c.output.dim(1).extent = -2; }, -28,
         [](const FilterInfo &f) { return "halide_error_buffer_extents_negative(" + out_label(f) + ", 1, -2)"; }},
        // The residual filters also require the output's own columns and rows of the image.
        {"image extent 0 of 0 at -5: a region error, not emptiness",
         [](FrameCall &c) { c.image.dim(0).min = -5; c.image.dim(0).extent = 0; }, -4,
         [](const FilterInfo &f) {
             return std::string("halide_error_access_out_of_bounds(Input buffer keyimForType, 0, -5, ") +
                    (f.residual() ? "7" : "-5") + ", -5, -6)";
         }},
        {"image extent 1 negative: a region error too",
         [](FrameCall &c) { c.image.dim(1).extent = -3; }, -4,
         [](const FilterInfo &f) {
             return std::string("halide_error_access_out_of_bounds(Input buffer keyimForType, 1, 0, ") +
                    (f.residual() ? "5" : "0") + ", 0, -4)";
         }},
        {"output beyond the image: only the residual filters refuse it",
         [](FrameCall &c) { c.output.dim(0).min = 1; }, -4,
         [](const FilterInfo &f) {
             return f.residual() ? std::string("halide_error_access_out_of_bounds(Input buffer keyimForType, 0, 0, 8, 0, 7)")
                                 : std::string();
         }},
        {"minmax holds column 0 only", [](FrameCall &c) { c.minmax.dim(0).extent = 1; }, -4,
         [](const FilterInfo &f) {
             if (f.filter == Filter::Erode) return std::string("halide_error_access_out_of_bounds(Input buffer minmax, 0, 1, 1, 0, 0)");
             if (f.erosion_first()) return std::string("halide_error_access_out_of_bounds(Input buffer minmax, 0, 0, 1, 0, 0)");
             return std::string();  // accepted
         }},
        {"minmax of min -1 and extent 3 is accepted", [](FrameCall &c) { c.minmax.dim(0).min = -1; c.minmax.dim(0).extent = 3; }, 0,
         [](const FilterInfo &) { return ""; }},
        {"minmax extent 1 of 0", [](FrameCall &c) { c.minmax.dim(1).extent = 0; }, -4,
         [](const FilterInfo &) { return "halide_error_access_out_of_bounds(Input buffer minmax, 1, 0, 0, 0, -1)"; }},
        {"strel min 1", [](FrameCall &c) { c.strel.dim(0).min = 1; }, -4,
         [](const FilterInfo &) { return "halide_error_access_out_of_bounds(Input buffer strel, 0, 0, 2, 1, 3)"; }},
        {"strel min -1 in dim 1", [](FrameCall &c) { c.strel.dim(1).min = -1; }, -4,
         [](const FilterInfo &) { return "halide_error_access_out_of_bounds(Input buffer strel, 1, 0, 2, -1, 1)"; }},
        {"strel extent -1", [](FrameCall &c) { c.strel.dim(0).extent = -1; }, -28,
         [](const FilterInfo &) { return "halide_error_buffer_extents_negative(Input buffer strel, 0, -1)"; }},
        {"output stride 2", [](FrameCall &c) { c.output.dim(0).stride = 2; }, -8,
         [](const FilterInfo &f) { return std::string("halide_error_constraint_violated(") + f.output + ".stride.0, 2, 1, 1)"; }},
        {"image stride 0", [](FrameCall &c) { c.image.dim(0).stride = 0; }, -8,
         [](const FilterInfo &) { return "halide_error_constraint_violated(keyimForType.stride.0, 0, 1, 1)"; }},
        {"minmax stride -1", [](FrameCall &c) { c.minmax.dim(0).stride = -1; }, -8,
         [](const FilterInfo &) { return "halide_error_constraint_violated(minmax.stride.0, -1, 1, 1)"; }},
        {"strel stride 2 after a wrong image stride: buffer order",
         [](FrameCall &c) { c.strel.dim(0).stride = 2; c.image.dim(0).stride = 3; }, -8,
         [](const FilterInfo &) { return "halide_error_constraint_violated(keyimForType.stride.0, 3, 1, 1)"; }},
        {"null output host with a device handle", [](FrameCall &c) { c.output.raw()->host = nullptr; c.output.raw()->device = 1; }, -34,
         [](const FilterInfo &f) { return "halide_error_host_is_null(" + out_label(f) + ")"; }},
        {"null strel host with a device handle", [](FrameCall &c) { c.strel.raw()->host = nullptr; c.strel.raw()->device = 7; }, -34,
         [](const FilterInfo &) { return "halide_error_host_is_null(Input buffer strel)"; }},
        {"dimensions 1 and 5 are not read",
         [](FrameCall &c) { c.image.raw()->dimensions = 1; c.output.raw()->dimensions = 5; }, 0,
         [](const FilterInfo &) { return ""; }},
        {"flags (device dirty) are not read",
         [](FrameCall &c) { c.image.raw()->flags = halide_buffer_flag_device_dirty; }, 0,
         [](const FilterInfo &) { return ""; }},
        {"strel extents of 0 pass", [](FrameCall &c) { c.strel.dim(0).extent = 0; c.strel.dim(1).extent = 0; }, 0,
         [](const FilterInfo &) { return ""; }},
    };
    return rows;
}

class FrameTable : public testing::TestWithParam<FilterInfo> {};

TEST_P(FrameTable, RefusesInOrderAndWritesNothing) {
    const FilterInfo &f = GetParam();
    for (const BadCall &row : bad_calls()) {
        SCOPED_TRACE(row.what);
        FrameCall call(f);
        row.mutate(call);
        const auto before = call.output.snapshot();
        const auto image_before = call.image.snapshot();
        clear_runtime_log();
        const int status = call.run();
        const std::string expected = row.call(f);
        if (expected.empty()) {
            EXPECT_EQ(status, 0);
            EXPECT_TRUE(runtime_log().calls.empty()) << runtime_log().calls.front();
            continue;
        }
        EXPECT_EQ(status, row.status);
        ASSERT_EQ(runtime_log().calls.size(), 1u);
        EXPECT_EQ(runtime_log().calls[0], expected);
        EXPECT_FALSE(runtime_log().last_message.empty());
        EXPECT_TRUE(call.output.unchanged_since(before));
        EXPECT_TRUE(call.image.unchanged_since(image_before));
    }
}

INSTANTIATE_TEST_SUITE_P(AllFilters, FrameTable, testing::ValuesIn(all_filters()),
                         [](const testing::TestParamInfo<FilterInfo> &info) { return std::string(info.param.name); });

// Messages carry our literals.
TEST(FrameMessages, NameTheBufferAndTheConstraint) {
    FrameCall call(filter("imerode"));
    call.output.dim(0).stride = 2;
    clear_runtime_log();
    EXPECT_EQ(call.run(), -8);
    EXPECT_NE(runtime_log().last_message.find("erode.stride.0"), std::string::npos) << runtime_log().last_message;
}

// A wide image refuses an output narrower than a vector, before anything else
// of the image is looked at; a narrow image takes any output width.
TEST(PathRule, WideImageNeedsAVectorOfOutput) {
    for (const std::string tag : {"none", "avx2"}) {
        Variant v{&filter("imdilate"), &element("uint8"), tag};
        const int vw = v.vw();
        Problem p;
        p.elem = v.elem;
        p.filter = v.filter;
        p.image = {0, 0, vw + 1, 2};
        p.pixels.assign(static_cast<size_t>(p.image.w) * 2, 1);
        p.mask = {1, 1, {1}};
        p.output = {10, 0, 1, 2};
        Call wide(p);
        clear_runtime_log();
        EXPECT_EQ(wide.run(entry(v)), -4);
        ASSERT_EQ(runtime_log().calls.size(), 1u);
        EXPECT_EQ(runtime_log().calls[0], "halide_error_access_out_of_bounds(Output buffer dilate, 0, " +
                                              std::to_string(11 - vw) + ", 10, 10, 10)");
        p.image.w = vw;
        p.pixels.resize(static_cast<size_t>(vw) * 2);
        p.output.w = 3 * vw;
        EXPECT_EQ(check_against_reference(v, p), "") << "a narrow image takes a wide output";
    }
}

// --- Bounds queries -------------------------------------------------------

struct Query {
    TestBuffer image, minmax, strel, output;
    Query(const ElemInfo &e, const Region &img, int sx, int sy, const Region &out)
        : image(e, img.x0, img.w, img.y0, img.h), minmax(element("float64"), 0, 0, 0, 0),
          strel(element("uint8"), 0, sx, 0, sy), output(e, out.x0, out.w, out.y0, out.h) {
        for (TestBuffer *b : {&image, &minmax, &strel, &output}) b->raw()->host = nullptr;
    }
};

void expect_answer(TestBuffer &b, const Interval (&region)[2], halide_type_t type, const char *what) {
    SCOPED_TRACE(what);
    const halide_buffer_t *raw = b.raw();
    EXPECT_EQ(raw->host, nullptr);
    EXPECT_EQ(raw->device, 0u);
    EXPECT_EQ(raw->device_interface, nullptr);
    EXPECT_EQ(raw->flags, 0u);
    EXPECT_EQ(raw->dimensions, 2);
    EXPECT_TRUE(raw->type == type);
    EXPECT_EQ(raw->dim[0].min, region[0].min);
    EXPECT_EQ(raw->dim[0].extent, region[0].extent);
    EXPECT_EQ(raw->dim[0].stride, 1);
    EXPECT_EQ(raw->dim[1].min, region[1].min);
    EXPECT_EQ(raw->dim[1].extent, region[1].extent);
    EXPECT_EQ(raw->dim[1].stride, region[0].extent);
}

TEST(BoundsQuery, WorkedExamples) {
    const ElemInfo &u8 = element("uint8");
    struct Case {
        const char *filter, *tag;
        Region image;
        int sx, sy;
        Region output;
        Interval image0, image1, output0;
    };
    const std::vector<Case> cases = {
        {"imdilate", "none", {-5, -2, 120, 70}, 5, 3, {3, 7, 101, 53}, {1, 105}, {6, 55}, {3, 101}},
        {"imerode", "none", {-5, -2, 120, 70}, 5, 3, {3, 7, 101, 53}, {1, 105}, {6, 55}, {3, 101}},
        {"imdilate", "none", {-5, -2, 10, 70}, 5, 3, {3, 7, 101, 53}, {1, 4}, {6, 55}, {3, 101}},
        {"imdilate", "avx2", {-5, 0, 40, 4}, 5, 1, {10, 0, 1, 1}, {8, 5}, {0, 1}, {-21, 32}},
        {"imdilate", "none", {-5, 0, 0, 4}, 1, 1, {0, 0, 4, 4}, {-5, 1}, {0, 4}, {0, 4}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.filter) + " " + c.tag);
        Variant v{&filter(c.filter), &u8, c.tag};
        Query q(u8, c.image, c.sx, c.sy, c.output);
        clear_runtime_log();
        EXPECT_EQ(entry(v)(q.image.raw(), q.minmax.raw(), q.strel.raw(), q.output.raw()), 0);
        EXPECT_TRUE(runtime_log().calls.empty());
        EXPECT_EQ(q.image.raw()->dim[0].min, c.image0.min);
        EXPECT_EQ(q.image.raw()->dim[0].extent, c.image0.extent);
        EXPECT_EQ(q.image.raw()->dim[1].min, c.image1.min);
        EXPECT_EQ(q.image.raw()->dim[1].extent, c.image1.extent);
        EXPECT_EQ(q.image.raw()->dim[1].stride, c.image0.extent);
        EXPECT_EQ(q.output.raw()->dim[0].min, c.output0.min);
        EXPECT_EQ(q.output.raw()->dim[0].extent, c.output0.extent);
    }
}

// Only the buffers asked about are answered, and a query runs no check.
TEST(BoundsQuery, AnswersOnlyNullHostsAndChecksNothing) {
    FrameCall call(filter("imerode"));
    call.image.raw()->type = kInt8;  // wrong, but a query does not look
    call.minmax.raw()->host = nullptr;
    const auto image_before = call.image.snapshot();
    const halide_dimension_t strel0 = call.strel.dim(0);
    clear_runtime_log();
    EXPECT_EQ(call.run(), 0);
    EXPECT_TRUE(runtime_log().calls.empty());
    EXPECT_EQ(call.minmax.dim(0).min, 1);
    EXPECT_EQ(call.minmax.dim(0).extent, 1);
    EXPECT_TRUE(call.image.raw()->type == kInt8);
    EXPECT_EQ(call.strel.dim(0).extent, strel0.extent);
    EXPECT_TRUE(call.output.unchanged_since(call.output.snapshot()));
    EXPECT_TRUE(call.image.unchanged_since(image_before));
}

// Random queries of every filter, type and tag against the region model.
class QuerySweep : public testing::TestWithParam<Variant> {};

TEST_P(QuerySweep, MatchesRegionModel) {
    const Variant &v = GetParam();
    std::string why;
    if (!cpu_supports(v.tag, &why)) GTEST_SKIP() << "this CPU lacks" << why << " for tag " << v.tag;
    std::mt19937 rng(std::hash<std::string>{}(v.name()) ^ 0x5eed);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    const halide_type_t elem_type(static_cast<halide_type_code_t>(v.elem->code), v.elem->bits);
    for (int i = 0; i < 40; i++) {
        const Region image{pick(-9, 9), pick(-9, 9), pick(0, 3 * v.vw()), pick(0, 9)};
        const int sx = pick(0, 12), sy = pick(0, 12);
        const Region output{pick(-20, 20), pick(-20, 20), pick(1, 3 * v.vw()), pick(1, 9)};
        SCOPED_TRACE("case " + std::to_string(i));
        Query q(*v.elem, image, sx, sy, output);
        ASSERT_EQ(entry(v)(q.image.raw(), q.minmax.raw(), q.strel.raw(), q.output.raw()), 0);
        const Required r = required_regions(*v.filter, v.vw(), image, sx, sy, output);
        expect_answer(q.output, r.output, elem_type, "output");
        expect_answer(q.image, r.image, elem_type, "image");
        expect_answer(q.minmax, r.minmax, halide_type_t(halide_type_float, 64), "minmax");
        expect_answer(q.strel, r.strel, halide_type_t(halide_type_uint, 8), "strel");
    }
}

INSTANTIATE_TEST_SUITE_P(AllVariants, QuerySweep, testing::ValuesIn(all_variants()),
                         [](const testing::TestParamInfo<Variant> &info) { return info.param.name(); });

}  // namespace
