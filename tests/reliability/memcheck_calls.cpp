// Promise: reliability (memory). Calls of every filter under memcheck, which sees the pipelines' own accesses.
#include "support/harness.h"

#include <HalideRuntime.h>
#include <valgrind/memcheck.h>
#include <gtest/gtest.h>

using namespace fmtest;

namespace {

TEST(Memcheck, EveryFilter) {
    const halide_error_handler_t previous = halide_set_error_handler([](void *, const char *) {});
    std::mt19937 rng(99);
    for (const Variant &v : runnable_variants()) {
        const bool picked = v.elem->elem == Elem::UInt8 || v.elem->elem == Elem::Float32 || v.elem->elem == Elem::Int16;
        if (!picked || v.tag == "avx") continue;
        SCOPED_TRACE(v.name());
        for (int i = 0; i < 3; i++) {  // narrow and wide images, single- and two-stage paths
            Call valid(random_problem(v, rng));
            EXPECT_EQ(valid.run(entry(v)), 0);
            const auto bytes = valid.output->snapshot();  // every output sample computed from defined ones
            EXPECT_EQ(VALGRIND_CHECK_MEM_IS_DEFINED(bytes.data(), bytes.size()), 0);
        }

        // An output beside the image: a two-stage filter's intermediate holds
        // one column, fewer than the vector its border tiles would read whole.
        Problem beside = random_problem(v, rng);
        beside.image = {-6, 3, 6, 2};
        beside.pixels.assign(12, 1);
        beside.mask = {3, 5, std::vector<uint8_t>(15, 1)};
        beside.output = {-5, 3, 4, 2};
        beside.image_row_gap = 1;
        EXPECT_EQ(check_against_reference(v, beside), "");

        const Problem p = random_problem(v, rng);
        Call refused(p);
        refused.minmax->dim(1).extent = 0;
        EXPECT_EQ(refused.run(entry(v)), -4);
        Call query(p);
        query.output->raw()->host = nullptr;
        EXPECT_EQ(query.run(entry(v)), 0);
    }
    halide_set_error_handler(previous);
}

}  // namespace
