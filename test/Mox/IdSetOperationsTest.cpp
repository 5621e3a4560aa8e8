#include "Mox/IdSet.h"

#include "SetTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ranges>

namespace {

using Mox::BucketId;
using Mox::Id;
using Mox::IdSet;
using Vel::U16;
using Vel::U64;

static_assert(std::ranges::forward_range<IdSet>);
static_assert(std::ranges::forward_range<IdSet const>);
static_assert(!std::ranges::sized_range<IdSet>);  // size() is no number of members

IdSet allOf(U16 size) {
    IdSet set(size);
    set.idSetAll();
    return set;
}

// --- single members ---

TEST(IdSetOperationsTest, UpdateTellsWhatWas) {
    IdSet set(10);
    EXPECT_FALSE(set.updateId(3, true));
    EXPECT_TRUE(set.updateId(3, true));
    EXPECT_TRUE(set.id(3));
    EXPECT_TRUE(set.idDel(3));
    EXPECT_FALSE(set.idDel(3));
    EXPECT_EQ(set.buckets(), 0u);
    EXPECT_FALSE(set.idIs(9, true));
    EXPECT_TRUE(set.idIs(9, false));
    EXPECT_FALSE(set.id(9));
}

TEST(IdSetOperationsTest, CountIsOfAllWords) {
    EXPECT_EQ(IdSet(200, {0, 63, 64, 199}).ids(), 4);
    EXPECT_EQ(allOf(16320).ids(), 16320);
}

constexpr char belowSize[] = "bitPos.value() < size()";

TEST(IdSetOperationsDeathTest, IdBeyondTheSizeAborts) {
    IdSet set(10);
    EXPECT_ABORT(set.id(10), explained(belowSize, "id 10 exceeds limit of 10", "bool Mox::IdSet::id(Mox::Id) const"));
    EXPECT_ABORT(
        set.id(Id()), explained(belowSize, "id 65535 exceeds limit of 10", "bool Mox::IdSet::id(Mox::Id) const"));
    EXPECT_ABORT(IdSet().id(0), explained(belowSize, "id 0 exceeds limit of 0", "bool Mox::IdSet::id(Mox::Id) const"));
    auto const update =
        explained(belowSize, "id 300 exceeds limit of 10", "bool Mox::IdSet::updateId(Mox::Id, bool) &");
    EXPECT_ABORT(set.updateId(300, true), update);
    EXPECT_ABORT(set.updateId(300, false), update);
    EXPECT_ABORT(set.idIs(300, true), update);
    EXPECT_ABORT(set.idDel(300), update);
}

// --- all ---

TEST(IdSetOperationsTest, AllIdsOfASize) {
    EXPECT_EQ(wordsOf(allOf(64)), (Words{{0, allOnes}}));
    EXPECT_EQ(wordsOf(allOf(65)), (Words{{0, allOnes}, {1, 1}}));
    EXPECT_EQ(wordsOf(allOf(1)), (Words{{0, 1}}));
    EXPECT_EQ(wordsOf(allOf(63)), (Words{{0, allOnes >> 1}}));
    EXPECT_EQ(allOf(16320).buckets(), 255u);
    EXPECT_EQ(allOf(16320).bucket(254), allOnes);
}

TEST(IdSetOperationsTest, AllIdsOfSize0AreAFullLastBucket) {
    EXPECT_EQ(wordsOf(allOf(0)), (Words{{255, allOnes}}));
    EXPECT_EQ(allOf(0).ids(), 64);
    EXPECT_EQ(allOf(0).firstId(), Id());
    EXPECT_EQ(allOf(0).stringValue(), "()");
}

TEST(IdSetOperationsTest, AllIdsOfLargeSizesCoverBucketsModulo256) {
    EXPECT_EQ(wordsOf(allOf(16384)), (Words{{255, allOnes}}));
    EXPECT_EQ(allOf(16384).firstId(), Id(16320));
    EXPECT_EQ(allOf(16384).stringValue(), "(16320-16383)");
    EXPECT_EQ(wordsOf(allOf(16321)), (Words{{255, 1}}));
    EXPECT_EQ(wordsOf(allOf(16385)), (Words{{0, 1}}));                // 257 buckets: the last is number 0
    EXPECT_EQ(wordsOf(allOf(16449)), (Words{{0, allOnes}, {1, 1}}));  // 258 buckets
    EXPECT_EQ(wordsOf(allOf(65535)), (Words{{255, allOnes >> 1}}));   // 1024 buckets
}

TEST(IdSetOperationsTest, AllIdsOverwriteWords) {
    IdSet set(65);
    set.bucketIs(1, allOnes);
    set.bucketIs(7, 5);
    set.idSetAll();
    EXPECT_EQ(wordsOf(set), (Words{{0, allOnes}, {1, 1}, {7, 5}}));
}

// --- ranges of ids ---

TEST(IdSetOperationsTest, RangeAddsItsIds) {
    IdSet set(10);
    set.idSetRange(0, 10);
    EXPECT_EQ(wordsOf(set), (Words{{0, 1023}}));
    IdSet one(10);
    one.idSetRange(9, 10);
    EXPECT_EQ(wordsOf(one), (Words{{0, 512}}));
}

TEST(IdSetOperationsTest, RangeCrossesBuckets) {
    IdSet set(200);
    set.idSetRange(60, 130);
    EXPECT_EQ(wordsOf(set), (Words{{0, allOnes << 60}, {1, allOnes}, {2, 3}}));
    IdSet exact(200);
    exact.idSetRange(64, 128);
    EXPECT_EQ(wordsOf(exact), (Words{{1, allOnes}}));
    IdSet two(200);
    two.idSetRange(63, 65);
    EXPECT_EQ(wordsOf(two), (Words{{0, U64(1) << 63}, {1, 1}}));
}

TEST(IdSetOperationsTest, RangeRemovesNothing) {
    IdSet set(200, {1, 100, 199});
    set.idSetRange(50, 110);
    EXPECT_EQ(set.ids(), 62);
    EXPECT_TRUE(set.id(1) && set.id(199) && set.id(50) && set.id(109));
    EXPECT_FALSE(set.id(110) || set.id(49));
}

TEST(IdSetOperationsTest, RangeAroundTheLastBucketHasNoMiddle) {
    IdSet set(20000);
    set.idSetRange(16300, 16500);  // buckets 254 and, of 257, 1
    EXPECT_EQ(wordsOf(set), (Words{{1, (U64(1) << 52) - 1}, {254, allOnes << 44}}));
}

TEST(IdSetOperationsTest, RangeFromTheLastBucketOnHasAllItsIds) {
    IdSet set(20000);
    set.idSetRange(16330, 16600);
    EXPECT_EQ(
        wordsOf(set), (Words{{0, allOnes}, {1, allOnes}, {2, allOnes}, {3, (U64(1) << 24) - 1}, {255, allOnes << 10}}));
    EXPECT_EQ(set.ids(), 270);
    IdSet toBucket0(20000);
    toBucket0.idSetRange(16383, 16385);
    EXPECT_EQ(wordsOf(toBucket0), (Words{{0, 1}, {255, U64(1) << 63}}));
    IdSet toBucket1(20000);
    toBucket1.idSetRange(16320, 16449);
    EXPECT_EQ(wordsOf(toBucket1), (Words{{0, allOnes}, {1, 1}, {255, allOnes}}));
    IdSet nearlyAround(65535);
    nearlyAround.idSetRange(16320, 16320 + 16320);
    EXPECT_EQ(nearlyAround.buckets(), 256u - 1);
    EXPECT_EQ(nearlyAround.ids(), 16320);
    EXPECT_FALSE(nearlyAround.bucketExists(BucketId(254)));
}

TEST(IdSetOperationsTest, RangesEndAtTheLargestSize) {
    IdSet set(65535);
    set.idSetRange(65534, 65535);
    EXPECT_EQ(wordsOf(set), (Words{{255, U64(1) << 62}}));
    IdSet rounds(65535);  // four of them, the last to bit 62 of bucket 255
    rounds.idSetRange(0, 65535);
    EXPECT_EQ(rounds.buckets(), 256u);
    EXPECT_EQ(rounds.ids(), 16383);
    EXPECT_EQ(rounds.bucket(255), allOnes >> 1);
    IdSet lastRound(65535);
    lastRound.idSetRange(49088, 65535);  // bucket 255 before, to bucket 255: the same word
    EXPECT_EQ(wordsOf(lastRound), (Words{{255, allOnes >> 1}}));
}

// Where numbers of buckets do not wrap on the way, or do so at the first one, a range is its ids.
TEST(IdSetOperationsTest, RangesAreTheirIdsOneByOne) {
    struct Range {
        unsigned begin, end;
    };
    for (auto const [begin, end] : {Range{0, 16384}, {16319, 16384}, {16320, 16384}, {16320, 32768 - 64},
             {16383, 16500}, {16384, 32768}, {32703, 32768}, {32704, 40000}, {49151, 49153}, {65472, 65535}}) {
        IdSet range(65535);
        range.idSetRange(static_cast<U16>(begin), static_cast<U16>(end));
        IdSet ids(65535);
        for (unsigned id = begin; id < end; ++id) ids.updateId(static_cast<U16>(id), true);
        EXPECT_EQ(wordsOf(range), wordsOf(ids)) << begin << " to " << end;
    }
}

TEST(IdSetOperationsTest, RangeOnceAroundWithoutCommonBitsKeepsNoEmptyWord) {
    IdSet set(20000);
    set.idSetRange(63, 16385);  // begins at bit 63 of bucket 0 and ends at its bit 0
    EXPECT_EQ(set, IdSet(20000));
    set.bucketIs(0, 0);
    set.idSetRange(63, 16385);
    EXPECT_EQ(set, IdSet(20000));
    set.bucketIs(0, 6);
    set.idSetRange(63, 16385);
    EXPECT_EQ(wordsOf(set), (Words{{0, 6}}));
}

TEST(IdSetOperationsDeathTest, BadRangesAbort) {
    IdSet set(10);
    char const function[] = "void Mox::IdSet::idSetRange(Mox::Id, Mox::Id) &";
    auto const empty = explained("begin.value() < end.value()", "range should be of at least length 1", function);
    EXPECT_ABORT(set.idSetRange(5, 5), empty);
    EXPECT_ABORT(set.idSetRange(6, 5), empty);
    EXPECT_ABORT(set.idSetRange(20, 15), empty);  // the first thing amiss is told
    auto const beyond = explained("end.value() <= size()", "end can't be greater than bitmap limit", function);
    EXPECT_ABORT(set.idSetRange(0, 11), beyond);
    EXPECT_ABORT(set.idSetRange(0, Id()), beyond);
}

// --- next member ---

TEST(IdSetOperationsTest, EmptySetHasNoFirstId) {
    EXPECT_EQ(IdSet(10).firstId(), Id());
    EXPECT_EQ(IdSet().firstId(), Id());
    EXPECT_EQ(IdSet(10).nextId(9), Id());
}

TEST(IdSetOperationsTest, NextIdIsTheSmallestAbove) {
    IdSet const set(400, {0, 62, 63, 64, 320});
    EXPECT_EQ(set.nextId(Id()), Id(0));
    EXPECT_EQ(set.firstId(), Id(0));
    EXPECT_EQ(set.nextId(0), Id(62));
    EXPECT_EQ(set.nextId(62), Id(63));
    EXPECT_EQ(set.nextId(63), Id(64));
    EXPECT_EQ(set.nextId(64), Id(320));
    EXPECT_EQ(set.nextId(200), Id(320));  // whose bucket is not stored
    EXPECT_EQ(set.nextId(320), Id());
    EXPECT_EQ(set.nextId(399), Id());
}

TEST(IdSetOperationsTest, NextIdSkipsEmptyWords) {
    IdSet set(400, 390);
    for (Vel::U8 const b : {Vel::U8(0), Vel::U8(2), Vel::U8(5)}) set.bucketIs(b, 0);
    EXPECT_EQ(set.firstId(), Id(390));
    EXPECT_EQ(set.nextId(3), Id(390));
    EXPECT_EQ(membersOf(set), (std::vector<unsigned>{390}));
}

TEST(IdSetOperationsTest, NextIdStopsAtTheSize) {
    IdSet set(70);
    set.bucketIs(1, allOnes);
    EXPECT_EQ(set.nextId(68), Id(69));
    EXPECT_EQ(set.nextId(69), Id());
    set.bucketIs(1, U64(1) << 6);
    set.bucketIs(3, 1);
    EXPECT_EQ(set.firstId(), Id());
}

TEST(IdSetOperationsTest, BehindTheLastBucketTheSearchBeginsAnew) {
    IdSet set(20000, {7, 16383});
    EXPECT_EQ(set.nextId(16383), Id(7));
    EXPECT_EQ(set.nextId(16350), Id(16383));
    EXPECT_EQ(set.nextId(16390), Id(16391));  // 16391 is 7 once more
    EXPECT_EQ(set.nextId(16391), Id(16383));
    EXPECT_EQ(membersOf(set, 5), (std::vector<unsigned>{7, 16383, 7, 16383, 7}));
    EXPECT_EQ(set.stringValue(), "(7,16383)");
}

TEST(IdSetOperationsDeathTest, NextIdOfWhatIsBeyondTheSizeAborts) {
    IdSet const set(10);
    auto const expected = explained("bitPos.value() < size() || bitPos.value() == Id::null()",
        "current bit can't be greater than bitmap limit", "Mox::Id Mox::IdSet::nextId(Mox::Id) const");
    EXPECT_ABORT(set.nextId(10), expected);
    EXPECT_ABORT(set.nextId(65534), expected);
    EXPECT_EQ(set.nextId(9), Id());
}

// --- iteration ---

TEST(IdSetOperationsTest, IteratorsStandOnMembers) {
    IdSet set(10, {2, 7});
    auto iterator = set.idIterator();
    EXPECT_TRUE(iterator);
    EXPECT_EQ(iterator.key(), Id(2));
    EXPECT_EQ(iterator.next(), Id(7));
    EXPECT_EQ(iterator.next(), Id());
    EXPECT_FALSE(iterator);
    EXPECT_FALSE(IdSet(10).idIteratorConst());
}

TEST(IdSetOperationsTest, IteratorsStartAtAnIdOrBehindIt) {
    IdSet set(10, {2, 7});
    EXPECT_EQ(set.idIteratorConst(4).key(), Id(7));
    EXPECT_EQ(set.idIteratorConst(7).key(), Id(7));
    EXPECT_EQ(set.idIterator(2).key(), Id(2));
    EXPECT_EQ(set.idIterator(0).key(), Id(2));
    EXPECT_FALSE(set.idIteratorConst(8));
    EXPECT_FALSE(set.idIteratorConst(Id()));
    EXPECT_FALSE(set.idIterator(Id()));
}

TEST(IdSetOperationsTest, ExistenceIsStandingOnTheId) {
    IdSet const set(10, {2, 7});
    EXPECT_TRUE(set.idExists(2));
    EXPECT_FALSE(set.idExists(3));
    EXPECT_FALSE(set.idExists(Id()));
}

TEST(IdSetOperationsDeathTest, IteratorsAtTheEndHaveNeitherKeyNorNext) {
    IdSet set(10);
    char const condition[] = "curId_ != Id::null()";
    EXPECT_ABORT(set.idIterator().key(), plain(condition, "Mox::Id Mox::IdSet::IdIterator::key() const"));
    EXPECT_ABORT(set.idIterator().next(), plain(condition, "Mox::Id Mox::IdSet::IdIterator::next()"));
    EXPECT_ABORT(set.idIteratorConst().key(), plain(condition, "Mox::Id Mox::IdSet::IdIteratorConst::key() const"));
    EXPECT_ABORT(set.idIteratorConst().next(), plain(condition, "Mox::Id Mox::IdSet::IdIteratorConst::next()"));
}

TEST(IdSetOperationsDeathTest, IteratorsStartBelowTheSize) {
    IdSet set(10);
    auto const expected = explained(belowSize, "id 10 exceeds limit of 10", "bool Mox::IdSet::id(Mox::Id) const");
    EXPECT_ABORT(set.idIterator(10), expected);
    EXPECT_ABORT(set.idIteratorConst(10), expected);
    EXPECT_ABORT(set.idExists(10), expected);
}

TEST(IdSetOperationsTest, IsAForwardRangeOfItsIds) {
    IdSet const set(300, {1, 63, 64, 299});
    EXPECT_EQ(std::ranges::distance(set), 4);
    EXPECT_TRUE(std::ranges::equal(set, std::vector<Id>{1, 63, 64, 299}));
    auto iterator = set.begin();
    auto const first = iterator++;
    EXPECT_EQ(*first, Id(1));
    EXPECT_EQ(*iterator, Id(63));
    EXPECT_TRUE(first == set.begin());
    EXPECT_FALSE(first == iterator);
    ++iterator;
    ++iterator;
    EXPECT_EQ(*iterator, Id(299));
    EXPECT_TRUE(++iterator == set.end());
    EXPECT_TRUE(IdSet(10).begin() == std::default_sentinel);
}

TEST(IdSetOperationsTest, WalksEndAtTheSize) {
    IdSet set(70);
    for (Vel::U8 b = 0; b < 4; ++b) set.bucketIs(b, allOnes);
    unsigned count = 0;
    set.forEachId([&](Id id) { EXPECT_EQ(id.value(), count++); });
    EXPECT_EQ(count, 70u);
    EXPECT_EQ(std::ranges::distance(set), 70);
}

// --- algebra ---

TEST(IdSetOperationsTest, SetsAreCombined) {
    IdSet const a(200, {1, 2, 100});
    IdSet const b(200, {2, 3, 199});
    EXPECT_EQ(a | b, IdSet(200, {1, 2, 3, 100, 199}));
    EXPECT_EQ(a & b, IdSet(200, {2}));
    EXPECT_EQ(a - b, IdSet(200, {1, 100}));
    EXPECT_EQ(a ^ b, IdSet(200, {1, 3, 100, 199}));
}

TEST(IdSetOperationsTest, SetsOfMembersFarApartAreCombined) {
    IdSet const a(16320, {1, 5000, 5001, 12000});
    IdSet const b(16320, {1, 5001, 5100, 16000});
    EXPECT_EQ(a | b, IdSet(16320, {1, 5000, 5001, 5100, 12000, 16000}));
    EXPECT_EQ(a & b, IdSet(16320, {1, 5001}));
    EXPECT_EQ(a - b, IdSet(16320, {5000, 12000}));
    EXPECT_EQ(a ^ b, IdSet(16320, {5000, 5100, 12000, 16000}));
}

TEST(IdSetOperationsTest, LargeSetsAreCombinedWithSmallOnes) {
    IdSet const all = allOf(16320);
    IdSet const few(16320, {1, 5000, 16000});
    EXPECT_EQ(all | few, all);
    EXPECT_EQ(all & few, few);
    EXPECT_EQ(few & all, few);
    EXPECT_EQ(all & all, all);
    EXPECT_EQ(few - all, IdSet(16320));
    EXPECT_EQ((all - few).ids(), 16317);
    EXPECT_EQ(all ^ few, all - few);
}

TEST(IdSetOperationsTest, CompoundFormsYieldTheSetItself) {
    IdSet set(200, {1, 2});
    EXPECT_EQ(&(set |= IdSet(200, {3})), &set);
    EXPECT_EQ(&(set &= IdSet(200, {2, 3})), &set);
    EXPECT_EQ(&(set -= IdSet(200, {2})), &set);
    EXPECT_EQ(&(set ^= IdSet(200, {4})), &set);
    EXPECT_EQ(set, IdSet(200, {3, 4}));
}

TEST(IdSetOperationsTest, SetCombinesWithItself) {
    IdSet set(200, {1, 150});
    IdSet const& same = set;
    set |= same;
    set &= same;
    EXPECT_EQ(set, IdSet(200, {1, 150}));
    set ^= same;
    EXPECT_EQ(set, IdSet(200));
    set = IdSet(200, {1, 150});
    set -= same;
    EXPECT_EQ(set, IdSet(200));
}

TEST(IdSetOperationsTest, EmptyWordsGoWhereSetsAreCombined) {
    IdSet set(200, 1);
    set.bucketIs(1, 0);
    set.bucketIs(4, 0);  // beyond the 4 buckets of the size
    set |= IdSet(200);
    EXPECT_EQ(wordsOf(set), (Words{{0, 2}, {4, 0}}));
}

TEST(IdSetOperationsTest, BucketsBeyondTheSizeAreNotCombined) {
    IdSet a(100, 1);
    IdSet b(100, 2);
    a.bucketIs(2, 5);
    b.bucketIs(2, 6);
    b.bucketIs(3, 7);
    EXPECT_EQ(wordsOf(a | b), (Words{{0, 6}, {2, 5}}));
    EXPECT_EQ(wordsOf(a & b), (Words{{2, 5}}));
    EXPECT_EQ(wordsOf(a - b), (Words{{0, 2}, {2, 5}}));
    EXPECT_EQ(wordsOf(a ^ b), (Words{{0, 6}, {2, 5}}));
    EXPECT_EQ(wordsOf(~a), (Words{{0, ~U64(2)}, {1, allOnes}, {2, 5}}));
}

TEST(IdSetOperationsTest, NothingIsCombinedWhenTheBucketsAre256) {
    for (U16 const size : {U16(16321), U16(16384)}) {
        IdSet const a(size, {1, 16320});
        IdSet const b(size, {2, 16320});
        EXPECT_EQ(a | b, a);
        EXPECT_EQ(a & b, a);
        EXPECT_EQ(a - b, a);
        EXPECT_EQ(a ^ b, a);
        EXPECT_EQ(~a, a);
    }
}

TEST(IdSetOperationsTest, LargeSizesCombineBucketsModulo256) {
    IdSet a(20000);  // 313 buckets: 57 are visited
    a.bucketIs(56, 1);
    a.bucketIs(57, 1);
    IdSet b(20000);
    b.bucketIs(56, 2);
    b.bucketIs(57, 2);
    EXPECT_EQ(wordsOf(a | b), (Words{{56, 3}, {57, 1}}));
    EXPECT_EQ((~a).buckets(), 58u);
}

TEST(IdSetOperationsTest, ComplementIsNotTrimmed) {
    IdSet const set = ~IdSet(10);
    EXPECT_EQ(wordsOf(set), (Words{{0, allOnes}}));
    EXPECT_EQ(set.ids(), 64);
    EXPECT_EQ(membersOf(set), (std::vector<unsigned>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(set.stringValue(), "(0-9)");
    EXPECT_FALSE(set == allOf(10));
    EXPECT_NE(set.hash(0), allOf(10).hash(0));
    EXPECT_LT(allOf(10), set);
    EXPECT_EQ(writtenHex(set), "000a00ffffffffffffffffff");
}

TEST(IdSetOperationsTest, ComplementOfTheComplementIsTheSet) {
    IdSet const set(130, {0, 64, 129});
    EXPECT_EQ(~~set, set);
    EXPECT_EQ(wordsOf(~allOf(130)), (Words{{2, ~U64(3)}}));  // full words go
    EXPECT_EQ(wordsOf(~IdSet()), Words());
}

TEST(IdSetOperationsTest, SetsAreComparedByTheirMembers) {
    IdSet const set(200, {1, 150});
    EXPECT_TRUE(set.isSubsetOf(IdSet(200, {1, 2, 150})));
    EXPECT_FALSE(set.isSubsetOf(IdSet(200, {1, 2})));
    EXPECT_TRUE(IdSet(200).isSubsetOf(set));
    EXPECT_TRUE(set.isDisjointFrom(IdSet(200, {2, 151})));
    EXPECT_FALSE(set.isDisjointFrom(IdSet(200, {2, 150})));
    EXPECT_EQ(set.idsInCommon(IdSet(200, {2, 150})), 1u);
    EXPECT_EQ(set.idsInCommon(set), 2u);
}

TEST(IdSetOperationsDeathTest, SetsOfDifferentSizesAbort) {
    IdSet a(10);
    IdSet const b(11);
    auto const expected = [](std::string const& op) {
        return plain("size() == other.size()", "Mox::IdSet& Mox::IdSet::operator" + op + "(const Mox::IdSet&) &");
    };
    EXPECT_ABORT(a |= b, expected("|="));
    EXPECT_ABORT(a &= b, expected("&="));
    EXPECT_ABORT(a -= b, expected("-="));
    EXPECT_ABORT(a ^= b, expected("^="));
    EXPECT_ABORT(a | b, expected("|="));
    EXPECT_ABORT(a & b, expected("&="));
    EXPECT_ABORT(a - b, expected("-="));
    EXPECT_ABORT(a ^ b, expected("^="));
}

TEST(IdSetOperationsDeathTest, ComparisonsOfDifferentSizesAbort) {
    IdSet const a(10);
    IdSet const b(11);
    char const condition[] = "size() == other.size()";
    EXPECT_ABORT(a.isSubsetOf(b), plain(condition, "bool Mox::IdSet::isSubsetOf(const Mox::IdSet&) const"));
    EXPECT_ABORT(a.isDisjointFrom(b), plain(condition, "bool Mox::IdSet::isDisjointFrom(const Mox::IdSet&) const"));
    EXPECT_ABORT(a.idsInCommon(b), plain(condition, "U32 Mox::IdSet::idsInCommon(const Mox::IdSet&) const"));
}

}  // namespace
