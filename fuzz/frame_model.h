// A model of the entry frame that runs on any four descriptors: which check
// refuses a call first, with which runtime error call; whether the call is a
// bounds query; and, for a two-stage call that passes, what it allocates.
// It follows the documented order of checks step by step, with 32-bit
// wrap-around coordinate arithmetic, and takes the required regions and the
// intermediate's size from tests/support/regions.
#pragma once

#include "support/harness.h"
#include "support/regions.h"

#include <HalideRuntime.h>

#include <cstdint>
#include <string>

namespace fmfuzz {

enum class Outcome { Refused, Query, Runs };

struct Prediction {
    Outcome outcome = Outcome::Runs;
    int status = 0;
    std::string error_call;        // as the runtime log records it; set when refused
    fmtest::Required required;     // what a query answers
    bool allocates = false;        // a two-stage call asks halide_malloc for its intermediate
    uint64_t request_bytes = 0;    // the size it asks for
};

// `args` in argument order: keyimForType, minmax, strel, output; any may be
// null. A two-stage intermediate above `allocation_limit` bytes is assumed
// refused by the allocator (the caller's halide_malloc hook).
Prediction predict_call(const fmtest::Variant &v, halide_buffer_t *const args[4], uint64_t allocation_limit);

// The type a variant demands of argument `index`.
halide_type_t wanted_type(const fmtest::Variant &v, int index);

}  // namespace fmfuzz
