#include "Vel/base/Hash.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

using Vel::Hash;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

U32 hash1(U32 seed, U64 a) { return Hash(seed).hashMix<1>(a).result(); }
U32 hash2(U32 seed, U64 a) { return Hash(seed).hashMix<2>(a).result(); }
U32 hash4(U32 seed, U64 a) { return Hash(seed).hashMix<4>(a).result(); }
U32 hash8(U32 seed, U64 a) { return Hash(seed).hashMix<8>(a).result(); }
U32 hash88(U32 seed, U64 a, U64 b) { return Hash(seed).hashMix<8>(a).hashMix<8>(b).result(); }

// These numbers are promised for ever: hashes may be stored, and compared between machines of either byte order.
TEST(HashTest, NeverChanges) {
    EXPECT_EQ(Hash(0).result(), 0x9ca066f1u);
    EXPECT_EQ(Hash(1).result(), 0xd30b0542u);
    EXPECT_EQ(Hash(0xffffffff).result(), 0x5b87c94au);
    EXPECT_EQ(Hash(0).hashMix<1>(0).result(), 0x005af7c2u);
    EXPECT_EQ(Hash(0).hashMix<1>(1).result(), 0x6d9a9b66u);
    EXPECT_EQ(Hash(1).hashMix<1>(255).result(), 0xc7b60c3du);
    EXPECT_EQ(Hash(0).hashMix<2>(0).result(), 0x84bab269u);
    EXPECT_EQ(Hash(0).hashMix<2>(1).result(), 0xa6548d7bu);
    EXPECT_EQ(Hash(1).hashMix<2>(0xffff).result(), 0xd2a36536u);
    EXPECT_EQ(Hash(0).hashMix<4>(0).result(), 0x8e0705b3u);
    EXPECT_EQ(Hash(0).hashMix<4>(1).result(), 0x45732182u);
    EXPECT_EQ(Hash(1).hashMix<4>(0xffffffff).result(), 0x6db515c1u);
    EXPECT_EQ(Hash(0).hashMix<8>(0).result(), 0xc14b5b94u);
    EXPECT_EQ(Hash(0).hashMix<8>(1).result(), 0x524f1b16u);
    EXPECT_EQ(Hash(1).hashMix<8>(0xffffffffffffffff).result(), 0x50e1f188u);
    EXPECT_EQ(Hash(0).hashMix<8>(0x123456789abcdef).result(), 0xb1470d38u);
    EXPECT_EQ(Hash(0).hashMix<8>(1).hashMix<8>(2).result(), 0x994e4558u);
    EXPECT_EQ(Hash(0).hashMix<4>(0xdeadbeef).hashMix<2>(0x1234).hashMix<2>(0x5678).result(), 0x6a6431eeu);
    EXPECT_EQ(Hash(0xffffffff).hashMix<1>(7).hashMix<2>(7).hashMix<4>(7).hashMix<8>(7).result(), 0x8ef3a138u);
}

static_assert(Hash(0).hashMix<4>(1).result() == 0x45732182u, "is a constant expression");

TEST(HashTest, ASmallAttributeHashesAsItsOnePiece) {
    EXPECT_EQ(Vel::hashSingleAttr(0, U8(0)), hash1(0, 0));
    EXPECT_EQ(Vel::hashSingleAttr(7, U8(255)), hash1(7, 255));
    EXPECT_EQ(Vel::hashSingleAttr(0, U16(255)), hash2(0, 255));
    EXPECT_EQ(Vel::hashSingleAttr(7, U16(65535)), hash2(7, 65535));
}

TEST(HashTest, WidthsDiffer) {
    for (U64 const value : {0ul, 1ul, 255ul}) {
        std::unordered_set<U32> const results{hash1(0, value), hash2(0, value), hash4(0, value), hash8(0, value)};
        EXPECT_EQ(results.size(), 4u) << value;
    }
}

TEST(HashTest, OnlyTheLowBytesCount) {
    EXPECT_EQ(hash1(0, 0xFFFFFFFFFFFFFF12), hash1(0, 0x12));
    EXPECT_EQ(hash2(0, 0xFFFFFFFFFFFF1234), hash2(0, 0x1234));
    EXPECT_EQ(hash4(0, 0xFFFFFFFF12345678), hash4(0, 0x12345678));
    EXPECT_NE(hash8(0, 0xFFFFFFFF12345678), hash8(0, 0x12345678));
}

TEST(HashTest, OrderMatters) {
    EXPECT_NE(hash88(0, 1, 2), hash88(0, 2, 1));
    EXPECT_NE(Hash(0).hashMix<4>(1).hashMix<8>(2).result(), Hash(0).hashMix<8>(2).hashMix<4>(1).result());
}

TEST(HashTest, EveryPieceCounts) {
    std::unordered_set<U32> results;
    Hash hash(0);
    results.insert(hash.result());
    for (int i = 0; i < 100; ++i) results.insert(hash.hashMix<8>(0).result());
    EXPECT_EQ(results.size(), 101u);
}

TEST(HashTest, ReadingTheResultChangesNothing) {
    Hash hash(1);
    hash.hashMix<4>(2);
    EXPECT_EQ(hash.result(), hash.result());
    EXPECT_EQ(hash.hashMix<4>(3).result(), Hash(1).hashMix<4>(2).hashMix<4>(3).result());
}

TEST(HashTest, SeedsMatterUpToTheLargest) {
    std::unordered_set<U32> results;
    for (U32 const seed : {0u, 1u, 2u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu})
        results.insert(hash8(seed, 0));
    EXPECT_EQ(results.size(), 7u);
}

