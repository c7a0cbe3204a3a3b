// A single-channel image as it is read from and written to files: 8 or 16
// bits per sample, held as 16-bit values, row-major without gaps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace demo {

struct GreyImage {
    int width = 0, height = 0;
    int bits = 8;  // 8 or 16
    std::vector<uint16_t> samples;

    GreyImage() = default;
    GreyImage(int width, int height, int bits, uint16_t fill = 0)
        : width(width), height(height), bits(bits), samples(static_cast<size_t>(width) * height, fill) {}
    int max_value() const { return (1 << bits) - 1; }
    uint16_t &at(int x, int y) { return samples[static_cast<size_t>(y) * width + x]; }
    uint16_t at(int x, int y) const { return samples[static_cast<size_t>(y) * width + x]; }
};

}  // namespace demo
