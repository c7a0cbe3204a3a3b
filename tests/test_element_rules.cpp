// What depends on the element type, checked against literal values: the pad
// conversion, the float fold order (NaN, signed zeros), the identities, the
// bool rules, and the SE origin arithmetic. Every case runs on every tag the
// CPU has, on the narrow and on the wide path.
#include "support/harness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace fmtest;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

std::vector<std::string> supported_tags() {
    std::vector<std::string> tags;
    for (const std::string &tag : all_tags()) {
        std::string why;
        if (cpu_supports(tag, &why)) tags.push_back(tag);
        else std::printf("[ SKIPPED  ] tag %s: this CPU lacks%s\n", tag.c_str(), why.c_str());
    }
    return tags;
}

// One output sample of `filter` at column x of a one-row image holding
// `row`, with mask `mask` (one row) and both pads set to `pad`, on the path
// chosen by `wide` (the image is padded with copies of its last sample to be
// one lane wider than a vector, and the output made a vector wide).
double one_sample(const std::string &filter_name, const std::string &type, const std::string &tag, bool wide,
                  std::vector<double> row, std::vector<uint8_t> mask, double pad, int x) {
    Variant v{&filter(filter_name), &element(type), tag};
    Problem p;
    p.elem = v.elem;
    p.filter = v.filter;
    while (wide && static_cast<int>(row.size()) <= v.vw()) row.push_back(row.back());
    p.image = {0, 0, static_cast<int>(row.size()), 1};
    p.pixels = row;
    p.mask = {static_cast<int>(mask.size()), 1, mask};
    p.low_pad = p.high_pad = pad;
    p.output = {x, 0, p.image.w > v.vw() ? v.vw() : 1, 1};
    Call call(p);
    EXPECT_EQ(call.run(entry(v)), 0) << v.name();
    return call.output->value(x, 0);
}

bool same(double a, double b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return a == b && std::signbit(a) == std::signbit(b);
}

TEST(ElementRules, PadIsAPlainWrappingConversion) {
    struct Row {
        const char *type;
        double pad, expected;
    };
    const std::vector<Row> rows = {
        {"uint8", 255.9, 255},      {"uint8", 300.7, 44},        {"uint8", -1.0, 255},        {"uint8", 256.0, 0},
        {"uint8", kNaN, 0},         {"uint8", kInf, 0},          {"uint8", 1e10, 0},          {"int8", 200.0, -56},
        {"int8", -129.0, 127},      {"int8", -kInf, 0},          {"uint16", 65535.9, 65535},  {"uint16", -1.0, 65535},
        {"uint16", 70000.0, 4464},  {"int16", 40000.0, -25536},  {"int16", kNaN, 0},          {"int32", 2.9, 2},
        {"int32", -2.9, -2},        {"int32", 3e9, -2147483648.0}, {"int32", kNaN, -2147483648.0},
        {"int32", -kInf, -2147483648.0}, {"uint32", 4294967295.0, 4294967295.0}, {"uint32", -1.0, 4294967295.0},
        {"uint32", 4294967296.0, 0}, {"uint32", 1e19, 0},         {"uint32", kNaN, 0},         {"bool", 0.5, 0},
        {"bool", 1.0, 1},           {"bool", 1.9, 1},            {"bool", 2.0, 0},            {"bool", 3.0, 1},
        {"bool", -1.0, 1},          {"bool", 1e10, 0},           {"bool", kNaN, 0},           {"float32", 1e300, kInf},
        {"float32", -1e300, -kInf}, {"float32", kNaN, kNaN},     {"float64", -0.0, -0.0},
    };
    // A 1 by 1 mask of one active element, and an output sample left of the
    // image: the sample is the pad itself, for dilation and erosion alike.
    for (const std::string &tag : supported_tags()) {
        for (const Row &row : rows) {
            for (bool wide : {false, true}) {
                for (const char *f : {"imdilate", "imerode"}) {
                    SCOPED_TRACE(std::string(f) + "_" + row.type + "_" + tag + (wide ? " wide" : " narrow") +
                                 " pad " + std::to_string(row.pad));
                    EXPECT_TRUE(same(one_sample(f, row.type, tag, wide, {0}, {1}, row.pad, -40), row.expected));
                }
            }
        }
    }
}

