/* The runtime's malloc and free: the runtime object's calls are renamed to
 * these two when it is built (see pipelines/variants.cmake), so that they are
 * what halide_malloc and halide_free use unless a host sets its own.
 *
 * Small blocks are glibc's. A two-stage filter on a large image asks for a
 * block of the image's size on every call, and a block the kernel maps afresh
 * costs a page fault per 4 KiB and their zeroing: more than both stages
 * together for a 4096 x 4096 float32 image (16 ms of 27). glibc maps every
 * block of 32 MiB and more afresh, and whether a smaller one is served again
 * from its heap depends on what else the process allocates (a 16 MB uint8
 * intermediate ran 5 to 20 % slower in a process that also used OpenCV).
 * So from 4 MiB on, a block is mapped here, with transparent huge pages
 * requested, and the last one released (up to 512 MiB) is kept for the next
 * request it can serve. At most one block is kept; it is unmapped when the
 * library is unloaded. */
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>

void *flatmorph_runtime_malloc(size_t size);
void flatmorph_runtime_free(void *block);

enum {
    large_block = 4u << 20, /* from here on, blocks are mapped here */
    kept_block_limit = 512u << 20,
    huge_page = 2u << 20,
};

/* Precedes every block: the length of its mapping, or 0 for glibc's. Its 16
 * bytes keep glibc's alignment for what follows. */
typedef struct {
    size_t mapped;
    size_t unused;
} Header;

static _Atomic(Header *) kept;

static void unmap(Header *h) {
    if (h) munmap(h, h->mapped);
}

static Header *map_block(size_t length) {
    Header *kept_one = atomic_exchange(&kept, NULL);
    /* Reused only when it wastes less than the request itself. */
    if (kept_one && kept_one->mapped >= length && kept_one->mapped / 2 <= length) return kept_one;
    unmap(kept_one);
    void *p = mmap(NULL, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return NULL;
    madvise(p, length, MADV_HUGEPAGE); /* advice only: without huge pages it still works */
    Header *h = p;
    h->mapped = length;
    return h;
}

void *flatmorph_runtime_malloc(size_t size) {
    if (size > SIZE_MAX - huge_page - sizeof(Header)) return NULL;
    size_t length = size + sizeof(Header);
    Header *h;
    if (length < large_block) {
        h = malloc(length);
        if (h) h->mapped = 0;
    } else {
        h = map_block((length + huge_page - 1) / huge_page * huge_page);
    }
    return h ? h + 1 : NULL;
}

void flatmorph_runtime_free(void *block) {
    if (!block) return;
    Header *h = (Header *)block - 1;
    if (!h->mapped) {
        free(h);
    } else if (h->mapped > kept_block_limit) {
        unmap(h);
    } else {
        unmap(atomic_exchange(&kept, h));
    }
}

__attribute__((destructor)) static void release_kept_block(void) { unmap(atomic_exchange(&kept, NULL)); }
