#pragma once

#include "Vel/base/Types.h"

#include <bit>

// Operations on all 256 words of id sets, chosen at run time by the instructions that the processor has.
namespace Mox::Detail {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

// Returns the number of bits set. Without -mpopcnt, std::popcount calls a slow function of the compiler's library.
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

// The set of those of the 256 buckets that are stored.
class Presence {
public:
    static constexpr unsigned buckets = 256;
    static constexpr unsigned groups = 4;

    U64 bits[groups] = {};  // code that writes to it directly must call recount()

    unsigned count() const { return static_cast<unsigned>(ranks_ >> 32); }
    unsigned before(unsigned group) const { return ranks_ >> (group * 8) & 255; }  // stored in the groups before this
    bool contains(unsigned bucket) const { return bits[bucket / 64] >> (bucket % 64) & 1; }
    unsigned rank(unsigned bucket) const {  // number of stored buckets below this one
        return before(bucket / 64) + bitCount(bits[bucket / 64] & ((U64(1) << (bucket % 64)) - 1));
    }
    unsigned next(unsigned from) const {  // the first stored one at or above `from`, or `buckets` if there is none
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
    // Sets the bits of a group. REQUIRES: called for the groups in order, on an empty Presence; `sum` buckets are
    // stored up to the end of this group.
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
    static U64 above(unsigned bucket) {  // a 1 in the byte of each later group, and in the count
        return U64(0x01010101) << (bucket / 64 * 8 + 8) & 0x01FFFFFFFFul;
    }

    // Byte g is the number of buckets stored in the groups before g, so that a rank takes one bit count. From bit 32 on
    // is the number of all stored buckets. It is one word, since a copy made right after five narrower stores would
    // have to wait for all of them.
    U64 ranks_ = 0;
};

enum class SetOp : U8 { unite, intersect, subtract, exclude };

template <SetOp op> constexpr U64 combinedWord(U64 a, U64 b) {
    if constexpr (op == SetOp::unite) return a | b;
    if constexpr (op == SetOp::intersect) return a & b;
    if constexpr (op == SetOp::subtract) return a & ~b;
    if constexpr (op == SetOp::exclude) return a ^ b;
}

// The operations; every implementation gives the same results.
struct WordKernels {
    // Sets to[i] = a[i] op b[i] for 256 words. In `stored`, marks the buckets whose word is not 0. `to` may be a or b.
    using Combine = void(U64 const* a, U64 const* b, U64* to, Presence& stored);

    // Combines two sequences of packed words by union or exclusive or. `to` gets the packed result, whose buckets are
    // in `stored`. Fails with tooMany if the result has more than maxMerged words, and with withZeros if a word of `a`
    // or of the result is 0: then `to` must not be used.
    // REQUIRES: `to` has room for maxMerged words, of which the first min(maxMerged, words of a and b) are 0.
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

// For tests: from now on, all threads use the implementation of that name ("portable", "avx2"), or the best one if
// `name` is null. Returns false and changes nothing if this processor or build does not have it.
VEL_API bool kernelsIs(char const* name);

}  // namespace Mox::Detail
