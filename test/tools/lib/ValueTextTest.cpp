#include "tools/lib/ValueText.h"

#include "LibTest.h"

#include "Mox/Events.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/ForeignTypes.h"
#include "Vel/entity/ForeignEntity.h"

namespace {

using namespace Tool;
using Vel::typeOf;

std::string read(Vel::VelType type, std::string_view text, std::vector<std::string>* notes = nullptr) {
    Taken const taken = [&](std::string const& note, std::size_t offset) {
        if (notes) notes->push_back(std::to_string(offset) + ": " + note);
    };
    return valueText(valueFrom(type, text, taken));
}

TEST(ValueTextTest, TheTextFormOfATypeIsTakenAsSuch) {
    std::vector<std::string> notes;
    EXPECT_EQ(read(typeOf<Vel::String>(), "'a b'", &notes), "'a b'");
    EXPECT_EQ(read(typeOf<double>(), "1.5", &notes), "1.5");
    EXPECT_EQ(notes, std::vector<std::string>());
}

TEST(ValueTextTest, AWordIsTakenForAStringAndAWholeNumberForADouble) {
    std::vector<std::string> notes;
    EXPECT_EQ(read(typeOf<Vel::String>(), "uplink", &notes), "'uplink'");
    EXPECT_EQ(read(typeOf<double>(), "-1", &notes), "-1.0");
    EXPECT_EQ(notes, (std::vector<std::string>{"0: uplink is taken for the text 'uplink'", "0: -1 is taken for -1.0"}));
}

TEST(ValueTextTest, AWordIsTakenForANameOfAnEnumeration) {
    auto const types = std::make_shared<Vel::ForeignTypes>(Vel::ForeignEntity::functions());
    types->add(Vel::ModuleDescription::parsed("module Weather\n"
                                              "type Weather::Sky form 1 base - flags 8 ops 6144\n"
                                              "attribute 2 value kind 0 ops 3 value U8 key - result -\n"
                                              "attribute 3 clear kind 2 ops 1 value U8 key - result - is 0\n"
                                              "attribute 4 rain kind 2 ops 1 value U8 key - result - is 1\n"
                                              "type Weather::Day form 0 base - flags 0 ops 4096\n"
                                              "attribute 2 sky kind 0 ops 3 value Weather::Sky key - result -\n"
                                              "attribute 3 sun kind 0 ops 3 value F64 key - result -\n"));
    Vel::VelType const sky = types->valueType("Weather::Sky"), day = types->valueType("Weather::Day");
    std::vector<std::string> notes;
    EXPECT_EQ(read(sky, "rain", &notes), "'rain'");
    EXPECT_EQ(notes, std::vector<std::string>{"0: rain is taken for the text 'rain'"});
    EXPECT_EQ(read(sky, "7"), "7");
    EXPECT_THROW(read(sky, "snow"), Vel::ParseException);
    EXPECT_EQ(read(day, "Value('Weather::Day', ** {'sky': rain, 'sun': 1})"),
        "Value('Weather::Day', ** {'sky': 'rain', 'sun': 1.0})");
    EXPECT_EQ(read(day, "Value('Weather::Day', ** {'sky': 7, 'sun': 1})"),
        "Value('Weather::Day', ** {'sky': 7, 'sun': 1.0})");
}

TEST(ValueTextTest, InRecordsTheFieldIsNamed) {
    std::vector<std::string> notes;
    EXPECT_EQ(read(typeOf<Mox::Count>(), "Value('Mox::Count', ** {'count': 3, 'when': 7})", &notes),
        "Value('Mox::Count', ** {'count': 3, 'when': 7.0})");
    EXPECT_EQ(notes, (std::vector<std::string>{"44: when: 7 is taken for 7.0"}));
}

TEST(ValueTextTest, ANumberThatNoDoubleIsIsTakenForNone) {
    EXPECT_EQ(read(typeOf<double>(), "9007199254740992"), "9007199254740992.0");
    EXPECT_THROW(read(typeOf<double>(), "9007199254740993"), Vel::ParseException);
    EXPECT_THROW(read(typeOf<Vel::U32>(), "1.0"), Vel::ParseException);
    EXPECT_THROW(read(typeOf<Vel::String>(), "two words"), Vel::ParseException);
}

TEST(ValueTextTest, HighBytesAreEscapedAndReadBack) {
    std::string const text = valueText(valueFrom(typeOf<Vel::String>(), "'\xff\xc2\x9b'"));
    EXPECT_EQ(text, "'\\xff\\xc2\\x9b'");
    EXPECT_EQ(static_cast<Vel::String const*>(valueFrom(typeOf<Vel::String>(), text).data())->view(), "\xff\xc2\x9b");
}

TEST(ValueTextTest, AMistakeIsToldOfTheTextAsItStands) {
    try {
        valueFrom(typeOf<Mox::Count>(), "Value('Mox::Count', ** {'count': x, 'when': 7})");
        ADD_FAILURE() << "nothing was thrown";
    } catch (Vel::ParseException const& error) {
        EXPECT_EQ(error.offset(), 33u);
    }
}

TEST(ValueTextTest, AGivenValueFailsWithItsPlace) {
    EXPECT_EQ(valueText(givenValue(typeOf<Vel::U8>(), "7", 2)), "7");
    std::string const failure = ToolTest::failureOf([] { givenValue(typeOf<Vel::U8>(), "7x", 2, "", "--from: "); });
    EXPECT_THAT(failure, testing::StartsWith("2: --from: this is no U8: "));
    EXPECT_THAT(failure, testing::EndsWith("\n    7x\n     ^"));
}

TEST(ValueTextTest, FieldsComeInTheirOrder) {
    std::vector<std::string> names;
    for (Vel::VelAttr const& field : fieldsOf(typeOf<Mox::CountStat>())) names.emplace_back(field.name());
    EXPECT_EQ(names, (std::vector<std::string>{"count", "last"}));
}

}  // namespace
