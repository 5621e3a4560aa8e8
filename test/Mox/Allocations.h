#pragma once

#include <atomic>

// Counts what this process allocates. Under a sanitizer the allocator is the sanitizer's, and nothing is counted.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ALLOCATIONS_ARE_COUNTED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ALLOCATIONS_ARE_COUNTED 0
#endif
#endif
#ifndef ALLOCATIONS_ARE_COUNTED
#ifdef __GLIBC__
#define ALLOCATIONS_ARE_COUNTED 1
#else
#define ALLOCATIONS_ARE_COUNTED 0
#endif
#endif

extern std::atomic<unsigned long> allocations;  // so far

template <class F> unsigned long allocationsOf(F f) {
    auto const before = allocations.load();
    f();
    return allocations.load() - before;
}
