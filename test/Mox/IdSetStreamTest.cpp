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

TEST(IdSetStreamTest, TheLastBucketOfAFullGroupIsNotTakenForGranted) {
    EXPECT_FALSE(Vel::checkedRead<IdSet>(groupOf([](auto& keys) { keys[63] = 62; })));
    auto const read = Vel::checkedRead<IdSet>(groupOf([](auto& keys) { keys[63] = 70; }));
    ASSERT_TRUE(read);
    EXPECT_FALSE(read->bucketExists(Mox::BucketId(63)));
    EXPECT_EQ(read->bucket(70), 63u);
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

}  // namespace
