#include "Mox/GenTime.h"

#include "ModuleTable.h"
#include "RecordTest.h"

#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

namespace {

using Mox::GenTime;
using Vel::AttributeOp;
using Vel::Seconds;
using namespace std::string_literals;
using namespace std::chrono_literals;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

GenTime at(double value, double dummyValue = 0.0) { return {value, dummyValue}; }

// --- values ---

template <class T>
concept ValueWritable = requires(T time, Seconds seconds) {
    time.valueIs(seconds);
};

TEST(GenTimeTest, DefaultIsZero) {
    EXPECT_EQ(GenTime().value(), Seconds(0.0));
    EXPECT_EQ(GenTime().dummyValue(), Seconds(0.0));
}

TEST(GenTimeTest, IsMadeOfItsFieldsInTheirOrder) {
    GenTime time(1.5, -2.5);
    EXPECT_EQ(time.value(), Seconds(1.5));
    EXPECT_EQ(time.dummyValue(), Seconds(-2.5));
    time.dummyValueIs(7.0);
    EXPECT_EQ(time.dummyValue(), Seconds(7.0));
    EXPECT_EQ(time.value(), Seconds(1.5));
}

TEST(GenTimeTest, OnlyTheDummyValueCanBeChangedAlone) { EXPECT_FALSE(ValueWritable<GenTime>); }

TEST(GenTimeTest, TakesAndGivesDurations) {
    GenTime const time(1500ms, 2min);
    EXPECT_EQ(time.value(), Seconds(1.5));
    EXPECT_EQ(time.dummyValue(), Seconds(120.0));
    EXPECT_EQ(static_cast<std::chrono::milliseconds>(time.value()), 1500ms);
    EXPECT_TRUE(time.equals(1500400us));
}

TEST(GenTimeTest, HasNoComparisonOperatorsAndNoHash) {
    EXPECT_FALSE(EqualityCompared<GenTime>);
    EXPECT_FALSE(Ordered<GenTime>);
    EXPECT_FALSE(HasHash<GenTime>);
    expectNoHash<GenTime>("Mox::GenTime");
}

// --- methods ---

TEST(GenTimeTest, IsActiveUnlessExactlyZero) {
    EXPECT_FALSE(GenTime().isActive());
    EXPECT_FALSE(at(-0.0).isActive());
    EXPECT_FALSE(at(0.0, 5.0).isActive());
    EXPECT_TRUE(at(0.0005).isActive());
    EXPECT_TRUE(at(5e-324).isActive());
    EXPECT_TRUE(at(-1.0).isActive());
    EXPECT_TRUE(at(nan).isActive());
    EXPECT_TRUE(at(infinity).isActive());
}

TEST(GenTimeTest, MethodsCompareWithATolerance) {
    struct Row {
        double value, t;
        bool equals, lessOrEqual, greaterOrEqual;
    };
    for (Row const row :
        {Row{1.0, 1.0, true, true, true}, Row{1.0, 1.0009, true, true, true}, Row{1.0009, 1.0, true, true, true},
            Row{1.0, 1.002, false, true, false}, Row{1.002, 1.0, false, false, true},
            Row{0.0, 0.001, false, true, false}, Row{0.001, 0.0, false, false, true},
            Row{0.0, 0.00099999, true, true, true}, Row{-0.0005, 0.0004, true, true, true},
            Row{-1.0, 1.0, false, true, false}, Row{1.0, 1.0006, true, true, true},
            Row{1.0006, 1.0012, true, true, true}, Row{1.0, 1.0012, false, true, false},
            Row{nan, nan, false, false, false}, Row{nan, 0.0, false, false, false}, Row{0.0, nan, false, false, false},
            Row{infinity, 0.0, false, false, true}, Row{-infinity, infinity, false, true, false}}) {
        SCOPED_TRACE(std::to_string(row.value) + " and " + std::to_string(row.t));
        GenTime const time = at(row.value, 99.0);
        EXPECT_EQ(time.equals(row.t), row.equals);
        EXPECT_EQ(time.lessThanOrEqualTo(row.t), row.lessOrEqual);
        EXPECT_EQ(time.greaterThanOrEqualTo(row.t), row.greaterOrEqual);
    }
}

// --- text ---

TEST(GenTimeTest, TextShowsBothTimes) {
    EXPECT_EQ(textOf(GenTime()), "Value('Mox::GenTime', ** {'value': 0.0, 'dummyValue': 0.0})");
    EXPECT_EQ(
        textOf(at(1700000000.125, -0.5)), "Value('Mox::GenTime', ** {'value': 1700000000.125, 'dummyValue': -0.5})");
    EXPECT_EQ(printed(at(infinity, 1e16)), "Value('Mox::GenTime', ** {'value': inf, 'dummyValue': 1e+16})");
    EXPECT_EQ(textOf(at(nan, -0.0)), "Value('Mox::GenTime', ** {'value': nan, 'dummyValue': -0.0})");
}

TEST(GenTimeTest, TextsParseBack) {
    auto const time =
        Vel::strepToValue<GenTime>("Value('Mox::GenTime', ** {'value': -0.0, 'dummyValue': 1e+16})", nullptr);
    EXPECT_TRUE(std::signbit(time.value().value()));
    EXPECT_EQ(time.value(), Seconds(0.0));
    EXPECT_EQ(time.dummyValue(), Seconds(1e16));
    auto const checked = Vel::checkedStrepToValue<GenTime>(textOf(at(0.1, nan)));
    ASSERT_TRUE(checked);
    EXPECT_EQ(checked->value(), Seconds(0.1));
    EXPECT_TRUE(std::isnan(checked->dummyValue().value()));
}

TEST(GenTimeTest, NoOtherTextIsParsed) {
    expectNothingElseParsed<GenTime>("Value('Mox::GenTime', ** {'value': 1.5, 'dummyValue': 0.0})");
    expectRefused<GenTime>("Value('Mox::GenTime', ** {'dummyValue': 0.0, 'value': 1.5})");
    expectRefused<GenTime>("Value('Mox::GenTime', ** {'value': 1, 'dummyValue': 0.0})");
    expectRefused<GenTime>("Value('Mox::GenTime', ** {'value': 1.5})");
    expectRefused<GenTime>("Value('Mox::Generation', ** {'value': 1.5, 'dummyValue': 0.0})");
}

TEST(GenTimeTest, RefusalsNameTheAttributeAndThePlace) {
    EXPECT_EQ(parseError<GenTime>("1.5"), "expected \"Value('Mox::GenTime', ** {\" at offset 0, at '1.5'");
    EXPECT_EQ(parseError<GenTime>("Value('Mox::GenTime', ** {'value': x"),
        "attribute \"value\": expected seconds as the shortest decimal of a double, such as 1.5 at offset 35, at 'x'");
    EXPECT_EQ(parseError<GenTime>("Value('Mox::GenTime', ** {'value': 0.0, 'dummyValue': })"),
        "attribute \"dummyValue\": expected seconds as the shortest decimal of a double, such as 1.5 at offset 54, "
        "at '})'");
}

// --- attribute log ---

TEST(GenTimeTest, BytesAreBothTimesAsDoubles) {
    EXPECT_EQ(writtenHex(at(1.5, -2.0)), "3ff8000000000000c000000000000000");
    auto const time = readFrom<GenTime>("3ff8000000000000c000000000000000");
    EXPECT_EQ(time.value(), Seconds(1.5));
    EXPECT_EQ(time.dummyValue(), Seconds(-2.0));
    EXPECT_EQ(writtenHex(readFrom<GenTime>("7ff8000000000123fff0000000000000")), "7ff8000000000123fff0000000000000");
    EXPECT_EQ(attrLogSize(&time), 16u);
    EXPECT_EQ(Vel::typeOf<GenTime>().encodedSize(), 16u);
}

TEST(GenTimeTest, OtherLengthsAreRefused) {
    expectOtherLengthsRefused<GenTime>("3ff8000000000000c000000000000000");
    EXPECT_EQ(readError<GenTime>("3ff800000000"),
        "Mox::GenTime.value: the attribute log ends within Vel::Seconds at offset 0: 8 bytes needed, 6 left");
    EXPECT_EQ(readError<GenTime>("3ff8000000000000c0"),
        "Mox::GenTime.dummyValue: the attribute log ends within Vel::Seconds at offset 8: 8 bytes needed, 1 left");
}

// --- reflection ---

TEST(GenTimeReflectionTest, TruthIsBeyondTheTolerance) {
    EXPECT_FALSE(truthOf(GenTime()));
    EXPECT_FALSE(truthOf(at(0.0005)));
    EXPECT_FALSE(truthOf(at(-0.00099)));
    EXPECT_FALSE(truthOf(at(0.0, 5.0)));
    EXPECT_FALSE(truthOf(at(nan)));
    EXPECT_TRUE(truthOf(at(0.001)));
    EXPECT_TRUE(truthOf(at(-0.001)));
    EXPECT_TRUE(truthOf(at(-1.0)));
    EXPECT_TRUE(truthOf(at(infinity)));
}

TEST(GenTimeReflectionTest, EqualityAndOrderHaveTheTolerance) {
    struct Row {
        double a, b;
        bool equal, less;
    };
    for (Row const row : {Row{1.0, 1.0, true, false}, Row{1.0, 1.0009, true, false}, Row{1.0009, 1.0, true, false},
             Row{1.0, 1.002, false, true}, Row{1.002, 1.0, false, false}, Row{0.0, 0.001, false, true},
             Row{1.0, 1.0006, true, false}, Row{1.0006, 1.0012, true, false}, Row{1.0, 1.0012, false, true},
             Row{-1.0, 1.0, false, true}, Row{nan, nan, false, false}, Row{nan, 1.0, false, false}}) {
        SCOPED_TRACE(std::to_string(row.a) + " and " + std::to_string(row.b));
        EXPECT_EQ(equalByReflection(at(row.a, 5.0), at(row.b, 6.0)), row.equal);
        EXPECT_EQ(lessByReflection(at(row.a, 5.0), at(row.b, 4.0)), row.less);
    }
}

TEST(GenTimeReflectionTest, ValueIsReadOnlyAndDummyValueIsNot) {
    GenTime object(1.5, 2.5);
    Seconds seconds;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::get, &seconds), 0);
    EXPECT_EQ(seconds, Seconds(1.5));
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, &seconds), 0);
    EXPECT_EQ(seconds, Seconds(2.5));
    seconds = 9.0;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::set, nullptr, &seconds), 1);
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::set, nullptr, &seconds), 0);
    EXPECT_EQ(object.value(), Seconds(1.5));
    EXPECT_EQ(object.dummyValue(), Seconds(9.0));
}

