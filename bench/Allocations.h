#pragma once

#include <cerrno>
#include <cstddef>

// Counts what the program allocates. A program includes this in one source file, since it defines what allocates in the
// C library. Operator new calls malloc, and for more than ordinary alignment aligned_alloc.

namespace Bench {

inline std::size_t allocationCount = 0;
inline std::size_t allocatedBytes = 0;  // as asked for

inline void countAllocation(std::size_t size) {
    ++allocationCount;
    allocatedBytes += size;
}

}

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);

extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) noexcept {
    Bench::countAllocation(size);
    return __libc_malloc(size);
}
extern "C" __attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) noexcept {
    Bench::countAllocation(size);
    return __libc_realloc(memory, size);
}
extern "C" __attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) noexcept {
    Bench::countAllocation(count * size);
    return __libc_calloc(count, size);
}
extern "C" __attribute__((visibility("default"))) void* aligned_alloc(
    std::size_t alignment, std::size_t size) noexcept {
    Bench::countAllocation(size);
    return __libc_memalign(alignment, size);
}
extern "C" __attribute__((visibility("default"))) int posix_memalign(
    void** to, std::size_t alignment, std::size_t size) noexcept {
    Bench::countAllocation(size);
    void* const memory = __libc_memalign(alignment, size);
    if (memory) *to = memory;
    return memory ? 0 : ENOMEM;
}
