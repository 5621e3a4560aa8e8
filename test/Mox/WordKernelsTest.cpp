#include "Mox/internal/WordKernels.h"

#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <vector>

// Whatever instructions the processor has, the results are the same.
namespace {

using namespace Mox::Detail;

class WordKernelsTest : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        if (!kernelsIs(GetParam())) GTEST_SKIP() << "not on this processor";
    }
    void TearDown() override { kernelsIs(nullptr); }

    // Every third word is 0, so that there are zeros in all places of a vector.
    static std::vector<U64> words(unsigned seed) {
        std::mt19937_64 random(seed);
        std::vector<U64> result(Presence::buckets);
        for (U64& word : result) word = random() % 3 ? U64(1) << (random() % 4) : 0;
        return result;
    }
};

TEST_P(WordKernelsTest, CombinesWordByWordAndTellsWhichRemain) {
    auto const a = words(1);
    auto const b = words(2);
    for (SetOp const op : {SetOp::unite, SetOp::intersect, SetOp::subtract, SetOp::exclude}) {
        std::vector<U64> to(Presence::buckets);
        Presence stored;
        wordKernels().combine[static_cast<unsigned>(op)](a.data(), b.data(), to.data(), stored);
        unsigned count = 0;
        for (unsigned i = 0; i < Presence::buckets; ++i) {
            U64 const wanted[] = {a[i] | b[i], a[i] & b[i], a[i] & ~b[i], a[i] ^ b[i]};
            ASSERT_EQ(to[i], wanted[static_cast<unsigned>(op)]) << i;
            ASSERT_EQ(stored.contains(i), to[i] != 0) << i;
            ASSERT_EQ(stored.rank(i), count) << i;
            count += to[i] != 0;
        }
        EXPECT_EQ(stored.count, count);
    }
}

TEST_P(WordKernelsTest, CountsTheBitsOfAnyNumberOfWords) {
    auto const a = words(3);
    U32 wanted = 0;
    for (unsigned count = 0; count <= 9; ++count) {
        EXPECT_EQ(wordKernels().bitsSet(a.data(), count), wanted) << count;
        wanted += static_cast<U32>(std::popcount(a[count]));
    }
}

TEST_P(WordKernelsTest, PlacesPackedWordsAtTheirRanks) {
    Presence of;
    Presence in;
    for (unsigned const bucket : {0u, 63u, 64u, 130u, 255u}) in.insert(bucket);
    for (unsigned const bucket : {63u, 130u, 255u}) of.insert(bucket);
    U64 const packed[] = {1, 2, 3};
    U64 united[] = {8, 8, 8, 8, 8};
    wordKernels().unite(packed, of, in, united);
    EXPECT_EQ(std::vector<U64>(united, united + 5), (std::vector<U64>{8, 9, 8, 10, 11}));
    U64 excluded[] = {1, 1, 1, 1, 1};
    wordKernels().exclude(packed, of, in, excluded);
    EXPECT_EQ(std::vector<U64>(excluded, excluded + 5), (std::vector<U64>{1, 0, 1, 3, 2}));
}

INSTANTIATE_TEST_SUITE_P(Kernels, WordKernelsTest, testing::Values("portable", "avx2"),
    [](testing::TestParamInfo<char const*> const& info) { return std::string(info.param); });

TEST(WordKernelsChoiceTest, UnknownKernelsAreRefused) { EXPECT_FALSE(kernelsIs("abacus")); }

}  // namespace
