// The choice of instruction-set tag from processor features, checked on fed-in
// feature sets, and the detection checked against the compiler's own test.
#include "support/elements.h"

#include <flatmorph_cpu.h>

#include <gtest/gtest.h>

namespace {

using flatmorph::CpuFeatures;
using flatmorph::Tag;

struct Row {
    const char *name;
    CpuFeatures cpu;
    Tag best;
    const char *missing_for_avx;
    const char *missing_for_avx2;
};

void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

CpuFeatures features(bool sse41, bool avx, bool avx2, bool fma, bool bmi1, bool os_avx_state) {
    CpuFeatures cpu;
    cpu.sse41 = sse41;
    cpu.avx = avx;
    cpu.avx2 = avx2;
    cpu.fma = fma;
    cpu.bmi1 = bmi1;
    cpu.os_avx_state = os_avx_state;
    return cpu;
}

//                                  sse41  avx    avx2   fma    bmi1   os
const Row kRows[] = {
    {"everything", features(true, true, true, true, true, true), Tag::avx2, "", ""},
    {"baseline_only", features(false, false, false, false, false, false), Tag::none,
     "avx sse4.1 os-avx-state", "avx sse4.1 os-avx-state avx2 fma bmi1"},
    {"os_without_avx_state", features(true, true, true, true, true, false), Tag::none, "os-avx-state",
     "os-avx-state"},
    {"avx2_without_fma", features(true, true, true, false, true, true), Tag::avx, "", "fma"},
    {"avx2_without_bmi1", features(true, true, true, true, false, true), Tag::avx, "", "bmi1"},
    {"avx_and_sse41", features(true, true, false, false, false, true), Tag::avx, "", "avx2 fma bmi1"},
    {"avx_and_fma_without_avx2", features(true, true, false, true, true, true), Tag::avx, "", "avx2"},
    {"avx_without_sse41", features(false, true, true, true, true, true), Tag::none, "sse4.1", "sse4.1"},
    {"sse41_only", features(true, false, false, false, false, false), Tag::none, "avx os-avx-state",
     "avx os-avx-state avx2 fma bmi1"},
    {"avx2_fma_bmi1_without_avx", features(true, false, true, true, true, true), Tag::none, "avx", "avx"},
};

class TagChoice : public testing::TestWithParam<Row> {};

TEST_P(TagChoice, PicksTheWidestTagTheFeaturesAllow) {
    EXPECT_EQ(flatmorph::best_tag(GetParam().cpu), GetParam().best);
}

TEST_P(TagChoice, NamesWhatEachTagLacks) {
    const Row &row = GetParam();
    EXPECT_EQ(flatmorph::missing_features(Tag::none, row.cpu), "");
    EXPECT_EQ(flatmorph::missing_features(Tag::avx, row.cpu), row.missing_for_avx);
    EXPECT_EQ(flatmorph::missing_features(Tag::avx2, row.cpu), row.missing_for_avx2);
}

INSTANTIATE_TEST_SUITE_P(FeatureSets, TagChoice, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row> &info) { return info.param.name; });

TEST(TagNames, RoundTrip) {
    for (Tag tag : {Tag::none, Tag::avx, Tag::avx2}) {
        Tag parsed = Tag::none;
        ASSERT_TRUE(flatmorph::parse_tag(flatmorph::tag_name(tag), &parsed));
        EXPECT_EQ(parsed, tag);
    }
    Tag untouched = Tag::avx;
    EXPECT_FALSE(flatmorph::parse_tag("avx512", &untouched));
    EXPECT_FALSE(flatmorph::parse_tag("AVX", &untouched));
    EXPECT_EQ(untouched, Tag::avx);
}

// GCC's __builtin_cpu_supports reads the same CPUID bits and XCR0.
TEST(DetectedFeatures, AgreeWithTheCompilersProcessorTest) {
    const CpuFeatures cpu = flatmorph::detect_cpu_features();
    for (Tag tag : {Tag::none, Tag::avx, Tag::avx2})
        EXPECT_EQ(flatmorph::can_run(tag, cpu), fmtest::cpu_supports(flatmorph::tag_name(tag))) << flatmorph::tag_name(tag);
}

}  // namespace
