#include "Mox/IdSet.h"

#include "SetTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <ranges>
#include <set>
#include <sstream>
#include <unordered_set>
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

// --- ids and bucket ids ---

TEST(IdTest, DefaultIsNull) {
    static_assert(Id::null() == 65535);
    EXPECT_EQ(Id().value(), 65535);
    EXPECT_EQ(Id(65534).value(), 65534);
    EXPECT_EQ(BucketId().value(), 0);
}

TEST(IdTest, ValuesCanBeSetAndCompared) {
    Id id = 5;
    id.valueIs(7);
    EXPECT_EQ(id, Id(7));
    EXPECT_LT(Id(7), Id(8));
    BucketId bucket = 5;
    bucket.valueIs(255);
    EXPECT_EQ(bucket, BucketId(255));
    EXPECT_LT(BucketId(7), BucketId(8));
}

TEST(IdTest, TruthIsBeingOtherThanNull) {
    for (auto const& [value, expected] : {std::pair(0, true), std::pair(65534, true), std::pair(65535, false)}) {
        Id id = static_cast<U16>(value);
        bool result = !expected;
        EXPECT_EQ(valueOp(id, AttributeOp::truth, &result), 0);
        EXPECT_EQ(result, expected) << value;
    }
}

TEST(IdTest, TextIsTheNumberAlone) {
    EXPECT_EQ(Mox::valueToStrep(Id()), "65535");
    EXPECT_EQ(Mox::valueToStrep(BucketId(65)), "65");
    std::ostringstream out;
    out << Id(65) << " " << BucketId(65) << std::hex << std::setw(4) << BucketId(65);
    EXPECT_EQ(out.str(), "65 65  41");
    EXPECT_EQ(Vel::strepToValue<Id>("65535", nullptr), Id());
    EXPECT_EQ(Vel::strepToValue<BucketId>("255", nullptr), BucketId(255));
    EXPECT_EQ(
        parseError<Id>("65536"), "attribute \"value\": expected a number from 0 to 65535 at offset 0, at '65536'");
    EXPECT_EQ(
        parseError<BucketId>("256"), "attribute \"value\": expected a number from 0 to 255 at offset 0, at '256'");
    EXPECT_EQ(parseError<Id>("7x"), "expected the end of the text at offset 1, at 'x'");
}

TEST(IdTest, BytesAreOneItem) {
    EXPECT_EQ(writtenHex(Id(0x1234)), "1234");
    EXPECT_EQ(writtenHex(BucketId(0x12)), "12");
    auto const bytes = bytesOf("fffe80");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(Id(&in, Vel::StreamBogon()), Id(65534));
    EXPECT_EQ(BucketId(&in, Vel::StreamBogon()), BucketId(128));
    EXPECT_THROW(BucketId(&in, Vel::StreamBogon()), Vel::StreamException);
}

TEST(IdTest, HashIsOfASingleAttribute) {
    EXPECT_EQ(Id().hash(0), 1785381134u);
    EXPECT_EQ(Id(258).hash(0), 3591632898u);
    EXPECT_EQ(BucketId(0).hash(0), 5961666u);
    EXPECT_EQ(BucketId(255).hash(0), 2775574394u);
    Id const id = 258;
    BucketId const bucket = 255;
    EXPECT_EQ(Vel::typeOf<Id>().glue().genericIfHash(&id, Vel::typeOf<Id>()), 3591632898u);
    EXPECT_EQ(Vel::typeOf<BucketId>().glue().genericIfHash(&bucket, Vel::typeOf<BucketId>()), 2775574394u);
    EXPECT_EQ(std::unordered_set<Id>({Id(1), Id(1), Id(2)}).size(), 2u);
    EXPECT_EQ(std::unordered_set<BucketId>({BucketId(1), BucketId(1), BucketId(2)}).size(), 2u);
}

TEST(IdTest, AttributesAreListed) {
    EXPECT_EQ(spelledAttributes<Id>(),
        (std::vector<std::string>{"2 value field ops 0 1 type U16", "3 null constant ops 0 type U16"}));
    EXPECT_EQ(spelledAttributes<BucketId>(), (std::vector<std::string>{"2 value field ops 0 1 type U8"}));
    EXPECT_EQ(valueOps<Id>(), (std::vector<U32>{11, 12}));
    EXPECT_EQ(valueOps<BucketId>(), (std::vector<U32>{11, 12}));
    EXPECT_EQ(Vel::typeOf<Id>().encodedSize(), 2u);
    EXPECT_EQ(Vel::typeOf<BucketId>().encodedSize(), 1u);
}

