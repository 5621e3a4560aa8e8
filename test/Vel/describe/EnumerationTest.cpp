#include "Vel/describe/Enumeration.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

namespace Fixture {

using Vel::valueToStrep;
using Vel::operator<<;

enum class SkyName : Vel::U8 { clear = 0, cloudy = 1, clearing = 5 };

class Sky : public Vel::EnumerationOf<Sky, SkyName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Sky>("Fixture::Sky", Vel::enumerator<SkyName::clear>("clear"),
            Vel::enumerator<SkyName::cloudy>("cloudy"), Vel::enumerator<SkyName::clearing>("clearing"));
    }
};

// In two bytes, and with an order.
enum class RankName : Vel::U16 { low = 1, high = 0x102 };
class Rank : public Vel::EnumerationOf<Rank, RankName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Rank>(
            "Fixture::Rank", Vel::enumerator<RankName::low>("low"), Vel::enumerator<RankName::high>("high"))
            .with(Vel::ordered);
    }
};

// An enumeration as the field of a record.
class Weather {
public:
    Weather() = default;
    Weather(Sky sky, Vel::U32 degrees) : sky_(sky), degrees_(degrees) {}
    friend bool operator==(Weather const&, Weather const&) = default;
    static constexpr auto description() {
        return Vel::record(
            "Fixture::Weather", Vel::field<&Weather::sky_>("sky"), Vel::field<&Weather::degrees_>("degrees"));
    }

private:
    Sky sky_;
    Vel::U32 degrees_ = 0;
};

}  // namespace Fixture

VEL_MODULE(FixtureEnumeration, 3ba65399a5019af7, Fixture::Sky, Fixture::Rank, Fixture::Weather);

