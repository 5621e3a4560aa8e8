#include "ModuleTable.h"
#include "StatisticsTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <limits>
#include <set>

namespace {

using Vel::AttributeOp;
using Vel::Seconds;
using Vel::U32;
using namespace std::string_literals;

template <class T> class EventReflectionTest : public testing::Test {};
TYPED_TEST_SUITE(EventReflectionTest, EventAndStatisticTypes, TypeNames);

// --- attributes ---

TYPED_TEST(EventReflectionTest, AttributesAreListed) {
    EXPECT_EQ(spelledAttributes<TypeParam>(), Facts<TypeParam>::attributes());
}

TYPED_TEST(EventReflectionTest, FieldsAreReadByTheirIds) {
    TypeParam value = Facts<TypeParam>::sample();
    Vel::AttributeId id = 2;
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        Vel::GenericValue result(Vel::VelType(Vel::Registry::type(field.type)));
        EXPECT_EQ(attributeOp(value, id++, AttributeOp::get, result.data()), 0);
        EXPECT_EQ(result.strep(), field.text) << field.name;
    }
    EXPECT_EQ(value, Facts<TypeParam>::sample());
}

TYPED_TEST(EventReflectionTest, FieldsAreSetByTheirIds) {
    auto const expected = Facts<TypeParam>::oneFieldSet();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        auto const& field = Facts<TypeParam>::fields[i];
        Vel::GenericValue const argument(Vel::VelType(Vel::Registry::type(field.type)), field.text);
        TypeParam value;
        auto const id = static_cast<Vel::AttributeId>(2 + i);
        EXPECT_EQ(attributeOp<TypeParam>(value, id, AttributeOp::set, nullptr, argument.data()), 0);
        EXPECT_EQ(value, expected[i]) << field.name;
    }
}

TYPED_TEST(EventReflectionTest, OperationsThatAnAttributeLacksAreRefused) {
    TypeParam value = Facts<TypeParam>::sample();
    alignas(8) unsigned char result[64] = {77};
    alignas(8) unsigned char const argument[64] = {};
    std::size_t const fields = Facts<TypeParam>::fields.size();
    std::size_t const attributes = Facts<TypeParam>::attributes().size();
    for (std::size_t i = 0; i < attributes; ++i) {
        auto const answered = i < fields ? std::set<U32>{0, 1} : i == fields ? std::set<U32>{1} : std::set<U32>{10};
        auto const id = static_cast<Vel::AttributeId>(2 + i);
        for (U32 op = 0; op < 40; ++op)
            if (!answered.contains(op)) {
                EXPECT_EQ(attributeOp(value, id, AttributeOp(op), result, argument), 1) << id << " " << op;
            }
        EXPECT_EQ(attributeOp(value, id, AttributeOp(4294967295u), result, argument), 1) << id;
    }
    EXPECT_EQ(value, Facts<TypeParam>::sample());
    EXPECT_EQ(result[0], 77);
}

TYPED_TEST(EventReflectionTest, OtherAttributesAreUnknown) {
    TypeParam value = Facts<TypeParam>::sample();
    alignas(8) unsigned char result[64] = {77};
    auto const type = Vel::typeOf<TypeParam>();
    auto const count = static_cast<U32>(Facts<TypeParam>::attributes().size());
    for (Vel::AttributeId const id : {0u, 1u, count + 2, count + 3, 258u})
        for (U32 op = 0; op < 40; ++op)
            EXPECT_EQ(attributeOp(value, id, AttributeOp(op), result, result), 2) << id << " " << op;
    for (U32 const index : {count, count + 1, 4294967295u}) {
        EXPECT_EQ(Vel::VelAttr(type, index).attributeId(), 0u) << index;
        EXPECT_EQ(type.glue().genericIfAttributeOp(
                      result, &value, Vel::VelAttr(type, index), AttributeOp::get, nullptr, nullptr),
            2)
            << index;
    }
    EXPECT_EQ(value, Facts<TypeParam>::sample());
    EXPECT_EQ(result[0], 77);
}

// --- the value as a whole ---

TYPED_TEST(EventReflectionTest, OnlyTruthAndEqualityAreAnswered) {
    EXPECT_EQ(valueOps<TypeParam>(), (std::vector<U32>{11, 12}));
    TypeParam value = Facts<TypeParam>::sample();
    TypeParam const other;
    TypeParam result = Facts<TypeParam>::sample();
    for (U32 op = 0; op < 40; ++op)
        if (op != 11 && op != 12) {
            EXPECT_EQ(valueOp(value, AttributeOp(op), &result, &other), 1) << op;
        }
    EXPECT_EQ(value, Facts<TypeParam>::sample());
    EXPECT_EQ(result, Facts<TypeParam>::sample());
}

