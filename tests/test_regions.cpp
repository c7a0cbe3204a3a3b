// Promise: regions. A bounds query answers the region model's required regions and checks nothing else.
#include "support/harness.h"
#include "support/regions.h"
#include "support/runtime_log.h"

#include <gtest/gtest.h>

#include <random>

using namespace fmtest;

namespace {

// The four descriptors of a query of every buffer: null hosts (and no
// memory, so that they may describe any region).
struct Query {
    TestBuffer image, minmax, strel, output;
    Query(const ElemInfo &e, const Region &img, int sx, int sy, const Region &out)
        : image(e, img.x0, 0, img.y0, img.h), minmax(element("float64"), 0, 0, 0, 1), strel(element("uint8"), 0, 0, 0, sy),
          output(e, out.x0, 0, out.y0, out.h) {
        TestBuffer *all[4] = {&image, &minmax, &strel, &output};
        const int widths[4] = {img.w, 2, sx, out.w};
        for (int i = 0; i < 4; i++) {
            all[i]->raw()->host = nullptr;
            all[i]->dim(0).extent = all[i]->dim(1).stride = widths[i];
        }
    }
    int run(const Variant &v) { return entry(v)(image.raw(), minmax.raw(), strel.raw(), output.raw()); }
};

// The descriptor holds exactly `region`, dense, and nothing else changed.
std::string answer_differs(TestBuffer &b, const Interval (&region)[2], halide_type_t type) {
    const halide_buffer_t *r = b.raw();
    const auto text = [](auto... numbers) { return ((std::to_string(numbers) + " ") + ...); };
    const std::string got = text(r->dim[0].min, r->dim[0].extent, r->dim[1].min, r->dim[1].extent, r->dim[1].stride);
    const std::string want = text(region[0].min, region[0].extent, region[1].min, region[1].extent, region[0].extent);
    const bool rest_same = !r->host && r->device == 0 && !r->device_interface && r->flags == 0 && r->dimensions == 2 &&
                           r->type == type && r->dim[0].stride == 1;
    return got == want && rest_same ? "" : "answered " + got + ", want " + want;
}

class QuerySweep : public testing::TestWithParam<Variant> {};

TEST_P(QuerySweep, MatchesRegionModel) {
    const Variant &v = GetParam();
    std::string why;
    if (!cpu_supports(v.tag, &why)) GTEST_SKIP() << "this CPU lacks" << why << " for tag " << v.tag;
    std::mt19937 rng(std::hash<std::string>{}(v.name()) ^ 0x5eed);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int i = 0; i < 40; i++) {
        const Region image{pick(-9, 9), pick(-9, 9), pick(0, 3 * v.vw()), pick(0, 9)};
        const int sx = pick(0, 12), sy = pick(0, 12);
        const Region output{pick(-20, 20), pick(-20, 20), pick(1, 3 * v.vw()), pick(1, 9)};
        SCOPED_TRACE("case " + std::to_string(i));
        Query q(*v.elem, image, sx, sy, output);
        ASSERT_EQ(q.run(v), 0);
        const Required r = required_regions(*v.filter, v.vw(), image, sx, sy, output);
        EXPECT_EQ(answer_differs(q.output, r.output, v.elem->type()), "") << "output";
        EXPECT_EQ(answer_differs(q.image, r.image, v.elem->type()), "") << "image";
        EXPECT_EQ(answer_differs(q.minmax, r.minmax, halide_type_t(halide_type_float, 64)), "") << "minmax";
        EXPECT_EQ(answer_differs(q.strel, r.strel, halide_type_t(halide_type_uint, 8)), "") << "strel";
    }
}

INSTANTIATE_TEST_SUITE_P(AllVariants, QuerySweep, testing::ValuesIn(all_variants()), testing::PrintToStringParamName());

// Worked examples, in the model and in the library: the image's region and
// the output's columns (a wide image needs one whole tile of output; above
// 2^25 the SE origin shows its float32 rounding in where imerode starts).
TEST(BoundsQuery, WorkedExamples) {
    const ElemInfo &u8 = element("uint8");
    struct Case {
        const char *filter, *tag;
        Region image;
        int sx, sy;
        Region output;
        Interval image0, image1, output0;
    };
    const int far = -1000000000, span = 2000000000;
    const Case cases[] = {
        {"imdilate", "none", {-5, -2, 120, 70}, 5, 3, {3, 7, 101, 53}, {1, 105}, {6, 55}, {3, 101}},
        {"imerode", "none", {-5, -2, 120, 70}, 5, 3, {3, 7, 101, 53}, {1, 105}, {6, 55}, {3, 101}},
        {"imdilate", "none", {-5, -2, 10, 70}, 5, 3, {3, 7, 101, 53}, {1, 4}, {6, 55}, {3, 101}},
        {"imdilate", "avx2", {-5, 0, 40, 4}, 5, 1, {10, 0, 1, 1}, {8, 5}, {0, 1}, {-21, 32}},
        {"imdilate", "none", {-5, 0, 0, 4}, 1, 1, {0, 0, 4, 4}, {-5, 1}, {0, 4}, {0, 4}},
        {"imtophat", "none", {0, 0, 8, 6}, 3, 3, {1, 0, 8, 6}, {0, 9}, {0, 6}, {1, 8}},
        {"imerode", "none", {far, 0, span, 1}, 33554433, 1, {0, 0, 1, 1}, {-16777215, 33554433}, {0, 1}, {-15, 16}},
        {"imerode", "none", {far, 0, span, 1}, 33554435, 1, {0, 0, 1, 1}, {-16777216, 33554435}, {0, 1}, {-15, 16}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.filter) + " " + c.tag + " mask " + std::to_string(c.sx));
        const Variant v{&filter(c.filter), &u8, c.tag};
        const Required r = required_regions(*v.filter, v.vw(), c.image, c.sx, c.sy, c.output);
        EXPECT_TRUE(r.image[0] == c.image0 && r.image[1] == c.image1 && r.output[0] == c.output0) << "the model";
        Query q(u8, c.image, c.sx, c.sy, c.output);
        clear_runtime_log();
        EXPECT_EQ(q.run(v), 0);
        EXPECT_TRUE(runtime_log().calls.empty());
        EXPECT_EQ(answer_differs(q.image, {c.image0, c.image1}, q.image.raw()->type), "");
        EXPECT_EQ(q.output.dim(0).min, c.output0.min);
        EXPECT_EQ(q.output.dim(0).extent, c.output0.extent);
    }
}

}  // namespace
