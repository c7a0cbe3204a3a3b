// Promise: results. Every variant equals the scalar reference model, bit for bit.
#include "support/harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

using namespace fmtest;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN(), kInf = std::numeric_limits<double>::infinity();

class Sweep : public testing::TestWithParam<Variant> {};

TEST_P(Sweep, MatchesReferenceModel) {
    const Variant &v = GetParam();
    std::string why;
    if (!cpu_supports(v.tag, &why)) GTEST_SKIP() << "this CPU lacks" << why << " for tag " << v.tag;
    std::mt19937 rng(std::hash<std::string>{}(v.name()));
    for (int i = 0; i < 200; i++) {
        const Problem p = random_problem(v, rng);
        ASSERT_EQ(check_against_reference(v, p), "") << "case " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(AllVariants, Sweep, testing::ValuesIn(all_variants()), testing::PrintToStringParamName());

// Whether two samples are the same, NaN and the sign of zero included.
bool same(double a, double b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return a == b && std::signbit(a) == std::signbit(b);
}

// A float fold keeps the mask's order (rows from the first, columns from the
// left): of +0.0 and -0.0 the last visited wins, a NaN stands only when last.
// One or two specials on a background (and special pads): as the output runs
// over and past the image, each meets every active element of the mask. Whole
// masks for paths that fold them another way, rows of 300 for those from 256
// columns and of 600 for the wider chunks floats take from 512 (7 x 7 masks
// on); there the specials sit in the middle of a row or by either end, where
// the blocks of columns that meet the image's edge fold them.
TEST(FloatFoldOrder, MultiRowMasksMatchReferenceModel) {
    const std::vector<std::pair<int, std::vector<uint8_t>>> masks = {
        {3, {1, 1, 1, 1, 1, 1, 1, 1, 1}},                    // 3 x 3, whole
        {3, {1, 0, 1, 2, 1, 1, 1, 1, 0}},                    // 3 x 3, runs broken by 0 and 2
        {5, {0, 1, 1, 0, 1, 1, 1, 1, 1, 0, 0, 1, 1, 0, 1}},  // 5 x 3
        {4, {1, 1, 0, 0, 1, 1, 1, 1}},                       // 4 x 2
        {4, std::vector<uint8_t>(16, 1)},                    // 4 x 4, whole
        {5, std::vector<uint8_t>(15, 1)},                    // 5 x 3, whole
        {7, std::vector<uint8_t>(49, 1)},                    // 7 x 7, whole: folded column first on wide rows
        {9, std::vector<uint8_t>(81, 1)},                    // 9 x 9, whole: its float windows folded from spans
        {17, std::vector<uint8_t>(153, 1)},                  // 17 x 9, whole: spans of one level more
        {5, {1, 1, 1, 1, 1}},                                // one whole row
        {1, {1, 1, 1}},                                      // one whole column
    };
    for (const Variant &v : runnable_variants())
        for (const auto &[sx, bytes] : masks)
            for (int width : {5, v.vw() + 3, 300, 600})  // narrow, one lane wider than a vector, long rows
                for (double background : {0.0, -0.0, 1.0})
                    for (double first : {kNaN, -0.0, 0.0})
                        for (double second : {kNaN, -0.0, 0.0, background})
                            for (int at : {2, width / 2, width - 3}) {
                                const bool whole = std::count(bytes.begin(), bytes.end(), 1) == long(bytes.size());
                                const bool zero = background == 0.0 && !std::signbit(background);
                                if (!v.elem->is_float() || (width >= 300 && !(whole && zero))) continue;
                                // The smaller masks fold element by element on rows of 600.
                                if (width == 600 && bytes.size() < 49) continue;
                                // By either end of a long row, one special at a time.
                                if (at != width / 2 && (width < 300 || !same(second, background))) continue;
                                const int sy = static_cast<int>(bytes.size()) / sx;
                                const std::vector<double> pixels(width * 5, background);
                                Problem p{v.elem, v.filter, {-1, 2, width, 5}, pixels, second, second,
                                          {sx, sy, bytes}, {-4, -1, width + 6, 11}};
                                p.pixels[2 * width + at] = first;  // a column of the middle row
                                // Right of it, below it.
                                p.pixels[2 * width + at + 1] = p.pixels[3 * width + at] = second;
                                if (v.filter->residual()) p.output = p.image;  // the others read the pad past the image
                                ASSERT_EQ(check_against_reference(v, p), "")
                                    << "background " << background << ", specials " << first << " / " << second;
                            }
}

// --- The model's rules, pinned to literal values ----------------------------

TEST(ReferenceModel, PadConversionAndResidual) {
    struct Row {
        const char *type;
        double pad, converted;
    };
    const Row pads[] = {
        {"uint8", 255.9, 255},      {"uint8", 300.7, 44},           {"uint8", -1.0, 255},      {"uint8", kNaN, 0},
        {"uint8", 1e10, 0},         {"int8", 200.0, -56},           {"int8", -129.0, 127},     {"int8", -kInf, 0},
        {"uint16", 70000.0, 4464},  {"int16", 40000.0, -25536},     {"int32", -2.9, -2},       {"int32", 3e9, INT32_MIN},
        {"int32", kNaN, INT32_MIN}, {"uint32", -1.0, 4294967295.0}, {"uint32", 1e19, 0},       {"bool", 3.0, 1},
        {"bool", 2.0, 0},           {"bool", -1.0, 1},              {"float32", 1e300, kInf},  {"float64", -0.0, -0.0},
    };
    for (const Row &r : pads) EXPECT_TRUE(same(convert_pad(element(r.type), r.pad), r.converted)) << r.type << " " << r.pad;
    struct Difference {
        const char *type;
        double a, b, saturated;
    };
    const Difference differences[] = {
        {"uint8", 7, 0, 7},        {"uint8", 0, 7, 0},         {"int8", 127, -100, 127},  {"int8", -100, 127, -128},
        {"uint32", 0, 1, 0},       {"bool", 0, 1, 0},          {"float32", kNaN, 2, kInf}, {"float64", -kInf, -kInf, kInf},
    };
    for (const Difference &d : differences)
        EXPECT_TRUE(same(saturating_difference(element(d.type), d.a, d.b), d.saturated)) << d.type << " " << d.a;
}

}  // namespace