TEST(IdTest, IsConstructedByItsGlue) {
    auto const& glue = Vel::typeOf<Id>().glue();
    Id id = 5;
    glue.genericIfConstruct(&id, nullptr);
    EXPECT_EQ(id, Id());
    U16 const value = 77;
    void const* const arguments[] = {&value};
    glue.genericIfConstructFromCtorArgs(&id, arguments);
    EXPECT_EQ(id, Id(77));
    BucketId bucket = 5;
    Vel::typeOf<BucketId>().glue().genericIfConstruct(&bucket, nullptr);
    EXPECT_EQ(bucket, BucketId(0));
}

// --- construction ---

TEST(IdSetStorageTest, DefaultHasSize0AndNoBuckets) {
    IdSet const set;
    EXPECT_EQ(set.size(), 0);
    EXPECT_EQ(set.buckets(), 0u);
    EXPECT_FALSE(set);
    EXPECT_TRUE(IdSet(1));
}

TEST(IdSetStorageTest, SizeIsTruthAndSoIsABucket) {
    IdSet set;
    set.bucketIs(0, 0);
    EXPECT_TRUE(set);
    set.bucketDel(BucketId(0));
    EXPECT_FALSE(set);
    EXPECT_TRUE(IdSet(10));
}

TEST(IdSetStorageTest, MaxBucketsIsTheSizeDividedBy64RoundedUp) {
    for (auto const& [size, expected] :
        {std::pair(0, 0u), std::pair(1, 1u), std::pair(63, 1u), std::pair(64, 1u), std::pair(65, 2u),
            std::pair(16320, 255u), std::pair(16321, 256u), std::pair(16384, 256u), std::pair(65535, 1024u)})
        EXPECT_EQ(IdSet(static_cast<U16>(size)).maxBuckets(), expected) << size;
}

TEST(IdSetStorageTest, InitialIdIsTheFirstMember) {
    EXPECT_EQ(wordsOf(IdSet(10, Id())), Words());
    EXPECT_EQ(wordsOf(IdSet(10, 3)), (Words{{0, 8}}));
    EXPECT_EQ(wordsOf(IdSet(200, 130)), (Words{{2, 4}}));
}

TEST(IdSetStorageTest, InitialisationAddsAnIdUnlessItIsNull) {
    IdSet set(100, 3);
    set.handleInitialized(Id());
    EXPECT_EQ(set, IdSet(100, 3));
    set.handleInitialized(64);
    EXPECT_EQ(membersOf(set), (std::vector<unsigned>{3, 64}));
}

TEST(IdSetStorageTest, IsMadeOfIdsInAnyOrder) {
    EXPECT_EQ(membersOf(IdSet(100, {64, 5, 5, 0})), (std::vector<unsigned>{0, 5, 64}));
    EXPECT_EQ(membersOf(IdSet(100, std::vector<U16>{9, 8})), (std::vector<unsigned>{8, 9}));
    EXPECT_EQ(membersOf(IdSet(100, std::set<Id>{Id(1), Id(2)})), (std::vector<unsigned>{1, 2}));
}

TEST(IdSetStorageDeathTest, InitialIdBeyondTheSizeAborts) {
    auto const expected =
        explained("bitPos.value() < size()", "id 10 exceeds limit of 10", "bool Mox::IdSet::updateId(Mox::Id, bool) &");
    EXPECT_ABORT(IdSet(10, 10), expected);
    EXPECT_ABORT(IdSet(10, {1, 10}), expected);
    IdSet set(10);
    EXPECT_ABORT(set.handleInitialized(10), expected);
}

// --- buckets ---

TEST(IdSetStorageTest, BucketsAreWordsByKey) {
    IdSet set(1000);
    EXPECT_EQ(set.bucket(3), 0u);
    EXPECT_FALSE(set.bucketExists(3));
    set.bucketIs(3, 12);
    EXPECT_EQ(set.bucket(3), 12u);
    set.bucketIs(3, 9);
    EXPECT_EQ(set.bucket(3), 9u);
    EXPECT_EQ(set.buckets(), 1u);
    EXPECT_EQ(set.bucketDel(BucketId(3)), 9u);
    EXPECT_EQ(set.bucketDel(BucketId(3)), 0u);
    EXPECT_EQ(set.buckets(), 0u);
}

