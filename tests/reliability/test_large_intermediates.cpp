// Promise: reliability (large intermediates). Mapped and reused blocks give the results of small ones.
#include <flatmorph_host.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

using namespace flatmorph;

namespace {

const uint8_t kDisk5[25] = {0, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 0};

// Intermediates of 4 MiB and up come from blocks the runtime's default
// allocator maps itself and keeps, the last one, for the next call.
// A random image of width x height filtered in strips of `strip_rows` output
// rows, one call each with an intermediate of about the strip's size (all
// rows: one call with the image's).
template <typename T>
std::vector<T> filtered(Filter filter, int width, int height, int strip_rows) {
    std::vector<T> image(static_cast<size_t>(width) * height), out(image.size());
    std::mt19937 rng(width);
    for (T &s : image) s = static_cast<T>(rng() % 251);
    for (int y = 0; y < height; y += strip_rows) {
        Plane<T> strip(out.data() + static_cast<size_t>(y) * width, width, std::min(strip_rows, height - y), width, 0, y);
        const Status s = run<T>(filter, best_tag(this_cpu()), {image.data(), width, height}, {kDisk5, 5, 5}, strip);
        EXPECT_TRUE(s.ok()) << s.message;
    }
    return out;
}

// Intermediates of 5 to 20 MB (mapped in steps of 2 MiB), in an order that
// makes the kept block one step too small, big enough, or more than twice
// too big for the next request; float32 ones of 9 MB.
TEST(LargeIntermediates, EqualTheFilterComputedInStrips) {
    const std::tuple<Filter, int, int> cases[] = {{Filter::open, 2600, 2600},   {Filter::close, 3000, 3000},
                                                  {Filter::tophat, 2600, 2600}, {Filter::bothat, 2000, 3000},
                                                  {Filter::open, 4400, 4400},   {Filter::tophat, 2200, 2200}};
    for (const auto &[filter, width, height] : cases)
        EXPECT_TRUE(filtered<uint8_t>(filter, width, height, height) == filtered<uint8_t>(filter, width, height, 200))
            << filter_name(filter) << " " << width << "x" << height;
    for (Filter f : {Filter::open, Filter::close})
        EXPECT_TRUE(filtered<float>(f, 1500, 1500, 1500) == filtered<float>(f, 1500, 1500, 200)) << filter_name(f);
}

TEST(LargeIntermediates, TwoHostsAtOnce) {
    const Filter filters[2] = {Filter::open, Filter::bothat};
    const int widths[2] = {2600, 3000}, heights[2] = {2600, 2400};
    int wrong[2] = {0, 0};
    std::vector<std::thread> hosts;
    for (int h = 0; h < 2; h++)
        hosts.emplace_back([&, h] {
            const std::vector<uint8_t> want = filtered<uint8_t>(filters[h], widths[h], heights[h], 200);
            for (int i = 0; i < 4; i++) wrong[h] += filtered<uint8_t>(filters[h], widths[h], heights[h], heights[h]) != want;
        });
    for (std::thread &host : hosts) host.join();
    EXPECT_EQ(wrong[0], 0);
    EXPECT_EQ(wrong[1], 0);
}

}  // namespace
