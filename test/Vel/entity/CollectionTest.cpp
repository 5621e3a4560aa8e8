#include "CollectionTest.h"

#include <atomic>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ALLOCATIONS_ARE_COUNTED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ALLOCATIONS_ARE_COUNTED 0
#endif
#endif
#if !defined(ALLOCATIONS_ARE_COUNTED)
#if defined(__GLIBC__)
#define ALLOCATIONS_ARE_COUNTED 1
#else
#define ALLOCATIONS_ARE_COUNTED 0
#endif
#endif

namespace {

std::atomic<unsigned long> count;
constexpr int enough = -1;
thread_local int left = enough;  // allocations until memory runs out

}

#if ALLOCATIONS_ARE_COUNTED
extern "C" {
void* __libc_malloc(std::size_t size);
__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    count.fetch_add(1, std::memory_order_relaxed);
    if (left == 0) return nullptr;
    if (left != enough) --left;
    return __libc_malloc(size);
}
}
#endif

namespace CollectionTest {

unsigned long allocations() { return count.load(); }
NoMemory::NoMemory(int allocationsBefore) { left = allocationsBefore; }
NoMemory::~NoMemory() { left = enough; }
bool allocationsAreCounted() { return ALLOCATIONS_ARE_COUNTED; }

}  // namespace CollectionTest
