#include "Mox/internal/WordKernels.h"

#include <atomic>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define MOX_AVX2 __attribute__((target("avx2,bmi,popcnt")))
#endif

namespace Mox::Detail {

namespace {

// --- portable ---

using Merged = WordKernels::Merged;

struct CountSlowly {
    [[gnu::always_inline]] unsigned operator()(U64 word) const { return bitCount(word); }
};
struct CountByPopcnt {  // for functions that may use the instruction, which are marked MOX_AVX2
    [[gnu::always_inline]] unsigned operator()(U64 word) const {
        return static_cast<unsigned>(__builtin_popcountll(word));
    }
};

// Calls f(word, the bucket's rank in `all`) for each of the packed words. It does not branch on which buckets are
// stored, since the processor could not predict that.
template <class Count, class F>
[[gnu::always_inline]] inline void eachRanked(U64 const* words, Presence const& of, Presence const& all, F f) {
    for (unsigned group = 0; group < Presence::groups; ++group) {
        U64 const bits = all.bits[group];  // a copy, or it would be read again after each store of f
        unsigned const before = all.before(group);
        for (U64 rest = of.bits[group]; rest; rest &= rest - 1)
            f(*words++, before + Count()(bits & (rest - 1) & ~rest));
    }
}

template <SetOp op, class Count>
[[gnu::always_inline]] inline Merged merge(
    U64 const* a, Presence const& aStored, U64 const* b, Presence const& bStored, U64* to, Presence& stored) {
    for (unsigned group = 0; group < Presence::groups; ++group)
        stored.bits[group] = aStored.bits[group] | bStored.bits[group];
    stored.recount(Count());
    if (stored.count() > WordKernels::maxMerged) return Merged::tooMany;
    unsigned zeros = 0;  // words that are 0, in `a` or in the result
    eachRanked<Count>(a, aStored, stored, [&zeros, to](U64 word, unsigned rank) {
        to[rank] = word;
        zeros += word == 0;
    });
    eachRanked<Count>(b, bStored, stored, [&zeros, to](U64 word, unsigned rank) {
        to[rank] = word = combinedWord<op>(to[rank], word);
        zeros += word == 0;
    });
    return zeros ? Merged::withZeros : Merged::whole;
}

template <SetOp op>
Merged mergePortably(
    U64 const* a, Presence const& aStored, U64 const* b, Presence const& bStored, U64* to, Presence& stored) {
    return merge<op, CountSlowly>(a, aStored, b, bStored, to, stored);
}

template <SetOp op> void combinePortably(U64 const* a, U64 const* b, U64* to, Presence& stored) {
    for (unsigned group = 0; group < Presence::groups; ++group) {
        U64 bits = 0;
        for (unsigned i = 0; i < 64; ++i) {
            U64 const word = combinedWord<op>(*a++, *b++);
            *to++ = word;
            bits |= U64(word != 0) << i;
        }
        stored.bits[group] = bits;
    }
    stored.recount();
}

U32 countPortably(U64 const* words, unsigned count) {
    U32 sum = 0;
    for (unsigned i = 0; i < count; ++i) sum += bitCount(words[i]);
    return sum;
}

constexpr WordKernels portable = {"portable",
    {combinePortably<SetOp::unite>, combinePortably<SetOp::intersect>, combinePortably<SetOp::subtract>,
        combinePortably<SetOp::exclude>},
    mergePortably<SetOp::unite>, mergePortably<SetOp::exclude>, countPortably};

// --- AVX2 ---

#if defined(__x86_64__)

template <SetOp op> MOX_AVX2 inline __m256i combinedVector(__m256i a, __m256i b) {
    if constexpr (op == SetOp::unite) return _mm256_or_si256(a, b);
    if constexpr (op == SetOp::intersect) return _mm256_and_si256(a, b);
    if constexpr (op == SetOp::subtract) return _mm256_andnot_si256(b, a);
    if constexpr (op == SetOp::exclude) return _mm256_xor_si256(a, b);
}

// Combines four words. Returns all ones in each lane whose result is 0.
template <SetOp op> MOX_AVX2 inline __m256i combineFour(U64 const* a, U64 const* b, U64* to) {
    __m256i const word = combinedVector<op>(_mm256_loadu_si256(reinterpret_cast<__m256i const*>(a)),
        _mm256_loadu_si256(reinterpret_cast<__m256i const*>(b)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), word);
    return _mm256_cmpeq_epi64(word, _mm256_setzero_si256());
}

// Combines sixteen words. Returns two bytes for each, in the order of _mm256_packs: the lower half holds those of the
// lower two of each four words, the upper half those of the upper two.
template <SetOp op> MOX_AVX2 inline __m256i combineSixteen(U64 const* a, U64 const* b, U64* to) {
    __m256i const first = _mm256_packs_epi32(combineFour<op>(a, b, to), combineFour<op>(a + 4, b + 4, to + 4));
    __m256i const second =
        _mm256_packs_epi32(combineFour<op>(a + 8, b + 8, to + 8), combineFour<op>(a + 12, b + 12, to + 12));
    return _mm256_packs_epi16(first, second);
}

// Combines 32 words. Returns one bit for each, which is set if the result is 0.
template <SetOp op> MOX_AVX2 inline U32 combineThirtyTwo(U64 const* a, U64 const* b, U64* to) {
    __m256i const packed =
        _mm256_packs_epi16(combineSixteen<op>(a, b, to), combineSixteen<op>(a + 16, b + 16, to + 16));
    // Each word now has one byte: the lower half holds those of the lower two of every four words, the upper half those
    // of the upper two. Interleave them.
    __m256i const quarters = _mm256_permute4x64_epi64(packed, 0xD8);
    __m256i const order = _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15,  //
        0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
    return static_cast<U32>(_mm256_movemask_epi8(_mm256_shuffle_epi8(quarters, order)));
}

template <SetOp op> MOX_AVX2 void combineByAvx2(U64 const* a, U64 const* b, U64* to, Presence& stored) {
    for (unsigned group = 0; group < Presence::groups; ++group) {
        unsigned const i = group * 64;
        U64 const zeros = combineThirtyTwo<op>(a + i, b + i, to + i) |
                          U64(combineThirtyTwo<op>(a + i + 32, b + i + 32, to + i + 32)) << 32;
        stored.bits[group] = ~zeros;
    }
    stored.recount(CountByPopcnt());
}

template <SetOp op>
MOX_AVX2 Merged mergeByPopcnt(
    U64 const* a, Presence const& aStored, U64 const* b, Presence const& bStored, U64* to, Presence& stored) {
    return merge<op, CountByPopcnt>(a, aStored, b, bStored, to, stored);
}

// --- counting ---

// Sums of four variables: with one, each step would wait for the one before.
MOX_AVX2 inline U64 countByPopcnt(U64 const* words, unsigned count) {
    U64 a = 0;
    U64 b = 0;
    U64 c = 0;
    U64 d = 0;
    unsigned i = 0;
    for (; i + 4 <= count; i += 4) {
        a += CountByPopcnt()(words[i]);
        b += CountByPopcnt()(words[i + 1]);
        c += CountByPopcnt()(words[i + 2]);
        d += CountByPopcnt()(words[i + 3]);
    }
    for (; i < count; ++i) a += CountByPopcnt()(words[i]);
    return a + b + c + d;
}

// Adds three vectors bit by bit: `sum` gets the lower bits of the sums, the result has the upper ones.
MOX_AVX2 inline __m256i addBits(__m256i& sum, __m256i a, __m256i b) {
    __m256i const either = _mm256_xor_si256(sum, a);
    __m256i const carry = _mm256_or_si256(_mm256_and_si256(sum, a), _mm256_and_si256(either, b));
    sum = _mm256_xor_si256(either, b);
    return carry;
}

// The number of bits in each byte, by a table of the numbers of half bytes.
MOX_AVX2 inline __m256i bitsOfBytes(__m256i v) {
    __m256i const table = _mm256_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4,  //
        0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4);
    __m256i const half = _mm256_set1_epi8(15);
    return _mm256_add_epi8(_mm256_shuffle_epi8(table, _mm256_and_si256(v, half)),
        _mm256_shuffle_epi8(table, _mm256_and_si256(_mm256_srli_epi16(v, 4), half)));
}

// Counts by adders of bits, 64 words at a time (Harley and Seal; Mula, Kurz and Lemire, Faster Population Counts Using
// AVX2 Instructions, 2018). Only one vector in sixteen is counted by the table. The rest goes by popcnt.
MOX_AVX2 U32 countByAvx2(U64 const* words, unsigned count) {
    constexpr unsigned step = 64;
    __m256i const zero = _mm256_setzero_si256();
    __m256i ones = zero;
    __m256i twos = zero;
    __m256i fours = zero;
    __m256i eights = zero;
    __m256i sixteens = zero;  // numbers by byte, for up to 31 steps
    unsigned i = 0;
    for (; i + step <= count; i += step) {
        __m256i const* const at = reinterpret_cast<__m256i const*>(words + i);
        __m256i carry[8];
#pragma GCC unroll 8
        for (unsigned k = 0; k < 8; ++k)
            carry[k] = addBits(ones, _mm256_loadu_si256(at + 2 * k), _mm256_loadu_si256(at + 2 * k + 1));
#pragma GCC unroll 8
        for (unsigned k = 0; k < 4; ++k) carry[k] = addBits(twos, carry[2 * k], carry[2 * k + 1]);
#pragma GCC unroll 8
        for (unsigned k = 0; k < 2; ++k) carry[k] = addBits(fours, carry[2 * k], carry[2 * k + 1]);
        sixteens = _mm256_add_epi8(sixteens, bitsOfBytes(addBits(eights, carry[0], carry[1])));
    }
    U64 const rest = countByPopcnt(words + i, count - i);
    if (i == 0) return static_cast<U32>(rest);
    __m256i bytes = bitsOfBytes(eights);  // a sum by byte, at most 8 * 15
    bytes = _mm256_add_epi8(_mm256_add_epi8(bytes, bytes), bitsOfBytes(fours));
    bytes = _mm256_add_epi8(_mm256_add_epi8(bytes, bytes), bitsOfBytes(twos));
    bytes = _mm256_add_epi8(_mm256_add_epi8(bytes, bytes), bitsOfBytes(ones));
    __m256i const sums =
        _mm256_add_epi64(_mm256_slli_epi64(_mm256_sad_epu8(sixteens, zero), 4), _mm256_sad_epu8(bytes, zero));
    __m128i const two = _mm_add_epi64(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
    return static_cast<U32>(
        rest + static_cast<U64>(_mm_cvtsi128_si64(two)) + static_cast<U64>(_mm_extract_epi64(two, 1)));
}

constexpr WordKernels avx2 = {"avx2",
    {combineByAvx2<SetOp::unite>, combineByAvx2<SetOp::intersect>, combineByAvx2<SetOp::subtract>,
        combineByAvx2<SetOp::exclude>},
    mergeByPopcnt<SetOp::unite>, mergeByPopcnt<SetOp::exclude>, countByAvx2};

bool hasAvx2() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") && __builtin_cpu_supports("popcnt");
}

#endif

// --- the choice ---

std::atomic<WordKernels const*> chosen = nullptr;  // null: not chosen yet

WordKernels const& best() {
#if defined(__x86_64__)
    __builtin_cpu_init();  // a static set may be made before libgcc's own constructor has called this
    if (hasAvx2()) return avx2;
#endif
    return portable;
}

}  // namespace

WordKernels const& wordKernels() {
    WordKernels const* kernels = chosen.load(std::memory_order_relaxed);
    if (!kernels) [[unlikely]] {
        kernels = &best();
        chosen.store(kernels, std::memory_order_relaxed);
    }
    return *kernels;
}

bool kernelsIs(char const* name) {
    WordKernels const* kernels = nullptr;
    if (!name || std::strcmp(name, best().name) == 0)
        kernels = &best();
    else if (std::strcmp(name, portable.name) == 0)
        kernels = &portable;
    if (!kernels) return false;
    chosen.store(kernels, std::memory_order_relaxed);
    return true;
}

}  // namespace Mox::Detail
