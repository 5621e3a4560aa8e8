#include "StatisticsTest.h"

#include <chrono>
#include <cmath>
#include <functional>
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
using Vel::Seconds;
using Vel::U1;
using Vel::U32;

constexpr U32 most = 4294967295u;

// --- what one type has ---

TEST(EventTest, FieldsAreReadAndSet) {
    Event e(true, 5.0);
    EXPECT_EQ(e.value(), true);
    EXPECT_EQ(e.when(), Seconds(5.0));
    e.valueIs(false);
    EXPECT_EQ(e, Event(false, 5.0));
    e.whenIs(6.0);
    EXPECT_EQ(e, Event(false, 6.0));
    static_assert(std::is_same_v<decltype(e.value()), bool> && std::is_same_v<decltype(e.when()), Seconds>);
}

TEST(CountTest, FieldsAreReadAndSet) {
    Count e(most, 5.0);
    EXPECT_EQ(e.count(), most);
    EXPECT_EQ(e.when(), Seconds(5.0));
    e.countIs(7);
    EXPECT_EQ(e, Count(7, 5.0));
    e.whenIs(6.0);
    EXPECT_EQ(e, Count(7, 6.0));
    static_assert(std::is_same_v<decltype(e.count()), U32> && std::is_same_v<decltype(e.when()), Seconds>);
}

TEST(EventOrCountTest, FieldsAreReadAndSet) {
    EventOrCount e(true, most, 5.0);
    EXPECT_EQ(e.value(), true);
    EXPECT_EQ(e.count(), most);
    EXPECT_EQ(e.when(), Seconds(5.0));
    e.valueIs(false);
    EXPECT_EQ(e, EventOrCount(false, most, 5.0));
    e.countIs(7);
    EXPECT_EQ(e, EventOrCount(false, 7, 5.0));
    e.whenIs(6.0);
    EXPECT_EQ(e, EventOrCount(false, 7, 6.0));
}

TEST(ConditionOrChangedTest, FieldsAreReadAndSet) {
    ConditionOrChanged e(true, false, 5.0);
    EXPECT_EQ(e.current(), true);
    EXPECT_EQ(e.changed(), false);
    EXPECT_EQ(e.when(), Seconds(5.0));
    e.currentIs(false);
    EXPECT_EQ(e, ConditionOrChanged(false, false, 5.0));
    e.changedIs(true);
    EXPECT_EQ(e, ConditionOrChanged(false, true, 5.0));
    e.whenIs(6.0);
    EXPECT_EQ(e, ConditionOrChanged(false, true, 6.0));
}

TEST(EventTest, TimesMayBeChronoDurations) {
    EXPECT_EQ(Event(true, std::chrono::milliseconds(1500)), Event(true, 1.5));
    EXPECT_EQ(Count(3, std::chrono::hours(1)).when().value(), 3600.0);
}

// --- what every type has ---

template <class T> class EventValueTest : public testing::Test {};
TYPED_TEST_SUITE(EventValueTest, EventAndStatisticTypes, TypeNames);

TYPED_TEST(EventValueTest, DefaultHasEveryFieldAtItsZero) {
    EXPECT_EQ(textOf(TypeParam()), Facts<TypeParam>::zeroText);
    static constexpr TypeParam constant;
    EXPECT_EQ(textOf(constant), Facts<TypeParam>::zeroText);
}

TYPED_TEST(EventValueTest, FieldsAreGivenInTheOrderOfTheirDeclaration) {
    EXPECT_EQ(textOf(Facts<TypeParam>::sample()), Facts<TypeParam>::text);
}

TYPED_TEST(EventValueTest, EqualityTakesEveryFieldIntoAccount) {
    TypeParam const sample = Facts<TypeParam>::sample();
    EXPECT_TRUE(sample == Facts<TypeParam>::sample());
    EXPECT_FALSE(sample != Facts<TypeParam>::sample());
    EXPECT_TRUE(TypeParam() == TypeParam());
    ASSERT_EQ(Facts<TypeParam>::oneFieldChanged().size(), Facts<TypeParam>::fields.size());
    for (TypeParam const& other : Facts<TypeParam>::oneFieldChanged()) {
        EXPECT_FALSE(sample == other) << other;
        EXPECT_FALSE(other == sample) << other;
        EXPECT_TRUE(sample != other) << other;
    }
    for (TypeParam const& other : Facts<TypeParam>::oneFieldSet()) EXPECT_FALSE(TypeParam() == other) << other;
}

// The sample with another time; which is the last field of every type.
template <class T> T sampleAt(std::string const& time) {
    std::string const text = Facts<T>::text;
    return Vel::strepToValue<T>(text.substr(0, Facts<T>::fields.back().textAt) + time + "})");
}

