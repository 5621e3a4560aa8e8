#include "EventTypes.h"
#include "ModuleTable.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <limits>
#include <set>

namespace {

using Vel::AttributeOp;
using Vel::Seconds;
using Vel::U32;
using namespace std::string_literals;

class EventReflectionTest : public EventTypeTest {
protected:
    static int valueOp(EventValue& value, AttributeOp op, void* result, EventValue const* other = nullptr) {
        return value.type().type().glue().genericIfAttributeOp(
            result, value.data(), {}, op, other ? other->data() : nullptr, nullptr);
    }
    static int attributeOp(
        EventValue& value, Vel::AttributeId id, AttributeOp op, void* result, void const* argument = nullptr) {
        auto const type = value.type().type();
        auto const attr = type.attributeOfId(id).value_or(Vel::VelAttr(type, type.attributeCount()));
        return type.glue().genericIfAttributeOp(result, value.data(), attr, op, nullptr, argument);
    }
    static bool truthOf(EventValue value) {
        bool once = false;
        bool again = true;  // the answer is written whatever stood there
        EXPECT_EQ(valueOp(value, AttributeOp::truth, &once), 0);
        EXPECT_EQ(valueOp(value, AttributeOp::truth, &again), 0);
        EXPECT_EQ(once, again);
        return once;
    }
    // A default value but for the time, which is the last field of every type.
    EventValue zeroAt(double time) const {
        EventValue value(type);
        Seconds const when = time;
        auto const id = static_cast<Vel::AttributeId>(1 + type.fields.size());
        EXPECT_EQ(attributeOp(value, id, AttributeOp::set, nullptr, &when), 0);
        return value;
    }
};
INSTANTIATE_TEST_SUITE_P(Types, EventReflectionTest, eachEventType(), eventTypeName);

// --- attributes ---

TEST_P(EventReflectionTest, AttributesAreListed) { EXPECT_EQ(type.spelledAttributes(), type.attributes()); }

TEST_P(EventReflectionTest, FieldsAreReadByTheirIds) {
    EventValue value = type.sample();
    Vel::AttributeId id = 2;
    for (FieldFact const& field : type.fields) {
        Vel::GenericValue result(Vel::VelType(Vel::Registry::type(field.type)));
        EXPECT_EQ(attributeOp(value, id++, AttributeOp::get, result.data()), 0);
        EXPECT_EQ(result.strep(), field.text) << field.name;
    }
    EXPECT_EQ(value, type.sample());
}

TEST_P(EventReflectionTest, FieldsAreSetByTheirIds) {
    auto const expected = type.oneFieldSet();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        auto const& field = type.fields[i];
        Vel::GenericValue const argument(Vel::VelType(Vel::Registry::type(field.type)), field.text);
        EventValue value(type);
        auto const id = static_cast<Vel::AttributeId>(2 + i);
        EXPECT_EQ(attributeOp(value, id, AttributeOp::set, nullptr, argument.data()), 0);
        EXPECT_EQ(value, expected[i]) << field.name;
    }
}

TEST_P(EventReflectionTest, OperationsThatAnAttributeLacksAreRefused) {
    EventValue value = type.sample();
    alignas(8) unsigned char result[64] = {77};
    alignas(8) unsigned char const argument[64] = {};
    std::size_t const fields = type.fields.size();
    std::size_t const attributes = type.attributes().size();
    for (std::size_t i = 0; i < attributes; ++i) {
        auto const answered = i < fields ? std::set<U32>{0, 1} : i == fields ? std::set<U32>{1} : std::set<U32>{10};
        auto const id = static_cast<Vel::AttributeId>(2 + i);
        for (U32 op = 0; op < 40; ++op)
            if (!answered.contains(op)) {
                EXPECT_EQ(attributeOp(value, id, AttributeOp(op), result, argument), 1) << id << " " << op;
            }
        EXPECT_EQ(attributeOp(value, id, AttributeOp(4294967295u), result, argument), 1) << id;
    }
    EXPECT_EQ(value, type.sample());
    EXPECT_EQ(result[0], 77);
}

TEST_P(EventReflectionTest, OtherAttributesAreUnknown) {
    EventValue value = type.sample();
    alignas(8) unsigned char result[64] = {77};
    auto const record = type.type();
    auto const count = static_cast<U32>(type.attributes().size());
    for (Vel::AttributeId const id : {0u, 1u, count + 2, count + 3, 258u})
        for (U32 op = 0; op < 40; ++op)
            EXPECT_EQ(attributeOp(value, id, AttributeOp(op), result, result), 2) << id << " " << op;
    for (U32 const index : {count, count + 1, 4294967295u}) {
        EXPECT_EQ(Vel::VelAttr(record, index).attributeId(), 0u) << index;
        EXPECT_EQ(record.glue().genericIfAttributeOp(
                      result, value.data(), Vel::VelAttr(record, index), AttributeOp::get, nullptr, nullptr),
            2)
            << index;
    }
    EXPECT_EQ(value, type.sample());
    EXPECT_EQ(result[0], 77);
}

// --- the value as a whole ---

TEST_P(EventReflectionTest, OnlyTruthAndEqualityAreAnswered) {
    EXPECT_EQ(type.valueOps(), (std::vector<U32>{11, 12}));
    EventValue value = type.sample();
    EventValue const other(type);
    EventValue result = type.sample();
    for (U32 op = 0; op < 40; ++op)
        if (op != 11 && op != 12) {
            EXPECT_EQ(valueOp(value, AttributeOp(op), result.data(), &other), 1) << op;
        }
    EXPECT_EQ(value, type.sample());
    EXPECT_EQ(result, type.sample());
}

