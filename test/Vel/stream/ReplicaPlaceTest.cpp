#include "Vel/stream/internal/ReplicaPlace.h"

#include "StreamTools.h"
#include "ValueTable.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using Fixture::Leaf;
using StreamTest::ValueTable;
using Vel::Dir;
using Vel::Ptr;
using Vel::ReplicaPlace;

class ReplicaPlaceTest : public testing::Test {
protected:
    ~ReplicaPlaceTest() override { dir->entryDelAll(); }
    ReplicaPlace at(Vel::Entity& entity, Vel::AttributeId attribute, Vel::String const& name = {}) {
        key.clear();
        key << name;
        return {1, &entity, entity.fwkType().glue().stream().find(attribute), key.bytes()};
    }

    Ptr<Dir> dir = Dir::newEntity("d");
    Ptr<Leaf> leaf = Leaf::newEntity("a");
    Vel::NboAttrLog::Out key;
};

TEST_F(ReplicaPlaceTest, SaysWhatIsThere) {
    ReplicaPlace const place = at(*dir, 258, "a");
    EXPECT_EQ(place.there(), nullptr);
    dir->entryIs(leaf);
    EXPECT_EQ(place.there(), leaf.get());
    EXPECT_TRUE(place.owns(*leaf));
    EXPECT_FALSE(place.owns(*Leaf::newEntity("a")));
    place.del();
    EXPECT_EQ(place.there(), nullptr);
    leaf->peerIs(Leaf::newEntity("b"));
    EXPECT_EQ(at(*leaf, 260).there(), leaf->peer().get());
}

TEST_F(ReplicaPlaceTest, MemberTakesThePlaceOfWhatIsThere) {
    dir->entryIs(leaf);
    auto const other = Leaf::newEntity("a");
    at(*dir, 258, "a").replacementIs(*other);
    EXPECT_EQ(dir->entry("a"), other);
    EXPECT_EQ(leaf->parent(), nullptr);
}

TEST_F(ReplicaPlaceTest, KnowsWhetherAValueIsThere) {
    auto const table = ValueTable::newEntity("t");
    ReplicaPlace const place = at(*table, ValueTable::entryAttribute, "k");
    EXPECT_FALSE(place.holdsValue());
    table->entryIs("k", StreamTest::Entry(1));
    EXPECT_TRUE(place.holdsValue());
    place.del();
    EXPECT_FALSE(table->entryExists("k"));
}

}  // namespace
