#include "guarded_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace fmfuzz {

GuardedBlock::GuardedBlock(size_t bytes, Flush flush, size_t alignment) : bytes_(bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t usable = (bytes + alignment - 1 + page - 1) / page * page;
    mapping_bytes_ = usable + 2 * page;
    void *m = mmap(nullptr, mapping_bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    mapping_ = static_cast<uint8_t *>(m);
    mprotect(mapping_, page, PROT_NONE);
    mprotect(mapping_ + page + usable, page, PROT_NONE);
    const uintptr_t end = reinterpret_cast<uintptr_t>(mapping_ + page + usable);
    data_ = flush == Flush::Start ? mapping_ + page
                                  : reinterpret_cast<uint8_t *>((end - bytes) & ~(uintptr_t{alignment} - 1));
}

GuardedBlock::~GuardedBlock() { munmap(mapping_, mapping_bytes_); }

}  // namespace fmfuzz
