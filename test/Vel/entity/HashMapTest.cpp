#include "Vel/entity/HashMap.h"

#include "CollectionTest.h"
#include "Vel/base/Ptr.h"
#include "Vel/describe/Value.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using namespace CollectionTest;
using Vel::HashMap;
using Vel::String;
using Vel::U32;
using Vel::U64;

static_assert(sizeof(HashMap<String, void*>) == sizeof(void*));
static_assert(std::is_same_v<HashMap<String, int>::View, std::string_view>);
static_assert(!std::is_copy_constructible_v<HashMap<String, std::unique_ptr<int>>>);
static_assert(std::is_nothrow_move_constructible_v<HashMap<String, int>>);

// All keys have one of three hashes: look-up and order must be right without the hash's help.
struct PoorHash {
    static U32 hash(std::string_view view, U32) { return view.empty() ? 0 : U32(view.back()) % 3; }
};

using Map = HashMap<String, Counted>;
using PoorMap = HashMap<String, Counted, 0, PoorHash>;

std::vector<std::string> keysOf(auto& map) {
    std::vector<std::string> keys;
    for (auto [key, value] : map) keys.push_back(key.stdString());
    return keys;
}

template <class M> M filled(unsigned count) {
    M map;
    for (unsigned i = 0; i < count; ++i) map.insert(keyText(i), int(i));
    return map;
}

// Walks a map that changes at random, and knows what the walk must see: what was there when it began and stays.
template <class M> class Walk {
public:
    Walk(M& map, std::unordered_map<std::string, int> const& oracle) : at_(map.begin()) {
        for (auto const& [key, value] : oracle) due_.insert(key);
        arrive();
    }
    void erased(std::string const& key) { due_.erase(key); }
    void step() {
        ++at_;
        arrive();
    }
    bool done() const { return at_.atEnd(); }
    typename M::Iterator const& at() const { return at_; }
    std::set<std::string> const& due() const { return due_; }

private:
    void arrive() {
        if (at_.atEnd()) return;
        ASSERT_TRUE(at_.exists());
        EXPECT_EQ(due_.erase(at_.key().stdString()), 1u) << at_.key() << " was seen before, or is new";
    }
    typename M::Iterator at_;
    std::set<std::string> due_;
};

template <class M> void lockStep(unsigned seed, unsigned keys, unsigned steps) {
    Random random(seed);
    M map;
    std::unordered_map<std::string, int> oracle;
    std::optional<Walk<M>> walk;
    unsigned grow = 6;  // of 10 changes, how many insert
    for (unsigned step = 0; step < steps; ++step) {
        if (step % 500 == 0) grow = 2 + random(7);
        std::string const key = keyText(random(keys));
        U64 const before = map.changes();
        bool changed = false;
        if (random(2000) == 0) {
            changed = !oracle.empty();
            if (walk)
                for (auto const& [k, v] : oracle) walk->erased(k);
            map.clear();
            oracle.clear();
        } else if (random(10) < grow) {
            auto const [value, inserted] = map.insert(std::string_view(key), int(step));
            changed = oracle.try_emplace(key, int(step)).second;
            ASSERT_EQ(inserted, changed);
            ASSERT_EQ(value->number(), oracle[key]);
        } else if (walk && !walk->done() && walk->at().exists() && random(3) == 0) {
            std::string const standing = walk->at().key().stdString();
            ASSERT_TRUE(map.erase(walk->at()));
            ASSERT_FALSE(map.erase(walk->at()));
            changed = oracle.erase(standing) == 1;
        } else {
            changed = oracle.erase(key) == 1;
            ASSERT_EQ(map.erase(key), changed);
            if (walk) walk->erased(key);
        }
        ASSERT_EQ(map.changes(), before + changed);
        ASSERT_EQ(map.size(), oracle.size());
        ASSERT_EQ(map.empty(), oracle.empty());
        ASSERT_EQ(map.brokenInvariant(), "");
        ASSERT_EQ(Counted::live, long(oracle.size()));

        if (walk) walk->step();
        if (walk && walk->done()) {
            ASSERT_TRUE(walk->due().empty()) << *walk->due().begin() << " was passed over";
            walk.reset();
        }
        if (!walk && random(20) == 0) walk.emplace(map, oracle);
        std::string const probe = keyText(random(keys));
        auto const expected = oracle.find(probe);
        Counted const* const found = std::as_const(map).find(probe);
        ASSERT_EQ(found != nullptr, expected != oracle.end());
        ASSERT_EQ(found ? found->number() : -1, found ? expected->second : -1);
    }
}

TEST(HashMapTest, SmallMapsAgreeWithUnorderedMapUnderRandomChanges) {
    for (unsigned seed = 0; seed < 10; ++seed) ASSERT_NO_FATAL_FAILURE(lockStep<Map>(seed, 10, 3000));
}

