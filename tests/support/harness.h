// Resolving variants by name and running a reference Problem through one.
#pragma once

#include "buffers.h"
#include "reference.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace fmtest {

using Entry = int (*)(halide_buffer_t *, halide_buffer_t *, halide_buffer_t *, halide_buffer_t *);

struct Variant {
    const FilterInfo *filter;
    const ElemInfo *elem;
    std::string tag;
    std::string name() const { return std::string(filter->name) + "_" + elem->name + "_" + tag; }
    int vw() const { return vector_width(*elem, tag); }
};

// Test output names a variant by its exported name.
inline void PrintTo(const Variant &v, std::ostream *os) { *os << v.name(); }

std::vector<Variant> all_variants();

// The exported function of that name, or null.
void *exported(const std::string &name);
Entry entry(const Variant &v);

// The four buffers of a call built from a problem: the image filled with its
// samples (half of a bool image's bytes with bits besides bit 0), minmax
// holding the two pads, the mask, and an output with a row gap.
struct Call {
    std::unique_ptr<TestBuffer> image, minmax, strel, output;
    explicit Call(const Problem &p);
    int run(Entry e) { return e(image->raw(), minmax->raw(), strel->raw(), output->raw()); }
};

// Runs `p` through `v`; on a mismatch returns a description of the first
// differing samples, else an empty string. `status` receives the call's status.
std::string check_against_reference(const Variant &v, const Problem &p, int *status = nullptr);

}  // namespace fmtest
