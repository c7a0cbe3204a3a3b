// An independent scalar model of what every output sample of every filter is:
// slow, direct, and written from the definitions, never from the pipelines.
#pragma once

#include "elements.h"

#include <cstdint>
#include <vector>

namespace fmtest {

struct Mask {
    int sx = 0, sy = 0;
    std::vector<uint8_t> bytes;  // row-major, sx by sy
    bool active(int k, int j) const { return bytes[static_cast<size_t>(j) * sx + k] == 1; }
};

// The low 32 bits of v as a signed number: coordinates wrap around at 32 bits.
inline int32_t wrap32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

struct Region {
    int x0 = 0, y0 = 0, w = 0, h = 0;
    int x1() const { return wrap32(int64_t{x0} + w); }
    int y1() const { return wrap32(int64_t{y0} + h); }
};

struct Problem {
    const ElemInfo *elem = nullptr;
    const FilterInfo *filter = nullptr;
    Region image;                // the image's own rectangle (min and extent)
    std::vector<double> pixels;  // image samples as numbers, row-major (bool: 0 or 1)
    double low_pad = 0, high_pad = 0;  // the float64 elements (0, 0) and (1, 0) of minmax
    Mask mask;
    Region output;
};

// SE origin of a mask extent, by the float32 steps.
int se_origin(int extent);

// The float64 pad element converted to the element type, as a number.
double convert_pad(const ElemInfo &e, double pad);

// Saturating difference a - b stored in the element type, as a number.
double saturating_difference(const ElemInfo &e, double a, double b);

// Every output sample of the problem, row-major over the output region.
std::vector<double> reference_output(const Problem &p);

}  // namespace fmtest