template <class T> bool truthOf(T value) {
    bool once = false;
    bool again = true;  // the answer is written whatever stood there
    EXPECT_EQ(valueOp(value, AttributeOp::truth, &once), 0);
    EXPECT_EQ(valueOp(value, AttributeOp::truth, &again), 0);
    EXPECT_EQ(once, again);
    return once;
}

TYPED_TEST(EventReflectionTest, TruthIsAnyFieldOtherThanItsZero) {
    EXPECT_FALSE(truthOf(TypeParam()));
    EXPECT_TRUE(truthOf(Facts<TypeParam>::sample()));
    for (TypeParam const& value : Facts<TypeParam>::oneFieldSet()) EXPECT_TRUE(truthOf(value)) << value;
}

// A default value but for the time, which is the last field of every type.
template <class T> T zeroAt(double time) {
    T value;
    Seconds const when = time;
    auto const id = static_cast<Vel::AttributeId>(1 + Facts<T>::fields.size());
    EXPECT_EQ(attributeOp<T>(value, id, AttributeOp::set, nullptr, &when), 0);
    return value;
}

TYPED_TEST(EventReflectionTest, TruthComparesTheTimeAsANumber) {
    EXPECT_FALSE(truthOf(zeroAt<TypeParam>(-0.0)));
    EXPECT_TRUE(truthOf(zeroAt<TypeParam>(5.0)));
    EXPECT_TRUE(truthOf(zeroAt<TypeParam>(-5e-324)));
    EXPECT_TRUE(truthOf(zeroAt<TypeParam>(std::numeric_limits<double>::quiet_NaN())));
}

TYPED_TEST(EventReflectionTest, EqualityIsThatOfTheType) {
    auto const equal = [](TypeParam a, TypeParam const& b) {
        bool result = false;
        bool again = true;
        EXPECT_EQ(valueOp(a, AttributeOp::equal, &result, &b), 0);
        EXPECT_EQ(valueOp(a, AttributeOp::equal, &again, &b), 0);
        EXPECT_EQ(result, again);
        return result;
    };
    TypeParam const sample = Facts<TypeParam>::sample();
    EXPECT_TRUE(equal(sample, sample));
    for (TypeParam const& other : Facts<TypeParam>::oneFieldChanged()) EXPECT_FALSE(equal(sample, other)) << other;
    auto const nan = zeroAt<TypeParam>(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(equal(nan, nan));
    EXPECT_TRUE(equal(zeroAt<TypeParam>(-0.0), TypeParam()));
}

TYPED_TEST(EventReflectionTest, HasNoHash) {
    TypeParam const value = Facts<TypeParam>::sample();
    auto const type = Vel::typeOf<TypeParam>();
    EXPECT_FALSE(type.isHashable());
    try {
        type.glue().genericIfHash(&value, type);
        ADD_FAILURE() << "hashed";
    } catch (Vel::UnhashableException const& error) {
        EXPECT_EQ(error.what(), "values of type "s + Facts<TypeParam>::name + " have no hash");
    }
}

// --- construction, text and views ---

TYPED_TEST(EventReflectionTest, IsConstructedAndCopied) {
    auto const& glue = Vel::typeOf<TypeParam>().glue();
    EXPECT_EQ(glue.size, sizeof(TypeParam));
    EXPECT_EQ(glue.alignment, alignof(TypeParam));
    TypeParam const source = Facts<TypeParam>::sample();
    TypeParam value;
    glue.genericIfConstruct(&value, &source);
    EXPECT_EQ(value, source);
    glue.genericIfConstruct(&value, nullptr);
    EXPECT_EQ(value, TypeParam());
}

TYPED_TEST(EventReflectionTest, ConstructionIgnoresArguments) {
    auto const& glue = Vel::typeOf<TypeParam>().glue();
    U32 const number = 7;
    void const* const arguments[] = {&number, &number, &number};
    TypeParam value = Facts<TypeParam>::sample();
    glue.genericIfConstructFromCtorArgs(&value, arguments);
    EXPECT_EQ(value, TypeParam());
    value = Facts<TypeParam>::sample();
    glue.genericIfConstructFromCtorArgs(&value, nullptr);
    EXPECT_EQ(value, TypeParam());
}

TYPED_TEST(EventReflectionTest, DestructionDoesNothing) {
    alignas(TypeParam) std::array<unsigned char, sizeof(TypeParam)> memory{};
    new (memory.data()) TypeParam(Facts<TypeParam>::sample());
    auto const before = memory;
    Vel::typeOf<TypeParam>().glue().genericIfDestruct(memory.data());
    EXPECT_EQ(memory, before);
}

TYPED_TEST(EventReflectionTest, GoesThroughTextAndBytes) {
    auto const type = Vel::typeOf<TypeParam>();
    TypeParam value;
    type.glue().genericIfStrepToValue(&value, Facts<TypeParam>::text, type);
    EXPECT_EQ(value, Facts<TypeParam>::sample());
    EXPECT_EQ(type.glue().genericIfStrRep(&value, type), Facts<TypeParam>::text);
    Vel::NboAttrLog::Out out;
    type.glue().write(out, &value);
    EXPECT_EQ(hexOf(out.bytes()), Facts<TypeParam>::hex);
    TypeParam copy;
    Vel::NboAttrLog::In in(out.bytes());
    type.glue().read(&copy, in);
    EXPECT_EQ(copy, value);
}

TYPED_TEST(EventReflectionTest, ViewsOfAnotherTypeAreRefused) {
    TypeParam value;
    auto const type = Vel::typeOf<TypeParam>();
    EXPECT_EQ(type.glue().genericIfVoidPtrIs(&value, type, type), &value);
    EXPECT_FALSE(type.isPolymorphic());
    EXPECT_FALSE(type.isEntity());
    for (Vel::VelType const other : Vel::Registry::types()) {
        if (other == type || other.moduleName() != "Events") continue;
        try {
            type.glue().genericIfVoidPtrIs(&value, other, type);
            ADD_FAILURE() << other.name();
        } catch (Vel::TypeException const& error) {
            EXPECT_EQ(error.what(), "the operation does not apply to a value of type "s + Facts<TypeParam>::name);
        }
    }
}

TYPED_TEST(EventReflectionTest, IsRegisteredByItsName) {
    auto const type = Vel::Registry::type(Facts<TypeParam>::name);
    ASSERT_TRUE(type);
    EXPECT_EQ(type, Vel::typeOf<TypeParam>());
    EXPECT_EQ(type.name(), std::string(Facts<TypeParam>::name));
    EXPECT_EQ(type.moduleName(), "Events");
}

// --- module table ---

class EventsModuleTest : public testing::Test {
protected:
    ModuleTable const table{"_Events_612aea80d211399c_velModule"};
    void SetUp() override { ASSERT_TRUE(table); }
};

TEST_F(EventsModuleTest, TableIsExportedUnderItsSymbol) {
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.header(), &Vel::typeOf<Mox::Event>().module());
    EXPECT_EQ(table.header()->fingerprint, 0x612aea80d211399cul);
}