TEST(IdSetStorageTest, BucketsBeyondTheSizeAreStoredAsGiven) {
    IdSet set(10);
    set.bucketIs(0, allOnes);
    set.bucketIs(255, 7);
    EXPECT_EQ(wordsOf(set), (Words{{0, allOnes}, {255, 7}}));
    EXPECT_EQ(set.ids(), 67);
}

TEST(IdSetStorageTest, EmptyWordGivenDirectlyIsStored) {
    IdSet set(1000);
    set.bucketIs(2, 0);
    EXPECT_TRUE(set.bucketExists(2));
    EXPECT_EQ(set.buckets(), 1u);
    EXPECT_EQ(set.ids(), 0);
    EXPECT_TRUE(membersOf(set).empty());
    EXPECT_FALSE(set == IdSet(1000));
    EXPECT_NE(set.hash(0), IdSet(1000).hash(0));
    set.bucketIs(3, 5);
    set.bucketIs(3, 0);
    EXPECT_EQ(wordsOf(set), (Words{{2, 0}, {3, 0}}));
}

TEST(IdSetStorageTest, UpdateKeepsNoEmptyWord) {
    IdSet set(1000);
    set.updateBucket(2, 0);
    EXPECT_EQ(set, IdSet(1000));
    set.updateBucket(2, 6);
    EXPECT_EQ(set.bucket(2), 6u);
    set.updateBucket(2, 0);
    EXPECT_EQ(set, IdSet(1000));
    set.bucketIs(2, 0);
    set.updateBucket(2, 0);
    EXPECT_EQ(set, IdSet(1000));
}

TEST(IdSetStorageTest, LastMemberTakesItsBucketAlong) {
    IdSet set(100, 70);
    set.idDel(70);
    EXPECT_EQ(set, IdSet(100));
    set.bucketIs(0, 0);
    set.idDel(5);  // which was no member
    EXPECT_EQ(set, IdSet(100));
}

TEST(IdSetStorageTest, AllBucketsGoAtOnce) {
    IdSet set(10000);
    for (U8 b = 0; b < 100; ++b) set.bucketIs(b, b);
    set.bucketDelAll();
    EXPECT_EQ(set, IdSet(10000));
    EXPECT_EQ(set.allocatedBytes(), 0u);
}

TEST(IdSetStorageTest, ChangeCounterMovesWhenABucketComesOrGoes) {
    IdSet set(1000);
    auto const first = set.bucketChangeCounter();
    set.bucketIs(2, 1);
    auto const second = set.bucketChangeCounter();
    EXPECT_NE(second, first);
    set.bucketDel(BucketId(2));
    EXPECT_NE(set.bucketChangeCounter(), second);
}

TEST(IdSetStorageTest, BucketIteratorHandsOutElements) {
    IdSet set(1000);
    set.bucketIs(7, 70);
    set.bucketIs(2, 20);
    auto iterator = set.bucketIterator();
    ASSERT_TRUE(iterator);
    EXPECT_EQ(iterator.key(), BucketId(2));
    EXPECT_EQ(iterator.word(), 20u);
    Vel::Ptr<IdSet::VelBucket> const held = *iterator;
    ++iterator;
    EXPECT_EQ(iterator.key(), BucketId(7));
    ++iterator;
    EXPECT_FALSE(iterator);
    EXPECT_FALSE(*iterator);
    set.bucketDelAll();
    EXPECT_EQ(held->key(), BucketId(2));
    EXPECT_EQ(held->word(), 20u);
}

TEST(IdSetStorageTest, ElementsThatIteratorsHandOutAreTracked) {
    IdSet set(1000);
    for (U8 const b : {U8(1), U8(2), U8(3)}) set.bucketIs(b, b);
    auto const& info = IdSet::VelBucket::velAllocTrack();
    EXPECT_STREQ(info.typeName(), "Mox::IdSet::VelBucket");
    auto const live = info.live();
    auto const bytes = info.liveBytes();
    {
        auto iterator = set.bucketIterator();
        EXPECT_EQ(info.live(), live + 1);
        EXPECT_EQ(info.liveBytes(), bytes + sizeof(IdSet::VelBucket));
        Vel::Ptr<IdSet::VelBucket> const held = *iterator;
        ++iterator;
        EXPECT_EQ(info.live(), live + 2);
    }
    EXPECT_EQ(info.live(), live);
    EXPECT_EQ(info.liveBytes(), bytes);
    bool listed = false;
    Vel::AllocTrackTypeInfo::visitAll([&](auto const& one) { listed = listed || &one == &info; });
    EXPECT_TRUE(listed);
}

