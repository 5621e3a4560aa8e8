#include "Mox/TristateTypes.h"

#include "TristateTest.h"

#include "Vel/describe/GenericIf.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <optional>

namespace {

using namespace Mox;
using namespace std::string_literals;

TYPED_TEST_SUITE(TristateTest, TristateTypes);

// --- values ---

TYPED_TEST(TristateTest, DefaultIsUnsetAndZero) {
    TypeParam const tristate;
    EXPECT_FALSE(tristate.isSet());
    EXPECT_EQ(tristate.value(), this->zero);
}

TYPED_TEST(TristateTest, IsMadeOfItsFieldsInTheirOrder) {
    EXPECT_EQ(TypeParam(this->sample, true).value(), this->sample);
    EXPECT_TRUE(TypeParam(this->sample, true).isSet());
    EXPECT_EQ(TypeParam(this->sample, false).value(), this->sample);
    EXPECT_FALSE(TypeParam(this->sample, false).isSet());
    EXPECT_EQ(TypeParam(this->zero, true).value(), this->zero);
    EXPECT_TRUE(TypeParam(this->zero, true).isSet());
}

TYPED_TEST(TristateTest, ValueSetSetsAlsoZero) {
    EXPECT_EQ(TypeParam::valueSet(this->sample), TypeParam(this->sample, true));
    EXPECT_EQ(TypeParam::valueSet(this->zero), TypeParam(this->zero, true));
}

TYPED_TEST(TristateTest, ValueInvalidIsTheDefaultAndValueDefaultTheZero) {
    EXPECT_EQ(TypeParam::valueInvalid(), TypeParam());
    EXPECT_EQ(TypeParam::valueInvalid(), TypeParam(this->zero, false));
    EXPECT_EQ(TypeParam::valueDefault(), this->zero);
}

TYPED_TEST(TristateTest, IsAnOptionalOfItsScalar) {
    using Optional = std::optional<typename TestFixture::Scalar>;
    EXPECT_EQ(TypeParam(Optional()), TypeParam());
    EXPECT_EQ(TypeParam(Optional(this->sample)), TypeParam(this->sample, true));
    EXPECT_EQ(TypeParam(Optional(this->zero)), TypeParam(this->zero, true));
    EXPECT_EQ(TypeParam(this->sample, true).optional(), Optional(this->sample));
    EXPECT_EQ(TypeParam(this->zero, true).optional(), Optional(this->zero));
    EXPECT_EQ(TypeParam().optional(), std::nullopt);
    EXPECT_EQ(TypeParam(this->sample, false).optional(), std::nullopt);
}

TYPED_TEST(TristateTest, CannotBeChangedInPart) {
    static_assert(!requires(TypeParam t) { t.valueIs(t.value()); });
    static_assert(!requires(TypeParam t) { t.isSetIs(true); });
    static_assert(std::is_same_v<decltype(TypeParam().value()), typename TestFixture::Scalar const&>);
    TypeParam tristate(this->sample, false);
    tristate = TypeParam::valueSet(this->zero);
    EXPECT_EQ(tristate, TypeParam(this->zero, true));
}

// --- equality, order, hash ---

TYPED_TEST(TristateTest, EqualityIsFieldByFieldAlsoOfUnsetValues) {
    TypeParam const values[] = {TypeParam(this->zero, false), TypeParam(this->sample, false),
        TypeParam(this->zero, true), TypeParam(this->sample, true)};
    for (auto const& a : values)
        for (auto const& b : values) {
            EXPECT_EQ(a == b, &a == &b);
            EXPECT_EQ(a != b, &a != &b);
            EXPECT_EQ(equalByReflection(a, b), &a == &b);
        }
}

TYPED_TEST(TristateTest, HasNeitherOrderNorHash) {
    static_assert(EqualityCompared<TypeParam>);
    EXPECT_FALSE(Ordered<TypeParam>);
    EXPECT_FALSE(HasHash<TypeParam>);
    expectNoHash<TypeParam>(TestFixture::Case::name);
}

TEST(TristateF64Test, ComparesAsDoublesDo) {
    double const nan = std::numeric_limits<double>::quiet_NaN();
    TristateF64 const aNaN(nan, true);
    EXPECT_FALSE(aNaN == aNaN);
    EXPECT_TRUE(aNaN != aNaN);
    EXPECT_FALSE(equalByReflection(aNaN, aNaN));
    EXPECT_TRUE(TristateF64(-0.0, true) == TristateF64(0.0, true));
    EXPECT_TRUE(equalByReflection(TristateF64(-0.0, false), TristateF64()));
}

// --- truth ---

TYPED_TEST(TristateTest, OnlyTheDefaultIsFalse) {
    EXPECT_FALSE(truthOf(TypeParam()));
    EXPECT_TRUE(truthOf(TypeParam(this->zero, true)));
    EXPECT_TRUE(truthOf(TypeParam(this->sample, false)));
    EXPECT_TRUE(truthOf(TypeParam(this->sample, true)));
}

TEST(TristateF64Test, TruthIsOfTheDoubleAsItCompares) {
    double const nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(truthOf(TristateF64(nan, false)));
    EXPECT_FALSE(truthOf(TristateF64(-0.0, false)));
    EXPECT_TRUE(truthOf(TristateF64(5e-324, false)));
}

TYPED_TEST(TristateTest, OnlyTheStringConvertsToBool) {
    constexpr bool isString = std::is_same_v<TypeParam, TristateString>;
    EXPECT_EQ((std::is_constructible_v<bool, TypeParam>), isString);
}

TEST(TristateStringTest, IsTrueUnlessItIsTheDefault) {
    EXPECT_FALSE(bool(TristateString()));
    EXPECT_FALSE(bool(TristateString("", false)));
    EXPECT_TRUE(bool(TristateString("", true)));
    EXPECT_TRUE(bool(TristateString("x", false)));
    EXPECT_TRUE(bool(TristateString("x", true)));
    EXPECT_TRUE(bool(TristateString(Vel::String("\0", 1), false)));
}

// --- short text ---

template <class T> std::string shortOf(T const& tristate) { return tristate.toStrep().stdString(); }

TEST(TristateTypesTest, ShortTextOfWhatIsNotSetSaysSo) {
    EXPECT_EQ(shortOf(TristateBoolean()), "unset");
    EXPECT_EQ(shortOf(TristateBoolean(true, false)), "unset");
    EXPECT_EQ(shortOf(TristateF64(1.5, false)), "unset");
    EXPECT_EQ(shortOf(TristateU8(7, false)), "unset");
    EXPECT_EQ(shortOf(TristateU16(7, false)), "unset");
    EXPECT_EQ(shortOf(TristateU32(7, false)), "unset");
    EXPECT_EQ(shortOf(TristateU64(7, false)), "unset");
}

TEST(TristateTypesTest, ShortTextOfABooleanIsInLowerCase) {
    EXPECT_EQ(shortOf(TristateBoolean::valueSet(true)), "true");
    EXPECT_EQ(shortOf(TristateBoolean::valueSet(false)), "false");
}

TEST(TristateTypesTest, ShortTextOfANumberIsItsDigits) {
    EXPECT_EQ(shortOf(TristateU8::valueSet(0)), "0");
    EXPECT_EQ(shortOf(TristateU8::valueSet(65)), "65");
    EXPECT_EQ(shortOf(TristateU8::valueSet(255)), "255");
    EXPECT_EQ(shortOf(TristateU16::valueSet(65535)), "65535");
    EXPECT_EQ(shortOf(TristateU32::valueSet(4294967295u)), "4294967295");
    EXPECT_EQ(shortOf(TristateU64::valueSet(0)), "0");
    EXPECT_EQ(shortOf(TristateU64::valueSet(18446744073709551615ul)), "18446744073709551615");
}

TEST(TristateTypesTest, ShortTextOfADoubleHasSixPlaces) {
    EXPECT_EQ(shortOf(TristateF64::valueSet(1.5)), "1.500000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(2)), "2.000000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(-0.5)), "-0.500000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(0)), "0.000000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(-0.0)), "-0.000000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(1234567.0000007)), "1234567.000001");
    EXPECT_EQ(shortOf(TristateF64::valueSet(1e-7)), "0.000000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(1e22)), "10000000000000000000000.000000");
    EXPECT_EQ(shortOf(TristateF64::valueSet(std::numeric_limits<double>::infinity())), "inf");
    EXPECT_EQ(shortOf(TristateF64::valueSet(-std::numeric_limits<double>::infinity())), "-inf");
}

TEST(TristateTypesTest, ShortTextOfTheLargestDoublesIsWhole) {
    // 309 digits: 2^1024 - 2^971
    std::string const digits =
        "1797693134862315708145274237317043567980705675258449965989174768031572607800285387605895586327668781715404"
        "5895351438246423432132688946418276846754670353751698604991057655128207624549009038932894407586850845513394"
        "2304583236903222948165808559332123348274797826204144723168738177180919299881250404026184124858368";
    std::string const largest = shortOf(TristateF64::valueSet(DBL_MAX));
    EXPECT_EQ(largest, digits + ".000000");
    EXPECT_EQ(largest.size(), 316u);
    EXPECT_EQ(shortOf(TristateF64::valueSet(-DBL_MAX)), "-" + digits + ".000000");
}

TYPED_TEST(TristateTest, StringHasNoShortText) {
    constexpr bool hasShortText = requires(TypeParam t) { t.toStrep(); };
    EXPECT_EQ(hasShortText, (!std::is_same_v<TypeParam, TristateString>));
}

// --- text ---

TYPED_TEST(TristateTest, TextShowsBothFieldsAlways) {
    using Case = typename TestFixture::Case;
    EXPECT_EQ(textOf(TypeParam()), this->recordText(Case::zeroText, "False"));
    EXPECT_EQ(textOf(TypeParam(this->sample, false)), this->recordText(Case::sampleText, "False"));
    EXPECT_EQ(textOf(TypeParam(this->zero, true)), this->recordText(Case::zeroText, "True"));
    EXPECT_EQ(textOf(TypeParam(this->sample, true)), this->recordText(Case::sampleText, "True"));
    EXPECT_EQ(printed(TypeParam(this->sample, true)), this->recordText(Case::sampleText, "True"));
}

TEST(TristateTypesTest, TextIsWrittenOutInFull) {
    EXPECT_EQ(
        textOf(TristateBoolean::valueSet(true)), "Value('Mox::TristateBoolean', ** {'value': True, 'isSet': True})");
    EXPECT_EQ(textOf(TristateString::valueSet("a'\\\n\x01\xC3\xA9")),
        "Value('Mox::TristateString', ** {'value': 'a\\'\\\\\\n\\x01\xC3\xA9', 'isSet': True})");
    EXPECT_EQ(textOf(TristateF64::valueSet(0.1)), "Value('Mox::TristateF64', ** {'value': 0.1, 'isSet': True})");
    EXPECT_EQ(textOf(TristateU8::valueSet(65)), "Value('Mox::TristateU8', ** {'value': 65, 'isSet': True})");
    EXPECT_EQ(textOf(TristateU16::valueSet(9)), "Value('Mox::TristateU16', ** {'value': 9, 'isSet': True})");
    EXPECT_EQ(textOf(TristateU32()), "Value('Mox::TristateU32', ** {'value': 0, 'isSet': False})");
    EXPECT_EQ(textOf(TristateU64::valueSet(18446744073709551615ul)),
        "Value('Mox::TristateU64', ** {'value': 18446744073709551615, 'isSet': True})");
}

TYPED_TEST(TristateTest, TextsParseBack) {
    using Case = typename TestFixture::Case;
    for (bool const isSet : {false, true}) {
        auto const flag = isSet ? "True" : "False";
        EXPECT_EQ(Vel::strepToValue<TypeParam>(this->recordText(Case::sampleText, flag), nullptr),
            TypeParam(this->sample, isSet));
        EXPECT_EQ(Vel::strepToValue<TypeParam>(this->recordText(Case::zeroText, flag), nullptr),
            TypeParam(this->zero, isSet));
    }
    auto const checked = Vel::checkedStrepToValue<TypeParam>(this->recordText(Case::sampleText, "True"));
    ASSERT_TRUE(checked);
    EXPECT_EQ(*checked, TypeParam(this->sample, true));
}

TYPED_TEST(TristateTest, ParsingStopsBehindTheValue) {
    Vel::String const text = this->recordText(TestFixture::Case::sampleText, "True") + "})rest";
    auto it = text.begin();
    EXPECT_EQ(TypeParam(it, text.end()), TypeParam(this->sample, true));
    EXPECT_EQ(std::string(it.charPtr()), "})rest");
}

TYPED_TEST(TristateTest, NoOtherTextIsParsed) {
    std::string const text = this->recordText(TestFixture::Case::zeroText, "True");
    constexpr bool isString = std::is_same_v<TypeParam, TristateString>;
    expectNothingElseParsed<TypeParam>(text, isString ? text.find("''") + 1 : std::string::npos);
}

TYPED_TEST(TristateTest, RefusalsSayWhatWasExpectedAndWhere) {
    using Case = typename TestFixture::Case;
    std::string const open = "Value('"s + Case::name + "', ** {";
    std::string const at = std::to_string(open.size() + 9);  // behind 'value': and a blank
    EXPECT_EQ(parseError<TypeParam>(""), "expected \"" + open + "\" at offset 0, at the end of the text");
    EXPECT_EQ(parseError<TypeParam>(open + "}"),
        "expected \"'value': \" at offset " + std::to_string(open.size()) + ", at '}'");
    EXPECT_EQ(parseError<TypeParam>(open + "'value': unset, "),
        "attribute \"value\": expected "s + Case::expected + " at offset " + at + ", at 'unset, '");
    std::string const value = open + "'value': " + Case::sampleText;
    EXPECT_EQ(parseError<TypeParam>(value + "})"),
        "expected \", 'isSet': \" at offset " + std::to_string(value.size()) + ", at '})'");
    EXPECT_EQ(parseError<TypeParam>(value + ", 'isSet': true})"),
        "attribute \"isSet\": expected True or False at offset " + std::to_string(value.size() + 11) + ", at 'true})'");
    EXPECT_EQ(parseError<TypeParam>(value + ", 'isSet': True"),
        "expected \"})\" at offset " + std::to_string(value.size() + 15) + ", at the end of the text");
    EXPECT_EQ(parseError<TypeParam>(value + ", 'isSet': True})x"),
        "expected the end of the text at offset " + std::to_string(value.size() + 17) + ", at 'x'");
}

TYPED_TEST(TristateTest, FieldsInAnotherOrderAndOtherTypesNamesAreRefused) {
    using Case = typename TestFixture::Case;
    expectRefused<TypeParam>("Value('"s + Case::name + "', ** {'isSet': True, 'value': " + Case::sampleText + "})");
    expectRefused<TypeParam>("Value('"s + Case::name + "', ** {'value': " + Case::sampleText + "})");
    expectRefused<TypeParam>("Value('Mox::TristateU128', ** {'value': "s + Case::sampleText + ", 'isSet': True})");
}

TEST(TristateTypesTest, NumbersBeyondTheirKindAreRefused) {
    expectRefused<TristateU8>("Value('Mox::TristateU8', ** {'value': 256, 'isSet': True})");
    expectRefused<TristateU8>("Value('Mox::TristateU8', ** {'value': -1, 'isSet': True})");
    expectRefused<TristateU8>("Value('Mox::TristateU8', ** {'value': 007, 'isSet': True})");
    expectRefused<TristateU16>("Value('Mox::TristateU16', ** {'value': 65536, 'isSet': True})");
    expectRefused<TristateU32>("Value('Mox::TristateU32', ** {'value': 4294967296, 'isSet': True})");
    expectRefused<TristateU64>("Value('Mox::TristateU64', ** {'value': 18446744073709551616, 'isSet': True})");
    expectRefused<TristateF64>("Value('Mox::TristateF64', ** {'value': 1, 'isSet': True})");
    expectRefused<TristateF64>("Value('Mox::TristateF64', ** {'value': 1.50, 'isSet': True})");
    expectRefused<TristateBoolean>("Value('Mox::TristateBoolean', ** {'value': 1, 'isSet': True})");
    expectRefused<TristateString>("Value('Mox::TristateString', ** {'value': \"x\", 'isSet': True})");
}

// --- attribute log ---

TYPED_TEST(TristateTest, BytesAreTheValueAndThenTheFlag) {
    using Case = typename TestFixture::Case;
    EXPECT_EQ(writtenHex(TypeParam()), Case::zeroHex + "00"s);
    EXPECT_EQ(writtenHex(TypeParam(this->sample, true)), Case::sampleHex + "01"s);
    EXPECT_EQ(writtenHex(TypeParam(this->sample, false)), Case::sampleHex + "00"s);
    EXPECT_EQ(readFrom<TypeParam>(Case::sampleHex + "00"s), TypeParam(this->sample, false));
    EXPECT_EQ(readFrom<TypeParam>(Case::zeroHex + "01"s), TypeParam(this->zero, true));
}

TYPED_TEST(TristateTest, OtherLengthsAreRefused) {
    expectOtherLengthsRefused<TypeParam>(TestFixture::Case::sampleHex + "01"s);
}

TYPED_TEST(TristateTest, ReadErrorsNameTheAttribute) {
    using Case = typename TestFixture::Case;
    std::string const width = std::to_string(std::string_view(Case::sampleHex).size() / 2);
    EXPECT_EQ(readError<TypeParam>(Case::sampleHex),
        Case::name + ".isSet: the attribute log ends within bool at offset "s + width + ": 1 bytes needed, 0 left");
    EXPECT_EQ(readError<TypeParam>(Case::sampleHex + "02"s),
        Case::name + ".isSet: the bool at offset "s + width + " is 2, and neither 0 nor 1");
    EXPECT_TRUE(readError<TypeParam>("").starts_with(Case::name + ".value: the attribute log ends within "s));
}

TEST(TristateTypesTest, EncodedSizesAreFixedButOfTheString) {
    EXPECT_EQ(Vel::typeOf<TristateBoolean>().encodedSize(), 2u);
    EXPECT_EQ(Vel::typeOf<TristateF64>().encodedSize(), 9u);
    EXPECT_EQ(Vel::typeOf<TristateU8>().encodedSize(), 2u);
    EXPECT_EQ(Vel::typeOf<TristateU16>().encodedSize(), 3u);
    EXPECT_EQ(Vel::typeOf<TristateU32>().encodedSize(), 5u);
    EXPECT_EQ(Vel::typeOf<TristateU64>().encodedSize(), 9u);
    EXPECT_TRUE(Vel::typeOf<TristateU64>().hasFixedEncodedSize());
    EXPECT_FALSE(Vel::typeOf<TristateString>().hasFixedEncodedSize());
}

TEST(TristateTypesTest, AttrLogSizeOfTheStringCountsItsBytes) {
    TristateString const empty;
    TristateString const abc("abc", false);
    TristateString const accented("\xC3\xA9", true);
    EXPECT_EQ(attrLogSize(&empty), 5u);
    EXPECT_EQ(attrLogSize(&abc), 8u);
    EXPECT_EQ(attrLogSize(&accented), 7u);
    EXPECT_EQ(writtenHex(accented).size(), 2 * 7u);
    TristateU16 const number;
    EXPECT_EQ(attrLogSize(&number), 3u);
}

// --- std::format ---

#if defined(__cpp_lib_format)
TYPED_TEST(TristateTest, FormatsAsItsText) { EXPECT_EQ(std::format("{}", TypeParam()), textOf(TypeParam())); }
#endif

}  // namespace
