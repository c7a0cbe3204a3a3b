#include "targets.h"

#include <stdexcept>

using namespace Halide;

namespace flatmorph {

Target tag_target(const std::string &tag) {
    Target target("x86-64-linux-large_buffers-no_runtime");
    if (tag == "none") return target;
    if (tag == "avx") return target.with_feature(Target::AVX).with_feature(Target::SSE41);
    if (tag == "avx2") return target.with_feature(Target::AVX).with_feature(Target::AVX2).with_feature(Target::SSE41);
    throw std::invalid_argument("unknown instruction-set tag " + tag);
}

}  // namespace flatmorph
