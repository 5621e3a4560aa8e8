#include "Allocations.h"

#include "Mox/Mox.h"
#include "Vel/describe/Checked.h"
#include "test/Vel/text/GuardedText.h"

#include <gtest/gtest.h>

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

template <class T> class TextFormsTest : public testing::Test {
protected:
    T const value = sample<T>();
    std::string const text = textOf(value);
};

using Types = testing::Types<bool, Vel::U1, Vel::U8, Vel::U16, Vel::U32, Vel::U64, Vel::F64, Vel::Seconds, String,
    Mox::ConditionOrCountStat, Mox::Event, Mox::Count, Mox::EventOrCount, Mox::ConditionOrChanged, Mox::ConditionStat,
    Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat, Mox::ConditionOrChangedStat, Mox::CountOrChangedStat,
    Mox::GenTime, Mox::Generation, Mox::UniqueId, Mox::MaybeU63, Mox::Seqno16, Mox::Seqno32, Cell::CellId, Mox::ChipId,
    Mox::ChipSet, Mox::Id, Mox::BucketId, Mox::TristateBoolean, Mox::TristateU8, Mox::TristateU16, Mox::TristateU32,
    Mox::TristateU64, Mox::TristateF64, Mox::TristateString>;
TYPED_TEST_SUITE(TextFormsTest, Types);

TYPED_TEST(TextFormsTest, EveryKindOfTextIsParsed) {
    using T = TypeParam;
    auto const& text = this->text;
    T const* const none = nullptr;
    EXPECT_EQ(textOf(Vel::strepToValue<T>(std::string_view(text))), text);
    EXPECT_EQ(textOf(Vel::strepToValue<T>(text)), text);
    EXPECT_EQ(textOf(Vel::strepToValue<T>(text.c_str())), text);
    EXPECT_EQ(textOf(Vel::strepToValue<T>(String(text))), text);
    EXPECT_EQ(textOf(Vel::strepToValue<T>({text.data(), text.size()})), text);
    EXPECT_EQ(textOf(Vel::strepToValue(std::string_view(text), const_cast<T*>(none))), text);
    EXPECT_EQ(textOf(*Vel::checkedStrepToValue<T>(std::string_view(text))), text);
    EXPECT_EQ(textOf(*Vel::checkedStrepToValue<T>(text.c_str())), text);
    EXPECT_EQ(textOf(*Vel::checkedStrepToValue<T>(String(text))), text);
}

TYPED_TEST(TextFormsTest, ANullPointerIsTheEmptyText) {
    using T = TypeParam;
    char const* const null = nullptr;
    auto const expected = Vel::checkedStrepToValue<T>(String());
    ASSERT_FALSE(expected);
    EXPECT_EQ(Vel::checkedStrepToValue<T>(null).error().text, expected.error().text);
    EXPECT_EQ(Vel::checkedStrepToValue<T>(std::string_view()).error().text, expected.error().text);
    EXPECT_EQ(Vel::checkedStrepToValue<T>("").error().text, expected.error().text);
}

TYPED_TEST(TextFormsTest, WhatFollowsAViewIsNotRead) {
    using T = TypeParam;
    std::string const longer = this->text + "7})";
    EXPECT_EQ(textOf(Vel::strepToValue<T>(std::string_view(longer).substr(0, this->text.size()))), this->text);
    GuardedText const guarded(this->text);
    EXPECT_EQ(textOf(Vel::strepToValue<T>(guarded.view())), this->text);
    for (std::string_view const more : {std::string_view("\0", 1), std::string_view(" "), std::string_view("x")}) {
        std::string const wrong = this->text + std::string(more);
        auto const byView = Vel::checkedStrepToValue<T>(std::string_view(wrong));
        ASSERT_FALSE(byView);
        EXPECT_EQ(byView.error().text, Vel::checkedStrepToValue<T>(String(wrong)).error().text);
        EXPECT_EQ(byView.error().offset, this->text.size());
    }
}

TYPED_TEST(TextFormsTest, TheTextIsPrintedToAStdString) { EXPECT_EQ(Vel::valueToStdString(this->value), this->text); }

TYPED_TEST(TextFormsTest, TheTextIsPrintedToTheCallersMemory) {
    auto const size = this->text.size();
    GuardedText const exact(std::string(size, '#'));
    auto const [end, error] = Vel::valueToChars(exact.begin(), exact.end(), this->value);
    EXPECT_EQ(error, std::errc());
    EXPECT_EQ(end, exact.end());
    EXPECT_EQ(exact.view(), this->text);

    GuardedText const small(std::string(size - 1, '#'));
    auto const tooLarge = Vel::valueToChars(small.begin(), small.end(), this->value);
    EXPECT_EQ(tooLarge.ec, std::errc::value_too_large);
    EXPECT_EQ(tooLarge.ptr, small.end());
    char* const null = nullptr;
    EXPECT_EQ(Vel::valueToChars(null, null, this->value).ec, std::errc::value_too_large);
}

TYPED_TEST(TextFormsTest, TextsAreNotCopied) {
    using T = TypeParam;
    if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator is not counted";
    bool const hasString = std::is_same_v<T, String> || std::is_same_v<T, Mox::TristateString>;
    char text[512];
    EXPECT_EQ(allocationsOf([&] {
        auto const value = Vel::strepToValue<T>(std::string_view(this->text));
        Vel::valueToChars(text, text + sizeof text, value);
    }),
        hasString ? 1u : 0u);
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