TEST(GenTimeReflectionTest, MethodsAreCalled) {
    GenTime object(1.0, 0.0);
    bool result = false;
    EXPECT_EQ(callOp(object, 4, &result), 0);
    EXPECT_TRUE(result);
    for (auto const& [t, lessOrEqual, greaterOrEqual, equals] : {std::tuple(Seconds(1.0009), true, true, true),
             std::tuple(Seconds(2.0), true, false, false), std::tuple(Seconds(0.5), false, true, false)}) {
        EXPECT_EQ(callOp(object, 5, &result, t), 0);
        EXPECT_EQ(result, lessOrEqual);
        EXPECT_EQ(callOp(object, 6, &result, t), 0);
        EXPECT_EQ(result, greaterOrEqual);
        EXPECT_EQ(callOp(object, 7, &result, t), 0);
        EXPECT_EQ(result, equals);
    }
    object = GenTime(0.0, 1.0);
    EXPECT_EQ(callOp(object, 4, &result), 0);
    EXPECT_FALSE(result);
}

TEST(GenTimeReflectionTest, OtherOperationsAreRefused) {
    GenTime object(1.0, 2.0);
    using Ops = std::vector<Vel::U32>;
    EXPECT_EQ(opsNotAnswered(object, 2, 1, 0), Ops());
    for (Vel::U32 op = 2; op < 40; ++op) EXPECT_EQ(attributeOp(object, 3, AttributeOp(op)), 1) << op;
    for (Vel::AttributeId const id : {4u, 5u, 6u, 7u}) EXPECT_EQ(opsNotAnswered(object, id, 1, 10), Ops()) << id;
    for (Vel::AttributeId const id : {0u, 1u, 8u, 258u}) EXPECT_EQ(opsNotAnswered(object, id, 2), Ops()) << id;
    EXPECT_EQ(wholeValueOps(object), (Ops{11, 12, 13}));
}

