// Promise: two-stage. The intermediate of imopen, imclose, imtophat and
// imbothat is one block of exactly its size plus one element, asked for and
// freed once per call (the fuzz corpus replay checks the size on many more
// shapes); the runtime calls come in order when a loop or the block fails (a
// host hook's status, positive too, is the call's); blocks too large or
// coordinates that would pass 2^31 are refused before any row runs.
#include "support/harness.h"
#include "support/regions.h"
#include "support/runtime_log.h"

#include <gtest/gtest.h>

#include <climits>

using namespace fmtest;

namespace {

// A host's allocator and loop hooks, logging each call; a chosen loop may
// return a status without running, allocations above a size fail.
struct Hooks {
    static inline std::vector<uint64_t> sizes;
    static inline uint64_t fail_above = UINT64_MAX;
    static inline int failing_loop = 0, failing_status = 0, loops = 0;
    static inline halide_do_par_for_t library_loop = nullptr;

    static void *malloc_hook(void *, size_t size) {
        log_runtime_call("halide_malloc(" + std::to_string(size) + ")");
        sizes.push_back(size);
        return size > fail_above ? nullptr : std::malloc(size);
    }
    static void free_hook(void *, void *ptr) {
        log_runtime_call("halide_free");
        std::free(ptr);
    }
    static int loop_hook(void *uc, halide_task_t task, int min, int size, uint8_t *closure) {
        log_runtime_call("halide_do_par_for");
        if (++loops == failing_loop) return failing_status;
        return library_loop(uc, task, min, size, closure);
    }