TEST_P(EventReflectionTest, TruthIsAnyFieldOtherThanItsZero) {
    EXPECT_FALSE(truthOf(EventValue(type)));
    EXPECT_TRUE(truthOf(type.sample()));
    for (EventValue const& value : type.oneFieldSet()) EXPECT_TRUE(truthOf(value)) << value;
}

TEST_P(EventReflectionTest, TruthComparesTheTimeAsANumber) {
    EXPECT_FALSE(truthOf(zeroAt(-0.0)));
    EXPECT_TRUE(truthOf(zeroAt(5.0)));
    EXPECT_TRUE(truthOf(zeroAt(-5e-324)));
    EXPECT_TRUE(truthOf(zeroAt(std::numeric_limits<double>::quiet_NaN())));
}

TEST_P(EventReflectionTest, EqualityIsThatOfTheType) {
    auto const equal = [](EventValue a, EventValue const& b) {
        bool result = false;
        bool again = true;
        EXPECT_EQ(valueOp(a, AttributeOp::equal, &result, &b), 0);
        EXPECT_EQ(valueOp(a, AttributeOp::equal, &again, &b), 0);
        EXPECT_EQ(result, again);
        return result;
    };
    EventValue const sample = type.sample();
    EXPECT_TRUE(equal(sample, sample));
    for (EventValue const& other : type.oneFieldChanged()) EXPECT_FALSE(equal(sample, other)) << other;
    auto const nan = zeroAt(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(equal(nan, nan));
    EXPECT_TRUE(equal(zeroAt(-0.0), EventValue(type)));
}

TEST_P(EventReflectionTest, HasNoHash) {
    EventValue const value = type.sample();
    auto const record = type.type();
    EXPECT_FALSE(record.isHashable());
    try {
        record.glue().genericIfHash(value.data(), record);
        ADD_FAILURE() << "hashed";
    } catch (Vel::UnhashableException const& error) {
        EXPECT_EQ(error.what(), "values of type "s + type.name + " have no hash");
    }
}

// --- construction, text and views ---

TEST_P(EventReflectionTest, IsConstructedAndCopied) {
    auto const& glue = type.type().glue();
    EXPECT_EQ(glue.size, type.size);
    EXPECT_EQ(glue.alignment, type.alignment);
    EventValue const source = type.sample();
    EventValue value(type);
    glue.genericIfConstruct(value.data(), source.data());
    EXPECT_EQ(value, source);
    glue.genericIfConstruct(value.data(), nullptr);
    EXPECT_EQ(value, EventValue(type));
}

TEST_P(EventReflectionTest, ConstructionIgnoresArguments) {
    auto const& glue = type.type().glue();
    U32 const number = 7;
    void const* const arguments[] = {&number, &number, &number};
    EventValue value = type.sample();
    glue.genericIfConstructFromCtorArgs(value.data(), arguments);
    EXPECT_EQ(value, EventValue(type));
    value = type.sample();
    glue.genericIfConstructFromCtorArgs(value.data(), nullptr);
    EXPECT_EQ(value, EventValue(type));
}

TEST_P(EventReflectionTest, DestructionDoesNothing) {
    alignas(8) std::array<unsigned char, 64> memory{};
    ASSERT_LE(type.size, memory.size());
    type.constructSample(memory.data());
    auto const before = memory;
    type.type().glue().genericIfDestruct(memory.data());
    EXPECT_EQ(memory, before);
}

TEST_P(EventReflectionTest, GoesThroughTextAndBytes) {
    auto const record = type.type();
    EventValue value(type);
    record.glue().genericIfStrepToValue(value.data(), type.text, record);
    EXPECT_EQ(value, type.sample());
    EXPECT_EQ(record.glue().genericIfStrRep(value.data(), record), type.text);
    Vel::NboAttrLog::Out out;
    record.glue().write(out, value.data());
    EXPECT_EQ(hexOf(out.bytes()), type.hex);
    EventValue copy(type);
    Vel::NboAttrLog::In in(out.bytes());
    record.glue().read(copy.data(), in);
    EXPECT_EQ(copy, value);
}

TEST_P(EventReflectionTest, ViewsOfAnotherTypeAreRefused) {
    EventValue value(type);
    auto const record = type.type();
    EXPECT_EQ(record.glue().genericIfVoidPtrIs(value.data(), record, record), value.data());
    EXPECT_FALSE(record.isPolymorphic());
    EXPECT_FALSE(record.isEntity());
    for (Vel::VelType const other : Vel::Registry::types()) {
        if (other == record || other.moduleName() != "Events") continue;
        try {
            record.glue().genericIfVoidPtrIs(value.data(), other, record);
            ADD_FAILURE() << other.name();
        } catch (Vel::TypeException const& error) {
            EXPECT_EQ(error.what(), "the operation does not apply to a value of type "s + type.name);
        }
    }
}

TEST_P(EventReflectionTest, IsRegisteredByItsName) {
    auto const record = Vel::Registry::type(type.name);
    ASSERT_TRUE(record);
    EXPECT_EQ(record, type.type());
    EXPECT_EQ(record.name(), std::string(type.name));
    EXPECT_EQ(record.moduleName(), "Events");
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
