#include "Mox/internal/WordMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <utility>
#include <vector>

// The map in lock step with a standard one, and what it costs at its thresholds.
namespace {

using Mox::Detail::WordMap;
using Vel::U64;
using Model = std::map<unsigned, U64>;

Model contentOf(WordMap const& map) {
    Model content;
    map.forEach([&](unsigned bucket, U64 word) { content[bucket] = word; });
    return content;
}

void expectSame(WordMap const& map, Model const& model) {
    ASSERT_EQ(contentOf(map), model);
    ASSERT_EQ(map.size(), model.size());
    for (unsigned bucket = 0; bucket < WordMap::buckets; ++bucket) {
        auto const at = model.find(bucket);
        ASSERT_EQ(map.contains(bucket), at != model.end()) << bucket;
        ASSERT_EQ(map.get(bucket), at == model.end() ? 0 : at->second) << bucket;
        auto const next = model.lower_bound(bucket);
        ASSERT_EQ(map.next(bucket), next == model.end() ? WordMap::buckets : next->first) << bucket;
    }
}

WordMap mapOf(unsigned count) {
    WordMap map;
    for (unsigned b = 0; b < count; ++b) map.set(255 - b, b + 1);
    return map;
}

TEST(WordMapTest, AgreesWithAStandardMap) {
    std::mt19937_64 random(1);
    WordMap map;
    Model model;
    for (unsigned phase = 0; phase < 12; ++phase) {
        unsigned const range = phase % 3 == 0 ? 6 : phase % 3 == 1 ? 60 : 256;
        bool const grow = phase % 2 == 0;
        for (unsigned i = 0; i < 400; ++i) {
            auto const bucket = static_cast<unsigned>(random() % range);
            if (random() % 8 < (grow ? 6u : 2u)) {
                U64 const word = random() % 8 ? random() : 0;
                map.set(bucket, word);
                model[bucket] = word;
            } else {
                U64 const expected = model.contains(bucket) ? model[bucket] : 0;
                ASSERT_EQ(map.erase(bucket), expected);
                model.erase(bucket);
            }
            if (i % 20 == 0) {
                ASSERT_NO_FATAL_FAILURE(expectSame(map, model)) << phase << " " << i;
            }
        }
        WordMap const copy = map;
        ASSERT_TRUE(copy == map);
        ASSERT_NO_FATAL_FAILURE(expectSame(copy, model));
    }
}

TEST(WordMapTest, FillingIsSettingEachBucket) {
    std::mt19937 engine(4);
    auto const random = [&engine] { return static_cast<unsigned>(engine()); };
    for (unsigned i = 0; i < 4000; ++i) {
        WordMap map;
        for (unsigned k = random() % (i % 3 == 0 ? 200 : 12); k > 0; --k) map.set(random() % 256, random());
        WordMap wanted(map);
        unsigned const from = random() % 256;
        unsigned const to = from + 1 + random() % std::min(256 - from, i % 2 == 0 ? 256u : 10u);
        map.fill(from, to);
        Vel::U32 const changes = wanted.changeCounter();
        unsigned const before = wanted.size();
        for (unsigned bucket = from; bucket < to; ++bucket) wanted.set(bucket, ~U64(0));
        ASSERT_EQ(contentOf(map), contentOf(wanted)) << from << " " << to;
        ASSERT_EQ(map, wanted);
        ASSERT_EQ(map.changeCounter() - changes, map.size() - before);
        for (unsigned bucket = 0; bucket < WordMap::buckets; ++bucket)
            ASSERT_EQ(map.next(bucket), wanted.next(bucket)) << bucket;
    }
}

TEST(WordMapTest, FillingAllocatesAsSettingDoes) {
    for (unsigned count = 1; count <= 256; ++count) {
        WordMap filled;
        filled.fill(0, count);
        WordMap wanted;
        for (unsigned bucket = 0; bucket < count; ++bucket) wanted.set(bucket, ~U64(0));
        EXPECT_EQ(filled.allocatedBytes(), wanted.allocatedBytes()) << count;
    }
}

TEST(WordMapTest, EveryCountOfWordsCanBeReachedAndLeft) {
    WordMap map;
    Model model;
    for (unsigned i = 0; i < 256; ++i) {
        unsigned const bucket = i * 37 % 256;
        map.set(bucket, i);
        model[bucket] = i;
        ASSERT_NO_FATAL_FAILURE(expectSame(map, model)) << i;
    }
    for (unsigned i = 0; i < 256; ++i) {
        unsigned const bucket = i * 91 % 256;
        ASSERT_EQ(map.erase(bucket), model[bucket]);
        model.erase(bucket);
        ASSERT_NO_FATAL_FAILURE(expectSame(map, model)) << i;
    }
    EXPECT_TRUE(map == WordMap());
}

TEST(WordMapTest, AFewWordsAllocateNothing) {
    for (unsigned count = 0; count <= WordMap::inlineWords; ++count) EXPECT_EQ(mapOf(count).allocatedBytes(), 0u);
    EXPECT_GT(mapOf(WordMap::inlineWords + 1).allocatedBytes(), 0u);
}

TEST(WordMapTest, CopiesOfPackedWordsAreExactlySized) {
    for (unsigned count = WordMap::inlineWords + 1; count <= WordMap::maxPacked; ++count) {
        WordMap const map = mapOf(count);
        WordMap const copy = map;
        EXPECT_FALSE(copy.isDirect());
        EXPECT_EQ(copy.allocatedBytes(), count * 8u);
        EXPECT_TRUE(copy == map);
    }
}

TEST(WordMapTest, ManyWordsStandAtTheirBuckets) {
    WordMap const map = mapOf(WordMap::maxPacked + 1);
    EXPECT_TRUE(map.isDirect());
    EXPECT_EQ(map.allocatedBytes(), 2048u);
    WordMap const copy = map;
    EXPECT_TRUE(copy.isDirect());
    EXPECT_TRUE(copy == map);
}

TEST(WordMapTest, MapsAreEqualHoweverTheyAreKept) {
    WordMap wide = mapOf(256);
    for (unsigned bucket = 0; bucket < 250; ++bucket) wide.erase(bucket);
    WordMap const narrow = mapOf(6);
    EXPECT_TRUE(wide == narrow);
    EXPECT_TRUE(narrow == wide);
    wide.set(255, 9);
    EXPECT_FALSE(wide == narrow);
    wide.set(255, 1);
    wide.set(0, 0);
    EXPECT_FALSE(wide == narrow);
    EXPECT_FALSE(narrow == wide);
}

TEST(WordMapTest, EmptyMapsKeepNoMemory) {
    for (unsigned const count : {3u, 48u, 49u, 256u}) {
        WordMap map = mapOf(count);
        map.clear();
        EXPECT_EQ(map.size(), 0u);
        EXPECT_EQ(map.allocatedBytes(), 0u) << count;
        map.set(7, 70);
        EXPECT_EQ(contentOf(map), (Model{{7, 70}}));
    }
}

TEST(WordMapTest, MovedMapsLeaveEmptyOnes) {
    for (unsigned const count : {0u, 1u, 2u, 3u, 48u, 49u, 256u}) {
        WordMap from = mapOf(count);
        WordMap to = std::move(from);
        EXPECT_TRUE(to == mapOf(count));
        EXPECT_TRUE(from == WordMap()) << count;
        from.set(1, 2);
        WordMap assigned = mapOf(100);
        assigned = std::move(to);
        EXPECT_TRUE(assigned == mapOf(count)) << count;
        EXPECT_EQ(contentOf(from), (Model{{1, 2}}));
    }
}

TEST(WordMapTest, AssignmentMayBeToItself) {
    for (unsigned const count : {2u, 30u, 100u}) {
        WordMap map = mapOf(count);
        WordMap& alias = map;
        map = alias;
        EXPECT_TRUE(map == mapOf(count));
        map = std::move(alias);
        EXPECT_TRUE(map == mapOf(count));
    }
}

TEST(WordMapTest, ChangeCounterMovesWithTheBucketsOnly) {
    WordMap map;
    auto counter = map.changeCounter();
    auto const moved = [&] { return std::exchange(counter, map.changeCounter()) != map.changeCounter(); };
    map.set(1, 5);
    EXPECT_TRUE(moved());
    map.set(1, 6);
    EXPECT_FALSE(moved());
    map.erase(2);
    EXPECT_FALSE(moved());
    map.erase(1);
    EXPECT_TRUE(moved());
    map.set(1, 5);
    EXPECT_TRUE(moved());
    map.clear();
    EXPECT_TRUE(moved());
    map = mapOf(3);
    EXPECT_TRUE(moved());
}

}  // namespace
