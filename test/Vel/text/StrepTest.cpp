#include "Vel/text/Strep.h"

#include "Vel/text/Scan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace {

namespace Scan = Vel::Scan;
using Vel::ParseException;
using Vel::Seconds;
using Vel::String;
using Vel::U1;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using namespace std::string_view_literals;

// The value that the whole of `s` says.
template <class T> T parse(String const& s) {
    auto it = s.begin();
    T const value = Vel::sequenceToValue(it, s.end(), static_cast<T*>(nullptr));
    Vel::strepToValueEnd(s, it);
    return value;
}

// What refusing says; fails the test if `s` is accepted.
template <class T> std::string refusal(String const& s) {
    try {
        (void)parse<T>(s);
    } catch (ParseException const& error) {
        return error.what();
    }
    ADD_FAILURE() << "accepted: " << s;
    return "";
}

template <class T> void expectRefused(std::vector<std::string_view> const& texts) {
    for (std::string_view const text : texts) EXPECT_NE(refusal<T>(text), "") << text;
}

// --- numbers ---

TEST(StrepTest, UnsignedNumbersAreDecimalDigits) {
    EXPECT_EQ(Vel::valueToStrep(U8(0)), "0");
    EXPECT_EQ(Vel::valueToStrep(U8(255)), "255");
    EXPECT_EQ(Vel::valueToStrep(U16(65535)), "65535");
    EXPECT_EQ(Vel::valueToStrep(U32(4294967295)), "4294967295");
    EXPECT_EQ(Vel::valueToStrep(U64(18446744073709551615u)), "18446744073709551615");
    EXPECT_EQ(Vel::unsignedToStrep(7), "7");
}

TEST(StrepTest, UnsignedNumbersReadBackUpToTheirLargest) {
    EXPECT_EQ(parse<U8>("255"), 255u);
    EXPECT_EQ(parse<U16>("65535"), 65535u);
    EXPECT_EQ(parse<U32>("4294967295"), 4294967295u);
    EXPECT_EQ(parse<U64>("18446744073709551615"), 18446744073709551615u);
    EXPECT_EQ(parse<U8>("0"), 0u);
    EXPECT_EQ(parse<U64>("0"), 0u);
}

template <class T> class UnsignedStrepTest : public testing::Test {};
using Unsigned = testing::Types<U8, U16, U32, U64>;
TYPED_TEST_SUITE(UnsignedStrepTest, Unsigned);

TYPED_TEST(UnsignedStrepTest, RefusesWhatIsNotPrinted) {
    expectRefused<TypeParam>({"", "007", "00", "+1", "-1", "-0", " 1", "1 ", "1.0", "1e0", "0x1", "1_0", "1,0", "one",
        "\t1", "1\n", "1\0"sv, "\0"sv, "/", ":", "\xb2", "'1'", "True"});
}

TYPED_TEST(UnsignedStrepTest, RefusesMoreThanItHolds) {
    std::string const most = std::to_string(std::numeric_limits<TypeParam>::max());
    std::string above = most;  // ends in 5
    above.back() = '6';
    EXPECT_EQ(refusal<TypeParam>(above), "expected a number from 0 to " + most + " at offset 0, at '" + above + "'");
    expectRefused<TypeParam>({most + "0", "18446744073709551616", "18446744073709551620", "99999999999999999999",
        "184467440737095516150", "340282366920938463463374607431768211456"});
}

TYPED_TEST(UnsignedStrepTest, ReadsNoFurtherThanTheEnd) {
    String const s("123");
    auto it = s.begin();
    EXPECT_EQ(Vel::sequenceToValue(it, s.begin() + 2, static_cast<TypeParam*>(nullptr)), 12u);
    EXPECT_EQ(it.offset(), 2u);
}

TYPED_TEST(UnsignedStrepTest, StopsBehindTheNumber) {
    String const s("a7, b");
    auto it = s.begin() + 1;
    EXPECT_EQ(Vel::sequenceToValue(it, s.end(), static_cast<TypeParam*>(nullptr)), 7u);
    EXPECT_EQ(it.offset(), 2u);
}

