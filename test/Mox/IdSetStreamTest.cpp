#include "Mox/IdSet.h"

#include "SetTest.h"

#include "Vel/Exception.h"
#include "Vel/Module.h"

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

Vel::Checked<IdSet> readHex(std::string const& hex) { return Vel::checkedRead<IdSet>(bytesOf(hex)); }

// --- attribute log ---

TEST(IdSetStreamTest, EmptySetIsItsSizeAndTheEnd) {
    EXPECT_EQ(writtenHex(IdSet(10)), "000aff");
    EXPECT_EQ(writtenHex(IdSet()), "0000ff");
    EXPECT_EQ(IdSet(10).attrLogSize(), 3u);
}

TEST(IdSetStreamTest, EveryBucketIsItsKeyAndItsWord) {
    IdSet const set(100, {0, 64});
    EXPECT_EQ(writtenHex(set), "0064000000000000000001010000000000000001ff");
    EXPECT_EQ(set.attrLogSize(), 21u);
    EXPECT_EQ(Mox::attrLogSize(&set), 21u);
    EXPECT_EQ(Vel::typeOf<IdSet>().glue().attrLogSize(&set), 21u);
    IdSet bytes(65535);
    bytes.bucketIs(254, 0x0102030405060708);
    bytes.bucketIs(3, 0);
    EXPECT_EQ(writtenHex(bytes), "ffff030000000000000000fe0102030405060708ff");
}

TEST(IdSetStreamTest, WritingContinuesBehindWhatIsThere) {
    Vel::NboAttrLog::Out out;
    out << U8(7) << IdSet(10, 3) << U8(8);
    EXPECT_EQ(hexOf(out.bytes()), "07000a000000000000000008ff08");
}

TEST(IdSetStreamTest, Bucket255CannotBeWritten) {
    IdSet all;
    all.idSetAll();
    IdSet direct(10);
    direct.bucketIs(255, 0);
    IdSet aliased(65535, 32767);
    for (IdSet const& set : {IdSet(16384, 16320), IdSet(16384, 16383), all, direct, aliased}) {
        Vel::NboAttrLog::Out out;
        EXPECT_THROW(out << set, Vel::StreamException);
        EXPECT_EQ(out.size(), 0u);
    }
    EXPECT_EQ(writtenHex(IdSet(16384, 16319)), "4000fe8000000000000000ff");
}

TEST(IdSetStreamTest, BytesAreReadUpToTheEndMark) {
    auto const bytes = bytesOf("000a000000000000000008ff99");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(IdSet(&in, Vel::StreamBogon()), IdSet(10, 3));
    EXPECT_EQ(in.left(), 1u);
    EXPECT_FALSE(Vel::checkedRead<IdSet>(bytes));
}

TEST(IdSetStreamTest, WordsAreStoredAsTheyAreRead) {
    auto const set = readHex("000a00ffffffffffffffff070000000000000000fe0000000000000001ff");
    ASSERT_TRUE(set);
    EXPECT_EQ(set->size(), 10);
    EXPECT_EQ(wordsOf(*set), (Words{{0, allOnes}, {7, 0}, {254, 1}}));
    EXPECT_EQ(set->stringValue(), "(0-9)");
}

TEST(IdSetStreamTest, BucketsMayComeInAnyOrder) {
    auto const set = readHex("03e8050000000000000005020000000000000002fd0000000000000009030000000000000003ff");
    ASSERT_TRUE(set);
    EXPECT_EQ(wordsOf(*set), (Words{{2, 2}, {3, 3}, {5, 5}, {253, 9}}));
}

TEST(IdSetStreamTest, ABucketThatComesTwiceIsRefused) {
    for (auto const& hex : {"03e8050000000000000005050000000000000005ff", "03e8050000000000000000050000000000000000ff",
             "03e8010000000000000001020000000000000002010000000000000001ff"}) {
        EXPECT_FALSE(readHex(hex)) << hex;
        auto const bytes = bytesOf(hex);
        Vel::NboAttrLog::In in(bytes);
        EXPECT_THROW(IdSet(&in, Vel::StreamBogon()), Vel::StreamException) << hex;
    }
}

