// The instruction-set tags: the Halide target each tag compiles for.
#pragma once

#include <Halide.h>

#include <string>

namespace flatmorph {

// Pipelines hold their own code only and reach the library's one runtime by
// name; buffers may hold up to 2^63 - 1 bytes.
Halide::Target tag_target(const std::string &tag);

}  // namespace flatmorph