// Zero, every power of ten with its neighbours, every power of two with its neighbours.
std::vector<U64> boundaries() {
    std::vector<U64> values{0};
    auto const around = [&](U64 v) { values.insert(values.end(), {v - 1, v, v + 1}); };
    for (U64 power = 1;; power *= 10) {
        around(power);
        if (power == 10000000000000000000u) break;
    }
    for (unsigned bit = 1; bit < 64; ++bit) around(U64(1) << bit);
    around(0);  // the largest, and 0 and 1 again
    return values;
}

template <class T> void expectReads(std::string const& text, U64 value) {
    T read = 99;
    char const* const end = text.data() + text.size();
    char const* const stop = Scan::readUnsigned<T>(text.data(), end, read);
    if (value <= std::numeric_limits<T>::max()) {
        EXPECT_EQ(stop, end) << text;
        EXPECT_EQ(read, value) << text;
    } else {
        EXPECT_EQ(stop, nullptr) << text;
        EXPECT_EQ(read, 99u) << text;
    }
}

TEST(ScanTest, WritesAndReadsUnsignedNumbersAtEveryBoundary) {
    for (U64 const value : boundaries()) {
        std::string const expected = std::to_string(value);
        char text[Scan::maxUnsigned + 1];
        text[expected.size()] = '#';
        char const* const end = Scan::writeUnsigned(text, value);
        EXPECT_EQ(std::string_view(text, static_cast<std::size_t>(end - text)), expected);
        EXPECT_EQ(text[expected.size()], '#');
        EXPECT_EQ(Scan::decimalDigits(value), expected.size());
        expectReads<U8>(expected, value);
        expectReads<U16>(expected, value);
        expectReads<U32>(expected, value);
        expectReads<U64>(expected, value);
    }
}

TEST(ScanTest, WritesAndReadsRandomNumbersOfEveryLength) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 20000; ++i) {
        U64 const value = random() >> (random() % 64);
        std::string const expected = std::to_string(value);
        ASSERT_EQ(Vel::unsignedToStrep(value), expected);
        expectReads<U32>(expected, value);
        expectReads<U64>(expected, value);
    }
}

// --- bools ---

TEST(StrepTest, FlagsAreTrueOrFalse) {
    EXPECT_EQ(Vel::valueToStrep(true), "True");
    EXPECT_EQ(Vel::valueToStrep(false), "False");
    EXPECT_EQ(Vel::valueToStrep(U1(true)), "True");
    EXPECT_EQ(Vel::valueToStrep(U1()), "False");
    EXPECT_EQ(Vel::boolToStrep(true), "True");
    EXPECT_TRUE(parse<bool>("True"));
    EXPECT_FALSE(parse<bool>("False"));
    EXPECT_TRUE(parse<U1>("True"));
    EXPECT_FALSE(parse<U1>("False"));
}

TEST(StrepTest, FlagsHaveNoOtherSpelling) {
    std::vector<std::string_view> const texts{"", "TRUE", "true", "FALSE", "false", "T", "Tru", "Fals", "Falsee",
        "True ", " True", "TrueFalse", "1", "0", "yes", "None", "'True'", "True\0"sv};
    expectRefused<bool>(texts);
    expectRefused<U1>(texts);
    EXPECT_EQ(refusal<bool>("TRUE"), "expected True or False at offset 0, at 'TRUE'");
    EXPECT_EQ(refusal<U1>(""), "expected True or False at offset 0, at the end of the text");
}

TEST(StrepTest, FlagsReadNoFurtherThanTheEnd) {
    for (String const s : {"True", "False"}) {
        auto it = s.begin();
        EXPECT_THROW((void)Vel::sequenceToValue(it, s.end() - 1, static_cast<bool*>(nullptr)), ParseException);
        EXPECT_TRUE(Vel::sequenceToValue(it, s.end(), static_cast<bool*>(nullptr)) == (s == "True"));
    }
}

