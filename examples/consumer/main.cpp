// Dilates a single bright sample by a 3x3 square with the widest tag this
// processor runs and checks the 3x3 block that results; then makes a call the
// library refuses and checks that it comes back as a status.
#include <flatmorph_host.h>

#include <cstdio>
#include <cstdlib>

int main() {
    constexpr int kWidth = 7, kHeight = 5;
    const flatmorph::Tag tag = flatmorph::best_tag(flatmorph::this_cpu());
    uint8_t image[kWidth * kHeight] = {};
    uint8_t result[kWidth * kHeight] = {};
    const uint8_t square[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    image[2 * kWidth + 3] = 200;

    const flatmorph::Status status = flatmorph::run<uint8_t>(flatmorph::Filter::dilate, tag, {image, kWidth, kHeight},
                                                             {square, 3, 3}, {result, kWidth, kHeight});
    if (!status.ok()) {
        std::fprintf(stderr, "flatmorph consumer: dilation failed: %s\n", status.message.c_str());
        return 1;
    }
    for (int y = 0; y < kHeight; y++)
        for (int x = 0; x < kWidth; x++) {
            const int expected = std::abs(x - 3) <= 1 && std::abs(y - 2) <= 1 ? 200 : 0;
            if (result[y * kWidth + x] != expected) {
                std::fprintf(stderr, "flatmorph consumer: wrong sample %d at (%d, %d)\n", result[y * kWidth + x], x, y);
                return 1;
            }
        }

    const flatmorph::Status refused = flatmorph::run<uint8_t>(flatmorph::Filter::erode, tag, {image, kWidth, kHeight},
                                                              {square, -1, 3}, {result, kWidth, kHeight});
    if (refused.ok() || refused.message.empty()) {
        std::fprintf(stderr, "flatmorph consumer: a negative mask extent was not refused\n");
        return 1;
    }
    std::printf("flatmorph consumer: ok (%s; refused call: %d, %s)\n",
                flatmorph::variant_name(flatmorph::Filter::dilate, "uint8", tag).c_str(), refused.code,
                refused.message.c_str());
    return 0;
}
