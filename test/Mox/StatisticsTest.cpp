#include "StatisticsTest.h"

#include <limits>
#include <type_traits>

namespace {

using Mox::ConditionOrChanged;
using Mox::ConditionOrChangedStat;
using Mox::ConditionOrCountStat;
using Mox::ConditionStat;
using Mox::Count;
using Mox::CountOrChangedStat;
using Mox::CountStat;
using Mox::Event;
using Mox::EventOrCount;
using Mox::EventOrCountStat;
using Mox::EventStat;
using Vel::AttributeOp;
using Vel::Seconds;
using Vel::U1;
using Vel::U32;

constexpr U32 most = 4294967295u;
constexpr U32 half = 2147483648u;

// --- fields ---

template <class T> class ConditionLikeTest : public testing::Test {};
using ConditionLike = testing::Types<ConditionStat, ConditionOrCountStat, ConditionOrChangedStat>;
TYPED_TEST_SUITE(ConditionLikeTest, ConditionLike, TypeNames);

TYPED_TEST(ConditionLikeTest, FieldsAreReadAndSet) {
    TypeParam s(true, most, 5.0);
    EXPECT_EQ(s.current(), true);
    EXPECT_EQ(s.changes(), most);
    EXPECT_EQ(s.lastChange(), Seconds(5.0));
    s.currentIs(false);
    EXPECT_EQ(s, TypeParam(false, most, 5.0));
    s.changesIs(7);
    EXPECT_EQ(s, TypeParam(false, 7, 5.0));
    s.lastChangeIs(6.0);
    EXPECT_EQ(s, TypeParam(false, 7, 6.0));
}

TEST(EventStatTest, FieldsAreReadAndSet) {
    EventStat s(true, most, 5.0);
    EXPECT_EQ(s.current(), true);
    EXPECT_EQ(s.count(), most);
    EXPECT_EQ(s.last(), Seconds(5.0));
    s.currentIs(false);
    EXPECT_EQ(s, EventStat(false, most, 5.0));
    s.countIs(7);
    EXPECT_EQ(s, EventStat(false, 7, 5.0));
    s.lastIs(6.0);
    EXPECT_EQ(s, EventStat(false, 7, 6.0));
}

template <class T> class RunningTotalTest : public testing::Test {};
using RunningTotals = testing::Types<CountStat, EventOrCountStat>;
TYPED_TEST_SUITE(RunningTotalTest, RunningTotals, TypeNames);

TYPED_TEST(RunningTotalTest, FieldsAreReadAndSet) {
    TypeParam s(most, 5.0);
    EXPECT_EQ(s.count(), most);
    EXPECT_EQ(s.last(), Seconds(5.0));
    s.countIs(7);
    EXPECT_EQ(s, TypeParam(7, 5.0));
    s.lastIs(6.0);
    EXPECT_EQ(s, TypeParam(7, 6.0));
}

TEST(CountOrChangedStatTest, FieldsAreReadAndSet) {
    CountOrChangedStat s(most, most - 1, 5.0);
    EXPECT_EQ(s.count(), most);
    EXPECT_EQ(s.changes(), most - 1);
    EXPECT_EQ(s.lastChange(), Seconds(5.0));
    s.countIs(7);
    EXPECT_EQ(s, CountOrChangedStat(7, most - 1, 5.0));
    s.changesIs(8);
    EXPECT_EQ(s, CountOrChangedStat(7, 8, 5.0));
    s.lastChangeIs(6.0);
    EXPECT_EQ(s, CountOrChangedStat(7, 8, 6.0));
}

// --- the four ways of giving an observation to a statistic ---

template <class S> int byCall(S& s, Vel::AttributeId id, Event const& e) {
    return call(s, id, nullptr, U1(e.value()), e.when());
}
template <class S> int byCall(S& s, Vel::AttributeId id, Count const& e) {
    return call(s, id, nullptr, e.count(), e.when());
}
template <class S> int byCall(S& s, Vel::AttributeId id, EventOrCount const& e) {
    return call(s, id, nullptr, U1(e.value()), e.count(), e.when());
}
template <class S> int byCall(S& s, Vel::AttributeId id, ConditionOrChanged const& e) {
    return call(s, id, nullptr, U1(e.current()), U1(e.changed()), e.when());
}

template <class S, class E> struct Row {
    S before;
    E observation;
    S after;
};

template <class S, class E> void expectUpdates(std::vector<Row<S, E>> const& rows) {
    bool const hasTwoFields = std::is_same_v<S, CountStat> || std::is_same_v<S, EventOrCountStat>;
    Vel::AttributeId const update = hasTwoFields ? 4 : 5;
    for (auto const& [before, observation, after] : rows) {
        testing::Message said;
        said << before << " and " << observation;
        SCOPED_TRACE(said);
        S s = before;
        s.updateIs(observation);
        EXPECT_EQ(s, after);
        s = before;
        byParts(s, observation);
        EXPECT_EQ(s, after);
        s = before;
        EXPECT_EQ(attributeOp<S>(s, update, AttributeOp::set, nullptr, &observation), 0);
        EXPECT_EQ(s, after);
        s = before;
        EXPECT_EQ(byCall(s, update + 1, observation), 0);
        EXPECT_EQ(s, after);
    }
}

// --- conditions ---

TEST(ConditionStatTest, ChangeOfStateCounts) {
    expectUpdates<ConditionStat, Event>({{{false, 0, 0.0}, {true, 9.0}, {true, 1, 9.0}},
        {{true, 1, 5.0}, {false, 9.0}, {false, 2, 9.0}}, {{true, 7, 5.0}, {false, 4.0}, {false, 8, 4.0}}});
}

TEST(ConditionStatTest, SameStateMovesNothing) {
    expectUpdates<ConditionStat, Event>({{{false, 0, 0.0}, {false, 9.0}, {false, 0, 0.0}},
        {{true, 1, 5.0}, {true, 9.0}, {true, 1, 5.0}}, {{false, most, 5.0}, {false, 9.0}, {false, most, 5.0}}});
}

TEST(ConditionStatTest, SameStateTwiceIsOneChangeAtItsFirstTime) {
    ConditionStat s;
    s.updateIs(Event(true, 5.0));
    s.updateIs(Event(true, 6.0));
    EXPECT_EQ(s, ConditionStat(true, 1, 5.0));
}

TEST(ConditionStatTest, ChangesWrapAround) {
    expectUpdates<ConditionStat, Event>({{{false, most, 5.0}, {true, 9.0}, {true, 0, 9.0}},
        {{true, most, 5.0}, {false, 9.0}, {false, 0, 9.0}}, {{true, half - 1, 5.0}, {false, 9.0}, {false, half, 9.0}}});
}

// --- events ---

TEST(EventStatTest, EveryTrueEventCounts) {
    expectUpdates<EventStat, Event>(
        {{{false, 0, 0.0}, {true, 9.0}, {true, 1, 9.0}}, {{true, 1, 5.0}, {true, 9.0}, {true, 2, 9.0}},
            {{true, 1, 5.0}, {true, 4.0}, {true, 2, 4.0}}, {{false, most, 5.0}, {true, 9.0}, {true, 0, 9.0}}});
}

TEST(EventStatTest, FalseEventMovesOnlyTheState) {
    expectUpdates<EventStat, Event>(
        {{{true, 3, 5.0}, {false, 9.0}, {false, 3, 5.0}}, {{false, 3, 5.0}, {false, 9.0}, {false, 3, 5.0}},
            {{false, 0, 0.0}, {false, 9.0}, {false, 0, 0.0}}, {{true, most, 5.0}, {false, 9.0}, {false, most, 5.0}}});
}

// --- counts ---

TEST(CountStatTest, CountsAreAddedUp) {
    expectUpdates<CountStat, Count>({{{0, 0.0}, {1, 9.0}, {1, 9.0}}, {{3, 5.0}, {4, 9.0}, {7, 9.0}},
        {{3, 5.0}, {most - 3, 9.0}, {most, 9.0}}, {{3, 5.0}, {4, 1.0}, {7, 1.0}}});
}

TEST(CountStatTest, SumWrapsAround) {
    expectUpdates<CountStat, Count>({{{most, 5.0}, {2, 9.0}, {1, 9.0}}, {{most, 5.0}, {1, 9.0}, {0, 9.0}},
        {{most, 5.0}, {most, 9.0}, {most - 1, 9.0}}, {{half, 5.0}, {half, 9.0}, {0, 9.0}}});
}

TEST(CountStatTest, CountOfZeroMovesNothing) {
    expectUpdates<CountStat, Count>({{{3, 5.0}, {0, 9.0}, {3, 5.0}}, {{0, 0.0}, {0, 9.0}, {0, 0.0}}});
}

TEST(EventOrCountStatTest, CountIsAddedWhateverTheFlag) {
    expectUpdates<EventOrCountStat, EventOrCount>(
        {{{10, 5.0}, {true, 3, 9.0}, {13, 9.0}}, {{10, 5.0}, {false, 3, 9.0}, {13, 9.0}},
            {{0, 0.0}, {true, 5, 9.0}, {5, 9.0}}, {{10, 5.0}, {true, 1, 9.0}, {11, 9.0}},
            {{2, 5.0}, {true, most, 9.0}, {1, 9.0}}, {{2, 5.0}, {false, most, 9.0}, {1, 9.0}}});
}

TEST(EventOrCountStatTest, EventWithoutACountAddsOne) {
    expectUpdates<EventOrCountStat, EventOrCount>({{{0, 0.0}, {true, 0, 9.0}, {1, 9.0}},
        {{10, 5.0}, {true, 0, 9.0}, {11, 9.0}}, {{most, 5.0}, {true, 0, 9.0}, {0, 9.0}}});
}

TEST(EventOrCountStatTest, NeitherEventNorCountMovesNothing) {
    expectUpdates<EventOrCountStat, EventOrCount>(
        {{{10, 5.0}, {false, 0, 9.0}, {10, 5.0}}, {{0, 0.0}, {false, 0, 9.0}, {0, 0.0}}});
}

TEST(CountOrChangedStatTest, LastCountIsKeptAndEveryReportCounts) {
    expectUpdates<CountOrChangedStat, Count>({{{0, 0, 0.0}, {7, 9.0}, {7, 1, 9.0}},
        {{7, 1, 5.0}, {3, 9.0}, {3, 2, 9.0}}, {{7, 1, 5.0}, {7, 9.0}, {7, 2, 9.0}},
        {{7, 1, 5.0}, {most, 4.0}, {most, 2, 4.0}}, {{most, most, 5.0}, {1, 9.0}, {1, 0, 9.0}}});
}

TEST(CountOrChangedStatTest, CountOfZeroMovesNothing) {
    expectUpdates<CountOrChangedStat, Count>(
        {{{7, 1, 5.0}, {0, 9.0}, {7, 1, 5.0}}, {{0, 0, 0.0}, {0, 9.0}, {0, 0, 0.0}}});
}

// --- conditions whose rises are counted ---

TEST(ConditionOrCountStatTest, WithoutACountTheStateDecides) {
    expectUpdates<ConditionOrCountStat, EventOrCount>({{{false, 10, 5.0}, {false, 0, 9.0}, {false, 10, 5.0}},
        {{true, 10, 5.0}, {true, 0, 9.0}, {true, 10, 5.0}}, {{false, 10, 5.0}, {true, 0, 9.0}, {true, 11, 9.0}},
        {{true, 0, 0.0}, {false, 0, 9.0}, {false, 1, 9.0}}, {{true, most, 5.0}, {false, 0, 9.0}, {false, 0, 9.0}}});
}

TEST(ConditionOrCountStatTest, EachRiseNeedsAFallBetween) {
    expectUpdates<ConditionOrCountStat, EventOrCount>({{{false, 10, 5.0}, {true, 1, 9.0}, {true, 11, 9.0}},
        {{false, 10, 5.0}, {false, 1, 9.0}, {false, 12, 9.0}}, {{false, 10, 5.0}, {true, 2, 9.0}, {true, 13, 9.0}},
        {{false, 10, 5.0}, {false, 2, 9.0}, {false, 14, 9.0}}, {{true, 0, 0.0}, {true, 1, 9.0}, {true, 2, 9.0}},
        {{true, 0, 0.0}, {false, 1, 9.0}, {false, 3, 9.0}}, {{true, 10, 5.0}, {true, 100, 9.0}, {true, 210, 9.0}},
        {{true, 10, 5.0}, {false, 100, 9.0}, {false, 211, 9.0}}});
}

TEST(ConditionOrCountStatTest, ChangesWrapAround) {
    expectUpdates<ConditionOrCountStat, EventOrCount>({{{false, most, 5.0}, {true, 1, 9.0}, {true, 0, 9.0}},
        {{false, most, 5.0}, {false, 1, 9.0}, {false, 1, 9.0}}, {{true, most - 1, 5.0}, {true, 1, 9.0}, {true, 0, 9.0}},
        {{true, most - 2, 5.0}, {false, 1, 9.0}, {false, 0, 9.0}}});
}

TEST(ConditionOrCountStatTest, TwiceACountWrapsAround) {
    expectUpdates<ConditionOrCountStat, EventOrCount>({{{true, 10, 5.0}, {true, half, 9.0}, {true, 10, 9.0}},
        {{true, 10, 5.0}, {false, half, 9.0}, {false, 11, 9.0}}, {{false, 10, 5.0}, {true, half, 9.0}, {true, 9, 9.0}},
        {{false, 10, 5.0}, {false, half, 9.0}, {false, 10, 9.0}}, {{true, 10, 5.0}, {true, most, 9.0}, {true, 8, 9.0}},
        {{false, 0, 5.0}, {true, most, 9.0}, {true, most - 2, 9.0}},
        {{false, 0, 5.0}, {true, half, 9.0}, {true, most, 9.0}}});
}

// --- conditions that tell whether they changed ---

TEST(ConditionOrChangedStatTest, UnchangedFlagLeavesItToTheState) {
    expectUpdates<ConditionOrChangedStat, ConditionOrChanged>({{{false, 3, 5.0}, {false, false, 9.0}, {false, 3, 5.0}},
        {{true, 3, 5.0}, {true, false, 9.0}, {true, 3, 5.0}}, {{false, 3, 5.0}, {true, false, 9.0}, {true, 4, 9.0}},
        {{true, 3, 5.0}, {false, false, 9.0}, {false, 4, 9.0}},
        {{true, most, 5.0}, {false, false, 9.0}, {false, 0, 9.0}}});
}

TEST(ConditionOrChangedStatTest, ChangedToTheOtherStateCountsOnce) {
    expectUpdates<ConditionOrChangedStat, ConditionOrChanged>(
        {{{false, 3, 5.0}, {true, true, 9.0}, {true, 4, 9.0}}, {{true, 3, 5.0}, {false, true, 9.0}, {false, 4, 9.0}},
            {{false, most, 5.0}, {true, true, 9.0}, {true, 0, 9.0}}});
}

TEST(ConditionOrChangedStatTest, ChangedAndChangedBackCountsTwice) {
    expectUpdates<ConditionOrChangedStat, ConditionOrChanged>({{{false, 0, 0.0}, {false, true, 9.0}, {false, 2, 9.0}},
        {{true, 3, 5.0}, {true, true, 9.0}, {true, 5, 9.0}}, {{true, most, 5.0}, {true, true, 9.0}, {true, 1, 9.0}},
        {{false, most - 1, 5.0}, {false, true, 9.0}, {false, 0, 9.0}}});
}

// --- increments ---

TEST(StatisticTest, IncrementOfACountTouchesNothingElse) {
    EventStat a(true, most - 1, 5.0);
    a.countInc(3);
    EXPECT_EQ(a, EventStat(true, 1, 5.0));
    a.currentIs(false);
    a.countInc(1);
    EXPECT_EQ(a, EventStat(false, 2, 5.0));
    CountStat b(most, 5.0);
    b.countInc(2);
    EXPECT_EQ(b, CountStat(1, 5.0));
    EventOrCountStat c(7, 5.0);
    c.countInc(most);
    EXPECT_EQ(c, EventOrCountStat(6, 5.0));
    c.countInc(0);
    EXPECT_EQ(c, EventOrCountStat(6, 5.0));
}

TEST(StatisticTest, IncrementOfChangesTouchesNothingElse) {
    ConditionStat a(true, most - 1, 5.0);
    a.changesInc(3);
    EXPECT_EQ(a, ConditionStat(true, 1, 5.0));
    a.currentIs(false);
    a.changesInc(1);
    EXPECT_EQ(a, ConditionStat(false, 2, 5.0));
    ConditionOrCountStat b(true, most, 5.0);
    b.changesInc(2);
    EXPECT_EQ(b, ConditionOrCountStat(true, 1, 5.0));
    ConditionOrChangedStat c(true, 7, 5.0);
    c.changesInc(most);
    EXPECT_EQ(c, ConditionOrChangedStat(true, 6, 5.0));
    CountOrChangedStat d(9, 7, 5.0);
    d.changesInc(half);
    EXPECT_EQ(d, CountOrChangedStat(9, half + 7, 5.0));
}

// --- calls ---

TEST(StatisticTest, CallYieldsNothing) {
    CountStat s;
    U32 result = 77;
    EXPECT_EQ(call(s, 5, &result, U32(3), Seconds(9.0)), 0);
    EXPECT_EQ(s, CountStat(3, 9.0));
    EXPECT_EQ(result, 77u);
}

// --- times ---

// Gives a statistic an observation that counts, at this time.
void observe(ConditionStat& s, Seconds t) { s.doUpdate(!s.current(), t); }
void observe(EventStat& s, Seconds t) { s.doUpdate(true, t); }
void observe(CountStat& s, Seconds t) { s.doUpdate(1, t); }
void observe(EventOrCountStat& s, Seconds t) { s.doUpdate(true, 0, t); }
void observe(ConditionOrCountStat& s, Seconds t) { s.doUpdate(s.current(), 1, t); }
void observe(ConditionOrChangedStat& s, Seconds t) { s.doUpdate(s.current(), true, t); }
void observe(CountOrChangedStat& s, Seconds t) { s.doUpdate(1, t); }

template <class T> class StatisticTimeTest : public testing::Test {};
TYPED_TEST_SUITE(StatisticTimeTest, StatisticTypes, TypeNames);

TYPED_TEST(StatisticTimeTest, TimesAreTakenAsTheyAreGiven) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    TypeParam s;
    for (auto const& [time, text] : {std::pair(1700000000.125, "1700000000.125"), std::pair(5.0, "5.0"),
             std::pair(0.0, "0.0"), std::pair(-0.0, "-0.0"), std::pair(-1e16, "-1e+16"), std::pair(infinity, "inf"),
             std::pair(nan, "nan"), std::pair(1.0, "1.0")}) {
        observe(s, time);
        auto const whole = textOf(s);
        EXPECT_TRUE(whole.ends_with("': " + std::string(text) + "})")) << whole;
    }
}

