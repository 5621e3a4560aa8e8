#pragma once

#include "Vel/Types.h"

#include <bit>
#include <cstddef>

// The ordered map from an 8-bit bucket to a 64-bit word in which an id set keeps its members.
namespace Mox::Detail {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

// Invariants:
// 1. Bit b of present_ is set exactly when bucket b is stored; count_ is the number of bits set.
// 2. Packed (capacity_ below 256): the stored words lie in ascending order of their buckets at words()[0, count_).
// 3. Direct (capacity_ 256): bucket b's word is words()[b], 0 when it is not stored.
// 4. capacity_ is inlineWords, and the words are within the object, until more are stored.
// A stored word may be 0. Nothing is allocated before inlineWords + 1 words are stored.
class VEL_API WordMap {
public:
    static constexpr unsigned buckets = 256;
    static constexpr unsigned inlineWords = 2;
    static constexpr unsigned maxPacked = 48;  // more words than this are stored directly: a map of them costs 2 KiB

    WordMap() = default;
    WordMap(WordMap const& other);  // allocates once, exactly sized
    WordMap(WordMap&& other) noexcept { take(other); }
    WordMap& operator=(WordMap const& other);
    WordMap& operator=(WordMap&& other) noexcept;
    ~WordMap() { release(); }

    unsigned size() const { return count_; }              // words stored
    U32 changeCounter() const { return changeCounter_; }  // moves whenever a bucket comes or goes
    std::size_t allocatedBytes() const { return capacity_ > inlineWords ? capacity_ * sizeof(U64) : 0; }
    bool isDirect() const { return capacity_ == buckets; }
    bool contains(unsigned bucket) const { return present_[bucket / 64] >> (bucket % 64) & 1; }

    U64 get(unsigned bucket) const {  // 0 when it is not stored
        if (isDirect()) return heap_[bucket];
        return contains(bucket) ? words()[rank(bucket)] : 0;
    }
    void set(unsigned bucket, U64 word) {  // also 0
        if (contains(bucket)) [[likely]]
            words()[isDirect() ? bucket : rank(bucket)] = word;
        else
            insert(bucket, word);
    }
    U64 erase(unsigned bucket);  // what was stored, or 0
    void clear();

    // The first stored bucket at or above `from`; buckets when there is none.
    unsigned next(unsigned from) const {
        for (unsigned group = from / 64; group < 4; ++group) {
            U64 const rest = group == from / 64 ? present_[group] >> (from % 64) << (from % 64) : present_[group];
            if (rest) return group * 64 + static_cast<unsigned>(std::countr_zero(rest));
        }
        return buckets;
    }
    // f(bucket, word) for every stored word, ascending. REQUIRES: f changes nothing here.
    template <class F> void forEach(F f) const {
        U64 const* packed = words();
        for (unsigned group = 0; group < 4; ++group)
            for (U64 rest = present_[group]; rest; rest &= rest - 1) {
                unsigned const bucket = group * 64 + static_cast<unsigned>(std::countr_zero(rest));
                f(bucket, isDirect() ? heap_[bucket] : *packed++);
            }
    }
    // All words into, or from, an array by bucket. assign() stores the words of [0, limit) that are not 0, drops the
    // others there, and leaves the buckets from `limit` up as they are.
    void copyTo(U64 (&to)[buckets]) const;
    void assign(U64 const (&from)[buckets], unsigned limit);

    friend bool operator==(WordMap const& a, WordMap const& b);

private:
    U64* words() { return capacity_ == inlineWords ? inline_ : heap_; }
    U64 const* words() const { return capacity_ == inlineWords ? inline_ : heap_; }
    unsigned rank(unsigned bucket) const {  // stored buckets below this one
        unsigned const group = bucket / 64;
        unsigned sum = static_cast<unsigned>(std::popcount(present_[group] & ((U64(1) << (bucket % 64)) - 1)));
        for (unsigned i = 0; i < group; ++i) sum += static_cast<unsigned>(std::popcount(present_[i]));
        return sum;
    }
    void insert(unsigned bucket, U64 word);
    void reserve(unsigned capacity);
    void makeDirect();
    void release();
    void take(WordMap& other) noexcept;

    U64 present_[4] = {};
    union {
        U64 inline_[inlineWords] = {};
        U64* heap_;
    };
    U16 count_ = 0;
    U16 capacity_ = inlineWords;
    U32 changeCounter_ = 0;
};

}  // namespace Mox::Detail
