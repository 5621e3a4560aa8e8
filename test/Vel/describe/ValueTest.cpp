#include "Vel/describe/Value.h"

#include "Fixtures.h"
#include "Vel/base/Exception.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// What values offer as ordinary functions: text, parser, stream form, size, hash.
namespace {

using namespace Fixture;
using namespace std::string_view_literals;
using Vel::ParseException;
using Vel::StreamException;
using Vel::strepToValue;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::Out;

template <class T> std::string text(T const& value) { return valueToStrep(value).stdString(); }
template <class T> std::string printed(T const& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}
template <class T> std::vector<U8> written(T const& value) {
    Out out;
    out << value;
    return {out.bytes().begin(), out.bytes().end()};
}
using Bytes = std::vector<U8>;

Everything sampleOfEverything() {
    Everything e;
    e.flag = true;
    e.bit = true;
    e.small = 255;
    e.middle = 65535;
    e.large = 4294967295u;
    e.huge = 18446744073709551615ul;
    e.ratio = -0.5;
    e.time = 1700000000.125;
    e.text = "it's\n\x01";
    e.version = Version(9, true);
    e.chip = 128;
    e.maybe = MaybeText("})", true);
    return e;
}
constexpr char everythingText[] =
    "Value('Fixture::Everything', ** {'flag': True, 'bit': True, 'small': 255, 'middle': 65535, 'large': 4294967295, "
    "'huge': 18446744073709551615, 'ratio': -0.5, 'time': 1700000000.125, 'text': 'it\\'s\\n\\x01', "
    "'version': Value('Fixture::Version', ** {'id': 9, 'valid': True}), 'chip': 128, "
    "'maybe': Value('Fixture::MaybeText', ** {'value': '})', 'isSet': True})})";

// --- text ---

TEST(ValueTest, DefaultRecordPrintsItsZeros) {
    EXPECT_EQ(text(Sample()), "Value('Fixture::Sample', ** {'value': False, 'count': 0, 'when': 0.0})");
    EXPECT_EQ(text(ChipBits()), "Value('Fixture::ChipBits', ** {'low': 0, 'high': 0})");
    EXPECT_EQ(text(MaybeText()), "Value('Fixture::MaybeText', ** {'value': '', 'isSet': False})");
}

TEST(ValueTest, EveryKindOfFieldPrints) { EXPECT_EQ(text(sampleOfEverything()), everythingText); }

TEST(ValueTest, NumberPrintsBare) {
    EXPECT_EQ(text(Chip(7)), "7");
    EXPECT_EQ(text(Chip()), "0");
}

TEST(ValueTest, OwnTextIsPrinted) {
    EXPECT_EQ(text(Words(4, 3)), "Words(4, 0: 3)");
    EXPECT_EQ(text(MaybeNumber(MaybeNumber::nullBit())), "None");
}

TEST(ValueTest, RecordPrintsItsTextToAStream) {
    EXPECT_EQ(printed(Version(3, true)), "Value('Fixture::Version', ** {'id': 3, 'valid': True})");
    EXPECT_EQ(printed(sampleOfEverything()), everythingText);
}

TEST(ValueTest, NumberGoesThroughTheStreamsOwnIntegerOutput) {
    std::ostringstream out;
    out << std::hex << std::setw(4) << std::setfill('0') << Chip(100);
    EXPECT_EQ(out.str(), "0064");
}

TEST(ValueTest, NumberWithOwnTextPrintsItToAStream) {
    EXPECT_EQ(printed(MaybeNumber(MaybeNumber::nullBit())), "None");
    EXPECT_EQ(printed(MaybeNumber(5)), "5");
}

TEST(ValueTest, LongTextPrintsWhole) {
    std::string const many(3000, '\'');
    std::string escaped;
    for (std::size_t i = 0; i < many.size(); ++i) escaped += "\\'";
    EXPECT_EQ(text(MaybeText(String(many), true)),
        "Value('Fixture::MaybeText', ** {'value': '" + escaped + "', 'isSet': True})");
}

// --- parsing ---

TEST(ValueTest, TextsParseBack) {
    EXPECT_EQ(strepToValue<Sample>("Value('Fixture::Sample', ** {'value': True, 'count': 12, 'when': 1e+16})"),
        Sample(true, 12, 1e16));
    EXPECT_EQ(strepToValue<ChipBits>("Value('Fixture::ChipBits', ** {'low': 18446744073709551615, 'high': 1})"),
        ChipBits(~U64(0), 1));
    EXPECT_EQ(strepToValue<MaybeText>("Value('Fixture::MaybeText', ** {'value': '\\x01\\'', 'isSet': True})"),
        MaybeText("\x01'", true));
    EXPECT_EQ(strepToValue<Chip>("128"), Chip(128));
    EXPECT_EQ(strepToValue<Words>("Words(4, 0: 3)"), Words(4, 3));
    EXPECT_EQ(text(strepToValue<MaybeNumber>("None")), "None");
    EXPECT_EQ(text(strepToValue<Everything>(everythingText)), everythingText);
}

TEST(ValueTest, ConstructorLeavesTheIteratorBehindTheText) {
    String const two("Value('Fixture::Version', ** {'id': 3, 'valid': True})77");
    auto it = two.begin();
    EXPECT_EQ(Version(it, two.end()), Version(3, true));
    EXPECT_EQ(it.offset(), 54u);
    EXPECT_EQ(Chip(it, two.end()), Chip(77));
    EXPECT_EQ(it, two.end());
}

TEST(ValueTest, NaNParsesToAValueUnequalToItself) {
    auto const value = strepToValue<Sample>("Value('Fixture::Sample', ** {'value': False, 'count': 0, 'when': nan})");
    EXPECT_TRUE(std::isnan(value.when().value()));
    EXPECT_FALSE(value == value);
}

struct Failure {
    std::string message;
    std::size_t offset;
    bool operator==(Failure const&) const = default;
};
void PrintTo(Failure const& f, std::ostream* out) { *out << f.message << " [" << f.offset << "]"; }

template <class T> Failure parseFailure(String const& s) {
    try {
        strepToValue<T>(s);
    } catch (ParseException const& error) {
        return {error.what(), error.offset()};
    }
    return {"parsed", 0};
}

TEST(ValueTest, ParseErrorsShowThePlace) {
    EXPECT_EQ(parseFailure<Version>(""),
        (Failure{"expected \"Value('Fixture::Version', ** {\" at offset 0, at the end of the text", 0}));
    EXPECT_EQ(parseFailure<Version>("Value('Fixture::Version', ** { 'id': 3, 'valid': True})"),
        (Failure{"expected \"'id': \" at offset 30, at ' \\'id\\': 3, \\'valid\\': True}'...", 30}));
    EXPECT_EQ(parseFailure<Version>("Value('Fixture::Version', ** {'id': 3, 'valid': True}"),
        (Failure{"expected \"})\" at offset 52, at '}'", 52}));
    EXPECT_EQ(parseFailure<Version>("Value('Fixture::Version', ** {'id': 3, 'valid': True}) "),
        (Failure{"expected the end of the text at offset 54, at ' '", 54}));
}

TEST(ValueTest, FieldsInAnotherOrderAreRejected) {
    EXPECT_EQ(parseFailure<Version>("Value('Fixture::Version', ** {'valid': True, 'id': 3})").offset, 30u);
}

TEST(ValueTest, ParseErrorNamesTheAttribute) {
    EXPECT_EQ(parseFailure<Version>("Value('Fixture::Version', ** {'id': 4294967296, 'valid': True})"),
        (Failure{"attribute \"id\": expected a number from 0 to 4294967295 at offset 36, at '4294967296, \\'valid\\': "
                 "Tru'...",
            36}));
    EXPECT_EQ(parseFailure<Sample>("Value('Fixture::Sample', ** {'value': 1, 'count': 0, 'when': 0.0})"),
        (Failure{
            "attribute \"value\": expected True or False at offset 38, at '1, \\'count\\': 0, \\'when\\': 0'...", 38}));
    EXPECT_EQ(parseFailure<Chip>("256"),
        (Failure{"attribute \"value\": expected a number from 0 to 255 at offset 0, at '256'", 0}));
}

TEST(ValueTest, ParseErrorWithinANestedValueNamesBothAttributes) {
    std::string wrong = everythingText;
    wrong.replace(wrong.find("'id': 9"), 7, "'id': x");
    Failure const failure = parseFailure<Everything>(String(wrong));
    EXPECT_EQ(failure.message.substr(0, 64), "attribute \"version\": attribute \"id\": expected a number from 0 to");
    EXPECT_EQ(failure.offset, wrong.find("x, 'valid'"));
}

TEST(ValueTest, CheckedNumberRefusesAValueOutOfItsRange) {
    EXPECT_THROW(strepToValue<Chip>("129"), Vel::RangeException);
}

// A text with one character exchanged, left out or put in either fails to parse or says what its value prints.
template <class T> void expectNoSecondSpelling(std::string const& good) {
    auto const check = [&](std::string const& changed) {
        try {
            EXPECT_EQ(text(strepToValue<T>(String(changed))), changed);
        } catch (Vel::RangeException const&) {}
    };
    static constexpr auto alphabet = "09aenftT'\"\\.,:;-+ ()[]{}*x\n\0\x7f\xff"sv;
    ASSERT_EQ(text(strepToValue<T>(String(good))), good);
    for (std::size_t at = 0; at <= good.size(); ++at) {
        for (char const c : alphabet) {
            check(std::string(good).insert(at, 1, c));
            if (at < good.size()) {
                std::string changed = good;
                changed[at] = c;
                check(changed);
            }
        }
        if (at < good.size()) check(std::string(good).erase(at, 1));
        EXPECT_THROW(if (at < good.size()) strepToValue<T>(String(good.substr(0, at)));
                     else throw ParseException("", 0), Vel::RangeException)
            << at;
    }
}

TEST(ValueTest, NoRecordHasASecondSpelling) {
    expectNoSecondSpelling<Sample>(
        "Value('Fixture::Sample', ** {'value': True, 'count': 105, 'when': 1700000000.125})");
    expectNoSecondSpelling<ChipBits>("Value('Fixture::ChipBits', ** {'low': 0, 'high': 18446744073709551615})");
    expectNoSecondSpelling<MaybeText>("Value('Fixture::MaybeText', ** {'value': 'a\\'\\n\\x01', 'isSet': False})");
}

TEST(ValueTest, NoNestedRecordHasASecondSpelling) { expectNoSecondSpelling<Everything>(everythingText); }

TEST(ValueTest, EveryCharacterOfTheFixedTextMatters) {
    std::string const good = "Value('Fixture::Version', ** {'id': 3, 'valid': True})";
    for (std::size_t at = 0; at < good.size(); ++at)
        for (int c = 0; c < 256; ++c) {
            std::string changed = good;
            changed[at] = static_cast<char>(c);
            if (changed == good) continue;
            bool const otherDigit = at == 36 && c >= '0' && c <= '9';
            if (otherDigit)
                EXPECT_EQ(strepToValue<Version>(String(changed)).id(), static_cast<U32>(c - '0'));
            else
                EXPECT_THROW(strepToValue<Version>(String(changed)), ParseException) << changed;
        }
}

// --- stream ---

TEST(ValueTest, FieldsAreWrittenInOrderInNetworkByteOrder) {
    EXPECT_EQ(written(Sample(true, 0x01020304, 1.0)), (Bytes{1, 1, 2, 3, 4, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(written(Stamp(1, 2, 3)), (Bytes{0, 0, 0, 1, 0, 2, 0, 3}));
    EXPECT_EQ(written(Chip(9)), Bytes{9});
    EXPECT_EQ(written(MaybeText("abc", true)), (Bytes{0, 0, 0, 3, 'a', 'b', 'c', 1}));
    EXPECT_EQ(written(Words(10, 0)), (Bytes{0, 10, 255}));
    EXPECT_EQ(written(MaybeNumber(258)), (Bytes{0, 0, 0, 0, 0, 0, 1, 2}));
}

TEST(ValueTest, EveryKindOfFieldIsWritten) {
    EXPECT_EQ(written(sampleOfEverything()),
        (Bytes{1, 1, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255,  // up to huge
            0xBF, 0xE0, 0, 0, 0, 0, 0, 0, 0x41, 0xD9, 0x54, 0xFC, 0x40, 0x08, 0, 0,              // ratio, time
            0, 0, 0, 6, 'i', 't', '\'', 's', '\n', 1, 0, 0, 0, 9, 1, 128, 0, 0, 0, 2, '}', ')', 1}));
}

template <class T> void expectReadBack(T const& value) {
    Bytes bytes = written(value);
    EXPECT_EQ(Vel::attrLogSize(&value), bytes.size());
    bytes.push_back(0xEE);
    In in(bytes);
    EXPECT_EQ(text(T(&in, Vel::StreamBogon())), text(value));
    EXPECT_EQ(in.left(), 1u);
}

TEST(ValueTest, WhatIsWrittenReadsBackAndHasTheSizeThatItSays) {
    expectReadBack(Sample(true, 7, -2.5));
    expectReadBack(Stamp(1, 2, 3));
    expectReadBack(Chip(128));
    expectReadBack(MaybeText("", false));
    expectReadBack(MaybeText("abc", true));
    expectReadBack(Words(3, 8));
    expectReadBack(MaybeNumber(MaybeNumber::nullBit()));
    expectReadBack(Everything());
    expectReadBack(sampleOfEverything());
}

struct StreamFailure {
    std::string message;
    std::size_t errorOffset;
    std::size_t inOffset;
};

// What reading a T from the first `size` bytes throws; the position must not have moved behind the item that failed.
template <class T> StreamFailure streamFailure(Bytes const& bytes) {
    In in(bytes);
    try {
        T(&in, Vel::StreamBogon());
    } catch (StreamException const& error) {
        return {error.what(), error.offset(), in.offset()};
    }
    return {"read", 0, 0};
}

TEST(ValueTest, TruncatedStreamNamesTheAttributeAtEveryByte) {
    Bytes const whole = written(Sample(true, 1, 1.0));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        auto const failure = streamFailure<Sample>(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)));
        bool const inValue = size < 1;
        bool const inCount = size < 5;
        std::size_t const begin = inValue ? 0 : inCount ? 1 : 5;
        std::string const expected =
            (inValue      ? "Fixture::Sample.value: the attribute log ends within bool at offset 0: 1 bytes needed, "
                : inCount ? "Fixture::Sample.count: the attribute log ends within U32 at offset 1: 4 bytes needed, "
                          : "Fixture::Sample.when: the attribute log ends within Vel::Seconds at offset 5: 8 bytes "
                            "needed, ") +
            std::to_string(size - begin) + " left";
        EXPECT_EQ(failure.message, expected);
        EXPECT_EQ(failure.errorOffset, begin);
        EXPECT_EQ(failure.inOffset, begin);
    }
}

TEST(ValueTest, TruncatedStreamOfEverythingFailsAtEveryByteInOrder) {
    Bytes const whole = written(sampleOfEverything());
    std::size_t last = 0;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        auto const failure = streamFailure<Everything>(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)));
        EXPECT_TRUE(failure.message.starts_with("Fixture::Everything.")) << failure.message;
        EXPECT_EQ(failure.errorOffset, failure.inOffset);
        EXPECT_LE(failure.errorOffset, size);
        EXPECT_GE(failure.errorOffset, last);
        last = failure.errorOffset;
    }
    EXPECT_EQ(last, whole.size() - 1);
}

