#include "Vel/stream/internal/ReplicaEntities.h"

#include "StreamTools.h"
#include "ValueTable.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using Fixture::Leaf;
using StreamTest::ValueTable;
using Vel::Ptr;
using Vel::StreamException;

class ReplicaEntitiesTest : public testing::Test {
protected:
    ReplicaEntitiesTest() {
        limits.copySize = 10'000;
        limits.keys = 2;
    }

    Vel::StreamLimits limits;
    Ptr<Leaf> leaf = Leaf::newEntity("leaf");
    Vel::ReplicaEntities entities{limits};
};

TEST_F(ReplicaEntitiesTest, EntityIsFoundByItsIdAndTheOtherWayRound) {
    StreamTest::addTo(entities, 7, leaf);
    EXPECT_EQ(entities.known(7).entity, leaf);
    EXPECT_EQ(entities.entity(7), leaf.get());
    EXPECT_EQ(entities.idOf(leaf.get()), 7u);
    EXPECT_EQ(entities.count(), 1u);
    EXPECT_EQ(entities.find(8), nullptr);
    EXPECT_EQ(entities.entity(8), nullptr);
    EXPECT_EQ(entities.idOf(nullptr), 0u);
    try {
        entities.known(8);
        FAIL();
    } catch (StreamException const& error) {
        EXPECT_EQ(error.text(), "entity 8 was not announced");
    }
}

TEST_F(ReplicaEntitiesTest, WhatIsThereCountsWithItsKeys) {
    auto const table = ValueTable::newEntity("t");
    table->markIs(1, 5);
    table->entryIs("key", StreamTest::Entry(3));
    int keys = 0;
    entities.add(
        1, table, StreamTest::tableOf(*table), [&](Vel::StreamAttribute const&, std::span<Vel::U8 const>) { ++keys; });
    EXPECT_EQ(keys, 2);
    EXPECT_EQ(entities.known(1).keys, 2u);
    EXPECT_GE(entities.size(), Vel::ReplicaSize::entityCost + 2 * Vel::ReplicaSize::keyCost);
    EXPECT_THROW(entities.needKey(), StreamException);
    entities.keyDeleted(1);
    EXPECT_NO_THROW(entities.needKey());
    entities.keyAdded(1);
    EXPECT_THROW(entities.needKey(), StreamException);
}

TEST_F(ReplicaEntitiesTest, SizeFollowsWhatChangesAndIsNeverLessThanNothing) {
    StreamTest::addTo(entities, 1, leaf);
    std::size_t const size = entities.size();
    entities.sizeChanged(1, 0, 100);
    EXPECT_EQ(entities.size(), size + 100);
    entities.sizeChanged(1, 100, 30);
    EXPECT_EQ(entities.size(), size + 30);
    entities.sizeChanged(1, 1'000'000, 0);
    EXPECT_EQ(entities.size(), 0u);
    entities.sizeChanged(9, 0, 100);
    EXPECT_EQ(entities.size(), 0u) << "an id that is not known is passed over";
}

TEST_F(ReplicaEntitiesTest, WhatIsHeldElsewhereCountsUntilItIsDestroyed) {
    StreamTest::addTo(entities, 1, leaf);
    std::size_t const size = entities.size();
    entities.del(1);
    EXPECT_EQ(entities.count(), 0u);
    EXPECT_EQ(entities.size(), size);
    leaf = nullptr;
    EXPECT_EQ(entities.size(), 0u);
    StreamTest::addTo(entities, 2, Leaf::newEntity("other"));
    entities.del(2);
    EXPECT_EQ(entities.size(), 0u) << "what nobody holds goes at once";
}

TEST_F(ReplicaEntitiesTest, CopyBeforeLeavesAsMuchRoomAgainUntilTheSyncMark) {
    EXPECT_NO_THROW(entities.needRoom(10'000));
    EXPECT_THROW(entities.needRoom(10'001), StreamException);
    StreamTest::addTo(entities, 1, leaf);
    entities.sizeChanged(1, entities.size(), 9'000);
    entities.disconnected();
    EXPECT_EQ(entities.size(), 0u);
    EXPECT_NO_THROW(entities.needRoom(10'000)) << "it was brought up to date by half";
    StreamTest::addTo(entities, 1, leaf);
    entities.sizeChanged(1, entities.size(), 9'000);
    entities.disconnected();
    EXPECT_NO_THROW(entities.needRoom(2'000)) << "18000 are there from before, and 20000 are allowed";
    EXPECT_THROW(entities.needRoom(2'001), StreamException);
    entities.recountBefore(nullptr);
    EXPECT_NO_THROW(entities.needRoom(10'000));
}

}  // namespace
