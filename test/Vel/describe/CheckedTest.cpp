#include "Vel/describe/Checked.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

using Vel::Checked;
using Vel::checkedRead;
using Vel::CheckedError;
using Vel::checkedStrepToValue;

// --- the result ---

TEST(CheckedTest, HoldsAValue) {
    Checked<std::string> const checked(std::string("value"));
    ASSERT_TRUE(checked);
    EXPECT_EQ(*checked, "value");
    EXPECT_EQ(checked->size(), 5u);
    EXPECT_EQ(checked.optional(), std::optional<std::string>("value"));
    EXPECT_EQ(checked.valueOr("other"), "value");
}

TEST(CheckedTest, OrSaysWhatIsWrongAndWhere) {
    Checked<std::string> const checked(CheckedError{"broken", 7});
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, "broken");
    EXPECT_EQ(checked.error().offset, 7u);
    EXPECT_EQ(checked.optional(), std::nullopt);
    EXPECT_EQ(checked.valueOr("other"), "other");
}

TEST(CheckedTest, IsABooleanOnlyWhereOneIsAskedFor) {
    EXPECT_FALSE((std::is_convertible_v<Checked<int>, bool>));
    EXPECT_TRUE((std::is_constructible_v<bool, Checked<int>>));
}

TEST(CheckedTest, FalseValueIsAValue) {
    auto const checked = checkedStrepToValue<bool>("False");
    ASSERT_TRUE(checked);
    EXPECT_FALSE(*checked);
}

// --- texts ---

TEST(CheckedTest, WholeTextsAreParsed) {
    EXPECT_EQ(checkedStrepToValue<Vel::U8>("255").optional(), std::optional<Vel::U8>(255));
    EXPECT_EQ(checkedStrepToValue<double>("1e+16").optional(), std::optional<double>(1e16));
    EXPECT_EQ(checkedStrepToValue<Vel::String>("'it\\'s'").optional(), std::optional<Vel::String>("it's"));
}

TEST(CheckedTest, TextErrorsHaveTheExceptionsWordsAndPlace) {
    struct Row {
        char const* text;
        char const* error;
        std::size_t offset;
    };
    for (Row const row : {Row{"", "expected a number from 0 to 255 at offset 0, at the end of the text", 0},
             Row{"256", "expected a number from 0 to 255 at offset 0, at '256'", 0},
             Row{"12x", "expected the end of the text at offset 2, at 'x'", 2},
             Row{"007", "expected the end of the text at offset 1, at '07'", 1}}) {
        auto const checked = checkedStrepToValue<Vel::U8>(row.text);
        ASSERT_FALSE(checked) << row.text;
        EXPECT_EQ(checked.error().text, row.error);
        EXPECT_EQ(checked.error().offset, row.offset);
        EXPECT_EQ(checked.optional(), std::nullopt);
    }
}

// --- bytes ---

TEST(CheckedTest, AllBytesAreRead) {
    std::array<Vel::U8, 4> const bytes = {1, 2, 3, 4};
    EXPECT_EQ(checkedRead<Vel::U32>(bytes).optional(), std::optional<Vel::U32>(0x01020304));
    std::array<Vel::U8, 6> const text = {0, 0, 0, 2, 'o', 'k'};
    EXPECT_EQ(checkedRead<Vel::String>(text).optional(), std::optional<Vel::String>("ok"));
}

TEST(CheckedTest, MissingBytesAreAnError) {
    std::array<Vel::U8, 3> const bytes = {1, 2, 3};
    auto const checked = checkedRead<Vel::U32>(bytes);
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, "the attribute log ends within U32 at offset 0: 4 bytes needed, 3 left");
    EXPECT_EQ(checked.error().offset, 0u);
    EXPECT_FALSE(checkedRead<Vel::U8>({}));
}

TEST(CheckedTest, StringLongerThanTheBytesIsAnError) {
    std::array<Vel::U8, 5> const bytes = {0xFF, 0xFF, 0xFF, 0xFF, 'x'};
    auto const checked = checkedRead<Vel::String>(bytes);
    ASSERT_FALSE(checked);
    EXPECT_EQ(
        checked.error().text, "the attribute log ends within Vel::String at offset 0: 4294967299 bytes needed, 5 left");
}

TEST(CheckedTest, BytesLeftOverAreAnErrorAtTheirPlace) {
    std::array<Vel::U8, 4> const bytes = {1, 2, 3, 4};
    auto const checked = checkedRead<Vel::U8>(bytes);
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, "3 bytes left over at offset 1");
    EXPECT_EQ(checked.error().offset, 1u);
}

TEST(CheckedTest, BoolOtherThanZeroAndOneIsAnError) {
    std::array<Vel::U8, 1> const bytes = {2};
    auto const checked = checkedRead<bool>(bytes);
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, "the bool at offset 0 is 2, and neither 0 nor 1");
}

// --- exceptions ---

// A type whose parser throws what its text says.
struct Thrower {
    int value;
};
Thrower sequenceToValue(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end, Thrower*) {
    switch (*it) {
    case 'r':
        throw Vel::RangeException("out of range");
    case 'e':
        throw Vel::ErrnoException(EINVAL);
    case 's':
        throw Vel::StreamException("no more", 3);
    case 'l':
        throw std::out_of_range("stoul");
    case 'a':
        throw std::bad_alloc();
    default:
        it = end;
        return {1};
    }
}

TEST(CheckedTest, ExceptionsOfAParserBecomeErrors) {
    EXPECT_TRUE(checkedStrepToValue<Thrower>("fine"));
    EXPECT_EQ(checkedStrepToValue<Thrower>("range").error().text, "out of range");
    EXPECT_EQ(checkedStrepToValue<Thrower>("range").error().offset, 0u);
    EXPECT_EQ(checkedStrepToValue<Thrower>("errno").error().text, "Invalid argument (EINVAL)");
    EXPECT_EQ(checkedStrepToValue<Thrower>("stream").error().text, "no more");
    EXPECT_EQ(checkedStrepToValue<Thrower>("stream").error().offset, 3u);
    EXPECT_EQ(checkedStrepToValue<Thrower>("logic").error().text, "stoul");
}

TEST(CheckedTest, WantOfMemoryIsNoErrorOfTheInput) {
    EXPECT_THROW(checkedStrepToValue<Thrower>("alloc"), std::bad_alloc);
}

}  // namespace
