#include "HeapCounter.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

// glibc's own entry points, which the definitions below forward to.
extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* block);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<bool> gCounting{false};
std::atomic<int64_t> gLiveBytes{0};
std::atomic<int64_t> gAllocations{0};

void* counted(void* block) {
    if (block != nullptr && gCounting.load(std::memory_order_relaxed)) {
        gLiveBytes.fetch_add(static_cast<int64_t>(malloc_usable_size(block)),
                             std::memory_order_relaxed);
        gAllocations.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

void uncount(void* block) {
    if (block != nullptr && gCounting.load(std::memory_order_relaxed)) {
        gLiveBytes.fetch_sub(static_cast<int64_t>(malloc_usable_size(block)),
                             std::memory_order_relaxed);
    }
}

}  // namespace

namespace e2e {
namespace heap {

void setCounting(bool on) {
    gCounting.store(on);
}

int64_t liveBytes() {
    return gLiveBytes.load();
}

int64_t allocations() {
    return gAllocations.load();
}

}  // namespace heap
}  // namespace e2e

// Exported (the build hides symbols by default), so that the library's calls bind to them.
#define E2E_EXPORT __attribute__((visibility("default")))

extern "C" {

E2E_EXPORT void* malloc(size_t size) {
    return counted(__libc_malloc(size));
}

E2E_EXPORT void free(void* block) {
    uncount(block);
    __libc_free(block);
}

E2E_EXPORT void* calloc(size_t count, size_t size) {
    return counted(__libc_calloc(count, size));
}

E2E_EXPORT void* realloc(void* block, size_t size) {
    size_t before = block != nullptr ? malloc_usable_size(block) : 0;
    void* moved = __libc_realloc(block, size);
    if (moved == nullptr && size != 0) return nullptr;  // the old block stays, still counted
    if (gCounting.load(std::memory_order_relaxed)) {
        gLiveBytes.fetch_add(
            static_cast<int64_t>(malloc_usable_size(moved)) - static_cast<int64_t>(before),
            std::memory_order_relaxed);
        gAllocations.fetch_add(1, std::memory_order_relaxed);
    }
    return moved;
}

E2E_EXPORT void* memalign(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}

E2E_EXPORT void* aligned_alloc(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}

E2E_EXPORT int posix_memalign(void** out, size_t alignment, size_t size) {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
    void* block = counted(__libc_memalign(alignment, size));
    if (block == nullptr && size != 0) return ENOMEM;
    *out = block;
    return 0;
}

E2E_EXPORT void* valloc(size_t size) {
    return counted(__libc_memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size));
}
}
