// Promise: two-stage. One block of the intermediate's size plus one element; too large ones refused first.
#include "support/harness.h"
#include "support/regions.h"
#include "support/runtime_log.h"

#include <gtest/gtest.h>

#include <climits>

using namespace fmtest;

namespace {

// A host's allocator for its lifetime: logs each call, refuses above 1 TiB.
struct Allocator {
    static inline std::vector<uint64_t> sizes;
    const halide_malloc_t previous_malloc = halide_set_custom_malloc([](void *, size_t size) {
        log_runtime_call("halide_malloc(" + std::to_string(size) + ")");
        sizes.push_back(size);
        return size > (uint64_t{1} << 40) ? nullptr : std::malloc(size);
    });
    const halide_free_t previous_free = halide_set_custom_free([](void *, void *ptr) {
        log_runtime_call("halide_free");
        std::free(ptr);
    });
    Allocator() {
        sizes.clear();
        clear_runtime_log();
    }
    ~Allocator() {
        halide_set_custom_malloc(previous_malloc);
        halide_set_custom_free(previous_free);
    }
};

// Refused before any block is asked for: a block above 2^63 - 1 bytes (also
// when its exact size does not fit 64 bits), and coordinates that would pass
// 2^31 (mask around the output, or image to output) as out of memory; just
// inside, the call runs and asks for its exact block (one the allocator
// refuses is out of memory too). The huge masks are only claimed by the
// descriptor. The fuzz corpus replay checks the block on many more shapes.
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
        const Region image{r.image_x0, 0, r.output_w == 2 ? 2 : 40, 2};
        Call call({v.elem, v.filter, image, std::vector<double>(image.w * 2, 7), 0, 0,
                   {held, held, std::vector<uint8_t>(held * held, 1)}, {r.output_x0, 0, r.output_w, 2}});
        call.strel->dim(0).extent = call.strel->dim(1).extent = r.sx;
        const Intermediate m =
            intermediate(*v.filter, *v.elem, v.vw(), image, r.sx, r.sx, {r.output_x0, 0, r.output_w, 2});
        Allocator allocator;
        EXPECT_EQ(call.run(entry(v)), r.status);
        ASSERT_FALSE(runtime_log().calls.empty());
        EXPECT_EQ(runtime_log().calls.back(), r.last_call);
        const bool asks = r.status == 0 || (r.sx == big && r.status == -11);
        EXPECT_EQ(Allocator::sizes.size(), asks ? 1u : 0u);
        if (asks) EXPECT_EQ(Allocator::sizes[0], static_cast<uint64_t>(m.bytes()) + v.elem->bytes);
    }
}

}  // namespace
