#include "Mox/ChipSet.h"
#include "Mox/ChipSetIter.h"
#include "Mox/IdSet.h"

#include "Allocations.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

using Mox::ChipId;
using Mox::ChipSet;
using Mox::Id;
using Mox::IdSet;

class SetAllocationTest : public testing::Test {
protected:
    void SetUp() override {
        if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "allocations are not counted in this build";
    }
};

TEST_F(SetAllocationTest, CountingSeesLargeSets) {
    EXPECT_GT(allocationsOf([] { IdSet(1000, {0, 100, 200, 300}); }), 0u);
}

TEST_F(SetAllocationTest, ChipSetsAllocateNothing) {
    unsigned sum = 0;
    EXPECT_EQ(allocationsOf([&] {
        ChipSet set(5, 6);
        set.chipIdIs(100, true);
        sum += set.chipIdDel(100) + set.chipId(3) + set.chipIds() + set.hash(1);
        sum += set.nextChipId(2).value() + set.firstChipId().value();
        set = set.concat(ChipSet::oneChip(9)).concat(ChipSet::noChips());
        set.valueLoXor(1);
        set.valueHiAnd(7);
        sum += set == ChipSet() || set < ChipSet(1, 2);
        for (ChipId const id : set) sum += id.value();
        for (Mox::ChipSetIter iter(set); iter; ++iter) sum += iter.key().value() + *iter;
    }),
        0u);
    EXPECT_GT(sum, 0u);
}

TEST_F(SetAllocationTest, EmptyIdSetsAllocateNothing) {
    unsigned sum = 0;
    EXPECT_EQ(allocationsOf([&] {
        IdSet set(65535);
        IdSet const copy = set;
        IdSet const moved = std::move(set);
        sum += copy.ids() + copy.buckets() + moved.id(77) + moved.nextId(3).value() + copy.hash(0) + (copy == moved);
        IdSet assigned(3);
        assigned = copy;
        assigned.idDel(5);
        assigned.bucketDelAll();
        sum += assigned < copy || bool(assigned.bucketIterator()) || assigned.idIterator();
        for (Id const id : assigned) sum += id.value();
        sum += (copy | moved) == (copy & moved);
    }),
        0u);
    EXPECT_GT(sum, 0u);
}

TEST_F(SetAllocationTest, SetsWithinTwoWordsAllocateNothing) {
    EXPECT_EQ(allocationsOf([&] {
        IdSet set(16320, 5);
        set.idIs(16319, true);
        IdSet copy = set;
        copy -= set;
        copy ^= set;
        copy.idSetRange(7, 60);
    }),
        0u);
}

TEST_F(SetAllocationTest, LargeSetsTakeTheWordsThatEarlierOnesLeft) {
    IdSet const none(16320);
    EXPECT_EQ((~none).ids(), 16320);
    EXPECT_EQ(allocationsOf([&] {
        for (int i = 0; i < 10; ++i) EXPECT_TRUE((~none).id(77));
    }),
        0u);
}

TEST_F(SetAllocationTest, NumbersOfMembersCostNothingWithinWords) {
    IdSet set(16320);
    set.idSetAll();
    EXPECT_EQ(allocationsOf([&] {
        for (unsigned id = 0; id < 16320; id += 3) set.idDel(static_cast<Vel::U16>(id));
        set.idSetRange(0, 16320);
        unsigned sum = 0;
        for (Id const id : set) sum += id.value();
        EXPECT_EQ(sum, 16320u * 16319 / 2);
    }),
        0u);
}

}  // namespace