// --- doubles ---

struct DoubleText {
    double value;
    char const* text;
};

// Each text is what Python's repr() says.
TEST(StrepTest, DoublesAreSpelledAsPythonSpellsThem) {
    static constexpr DoubleText table[] = {
        {0.0, "0.0"},
        {-0.0, "-0.0"},
        {1.0, "1.0"},
        {-1.0, "-1.0"},
        {0.1, "0.1"},
        {0.5, "0.5"},
        {1.5, "1.5"},
        {10.0, "10.0"},
        {100.0, "100.0"},
        {123456.789, "123456.789"},
        {0.3333333333333333, "0.3333333333333333"},
        {0.30000000000000004, "0.30000000000000004"},
        {0.0001, "0.0001"},
        {0.00012, "0.00012"},
        {0.000123456789, "0.000123456789"},
        {0.00011999999999999999, "0.00011999999999999999"},
        {9.999e-05, "9.999e-05"},
        {0.00009999999999999999, "9.999999999999999e-05"},
        {1e-05, "1e-05"},
        {0.00001, "1e-05"},
        {1.5e-05, "1.5e-05"},
        {1e-06, "1e-06"},
        {0.000001, "1e-06"},
        {1e-07, "1e-07"},
        {1e-10, "1e-10"},
        {5e-324, "5e-324"},
        {1e-323, "1e-323"},
        {2.225073858507201e-308, "2.225073858507201e-308"},
        {2.2250738585072014e-308, "2.2250738585072014e-308"},
        {-2.2250738585072014e-308, "-2.2250738585072014e-308"},
        {1.7976931348623157e+308, "1.7976931348623157e+308"},
        {-1.7976931348623157e+308, "-1.7976931348623157e+308"},
        {1e15, "1000000000000000.0"},
        {1e16, "1e+16"},
        {-1e16, "-1e+16"},
        {1e17, "1e+17"},
        {9999999999999998.0, "9999999999999998.0"},
        {999999999999999.9, "999999999999999.9"},
        {1234567890123456.7, "1234567890123456.8"},
        {12345678901234567.0, "1.2345678901234568e+16"},
        {123456789012345680.0, "1.2345678901234568e+17"},
        {1e22, "1e+22"},
        {1e23, "1e+23"},
        {1e100, "1e+100"},
        {1700000000.123456, "1700000000.123456"},
        {1700000000.125, "1700000000.125"},
        {1700000000.1234567, "1700000000.1234567"},
        {1700000000.000001, "1700000000.000001"},
        {1700000000.999999, "1700000000.999999"},
        {4294967295.0, "4294967295.0"},
        {4294967296.0, "4294967296.0"},
        {4294967295.999999, "4294967295.999999"},
        {4499999999.999999, "4499999999.999999"},
        {4500000000.0, "4500000000.0"},
        {4500000000.000001, "4500000000.000001"},
        {4503599627.370495, "4503599627.370495"},
        {4503599627.370496, "4503599627.370496"},
        {9007199254740991.0, "9007199254740991.0"},
        {9007199254740992.0, "9007199254740992.0"},
        {9007199254740993.0, "9007199254740992.0"},
        {0.000100000000001, "0.000100000000001"},
        {0.1234567, "0.1234567"},
        {0.123456, "0.123456"},
        {999999.999999, "999999.999999"},
        {1000000.0, "1000000.0"},
        {2.5, "2.5"},
        {1e0, "1.0"},
        {100000.0, "100000.0"},
        {3.141592653589793, "3.141592653589793"},
        {2.718281828459045, "2.718281828459045"},
        {6.02214076e+23, "6.02214076e+23"},
        {1.25e-05, "1.25e-05"},
        {4.35, "4.35"},
        {0.999999, "0.999999"},
        {0.9999999, "0.9999999"},
    };
    for (auto const& [value, text] : table) {
        EXPECT_EQ(Vel::valueToStrep(value), text);
        EXPECT_EQ(Vel::valueToStrep(Seconds(value)), text);
        EXPECT_EQ(std::bit_cast<U64>(parse<double>(text)), std::bit_cast<U64>(value)) << text;
        EXPECT_EQ(std::bit_cast<U64>(parse<Seconds>(text).value()), std::bit_cast<U64>(value)) << text;
    }
}

