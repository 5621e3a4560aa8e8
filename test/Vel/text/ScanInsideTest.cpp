#include "GuardedText.h"

#include "Vel/text/Scan.h"
#include "Vel/text/Strep.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <string_view>

// The readers of numbers inside a record's text must accept and return the same as those that assume nothing.
namespace {

namespace Scan = Vel::Scan;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

constexpr std::string_view tails[] = {"", "}", "})", ", 'later': ", " ", ".", "e", "0", "7", "\0"};

// A text behind as many bytes as the readers may use, at the end of what may be read.
class Inside {
public:
    Inside(std::string_view text, std::string_view tail, char filling)
        : guarded_(std::string(Scan::roomBefore, filling).append(text).append(tail)) {}
    char const* from() const { return guarded_.begin() + Scan::roomBefore; }
    char const* end() const { return guarded_.end(); }

private:
    GuardedText guarded_;
};

void expectSameDouble(std::string_view text, std::string_view tail, char filling = '7') {
    Inside const inside(text, tail, filling);
    double expected = 0;
    double value = 0;
    auto const* const stop = Scan::readDouble(inside.from(), inside.end(), expected);
    ASSERT_EQ(Scan::readDoubleInside(inside.from(), inside.end(), value), stop) << text << "|" << tail;
    if (!stop) return;
    ASSERT_EQ(std::bit_cast<U64>(value), std::bit_cast<U64>(expected)) << text << "|" << tail;
}

void expectSameDoubles(double value, std::mt19937_64& random) {
    char text[Scan::roomForDouble];
    std::string spelled(text, static_cast<std::size_t>(Scan::writeDouble(text, value) - text));
    expectSameDouble(spelled, tails[random() % std::size(tails)], random() % 2 ? '7' : '.');
    spelled[random() % spelled.size()] = "0123456789.e+-in"[random() % 16];
    expectSameDouble(spelled, tails[random() % std::size(tails)]);
}

TEST(ScanInsideTest, DoublesReadAsAnywhere) {
    std::mt19937_64 random(20261122);
    for (int i = 0; i < 4000; ++i) {
        expectSameDoubles(std::bit_cast<double>(random()), random);
        auto const digits = static_cast<double>(random() >> (random() % 64));
        expectSameDoubles(digits / std::pow(10.0, static_cast<double>(random() % 23)), random);
        expectSameDoubles((1.7e15 + static_cast<double>(random() % 100000000000000)) / 1e6, random);
        expectSameDoubles(static_cast<double>(random() % 100000) / 1000, random);
    }
}

TEST(ScanInsideTest, DoublesOfEveryLengthReadAsAnywhere) {
    for (std::string_view const digit : {"0", "1", "9"})
        for (std::size_t whole = 0; whole < 23; ++whole)
            for (std::size_t places = 0; places < 26; ++places) {
                std::string text;
                for (std::size_t i = 0; i < whole; ++i) text += digit;
                text += '.';
                for (std::size_t i = 0; i + 1 < places; ++i) text += digit;
                if (places != 0) text += '3';
                for (std::string_view const tail : tails) expectSameDouble(text, tail);
                text += '0';
                expectSameDouble(text, "})");
            }
}

TEST(ScanInsideTest, OddSpellingsReadAsAnywhere) {
    for (std::string_view const text : {"", ".", "-", "0", "0.", ".5", "0.0", "-0.0", "00.5", "01.5", "1.50", "0.0001",
             "0.00001", "0.00012", "0.000012", "1.5e", "1.5e5", "1.5e+16", "5e-324", "1..5", "1.5.5", "12.5e+20", "nan",
             "inf", "-inf", "-nan", "1e+16", "9007199254740992.0", "9007199254740993.0", "9007199254740994.0",
             "123456789012345.0", "4499999999.999999", "4500000000.000001", "3999999999.999999", "0.30000000000000004",
             "0.3000000000000000444", "1/5", "1:5",
             "1\xAE"
             "5",
             "\xB1.5", "1.\xB5", "18446744073709551616.5"})
        for (std::string_view const tail : tails)
            for (char const filling : {'7', '.', '\'', ' '}) expectSameDouble(text, tail, filling);
}

template <class T> void expectSameUnsigned(std::string_view text, std::string_view tail) {
    Inside const inside(text, tail, '7');
    T expected = 0;
    T value = 0;
    auto const* const stop = Scan::readUnsigned(inside.from(), inside.end(), expected);
    ASSERT_EQ(Scan::readUnsignedInside(inside.from(), inside.end(), value), stop) << text << "|" << tail;
    if (!stop) return;
    ASSERT_EQ(value, expected) << text << "|" << tail;
}

TEST(ScanInsideTest, UnsignedNumbersReadAsAnywhere) {
    std::mt19937_64 random(20261122);
    for (int i = 0; i < 3000; ++i) {
        std::string text = std::to_string(random() >> (random() % 64));
        if (random() % 4 == 0) text += std::to_string(random() % 1000);
        auto const tail = tails[random() % std::size(tails)];
        expectSameUnsigned<U8>(text, tail);
        expectSameUnsigned<U16>(text, tail);
        expectSameUnsigned<U32>(text, tail);
        expectSameUnsigned<U64>(text, tail);
    }
    for (std::string_view const text : {"", "0", "00", "07", "x", "-1", "255", "256", "65535", "65536", "4294967295",
             "4294967296", "18446744073709551615", "18446744073709551616", "99999999999999999999", "1/", "1:", "\xB1"})
        for (std::string_view const tail : tails) {
            expectSameUnsigned<U8>(text, tail);
            expectSameUnsigned<U16>(text, tail);
            expectSameUnsigned<U32>(text, tail);
            expectSameUnsigned<U64>(text, tail);
        }
}

// A number at the very end of what may be read, and with nothing that may be read before it.
TEST(ScanInsideTest, NumbersAreReadNoFurtherThanTheirText) {
    for (std::string_view const text : {"1", "12", "123", "1234", "12345", "123456", "1234567", "12345678", "123456789",
             "1234567890123456789", "0.5", "1.5", "12.25", "0.1234567", "1700000000.123457", "0.30000000000000004"})
        for (auto const at : {GuardedText::At::begin, GuardedText::At::end}) {
            GuardedText const guarded(text, at);
            std::string const copy(text);
            double value = 0;
            if (char const* const stop = Scan::readDouble(guarded.begin(), guarded.end(), value)) {
                EXPECT_EQ(stop, guarded.end());
                EXPECT_EQ(value, std::stod(copy));
            } else {
                EXPECT_EQ(text.find('.'), std::string_view::npos) << text;
            }
            U64 number = 0;
            char const* const stop = Scan::readUnsigned(guarded.begin(), guarded.end(), number);
            EXPECT_EQ(stop, guarded.begin() + std::min(text.find('.'), text.size())) << text;
            EXPECT_EQ(number, std::stoull(copy));
        }
}

}  // namespace
