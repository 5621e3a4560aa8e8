#include "Mox/internal/WordBlock.h"

#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define MOX_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MOX_ADDRESS_SANITIZER
#endif
#endif
#if defined(MOX_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(at, size) ((void)(at))
#define ASAN_UNPOISON_MEMORY_REGION(at, size) ((void)(at))
#endif

namespace Mox::Detail {

using Vel::U64;

namespace {

constexpr std::size_t blockSize = 256 * sizeof(U64);
constexpr std::size_t alignment = 64;
constexpr unsigned maxKept = 8;

// The freed blocks that this thread keeps. Not a part of Cleaner: it needs no constructor, so an access needs no check
// whether it is initialised.
struct Kept {
    U64* blocks[maxKept];
    unsigned count;
    bool cleaned;  // the Cleaner has run, since the thread ends: keep no more blocks
    bool watched;  // the Cleaner is constructed
};
constinit thread_local Kept kept = {};

// Frees the kept blocks at the thread's end. The blocks of sets that are destroyed later, such as static ones, are
// freed at once.
struct Cleaner {
    Cleaner() { kept.watched = true; }
    Cleaner(Cleaner const&) = delete;
    Cleaner& operator=(Cleaner const&) = delete;
    ~Cleaner() {
        kept.cleaned = true;
        while (kept.count) {
            U64* const block = kept.blocks[--kept.count];
            ASAN_UNPOISON_MEMORY_REGION(block, blockSize);
            std::free(block);
        }
    }
};

void watch() { thread_local Cleaner const cleaner; }

}  // namespace

U64* takeBlock() {
    Kept& mine = kept;
    if (mine.count) {
        U64* const block = mine.blocks[--mine.count];
        ASAN_UNPOISON_MEMORY_REGION(block, blockSize);
        return block;
    }
    auto* const block = static_cast<U64*>(std::aligned_alloc(alignment, blockSize));
    if (!block) throw std::bad_alloc();
    return block;
}

void giveBlock(U64* block) noexcept {
    Kept& mine = kept;
    if (mine.count == maxKept || mine.cleaned) return std::free(block);
    if (!mine.watched) watch();
    ASAN_POISON_MEMORY_REGION(block, blockSize);
    mine.blocks[mine.count++] = block;
}

void clearWords(U64* words, std::size_t count) noexcept { std::memset(words, 0, count * sizeof *words); }

}  // namespace Mox::Detail
