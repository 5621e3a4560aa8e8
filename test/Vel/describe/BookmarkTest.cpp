// Bookmarks: how far a collection has been flowed out, while it changes.
#include "Vel/describe/StreamTable.h"
#include "Vel/entity/HashMap.h"
#include "Vel/entity/OrderedMap.h"
#include "Vel/text/NboAttrLog.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>

namespace {

using namespace Vel::NboAttrLog;
using Vel::U32;

template <class M> struct MapTraits;
template <> struct MapTraits<std::map<U32, U32>> {
    using Bookmark = OrderedBookmark<U32, std::map<U32, U32>>;
    static void add(std::map<U32, U32>& map, U32 key) { map.emplace(key, key); }
};
template <> struct MapTraits<Vel::OrderedMap<U32, U32>> {
    using Bookmark = OrderedBookmark<U32, Vel::OrderedMap<U32, U32>>;
    static void add(Vel::OrderedMap<U32, U32>& map, U32 key) { map.insert(key, key); }
};
template <> struct MapTraits<Vel::HashMap<U32, U32>> {
    using Bookmark = SteadyBookmark<U32, Vel::HashMap<U32, U32>>;
    static void add(Vel::HashMap<U32, U32>& map, U32 key) { map.insert(key, key); }
};

template <class Map> class BookmarkTest : public testing::Test {
protected:
    using Bookmark = typename MapTraits<Map>::Bookmark;

    void addKeys(U32 count) {
        for (U32 i = 0; i < count; ++i) MapTraits<Map>::add(map, i);
    }
    U32 next(Bookmark& bookmark) {
        Out out;
        bookmark.next(out);
        return In(out.bytes()).nextU32();
    }
    std::multiset<U32> rest(Bookmark& bookmark) {
        std::multiset<U32> keys;
        while (bookmark.left() != 0) keys.insert(next(bookmark));
        return keys;
    }

    Map map;
};

using Maps = testing::Types<std::map<U32, U32>, Vel::OrderedMap<U32, U32>, Vel::HashMap<U32, U32>>;
TYPED_TEST_SUITE(BookmarkTest, Maps);

TYPED_TEST(BookmarkTest, OfNothingIsAtItsEnd) {
    typename TestFixture::Bookmark const bookmark(this->map);
    EXPECT_EQ(bookmark.left(), 0u);
}

// To begin takes no time, however many keys there are.
TYPED_TEST(BookmarkTest, NotesAFewKeysAndGivesEachOnce) {
    this->addKeys(1000);
    typename TestFixture::Bookmark bookmark(this->map);
    std::multiset<U32> keys;
    while (bookmark.left() != 0) {
        EXPECT_LE(bookmark.left(), fewKeys);
        keys.insert(this->next(bookmark));
    }
    EXPECT_EQ(keys.size(), 1000u);
    EXPECT_EQ(std::set<U32>(keys.begin(), keys.end()).size(), 1000u);
}

TYPED_TEST(BookmarkTest, EndsWhenAllThatIsLeftIsErased) {
    this->addKeys(1000);
    typename TestFixture::Bookmark bookmark(this->map);
    this->map.clear();
    EXPECT_EQ(this->rest(bookmark).size(), fewKeys);  // which it had noted
}

// Those that are there all the time are given, whatever comes and goes, and however often the table grows.
TYPED_TEST(BookmarkTest, GivesWhatStaysWhileOthersComeAndGo) {
    std::mt19937 engine(5);
    auto const random = [&](U32 limit) { return static_cast<U32>(engine() % limit); };
    for (int round = 0; round < 10; ++round) {
        this->map.clear();
        this->addKeys(600);
        typename TestFixture::Bookmark bookmark(this->map);
        std::set<U32> stays, given;
        for (U32 i = 0; i < 600; ++i) stays.insert(i);
        while (bookmark.left() != 0) {
            given.insert(this->next(bookmark));
            U32 const key = random(600), added = 600 + random(100'000);
            if (random(4) == 0 && this->map.erase(key)) stays.erase(key);
            if (given.size() < 600) MapTraits<TypeParam>::add(this->map, added);
            if (given.size() > 10'000) break;
        }
        for (U32 const key : stays) EXPECT_TRUE(given.contains(key)) << key << " in round " << round;
    }
}

}  // namespace