TEST(ValueTest, TruncatedNestedValueNamesBothAttributes) {
    Bytes const whole = written(sampleOfEverything());
    Bytes const cut(whole.begin(), whole.end() - 1);
    EXPECT_EQ(streamFailure<Everything>(cut).message,
        "Fixture::Everything.maybe: Fixture::MaybeText.isSet: the attribute log ends within bool at offset 55: "
        "1 bytes needed, 0 left");
}

TEST(ValueTest, FlagThatIsNeitherZeroNorOneIsRefused) {
    Bytes bytes = written(Version(3, true));
    bytes[4] = 2;
    auto const failure = streamFailure<Version>(bytes);
    EXPECT_EQ(failure.message, "Fixture::Version.valid: the bool at offset 4 is 2, and neither 0 nor 1");
    EXPECT_EQ(failure.errorOffset, 4u);
    bytes = written(Sample(true, 1, 0.0));
    bytes[0] = 255;
    EXPECT_EQ(streamFailure<Sample>(bytes).message,
        "Fixture::Sample.value: the bool at offset 0 is 255, and neither 0 nor 1");
}

TEST(ValueTest, StringLongerThanTheStreamIsRefused) {
    EXPECT_EQ(streamFailure<MaybeText>({0xFF, 0xFF, 0xFF, 0xFF, 'a'}).message,
        "Fixture::MaybeText.value: the attribute log ends within Vel::String at offset 0: 4294967299 bytes needed, "
        "5 left");
}

// --- hash ---

TEST(ValueTest, HashMixesTheFieldsInOrderByTheirWidths) {
    EXPECT_EQ(Stamp(1, 2, 3).hash(5), Vel::Hash(5).hashMix<4>(1u).hashMix<2>(2u).hashMix<2>(3u).result());
    EXPECT_EQ(ChipBits(1, 2).hash(0), Vel::Hash(0).hashMix<8>(U64(1)).hashMix<8>(U64(2)).result());
    EXPECT_NE(ChipBits(1, 2).hash(0), ChipBits(2, 1).hash(0));
}

}  // namespace
