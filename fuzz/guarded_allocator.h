// halide_malloc and halide_free for the length of one fuzzed call: each
// intermediate in its own guarded block (a pipeline reading or writing past
// it faults), anything above a limit refused, every call counted.
#pragma once

#include "guarded_memory.h"

#include <HalideRuntime.h>

#include <cstdint>
#include <map>
#include <memory>

namespace fmfuzz {

struct Allocations {
    int mallocs = 0, frees = 0;
    uint64_t requested = 0;     // the size of the last request
    bool foreign_free = false;  // a free of a block not allocated here, or freed twice
    std::map<void *, std::unique_ptr<GuardedBlock>> live;
};

class GuardedAllocator {
public:
    GuardedAllocator(Allocations &record, uint64_t limit);
    ~GuardedAllocator();
    GuardedAllocator(const GuardedAllocator &) = delete;
    GuardedAllocator &operator=(const GuardedAllocator &) = delete;

private:
    halide_malloc_t previous_malloc_;
    halide_free_t previous_free_;
};

}  // namespace fmfuzz