TEST(ElementRules, FloatFoldKeepsVisitingOrder) {
    // With a 3 by 1 mask (origin 1), dilation visits x + 1, x, x - 1 and
    // erosion x - 1, x, x + 1: `visits` lists the values in visiting order.
    struct Row {
        const char *filter;
        std::vector<double> visits;
        double expected;
    };
    const std::vector<Row> rows = {
        {"imdilate", {1.0, kNaN, 0.5}, 0.5},  {"imdilate", {1.0, 0.5, kNaN}, kNaN},
        {"imerode", {1.0, kNaN, 2.0}, 2.0},   {"imerode", {kNaN, 3.0, 4.0}, 3.0},
        {"imdilate", {0.0, -0.0, -1.0}, -0.0}, {"imdilate", {-0.0, 0.0, -1.0}, 0.0},
        {"imerode", {0.0, -0.0, 1.0}, -0.0},  {"imerode", {-0.0, 0.0, 1.0}, 0.0},
        {"imdilate", {-kInf, -kInf, -kInf}, -kInf},
    };
    for (const std::string &tag : supported_tags()) {
        for (const char *type : {"float32", "float64"}) {
            for (const Row &row : rows) {
                for (bool wide : {false, true}) {
                    SCOPED_TRACE(std::string(row.filter) + "_" + type + "_" + tag + (wide ? " wide" : " narrow"));
                    const bool dilation = std::string(row.filter) == "imdilate";
                    // Image columns 0, 1, 2 so that the sample at 1 visits them in the listed order.
                    std::vector<double> image = dilation ? std::vector<double>{row.visits[2], row.visits[1], row.visits[0]}
                                                         : row.visits;
                    EXPECT_TRUE(same(one_sample(row.filter, type, tag, wide, image, {1, 1, 1}, 0.0, 1), row.expected));
                }
            }
        }
    }
}

TEST(ElementRules, EmptyMaskGivesTheIdentity) {
    struct Row {
        const char *filter, *type;
        double expected;
    };
    const std::vector<Row> rows = {
        {"imdilate", "float32", -kInf}, {"imerode", "float32", kInf},  {"imerode", "uint8", 255},
        {"imdilate", "int8", -128},     {"imerode", "int16", 32767},   {"imdilate", "bool", 0},
        {"imerode", "bool", 1},         {"imerode", "uint32", 4294967295.0},
    };
    for (const std::string &tag : supported_tags())
        for (const Row &row : rows)
            for (bool wide : {false, true})
                for (const std::vector<uint8_t> &mask : {std::vector<uint8_t>{0, 2, 255}, std::vector<uint8_t>{}}) {
                    SCOPED_TRACE(std::string(row.filter) + "_" + row.type + "_" + tag);
                    EXPECT_TRUE(same(one_sample(row.filter, row.type, tag, wide, {1, 0, 1}, mask, 1.0, 1), row.expected));
                }
}

TEST(ElementRules, BoolReadsBitZeroAndStoresCleanBits) {
    for (const std::string &tag : supported_tags()) {
        for (bool wide : {false, true}) {
            Variant v{&filter("imdilate"), &element("bool"), tag};
            const int w = wide ? v.vw() + 1 : 3;
            Problem p;
            p.elem = v.elem;
            p.filter = v.filter;
            p.image = {0, 0, w, 1};
            p.pixels.assign(w, 0);
            p.mask = {3, 1, {1, 3, 1}};  // a mask byte of 3 is absent
            p.output = {0, 0, w, 1};
            Call call(p);
            for (int x = 0; x < w; x++) call.image->set_bits(x, 0, x % 2 ? 2 : 0);  // 2 reads false
            call.image->set_bits(w - 1, 0, 0xFF);                                    // reads true
            ASSERT_EQ(call.run(entry(v)), 0);
            for (int x = 0; x < w; x++) {
                const uint64_t expected = x == w - 2 ? 1 : 0;  // only x + 1 == w - 1 sees the set byte
                EXPECT_EQ(call.output->bits(x, 0), expected) << tag << " x " << x;
            }
        }
    }
}

// The origin is computed in float32: above 2^25 its rounding shows. A bounds
// query with a huge mask reveals it through the image footprint of imerode,
// which starts at x0 - cx.
TEST(ElementRules, OriginFollowsFloat32Rounding) {
    const std::vector<std::pair<int, int>> cases = {
        {1, 0}, {2, 0}, {4, 1}, {100, 49}, {101, 50}, {0, -1}, {33554432, 16777215}, {33554433, 16777215},
        {33554435, 16777216}, {67108867, 33554432}};
    for (const auto &[extent, origin] : cases) {
        EXPECT_EQ(se_origin(extent), origin) << "the model itself";
        const ElemInfo &u8 = element("uint8");
        // Only descriptors: a query reads no memory.
        TestBuffer image(u8, 0, 1, 0, 1), minmax(element("float64"), 0, 2, 0, 1), strel(u8, 0, 1, 0, 1),
            out(u8, 0, 1, 0, 1);
        image.dim(0) = {-1000000000, 2000000000, 1, 0};
        strel.dim(0).extent = extent;
        for (TestBuffer *b : {&image, &minmax, &strel, &out}) b->raw()->host = nullptr;
        ASSERT_EQ(entry(Variant{&filter("imerode"), &u8, "none"})(image.raw(), minmax.raw(), strel.raw(), out.raw()), 0);
        EXPECT_EQ(image.dim(0).min, -origin) << "extent " << extent;
    }
}

}  // namespace
