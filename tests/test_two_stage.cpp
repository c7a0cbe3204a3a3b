// The two-stage filters as a host sees them: worked examples of the opening
// and closing rims, the intermediate's one allocation of exactly its size plus
// one element, the order of runtime calls when an allocation or a loop fails,
// and the residual's saturation.
#include "support/random_problem.h"
#include "support/regions.h"
#include "support/runtime_log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace fmtest;

namespace {

std::vector<std::string> supported_tags() {
    std::vector<std::string> tags;
    for (const std::string &tag : all_tags())
        if (cpu_supports(tag)) tags.push_back(tag);
    return tags;
}

// One row through a uint8 filter, output columns [x0, x0 + n).
std::vector<double> run_row(const std::string &filter_name, const std::string &tag, const std::vector<double> &row,
                            int image_x0, const std::vector<uint8_t> &mask, double low, double high, int x0, int n) {
    Variant v{&filter(filter_name), &element("uint8"), tag};
    Problem p;
    p.elem = v.elem;
    p.filter = v.filter;
    p.image = {image_x0, 0, static_cast<int>(row.size()), 1};
    p.pixels = row;
    p.mask = {static_cast<int>(mask.size()), 1, mask};
    p.low_pad = low;
    p.high_pad = high;
    p.output = {x0, 0, n, 1};
    Call call(p);
    EXPECT_EQ(call.run(entry(v)), 0);
    std::vector<double> out;
    for (int x = x0; x < x0 + n; x++) out.push_back(call.output->value(x, 0));
    return out;
}

TEST(TwoStage, WorkedRimExamples) {
    struct Row {
        const char *what, *filter;
        std::vector<double> image;
        int image_x0;
        std::vector<uint8_t> mask;
        double low, high;
        int x0, n;
        std::vector<double> expected;
    };
    const std::vector<double> row = {5, 1, 7, 7, 2};
    const std::vector<uint8_t> m3 = {1, 1, 1}, m4 = {1, 1, 1, 1}, m9(9, 1);
    const std::vector<Row> rows = {
        {"open, neutral pads", "imopen", row, 0, m3, 0, 255, 0, 5, {1, 1, 2, 2, 2}},
        {"open, pads enter at both rims", "imopen", row, 0, m3, 9, 0, 0, 5, {9, 1, 2, 2, 9}},
        {"open, even mask", "imopen", row, 0, m4, 0, 255, 0, 5, {1, 1, 2, 2, 2}},
        {"open, mask wider than the image", "imopen", {5, 1, 7}, 0, m9, 0, 255, 0, 3, {1, 1, 1}},
        {"open, image min 2: the frame stays at 0", "imopen", row, 2, m3, 3, 255, 0, 5, {255, 255, 5, 1, 3}},
        {"open, single element at the origin", "imopen", row, 0, {1}, 4, 0, -1, 7, {4, 5, 1, 7, 7, 2, 4}},
        {"close, low pad 0", "imclose", row, 0, m3, 0, 99, 0, 5, {5, 5, 7, 7, 2}},
        {"close, low pad 9", "imclose", row, 0, m3, 9, 99, 0, 5, {7, 7, 7, 7, 7}},
        {"close, even mask", "imclose", row, 0, m4, 0, 99, 0, 5, {5, 5, 7, 7, 2}},
        {"close, far outside the image", "imclose", row, 0, m3, 3, 99, 9, 3, {3, 3, 3}},
        {"close, mask wider than the image", "imclose", {5, 1, 7}, 0, m9, 0, 99, 0, 3, {5, 5, 7}},
        {"close, image min 2 moves the image", "imclose", row, 2, m3, 3, 99, 0, 5, {3, 3, 5, 5, 7}},
        {"close, empty mask", "imclose", row, 0, {0, 2, 0}, 0, 99, 0, 5, {255, 255, 255, 255, 255}},
        {"open, empty mask", "imopen", row, 0, {0, 2, 0}, 7, 99, 0, 5, {0, 0, 0, 0, 0}},
    };
    for (const std::string &tag : supported_tags()) {
        for (const Row &r : rows) {
            SCOPED_TRACE(std::string(r.what) + " " + tag);
            EXPECT_EQ(run_row(r.filter, tag, r.image, r.image_x0, r.mask, r.low, r.high, r.x0, r.n), r.expected);
        }
    }
}

// --- Allocation and loops, as the runtime hooks see them ----------------

struct Hooks {
    static inline std::vector<uint64_t> sizes;
    static inline uint64_t fail_above = std::numeric_limits<uint64_t>::max();
    static inline int failing_loop = 0;  // 1 or 2: that loop reports -7 without running
    static inline int loops = 0;
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
        if (++loops == failing_loop) return -7;
        return library_loop(uc, task, min, size, closure);
    }

