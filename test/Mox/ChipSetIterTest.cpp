#include "Mox/ChipSetIter.h"

#include "SetTest.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Mox::ChipId;
using Mox::ChipSet;
using Mox::ChipSetIter;

ChipSet setOf(std::initializer_list<Vel::U8> chips) {
    ChipSet set;
    for (Vel::U8 const chip : chips) set.chipIdIs(chip, true);
    return set;
}

TEST(ChipSetIterTest, EmptySetIsAtTheEndAtOnce) {
    ChipSetIter iter{ChipSet()};
    EXPECT_FALSE(iter.inRange());
    EXPECT_FALSE(iter);
    ++iter;
    EXPECT_FALSE(iter.inRange());
}

TEST(ChipSetIterTest, WalksInAscendingOrder) {
    std::vector<unsigned> chips;
    for (ChipSetIter iter(setOf({127, 64, 63, 0})); iter; ++iter) {
        EXPECT_TRUE(iter.inRange());
        EXPECT_TRUE(*iter);
        chips.push_back(iter.key().value());
    }
    EXPECT_EQ(chips, (std::vector<unsigned>{0, 63, 64, 127}));
}

TEST(ChipSetIterTest, IncrementYieldsTheIteratorItself) {
    ChipSetIter iter(setOf({1, 2, 3}));
    EXPECT_EQ(&++iter, &iter);
    EXPECT_EQ((++iter).key(), ChipId(3));
}

TEST(ChipSetIterTest, IncrementAtTheEndStaysThere) {
    ChipSetIter iter(setOf({5}));
    ++iter;
    EXPECT_FALSE(iter);
    ++iter;
    ++iter;
    EXPECT_FALSE(iter);
}

TEST(ChipSetIterTest, WalksACopyOfTheSet) {
    ChipSet set = setOf({1, 2});
    ChipSetIter iter(set);
    set = setOf({9});
    EXPECT_EQ(iter.key(), ChipId(1));
    EXPECT_EQ((++iter).key(), ChipId(2));
    EXPECT_FALSE(++iter);
}

TEST(ChipSetIterTest, AgreesWithTheRange) {
    std::mt19937_64 random(7);
    for (int i = 0; i < 200; ++i) {
        ChipSet const set(random() & random(), random() & random());
        ChipSetIter iter(set);
        for (ChipId const id : set) {
            ASSERT_TRUE(iter);
            ASSERT_EQ(iter.key(), id);
            ++iter;
        }
        ASSERT_FALSE(iter);
    }
}

static_assert([] {
    ChipSetIter iter(ChipSet(2, 2));
    bool const one = iter.key() == ChipId(1) && *iter;
    ++iter;
    bool const other = iter.key() == ChipId(65);
    ++iter;
    return one && other && !iter;
}());

TEST(ChipSetIterDeathTest, NothingStandsAtTheEnd) {
    ChipSetIter iter(setOf({5}));
    ++iter;
    EXPECT_ABORT(
        iter.key(), failure("", "inRange()", "/src/Mox/ChipSetIter", 18, "Mox::ChipId Mox::ChipSetIter::key() const"));
    EXPECT_ABORT(
        *iter, failure("", "inRange()", "/src/Mox/ChipSetIter", 24, "bool Mox::ChipSetIter::operator*() const"));
}

}  // namespace