TEST(IdSetStorageTest, ElementNobodyHoldsServesTheWholeWalk) {
    IdSet set(1000);
    for (U8 const b : {U8(1), U8(2), U8(3)}) set.bucketIs(b, b);
    auto const& info = IdSet::VelBucket::velAllocTrack();
    auto const before = info.allocations();
    unsigned buckets = 0;
    for (auto iterator = set.bucketIterator(); iterator; ++iterator) EXPECT_EQ(iterator.word(), ++buckets);
    EXPECT_EQ(info.allocations(), before + 1);
    auto one = set.bucketIterator();
    auto another = one;  // holds the same element
    ++one;
    EXPECT_EQ(another.key(), BucketId(1));
    EXPECT_EQ(one.key(), BucketId(2));
}

TEST(IdSetStorageTest, BucketIsDeletedWhereAnIteratorStands) {
    IdSet set(1000);
    for (U8 const b : {U8(1), U8(2), U8(255)}) set.bucketIs(b, b);
    auto iterator = set.bucketIterator();
    ++iterator;
    EXPECT_EQ(set.bucketDel(iterator), 2u);
    EXPECT_EQ(wordsOf(set), (Words{{1, 1}, {255, 255}}));
    ++iterator;
    EXPECT_EQ(iterator.key(), BucketId(255));
    ++iterator;
    EXPECT_FALSE(iterator);
}

TEST(IdSetStorageTest, IdsFrom16384UpShareBuckets) {
    IdSet set(20000);
    EXPECT_FALSE(set.updateId(16389, true));
    EXPECT_TRUE(set.id(5));
    EXPECT_EQ(wordsOf(set), (Words{{0, 32}}));
    EXPECT_TRUE(set.idDel(5));
    EXPECT_FALSE(set.id(16389));
    EXPECT_EQ(set, IdSet(20000));
}

// --- copies ---

TEST(IdSetStorageTest, CopiesAreIndependent) {
    for (unsigned const buckets : {1u, 2u, 3u, 48u, 49u, 200u}) {
        IdSet set(16320);
        for (unsigned b = 0; b < buckets; ++b) set.bucketIs(static_cast<U8>(b), b + 1);
        IdSet copy = set;
        EXPECT_EQ(copy, set);
        copy.bucketIs(0, 99);
        EXPECT_EQ(set.bucket(0), 1u) << buckets;
        set.bucketDelAll();
        EXPECT_EQ(copy.buckets(), buckets);
        EXPECT_EQ(copy.bucket(0), 99u);
        set = copy;
        EXPECT_EQ(set, copy);
        IdSet& alias = set;
        set = alias;
        EXPECT_EQ(set, copy);
    }
}

TEST(IdSetStorageTest, AssignmentTakesTheSizeAlong) {
    IdSet set(10, 3);
    set = IdSet(500, 400);
    EXPECT_EQ(set.size(), 500);
    EXPECT_EQ(membersOf(set), (std::vector<unsigned>{400}));
    IdSet moved = std::move(set);
    EXPECT_EQ(moved, IdSet(500, 400));
    set = moved;  // what was moved from can be assigned to
    EXPECT_EQ(set, moved);
}

// --- comparison and hash ---

TEST(IdSetStorageTest, AMovedSetLeavesAnEmptyOneOfItsSize) {
    for (U16 const end : {U16(2), U16(1000), U16(10000)}) {
        IdSet from(16320);
        from.idSetRange(1, end);
        IdSet const wanted = from;
        IdSet const to = std::move(from);
        EXPECT_EQ(to, wanted);
        EXPECT_EQ(from, IdSet(16320));
        from.updateId(7, true);
        EXPECT_EQ(from.stringValue(), "(7)");
    }
}

