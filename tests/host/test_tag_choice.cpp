// Promise: hosts. The tag chosen from CPUID and XCR0 values, and this machine's against the compiler's test.
#include "support/reference.h"

#include <flatmorph_cpu.h>

#include <gtest/gtest.h>

namespace {

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

}  // namespace
