// Test buffers with guard bytes, variants resolved by name, random problems,
// and calls of a variant checked against the reference model.
#pragma once

#include "reference.h"  // with HalideRuntime.h

#include <cstdint>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace fmtest {

// Raw bits of a value stored as an element of `e` (the value must be one the
// type holds; bool stores 0 or 1).
uint64_t encode(const ElemInfo &e, double value);
// The number an element of `e` with raw bits `bits` holds (bool: bit 0).
double decode(const ElemInfo &e, uint64_t bits);

// A host-owned two-dimensional buffer with its halide_buffer_t descriptor,
// surrounded by guard bytes so that tests can see any write outside it.
class TestBuffer {
public:
    static constexpr int kGuard = 64;
    static constexpr uint8_t kFill = 0xA5;

    // `stride1` < 0 means dense rows (stride ext0).
    TestBuffer(const ElemInfo &e, int min0, int ext0, int min1, int ext1, int stride1 = -1);
    TestBuffer(const TestBuffer &) = delete;
    TestBuffer &operator=(const TestBuffer &) = delete;

    halide_buffer_t *raw() { return &buf_; }
    halide_dimension_t &dim(int d) { return dims_[d]; }

    void set_bits(int x, int y, uint64_t bits);  // stores raw bits (see encode; bool: any byte)
    uint64_t bits(int x, int y) const;           // raw bits of the element

    std::vector<uint8_t> snapshot() const { return storage_; }  // every byte, guards included
    // Bytes outside the described region (guards and row gaps) still hold the fill.
    bool outside_untouched() const;

private:
    size_t offset(int x, int y) const;  // of sample (x, y) in storage_

    const ElemInfo &elem_;
    std::vector<uint8_t> storage_;
    halide_dimension_t dims_[2];
    halide_buffer_t buf_{};
};

using Entry = int (*)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

struct Variant {
    const FilterInfo *filter;
    const ElemInfo *elem;
    std::string tag;
    std::string name() const { return std::string(filter->name) + "_" + elem->name + "_" + tag; }
    int vw() const { return vector_width(*elem, tag); }
};

inline void PrintTo(const Variant &v, std::ostream *os) { *os << v.name(); }

std::vector<Variant> all_variants();
// The variants whose tag this processor runs.
std::vector<Variant> runnable_variants();

// The exported function of that name, or null.
void *exported(const std::string &name);
Entry entry(const Variant &v);

// A seeded random problem the variant must accept (random_problem.cpp): widths
// around the vector width, masks larger than the image, non-zero mins, outputs
// beyond the image (where the filter allows), hostile samples and pads.
Problem random_problem(const Variant &v, std::mt19937 &rng);

// The four buffers of a call built from a problem: the image filled with its
// samples (half of a bool image's bytes with bits besides bit 0), minmax
// holding the two pads, the mask, and image, mask and output with row gaps.
struct Call {
    std::unique_ptr<TestBuffer> image, minmax, strel, output;
    explicit Call(const Problem &p);
    int run(Entry e) { return e(image->raw(), minmax->raw(), strel->raw(), output->raw()); }
};

// The first output samples that differ from the reference model's and any
// write outside the output region, or an empty string.
std::string differences_from_reference(const Problem &p, const TestBuffer &output);
// Runs `p` through `v`: its failure or differences and the problem, or an empty string.
std::string check_against_reference(const Variant &v, const Problem &p);

}  // namespace fmtest
