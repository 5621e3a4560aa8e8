#include "Mox/internal/WordMap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace Mox::Detail {

namespace {

U64* allocateWords(unsigned count) {
    auto* const words = static_cast<U64*>(std::malloc(count * sizeof(U64)));
    if (!words) throw std::bad_alloc();
    return words;
}

}  // namespace

WordMap::WordMap(WordMap const& other) : count_(other.count_), changeCounter_(other.changeCounter_) {
    if (count_ > maxPacked) {
        heap_ = allocateWords(buckets);
        capacity_ = buckets;
        std::memcpy(heap_, other.heap_, buckets * sizeof(U64));  // with so many words, the other is direct as well
    } else {
        if (count_ > inlineWords) {
            heap_ = allocateWords(count_);
            capacity_ = count_;
        }
        U64* to = words();
        other.forEach([&](unsigned, U64 word) { *to++ = word; });
    }
    std::copy(std::begin(other.present_), std::end(other.present_), present_);
}

WordMap& WordMap::operator=(WordMap const& other) {
    if (this == &other) return *this;
    U32 const changes = changeCounter_;
    *this = WordMap(other);
    changeCounter_ = changes + 1;
    return *this;
}

WordMap& WordMap::operator=(WordMap&& other) noexcept {
    if (this == &other) return *this;
    U32 const changes = changeCounter_;
    release();
    take(other);
    changeCounter_ = changes + 1;
    return *this;
}

void WordMap::release() {
    if (capacity_ > inlineWords) std::free(heap_);
}

// Leaves the other one empty.
void WordMap::take(WordMap& other) noexcept {
    std::copy(std::begin(other.present_), std::end(other.present_), present_);
    std::copy(std::begin(other.inline_), std::end(other.inline_), inline_);  // or the pointer that stands there
    count_ = other.count_;
    capacity_ = other.capacity_;
    changeCounter_ = other.changeCounter_;
    other.capacity_ = inlineWords;
    other.clear();
}

void WordMap::clear() {
    release();
    std::fill(std::begin(present_), std::end(present_), 0);
    count_ = 0;
    capacity_ = inlineWords;
    ++changeCounter_;
}

void WordMap::reserve(unsigned capacity) {
    U64* const words = allocateWords(capacity);
    std::copy_n(this->words(), count_, words);
    release();
    heap_ = words;
    capacity_ = static_cast<U16>(capacity);
}

void WordMap::makeDirect() {
    U64* const words = allocateWords(buckets);
    std::memset(words, 0, buckets * sizeof(U64));
    forEach([&](unsigned bucket, U64 word) { words[bucket] = word; });
    release();
    heap_ = words;
    capacity_ = buckets;
}

void WordMap::insert(unsigned bucket, U64 word) {
    if (count_ == maxPacked && !isDirect()) makeDirect();
    if (isDirect()) {
        heap_[bucket] = word;
    } else {
        if (count_ == capacity_) reserve(std::min(maxPacked, count_ + std::max(2u, unsigned(count_) / 4)));
        unsigned const place = rank(bucket);
        U64* const words = this->words();
        std::copy_backward(words + place, words + count_, words + count_ + 1);
        words[place] = word;
    }
    present_[bucket / 64] |= U64(1) << (bucket % 64);
    ++count_;
    ++changeCounter_;
}

U64 WordMap::erase(unsigned bucket) {
    if (!contains(bucket)) return 0;
    U64 word = 0;
    if (isDirect()) {
        word = std::exchange(heap_[bucket], 0);
    } else {
        unsigned const place = rank(bucket);
        U64* const words = this->words();
        word = words[place];
        std::copy(words + place + 1, words + count_, words + place);
    }
    present_[bucket / 64] &= ~(U64(1) << (bucket % 64));
    --count_;
    ++changeCounter_;
    return word;
}

void WordMap::copyTo(U64 (&to)[buckets]) const {
    if (isDirect()) {
        std::memcpy(to, heap_, sizeof to);
        return;
    }
    std::memset(to, 0, sizeof to);
    forEach([&](unsigned bucket, U64 word) { to[bucket] = word; });
}

void WordMap::assign(U64 const (&from)[buckets], unsigned limit) {
    WordMap result;
    unsigned count = 0;
    for (unsigned bucket = 0; bucket < buckets; ++bucket) {
        bool const stored = bucket < limit ? from[bucket] != 0 : contains(bucket);
        result.present_[bucket / 64] |= U64(stored) << (bucket % 64);
        count += stored;
    }
    if (count > maxPacked) {
        result.heap_ = allocateWords(buckets);
        result.capacity_ = buckets;
        std::memcpy(result.heap_, from, sizeof from);
    } else {
        if (count > inlineWords) {
            result.heap_ = allocateWords(count);
            result.capacity_ = static_cast<U16>(count);
        }
        U64* to = result.words();
        for (unsigned bucket = result.next(0); bucket < buckets; bucket = result.next(bucket + 1)) *to++ = from[bucket];
    }
    for (unsigned bucket = limit; bucket < buckets; ++bucket)
        if (contains(bucket))
            result.words()[result.isDirect() ? bucket : result.rank(bucket)] = get(bucket);
        else if (result.isDirect())
            result.heap_[bucket] = 0;
    result.count_ = static_cast<U16>(count);
    *this = std::move(result);
}

bool operator==(WordMap const& a, WordMap const& b) {
    if (a.count_ != b.count_ || !std::equal(std::begin(a.present_), std::end(a.present_), b.present_)) return false;
    if (a.isDirect() == b.isDirect()) {
        std::size_t const size = (a.isDirect() ? WordMap::buckets : a.count_) * sizeof(U64);
        return std::memcmp(a.words(), b.words(), size) == 0;
    }
    for (unsigned bucket = a.next(0); bucket < WordMap::buckets; bucket = a.next(bucket + 1))
        if (a.get(bucket) != b.get(bucket)) return false;
    return true;
}

}  // namespace Mox::Detail