TYPED_TEST(EventValueTest, NaNTimeIsUnequalToItself) {
    auto const value = sampleAt<TypeParam>("nan");
    auto const copy = value;
    EXPECT_FALSE(value == copy);
    EXPECT_TRUE(value != copy);
    EXPECT_FALSE(value == Facts<TypeParam>::sample());
}

TYPED_TEST(EventValueTest, ZeroTimesOfEitherSignAreEqual) {
    EXPECT_TRUE(sampleAt<TypeParam>("-0.0") == sampleAt<TypeParam>("0.0"));
}

template <class T>
concept Ordered = requires(T a, T b) {
    a < b;
}
|| requires(T a, T b) { a > b; }
|| requires(T a, T b) { a <= b; }
|| requires(T a, T b) { a <=> b; };
template <class T>
concept Hashed = requires(T const& value) {
    value.hash(0u);
}
|| std::is_default_constructible_v<std::hash<T>>;
template <class T>
concept Summed = requires(T a, T b) {
    a + b;
}
|| requires(T a, T b) { a - b; }
|| requires(T a) { ++a; };
template <class T>
concept Bool = std::is_convertible_v<T, bool> || std::is_constructible_v<bool, T>;

TYPED_TEST(EventValueTest, HasNeitherOrderNorHashNorArithmetic) {
    static_assert(Ordered<int> && Summed<int> && Bool<int> && Hashed<int>);  // the questions have a positive answer
    EXPECT_FALSE(Ordered<TypeParam>);
    EXPECT_FALSE(Hashed<TypeParam>);
    EXPECT_FALSE(Summed<TypeParam>);
    EXPECT_FALSE(Bool<TypeParam>);
}

TYPED_TEST(EventValueTest, IsAPlainStructureOfItsFields) {
    EXPECT_TRUE(std::is_trivially_copyable_v<TypeParam>);
    EXPECT_TRUE(std::is_trivially_destructible_v<TypeParam>);
    EXPECT_TRUE(std::is_standard_layout_v<TypeParam>);
    EXPECT_TRUE(std::is_nothrow_default_constructible_v<TypeParam>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<TypeParam>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<TypeParam>);
    EXPECT_FALSE(std::is_polymorphic_v<TypeParam>);
    EXPECT_FALSE((std::is_convertible_v<Seconds, TypeParam>));
    EXPECT_FALSE((std::is_convertible_v<U32, TypeParam>));
    EXPECT_LE(sizeof(TypeParam), 16u);
}

TYPED_TEST(EventValueTest, CopiesAreIndependent) {
    TypeParam original = Facts<TypeParam>::sample();
    TypeParam copy = original;
    TypeParam moved = std::move(original);
    EXPECT_EQ(copy, Facts<TypeParam>::sample());
    EXPECT_EQ(moved, Facts<TypeParam>::sample());
    copy = TypeParam();
    EXPECT_EQ(copy, TypeParam());
    EXPECT_EQ(moved, Facts<TypeParam>::sample());
    moved = std::move(copy);
    EXPECT_EQ(moved, TypeParam());
}

// --- what only some types have ---

TEST(EventTest, ObservationsHaveNoOperations) {
    static_assert(!Increments<Event> && !Increments<Count> && !Increments<EventOrCount>);
    static_assert(!Increments<ConditionOrChanged> && !IncrementsChanges<Count> && !IncrementsChanges<EventOrCount>);
    static_assert(!Updates<Event, Event> && !Updates<Count, Count> && !Updates<EventOrCount, EventOrCount>);
    static_assert(!UpdatesFrom<Event, bool, Seconds> && !UpdatesFrom<Count, U32, Seconds>);
}

template <class T>
concept ChangesATemporary = requires(T value) {
    std::move(value).valueIs(true);
}
|| requires(T value) { std::move(value).whenIs(1.0); }
|| requires(T value) { std::move(value).countIs(1u); }
|| requires(T value) { std::move(value).countInc(1u); }
|| requires(T value) { std::move(value).changesIs(1u); }
|| requires(T value) { std::move(value).changesInc(1u); }
|| requires(T value) { std::move(value).currentIs(true); }
|| requires(T value) { std::move(value).changedIs(true); }
|| requires(T value) { std::move(value).lastIs(1.0); }
|| requires(T value) { std::move(value).lastChangeIs(1.0); }
|| requires(T value) { std::move(value).updateIs({}); };

TYPED_TEST(EventValueTest, TemporariesAreNotModified) { EXPECT_FALSE(ChangesATemporary<TypeParam>); }

// --- at compile time ---

static_assert(Facts<Event>::sample().when() == Seconds(1700000000.125));
static_assert(Facts<CountOrChangedStat>::sample() == CountOrChangedStat(16909060, 84281096, 1700000000.125));
static_assert(ConditionOrChanged() == ConditionOrChanged(false, false, 0.0));

}  // namespace
