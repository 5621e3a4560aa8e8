#include "Mox/IdSet.h"

#include "SetTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <numeric>
#include <set>
#include <utility>
#include <vector>

namespace {

using Mox::BucketId;
using Mox::Id;
using Mox::IdSet;
using Vel::AttributeOp;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

TEST(IdSetReflectionTest, AttributesAreListed) {
    EXPECT_EQ(spelledAttributes<IdSet>(),
        (std::vector<std::string>{"2 size derived ops 0 type U16", "3 initialId ctorParam type Mox::Id",
            "4 bucket collection ops 0 1 2 3 4 5 type U64 key Mox::BucketId", "5 maxBuckets declared",
            "6 updateBucket declared", "7 updateId declared", "8 id collection ops 0 1 2 5 type bool key Mox::Id",
            "9 ids method ops 10 result U16", "10 idSetAll method ops 10",
            "11 idSetRange method ops 10 (begin Mox::Id, end Mox::Id)", "12 firstId method ops 10 result Mox::Id",
            "13 nextId method ops 10 result Mox::Id (bitPos Mox::Id)",
            "14 stringValue method ops 10 result Vel::String",
            "15 handleInitialized method ops 10 (initialId Mox::Id)"}));
    EXPECT_EQ(valueOps<IdSet>(), (std::vector<U32>{11, 12, 13, 15, 18, 19, 20, 21}));
    EXPECT_TRUE(Vel::typeOf<IdSet>().isHashable());
    EXPECT_FALSE(Vel::typeOf<IdSet>().hasFixedEncodedSize());
    EXPECT_EQ(Vel::typeOf<IdSet>().moduleName(), "IdSet");
}

TEST(IdSetReflectionTest, SizeIsReadOnly) {
    IdSet set(10);
    U16 size = 0;
    EXPECT_EQ(attributeOp(set, 2, AttributeOp::get, &size), 0);
    EXPECT_EQ(size, 10);
    EXPECT_EQ(attributeOp(set, 2, AttributeOp::set, nullptr, &size), 1);
}

TEST(IdSetReflectionTest, BucketsAreACollection) {
    IdSet set(200, 64);
    BucketId key = 1;
    U64 word = 9;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::get, &word, &key), 0);
    EXPECT_EQ(word, 1u);
    key = 2;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::get, &word, &key), 0);
    EXPECT_EQ(word, 0u);
    bool exists = true;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::exists, &exists, &key), 0);
    EXPECT_FALSE(exists);
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::set, nullptr, &key, &word), 0);  // an empty word
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::exists, &exists, &key), 0);
    EXPECT_TRUE(exists);
    EXPECT_EQ(wordsOf(set), (Words{{1, 1}, {2, 0}}));
}

TEST(IdSetReflectionTest, BucketsAreCountedAndDeleted) {
    IdSet set(200, {64, 130});
    U32 count = 0;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::count, &count, nullptr), 0);
    EXPECT_EQ(count, 2u);
    U32 before = 0;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::changeCounter, &before, nullptr), 0);
    BucketId const key = 2;
    U64 word = 0;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::del, &word, &key), 0);
    EXPECT_EQ(word, 4u);
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::del, &word, &key), 0);
    EXPECT_EQ(word, 0u);
    U32 after = 0;
    EXPECT_EQ(keyedOp(set, 4, AttributeOp::changeCounter, &after, nullptr), 0);
    EXPECT_NE(after, before);
    EXPECT_EQ(after, set.bucketChangeCounter());
    EXPECT_EQ(set, IdSet(200, 64));
}

TEST(IdSetReflectionTest, MembersAreACollection) {
    IdSet set(10, {2, 7});
    Id key = 7;
    bool result = false;
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::get, &result, &key), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::exists, &result, &key), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::del, &result, &key), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::del, &result, &key), 0);
    EXPECT_FALSE(result);
    key = 4;
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::exists, &result, &key), 0);
    EXPECT_FALSE(result);
    bool const on = true;
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::set, nullptr, &key, &on), 0);
    EXPECT_EQ(set, IdSet(10, {2, 4}));
    key = Id();
    result = true;
    EXPECT_EQ(keyedOp(set, 8, AttributeOp::exists, &result, &key), 0);
    EXPECT_FALSE(result);
}

