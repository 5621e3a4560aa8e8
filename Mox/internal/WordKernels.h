#pragma once

#include "Vel/base/Types.h"

#include <bit>

// What an id set does with all 256 of its words at a time, in the instructions that the processor has.
namespace Mox::Detail {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

// Number of bits set. Where the build may not assume an instruction for it, std::popcount is a call of a slow function.
inline constexpr unsigned bitCount(U64 word) {
#if defined(__x86_64__) && !defined(__POPCNT__)
    word -= word >> 1 & 0x5555555555555555ul;
    word = (word & 0x3333333333333333ul) + (word >> 2 & 0x3333333333333333ul);
    word = (word + (word >> 4)) & 0x0f0f0f0f0f0f0f0ful;
    return static_cast<unsigned>(word * 0x0101010101010101ul >> 56);
#else
    return static_cast<unsigned>(std::popcount(word));
#endif
}

// Which of the 256 buckets are stored.
class Presence {
public:
    static constexpr unsigned buckets = 256;
    static constexpr unsigned groups = 4;

    U64 bits[groups] = {};  // after a change made here, recount()

    unsigned count() const { return static_cast<unsigned>(ranks_ >> 32); }
    unsigned before(unsigned group) const { return ranks_ >> (group * 8) & 255; }  // stored in the groups before it
    bool contains(unsigned bucket) const { return bits[bucket / 64] >> (bucket % 64) & 1; }
    unsigned rank(unsigned bucket) const {  // stored buckets below this one
        return before(bucket / 64) + bitCount(bits[bucket / 64] & ((U64(1) << (bucket % 64)) - 1));
    }
    unsigned next(unsigned from) const {  // the first stored one at or above `from`; buckets when there is none
        for (unsigned group = from / 64; group < groups; ++group) {
            U64 const rest = group == from / 64 ? bits[group] >> (from % 64) << (from % 64) : bits[group];
            if (rest) return group * 64 + static_cast<unsigned>(std::countr_zero(rest));
        }
        return buckets;
    }
    void insert(unsigned bucket) {  // REQUIRES: not stored
        bits[bucket / 64] |= U64(1) << (bucket % 64);
        ranks_ += above(bucket);
    }
    void erase(unsigned bucket) {  // REQUIRES: stored
        bits[bucket / 64] &= ~(U64(1) << (bucket % 64));
        ranks_ -= above(bucket);
    }
    // The bits of a group, where they are given from the first group on: `sum` are stored up to its end.
    void append(unsigned group, U64 groupBits, unsigned sum) {
        bits[group] = groupBits;
        ranks_ |= U64(sum) << (group * 8 + 8);
    }
    void recount() { recount(bitCount); }
    template <class Count> [[gnu::always_inline]] void recount(Count bitsSet) {
        U64 const first = bitsSet(bits[0]);
        U64 const two = first + bitsSet(bits[1]);
        U64 const three = two + bitsSet(bits[2]);
        ranks_ = first << 8 | two << 16 | three << 24 | (three + bitsSet(bits[3])) << 32;
    }

private:
    static U64 above(unsigned bucket) {  // one in the byte of each later group, and in the count
        return U64(0x01010101) << (bucket / 64 * 8 + 8) & 0x01FFFFFFFFul;
    }

    // Byte g: stored buckets in the groups of 64 before g, so that one bit count yields a rank; from bit 32: in all.
    // One word, so that a copy of what has just been counted need not wait for its parts to be put together.
    U64 ranks_ = 0;
};

enum class SetOp : U8 { unite, intersect, subtract, exclude };

template <SetOp op> constexpr U64 combinedWord(U64 a, U64 b) {
    if constexpr (op == SetOp::unite) return a | b;
    if constexpr (op == SetOp::intersect) return a & b;
    if constexpr (op == SetOp::subtract) return a & ~b;
    if constexpr (op == SetOp::exclude) return a ^ b;
}

// Every implementation gives the same results.
struct WordKernels {
    // to[i] = a[i] op b[i] for 256 words; those that are not 0 become the stored ones. `to` may be a or b.
    using Combine = void(U64 const* a, U64 const* b, U64* to, Presence& stored);

    // The union, or what is in one of them only, of words that lie one after the other: `to` gets them in the same way,
    // as `stored` then says, unless there are too many, or a word is or comes to 0.
    // REQUIRES: `to` has room for maxMerged words; as many as a and b have, if there is room, are 0.
    enum class Merged : U8 { whole, tooMany, withZeros };
    static constexpr unsigned maxMerged = 48;
    using Merge = Merged(
        U64 const* a, Presence const& aStored, U64 const* b, Presence const& bStored, U64* to, Presence& stored);

    char const* name;
    Combine* combine[4];  // by SetOp
    Merge* unite;
    Merge* exclude;
    U32 (*bitsSet)(U64 const* words, unsigned count);
};

VEL_API WordKernels const& wordKernels();

// For tests: from now on, all threads use the implementation of that name ("portable", "avx2"); null for the best one.
// False, and nothing changes, when this processor or build does not have it.
VEL_API bool kernelsIs(char const* name);

}  // namespace Mox::Detail