TEST(StrepTest, DoublesThatAreNoNumbers) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(Vel::valueToStrep(infinity), "inf");
    EXPECT_EQ(Vel::valueToStrep(-infinity), "-inf");
    EXPECT_EQ(Vel::valueToStrep(std::nan("")), "nan");
    EXPECT_EQ(Vel::valueToStrep(-std::nan("")), "nan");
    EXPECT_EQ(parse<double>("inf"), infinity);
    EXPECT_EQ(parse<double>("-inf"), -infinity);
    EXPECT_TRUE(std::isnan(parse<double>("nan")));
}

TEST(StrepTest, DoublesHaveNoOtherSpelling) {
    std::vector<std::string_view> const texts{"", "1", "-1", "0", "-0", "1.", ".5", "-.5", "-", "+1.0", "+inf", "--1.0",
        " 1.0", "1.0 ", "1.50", "1.00", "0.00", "-0.00", "01.0", "00.0", "00.5", "1e5", "1e16", "1e+5", "1e05", "1e-5",
        "1.0e5", "1.0e+16", "1.0e-05", "10e-06", "1E-05", "1e-0005", "0x1", "0x1p3", "1.0f", "1,5", "1_0.0", "1.5.5",
        "Infinity", "infinity", "INF", "Inf", "NaN", "NAN", "-nan", "nan(1)", "1e400", "1e+400", "-1e+400", "1e-400",
        "e5", "1.0e", "1e", "1e+", "0.1000000", "0.30000000000000000004", "0.3000000000000000", "0.10000000000000001",
        "0.00001", "0.0000001", "0.00009", "100000000000000000.0", "10000000000000000.0", "1700000000.1234560",
        "1700000000.12345600", "1700000000.12345601", "4503599627.3704951", "123456789012345678.0",
        "2.4703282292062328e-324", "1.0\0"sv, "\0"sv, "one", "True", "'1.0'", "\xd9\xa1.0"};
    expectRefused<double>(texts);
    expectRefused<Seconds>(texts);
}

TEST(StrepTest, DoublesReadNoFurtherThanTheEnd) {
    for (auto const& [text, length, value] : {std::tuple("1.2345", 3, 1.2), {"1e+300", 5, 1e30}, {"1.5e-07", 3, 1.5},
             {"0.0001", 3, 0.0}, {"nano", 3, 0.0}, {"-1.25", 4, -1.2}}) {
        String const s(text);
        auto it = s.begin();
        double const read = Vel::sequenceToValue(it, s.begin() + length, static_cast<double*>(nullptr));
        EXPECT_TRUE(read == value || std::isnan(read)) << text << ": " << read;
        EXPECT_EQ(it.offset(), static_cast<std::size_t>(length)) << text;
    }
}

// The layout of repr() over the C++ library's shortest digits.
std::string reprOf(double value) {
    char text[32];
    std::string const s(text, std::to_chars(text, text + 32, value, std::chars_format::scientific).ptr);
    auto const e = s.find('e');
    int const exponent = std::stoi(s.substr(e + 1));
    if (exponent < -4 || exponent >= 16) return s;
    bool const negative = s[0] == '-';
    std::string digits = s.substr(negative, e - negative);
    std::erase(digits, '.');
    if (exponent < 0) digits.insert(0, static_cast<std::size_t>(-exponent), '0');
    auto const whole = static_cast<std::size_t>(std::max(exponent, 0)) + 1;
    if (digits.size() < whole + 1) digits.resize(whole + 1, '0');
    return (negative ? "-" : "") + digits.substr(0, whole) + "." + digits.substr(whole);
}