TEST(IdSetStorageTest, SmallerSizeOrdersFirst) {
    EXPECT_FALSE(IdSet(10, 3) == IdSet(11, 3));
    EXPECT_TRUE(IdSet(10, {1, 2}) < IdSet(11));
    EXPECT_FALSE(IdSet(11) < IdSet(10, {1, 2}));
}

TEST(IdSetStorageTest, FewerBucketsOrderFirst) {
    EXPECT_TRUE(IdSet(200, 63) < IdSet(200, {0, 64}));
    EXPECT_TRUE(IdSet(200) < IdSet(200, 0));
    EXPECT_TRUE(IdSet(200, 199) < IdSet(200, {0, 64}));
    EXPECT_FALSE(IdSet(200, {0, 64}) < IdSet(200, 199));
}

TEST(IdSetStorageTest, BucketsOrderByKeyThenByWord) {
    EXPECT_TRUE(IdSet(200, 63) < IdSet(200, 64));            // bucket 0 before bucket 1
    EXPECT_TRUE(IdSet(200, 3) < IdSet(200, 4));              // word 8 before word 16
    EXPECT_TRUE(IdSet(200, 4) < IdSet(200, 63));             // words have no sign
    EXPECT_TRUE(IdSet(200, {1, 64}) < IdSet(200, {1, 65}));  // the first difference decides
    EXPECT_TRUE(IdSet(200, {1, 65}) < IdSet(200, {2, 64}));
    IdSet const set(200, {1, 65});
    EXPECT_FALSE(set < set);
    EXPECT_EQ(set <=> IdSet(200, {65, 1}), std::strong_ordering::equal);
}

TEST(IdSetStorageTest, HashMixesSizeAndBuckets) {
    EXPECT_EQ(IdSet().hash(0), 2226827881u);
    EXPECT_EQ(IdSet(10).hash(0), 3805952242u);
    EXPECT_EQ(IdSet(100, {0, 64}).hash(0), 1015286330u);
    EXPECT_EQ(IdSet(100, {0, 64}).hash(7), 3580494847u);
    IdSet const set(100, {0, 64});
    EXPECT_EQ(Vel::typeOf<IdSet>().glue().genericIfHash(&set, Vel::typeOf<IdSet>()), 1015286330u);
    EXPECT_EQ(std::unordered_set<IdSet>({set, set, IdSet(100)}).size(), 2u);
}

TEST(IdSetStorageTest, HashOfManyBucketsMixesThemInTurn) {
    for (unsigned const buckets : {3u, 7u, 8u, 9u, 47u, 48u, 49u, 255u, 256u}) {
        IdSet set(65535);
        Vel::Hash expected(5);
        expected.hashMix<2>(65535);
        for (unsigned b = 0; b < buckets; ++b) {
            U64 const word = b * 0x9e3779b97f4a7c15ul;
            set.bucketIs(static_cast<U8>(b), word);
            expected.hashMix<4>(Vel::hashSingleAttr(0, static_cast<U8>(b))).hashMix<8>(word);
        }
        EXPECT_EQ(set.hash(5), expected.result()) << buckets;
    }
}

static_assert(std::ranges::forward_range<IdSet::BucketRange>);

TEST(IdSetStorageTest, BucketsAreARangeInAscendingOrder) {
    IdSet set(16320);
    for (unsigned const bucket : {254u, 3u, 0u, 77u}) set.bucketIs(BucketId(static_cast<Mox::U8>(bucket)), bucket);
    std::vector<IdSet::BucketRange::Entry> seen;
    for (auto const entry : set.bucketRange()) seen.push_back(entry);
    EXPECT_EQ(seen, (std::vector<IdSet::BucketRange::Entry>{{0, 0}, {3, 3}, {77, 77}, {254, 254}}));
    EXPECT_EQ(set.bucketRange().size(), 4u);
}

TEST(IdSetStorageTest, AllBucketsAreInTheRange) {
    IdSet set(16384);
    EXPECT_EQ(set.bucketRange().begin(), set.bucketRange().end());
    for (unsigned bucket = 0; bucket < 256; ++bucket) set.bucketIs(BucketId(static_cast<Mox::U8>(bucket)), ~bucket);
    unsigned next = 0;
    for (auto const [key, word] : set.bucketRange()) {
        EXPECT_EQ(key, BucketId(static_cast<Mox::U8>(next)));
        EXPECT_EQ(word, ~next);
        ++next;
    }
    EXPECT_EQ(next, 256u);
}

}  // namespace
