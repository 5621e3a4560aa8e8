#include "Vel/stream/internal/SlotSet.h"

#include <gtest/gtest.h>

namespace {

using Vel::U32;
using Vel::NboAttrLog::SlotSet;

SlotSet setOf(std::vector<U32> const& slots) {
    SlotSet set;
    for (U32 const slot : slots) set.add(slot);
    return set;
}

TEST(SlotSetTest, HasWhatWasAddedAndNotDeleted) {
    SlotSet set = setOf({0, 63, 64, 1000});
    for (U32 const slot : {0u, 63u, 64u, 1000u}) EXPECT_TRUE(set.has(slot)) << slot;
    for (U32 const slot : {1u, 62u, 65u, 999u, 1001u, 100'000u}) EXPECT_FALSE(set.has(slot)) << slot;
    set.del(63);
    set.del(100'000);
    EXPECT_FALSE(set.has(63));
    EXPECT_TRUE(set.has(64));
    set.clear();
    EXPECT_FALSE(set.has(0));
}

TEST(SlotSetTest, DifferenceIsInOrderAndMayBeLeftEarly) {
    SlotSet const set = setOf({200, 3, 64, 5}), other = setOf({5, 6});
    std::vector<U32> seen;
    set.eachNotIn(other, [&](U32 slot) {
        seen.push_back(slot);
        return false;
    });
    EXPECT_EQ(seen, (std::vector<U32>{3, 64, 200}));
    seen.clear();
    set.eachNotIn(other, [&](U32 slot) {
        seen.push_back(slot);
        return slot == 64;
    });
    EXPECT_EQ(seen, (std::vector<U32>{3, 64}));
    EXPECT_EQ(set.firstNotIn(other), 3u);
    EXPECT_EQ(other.firstNotIn(setOf({5, 6, 7})), SlotSet::none);
}

}  // namespace
