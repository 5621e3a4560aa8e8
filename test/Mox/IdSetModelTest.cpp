#include "IdSetModel.h"

#include "SetTest.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

// Id sets in lock step with a plain model, at the sizes where something changes.
namespace {

using Mox::BucketId;
using Mox::Id;
using Mox::IdSet;
using Vel::U16;
using Vel::U64;
using Vel::U8;

class IdSetModelTest : public testing::TestWithParam<U16> {
protected:
    U16 size() const { return GetParam(); }
    std::mt19937_64 random{size() + 1u};

    // Mostly of ids and buckets that are near one another, with a few words only, or all over the size.
    IdSetStep step(unsigned spread) {
        IdSetStep step;
        step.operation = static_cast<unsigned>(random());
        unsigned const range = spread == 0 ? 300 : spread == 1 ? 5000 : 65536;
        step.a = static_cast<unsigned>(random() % range);
        step.b = static_cast<unsigned>(random() % range);
        if (random() % 4) step.b = step.a + static_cast<unsigned>(random() % 200);
        if (random() % 8 == 0) step.b = step.a + 16384 - static_cast<unsigned>(random() % 64);  // shares a's bucket
        bool const aboutTheLastBucket = random() % 8 == 0;
        if (aboutTheLastBucket) {
            step.a = 16256 + static_cast<unsigned>(random() % 192);
            step.b = step.a + static_cast<unsigned>(random() % 600);
        }
        step.word = random() % 4 == 0 ? allOnes : random() & random() & random();
        return step;
    }
};

INSTANTIATE_TEST_SUITE_P(
    Sizes, IdSetModelTest, testing::Values(0, 1, 63, 64, 65, 200, 16320, 16321, 16384, 20000, 65535));

TEST_P(IdSetModelTest, EveryOperationDoesWhatTheModelDoes) {
    for (unsigned spread = 0; spread < 3; ++spread) {
        std::array<IdSetPair, 3> pairs{idSetPair(size()), idSetPair(size()), idSetPair(size())};
        for (unsigned i = 0; i < 3000; ++i) {
            IdSetPair& pair = pairs[random() % pairs.size()];
            IdSetPair const& other = pairs[random() % pairs.size()];
            ASSERT_EQ(take(step(spread), pair, other), "") << "step " << i << ", spread " << spread;
            if (i % 16 == 0) {
                ASSERT_EQ(difference(pair.set, pair.model), "") << "step " << i << ", spread " << spread;
            }
        }
        for (IdSetPair const& pair : pairs) ASSERT_EQ(difference(pair.set, pair.model), "");
    }
}

TEST_P(IdSetModelTest, GrowthAndShrinkingBucketByBucketKeepEveryWord) {
    IdSetPair pair = idSetPair(size());
    std::vector<unsigned> keys;
    for (unsigned b = 0; b < 256; ++b) keys.push_back(b);
    std::shuffle(keys.begin(), keys.end(), random);
    for (unsigned const b : keys) {
        U64 const word = random();
        pair.set.bucketIs(static_cast<U8>(b), word);
        pair.model.buckets[static_cast<U8>(b)] = word;
        ASSERT_EQ(difference(pair.set, pair.model), "") << b;
    }
    std::shuffle(keys.begin(), keys.end(), random);
    for (unsigned const b : keys) {
        ASSERT_EQ(pair.set.bucketDel(BucketId(static_cast<U8>(b))), pair.model.word(static_cast<U8>(b)));
        pair.model.buckets.erase(static_cast<U8>(b));
        ASSERT_EQ(difference(pair.set, pair.model), "") << b;
    }
    EXPECT_EQ(pair.set, IdSet(size()));
}

TEST_P(IdSetModelTest, EqualSetsAreEqualHoweverTheyCameAbout) {
    IdSetPair grown = idSetPair(size());
    for (unsigned b = 0; b < 256; ++b) grown.set.bucketIs(static_cast<U8>(b), 1);
    for (unsigned b = 3; b < 256; ++b) grown.set.bucketDel(BucketId(static_cast<U8>(b)));
    IdSet small(size());
    for (unsigned b = 0; b < 3; ++b) small.bucketIs(static_cast<U8>(b), 1);
    EXPECT_EQ(grown.set, small);
    EXPECT_EQ(grown.set <=> small, std::strong_ordering::equal);
    EXPECT_EQ(grown.set.hash(5), small.hash(5));
    IdSet const copy = grown.set;
    EXPECT_EQ(copy, small);
    small.bucketIs(2, 3);
    EXPECT_NE(grown.set, small);
    EXPECT_LT(grown.set, small);
}

TEST_P(IdSetModelTest, MemberIteratorsLookFromWhereTheyStand) {
    if (size() == 0) return;
    IdSetPair pair = idSetPair(size());
    for (int i = 0; i < 40; ++i) take({0, unsigned(random()), 0, 0}, pair, pair);
    auto iterator = pair.set.idIterator();
    auto iteratorConst = pair.set.idIteratorConst();
    unsigned expected = pair.model.nextId(IdSetModel::null);
    for (int i = 0; i < 500 && expected != IdSetModel::null; ++i) {
        ASSERT_TRUE(iterator);
        ASSERT_EQ(iterator.key().value(), expected);
        ASSERT_EQ(iteratorConst.key().value(), expected);
        IdSetStep const change = step(1);
        if (change.operation % IdSetStep::operations != 10) take(change, pair, pair);
        expected = pair.model.nextId(expected);
        ASSERT_EQ(iterator.next().value(), expected);
        ASSERT_EQ(iteratorConst.next().value(), expected);
    }
    if (expected == IdSetModel::null) {
        EXPECT_FALSE(iterator);
        EXPECT_FALSE(iteratorConst);
    }
}

TEST_P(IdSetModelTest, BucketIteratorsGoToTheNextBucketStoredThen) {
    IdSetPair pair = idSetPair(size());
    for (int i = 0; i < 100; ++i) take({5, unsigned(random()), 0, random()}, pair, pair);
    for (auto iterator = pair.set.bucketIterator(); iterator;) {
        U8 const key = iterator.key().value();
        U64 const word = iterator.word();
        for (unsigned i = 0; i < 3; ++i) take({5 + i, unsigned(random()), 0, random()}, pair, pair);
        ASSERT_EQ(iterator.key().value(), key);  // the element is held, whatever becomes of the set
        ASSERT_EQ(iterator.word(), word);
        ++iterator;
        auto const next = pair.model.buckets.upper_bound(key);
        ASSERT_EQ(bool(iterator), next != pair.model.buckets.end());
        if (!iterator) break;
        ASSERT_EQ(iterator.key().value(), next->first);
        ASSERT_EQ(iterator.word(), next->second);
    }
}

TEST_P(IdSetModelTest, WhatIsWrittenIsReadBack) {
    IdSetPair pair = idSetPair(size());
    for (int i = 0; i < 200; ++i) {
        take({5u + unsigned(i % 4), unsigned(random() % 255), 0, random()}, pair, pair);
        Vel::NboAttrLog::Out out;
        out << pair.set;
        auto const read = Vel::checkedRead<IdSet>(out.bytes());
        ASSERT_TRUE(read) << read.error().text.stdString();
        ASSERT_EQ(*read, pair.set);
        ASSERT_EQ(difference(*read, pair.model), "");
    }
}

TEST_P(IdSetModelTest, WhatIsPrintedIsParsedBack) {
    IdSetPair pair = idSetPair(size());
    for (int i = 0; i < 300; ++i) {
        take(step(unsigned(i % 3)), pair, pair);
        Vel::String const text = pair.set.stringValue();
        auto const checked = IdSet::checked(size(), text);
        ASSERT_TRUE(checked) << checked.error().text.stdString();
        IdSetModel members{size()};
        for (unsigned const id : pair.model.members()) members.updateId(id, true);
        ASSERT_EQ(difference(*checked, members), "");
        IdSet const prototype(size());
        auto it = text.begin();
        ASSERT_EQ(Mox::sequenceToValue(it, text.end(), &prototype), *checked);
        ASSERT_TRUE(it == text.end());
    }
}

// Texts of few letters: many of them are range lists, most of the others nearly.
TEST_P(IdSetModelTest, NoTextMakesTheCheckedParserAbort) {
    unsigned accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text = random() % 8 ? "(" : "";
        for (auto n = random() % 9; n > 0; --n) text += "0123456789,,,--)( x+"[random() % (random() % 4 ? 14 : 20)];
        if (random() % 8) text += ")";
        auto const checked = IdSet::checked(size(), text);
        if (checked) {
            ++accepted;
            ASSERT_EQ(difference(*checked, IdSetModel::named(size(), text)), "") << text;
            IdSet const prototype(size());
            Vel::String const string = text;
            auto it = string.begin();
            ASSERT_EQ(Mox::sequenceToValue(it, string.end(), &prototype), *checked) << text;
            ASSERT_TRUE(it == string.end()) << text;
        } else {
            ASSERT_FALSE(checked.error().text.empty()) << text;
            ASSERT_LE(checked.error().offset, text.size()) << text;
        }
    }
    EXPECT_GT(accepted, 100u);
}

}  // namespace