TEST(HashMapTest, MapsAboutTheLimitOfHashingAgreeWithUnorderedMapUnderRandomChanges) {
    for (unsigned seed = 0; seed < 10; ++seed) ASSERT_NO_FATAL_FAILURE(lockStep<Map>(seed, 30, 3000));
}

TEST(HashMapTest, LargeMapsAgreeWithUnorderedMapUnderRandomChanges) {
    for (unsigned seed = 0; seed < 3; ++seed) ASSERT_NO_FATAL_FAILURE(lockStep<Map>(seed, 300, 10000));
}

TEST(HashMapTest, MapsOfCollidingKeysAgreeWithUnorderedMapUnderRandomChanges) {
    for (unsigned seed = 0; seed < 3; ++seed) ASSERT_NO_FATAL_FAILURE(lockStep<PoorMap>(seed, 60, 5000));
}

TEST(HashMapTest, EmptyMapsAllocateNothing) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocations are not counted in this build";
    EXPECT_EQ(allocationsOf([] {
        HashMap<String, int> map;
        HashMap<String, int> moved = std::move(map);
        EXPECT_EQ(moved.find("a"), nullptr);
        EXPECT_FALSE(moved.erase("a"));
        EXPECT_TRUE(moved.begin().atEnd());
        moved.clear();
    }),
        0u);
}

TEST(HashMapTest, EmptiedMapsOwnNoMemory) {
    HashMap<String, int> map;
    map.insert("a", 1);
    EXPECT_GT(map.memory(), 0u);
    map.erase("a");
    EXPECT_EQ(map.memory(), 0u);
}

TEST(HashMapTest, LookUpByTextMakesNoString) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocations are not counted in this build";
    std::string const text = "a text too long to be stored in place, but no String";
    HashMap<String, int> map;
    EXPECT_EQ(allocationsOf([&] { map.insert(text, 1); }), 2u);  // the String and the block
    EXPECT_EQ(allocationsOf([&] {
        EXPECT_EQ(*map.find(text), 1);
        EXPECT_TRUE(map.contains(std::string_view(text)));
        EXPECT_FALSE(map.insert(text, 2).second);
        EXPECT_FALSE(map.contains("another text that is too long to be stored in place"));
        EXPECT_TRUE(map.erase(text.c_str()));
    }),
        0u);
}

TEST(HashMapTest, SmallMapsTakeAsManyBytesAsDocumented) {
    HashMap<String, Vel::Ptr<Vel::PtrInterface>> map;
    std::vector<std::size_t> bytes;
    for (unsigned i = 0; i < 13; ++i) {
        map.insert(keyText(i), nullptr);
        bytes.push_back(map.memory());
    }
    EXPECT_EQ(bytes,
        (std::vector<std::size_t>{40, 64, 88, 112, 160, 160, 208, 208, 440, 440, 440, 440, 16 + 24 * 24 + 33 * 8}));
}

TEST(HashMapTest, MapsShrinkAsTheyAreEmptied) {
    Map map = filled<Map>(1000);
    std::size_t const full = map.memory();
    for (unsigned i = 0; i < 990; ++i) map.erase(keyText(i));
    EXPECT_LT(map.memory(), full / 20);
    EXPECT_EQ(map.find(keyText(995))->number(), 995);
}

TEST(HashMapTest, GapsAreClosedWhereAMapGrows) {
    Map map = filled<Map>(40);
    for (unsigned i = 10; i < 20; ++i) map.erase(keyText(i));
    for (unsigned i = 40; i < 200; ++i) map.insert(keyText(i), int(i));
    EXPECT_EQ(map.size(), 190u);
    EXPECT_EQ(map.brokenInvariant(), "");
    for (unsigned i = 0; i < 200; ++i) EXPECT_EQ(map.contains(keyText(i)), i < 10 || i >= 20) << i;
}

TEST(HashMapTest, InsertionLeavesAnExistingElementAlone) {
    HashMap<String, int> map;
    EXPECT_TRUE(map.insert("a", 1).second);
    U64 const changes = map.changes();
    EXPECT_EQ(map.insert("a", 2), std::pair(map.find("a"), false));
    EXPECT_EQ(*map.find("a"), 1);
    EXPECT_EQ(map.changes(), changes);
}

TEST(HashMapTest, SetInsertsOrAssigns) {
    HashMap<String, int> map;
    EXPECT_TRUE(map.set("a", 1));
    EXPECT_FALSE(map.set("a", 2));
    EXPECT_EQ(*map.find("a"), 2);
    EXPECT_EQ(map.size(), 1u);
}

