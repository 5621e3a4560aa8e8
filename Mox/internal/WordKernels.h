#pragma once

#include "Vel/Types.h"

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

// Which of the 256 buckets are stored. Byte g of `before` is the number of those in the groups of 64 before g, so that
// one bit count yields a rank.
struct Presence {
    static constexpr unsigned buckets = 256;
    static constexpr unsigned groups = 4;

    U64 bits[groups] = {};
    U32 before = 0;
    U16 count = 0;

    bool contains(unsigned bucket) const { return bits[bucket / 64] >> (bucket % 64) & 1; }
    unsigned rank(unsigned bucket) const {  // stored buckets below this one
        U64 const below = bits[bucket / 64] & ((U64(1) << (bucket % 64)) - 1);
        return (before >> (bucket / 64 * 8) & 255) + bitCount(below);
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
        before += above(bucket);
        ++count;
    }
    void erase(unsigned bucket) {  // REQUIRES: stored
        bits[bucket / 64] &= ~(U64(1) << (bucket % 64));
        before -= above(bucket);
        --count;
    }
    // Makes before and count anew from the bits.
    inline constexpr void recount() {
        U32 sum = 0;
        before = 0;
        for (unsigned group = 0; group < groups; ++group) {
            before |= sum << (group * 8);
            sum += bitCount(bits[group]);
        }
        count = static_cast<U16>(sum);
    }

private:
    static U32 above(unsigned bucket) {  // one in each byte of a later group
        return static_cast<U32>(U64(0x01010101) << (bucket / 64 * 8 + 8));
    }
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

    // Of words that lie one after the other, as `of` says: into[i] |= word, or ^= word, where i is their rank in `in`.
    using Place = void(U64 const* words, Presence const& of, Presence const& in, U64* into);

    char const* name;
    Combine* combine[4];  // by SetOp
    Place* unite;
    Place* exclude;
    U32 (*bitsSet)(U64 const* words, unsigned count);
};

VEL_API WordKernels const& wordKernels();

// For tests: from now on, all threads use the implementation of that name ("portable", "avx2"); null for the best one.
// False, and nothing changes, when this processor or build does not have it.
VEL_API bool kernelsIs(char const* name);

}  // namespace Mox::Detail
