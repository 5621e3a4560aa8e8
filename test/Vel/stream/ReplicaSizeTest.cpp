#include "Vel/stream/internal/ReplicaSize.h"

#include "StreamTools.h"
#include "ValueTable.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using Fixture::Leaf;
using StreamTest::Entry;
using StreamTest::ValueTable;
using namespace Vel::ReplicaSize;

TEST(ReplicaSizeTest, KeyTakesItsBytesAndAValueOfNoFixedSize) {
    auto const table = ValueTable::newEntity("t");
    table->markIs(1, 5);
    table->entryIs("key", Entry(1));  // its text is "no. 1"
    std::map<Vel::AttributeId, std::size_t> sizes;
    std::size_t const all = of(
        *table, StreamTest::tableOf(*table), [&](Vel::StreamAttribute const& attribute, std::span<Vel::U8 const> key) {
            sizes[attribute.id] = ofKey(attribute, *table, key);
        });
    EXPECT_EQ(sizes[ValueTable::markAttribute], keyCost + 1);
    EXPECT_EQ(sizes[ValueTable::entryAttribute], keyCost + (4 + 3) + 4 + (4 + 5) + 1);
    EXPECT_EQ(all, ofNew(table->fwkType(), 1) + sizes[ValueTable::markAttribute] + sizes[ValueTable::entryAttribute]);
}

TEST(ReplicaSizeTest, EntitiesThatLeadToEachOtherCountOnce) {
    auto const a = Leaf::newEntity("a"), b = Leaf::newEntity("bb");
    a->peerIs(b);
    b->peerIs(a);
    auto const dir = Vel::Dir::newEntity("d");
    dir->entryIs(a);
    std::size_t const leaves =
        of(*a, StreamTest::tableOf(*a), [](auto&&...) {}) + of(*b, StreamTest::tableOf(*b), [](auto&&...) {});
    EXPECT_EQ(ofAll(*a), leaves);
    EXPECT_EQ(ofAll(*dir), leaves + of(*dir, StreamTest::tableOf(*dir), [](auto&&...) {}));
    EXPECT_EQ(of(*b, StreamTest::tableOf(*b), [](auto&&...) {}), of(*a, StreamTest::tableOf(*a), [](auto&&...) {}) + 1)
        << "by its name";
    b->peerIs(nullptr);
}

}  // namespace
