// Every test program's global operator new and delete, so that any test can inject an
// allocation failure (zeltest::FailNthAllocation); linked before the C++ runtime's.
#include "FailingAllocator.h"

#include <cstdlib>
#include <new>

namespace {
void* allocateOrNull(std::size_t size) {
    if (zeltest::detail::allocationShouldFail()) return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}
void* allocateOrThrow(std::size_t size) {
    void* p = allocateOrNull(size);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
