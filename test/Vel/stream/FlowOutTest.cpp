#include "Vel/stream/FlowOut.h"

#include "test/Vel/describe/Fixtures.h"

#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Vel::AttributeId;
using Vel::NboAttrLog::FlowOut;

constexpr AttributeId entries = 258;  // the collection of a directory
constexpr AttributeId none = 300;     // which no type here has

class FlowOutTest : public testing::Test {
protected:
    FlowOut dir{Vel::typeOf<Vel::Dir>().glue().stream(), FlowOut::fromEnd};
    FlowOut leaf{Vel::typeOf<Fixture::Leaf>().glue().stream(), FlowOut::fromEnd};
};

TEST_F(FlowOutTest, ValueIsFlaggedOnce) {
    EXPECT_TRUE(leaf.isClean());
    EXPECT_TRUE(leaf.velIsDirtyIs(259, true));
    EXPECT_FALSE(leaf.velIsDirtyIs(259, true));
    EXPECT_TRUE(leaf.velIsDirty(259));
    EXPECT_FALSE(leaf.velIsDirty(258));
    EXPECT_FALSE(leaf.isClean());
    EXPECT_TRUE(leaf.velIsDirtyIs(259, false));
    EXPECT_TRUE(leaf.isClean());
}

TEST_F(FlowOutTest, AttributeThatTheTypeHasNotIsNeverFlagged) {
    EXPECT_FALSE(leaf.velIsDirtyIs(none, true));
    EXPECT_FALSE(leaf.velIsDirty(none));
    EXPECT_FALSE(leaf.velHasSynced(none));
    EXPECT_TRUE(leaf.isClean());
}

TEST_F(FlowOutTest, KeysAreFlaggedUntilTheyAreTakenOrDeleted) {
    EXPECT_TRUE(dir.velKeyIsDirtyIs(entries, "a", false));
    EXPECT_FALSE(dir.velKeyIsDirtyIs(entries, "a", false));
    EXPECT_TRUE(dir.velKeyIsDirtyIs(entries, "b", false));
    EXPECT_TRUE(dir.velKeyIsDirty(entries, "a"));
    EXPECT_FALSE(dir.velKeyIsDirty(entries, "c"));
    EXPECT_FALSE(dir.velKeyIsDirty(none, "a"));
    EXPECT_EQ(dir.velDirtyKeys(entries), 2u);
    EXPECT_EQ(dir.velDirtyKeys(none), 0u);
    dir.velDirtyKeyDel(none, "a");
    dir.velDirtyKeyDel(entries, "c");
    EXPECT_EQ(dir.velDirtyKeys(entries), 2u);
    dir.velDirtyKeyDel(entries, "a");
    EXPECT_EQ(dir.velDirtyKeyTake(entries).key, "b");
    EXPECT_FALSE(dir.velHasDirtyKeys());
    dir.velKeyIsDirtyIs(entries, "a", false);
    dir.velDirtyKeyDel(entries, "a");
    EXPECT_TRUE(dir.isClean());
}

// Its member has gone, and what came meanwhile may change as often as it will.
TEST_F(FlowOutTest, EphemeralKeyStaysSo) {
    for (bool const ephemeral : {false, true, false}) dir.velKeyIsDirtyIs(entries, "a", ephemeral);
    auto const [key, ephemeral] = dir.velDirtyKeyTake(entries);
    EXPECT_EQ(key, "a");
    EXPECT_TRUE(ephemeral);
}

TEST_F(FlowOutTest, CollectionThatComesAgainHasNoFlagsOfKeys) {
    EXPECT_TRUE(dir.velHasSynced(entries));
    EXPECT_FALSE(dir.velComesAgain(entries));
    dir.velComesAgainIs(entries, false);
    dir.velKeyIsDirtyIs(entries, "a", false);
    dir.velComesAgainIs(entries, true);
    EXPECT_TRUE(dir.velComesAgain(entries));
    EXPECT_FALSE(dir.velComesAgain(none));
    EXPECT_FALSE(dir.velHasSynced(entries));
    EXPECT_FALSE(dir.velHasDirtyKeys(entries));
    dir.velComesAgainIs(entries, false);
    EXPECT_FALSE(dir.velComesAgain(entries));
}

TEST_F(FlowOutTest, CollectionThatComesAgainLosesItsOwnBookmarkOnly) {
    for (AttributeId const stopped : {none, entries}) {
        dir.resumeIdIs(stopped);
        dir.bookmarkIs(std::make_unique<Vel::NboAttrLog::velFlowOutBookmarkDeq<Vel::String>>());
        dir.velComesAgainIs(entries, true);
        EXPECT_EQ(dir.bookmark() != nullptr, stopped == none);
    }
}

TEST_F(FlowOutTest, MembersAreCountedAgainOnlyWhenThereAreTwiceAsManyFlags) {
    int counted = 0;
    auto const members = [&] { return ++counted, std::size_t(100); };
    auto const flag = [&](std::size_t to) {
        for (std::size_t i = dir.velDirtyKeys(entries); i < to; ++i)
            dir.velKeyIsDirtyIs(entries, std::to_string(i), false);
        return dir.velHasTooManyKeys(entries, members);
    };
    EXPECT_FALSE(flag(64));
    EXPECT_EQ(counted, 0);
    EXPECT_FALSE(flag(65));
    EXPECT_EQ(counted, 1);
    EXPECT_FALSE(flag(130));
    EXPECT_EQ(counted, 1);
    EXPECT_TRUE(flag(131));
    EXPECT_EQ(counted, 2);
}

}  // namespace