void expectRoundTrip(double value) {
    String const text = Vel::valueToStrep(value);
    ASSERT_EQ(text, reprOf(value));
    ASSERT_LE(text.length(), Scan::maxDouble);
    ASSERT_EQ(std::bit_cast<U64>(parse<double>(text)), std::bit_cast<U64>(value)) << text;
}

void expectRoundTripAround(double value) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    double low = value;
    double high = value;
    for (int i = 0; i < 3; ++i) {
        expectRoundTrip(low);
        expectRoundTrip(high);
        expectRoundTrip(-high);
        low = std::nextafter(low, 0.0);
        high = std::nextafter(high, infinity);
        if (std::isinf(high)) return;
    }
}

TEST(DoubleStrepTest, RandomBitsReadBack) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 50000; ++i) {
        auto const value = std::bit_cast<double>(random());
        if (std::isfinite(value)) expectRoundTrip(value);
    }
}

TEST(DoubleStrepTest, RandomDecimalsReadBack) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 50000; ++i) {
        U64 const digits = random() >> (random() % 64);
        expectRoundTripAround(static_cast<double>(digits) / std::pow(10.0, static_cast<double>(random() % 10)));
    }
}

TEST(DoubleStrepTest, TimeStampsReadBack) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 50000; ++i) {
        expectRoundTripAround(static_cast<double>(random() % 4600000000000000) / 1e6);
        expectRoundTrip(static_cast<double>(1700000000000000000 + random() % 100000000000000000) * 1e-9);
    }
}

TEST(DoubleStrepTest, PowersAndTheirNeighboursReadBack) {
    for (int power = -323; power <= 308; ++power)
        expectRoundTripAround(std::strtod(("1e" + std::to_string(power)).c_str(), nullptr));
    for (int power = -1074; power <= 1023; ++power) expectRoundTripAround(std::ldexp(1.0, power));
}

TEST(DoubleStrepTest, WholeNumbersBetweenDoublesAreRefused) {
    EXPECT_EQ(parse<double>("9007199254740992.0"), 9007199254740992.0);  // 2^53
    expectRefused<double>({"9007199254740993.0", "9007199254740995.0"});
    EXPECT_EQ(parse<double>("9007199254740994.0"), 9007199254740994.0);
}

// A text that is accepted is the text of the value read, whatever was done to it.
TEST(DoubleStrepTest, DamagedTextsAreRefusedOrCanonical) {
    std::mt19937_64 random(20261121);
    constexpr std::string_view letters = "0123456789.-+einfa";
    int accepted = 0;
    for (int i = 0; i < 100000; ++i) {
        double const value = i % 2 ? std::bit_cast<double>(random()) : static_cast<double>(random() % 10000000) / 1e3;
        std::string text = Vel::valueToStrep(value).stdString();
        auto const place = random() % text.size();
        char const letter = letters[random() % letters.size()];
        if (i % 3 == 0) text.erase(place, 1);
        if (i % 3 == 1) text.insert(place, 1, letter);
        if (i % 3 == 2) text[place] = letter;
        try {
            ASSERT_EQ(Vel::valueToStrep(parse<double>(text)), text);
            ++accepted;
        } catch (ParseException const&) {}
    }
    EXPECT_GT(accepted, 10000);
}

// --- strings ---

TEST(StrepTest, StringsStandInSingleQuotes) {
    EXPECT_EQ(Vel::valueToStrep(String()), "''");
    EXPECT_EQ(Vel::valueToStrep(String("plain \"text\"")), "'plain \"text\"'");
    EXPECT_EQ(Vel::valueToStrep(String("it's")), R"('it\'s')");
    EXPECT_EQ(Vel::valueToStrep(String("a\\b")), R"('a\\b')");
    EXPECT_EQ(Vel::valueToStrep(String("\n\r\t")), R"('\n\r\t')");
    EXPECT_EQ(Vel::valueToStrep(String("\0\x01\x0b\x1f\x7f"sv)), R"('\x00\x01\x0b\x1f\x7f')");
    EXPECT_EQ(Vel::valueToStrep(String("\xc3\xa9\x80\xff")), "'\xc3\xa9\x80\xff'");
}