    Hooks(int fail_loop = 0, uint64_t fail_bytes_above = std::numeric_limits<uint64_t>::max()) {
        sizes.clear();
        fail_above = fail_bytes_above;
        failing_loop = fail_loop;
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

Problem small_problem(const Variant &v) {
    Problem p;
    p.elem = v.elem;
    p.filter = v.filter;
    p.image = {0, 0, 6, 4};
    p.pixels.assign(24, 1);
    p.mask = {3, 3, std::vector<uint8_t>(9, 1)};
    p.output = p.image;
    return p;
}

TEST(TwoStage, RuntimeCallSequences) {
    for (const FilterInfo &f : all_filters()) {
        if (!f.two_stage()) continue;
        SCOPED_TRACE(f.name);
        const Variant v{&f, &element("uint8"), "none"};
        const Problem p = small_problem(v);
        const std::string block = "halide_malloc(" + std::to_string(6 * 4 + 1 +
                                                                     (f.erosion_first() ? 0 : 8 * 6 - 24)) + ")";
        {
            Hooks hooks(1);
            Call call(p);
            const auto untouched = call.output->snapshot();
            EXPECT_EQ(call.run(entry(v)), -7);
            EXPECT_EQ(runtime_log().calls, (std::vector<std::string>{block, "halide_do_par_for", "halide_free"}));
            EXPECT_TRUE(call.output->unchanged_since(untouched)) << "a failed first loop leaves the output alone";
        }
        {
            Hooks hooks(2);
            Call call(p);
            EXPECT_EQ(call.run(entry(v)), -7);
            EXPECT_EQ(runtime_log().calls,
                      (std::vector<std::string>{block, "halide_do_par_for", "halide_do_par_for", "halide_free"}));
        }
        {
            Hooks hooks(0, 0);
            Call call(p);
            EXPECT_EQ(call.run(entry(v)), -11);
            EXPECT_EQ(runtime_log().calls, (std::vector<std::string>{block, "halide_error_out_of_memory()"}));
        }
        {
            Hooks hooks;
            Call call(p);
            EXPECT_EQ(call.run(entry(v)), 0);
            EXPECT_EQ(runtime_log().calls,
                      (std::vector<std::string>{block, "halide_do_par_for", "halide_do_par_for", "halide_free"}));
        }
    }
}

// One block per call, of exactly S plus one element, for every two-stage
// variant on the random sweep.
TEST(TwoStage, OneAllocationOfExactlyTheIntermediate) {
    std::mt19937 rng(17);
    int calls = 0;
    for (const Variant &v : all_variants()) {
        if (!v.filter->two_stage() || !cpu_supports(v.tag)) continue;
        for (int i = 0; i < 15; i++) {
            const Problem p = random_problem(v, rng);
            const Intermediate m = intermediate(*v.filter, *v.elem, v.vw(), p.image, p.mask.sx, p.mask.sy, p.output);
            Hooks hooks;
            ASSERT_EQ(check_against_reference(v, p), "");
            ASSERT_EQ(Hooks::sizes.size(), 1u) << v.name();
            EXPECT_EQ(Hooks::sizes[0], static_cast<uint64_t>(m.bytes()) + v.elem->bytes) << v.name();
            EXPECT_EQ(runtime_log().calls.back(), "halide_free");
            calls++;
        }
    }
    EXPECT_GT(calls, 0);
}

// An intermediate beyond 2^63 - 1 bytes is refused before any allocation, also
// when its exact size does not fit 64 bits; one that fits is asked for and, if
// the allocator fails, reported as out of memory.
// Coordinates that would pass 2^31 (the mask around the output, or the span
// from image to output) are refused as out of memory before the block is asked
// for, since the rows would index by wrapped coordinates; just inside, the call
// runs. Images of 40 x 2 samples (wide for uint8 on tag none), masks of 3 x 3.
TEST(TwoStage, CoordinatesNear2To31) {
    struct Row {
        const char *filter;
        int image_x0, output_x0, output_w;
        int status;
    };
    const int top = INT32_MAX - 100;  // an image of 40 columns ending 60 below 2^31
    const std::vector<Row> rows = {
        {"imopen", top, top, 40, -11},              // the mask reaches past 2^31 from the output
        {"imtophat", top - 300, top - 300, 40, 0},  // far enough from 2^31: runs
        {"imclose", top, -19, 16, -11},             // image and output 2^31 apart
        {"imclose", top, 100000, 16, 0},            // far apart, but within 2^31
        {"imopen", INT32_MIN + 10, INT32_MIN + 10, 40, -11},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(std::string(r.filter) + " image at " + std::to_string(r.image_x0) + ", output at " +
                     std::to_string(r.output_x0));
        const Variant v{&filter(r.filter), &element("uint8"), "none"};
        Problem p;
        p.elem = v.elem;
        p.filter = v.filter;
        p.image = {r.image_x0, 0, 40, 2};
        p.pixels.assign(80, 7);
        p.mask = {3, 3, std::vector<uint8_t>(9, 1)};
        p.output = {r.output_x0, 0, r.output_w, 2};
        Call call(p);
        Hooks hooks;
        EXPECT_EQ(call.run(entry(v)), r.status);
        if (r.status == -11) {
            EXPECT_TRUE(Hooks::sizes.empty()) << "no block is asked for";
            ASSERT_FALSE(runtime_log().calls.empty());
            EXPECT_EQ(runtime_log().calls.back(), "halide_error_out_of_memory()");
        } else {
            EXPECT_EQ(Hooks::sizes.size(), 1u);
        }
    }
}

TEST(TwoStage, IntermediateSizeLimit) {
    struct Row {
        const char *type, *filter;
        int sx, sy;
        std::string expected;
        int status;
    };
    const int big = 1 << 30, huge = 0x7fffffff;
    const std::vector<Row> rows = {
        // (2^30 + 1)^2 * 8 bytes: just over the limit.
        {"float64", "imclose", big, big, "halide_error_buffer_allocation_too_large(imdilate, 9223372054034645000, 9223372036854775807)", -5},
        // 2^31 by 2^31 by 8 bytes: 2^65, whose low 64 bits are 0.
        {"float64", "imbothat", huge, huge, "halide_error_buffer_allocation_too_large(imdilate, 0, 9223372036854775807)", -5},
        {"uint8", "imclose", big, big, "halide_error_out_of_memory()", -11},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(std::string(r.filter) + "_" + r.type);
        const Variant v{&filter(r.filter), &element(r.type), "none"};
        Problem p;
        p.elem = v.elem;
        p.filter = v.filter;
        p.image = {0, 0, 2, 2};
        p.pixels.assign(4, 0);
        p.mask = {1, 1, {1}};
        p.output = p.image;
        const Intermediate m = intermediate(*v.filter, *v.elem, v.vw(), p.image, r.sx, r.sy, p.output);
        EXPECT_EQ(m.too_large(), r.status == -5);
        Call call(p);
        // The descriptor claims the huge mask; no row ever reads it, as the call fails first.
        call.strel->dim(0).extent = r.sx;
        call.strel->dim(1).extent = r.sy;
        Hooks hooks(0, uint64_t{1} << 40);
        EXPECT_EQ(call.run(entry(v)), r.status);
        ASSERT_FALSE(runtime_log().calls.empty());
        EXPECT_EQ(runtime_log().calls.back(), r.expected);
        if (r.status == -11) EXPECT_EQ(Hooks::sizes, std::vector<uint64_t>{static_cast<uint64_t>(m.bytes()) + 1});
        else EXPECT_TRUE(Hooks::sizes.empty());
    }
}

// The residual of an empty mask: R is the identity of the output stage.
TEST(TwoStage, ResidualOfAnEmptyMask) {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
    struct Row {
        const char *filter, *type;
        std::vector<double> image, expected;
    };
    const std::vector<Row> rows = {
        {"imtophat", "uint8", {0, 7, 255}, {0, 7, 255}},
        {"imtophat", "int8", {-1, 5, -100}, {127, 127, 28}},
        {"imtophat", "float32", {nan, -inf, 2}, {inf, inf, inf}},
        {"imtophat", "bool", {1, 0, 1}, {1, 0, 1}},
        {"imbothat", "uint8", {0, 7, 255}, {255, 248, 0}},
        {"imbothat", "int16", {-1, 5, -32768}, {32767, 32762, 32767}},
        {"imbothat", "uint32", {0, 4294967295.0, 1}, {4294967295.0, 0, 4294967294.0}},
        {"imbothat", "bool", {1, 0, 1}, {0, 1, 0}},
        {"imbothat", "float64", {nan, inf, -3}, {inf, inf, inf}},
    };
    for (const std::string &tag : supported_tags()) {
        for (const Row &r : rows) {
            SCOPED_TRACE(std::string(r.filter) + "_" + r.type + "_" + tag);
            const Variant v{&filter(r.filter), &element(r.type), tag};
            Problem p;
            p.elem = v.elem;
            p.filter = v.filter;
            p.image = {0, 0, 3, 1};
            p.pixels = r.image;
            p.mask = {2, 1, {0, 0}};
            p.output = p.image;
            Call call(p);
            ASSERT_EQ(call.run(entry(v)), 0);
            for (int x = 0; x < 3; x++) EXPECT_EQ(call.output->bits(x, 0), encode(*v.elem, r.expected[x])) << x;
        }
    }
}

}  // namespace
