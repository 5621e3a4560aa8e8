#include "Mox/internal/WordKernels.h"

#include <atomic>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define MOX_AVX2 __attribute__((target("avx2,popcnt")))
#endif

namespace Mox::Detail {

namespace {

// --- portable ---

// Without branches on what is stored where, which is hard to foretell.
template <SetOp op, bool hasPopcnt>
[[gnu::always_inline]] inline void placeAll(U64 const* words, Presence const& of, Presence const& in, U64* into) {
    for (unsigned group = 0; group < Presence::groups; ++group) {
        U64* const to = into + (in.before >> (group * 8) & 255);
        for (U64 rest = of.bits[group]; rest; rest &= rest - 1) {
            U64 const below = in.bits[group] & (rest - 1) & ~rest;
            U64& word = to[hasPopcnt ? static_cast<unsigned>(__builtin_popcountll(below)) : bitCount(below)];
            word = combinedWord<op>(word, *words++);
        }
    }
}

template <SetOp op> void placePortably(U64 const* words, Presence const& of, Presence const& in, U64* into) {
    placeAll<op, false>(words, of, in, into);
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
    placePortably<SetOp::unite>, placePortably<SetOp::exclude>, countPortably};

// --- AVX2 ---

#if defined(__x86_64__)

template <SetOp op> MOX_AVX2 inline __m256i combinedVector(__m256i a, __m256i b) {
    if constexpr (op == SetOp::unite) return _mm256_or_si256(a, b);
    if constexpr (op == SetOp::intersect) return _mm256_and_si256(a, b);
    if constexpr (op == SetOp::subtract) return _mm256_andnot_si256(b, a);
    if constexpr (op == SetOp::exclude) return _mm256_xor_si256(a, b);
}

// Four words; all ones where the result is 0.
template <SetOp op> MOX_AVX2 inline __m256i combineFour(U64 const* a, U64 const* b, U64* to) {
    __m256i const word = combinedVector<op>(_mm256_loadu_si256(reinterpret_cast<__m256i const*>(a)),
        _mm256_loadu_si256(reinterpret_cast<__m256i const*>(b)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), word);
    return _mm256_cmpeq_epi64(word, _mm256_setzero_si256());
}

// Sixteen words; two bytes each, in the order of packing: that of the lower two of each four, then of the upper two.
template <SetOp op> MOX_AVX2 inline __m256i combineSixteen(U64 const* a, U64 const* b, U64* to) {
    __m256i const first = _mm256_packs_epi32(combineFour<op>(a, b, to), combineFour<op>(a + 4, b + 4, to + 4));
    __m256i const second =
        _mm256_packs_epi32(combineFour<op>(a + 8, b + 8, to + 8), combineFour<op>(a + 12, b + 12, to + 12));
    return _mm256_packs_epi16(first, second);
}

// 32 words; one bit each for those that are 0.
template <SetOp op> MOX_AVX2 inline U32 combineThirtyTwo(U64 const* a, U64 const* b, U64* to) {
    __m256i const packed =
        _mm256_packs_epi16(combineSixteen<op>(a, b, to), combineSixteen<op>(a + 16, b + 16, to + 16));
    // Now a byte each: the lower two of every four in the lower half, the upper two in the upper one. Interleave them.
    __m256i const quarters = _mm256_permute4x64_epi64(packed, 0xD8);
    __m256i const order = _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15,  //
        0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
    return static_cast<U32>(_mm256_movemask_epi8(_mm256_shuffle_epi8(quarters, order)));
}

template <SetOp op> MOX_AVX2 void combineByAvx2(U64 const* a, U64 const* b, U64* to, Presence& stored) {
    U32 sum = 0;
    U32 before = 0;
    for (unsigned group = 0; group < Presence::groups; ++group) {
        unsigned const i = group * 64;
        U64 const zeros = combineThirtyTwo<op>(a + i, b + i, to + i) |
                          U64(combineThirtyTwo<op>(a + i + 32, b + i + 32, to + i + 32)) << 32;
        before |= sum << (group * 8);
        sum += static_cast<U32>(_mm_popcnt_u64(~zeros));
        stored.bits[group] = ~zeros;
    }
    stored.before = before;
    stored.count = static_cast<U16>(sum);
}

template <SetOp op> MOX_AVX2 void placeByPopcnt(U64 const* words, Presence const& of, Presence const& in, U64* into) {
    placeAll<op, true>(words, of, in, into);
}

MOX_AVX2 U32 countByPopcnt(U64 const* words, unsigned count) {
    U64 sums[4] = {};
    unsigned i = 0;
    for (; i + 4 <= count; i += 4)
        for (unsigned lane = 0; lane < 4; ++lane) sums[lane] += static_cast<U64>(_mm_popcnt_u64(words[i + lane]));
    for (; i < count; ++i) sums[0] += static_cast<U64>(_mm_popcnt_u64(words[i]));
    return static_cast<U32>(sums[0] + sums[1] + sums[2] + sums[3]);
}

constexpr WordKernels avx2 = {"avx2",
    {combineByAvx2<SetOp::unite>, combineByAvx2<SetOp::intersect>, combineByAvx2<SetOp::subtract>,
        combineByAvx2<SetOp::exclude>},
    placeByPopcnt<SetOp::unite>, placeByPopcnt<SetOp::exclude>, countByPopcnt};

bool hasAvx2() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt"); }

#endif

// --- the choice ---

std::atomic<WordKernels const*> chosen = nullptr;  // null: not chosen yet

WordKernels const& best() {
#if defined(__x86_64__)
    __builtin_cpu_init();  // a set may be made before the constructor runs that does this
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