// --- which operations there are ---

TEST(StatisticTest, OnlyCountersOfOccurrencesAndOfChangesIncrement) {
    static_assert(Increments<EventStat> && Increments<CountStat> && Increments<EventOrCountStat>);
    static_assert(!Increments<ConditionStat> && !Increments<ConditionOrCountStat>);
    static_assert(!Increments<ConditionOrChangedStat> && !Increments<CountOrChangedStat>);
    static_assert(IncrementsChanges<ConditionStat> && IncrementsChanges<ConditionOrCountStat>);
    static_assert(IncrementsChanges<ConditionOrChangedStat> && IncrementsChanges<CountOrChangedStat>);
    static_assert(!IncrementsChanges<EventStat> && !IncrementsChanges<CountStat>);
    static_assert(!IncrementsChanges<EventOrCountStat>);
}

// Of the four observations, the statistic takes exactly E.
template <class T, class E>
constexpr bool takesOnly = Updates<T, E> && (Updates<T, Event> + Updates<T, Count> + Updates<T, EventOrCount> +
                                                Updates<T, ConditionOrChanged>) == 1;

TEST(StatisticTest, EachTakesItsOwnKindOfObservation) {
    static_assert(takesOnly<ConditionStat, Event> && takesOnly<EventStat, Event>);
    static_assert(takesOnly<CountStat, Count> && takesOnly<CountOrChangedStat, Count>);
    static_assert(takesOnly<EventOrCountStat, EventOrCount> && takesOnly<ConditionOrCountStat, EventOrCount>);
    static_assert(takesOnly<ConditionOrChangedStat, ConditionOrChanged>);
}

