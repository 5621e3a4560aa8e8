#include "Vel/entity/Dir.h"
#include "test/Vel/describe/Fixtures.h"

#include <gtest/gtest.h>

namespace {

using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;

Vel::U64 leaves() { return Vel::typeOf<Leaf>().glue().allocTrack->live(); }

TEST(PtrChainTest, ChainOfAnyLengthIsDestroyed) {
    Vel::U64 const before = leaves();
    Ptr<Leaf> first;
    for (int i = 0; i < 300000; ++i) {
        auto const leaf = Leaf::newEntity("leaf");
        leaf->peerIs(first);
        first = leaf;
    }
    EXPECT_EQ(leaves(), before + 300000);
    first = nullptr;
    EXPECT_EQ(leaves(), before);
}

TEST(PtrChainTest, DirectoriesWithinOneAnotherAreDestroyed) {
    Vel::U64 const before = leaves();
    Ptr<Vel::Entity> inner = Leaf::newEntity("leaf");
    for (int i = 0; i < 100000; ++i) {
        auto const dir = Dir::newEntity("d");
        dir->entryIs(inner);
        inner = dir;
    }
    inner = nullptr;
    EXPECT_EQ(leaves(), before);
}

}  // namespace
