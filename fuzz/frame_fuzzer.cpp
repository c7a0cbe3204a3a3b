// libFuzzer entry: every input is one call of a variant (see frame_case.h).
#include "frame_case.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string broken = fmfuzz::run_frame_case(data, size);
    if (!broken.empty()) {
        std::fprintf(stderr, "broken promise: %s\n", broken.c_str());
        std::abort();
    }
    return 0;
}