TEST(HashMapTest, TakeErasesAndReturnsTheValue) {
    HashMap<String, std::unique_ptr<int>> map;
    map.insert("a", std::make_unique<int>(7));
    EXPECT_EQ(**map.take("a"), 7);
    EXPECT_EQ(map.take("a"), std::nullopt);
    EXPECT_TRUE(map.empty());
}

TEST(HashMapTest, ChangeCounterNeverStepsBack) {
    HashMap<String, int> map;
    EXPECT_EQ(map.changes(), 0u);
    map.insert("a", 1);
    map.insert("b", 1);
    EXPECT_EQ(map.changes(), 2u);
    map.erase("a");
    map.erase("b");
    EXPECT_EQ(map.changes(), 4u);  // though nothing is allocated any more
    map.clear();
    EXPECT_EQ(map.changes(), 4u);
    map.insert("a", 1);
    map.clear();
    EXPECT_EQ(map.changes(), 6u);
}

TEST(HashMapTest, FailedInsertionChangesNothing) {
    for (unsigned const size : {0u, 1u, 8u, 12u}) {
        Map map = filled<Map>(size);
        auto const keys = keysOf(map);
        U64 const changes = map.changes();
        Counted::failAfter = 0;
        EXPECT_THROW(map.insert("new", 1), std::bad_alloc);
        Counted::failAfter = Counted::never;
        EXPECT_EQ(keysOf(map), keys);
        EXPECT_EQ(map.changes(), changes);
        EXPECT_EQ(map.brokenInvariant(), "");
        EXPECT_EQ(Counted::live, long(size));
    }
}

TEST(HashMapTest, InsertionWithoutMemoryChangesNothing) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocation can't be made to fail in this build";
    for (int const size : {0, 1, 4, 8, 12, 24}) {  // all full
        HashMap<int, Counted> map;
        for (int i = 0; i < size; ++i) map.insert(i, i);
        U64 const changes = map.changes();
        bool thrown = false;
        {
            NoMemory const none;
            try {
                map.insert(-1, -1);
            } catch (std::bad_alloc const&) {
                thrown = true;
            }
        }
        EXPECT_TRUE(thrown);
        EXPECT_EQ(map.changes(), changes);
        EXPECT_EQ(map.size(), std::size_t(size));
        EXPECT_EQ(map.brokenInvariant(), "");
        EXPECT_EQ(Counted::live, long(size));
    }
}

TEST(HashMapTest, ErasureNeedsNoMemory) {
    if (!allocationsAreCounted()) GTEST_SKIP() << "allocation can't be made to fail in this build";
    HashMap<int, Counted> map;
    for (int i = 0; i < 100; ++i) map.insert(i, i);
    {
        NoMemory const none;
        for (int i = 0; i < 99; ++i) map.erase(i);
    }
    EXPECT_EQ(map.brokenInvariant(), "");
    EXPECT_EQ(map.find(99)->number(), 99);
    EXPECT_EQ(Counted::live, 1);
}

TEST(HashMapTest, IterationDoesNotSeeWhatIsInsertedMeanwhile) {
    Map map = filled<Map>(20);
    unsigned visited = 0;
    for (auto it = map.begin(); it != map.end(); ++it, ++visited) {
        String const key = it.key();
        map.erase(it);
        map.insert(key, 0);  // the same key, but a new element
    }
    EXPECT_EQ(visited, 20u);
    EXPECT_EQ(map.size(), 20u);
}

TEST(HashMapTest, IteratorStandsFirmWhileTheMapGrows) {
    Map map = filled<Map>(3);
    auto const it = map.iteratorAt(keyText(1));
    for (unsigned i = 3; i < 500; ++i) map.insert(keyText(i), 0);
    map.erase(keyText(0));
    ASSERT_TRUE(it.exists());
    EXPECT_EQ(it.key(), keyText(1));
    EXPECT_EQ(it.value().number(), 1);
}

TEST(HashMapTest, IteratorOutlivesItsElement) {
    Map map = filled<Map>(3);
    auto it = map.iteratorAt(keyText(1));
    EXPECT_TRUE(map.erase(it));
    EXPECT_FALSE(it.exists());
    EXPECT_FALSE(it.atEnd());
    ++it;
    EXPECT_EQ(it.key(), keyText(2));
}

TEST(HashMapTest, IteratorOfAClearedAndRefilledMapEnds) {
    Map map = filled<Map>(3);
    auto it = map.begin();
    map.clear();
    map.insert(keyText(0), 0);
    EXPECT_FALSE(it.exists());
    EXPECT_TRUE((++it).atEnd());
    EXPECT_TRUE((++it).atEnd());
}

TEST(HashMapTest, IteratorAtAMissingKeyIsAtTheEnd) {
    Map map = filled<Map>(3);
    EXPECT_TRUE(map.iteratorAt("missing").atEnd());
    EXPECT_TRUE(Map().iteratorAt("missing").atEnd());
}