// How often each output bit flips when one input bit does, over random inputs. In 4096 trials the share of a good
// mixer has a standard deviation of 1/128; six of them are hardly ever exceeded by chance, let alone with a fixed seed.
void expectAvalanche(char const* what, unsigned bits, std::function<U32(U32 seed, U64 value, U64 flip)> const& hash) {
    constexpr int trials = 4096;
    std::mt19937_64 random(20261121);
    for (unsigned bit = 0; bit < bits; ++bit) {
        std::array<int, 32> flips{};
        for (int trial = 0; trial < trials; ++trial) {
            auto const seed = static_cast<U32>(random());
            U64 const value = random();
            U32 const difference = hash(seed, value, 0) ^ hash(seed, value, U64(1) << bit);
            for (unsigned out = 0; out < 32; ++out) flips[out] += difference >> out & 1;
        }
        for (unsigned out = 0; out < 32; ++out)
            EXPECT_NEAR(flips[out] / double(trials), 0.5, 6 / 128.0) << what << " bit " << bit << " to " << out;
    }
}

TEST(HashAvalancheTest, EveryBitOfAPieceFlipsHalfOfTheResult) {
    expectAvalanche("U8", 8, [](U32 seed, U64 v, U64 flip) { return hash1(seed, v ^ flip); });
    expectAvalanche("U16", 16, [](U32 seed, U64 v, U64 flip) { return hash2(seed, v ^ flip); });
    expectAvalanche("U32", 32, [](U32 seed, U64 v, U64 flip) { return hash4(seed, v ^ flip); });
    expectAvalanche("U64", 64, [](U32 seed, U64 v, U64 flip) { return hash8(seed, v ^ flip); });
}

TEST(HashAvalancheTest, EveryBitOfAnEarlierPieceFlipsHalfOfTheResult) {
    expectAvalanche("first", 64, [](U32 seed, U64 v, U64 flip) { return hash88(seed, v ^ flip, ~v); });
    expectAvalanche("first of five", 64, [](U32 seed, U64 v, U64 flip) {
        return Hash(seed).hashMix<8>(v ^ flip).hashMix<4>(v).hashMix<2>(v).hashMix<1>(v).hashMix<8>(v).result();
    });
}

TEST(HashAvalancheTest, EveryBitOfTheSeedFlipsHalfOfTheResult) {
    expectAvalanche("seed", 32, [](U32 seed, U64 v, U64 flip) { return hash8(seed ^ static_cast<U32>(flip), v); });
}

// Pearson's statistic of `keys` hashes in 256 buckets: 255 on average, with a standard deviation of 22.6 when they
// are spread as by chance. Both bounds matter: a hash that is too even is not mixing either.
double chiSquare(std::vector<U32> const& hashes, unsigned shift) {
    std::array<int, 256> buckets{};
    for (U32 const h : hashes) ++buckets[h >> shift & 255];
    double const expected = static_cast<double>(hashes.size()) / 256;
    double sum = 0;
    for (int const n : buckets) sum += (n - expected) * (n - expected) / expected;
    return sum;
}

TEST(HashTest, SequentialKeysSpreadOverBuckets) {
    for (U64 const step : {1ul, 2ul, 64ul, 1024ul, 1ul << 16, 1ul << 32, 1ul << 48}) {
        std::vector<U32> narrow;
        std::vector<U32> wide;
        for (U64 i = 0; i < 65536; ++i) {
            wide.push_back(hash8(0, i * step));
            if (step <= 1024) narrow.push_back(hash4(0, i * step));
        }
        for (unsigned const shift : {0u, 8u, 16u, 24u}) {
            EXPECT_NEAR(chiSquare(wide, shift), 255, 6 * 22.6) << "U64 step " << step << " shift " << shift;
            if (!narrow.empty()) {
                EXPECT_NEAR(chiSquare(narrow, shift), 255, 6 * 22.6) << "U32 step " << step << " shift " << shift;
            }
        }
    }
}

TEST(HashTest, SequentialSeedsSpreadOverBuckets) {
    std::vector<U32> hashes;
    for (U32 seed = 0; seed < 65536; ++seed) hashes.push_back(hash2(seed, 0));
    for (unsigned const shift : {0u, 8u, 16u, 24u}) EXPECT_NEAR(chiSquare(hashes, shift), 255, 6 * 22.6) << shift;
}

TEST(HashTest, SmallPairsCollideNoMoreThanByChance) {
    std::unordered_set<U32> results;
    for (U64 a = 0; a < 256; ++a)
        for (U64 b = 0; b < 256; ++b) results.insert(Hash(0).hashMix<4>(a).hashMix<4>(b).result());
    EXPECT_GE(results.size(), 65536u - 6);  // 2^31 pairs of 2^32 results: half a collision is expected
}

// A multiplication leaves a flipped top bit where it is, so without the mixing of each piece those of two neighbours
// would cancel, whatever the values.
TEST(HashTest, FlippedTopBitsOfNeighboursDoNotCancel) {
    std::mt19937_64 random(20261121);
    int collisions = 0;
    for (int trial = 0; trial < 10000; ++trial) {
        U64 const a = random();
        U64 const b = random();
        U64 const flip = U64(trial % 15 + 1) << 60;  // every pattern of the top four bits
        if (hash88(0, a, b) == hash88(0, a ^ flip, b ^ flip)) ++collisions;
    }
    EXPECT_EQ(collisions, 0);
}

TEST(HashTest, LongSequencesOfOneBitPiecesAllDiffer) {
    std::unordered_set<U32> results;
    for (unsigned position = 0; position < 100; ++position)
        for (unsigned bit = 0; bit < 64; ++bit) {
            Hash hash(0);
            for (unsigned i = 0; i < 100; ++i) hash.hashMix<8>(i == position ? U64(1) << bit : 0);
            results.insert(hash.result());
        }
    EXPECT_GE(results.size(), 6400u - 1);
}

}  // namespace
