// What a fuzzed call must keep, judged after it returned (see frame_case.h).
#pragma once

#include "call_buffer.h"
#include "guarded_allocator.h"
#include "frame_model.h"

#include <string>

namespace fmfuzz {

enum Argument { Image = 0, Minmax = 1, Strel = 2, Output = 3 };

// One call: the variant and its four arguments; `args` holds null where the
// call passed a null descriptor.
struct FuzzedCall {
    fmtest::Variant v;
    CallBuffer buffers[4];
    halide_buffer_t *args[4] = {};
};

// The first promise the call broke, or "".
std::string broken_promise(const FuzzedCall &c, const Prediction &want, int status, const Allocations &alloc);

// The variant and the four descriptors as the call received them.
std::string describe(const FuzzedCall &c);

}  // namespace fmfuzz
