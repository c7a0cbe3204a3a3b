// Promise: reliability (memory). A call reads the image only within the memory its descriptor spans. The border
// tiles of a row may read whole vectors reaching past the image's edge into the rows beside, but never before the
// image's first element or after its last: each variant runs on images placed flush against an inaccessible page
// at either end, wide enough for every grouping of a row's tiles, and matches the reference model.
#include "guarded_memory.h"
#include "support/harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace fmtest;
using fmfuzz::GuardedBlock;

namespace {

// Masks that reach columns on both sides and are folded element by element
// (not every element active).
const Mask kMasks[] = {{3, 3, {0, 1, 0, 1, 1, 1, 0, 1, 0}}, {5, 2, {1, 1, 0, 1, 1, 0, 1, 1, 1, 0}}};

TEST(ImageMemory, ReadsStayWithinTheImage) {
    std::mt19937 rng(11);
    for (const Variant &v : runnable_variants()) {
        SCOPED_TRACE(v.name());
        // The lanes of a group of tiles folded together: one group's width, a
        // little more (two overlapping groups) and two groups with tiles between.
        const int group = std::max(1, std::min(8, 256 / v.vw())) * v.vw();
        for (const int width : {group, group + 3, 2 * group + 5})
            for (const Mask &mask : kMasks)
                for (const GuardedBlock::Flush flush : {GuardedBlock::Flush::Start, GuardedBlock::Flush::End}) {
                    Problem p = random_problem(v, rng);
                    p.image = {-3, 2, width, 4};
                    p.image_row_gap = 0;
                    p.pixels.resize(static_cast<size_t>(width) * p.image.h);
                    for (size_t i = 0; i < p.pixels.size(); i++)
                        p.pixels[i] = v.elem->elem == Elem::Bool ? i % 3 == 0 : i * 7 % 41;
                    p.mask = mask;
                    p.output = p.image;

                    Call call(p);
                    halide_buffer_t *image = call.image->raw();
                    const size_t bytes = static_cast<size_t>(width) * p.image.h * image->type.bytes();
                    GuardedBlock block(bytes, flush, image->type.bytes());
                    std::memcpy(block.data(), image->host, bytes);
                    image->host = block.data();
                    ASSERT_EQ(call.run(entry(v)), 0) << width << " columns";
                    EXPECT_EQ(differences_from_reference(p, *call.output), "") << width << " columns";
                }
    }
}

}  // namespace
