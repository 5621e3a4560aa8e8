#pragma once

#include "Vel/base/Types.h"

namespace Vel {

// A 32-bit hash of a sequence of fixed-width numbers. It is the same for every byte order, since it mixes numbers and
// not their bytes.
//
// Each piece passes the block step of MurmurHash64A (k *= m; k ^= k >> 47; k *= m), and pieces are accumulated as
// h = (h + piece) * m. Both are by Austin Appleby (public domain, github.com/aappleby/smhasher), except that
// MurmurHash64A has an exclusive or instead of the sum. The sum makes the hash of a long sequence a polynomial in m,
// which can be evaluated in independent lanes. The result is the upper half of MurmurHash3's fmix64 of h.
// Not for keys that an adversary chooses: collisions can be constructed. Tables in memory use Vel/base/TableHash.h.
class Hash {
public:
    constexpr explicit Hash(U32 seed) : state_((U64(seed) + 1) * golden) {}

    // Mixes in the N low bytes of `value`. Pieces of 1, 2 and 4 bytes never equal one another; a U64 may equal any.
    template <unsigned N>
    requires(N == 1 || N == 2 || N == 4 || N == 8) constexpr Hash& hashMix(U64 value) {
        state_ = (state_ + piece<N>(value)) * multiplier;
        return *this;
    }

    // The parts of hashMix(), for code that evaluates the polynomial of a long sequence in lanes.
    static constexpr U64 multiplier = 0xc6a4a7935bd1e995ul;
    template <unsigned N> static constexpr U64 piece(U64 value) {
        if constexpr (N < 8) value = (value & ((U64(1) << (8 * N % 64)) - 1)) | U64(N) << 56;
        return unscaledPiece(value) * multiplier;
    }
    static constexpr U64 unscaledPiece(U64 value) {  // the piece of a U64 without the last factor
        value *= multiplier;
        return value ^ value >> 47;
    }
    constexpr U64 state() const { return state_; }
    constexpr void stateIs(U64 state) { state_ = state; }

    constexpr U32 result() const {
        U64 h = state_;
        h ^= h >> 33;
        h *= 0xff51afd7ed558ccdul;
        h ^= h >> 33;
        h *= 0xc4ceb9fe1a85ec53ul;
        h ^= h >> 33;
        return static_cast<U32>(h >> 32);
    }

private:
    static constexpr U64 golden = 0x9e3779b97f4a7c15ul;  // 2^64 / golden ratio: spreads neighbouring seeds

    U64 state_;
};

// Returns the hash of a value whose type has one small attribute.
constexpr U32 hashSingleAttr(U32 seed, U8 value) { return Hash(seed).hashMix<1>(value).result(); }
constexpr U32 hashSingleAttr(U32 seed, U16 value) { return Hash(seed).hashMix<2>(value).result(); }

}  // namespace Vel
