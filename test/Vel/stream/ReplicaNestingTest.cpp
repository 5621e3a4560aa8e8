#include "Vel/stream/internal/ReplicaNesting.h"

#include "StreamTools.h"

namespace {

using Vel::Dir;
using Vel::EntityId;
using Vel::Ptr;
using Vel::StreamException;

// Directories 1 to 4, of which 1 is the root of the copy, and each holds the next.
class ReplicaNestingTest : public testing::Test {
protected:
    ReplicaNestingTest() {
        limits.depth = 10;
        for (EntityId id = 1; id <= 4; ++id) {
            dirs.push_back(Dir::newEntity(Vel::format("%u", id)));
            if (id > 1) dirs[id - 2]->entryIs(dirs.back());
            StreamTest::addTo(entities, id, dirs.back());
        }
    }
    ~ReplicaNestingTest() override {
        for (auto const& dir : dirs) dir->entryDelAll();
    }
    Dir& dir(EntityId id) { return *dirs[id - 1]; }
    Vel::ReplicaPlace place(EntityId owner, EntityId member) {
        key.clear();
        key << dir(member).name();
        return {owner, &dir(owner), dir(owner).fwkType().glue().stream().find(258), key.bytes()};
    }
    void put(EntityId owner, EntityId member) {
        nesting.put(place(owner, member), member, dir(member));
        nesting.putLoosened();
    }
    EntityId parentOf(EntityId id) { return entities.idOf(dir(id).parent()); }

    Vel::StreamLimits limits;
    std::vector<Ptr<Dir>> dirs;
    Vel::ReplicaEntities entities{limits};
    Vel::ReplicaNesting nesting{entities, limits};
    Vel::NboAttrLog::Out key;
};

TEST_F(ReplicaNestingTest, MemberIsTakenOutOfWhereItWas) {
    put(1, 4);
    EXPECT_EQ(parentOf(4), 1u);
    EXPECT_FALSE(dir(3).entryExists("4"));
    EXPECT_NO_THROW(nesting.putAll());
}

// At the source 4 holds 2 now, and the root holds 3: the first is told before the second.
TEST_F(ReplicaNestingTest, MemberWaitsUntilItsNewOwnerHasLeftIt) {
    put(4, 2);
    EXPECT_EQ(parentOf(2), 1u) << "4 is still within it";
    put(1, 3);
    EXPECT_EQ(parentOf(3), 1u);
    EXPECT_EQ(parentOf(2), 4u);
    EXPECT_NO_THROW(nesting.putAll());
}

TEST_F(ReplicaNestingTest, WhoeverWaitsAtTheSyncMarkIsAnError) {
    put(4, 2);
    EXPECT_THROW(nesting.putAll(), StreamException);
}

TEST_F(ReplicaNestingTest, PlaceThatIsToldAnewIsWaitedForNoMore) {
    put(4, 2);
    nesting.told(place(4, 2));
    EXPECT_NO_THROW(nesting.putAll());
    put(4, 2);
    nesting.gone(4);
    EXPECT_NO_THROW(nesting.putAll());
    put(4, 2);
    nesting.gone(2);
    EXPECT_NO_THROW(nesting.putAll());
    put(4, 2);
    nesting.isThere(place(1, 2), 2, dir(2));
    EXPECT_NO_THROW(nesting.putAll());
    put(4, 2);
    nesting.clear();
    EXPECT_NO_THROW(nesting.putAll());
}

TEST_F(ReplicaNestingTest, WhatWaitsCountsAsAKey) {
    std::size_t const before = entities.size();
    put(4, 2);
    EXPECT_EQ(entities.size(), before + Vel::ReplicaSize::keyCost + 5);
    nesting.told(place(4, 2));
    EXPECT_EQ(entities.size(), before);
}

TEST_F(ReplicaNestingTest, NothingIsPutWithinItselfOrTooDeep) {
    EXPECT_THROW(put(2, 2), StreamException);
    limits.depth = 2;
    EXPECT_THROW(put(1, 4), StreamException);
    EXPECT_EQ(parentOf(4), 3u);
}

TEST_F(ReplicaNestingTest, WhatIsDeletedLetsOthersGoThatWaited) {
    put(4, 2);
    nesting.del(place(2, 3));
    nesting.putLoosened();
    EXPECT_EQ(parentOf(2), 4u);
    EXPECT_EQ(parentOf(3), 0u);
}

}  // namespace
