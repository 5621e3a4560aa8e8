#include "Vel/entity/OrderedMap.h"

#include "CollectionTest.h"
#include "Vel/describe/GenericIf.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace CollectionTest;
using Vel::OrderedMap;
using Vel::String;
using Vel::U64;
using Vel::U8;

using Map = OrderedMap<int, Counted>;

static_assert(sizeof(OrderedMap<String, void*>) == sizeof(void*));
static_assert(sizeof(Vel::OrderedMapNode<U8, U64>) == 40);
static_assert(std::is_same_v<OrderedMap<String, int>::View, std::string_view>);
static_assert(!std::is_copy_constructible_v<OrderedMap<int, std::unique_ptr<int>>>);
static_assert(std::is_nothrow_move_constructible_v<OrderedMap<String, int>>);

Map filled(int count) {
    Map map;
    for (int i = 0; i < count; ++i) map.insert(i, i);
    return map;
}

std::vector<int> keysOf(Map const& map) {
    std::vector<int> keys;
    for (auto [key, value] : map) keys.push_back(key);
    return keys;
}

void expectSame(Map const& map, std::map<int, int> const& oracle) {
    auto it = map.begin();
    for (auto const& [key, value] : oracle) {
        ASSERT_FALSE(it.atEnd());
        ASSERT_EQ(it.key(), key);
        ASSERT_EQ(it.value().number(), value);
        ++it;
    }
    ASSERT_TRUE(it.atEnd());
}

// Where an iterator stands, as an oracle knows it: on a key, or at the end.
void expectStep(Map::Iterator& it, std::map<int, int> const& oracle) {
    bool const atEnd = it.atEnd();
    int const key = atEnd ? 0 : it.key();
    ASSERT_EQ(it.exists(), !atEnd && oracle.contains(key));
    ++it;
    auto const expected = atEnd ? oracle.end() : oracle.upper_bound(key);
    ASSERT_EQ(it.atEnd(), expected == oracle.end());
    if (it.atEnd()) return;
    ASSERT_EQ(it.key(), expected->first);
    ASSERT_EQ(it.value().number(), expected->second);
}

void lockStep(unsigned seed, unsigned keys, unsigned steps) {
    Random random(seed);
    Map map;
    std::map<int, int> oracle;
    Map::Iterator it = map.begin();
    unsigned grow = 6;  // of 10 changes, how many insert
    for (unsigned step = 0; step < steps; ++step) {
        if (step % 500 == 0) grow = 2 + random(7);
        int const key = int(random(keys));
        U64 const before = map.changes();
        bool changed = false;
        if (random(2000) == 0) {
            changed = !oracle.empty();
            map.clear();
            oracle.clear();
        } else if (random(10) < grow) {
            auto const [value, inserted] = map.insert(key, int(step));
            changed = oracle.try_emplace(key, int(step)).second;
            ASSERT_EQ(inserted, changed);
            ASSERT_EQ(value->number(), oracle[key]);
        } else if (it.exists() && random(3) == 0) {
            changed = oracle.erase(it.key()) == 1;
            ASSERT_TRUE(map.erase(it));
            ASSERT_FALSE(map.erase(it));
        } else {
            changed = oracle.erase(key) == 1;
            ASSERT_EQ(map.erase(key), changed);
        }
        ASSERT_EQ(map.changes(), before + changed);
        ASSERT_EQ(map.size(), oracle.size());
        ASSERT_EQ(map.brokenInvariant(), "");
        ASSERT_EQ(Counted::live, long(oracle.size()));
        ASSERT_NO_FATAL_FAILURE(expectStep(it, oracle));
        if (it.atEnd()) it = random(2) ? map.begin() : map.lowerBound(int(random(keys)));
        if (step % 50 == 0) {
            ASSERT_NO_FATAL_FAILURE(expectSame(map, oracle));
        }
    }
}

TEST(OrderedMapTest, SmallMapsAgreeWithStdMapUnderRandomChanges) {
    for (unsigned seed = 0; seed < 10; ++seed) ASSERT_NO_FATAL_FAILURE(lockStep(seed, 12, 3000));
}