namespace {

using Fixture::Rank;
using Fixture::RankName;
using Fixture::Sky;
using Fixture::SkyName;
using Fixture::Weather;
using Vel::AttributeOp;

std::string textOf(auto const& value) { return std::string(valueToStrep(value).view()); }

std::string refusalOf(char const* text) {
    try {
        Vel::strepToValue<Sky>(text);
    } catch (Vel::ParseException const& error) {
        return error.what();
    }
    return "accepted";
}

TEST(EnumerationTest, TextIsTheNameInQuotes) {
    EXPECT_EQ(textOf(Sky(SkyName::cloudy)), "'cloudy'");
    EXPECT_EQ(textOf(Rank(RankName::high)), "'high'");
}

TEST(EnumerationTest, TextOfANumberWithoutANameIsTheNumber) {
    EXPECT_EQ(textOf(Sky(static_cast<SkyName>(7))), "7");
    EXPECT_EQ(textOf(Rank()), "0");
}

TEST(EnumerationTest, StreamsPrintTheText) {
    std::ostringstream out;
    out << Sky(SkyName::clear);
    EXPECT_EQ(out.str(), "'clear'");
}

TEST(EnumerationTest, ParserReadsEachName) {
    EXPECT_EQ(Vel::strepToValue<Sky>("'clear'"), SkyName::clear);
    EXPECT_EQ(Vel::strepToValue<Sky>("'clearing'"), SkyName::clearing);
    EXPECT_EQ(Vel::strepToValue<Rank>("'high'"), RankName::high);
}

TEST(EnumerationTest, ParserReadsANumberWithoutAName) {
    EXPECT_EQ(Vel::strepToValue<Sky>("255"), static_cast<SkyName>(255));
    EXPECT_EQ(Vel::strepToValue<Rank>("256"), static_cast<RankName>(256));
}

TEST(EnumerationTest, ParserSaysWhichNamesThereAre) {
    EXPECT_EQ(refusalOf("'fog'"), "expected one of 'clear', 'cloudy', 'clearing' at offset 0, at '\\'fog\\''");
}

TEST(EnumerationTest, ParserRefusesWhatIsNotWrittenSo) {
    for (char const* text : {"", "'", "clear", "\"clear\"", "'clear", "'Clear'", "''", "-1", "1", "5", "07", "256"})
        EXPECT_EQ(refusalOf(text).substr(0, 55), "expected one of 'clear', 'cloudy', 'clearing' at offset") << text;
    EXPECT_EQ(refusalOf("'clear' "), "expected the end of the text at offset 7, at ' '");
}

TEST(EnumerationTest, BytesAreThoseOfTheNumber) {
    Vel::NboAttrLog::Out out;
    out << Sky(SkyName::clearing) << Rank(RankName::high);
    EXPECT_EQ(std::vector<Vel::U8>(out.bytes().begin(), out.bytes().end()), (std::vector<Vel::U8>{5, 1, 2}));
    Vel::NboAttrLog::In in(out.bytes());
    EXPECT_EQ(Sky(&in, Vel::StreamBogon()), SkyName::clearing);
    EXPECT_EQ(Rank(&in, Vel::StreamBogon()), RankName::high);
}

TEST(EnumerationTest, BytesOfANumberWithoutANameAreKept) {
    Vel::U8 const bytes[] = {200};
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(textOf(Sky(&in, Vel::StreamBogon())), "200");
}

TEST(EnumerationTest, RecordsHoldIt) {
    Weather const weather(SkyName::clearing, 21);
    char const* const text = "Value('Fixture::Weather', ** {'sky': 'clearing', 'degrees': 21})";
    EXPECT_EQ(textOf(weather), text);
    EXPECT_EQ(Vel::strepToValue<Weather>(text), weather);
    EXPECT_EQ(Vel::attrLogSize(&weather), 5u);
    try {
        Vel::strepToValue<Weather>("Value('Fixture::Weather', ** {'sky': 'fog', 'degrees': 21})");
        FAIL();
    } catch (Vel::ParseException const& error) {
        EXPECT_EQ(std::string(error.what()).substr(0, 65),
            "attribute \"sky\": expected one of 'clear', 'cloudy', 'clearing' at");
    }
}

TEST(EnumerationTest, NameIsEmptyWhereThereIsNone) {
    EXPECT_EQ(Sky(SkyName::cloudy).name(), "cloudy");
    EXPECT_EQ(Sky(static_cast<SkyName>(2)).name(), "");
}

TEST(EnumerationTest, ComparesWithItsEnumerators) {
    Sky sky;
    EXPECT_TRUE(sky == SkyName::clear);
    sky = SkyName::cloudy;
    EXPECT_FALSE(sky == SkyName::clear);
    EXPECT_LT(Rank(RankName::low), Rank(RankName::high));
    EXPECT_EQ(sky.value(), SkyName::cloudy);
}

TEST(EnumerationTest, ReflectionGetsAndSetsTheNumber) {
    Vel::VelType const type = Vel::typeOf<Rank>();
    Rank rank(RankName::low);
    Vel::U16 number = 0;
    EXPECT_EQ(type.attributeOp(nullptr, &rank, 2, AttributeOp::set, nullptr, &(number = 0x102)), 0);
    EXPECT_EQ(rank, RankName::high);
    number = 0;
    EXPECT_EQ(type.attributeOp(&number, &rank, 2, AttributeOp::get), 0);
    EXPECT_EQ(number, 0x102);
}

TEST(EnumerationTest, NamesAreConstantsOfTheType) {
    Vel::VelType const type = Vel::typeOf<Sky>();
    ASSERT_EQ(type.attributeCount(), 4u);
    EXPECT_STREQ(type.attribute(0).name(), "value");
    EXPECT_STREQ(type.attribute(3).name(), "clearing");
    EXPECT_EQ(type.attribute(3).attributeId(), 5u);
    EXPECT_EQ(type.attribute(3).kind(), Vel::AttributeKind::constant);
    Sky sky;
    Vel::U8 number = 0;
    EXPECT_EQ(type.attributeOp(&number, &sky, 5, AttributeOp::get), 0);
    EXPECT_EQ(number, 5);
    EXPECT_EQ(type.attributeOp(nullptr, &sky, 5, AttributeOp::set, nullptr, &number), 1);
}

TEST(EnumerationTest, RecordSaysANumberOfFixedSizeWithATextOfItsOwn) {
    Vel::VelType const type = Vel::typeOf<Sky>();
    EXPECT_EQ(type.record().flags, Vel::TypeFlag::number | Vel::TypeFlag::ownText | Vel::TypeFlag::fixedSize);
    EXPECT_EQ(type.encodedSize(), 1u);
    EXPECT_EQ(type.strepTemplate(), "%s");
    EXPECT_FALSE(type.answers(AttributeOp::less));
    EXPECT_TRUE(Vel::typeOf<Rank>().answers(AttributeOp::less));
}

TEST(EnumerationTest, ReflectionMakesOneOfItsNumber) {
    Vel::GenericValue const value(Vel::typeOf<Sky>(), "'cloudy'");
    EXPECT_EQ(value.strep(), "'cloudy'");
}

// The same names in the same order, but of other numbers: whoever reads the bytes must notice.
enum class Other : Vel::U8 { clear = 0, cloudy = 5, clearing = 1 };
class Renumbered : public Vel::EnumerationOf<Renumbered, Other> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Renumbered>("Fixture::Sky", Vel::enumerator<Other::clear>("clear"),
            Vel::enumerator<Other::cloudy>("cloudy"), Vel::enumerator<Other::clearing>("clearing"));
    }
};

TEST(EnumerationTest, FingerprintSpellsTheNumbers) {
    EXPECT_NE(Vel::Detail::moduleFingerprint<Renumbered>("M"), Vel::Detail::moduleFingerprint<Sky>("M"));
    Vel::Detail::Fnv spelling;
    spelling << "module M\ntype Fixture::Sky form 1 base - flags 8 ops 6144\n"
                "attribute 2 value kind 0 ops 3 value U8 key - result -\n"
                "attribute 3 clear kind 2 ops 1 value U8 key - result - is 0\n"
                "attribute 4 cloudy kind 2 ops 1 value U8 key - result - is 1\n"
                "attribute 5 clearing kind 2 ops 1 value U8 key - result - is 5\n";
    EXPECT_EQ(Vel::Detail::moduleFingerprint<Sky>("M"), spelling.result());
}

}  // namespace
