// Promise: reliability (memory). A few calls of every filter, few enough to
// run under valgrind's memcheck (and under ASan in the sanitizer build):
// valid calls on both paths, one of them many rows high, with the runtime's
// own allocator behind the two-stage intermediates; a refused call and a
// bounds query. Memcheck sees the pipelines' own accesses (no read of
// undefined or unowned memory, no leak), which the sanitizers cannot.
#include "support/harness.h"

#include <HalideRuntime.h>
#include <valgrind/memcheck.h>
#include <gtest/gtest.h>

using namespace fmtest;

namespace {

void ignore_error(void *, const char *) {}

TEST(Memcheck, EveryFilter) {
    const halide_error_handler_t previous = halide_set_error_handler(ignore_error);
    std::mt19937 rng(99);
    int calls = 0;
    for (const Variant &v : all_variants()) {
        const bool picked = v.elem->elem == Elem::UInt8 || v.elem->elem == Elem::Float32 || v.elem->elem == Elem::Int16;
        if (!picked || (v.tag != "none" && v.tag != "avx2") || !cpu_supports(v.tag)) continue;
        SCOPED_TRACE(v.name());
        for (const Problem &p : {random_problem(v, rng), random_problem(v, rng), large_problem(v, rng)}) {
            Call valid(p);
            EXPECT_EQ(valid.run(entry(v)), 0);
            const auto bytes = valid.output->snapshot();  // every output sample computed from defined ones
            EXPECT_EQ(VALGRIND_CHECK_MEM_IS_DEFINED(bytes.data(), bytes.size()), 0);
        }

        const Problem p = random_problem(v, rng);
        Call refused(p);
        refused.minmax->dim(1).extent = 0;
        EXPECT_EQ(refused.run(entry(v)), -4);
        Call query(p);
        query.output->raw()->host = nullptr;
        EXPECT_EQ(query.run(entry(v)), 0);
        calls += 5;
    }
    halide_set_error_handler(previous);
    std::printf("memcheck: %d calls\n", calls);
}

}  // namespace