TEST(StrepTest, EveryByteReadsBack) {
    for (int byte = 0; byte < 256; ++byte) {
        char const bytes[] = {'a', static_cast<char>(byte), '1'};
        String const value(bytes, 3);
        String const text = Vel::valueToStrep(value);
        EXPECT_EQ(parse<String>(text), value) << byte;
        for (char const c : text) EXPECT_TRUE(static_cast<U8>(c) >= 0x20 && c != 0x7F) << byte;
    }
}

TEST(StrepTest, RandomStringsReadBack) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 2000; ++i) {
        std::string bytes(random() % 1000, ' ');
        for (char& c : bytes) c = static_cast<char>(random());
        ASSERT_EQ(parse<String>(Vel::valueToStrep(String(bytes))), bytes);
    }
}

TEST(StrepTest, StringsHaveNoOtherSpelling) {
    expectRefused<String>(
        {"", "'", "a", "'a", "a'", "\"a\"", " 'a'", "'a' ", "'a''", "'a'b'", R"('\')", R"('\x41')", R"('\x0A')",
            R"('\x0a')", R"('\x09')", R"('\x0d')", R"('\x80')", R"('\xff')", R"('\X01')", R"('\x1')", R"('\x')",
            R"('\x0g')", R"('\0')", R"('\a')", R"('\v')", R"('\"')", R"('\u0041')", R"('\N')", R"('\x7F')", R"(b'a')",
            R"('\)", R"('\x)", R"('\x0)", R"('\x01)", "'a\nb'", "'\t'", "'\0'"sv, "'\x1f'", "'\x7f'", "None", "1"});
}

TEST(StrepTest, StringsReadNoFurtherThanTheEnd) {
    String const s(R"('ab\x01')");
    for (int length = 0; length < 8; ++length) {
        auto it = s.begin();
        EXPECT_THROW((void)Vel::sequenceToValue(it, s.begin() + length, static_cast<String*>(nullptr)), ParseException);
        EXPECT_EQ(it.offset(), 0u);
    }
}

TEST(StrepTest, StringsEndAtTheirQuote) {
    String const s("'a', 'b'");
    auto it = s.begin();
    EXPECT_EQ(Vel::sequenceToValue(it, s.end(), static_cast<String*>(nullptr)), "a");
    EXPECT_EQ(it.offset(), 3u);
}

// --- errors ---

template <class T> void expectNothingMoves() {
    String const s("12?");
    auto it = s.begin() + 2;
    EXPECT_THROW((void)Vel::sequenceToValue(it, s.end(), static_cast<T*>(nullptr)), ParseException);
    EXPECT_EQ(it.offset(), 2u);
    EXPECT_THROW((void)Vel::deserializeAttr<T>(it, s.end(), "x"), ParseException);
    EXPECT_EQ(it.offset(), 2u);
}

TEST(StrepErrorTest, NothingMovesWhenAParseThrows) {
    expectNothingMoves<U8>();
    expectNothingMoves<U16>();
    expectNothingMoves<U32>();
    expectNothingMoves<U64>();
    expectNothingMoves<bool>();
    expectNothingMoves<U1>();
    expectNothingMoves<double>();
    expectNothingMoves<Seconds>();
    expectNothingMoves<String>();
}