TEST(IdSetReflectionTest, BucketsAreWalkedInAscendingOrder) {
    IdSet set(300, {2, 70, 299});
    auto const iterator = Vel::typeOf<IdSet>().attributeOfId(4)->iterator(&set);
    std::vector<std::pair<U8, U64>> seen;
    for (; iterator->exists(); iterator->next()) {
        BucketId key;
        U64 word = 0;
        iterator->key(&key);
        iterator->object(&word);
        seen.emplace_back(key.value(), word);
    }
    EXPECT_EQ(seen, (std::vector<std::pair<U8, U64>>{{0, 4}, {1, 1 << 6}, {4, U64(1) << 43}}));
}

TEST(IdSetReflectionTest, DeletingAtTheIteratorRemovesThatBucket) {
    IdSet set(300, {2, 70, 299});
    auto const iterator = Vel::typeOf<IdSet>().attributeOfId(4)->iterator(&set);
    iterator->next();
    EXPECT_TRUE(iterator->del());
    EXPECT_EQ(set, IdSet(300, {2, 299}));
    iterator->next();
    BucketId key;
    iterator->key(&key);
    EXPECT_EQ(key, BucketId(4));
}

TEST(IdSetReflectionTest, MembersAreWalkedButNotDeletedOnTheWay) {
    IdSet set(300, {2, 70});
    auto const iterator = Vel::typeOf<IdSet>().attributeOfId(8)->iterator(&set);
    Id key;
    bool member = false;
    iterator->key(&key);
    iterator->object(&member);
    EXPECT_EQ(key, Id(2));
    EXPECT_TRUE(member);
    EXPECT_FALSE(iterator->del());
    iterator->next();
    iterator->key(&key);
    EXPECT_EQ(key, Id(70));
    iterator->next();
    EXPECT_FALSE(iterator->exists());
    EXPECT_EQ(set, IdSet(300, {2, 70}));
}

TEST(IdSetReflectionTest, WhatIsNoCollectionIsNotWalked) {
    IdSet set(300);
    EXPECT_EQ(Vel::typeOf<IdSet>().attributeOfId(2)->iterator(&set), nullptr);
}

TEST(IdSetReflectionDeathTest, BrokenPreconditionsAbortByReflectionToo) {
    IdSet set(10);
    Id const key = 10;
    EXPECT_ABORT(keyedOp(set, 8, AttributeOp::del, nullptr, &key),
        explained(
            "bitPos.value() < size()", "id 10 exceeds limit of 10", "bool Mox::IdSet::updateId(Mox::Id, bool) &"));
    auto const iterator = Vel::typeOf<IdSet>().attributeOfId(8)->iterator(&set);
    Id at;
    EXPECT_ABORT(iterator->key(&at), "curId_ != Id::null\\(\\)");
    EXPECT_ABORT(call(set, 11, nullptr, Id(5), Id(5)),
        explained("begin.value() < end.value()", "range should be of at least length 1",
            "void Mox::IdSet::idSetRange(Mox::Id, Mox::Id) &"));
}

TEST(IdSetReflectionTest, FunctionsAreCalled) {
    IdSet set(100);
    EXPECT_EQ(call(set, 11, nullptr, Id(60), Id(66)), 0);
    EXPECT_EQ(set, IdSet(100, {60, 61, 62, 63, 64, 65}));
    U16 count = 0;
    EXPECT_EQ(call(set, 9, &count), 0);
    EXPECT_EQ(count, 6);
    Id id;
    EXPECT_EQ(call(set, 12, &id), 0);
    EXPECT_EQ(id, Id(60));
    EXPECT_EQ(call(set, 13, &id, Id(63)), 0);
    EXPECT_EQ(id, Id(64));
    EXPECT_EQ(call(set, 15, nullptr, Id(99)), 0);
    EXPECT_EQ(call(set, 15, nullptr, Id()), 0);
    EXPECT_TRUE(set.id(99));
    Vel::String text;
    EXPECT_EQ(call(set, 14, &text), 0);
    EXPECT_EQ(text, "(60-65,99)");
    EXPECT_EQ(call(set, 10, nullptr), 0);
    EXPECT_EQ(set.ids(), 100);
}

