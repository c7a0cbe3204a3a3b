#include "guarded_allocator.h"

namespace fmfuzz {

namespace {

Allocations *record = nullptr;
uint64_t limit = 0;

void *guarded_malloc(void *, size_t size) {
    record->mallocs++;
    record->requested = size;
    if (size > limit) return nullptr;
    // Aligned as the runtime's own allocator aligns.
    auto block = std::make_unique<GuardedBlock>(size, GuardedBlock::Flush::End, 128);
    void *p = block->data();
    record->live[p] = std::move(block);
    return p;
}

void guarded_free(void *, void *p) {
    record->frees++;
    if (!record->live.erase(p)) record->foreign_free = true;
}

}  // namespace

GuardedAllocator::GuardedAllocator(Allocations &r, uint64_t l)
    : previous_malloc_(halide_set_custom_malloc(guarded_malloc)), previous_free_(halide_set_custom_free(guarded_free)) {
    record = &r;
    limit = l;
}

GuardedAllocator::~GuardedAllocator() {
    halide_set_custom_malloc(previous_malloc_);
    halide_set_custom_free(previous_free_);
    record = nullptr;
}

}  // namespace fmfuzz
