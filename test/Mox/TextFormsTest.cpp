#include "Allocations.h"

#include "Mox/Mox.h"
#include "Vel/describe/Checked.h"
#include "test/Vel/text/GuardedText.h"

#include <gtest/gtest.h>

#include <array>
#include <charconv>
#include <string>
#include <string_view>

// The texts that every type's functions take and return: a Vel::String, a std::string, a char pointer, a view, the
// caller's memory.
namespace {

using Vel::String;

template <class T> T sample() {
    if constexpr (std::is_same_v<T, Mox::UniqueId>)
        return T(1, 2, 3);
    else if constexpr (std::is_same_v<T, Mox::TristateString>)
        return T::valueSet("it's");
    else if constexpr (std::is_same_v<T, String>)
        return "it's\n";
    else
        return T();
}

template <class T> std::string textOf(T const& value) { return Vel::valueToStrep(value).stdString(); }

// How a text is given to the functions that parse it.
enum class Given { asView, asStdString, asChars, asString, asBraces, asViewWithPointer, asEmptyArray };

// The functions of one type: all that is compiled once for each type.
struct TextForms {
    std::string (*sampleText)();
    bool hasString;
    // The text of what strepToValue() and checkedStrepToValue() return.
    std::string (*parsed)(std::string_view text, Given how);
    Vel::Checked<std::string> (*checked)(std::string_view text, Given how);
    // What is printed for the sample.
    std::string (*toStdString)();
    std::to_chars_result (*toChars)(char* first, char* last);
    void (*parseAndPrint)(std::string_view text, char* first, char* last);
};

// REQUIRES: a text that is given as characters ends with a NUL, or is a null pointer.
template <class T> std::string parsed(std::string_view text, Given how) {
    T const* const none = nullptr;
    switch (how) {
    case Given::asView:
        return textOf(Vel::strepToValue<T>(text));
    case Given::asStdString:
        return textOf(Vel::strepToValue<T>(std::string(text)));
    case Given::asChars:
        return textOf(Vel::strepToValue<T>(text.data()));
    case Given::asString:
        return textOf(Vel::strepToValue<T>(String(std::string(text))));
    case Given::asBraces:
        return textOf(Vel::strepToValue<T>({text.data(), text.size()}));
    case Given::asViewWithPointer:
        return textOf(Vel::strepToValue(text, const_cast<T*>(none)));
    case Given::asEmptyArray:
        break;
    }
    return {};
}

// REQUIRES: the same.
template <class T> Vel::Checked<std::string> checked(std::string_view text, Given how) {
    auto const value = how == Given::asChars        ? Vel::checkedStrepToValue<T>(text.data())
                       : how == Given::asString     ? Vel::checkedStrepToValue<T>(String(std::string(text)))
                       : how == Given::asEmptyArray ? Vel::checkedStrepToValue<T>("")
                                                    : Vel::checkedStrepToValue<T>(text);
    if (!value) return value.error();
    return textOf(*value);
}

template <class T>
constexpr TextForms textForms{.sampleText = [] { return textOf(sample<T>()); },
    .hasString = std::is_same_v<T, String> || std::is_same_v<T, Mox::TristateString>,
    .parsed = &parsed<T>,
    .checked = &checked<T>,
    .toStdString = [] { return Vel::valueToStdString(sample<T>()); },
    .toChars = [](char* first, char* last) { return Vel::valueToChars(first, last, sample<T>()); },
    .parseAndPrint =
        [](std::string_view text, char* first, char* last) {
            auto const value = Vel::strepToValue<T>(text);
            Vel::valueToChars(first, last, value);
        }};

template <class... T> constexpr std::array<TextForms, sizeof...(T)> formsOf{textForms<T>...};

constexpr auto& allForms = formsOf<bool, Vel::U1, Vel::U8, Vel::U16, Vel::U32, Vel::U64, Vel::F64, Vel::Seconds, String,
    Mox::ConditionOrCountStat, Mox::Event, Mox::Count, Mox::EventOrCount, Mox::ConditionOrChanged, Mox::ConditionStat,
    Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat, Mox::ConditionOrChangedStat, Mox::CountOrChangedStat,
    Mox::GenTime, Mox::Generation, Mox::UniqueId, Mox::MaybeU63, Mox::Seqno16, Mox::Seqno32, Cell::CellId, Mox::ChipId,
    Mox::ChipSet, Mox::Id, Mox::BucketId, Mox::TristateBoolean, Mox::TristateU8, Mox::TristateU16, Mox::TristateU32,
    Mox::TristateU64, Mox::TristateF64, Mox::TristateString>;

class TextFormsTest : public testing::TestWithParam<std::size_t> {
protected:
    TextForms const& forms = allForms[GetParam()];
    std::string const text = forms.sampleText();
};
INSTANTIATE_TEST_SUITE_P(Types, TextFormsTest, testing::Range(std::size_t(0), allForms.size()));

TEST_P(TextFormsTest, EveryKindOfTextIsParsed) {
    for (Given const how :
        {Given::asView, Given::asStdString, Given::asChars, Given::asString, Given::asBraces, Given::asViewWithPointer})
        EXPECT_EQ(forms.parsed(text, how), text) << static_cast<int>(how);
    for (Given const how : {Given::asView, Given::asChars, Given::asString})
        EXPECT_EQ(*forms.checked(text, how), text) << static_cast<int>(how);
}

TEST_P(TextFormsTest, ANullPointerIsTheEmptyText) {
    auto const expected = forms.checked({}, Given::asString);
    ASSERT_FALSE(expected);
    EXPECT_EQ(forms.checked({}, Given::asChars).error().text, expected.error().text);
    EXPECT_EQ(forms.checked({}, Given::asView).error().text, expected.error().text);
    EXPECT_EQ(forms.checked("", Given::asChars).error().text, expected.error().text);
    EXPECT_EQ(forms.checked({}, Given::asEmptyArray).error().text, expected.error().text);
}

TEST_P(TextFormsTest, WhatFollowsAViewIsNotRead) {
    std::string const longer = text + "7})";
    EXPECT_EQ(forms.parsed(std::string_view(longer).substr(0, text.size()), Given::asView), text);
    GuardedText const guarded(text);
    EXPECT_EQ(forms.parsed(guarded.view(), Given::asView), text);
    for (std::string_view const more : {std::string_view("\0", 1), std::string_view(" "), std::string_view("x")}) {
        std::string const wrong = text + std::string(more);
        auto const byView = forms.checked(wrong, Given::asView);
        ASSERT_FALSE(byView);
        EXPECT_EQ(byView.error().text, forms.checked(wrong, Given::asString).error().text);
        EXPECT_EQ(byView.error().offset, text.size());
    }
}

TEST_P(TextFormsTest, TheTextIsPrintedToAStdString) { EXPECT_EQ(forms.toStdString(), text); }

TEST_P(TextFormsTest, TheTextIsPrintedToTheCallersMemory) {
    auto const size = text.size();
    GuardedText const exact(std::string(size, '#'));
    auto const [end, error] = forms.toChars(exact.begin(), exact.end());
    EXPECT_EQ(error, std::errc());
    EXPECT_EQ(end, exact.end());
    EXPECT_EQ(exact.view(), text);

    GuardedText const small(std::string(size - 1, '#'));
    auto const tooLarge = forms.toChars(small.begin(), small.end());
    EXPECT_EQ(tooLarge.ec, std::errc::value_too_large);
    EXPECT_EQ(tooLarge.ptr, small.end());
    EXPECT_EQ(forms.toChars(nullptr, nullptr).ec, std::errc::value_too_large);
}

TEST_P(TextFormsTest, TextsAreNotCopied) {
    if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator is not counted";
    char printed[512];
    EXPECT_EQ(allocationsOf([&] { forms.parseAndPrint(text, printed, printed + sizeof printed); }),
        forms.hasString ? 1u : 0u);
}

// A text that is longer than the memory inside a StrepOut, and a string whose room is larger than its text.
TEST(LongTextFormsTest, ArePrintedToTheCallersMemory) {
    String const value(std::string(5000, 'a'));
    for (std::size_t const size : {5002u, 5003u, 20001u, 20002u, 30000u}) {
        GuardedText const room(std::string(size, '#'));
        auto const [end, error] = Vel::valueToChars(room.begin(), room.end(), value);
        EXPECT_EQ(error, std::errc());
        EXPECT_EQ(room.first(5002), "'" + std::string(5000, 'a') + "'");
        EXPECT_EQ(end, room.begin() + 5002);
    }
    GuardedText const small(std::string(5001, '#'));
    EXPECT_EQ(Vel::valueToChars(small.begin(), small.end(), value).ec, std::errc::value_too_large);
    EXPECT_EQ(Vel::valueToStdString(value), "'" + std::string(5000, 'a') + "'");
}

}  // namespace