TEST(HashMapTest, ValuesChangeThroughIteration) {
    HashMap<String, int> map;
    for (unsigned i = 0; i < 20; ++i) map.insert(keyText(i), 1);
    for (auto [key, value] : map) value += 1;
    EXPECT_EQ(*map.find(keyText(19)), 2);
}

TEST(HashMapTest, DestructorOfAnErasedValueMeetsAMapWithoutIt) {
    HashMap<String, AtDestruction<std::function<void()>>> map;
    std::vector<std::string> seen;
    for (unsigned i = 0; i < 10; ++i)
        map.insert(keyText(i), [&, i] {
            seen.push_back(map.contains(keyText(i)) ? "still there" : "gone");
            map.erase(keyText(i + 1));  // which erases the rest in turn
        });
    map.erase(keyText(0));
    EXPECT_EQ(seen, std::vector<std::string>(10, "gone"));
    EXPECT_TRUE(map.empty());
}

TEST(HashMapTest, DestructorOfAClearedValueMeetsAnEmptyMap) {
    HashMap<String, AtDestruction<std::function<void()>>> map;
    std::vector<std::size_t> sizes;
    for (unsigned i = 0; i < 3; ++i) map.insert(keyText(i), [&] { sizes.push_back(map.size()); });
    map.clear();
    EXPECT_EQ(sizes, (std::vector<std::size_t>{0, 0, 0}));
}

TEST(HashMapTest, MovingLeavesAnEmptyMapThatHasChanged) {
    Map a = filled<Map>(3);
    U64 const changes = a.changes();
    auto it = a.begin();
    Map b = std::move(a);
    EXPECT_TRUE(a.empty());
    EXPECT_GT(a.changes(), changes);
    EXPECT_TRUE((++it).atEnd());
    EXPECT_EQ(b.size(), 3u);
    EXPECT_EQ(Counted::live, 3);
    a = std::move(b);
    EXPECT_EQ(a.find(keyText(2))->number(), 2);
}

TEST(HashMapTest, CopiesAreIndependent) {
    Map a = filled<Map>(20);
    Map b = a;
    a.erase(keyText(3));
    EXPECT_EQ(b.size(), 20u);
    EXPECT_EQ(b.find(keyText(3))->number(), 3);
    b = a;
    EXPECT_EQ(b.size(), 19u);
    EXPECT_EQ(Counted::live, 38);
}

TEST(HashMapTest, FailedCopyDestroysWhatItMade) {
    Map const a = filled<Map>(20);
    for (int copied = 0; copied < 20; ++copied) {
        Counted::failAfter = copied;
        EXPECT_THROW(Map{a}, std::bad_alloc);
        EXPECT_EQ(Counted::live, 20);
    }
    Counted::failAfter = Counted::never;
}

TEST(HashMapTest, KeysMayBeNumbersOrPointers) {
    HashMap<U32, int> numbers;
    HashMap<int const*, int> pointers;
    static int const places[100] = {};
    for (U32 i = 0; i < 100; ++i) {
        numbers.insert(i << 16, int(i));
        pointers.insert(&places[i], int(i));
    }
    for (U32 i = 0; i < 100; ++i) {
        EXPECT_EQ(*numbers.find(i << 16), int(i));
        EXPECT_EQ(*pointers.find(&places[i]), int(i));
    }
    EXPECT_FALSE(numbers.contains(1));
}

TEST(HashMapTest, EmptyTextIsAKey) {
    HashMap<String, int> map;
    map.insert("", 1);
    EXPECT_EQ(*map.find(std::string_view()), 1);
    EXPECT_TRUE(map.begin().key().empty());
}

TEST(HashMapTest, HashOfATextDependsOnEveryByteTheLengthAndTheSeed) {
    std::unordered_set<U32> hashes;
    std::size_t texts = 0;
    for (std::size_t length = 0; length < 40; ++length) {
        std::string text(length, '\0');
        hashes.insert(Vel::hashText(text, 0)), ++texts;
        hashes.insert(Vel::hashText(text, 1)), ++texts;
        for (char& c : text) {
            c = 'x';
            hashes.insert(Vel::hashText(text, 0)), ++texts;
            c = '\0';
        }
    }
    EXPECT_EQ(hashes.size(), texts);
}

TEST(HashMapTest, SimilarTextsSpreadEvenlyOverTheLowBits) {
    std::vector<unsigned> slots(256);
    for (unsigned i = 0; i < 25600; ++i) ++slots[Vel::hashText("Ethernet" + std::to_string(i), 7) % 256];
    for (unsigned const n : slots) {
        EXPECT_GT(n, 50u);  // 100 expected, standard deviation 10
        EXPECT_LT(n, 150u);
    }
}

}  // namespace