TEST(OrderedMapTest, LargeMapsAgreeWithStdMapUnderRandomChanges) {
    for (unsigned seed = 0; seed < 4; ++seed) ASSERT_NO_FATAL_FAILURE(lockStep(seed, 250, 8000));
}

TEST(OrderedMapTest, EveryErasureFromEverySmallTreeKeepsItBalanced) {
    for (int size = 1; size <= 40; ++size)
        for (int erased = 0; erased < size; ++erased) {
            Map map = filled(size);
            ASSERT_TRUE(map.erase(erased));
            ASSERT_EQ(map.brokenInvariant(), "") << size << " without " << erased;
        }
}

TEST(OrderedMapTest, BoundsAreWhereStdMapHasThem) {
    Map map;
    std::map<int, int> oracle;
    for (int i = 0; i < 40; i += 3) map.insert(i, i), oracle.emplace(i, i);
    for (int i = -1; i < 42; ++i) {
        auto const lower = map.lowerBound(i);
        auto const upper = std::as_const(map).upperBound(i);
        EXPECT_EQ(lower.atEnd() ? 99 : lower.key(),
            oracle.lower_bound(i) == oracle.end() ? 99 : oracle.lower_bound(i)->first);
        EXPECT_EQ(upper.atEnd() ? 99 : upper.key(),
            oracle.upper_bound(i) == oracle.end() ? 99 : oracle.upper_bound(i)->first);
        EXPECT_EQ(map.iteratorAt(i).atEnd(), !oracle.contains(i));
    }
    EXPECT_EQ(map.last().key(), 39);
}

TEST(OrderedMapTest, EmptyMapsAllocateNothing) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocations are not counted in this build";
    EXPECT_EQ(allocationsOf([] {
        OrderedMap<String, int> map;
        OrderedMap<String, int> moved = std::move(map);
        OrderedMap<String, int> copy = moved;
        EXPECT_EQ(copy.find("a"), nullptr);
        EXPECT_FALSE(moved.erase("a"));
        EXPECT_TRUE(moved.begin().atEnd());
        EXPECT_TRUE(moved.last().atEnd());
        EXPECT_TRUE(moved == copy);
        moved.clear();
    }),
        0u);
}

TEST(OrderedMapTest, LookUpByTextMakesNoString) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocations are not counted in this build";
    std::string const text = "a text too long to be stored in place, but no String";
    OrderedMap<String, int> map;
    EXPECT_EQ(allocationsOf([&] { map.insert(text, 1); }), 3u);  // the String, the node, the tree
    EXPECT_EQ(allocationsOf([&] {
        EXPECT_EQ(*map.find(text), 1);
        EXPECT_TRUE(map.contains(std::string_view(text)));
        EXPECT_FALSE(map.insert(text, 2).second);
        EXPECT_FALSE(map.lowerBound("a").atEnd());
        EXPECT_TRUE(map.erase(text.c_str()));
    }),
        0u);
}

TEST(OrderedMapTest, TextsAscendByteWise) {
    OrderedMap<String, int> map;
    for (char const* key : {"b", "a\xff", "", "ab", "B", "a"}) map.insert(key, 0);
    std::vector<std::string> keys;
    for (auto [key, value] : map) keys.push_back(key.stdString());
    EXPECT_EQ(keys, (std::vector<std::string>{"", "B", "a", "ab", "a\xff", "b"}));
}

TEST(OrderedMapTest, InsertionLeavesAnExistingElementAlone) {
    OrderedMap<int, int> map;
    EXPECT_TRUE(map.insert(1, 1).second);
    U64 const changes = map.changes();
    EXPECT_EQ(map.insert(1, 2), std::pair(map.find(1), false));
    EXPECT_EQ(*map.find(1), 1);
    EXPECT_EQ(map.changes(), changes);
}

TEST(OrderedMapTest, SetInsertsOrAssigns) {
    OrderedMap<int, int> map;
    EXPECT_TRUE(map.set(1, 1));
    EXPECT_FALSE(map.set(1, 2));
    EXPECT_EQ(*map.find(1), 2);
    EXPECT_EQ(map.size(), 1u);
}

