// Promise: reliability (large intermediates). Two-stage calls whose
// intermediate is large enough (4 MiB and up) for the runtime's default
// allocator to map it and keep the last one for the next call: the results
// equal those of the same filter computed in strips (small intermediates,
// from the heap), when blocks of different sizes follow one another, and when
// two host threads make such calls at the same time.
#include <flatmorph_host.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

using namespace flatmorph;

namespace {

constexpr int kStripRows = 200;
const uint8_t kDisk5[25] = {0, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 0};
const Mask kMask{kDisk5, 5, 5};

template <typename T>
struct Image {
    int width, height;
    std::vector<T> samples;
    Image(int w, int h, unsigned seed) : width(w), height(h), samples(static_cast<size_t>(w) * h) {
        std::mt19937 rng(seed);
        for (T &s : samples) s = static_cast<T>(rng() % 251);
    }
};

// The filter over the whole image in one call: one intermediate of the
// image's size.
template <typename T>
std::vector<T> whole(Filter filter, const Image<T> &image) {
    std::vector<T> out(image.samples.size());
    const Status s = run<T>(filter, best_tag(this_cpu()), {image.samples.data(), image.width, image.height}, kMask,
                            Plane<T>(out.data(), image.width, image.height));
    EXPECT_TRUE(s.ok()) << s.message;
    return out;
}

// The same, one strip of output rows per call, each with a small intermediate.
template <typename T>
std::vector<T> in_strips(Filter filter, const Image<T> &image) {
    std::vector<T> out(image.samples.size());
    for (int y = 0; y < image.height; y += kStripRows) {
        const int rows = std::min(kStripRows, image.height - y);
        Plane<T> strip(out.data() + static_cast<size_t>(y) * image.width, image.width, rows, image.width, 0, y);
        const Status s =
            run<T>(filter, best_tag(this_cpu()), {image.samples.data(), image.width, image.height}, kMask, strip);
        EXPECT_TRUE(s.ok()) << s.message;
    }
    return out;
}

struct Case {
    Filter filter;
    int width, height;  // uint8 images: the intermediate is about width x height bytes
};

// Intermediates of 5 to 20 MB (mapped in steps of 2 MiB), in an order that
// makes the kept block one step too small, big enough, or more than twice
// too big for the next request.
const Case kCases[] = {
    {Filter::open, 2600, 2600}, {Filter::close, 3000, 3000}, {Filter::tophat, 2600, 2600},
    {Filter::bothat, 2000, 3000}, {Filter::open, 4400, 4400}, {Filter::tophat, 2200, 2200},
};

TEST(LargeIntermediates, EqualTheFilterComputedInStrips) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(std::string(filter_name(c.filter)) + " " + std::to_string(c.width) + "x" +
                     std::to_string(c.height));
        const Image<uint8_t> image(c.width, c.height, static_cast<unsigned>(c.width));
        EXPECT_TRUE(whole(c.filter, image) == in_strips(c.filter, image));
    }
}

TEST(LargeIntermediates, Float32BlocksToo) {
    const Image<float> image(1500, 1500, 7);  // a 9 MB intermediate
    for (Filter filter : {Filter::open, Filter::close}) EXPECT_TRUE(whole(filter, image) == in_strips(filter, image));
}

TEST(LargeIntermediates, TwoHostsAtOnce) {
    const Image<uint8_t> a(2600, 2600, 1), b(3000, 2400, 2);
    const std::vector<uint8_t> want_a = in_strips(Filter::open, a), want_b = in_strips(Filter::bothat, b);
    auto host = [](Filter filter, const Image<uint8_t> &image, const std::vector<uint8_t> &want, int *wrong) {
        for (int i = 0; i < 4; i++) *wrong += whole(filter, image) != want;
    };
    int wrong_a = 0, wrong_b = 0;
    std::thread first(host, Filter::open, std::cref(a), std::cref(want_a), &wrong_a);
    std::thread second(host, Filter::bothat, std::cref(b), std::cref(want_b), &wrong_b);
    first.join();
    second.join();
    EXPECT_EQ(wrong_a, 0);
    EXPECT_EQ(wrong_b, 0);
}

}  // namespace
