// Memory placed flush against an inaccessible page. The pipelines are not
// instrumented, so the sanitizers cannot see their accesses; a read or write
// by them just past such a block faults at once instead.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fmfuzz {

class GuardedBlock {
public:
    enum class Flush { End, Start };  // which edge of the block touches its guard page

    // `bytes` may be 0: the block is then an address right at a guard page.
    // At the end the block starts on a multiple of `alignment` (a power of
    // two), which may leave up to alignment - 1 accessible bytes behind it.
    explicit GuardedBlock(size_t bytes, Flush flush = Flush::End, size_t alignment = 1);
    ~GuardedBlock();
    GuardedBlock(const GuardedBlock &) = delete;
    GuardedBlock &operator=(const GuardedBlock &) = delete;

    uint8_t *data() const { return data_; }
    size_t size() const { return bytes_; }

private:
    uint8_t *mapping_ = nullptr;
    size_t mapping_bytes_ = 0, bytes_ = 0;
    uint8_t *data_ = nullptr;
};

}  // namespace fmfuzz
