// The model of what a call requires of each buffer (the answer of a bounds
// query) and of the intermediate image of the two-stage filters.
#pragma once

#include "reference.h"

#include <cstdint>

namespace fmtest {

struct Interval {
    int min = 0, extent = 0;
    int last() const { return min + extent - 1; }
    bool operator==(const Interval &o) const { return min == o.min && extent == o.extent; }
};

struct Required {
    Interval output[2], image[2], minmax[2], strel[2];
};

// `image` and `output` carry min and extent; only the mask's extents count.
Required required_regions(const FilterInfo &f, int vw, const Region &image, int sx, int sy, const Region &output);

struct Intermediate {
    int first_col = 0, first_row = 0;  // Ls and T0
    int64_t stride = 0, rows = 0;      // Rs - Ls + 1 and B0 - T0 + 1 (may be negative)
    int element_bytes = 1;
    // S, exactly: stride and rows taken as unsigned 32-bit numbers, times the element size.
    unsigned __int128 bytes() const;
    bool too_large() const { return bytes() > 0x7fffffffffffffffULL; }
    bool valid() const { return stride > 0 && rows > 0; }
};

Intermediate intermediate(const FilterInfo &f, const ElemInfo &e, int vw, const Region &image, int sx, int sy,
                          const Region &output);

}  // namespace fmtest