TEST(StrepErrorTest, SaysWhatWasExpected) {
    EXPECT_EQ(refusal<U8>("x"), "expected a number from 0 to 255 at offset 0, at 'x'");
    EXPECT_EQ(refusal<U16>("x"), "expected a number from 0 to 65535 at offset 0, at 'x'");
    EXPECT_EQ(refusal<U32>("x"), "expected a number from 0 to 4294967295 at offset 0, at 'x'");
    EXPECT_EQ(refusal<U64>("x"), "expected a number from 0 to 18446744073709551615 at offset 0, at 'x'");
    EXPECT_EQ(refusal<bool>("x"), "expected True or False at offset 0, at 'x'");
    EXPECT_EQ(refusal<double>("1"), "expected the shortest decimal of a double, such as 1.5 at offset 0, at '1'");
    EXPECT_EQ(
        refusal<Seconds>("1"), "expected seconds as the shortest decimal of a double, such as 1.5 at offset 0, at '1'");
    EXPECT_EQ(refusal<String>("x"), "expected a string in single quotes at offset 0, at 'x'");
}

TEST(StrepErrorTest, ShowsThePlace) {
    EXPECT_EQ(refusal<U8>(""), "expected a number from 0 to 255 at offset 0, at the end of the text");
    EXPECT_EQ(refusal<U32>("007"), "expected the end of the text at offset 1, at '07'");
    EXPECT_EQ(refusal<bool>("True "), "expected the end of the text at offset 4, at ' '");
    EXPECT_EQ(refusal<bool>("'a\n\x01\xff"), R"(expected True or False at offset 0, at '\'a\n\x01)"
                                             "\xff'");
}

TEST(StrepErrorTest, ShowsAtMost24Bytes) {
    EXPECT_EQ(
        refusal<bool>("abcdefghijklmnopqrstuvwx"), "expected True or False at offset 0, at 'abcdefghijklmnopqrstuvwx'");
    EXPECT_EQ(refusal<bool>("abcdefghijklmnopqrstuvwxy"),
        "expected True or False at offset 0, at 'abcdefghijklmnopqrstuvwx'...");
    EXPECT_EQ(refusal<bool>(std::string(1000000, '\x01')).size(),
        std::string_view("expected True or False at offset 0, at ''...").size() + 96);
}

TEST(StrepErrorTest, CarriesTheOffset) {
    String const s("[1, x]");
    auto it = s.begin() + 4;
    try {
        (void)Vel::sequenceToValue(it, s.end(), static_cast<U32*>(nullptr));
        FAIL();
    } catch (ParseException const& error) {
        EXPECT_EQ(error.offset(), 4u);
        EXPECT_STREQ(error.what(), "expected a number from 0 to 4294967295 at offset 4, at 'x]'");
    }
}

TEST(StrepErrorTest, AnAttributesErrorNamesIt) {
    String const s("{'count': x}");
    auto it = s.begin() + 10;
    try {
        (void)Vel::deserializeAttr<U32>(it, s.end(), "count");
        FAIL();
    } catch (ParseException const& error) {
        EXPECT_EQ(error.offset(), 10u);
        EXPECT_STREQ(error.what(), "attribute \"count\": expected a number from 0 to 4294967295 at offset 10, at 'x}'");
    }
}

TEST(StrepErrorTest, AnAttributeIsReadAsAnyValue) {
    String const s("1700000000.5, True");
    auto it = s.begin();
    EXPECT_EQ(Vel::deserializeAttr<Seconds>(it, s.end(), "last"), Seconds(1700000000.5));
    Vel::needString(it, s.end(), ", ");
    EXPECT_TRUE(Vel::deserializeAttr<U1>(it, s.end(), "on"));
    Vel::strepToValueEnd(s, it);
}

TEST(StrepErrorTest, RethrowingKeepsTheOffset) {
    try {
        Vel::rethrowFromDeserializeAttr(ParseException("bad", 12), "last");
    } catch (ParseException const& error) {
        EXPECT_STREQ(error.what(), "attribute \"last\": bad");
        EXPECT_EQ(error.offset(), 12u);
    }
    try {
        Vel::rethrowFromDeserializeAttr(Vel::RangeException("too large"), "last");
    } catch (ParseException const& error) {
        EXPECT_STREQ(error.what(), "attribute \"last\": too large");
        EXPECT_EQ(error.offset(), 0u);
    }
}