TEST(OrderedMapTest, TakeErasesAndReturnsTheValue) {
    OrderedMap<int, std::unique_ptr<int>> map;
    map.insert(1, std::make_unique<int>(7));
    EXPECT_EQ(**map.take(1), 7);
    EXPECT_EQ(map.take(1), std::nullopt);
    EXPECT_TRUE(map.empty());
}

TEST(OrderedMapTest, ChangeCounterNeverStepsBack) {
    OrderedMap<int, int> map;
    EXPECT_EQ(map.changes(), 0u);
    map.insert(1, 1);
    map.insert(2, 1);
    EXPECT_EQ(map.changes(), 2u);
    map.erase(1);
    map.erase(2);
    EXPECT_EQ(map.changes(), 4u);  // though nothing is allocated any more
    map.clear();
    EXPECT_EQ(map.changes(), 4u);
    map.insert(1, 1);
    map.clear();
    EXPECT_EQ(map.changes(), 6u);
}

TEST(OrderedMapTest, CopyingIsOneChangeOfTheCopy) {
    OrderedMap<int, int> map;
    for (int key : {1, 2, 3}) map.insert(key, key);
    OrderedMap<int, int> const copy = map;
    EXPECT_EQ(copy.changes(), 1u);
    OrderedMap<int, int> const copyOfNothing = OrderedMap<int, int>();
    EXPECT_EQ(copyOfNothing.changes(), 0u);
}

TEST(OrderedMapTest, FailedInsertionChangesNothing) {
    for (int const size : {0, 1, 10}) {
        Map map = filled(size);
        U64 const changes = map.changes();
        Counted::failAfter = 0;
        EXPECT_THROW(map.insert(-1, 1), std::bad_alloc);
        Counted::failAfter = Counted::never;
        EXPECT_EQ(map.size(), std::size_t(size));
        EXPECT_EQ(map.changes(), changes);
        EXPECT_EQ(map.brokenInvariant(), "");
        EXPECT_EQ(Counted::live, long(size));
    }
}

TEST(OrderedMapTest, InsertionWithoutMemoryChangesNothing) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocation can't be made to fail in this build";
    for (auto const& [size, allocationsBefore] : {std::pair(0, 0), std::pair(0, 1), std::pair(1, 0)}) {
        Map map = filled(size);
        bool thrown = false;
        {
            NoMemory const none(allocationsBefore);
            try {
                map.insert(-1, 1);
            } catch (std::bad_alloc const&) {
                thrown = true;
            }
        }
        EXPECT_TRUE(thrown);
        EXPECT_EQ(map.size(), std::size_t(size));
        EXPECT_EQ(map.changes(), U64(size));
        EXPECT_EQ(Counted::live, long(size));
    }
}

TEST(OrderedMapTest, PointersToElementsStayWhileOthersComeAndGo) {
    Map map = filled(100);
    Counted const* const value = map.find(50);
    for (int i = 0; i < 50; ++i) map.erase(i);
    for (int i = 100; i < 500; ++i) map.insert(i, i);
    EXPECT_EQ(map.find(50), value);
}

TEST(OrderedMapTest, IterationSeesWhatIsInsertedAheadOnly) {
    Map map = filled(1);
    std::vector<int> seen;
    for (auto it = map.begin(); it != map.end(); ++it) {
        seen.push_back(it.key());
        if (it.key() < 5) map.insert(it.key() + 2, 0);
        map.insert(it.key() - 1, 0);
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 2, 4, 6}));
}

TEST(OrderedMapTest, IteratorKeepsTheKeyOfAnErasedElement) {
    Map map = filled(3);
    auto it = map.iteratorAt(1);
    EXPECT_TRUE(map.erase(it));
    EXPECT_FALSE(it.exists());
    EXPECT_FALSE(it.atEnd());
    EXPECT_EQ(it.key(), 1);
    map.insert(1, 7);
    EXPECT_EQ(it.value().number(), 7);
    map.erase(1);
    ++it;
    EXPECT_EQ(it.key(), 2);
}

TEST(OrderedMapTest, IterationMayEraseEverythingItSees) {
    Map map = filled(100);
    for (auto it = map.begin(); it != map.end(); ++it) map.erase(it);
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(Counted::live, 0);
}

