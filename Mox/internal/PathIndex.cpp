#include "Mox/internal/PathIndex.h"

#include <cstdlib>
#include <new>

namespace Mox::Detail {

constinit IndexUse PathIndex::use = IndexUse::itself;

PathIndex::~PathIndex() {
    std::free(buckets_);
    std::free(words_);
}

// Drops the removed records, and fills new buckets.
bool PathIndex::reserve(U64 paths, U64 words) noexcept {
    U64 const count = (size_ + paths) * 5 / 16 + 1;  // 3.2 paths a bucket
    words += used_ - dead_ + 1;                      // not 0, for realloc
    if (words > ~U32(0)) return false;
    auto* const made = static_cast<Bucket*>(std::aligned_alloc(alignof(Bucket), count * sizeof(Bucket)));
    if (!made) return false;
    std::memset(made, 0, count * sizeof(Bucket));
    std::free(buckets_);
    buckets_ = made;
    bucketCount_ = count;
    U64 to = 0;
    for (U64 from = 0; from < used_;) {
        U32 const size = sizeOf(words_[from]);
        if (nodeOf(words_[from])) {
            std::memmove(words_ + to, words_ + from, size * sizeof(U64));
            put(static_cast<U32>(to), PathScan::hash(words_ + to + 1, lengthOf(words_[to])));
            to += size;
        }
        from += size;
    }
    used_ = to;
    dead_ = 0;
    void* const memory = std::realloc(words_, words * sizeof(U64));
    if (!memory) return false;
    words_ = static_cast<U64*>(memory);
    capacity_ = words;
    return true;
}

bool PathIndex::add(PathScan const& path, PrefixTrie& node) noexcept {
    U32 const size = 1 + PathScan::wordsOf(path.length());
    if ((size_ >= 4 * bucketCount_ || used_ + size > capacity_) && !reserve(size_ / 4 + 1, (used_ - dead_) / 4 + size))
        return false;
    words_[used_] = reinterpret_cast<U64>(&node) | U64(path.length()) << 48;
    path.copyTo(words_ + used_ + 1);
    put(static_cast<U32>(used_), path.hash(path.length()));
    used_ += size;
    ++size_;
    return true;
}

void PathIndex::put(U32 place, U64 hash) noexcept {
    for (U64 b = homeOf(hash);; b = b + 1 == bucketCount_ ? 0 : b + 1) {
        Bucket& bucket = buckets_[b];
        auto* const free = static_cast<U8*>(std::memchr(bucket.tags, 0, perBucket));
        if (free) {
            *free = tagOf(hash);
            bucket.places[free - bucket.tags] = place;
            return;
        }
        bucket.overflowed = 1;
    }
}

void PathIndex::remove(PathScan const& path) noexcept {
    U64 const hash = path.hash(path.length());
    U32* const place = find(path, path.length(), hash);
    if (!place) return;
    auto* const bucket = reinterpret_cast<Bucket*>(reinterpret_cast<std::uintptr_t>(place) & ~(alignof(Bucket) - 1));
    bucket->tags[place - bucket->places] = 0;
    U64& word = words_[*place];
    dead_ += sizeOf(word);
    word &= ~addressBits;
    --size_;
}

}  // namespace Mox::Detail
