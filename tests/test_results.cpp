// Every variant against the scalar reference model on a seeded random sweep.
#include "support/random_problem.h"

#include <gtest/gtest.h>

using namespace fmtest;

namespace {

class Sweep : public testing::TestWithParam<Variant> {};

TEST_P(Sweep, MatchesReferenceModel) {
    const Variant &v = GetParam();
    std::string why;
    if (!cpu_supports(v.tag, &why)) GTEST_SKIP() << "this CPU lacks" << why << " for tag " << v.tag;
    std::mt19937 rng(std::hash<std::string>{}(v.name()));
    constexpr int kCases = 200;
    for (int i = 0; i < kCases; i++) {
        const Problem p = random_problem(v, rng);
        const std::string mismatch = check_against_reference(v, p);
        ASSERT_EQ(mismatch, "") << "case " << i << ": image " << p.image.w << "x" << p.image.h << " at ("
                                << p.image.x0 << ", " << p.image.y0 << "), mask " << p.mask.sx << "x" << p.mask.sy
                                << ", output " << p.output.w << "x" << p.output.h << " at (" << p.output.x0 << ", "
                                << p.output.y0 << "), pads " << p.low_pad << " / " << p.high_pad;
    }
}

INSTANTIATE_TEST_SUITE_P(AllVariants, Sweep, testing::ValuesIn(all_variants()),
                         [](const testing::TestParamInfo<Variant> &info) { return info.param.name(); });

}  // namespace
