// One argument of a fuzzed call: its descriptor, its two dim entries flush
// against a guard page (an entry beyond dim 1 cannot be read), and, when the
// host is set, memory that holds exactly the described region, flush against
// a guard page too, with guard bytes around it for the output. It remembers
// what it held before the call, so that a test can see every change.
#pragma once

#include "guarded_memory.h"
#include "support/regions.h"

#include <HalideRuntime.h>

#include <memory>
#include <vector>

namespace fmfuzz {

class CallBuffer {
public:
    CallBuffer();

    halide_buffer_t *raw() { return raw_.get(); }
    halide_dimension_t *dim() { return reinterpret_cast<halide_dimension_t *>(dims_.data()); }

    // Sets the host to fresh memory for the region the descriptor now
    // describes, of elements of at least `element_bytes` (more if its type
    // says so), filled with a pattern.
    void lay_out(int element_bytes, GuardedBlock::Flush flush, int guard_bytes);
    bool has_memory() const { return memory_ != nullptr; }
    // Where the element i columns and j rows from the region's first lies,
    // and (x, y) in the buffer's own coordinates, as laid out.
    uint8_t *nth(int i, int j) const;
    bool inside(int x, int y) const;
    uint8_t *at(int x, int y) const { return nth(x - layout_[0].min, y - layout_[1].min); }

    // Takes the state the call starts from; everything below compares with it.
    void remember();
    const halide_buffer_t &before() const { return before_; }
    const halide_dimension_t &dim_before(int d) const { return dims_before_[d]; }
    bool asked() const { return !before_.host && before_.device == 0; }  // a bounds query of this buffer
    bool memory_unchanged() const;
    bool descriptor_unchanged() const;
    bool outside_unchanged() const;  // guards and row gaps as before
    // Whether the descriptor is now the answer of a query: `region`, dense.
    bool answers(const fmtest::Interval (&region)[2], halide_type_t type) const;

private:
    std::unique_ptr<halide_buffer_t> raw_;
    GuardedBlock dims_;
    std::unique_ptr<GuardedBlock> memory_;
    int element_bytes_ = 1;
    halide_dimension_t layout_[2];  // the region the memory holds
    uint8_t *host_ = nullptr;
    halide_buffer_t before_;
    halide_dimension_t dims_before_[2];
    std::vector<uint8_t> memory_before_;
};

}  // namespace fmfuzz