TEST(GenTimeReflectionTest, IsConstructedCopiedAndParsedByItsGlue) {
    auto const type = Vel::typeOf<GenTime>();
    auto const& glue = type.glue();
    GenTime object(9.0, 9.0);
    GenTime const source(1.0, 2.0);
    glue.genericIfConstruct(&object, nullptr);
    EXPECT_EQ(textOf(object), textOf(GenTime()));
    glue.genericIfConstruct(&object, &source);
    EXPECT_EQ(textOf(object), textOf(source));
    Seconds const seconds[] = {3.0, 4.0};
    void const* const arguments[] = {&seconds[0], &seconds[1]};
    glue.genericIfConstructFromCtorArgs(&object, arguments);  // takes none
    EXPECT_EQ(textOf(object), textOf(GenTime()));
    glue.genericIfStrepToValue(&object, textOf(source), type);
    EXPECT_EQ(glue.genericIfStrRep(&object, type).stdString(), textOf(source));
    EXPECT_THROW(glue.genericIfStrepToValue(&object, textOf(GenTime()) + "x", type), Vel::ParseException);
    EXPECT_EQ(textOf(object), textOf(source));
    glue.genericIfDestruct(&object);
}

// --- module table ---

TEST(GenTimeModuleTest, AttributesAreListed) {
    auto const type = Vel::Registry::type("Mox::GenTime");
    EXPECT_EQ(attributesOf(type),
        (std::vector<std::string>{"2 value field get Vel::Seconds", "3 dummyValue field get set Vel::Seconds",
            "4 isActive method call", "5 lessThanOrEqualTo method call", "6 greaterThanOrEqualTo method call",
            "7 equals method call"}));
    EXPECT_EQ(type.strepTemplate(), "Value('Mox::GenTime', ** {'value': %s, 'dummyValue': %s})");
}

TEST(GenTimeModuleTest, NamesAreListedInByteOrder) {
    ModuleTable const table("_GenTime_fccc10043bff97d9_velModule");
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.typeNames(), "Mox::GenTime\0Vel::Seconds\0"s);
    EXPECT_EQ(
        table.attributeNames(), "\0dummyValue\0equals\0greaterThanOrEqualTo\0isActive\0lessThanOrEqualTo\0t\0value\0"s);
    ASSERT_EQ(table.types(), 1u);
    EXPECT_EQ(table.attributeCount(0), 6u);
    for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(table.attributeId(i), i + 2);
}

#if defined(__cpp_lib_format)
TEST(GenTimeTest, FormatsAsItsText) { EXPECT_EQ(std::format("{}", GenTime()), textOf(GenTime())); }
#endif

}  // namespace
