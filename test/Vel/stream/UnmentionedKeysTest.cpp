#include "Vel/stream/internal/UnmentionedKeys.h"

#include "StreamTools.h"
#include "ValueTable.h"

namespace {

using StreamTest::ValueTable;
using Vel::UnmentionedKeys;
using Keys = UnmentionedKeys::Keys;

// Of the collection "mark" of entity 1, whose keys are bytes.
class UnmentionedKeysTest : public testing::Test {
protected:
    UnmentionedKeysTest() {
        for (Vel::U8 key = 1; key <= 3; ++key) table->markIs(key, 7);
    }
    Vel::ReplicaPlace place(std::string const& key = {}) {
        text = key;
        Vel::ReplicaPlace result{1, table, table->fwkType().glue().stream().find(ValueTable::markAttribute)};
        result.keyTextIs(text);
        return result;
    }
    std::map<std::pair<Vel::EntityId, Vel::AttributeId>, Keys> taken() {
        std::map<std::pair<Vel::EntityId, Vel::AttributeId>, Keys> all;
        keys.take([&](Vel::EntityId id, Vel::AttributeId attribute, Keys const& left) { all[{id, attribute}] = left; });
        return all;
    }

    Vel::Ptr<ValueTable> table = ValueTable::newEntity("t");
    UnmentionedKeys keys;
    std::string text;
};

TEST_F(UnmentionedKeysTest, WhatIsMentionedIsNotLeft) {
    keys.of(1, ValueTable::markAttribute) = {"\1", "\2"};
    keys.mentioned(place("\1"), true);
    keys.mentioned(place("\3"), true);
    EXPECT_FALSE(keys.comesAgain(place()));
    auto const left = taken();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left.begin()->second, Keys{"\2"});
    EXPECT_TRUE(taken().empty()) << "they are taken once";
}

TEST_F(UnmentionedKeysTest, CollectionThatComesAgainHasAllThatIsThere) {
    keys.beginAgain(place());
    EXPECT_TRUE(keys.comesAgain(place()));
    keys.mentioned(place("\2"), true);
    EXPECT_EQ(keys.endAgain(place()), (Keys{"\1", "\3"}));
    EXPECT_FALSE(keys.comesAgain(place()));
}

TEST_F(UnmentionedKeysTest, BeginningAgainAsksForWhatWasMentionedOnceMore) {
    keys.beginAgain(place());
    keys.mentioned(place("\2"), true);
    keys.mentioned(place("\3"), true);
    keys.mentioned(place("\3"), false);  // and has gone
    keys.beginAgain(place());
    EXPECT_EQ(keys.endAgain(place()), (Keys{"\1", "\2"}));
}

TEST_F(UnmentionedKeysTest, EntityThatGoesTakesItsKeysAlong) {
    keys.of(1, 258) = {"a"};
    keys.of(2, 258) = {"a"};
    keys.of(2, 259) = {"a"};
    keys.of(3, 258) = {"a"};
    keys.gone(2);
    EXPECT_EQ(taken().size(), 2u);
}

}  // namespace