    explicit Hooks(int fail_loop = 0, int status = 0, uint64_t fail_bytes_above = UINT64_MAX) {
        sizes.clear();
        fail_above = fail_bytes_above;
        failing_loop = fail_loop;
        failing_status = status;
        loops = 0;
        clear_runtime_log();
        previous_malloc = halide_set_custom_malloc(malloc_hook);
        previous_free = halide_set_custom_free(free_hook);
        library_loop = halide_set_custom_do_par_for(loop_hook);
    }
    ~Hooks() {
        halide_set_custom_malloc(previous_malloc);
        halide_set_custom_free(previous_free);
        halide_set_custom_do_par_for(library_loop);
    }
    halide_malloc_t previous_malloc;
    halide_free_t previous_free;
};

Problem uint8_problem(const FilterInfo &f, Region image, int sx, int sy, Region output) {
    Problem p;
    p.elem = &element("uint8");
    p.filter = &f;
    p.image = image;
    p.pixels.assign(static_cast<size_t>(image.w) * image.h, 7);
    p.mask = {sx, sy, std::vector<uint8_t>(static_cast<size_t>(sx) * sy, 1)};
    p.output = output;
    return p;
}

TEST(TwoStage, RuntimeCallSequences) {
    struct Row {
        int failing_loop, loop_status;
        uint64_t fail_above;
        int status;
        std::vector<std::string> after_block;  // the calls after halide_malloc
    };
    const std::string loop = "halide_do_par_for", free = "halide_free";
    const Row rows[] = {
        {0, 0, UINT64_MAX, 0, {loop, loop, free}},
        {1, -7, UINT64_MAX, -7, {loop, free}},
        {2, -7, UINT64_MAX, -7, {loop, loop, free}},
        {1, 3, UINT64_MAX, 3, {loop, free}},
        {2, 5, UINT64_MAX, 5, {loop, loop, free}},
        {0, 0, 0, -11, {"halide_error_out_of_memory()"}},
    };
    for (const FilterInfo &f : all_filters()) {
        for (const Row &r : rows) {
            const Variant v{&f, &element("uint8"), "none"};
            SCOPED_TRACE(std::string(f.name) + ", loop " + std::to_string(r.failing_loop) + " returns " +
                         std::to_string(r.loop_status));
            Call call(uint8_problem(f, {0, 0, 6, 4}, 3, 3, {0, 0, 6, 4}));
            const auto untouched = call.output->snapshot();
            Hooks hooks(r.failing_loop, r.loop_status, r.fail_above);
            const int status = call.run(entry(v));
            if (!f.two_stage()) {  // one loop, no block
                if (r.failing_loop < 2 && r.fail_above) EXPECT_EQ(status, r.loop_status);
                EXPECT_EQ(runtime_log().calls, std::vector<std::string>{loop});
                continue;
            }
            EXPECT_EQ(status, r.status);
            const int block = 6 * 4 + 1 + (f.erosion_first() ? 0 : 8 * 6 - 24);
            std::vector<std::string> expected = {"halide_malloc(" + std::to_string(block) + ")"};
            expected.insert(expected.end(), r.after_block.begin(), r.after_block.end());
            EXPECT_EQ(runtime_log().calls, expected);
            if (r.failing_loop == 1 || r.status == -11) EXPECT_TRUE(call.output->unchanged_since(untouched));
        }
    }
}

// Refused before any block is asked for: a block above 2^63 - 1 bytes (also
// when its exact size does not fit 64 bits), and coordinates that would pass
// 2^31 (the mask around the output, or the span from image to output), as out
// of memory; just inside, the call runs (a fitting block the allocator
// refuses is out of memory too). The huge masks are only claimed by the
// descriptor: no row ever reads them.
TEST(TwoStage, RefusedBeforeTheBlock) {
    struct Row {
        const char *filter, *type;
        int image_x0, output_x0, output_w, sx;
        int status;
        const char *last_call;
    };
    const int top = INT32_MAX - 100, big = 1 << 30;
    const Row rows[] = {
        {"imclose", "float64", 0, 0, 2, big, -5, "halide_error_buffer_allocation_too_large(imdilate, 9223372054034645000, 9223372036854775807)"},
        {"imbothat", "float64", 0, 0, 2, INT32_MAX, -5, "halide_error_buffer_allocation_too_large(imdilate, 0, 9223372036854775807)"},
        {"imclose", "uint8", 0, 0, 2, big, -11, "halide_error_out_of_memory()"},
        {"imopen", "uint8", top, top, 40, 3, -11, "halide_error_out_of_memory()"},
        {"imtophat", "uint8", top - 300, top - 300, 40, 3, 0, "halide_free"},
        {"imclose", "uint8", top, -19, 16, 3, -11, "halide_error_out_of_memory()"},
        {"imclose", "uint8", top, 100000, 16, 3, 0, "halide_free"},
        {"imopen", "uint8", INT32_MIN + 10, INT32_MIN + 10, 40, 3, -11, "halide_error_out_of_memory()"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(std::string(r.filter) + "_" + r.type + " image at " + std::to_string(r.image_x0) +
                     ", output at " + std::to_string(r.output_x0) + ", mask " + std::to_string(r.sx));
        const Variant v{&filter(r.filter), &element(r.type), "none"};
        const int held = r.sx <= 3 ? r.sx : 1;  // the mask the strel's memory holds
        Problem p = uint8_problem(*v.filter, {r.image_x0, 0, r.output_w == 2 ? 2 : 40, 2}, held, held,
                                  {r.output_x0, 0, r.output_w, 2});
        p.elem = v.elem;
        Call call(p);
        call.strel->dim(0).extent = call.strel->dim(1).extent = r.sx;
        const Intermediate m = intermediate(*v.filter, *v.elem, v.vw(), p.image, r.sx, r.sx, p.output);
        Hooks hooks(0, 0, uint64_t{1} << 40);
        EXPECT_EQ(call.run(entry(v)), r.status);
        ASSERT_FALSE(runtime_log().calls.empty());
        EXPECT_EQ(runtime_log().calls.back(), r.last_call);
        const bool asks = r.status == 0 || (r.sx == big && r.status == -11);
        EXPECT_EQ(Hooks::sizes.size(), asks ? 1u : 0u);
        if (asks) EXPECT_EQ(Hooks::sizes[0], static_cast<uint64_t>(m.bytes()) + v.elem->bytes);
    }
}

}  // namespace