TEST_F(EventsModuleTest, NamesAreListedInByteOrder) {
    EXPECT_EQ(table.typeNames(),
        "Mox::ConditionOrChanged\0Mox::ConditionOrChangedStat\0Mox::ConditionOrCountStat\0Mox::ConditionStat\0"
        "Mox::Count\0Mox::CountOrChangedStat\0Mox::CountStat\0Mox::Event\0Mox::EventOrCount\0Mox::EventOrCountStat\0"
        "Mox::EventStat\0U1\0U32\0Vel::Seconds\0"s);
    EXPECT_EQ(table.attributeNames(),
        "\0changed\0changes\0count\0current\0doUpdate\0event\0last\0lastChange\0timestamp\0update\0val\0value\0when\0"s);
}

TEST_F(EventsModuleTest, TypesFollowEachOtherInTheirOrder) {
    std::vector<std::string> types;
    for (unsigned i = 0; i < table.types(); ++i)
        types.push_back(Vel::VelType(table.header(), i).name() + " "s + std::to_string(table.firstAttribute(i)) + " " +
                        std::to_string(table.attributeCount(i)));
    EXPECT_EQ(types, (std::vector<std::string>{"Mox::Event 0 2", "Mox::Count 2 2", "Mox::EventOrCount 4 3",
                         "Mox::ConditionOrChanged 7 3", "Mox::ConditionStat 10 5", "Mox::EventStat 15 5",
                         "Mox::CountStat 20 4", "Mox::EventOrCountStat 24 4", "Mox::ConditionOrCountStat 28 5",
                         "Mox::ConditionOrChangedStat 33 5", "Mox::CountOrChangedStat 38 5"}));
}

TEST_F(EventsModuleTest, AttributesAreGroupedByTypeInTheOrderOfTheirIds) {
    std::vector<std::string> attributes;
    for (unsigned i = 0; i < table.attributes(); ++i)
        attributes.push_back(std::to_string(table.attributeId(i)) + " " + table.attributeName(i));
    EXPECT_EQ(
        attributes, (std::vector<std::string>{"2 value", "3 when", "2 count", "3 when", "2 value", "3 count", "4 when",
                        "2 current", "3 changed", "4 when", "2 current", "3 changes", "4 lastChange", "5 update",
                        "6 doUpdate", "2 current", "3 count", "4 last", "5 update", "6 doUpdate", "2 count", "3 last",
                        "4 update", "5 doUpdate", "2 count", "3 last", "4 update", "5 doUpdate", "2 current",
                        "3 changes", "4 lastChange", "5 update", "6 doUpdate", "2 current", "3 changes", "4 lastChange",
                        "5 update", "6 doUpdate", "2 count", "3 changes", "4 lastChange", "5 update", "6 doUpdate"}));
}

}  // namespace
