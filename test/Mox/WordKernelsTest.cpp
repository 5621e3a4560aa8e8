#include "Mox/internal/WordKernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <numeric>
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
        EXPECT_EQ(stored.count(), count);
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

TEST_P(WordKernelsTest, CountsTheBitsOfWholeSteps) {
    auto a = words(5);
    std::fill(a.begin() + 64, a.begin() + 140, ~U64(0));
    U32 wanted = 0;
    for (unsigned count = 0; count <= 256; ++count) {
        EXPECT_EQ(wordKernels().bitsSet(a.data(), count), wanted) << count;
        if (count < 256) wanted += static_cast<U32>(std::popcount(a[count]));
    }
    std::fill(a.begin(), a.end(), ~U64(0));
    EXPECT_EQ(wordKernels().bitsSet(a.data(), 256), 16384u);
}

class MergeTest : public WordKernelsTest {
protected:
    using Merged = WordKernels::Merged;

    static Presence presence(std::vector<unsigned> const& buckets) {
        Presence stored;
        for (unsigned const bucket : buckets) stored.insert(bucket);
        return stored;
    }
    Merged unite(std::vector<U64> const& a, std::vector<U64> const& b) {
        return wordKernels().unite(a.data(), aStored_, b.data(), bStored_, to_, stored_);
    }
    Merged exclude(std::vector<U64> const& a, std::vector<U64> const& b) {
        return wordKernels().exclude(a.data(), aStored_, b.data(), bStored_, to_, stored_);
    }
    std::vector<U64> merged() const { return std::vector<U64>(to_, to_ + stored_.count()); }

    Presence aStored_ = presence({0, 63, 130, 255});
    Presence bStored_ = presence({63, 64, 255});
    Presence stored_;
    U64 to_[WordKernels::maxMerged] = {};
};

TEST_P(MergeTest, UnitesPackedWordsInTheOrderOfTheirBuckets) {
    ASSERT_EQ(unite({1, 2, 3, 4}, {8, 9, 10}), Merged::whole);
    EXPECT_EQ(merged(), (std::vector<U64>{1, 10, 9, 3, 14}));
    for (unsigned const bucket : {0u, 63u, 64u, 130u, 255u}) EXPECT_TRUE(stored_.contains(bucket)) << bucket;
    EXPECT_EQ(stored_.rank(255), 4u);
}

TEST_P(MergeTest, ExcludesWhatIsInBoth) {
    ASSERT_EQ(exclude({1, 3, 3, 6}, {1, 9, 2}), Merged::whole);
    EXPECT_EQ(merged(), (std::vector<U64>{1, 2, 9, 3, 4}));
}

TEST_P(MergeTest, TellsOfWordsThatAreOrComeTo0) {
    EXPECT_EQ(unite({1, 2, 0, 4}, {8, 9, 10}), Merged::withZeros);
    std::fill(std::begin(to_), std::end(to_), 0);
    EXPECT_EQ(unite({1, 2, 3, 4}, {8, 0, 10}), Merged::withZeros);
    std::fill(std::begin(to_), std::end(to_), 0);
    EXPECT_EQ(exclude({1, 2, 3, 4}, {8, 9, 4}), Merged::withZeros);
}

TEST_P(MergeTest, RefusesMoreWordsThanItHasRoomFor) {
    std::vector<unsigned> half(WordKernels::maxMerged / 2);
    std::iota(half.begin(), half.end(), 10);
    std::vector<U64> const ones(half.size() + 1, 1);
    aStored_ = presence(half);
    for (unsigned& bucket : half) bucket += 100;
    bStored_ = presence(half);
    EXPECT_EQ(unite(ones, ones), Merged::whole);
    EXPECT_EQ(stored_.count(), WordKernels::maxMerged);
    bStored_.insert(255);
    EXPECT_EQ(unite(ones, ones), Merged::tooMany);
}

constexpr auto kernelName = [](testing::TestParamInfo<char const*> const& info) { return std::string(info.param); };
INSTANTIATE_TEST_SUITE_P(Kernels, WordKernelsTest, testing::Values("portable", "avx2"), kernelName);
INSTANTIATE_TEST_SUITE_P(Kernels, MergeTest, testing::Values("portable", "avx2"), kernelName);

TEST(WordKernelsChoiceTest, UnknownKernelsAreRefused) { EXPECT_FALSE(kernelsIs("abacus")); }

}  // namespace
