// A host-owned two-dimensional buffer with its halide_buffer_t descriptor,
// surrounded by guard bytes so that tests can see any write outside it.
#pragma once

#include "elements.h"

#include <HalideRuntime.h>

#include <cstdint>
#include <vector>

namespace fmtest {

// Raw bits of a value stored as an element of `e` (the value must be one the
// type holds; bool stores 0 or 1).
uint64_t encode(const ElemInfo &e, double value);
// The number an element of `e` with raw bits `bits` holds (bool: bit 0).
double decode(const ElemInfo &e, uint64_t bits);

class TestBuffer {
public:
    static constexpr int kGuard = 64;
    static constexpr uint8_t kFill = 0xA5;

    // `stride1` < 0 means dense rows (stride ext0).
    TestBuffer(halide_type_t type, int bytes, int min0, int ext0, int min1, int ext1, int stride1 = -1);
    TestBuffer(const ElemInfo &e, int min0, int ext0, int min1, int ext1, int stride1 = -1);
    TestBuffer(const TestBuffer &) = delete;
    TestBuffer &operator=(const TestBuffer &) = delete;

    halide_buffer_t *raw() { return &buf_; }
    halide_dimension_t &dim(int d) { return dims_[d]; }
    int min(int d) const { return dims_[d].min; }
    int extent(int d) const { return dims_[d].extent; }

    void set(int x, int y, double value);           // stores `value` converted to the element type
    void set_bits(int x, int y, uint64_t bits);     // stores raw bits (bool: any byte)
    uint64_t bits(int x, int y) const;              // raw bits of the element
    double value(int x, int y) const;               // the element as a number (bool: bit 0)

    std::vector<uint8_t> snapshot() const { return storage_; }
    bool unchanged_since(const std::vector<uint8_t> &snap) const { return storage_ == snap; }
    // Bytes outside the described region (guards and row gaps) still hold the fill.
    bool outside_untouched() const;

private:
    uint8_t *at(int x, int y);
    const uint8_t *at(int x, int y) const;

    int bytes_;
    std::vector<uint8_t> storage_;
    halide_dimension_t dims_[2];
    halide_buffer_t buf_;
};

}  // namespace fmtest