std::string needError(String const& s, std::ptrdiff_t from, std::ptrdiff_t to, char const* literal) {
    auto it = s.begin() + from;
    try {
        Vel::needString(it, s.begin() + to, literal);
    } catch (ParseException const& error) {
        EXPECT_EQ(it.offset(), static_cast<std::size_t>(from));
        EXPECT_EQ(error.offset(), static_cast<std::size_t>(from));
        return error.what();
    }
    return "";
}

TEST(NeedStringTest, ConsumesExactlyTheLiteral) {
    String const s("Value('T', 7)");
    auto it = s.begin();
    Vel::needString(it, s.end(), "Value(");
    EXPECT_EQ(it.offset(), 6u);
    Vel::needString(it, s.end(), "");
    EXPECT_EQ(it.offset(), 6u);
    Vel::needString(it, s.end(), "'T', 7)");
    EXPECT_TRUE(it == s.end());
    Vel::needString(it, s.end(), "");
}

TEST(NeedStringTest, ThrowsForAnythingElse) {
    EXPECT_EQ(needError("Value (", 0, 7, "Value("), "expected \"Value(\" at offset 0, at 'Value ('");
    EXPECT_EQ(needError("Value(", 0, 5, "Value("), "expected \"Value(\" at offset 0, at 'Value'");
    EXPECT_EQ(needError("Value(", 6, 6, "'"), "expected \"'\" at offset 6, at the end of the text");
    EXPECT_EQ(needError("value(", 0, 6, "Value("), "expected \"Value(\" at offset 0, at 'value('");
    EXPECT_EQ(needError("", 0, 0, "x"), "expected \"x\" at offset 0, at the end of the text");
}

TEST(NeedStringTest, NothingIsNeededOfTheEmptyString) {
    String const empty;
    auto it = empty.begin();
    Vel::needString(it, empty.end(), "");
    Vel::strepToValueEnd(empty, it);
    EXPECT_EQ(it.offset(), 0u);
}

TEST(StrepErrorTest, TheEndIsChecked) {
    String const s("12");
    EXPECT_NO_THROW(Vel::strepToValueEnd(s, s.end()));
    EXPECT_THROW(Vel::strepToValueEnd(s, s.begin() + 1), ParseException);
}

// --- StrepOut ---

TEST(StrepOutTest, CollectsText) {
    Vel::StrepOut out;
    EXPECT_EQ(out.view(), "");
    out << "a" << String("b\0"sv) << std::string_view() << std::string("c");
    EXPECT_EQ(out.view(), "ab\0c"sv);
    EXPECT_EQ(out.str(), String("ab\0c"sv));
    EXPECT_EQ(out.size(), 4u);
}

TEST(StrepOutTest, GrowsAcrossItsInnerRoom) {
    for (std::size_t const step : {1u, 7u, 511u, 512u, 513u, 5000u}) {
        Vel::StrepOut out;
        std::string expected;
        while (expected.size() < 3000) {
            std::string const text(step, static_cast<char>('a' + expected.size() % 26));
            out << text;
            expected += text;
            ASSERT_EQ(out.view(), expected);
        }
    }
}

TEST(StrepOutTest, TakesWhatIsWrittenIntoItsRoom) {
    Vel::StrepOut out;
    out << "ab";
    char* const room = out.room(1000);
    std::fill_n(room, 600, 'x');
    out.endIs(room + 600);
    EXPECT_EQ(out.view(), "ab" + std::string(600, 'x'));
}

TEST(StrepOutTest, ClearingKeepsTheMemory) {
    Vel::StrepOut out;
    out << std::string(2000, 'x');
    char const* const memory = out.view().data();
    out.clear();
    EXPECT_EQ(out.view(), "");
    out << std::string(2000, 'y');
    EXPECT_EQ(out.view().data(), memory);
    EXPECT_EQ(out.view(), std::string(2000, 'y'));
}

}  // namespace