TEST(OrderedMapTest, DestructorOfAnErasedValueMeetsAMapWithoutIt) {
    OrderedMap<int, AtDestruction<std::function<void()>>> map;
    std::vector<bool> present;
    for (int i = 0; i < 10; ++i)
        map.insert(i, [&, i] {
            present.push_back(map.contains(i));
            map.erase(i + 1);  // which erases the rest in turn
        });
    map.erase(0);
    EXPECT_EQ(present, std::vector<bool>(10, false));
    EXPECT_TRUE(map.empty());
}

TEST(OrderedMapTest, MovingLeavesAnEmptyMapThatHasChanged) {
    Map a = filled(3);
    U64 const changes = a.changes();
    auto it = a.begin();
    Map b = std::move(a);
    EXPECT_TRUE(a.empty());
    EXPECT_GT(a.changes(), changes);
    EXPECT_TRUE((++it).atEnd());
    EXPECT_EQ(keysOf(b), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(Counted::live, 3);
    a = std::move(b);
    EXPECT_EQ(a.find(2)->number(), 2);
}

TEST(OrderedMapTest, IterationGoesOnByKeyInWhatIsAssigned) {
    Map a = filled(5);
    auto it = a.iteratorAt(2);
    a = filled(8);
    EXPECT_EQ((++it).key(), 3);
    EXPECT_EQ(it.value().number(), 3);
}

TEST(OrderedMapTest, CopiesAreIndependentAndBalanced) {
    Map a = filled(100);
    Map b = a;
    EXPECT_EQ(b.brokenInvariant(), "");
    EXPECT_TRUE(a == b);
    a.erase(3);
    EXPECT_FALSE(a == b);
    EXPECT_EQ(b.find(3)->number(), 3);
    b = a;
    EXPECT_TRUE(a == b);
    EXPECT_EQ(Counted::live, 198);
}

TEST(OrderedMapTest, EqualityComparesKeysAndValues) {
    Map const a = filled(3);
    Map b = filled(3);
    EXPECT_TRUE(a == b);
    b.set(1, Counted(7));
    EXPECT_FALSE(a == b);
    b.set(1, Counted(1));
    b.erase(2);
    b.insert(9, 2);
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(a == Map());
}

TEST(OrderedMapTest, FailedCopyDestroysWhatItMade) {
    Map const a = filled(20);
    for (int copied = 0; copied < 20; ++copied) {
        Counted::failAfter = copied;
        EXPECT_THROW(Map{a}, std::bad_alloc);
        EXPECT_EQ(Counted::live, 20);
    }
    Counted::failAfter = Counted::never;
}

// A node that lives as long as somebody refers to it.
class Bucket : public Vel::PtrInterface, public Vel::RbTreeMapGeneric::Node {
public:
    Bucket(int key, int word) : key_(key), word_(word) { ++live; }
    Bucket(Bucket const&) = delete;
    Bucket& operator=(Bucket const&) = delete;
    ~Bucket() override { --live; }

    Vel::VelType fwkType() const override { return {}; }
    int const& key() const { return key_; }
    int& value() { return word_; }
    int const& value() const { return word_; }

    inline static int live = 0;

private:
    int key_;
    int word_;
};

TEST(OrderedMapTest, CountedNodesAreHeldByTheMapAndByWhoeverElseRefersToThem) {
    OrderedMap<int, int, Bucket> map;
    for (int i = 0; i < 10; ++i) map.insert(i, 10 * i);
    Vel::Ptr<Bucket> const kept = map.node(4);
    EXPECT_EQ(kept->references(), 2u);
    map.erase(4);
    map.erase(5);
    EXPECT_EQ(Bucket::live, 9);
    EXPECT_EQ(kept->references(), 1u);
    EXPECT_EQ(kept->value(), 40);
    map.clear();
    EXPECT_EQ(Bucket::live, 1);
}

TEST(OrderedMapTest, CountedNodesAreCopiedDeeply) {
    OrderedMap<int, int, Bucket> map;
    for (int i = 0; i < 10; ++i) map.insert(i, i);
    OrderedMap<int, int, Bucket> const copy = map;
    *map.find(3) = 33;
    EXPECT_EQ(Bucket::live, 20);
    EXPECT_EQ(*copy.find(3), 3);
    EXPECT_EQ(copy.node(3)->references(), 1u);
}

}  // namespace