// The bytes of buckets 0 to 63, each with its number as the word; `change` changes the buckets' numbers.
template <class F> std::vector<U8> groupOf(F change) {
    std::vector<U8> keys(64);
    std::iota(keys.begin(), keys.end(), U8(0));
    change(keys);
    Vel::NboAttrLog::Out out;
    out << U16(16320);
    for (unsigned i = 0; i < keys.size(); ++i) out << keys[i] << U64(i);
    out << U8(255);
    return {out.bytes().begin(), out.bytes().end()};
}

TEST(IdSetStreamTest, EveryWordOfAFullGroupIsReadWhereItsBucketIs) {
    auto const ascending = Vel::checkedRead<IdSet>(groupOf([](auto&) {}));
    ASSERT_TRUE(ascending);
    auto const exchanged = Vel::checkedRead<IdSet>(groupOf([](auto& keys) { std::swap(keys[30], keys[31]); }));
    ASSERT_TRUE(exchanged);
    for (U8 b = 0; b < 64; ++b) {
        EXPECT_EQ(ascending->bucket(b), b);
        EXPECT_EQ(exchanged->bucket(b), b == 30 ? 31 : b == 31 ? 30 : b);
    }
}

TEST(IdSetStreamTest, ABucketThatComesTwiceInAFullGroupIsRefused) {
    EXPECT_FALSE(Vel::checkedRead<IdSet>(groupOf([](auto& keys) { keys[40] = 39; })));
    EXPECT_FALSE(Vel::checkedRead<IdSet>(groupOf([](auto& keys) { keys[1] = 63; })));
}

TEST(IdSetStreamTest, ABucketThatComesAgainBehindAFullGroupIsRefused) {
    auto bytes = groupOf([](auto&) {});
    bytes.insert(bytes.end() - 1, {63, 0, 0, 0, 0, 0, 0, 0, 1});
    EXPECT_FALSE(Vel::checkedRead<IdSet>(bytes));
    bytes[bytes.size() - 10] = 64;
    EXPECT_TRUE(Vel::checkedRead<IdSet>(bytes));
}

TEST(IdSetStreamTest, AFullGroupMayEndTheBytes) {
    auto bytes = groupOf([](auto&) {});
    bytes.pop_back();
    EXPECT_FALSE(Vel::checkedRead<IdSet>(bytes));
    bytes.pop_back();
    EXPECT_FALSE(Vel::checkedRead<IdSet>(bytes));
}

TEST(IdSetStreamTest, EveryShorterInputIsRefused) {
    auto const bytes = bytesOf("0064000000000000000001010000000000000001ff");
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        auto const read = Vel::checkedRead<IdSet>(std::span(bytes).first(size));
        ASSERT_FALSE(read) << size;
        EXPECT_LE(read.error().offset, size);
    }
    EXPECT_TRUE(Vel::checkedRead<IdSet>(bytes));
    EXPECT_EQ(
        readHex("0064000000").error().text, "the attribute log ends within U64 at offset 3: 8 bytes needed, 2 left");
}

TEST(IdSetStreamTest, EveryBucketThatCanBeIsReadBack) {
    IdSet set(16320);
    for (unsigned b = 0; b < 255; ++b) set.bucketIs(static_cast<U8>(b), b * 0x0123456789abcdefu);
    Vel::NboAttrLog::Out out;
    out << set;
    EXPECT_EQ(out.size(), 3u + 9 * 255);
    auto const read = Vel::checkedRead<IdSet>(out.bytes());
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, set);
}

TEST(IdSetStreamTest, AFailedReadByReflectionLeavesTheTargetAlone) {
    IdSet set(10, 3);
    auto const bytes = bytesOf("00640000000000000000010100");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_THROW(Vel::typeOf<IdSet>().glue().read(&set, in), Vel::StreamException);
    EXPECT_EQ(set, IdSet(10, 3));
}

// --- reflection ---

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

TEST(IdSetReflectionDeathTest, BrokenPreconditionsAbortByReflectionToo) {
    IdSet set(10);
    Id const key = 10;
    EXPECT_ABORT(keyedOp(set, 8, AttributeOp::del, nullptr, &key),
        explained(
            "bitPos.value() < size()", "id 10 exceeds limit of 10", "bool Mox::IdSet::updateId(Mox::Id, bool) &"));
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