TEST(StatisticTest, EachTakesTheObservationsPartsInOrder) {
    static_assert(UpdatesFrom<ConditionStat, bool, Seconds> && !UpdatesFrom<ConditionStat, bool>);
    static_assert(UpdatesFrom<EventStat, U1, Seconds> && UpdatesFrom<CountStat, U32, Seconds>);
    static_assert(UpdatesFrom<EventOrCountStat, bool, U32, Seconds>);
    static_assert(UpdatesFrom<ConditionOrCountStat, bool, U32, Seconds>);
    static_assert(UpdatesFrom<ConditionOrChangedStat, bool, bool, Seconds>);
    static_assert(!UpdatesFrom<ConditionOrChangedStat, bool, U32, Seconds>);
    static_assert(UpdatesFrom<CountOrChangedStat, U32, Seconds>);
}

// --- at compile time ---

static_assert([] {
    CountStat s(most, 1.0);
    s.updateIs(Count(2, 9.0));
    s.countInc(3);
    return s == CountStat(4, 9.0);
}());
static_assert([] {
    ConditionOrCountStat s(false, 10, 1.0);
    s.doUpdate(true, 2, 9.0);
    s.changesInc(1);
    return s == ConditionOrCountStat(true, 14, 9.0);
}());

}  // namespace