TEST(IdSetReflectionTest, OtherOperationsAreRefused) {
    std::map<Vel::AttributeId, std::set<U32>> const answered{{2, {0}}, {3, {}}, {4, {0, 1, 2, 3, 4, 5}}, {5, {}},
        {6, {}}, {7, {}}, {8, {0, 1, 2, 5}}, {9, {10}}, {10, {10}}, {11, {10}}, {12, {10}}, {13, {10}}, {14, {10}},
        {15, {10}}};
    std::set<U32> const ofValue{11, 12, 13, 15, 18, 19, 20, 21};
    IdSet set(10, 3);
    for (U32 op = 0; op < 40; ++op) {
        for (auto const& [id, ops] : answered)
            if (!ops.contains(op)) {
                EXPECT_EQ(attributeOp(set, id, AttributeOp(op)), 1) << id << " " << op;
            }
        for (Vel::AttributeId const id : {0u, 1u, 16u, 17u})
            EXPECT_EQ(attributeOp(set, id, AttributeOp(op)), 2) << id << " " << op;
        if (!ofValue.contains(op)) {
            EXPECT_EQ(valueOp(set, AttributeOp(op), nullptr, &set), 1) << op;
        }
    }
    EXPECT_EQ(set, IdSet(10, 3));
}

TEST(IdSetReflectionTest, TruthIsBeingOtherThanTheDefault) {
    IdSet stored;
    stored.bucketIs(0, 0);
    for (auto const& [value, expected] :
        {std::pair(IdSet(), false), std::pair(IdSet(1), true), std::pair(stored, true)}) {
        IdSet set = value;
        bool result = !expected;
        EXPECT_EQ(valueOp(set, AttributeOp::truth, &result), 0);
        EXPECT_EQ(result, expected);
    }
}

TEST(IdSetReflectionTest, ValuesAreComparedAndCombined) {
    IdSet a(100, {1, 2, 70});
    IdSet const b(100, {2, 3});
    bool result = true;
    EXPECT_EQ(valueOp(a, AttributeOp::equal, &result, &b), 0);
    EXPECT_FALSE(result);
    EXPECT_EQ(valueOp(a, AttributeOp::less, &result, &b), 0);
    EXPECT_FALSE(result);  // it has more buckets
    IdSet set;
    for (auto const& [op, expected] : {std::pair(15u, IdSet(100, {1, 70})), std::pair(18u, IdSet(100, {2})),
             std::pair(19u, IdSet(100, {1, 2, 3, 70})), std::pair(20u, IdSet(100, {1, 3, 70})), std::pair(21u, ~a)}) {
        EXPECT_EQ(Vel::typeOf<IdSet>().glue().genericIfAttributeOp(&set, &a, {}, AttributeOp(op), &b, nullptr), 0)
            << op;
        EXPECT_EQ(set, expected) << op;
    }
    EXPECT_EQ(a, IdSet(100, {1, 2, 70}));
}

TEST(IdSetReflectionTest, IsConstructedFromNothingACopyOrItsArguments) {
    auto const type = Vel::typeOf<IdSet>();
    IdSet const source(300, {1, 100, 200, 299});
    alignas(IdSet) unsigned char memory[sizeof(IdSet)];
    auto* const set = reinterpret_cast<IdSet*>(memory);
    type.glue().genericIfConstruct(memory, nullptr);
    EXPECT_EQ(*set, IdSet());
    type.glue().genericIfDestruct(memory);
    type.glue().genericIfConstruct(memory, &source);
    EXPECT_EQ(*set, source);
    type.glue().genericIfDestruct(memory);
    U16 const size = 10;
    Id const initialId = 3;
    void const* const arguments[] = {&size, &initialId};
    type.glue().genericIfConstructFromCtorArgs(memory, arguments);
    EXPECT_EQ(*set, IdSet(10, 3));
    type.glue().genericIfDestruct(memory);
}

}  // namespace
