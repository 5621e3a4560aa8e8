#include "Vel/stream/internal/GradualMap.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <vector>

#include <malloc.h>

namespace {

using Vel::U32;
using Vel::Detail::GradualMap;

TEST(GradualMapTest, IsWhatAMapIsWhateverIsAddedAndErased) {
    std::mt19937 engine(7);
    auto const random = [&](U32 limit) { return static_cast<U32>(engine() % limit); };
    for (U32 const keys : {4u, 100u, 3000u}) {
        GradualMap<U32, U32> map;
        std::map<U32, U32> model;
        for (U32 i = 0; i < 20 * keys; ++i) {
            U32 const key = random(keys);
            if (random(3) != 0 && !model.contains(key)) {
                map.add(key, i);
                model[key] = i;
            } else {
                EXPECT_EQ(map.erase(key), model.erase(key) != 0);
            }
            U32 const other = random(keys);
            ASSERT_EQ(map.size(), model.size());
            ASSERT_EQ(map.find(other) != nullptr, model.contains(other));
            ASSERT_TRUE(!model.contains(other) || *map.find(other) == model[other]);
        }
        std::map<U32, U32> all;
        map.each([&](U32 key, U32 value) { EXPECT_TRUE(all.emplace(key, value).second); });
        EXPECT_EQ(all, model);
    }
}

TEST(GradualMapTest, HasAllWhileItGrowsAndIsDoneBeforeItGrowsAgain) {
    GradualMap<U32, U32> map;
    std::size_t growing = 0;
    for (U32 i = 0; i < 5000; ++i) {
        bool const isFull = map.size() >= 16 && (map.size() & (map.size() - 1)) == 0;
        EXPECT_FALSE(isFull && map.isGrowing()) << i;
        map.add(i, i);
        growing += map.isGrowing();
        for (U32 key = i % 7; key <= i; key += 7 + i / 16) ASSERT_TRUE(map.find(key)) << key << " of " << i;
    }
    EXPECT_GT(growing, 2000u);  // so that it is spread over half of all insertions
}

TEST(GradualMapTest, PointersAreKeysAndValuesStayWhereTheyAre) {
    GradualMap<int const*, std::unique_ptr<int>> map;
    std::vector<int> keys(1000);
    std::vector<std::unique_ptr<int>*> places;
    for (int const& key : keys) places.push_back(&map.add(&key, std::make_unique<int>(1)));
    for (std::size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(map.find(&keys[i]), places[i]);
}

// Of half a million buckets only those pages are cleared that are needed at once: 32 KiB at a time.
TEST(GradualMapTest, NoInsertionTakesMuchMemoryAtOnce) {
    GradualMap<U32, U32> map;
    std::size_t most = 0;  // bytes, and 1 MiB, for pages may be given back as well
    for (U32 i = 0; i < 300'000; ++i) {
        auto const before = mallinfo2();
        map.add(i, i);
        auto const after = mallinfo2();
        most = std::max(most, after.uordblks + after.hblkhd - before.uordblks - before.hblkhd + (1u << 20));
    }
    EXPECT_LE(most, (1u << 20) + 4 * (32u << 10));
    for (U32 i = 0; i < 300'000; ++i) ASSERT_TRUE(map.find(i) && *map.find(i) == i);
    for (U32 i = 0; i < 300'000; i += 2) ASSERT_TRUE(map.erase(i));
    EXPECT_EQ(map.size(), 150'000u);
}

struct Counted {
    explicit Counted(GradualMap<U32, std::unique_ptr<Counted>>& of) : map(of) {}
    ~Counted() { sizeAtEnd = map.size(); }
    GradualMap<U32, std::unique_ptr<Counted>>& map;
    static inline std::size_t sizeAtEnd;
};

TEST(GradualMapTest, IsInOrderWhenAValueIsDestroyed) {
    GradualMap<U32, std::unique_ptr<Counted>> map;
    for (U32 i = 0; i < 20; ++i) map.add(i, std::make_unique<Counted>(map));
    map.erase(3);
    EXPECT_EQ(Counted::sizeAtEnd, 19u);
    map.clear();
    EXPECT_EQ(Counted::sizeAtEnd, 0u);
    EXPECT_EQ(map.find(4), nullptr);
    map.add(4, nullptr);
    EXPECT_EQ(map.size(), 1u);
}

}  // namespace
