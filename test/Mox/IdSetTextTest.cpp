#include "Mox/IdSet.h"

#include "SetTest.h"

#include "Vel/base/Exception.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace {

using Mox::Id;
using Mox::IdSet;
using Vel::U16;

// What the text adds to a prototype.
IdSet parsed(std::string const& text, IdSet const& prototype) {
    Vel::String const string = text;
    auto it = string.begin();
    return Mox::sequenceToValue(it, string.end(), &prototype);
}
IdSet parsed(std::string const& text, U16 size) { return parsed(text, IdSet(size)); }

// --- printing ---

TEST(IdSetTextTest, MembersArePrintedInRuns) {
    EXPECT_EQ(IdSet(10).stringValue(), "()");
    EXPECT_EQ(IdSet(10, 5).stringValue(), "(5)");
    EXPECT_EQ(IdSet(10, {1, 2}).stringValue(), "(1-2)");
    EXPECT_EQ(IdSet(10, {1, 2, 3, 5, 7, 8, 9}).stringValue(), "(1-3,5,7-9)");
    EXPECT_EQ(IdSet(10, {0, 2, 4}).stringValue(), "(0,2,4)");
}

TEST(IdSetTextTest, RunsCrossBuckets) {
    IdSet set(1000);
    set.idSetRange(60, 130);
    set.idSetRange(192, 256);
    set.idIs(256, true);
    set.idIs(999, true);
    EXPECT_EQ(set.stringValue(), "(60-129,192-256,999)");
    EXPECT_EQ(IdSet(200, {63, 64}).stringValue(), "(63-64)");
    EXPECT_EQ(IdSet(200, {63, 128}).stringValue(), "(63,128)");
    IdSet all(16320);
    all.idSetAll();
    EXPECT_EQ(all.stringValue(), "(0-16319)");
}

TEST(IdSetTextTest, EveryOtherIdIsPrinted) {
    IdSet set(16320);
    std::string expected;
    for (unsigned id = 0; id < 16320; id += 2) {
        set.idIs(static_cast<U16>(id), true);
        expected += (expected.empty() ? "(" : ",") + std::to_string(id);
    }
    EXPECT_EQ(set.stringValue().stdString(), expected + ")");
}

TEST(IdSetTextTest, BitsFromTheSizeUpAreNotPrinted) {
    EXPECT_EQ((~IdSet(10)).stringValue(), "(0-9)");
    EXPECT_EQ((~IdSet(10, 9)).stringValue(), "(0-8)");
    IdSet set(70, 3);
    set.bucketIs(1, allOnes << 6);
    set.bucketIs(2, 1);
    EXPECT_EQ(set.stringValue(), "(3)");
    IdSet empty;
    empty.bucketIs(0, allOnes);
    EXPECT_EQ(empty.stringValue(), "()");
}

TEST(IdSetTextTest, EveryWayOfPrintingGivesTheSame) {
    IdSet set(10, {1, 2, 5});
    EXPECT_EQ(Mox::valueToStrep(set), "(1-2,5)");
    EXPECT_EQ(Vel::typeOf<IdSet>().glue().genericIfStrRep(&set, Vel::typeOf<IdSet>()), "(1-2,5)");
    std::ostringstream out;
    out << set;
    EXPECT_EQ(out.str(), "(1-2,5)");
    Vel::String text;
    EXPECT_EQ(call(set, 14, &text), 0);
    EXPECT_EQ(text, "(1-2,5)");
}

// --- parsing ---

TEST(IdSetTextTest, ItemsAreIdsAndRanges) {
    EXPECT_EQ(parsed("()", 10), IdSet(10));
    EXPECT_EQ(parsed("(3)", 10), IdSet(10, 3));
    EXPECT_EQ(parsed("(1-3,5,7-9)", 10), IdSet(10, {1, 2, 3, 5, 7, 8, 9}));
    EXPECT_EQ(parsed("(7,1,1-2)", 10), IdSet(10, {1, 2, 7}));
    EXPECT_EQ(parsed("(0-199)", 200).ids(), 200);
    EXPECT_EQ(parsed("(4160-4543)", 16320).ids(), 384);  // of words beyond the first 64
}

TEST(IdSetTextTest, TextAddsToThePrototype) {
    EXPECT_EQ(parsed("()", IdSet(10, 4)), IdSet(10, 4));
    EXPECT_EQ(parsed("(1-2)", IdSet(10, 4)), IdSet(10, {1, 2, 4}));
    IdSet prototype(10, 4);
    prototype.bucketIs(7, 0);
    EXPECT_EQ(wordsOf(parsed("(1)", prototype)), (Words{{0, 18}, {7, 0}}));
    EXPECT_EQ(wordsOf(prototype), (Words{{0, 16}, {7, 0}}));
}

TEST(IdSetTextTest, ParsingStopsBehindTheParenthesis) {
    Vel::String const text = "x(1)(2)";
    IdSet const prototype(10);
    auto it = text.begin();
    ++it;
    EXPECT_EQ(Mox::sequenceToValue(it, text.end(), &prototype), IdSet(10, 1));
    EXPECT_EQ(it - text.begin(), 4);
    EXPECT_EQ(Mox::sequenceToValue(it, text.end(), &prototype), IdSet(10, 2));
    EXPECT_TRUE(it == text.end());
}

TEST(IdSetTextTest, NumbersAreReadAsTheStandardLibraryReadsThem) {
    EXPECT_EQ(parsed("( 1, 3x)", 10), IdSet(10, {1, 3}));
    EXPECT_EQ(parsed("(\t\n+4,007)", 10), IdSet(10, {4, 7}));
    EXPECT_EQ(parsed("(1 - 3 )", 10), IdSet(10, {1, 2, 3}));
    EXPECT_EQ(parsed("(+1-+2)", 10), IdSet(10, {1, 2}));
    EXPECT_EQ(parsed("(0x9)", 10), IdSet(10, 0));  // base 10
    EXPECT_EQ(parsed("(1(2)", 10), IdSet(10, 1));
}

TEST(IdSetTextTest, SeparatorAtTheEndGivesNoItem) {
    EXPECT_EQ(parsed("(1,)", 10), IdSet(10, 1));
    EXPECT_EQ(parsed("(1-2,)", 10), IdSet(10, {1, 2}));
}

TEST(IdSetTextTest, NumbersAreTruncated) {
    EXPECT_EQ(parsed("(65541)", 10), IdSet(10, 5));
    EXPECT_EQ(parsed("(4294967299)", 10), IdSet(10, 3));
    EXPECT_EQ(parsed("(65537-65539)", 10), IdSet(10, {1, 2, 3}));
    EXPECT_EQ(parsed("(4294967297-4294967299)", 10), IdSet(10, {1, 2, 3}));  // compared by their 32 low bits
    EXPECT_EQ(parsed("(18446744073709486083)", 10), IdSet(10, 3));
}

template <class E> std::string thrownBy(std::string const& text) {
    try {
        parsed(text, 10);
    } catch (E const& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(IdSetTextTest, ItemsWithoutDigitsThrow) {
    for (auto const& text : {"(1,,2)", "(,)", "(,1)", "(x)", "( )", "(+)", "(-1)", "(1-x)", "(x-1)", "(1- )", "((1)",
             "(50-x)", "(1--)", "(--)"})
        EXPECT_EQ(thrownBy<std::invalid_argument>(text), "stoul") << text;
}

TEST(IdSetTextTest, NumbersTooLargeThrow) {
    for (auto const& text : {"(18446744073709551616)", "(1-18446744073709551616)", "(99999999999999999999-1)"})
        EXPECT_EQ(thrownBy<std::out_of_range>(text), "stoul") << text;
}

TEST(IdSetTextTest, WithoutAPrototypeThereIsNoSize) {
    Vel::String const text = "(1)";
    auto it = text.begin();
    EXPECT_THROW(Mox::sequenceToValue(it, text.end(), nullptr), Vel::ParseException);
    IdSet set(10, 4);
    auto const type = Vel::typeOf<IdSet>();
    EXPECT_THROW(type.glue().genericIfStrepToValue(&set, text, type), Vel::ParseException);
    EXPECT_EQ(set, IdSet(10, 4));
    EXPECT_EQ(parseError<IdSet>("(1)"), "the text of a Mox::IdSet does not tell its size: give a set to add to");
}

TEST(IdSetTextTest, WholeTextIsParsedWithAPrototype) {
    IdSet prototype(10, 4);
    EXPECT_EQ(Vel::strepToValue<IdSet>("(1-2)", &prototype), IdSet(10, {1, 2, 4}));
    EXPECT_THROW(Vel::strepToValue<IdSet>("(1)(2)", &prototype), Vel::ParseException);
}

constexpr char parser[] = "Mox::IdSet Mox::sequenceToValue(Vel::String::IteratorConst&, const "
                          "Vel::String::IteratorConst&, const Mox::IdSet*)";

TEST(IdSetTextDeathTest, TextsWithoutParenthesesAbort) {
    auto const expected = plain("*p == '(' && strepEnd != end", parser);
    for (auto const& text : {"", "1", "(1", "(", ")", " (1)", "1)"}) EXPECT_ABORT(parsed(text, 10), expected) << text;
}

TEST(IdSetTextDeathTest, RangesWithoutTwoEndsAbort) {
    auto const expected = plain("range.size() == 2", parser);
    for (auto const& text : {"(1-2-3)", "(1-)", "(-)", "(1--2)", "(1---)"})
        EXPECT_ABORT(parsed(text, 10), expected) << text;
}

TEST(IdSetTextDeathTest, RangesThatDoNotAscendAbort) {
    auto const expected = explained("start < stop", "Invalid range", parser);
    for (auto const& text : {"(5-5)", "(3-3)", "(7-3)", "(4294967295-4294967296)", "(1-4294967297)"})
        EXPECT_ABORT(parsed(text, 10), expected) << text;
}

TEST(IdSetTextDeathTest, IdsBeyondTheSizeAbort) {
    auto const limit = [](std::string const& id) {
        return explained("bitPos.value() < size()", "id " + id + " exceeds limit of 10",
            "bool Mox::IdSet::updateId(Mox::Id, bool) &");
    };
    EXPECT_ABORT(parsed("(10)", 10), limit("10"));
    EXPECT_ABORT(parsed("(70000)", 10), limit("4464"));
    EXPECT_ABORT(parsed("(18446744073709551615)", 10), limit("65535"));
}

TEST(IdSetTextDeathTest, RangesBeyondTheSizeAbort) {
    char const function[] = "void Mox::IdSet::idSetRange(Mox::Id, Mox::Id) &";
    EXPECT_ABORT(
        parsed("(5-10)", 10), explained("end.value() <= size()", "end can't be greater than bitmap limit", function));
    auto const empty = explained("begin.value() < end.value()", "range should be of at least length 1", function);
    EXPECT_ABORT(parsed("(0-65535)", 65535), empty);  // one more than 65535 is 0
    EXPECT_ABORT(parsed("(9-65540)", 10), empty);
}

// --- checked ---

TEST(IdSetTextTest, CheckedParsingGivesTheSet) {
    for (auto const& [text, expected] : {std::pair("()", IdSet(10)), std::pair("(3)", IdSet(10, 3)),
             std::pair("(0-9)", IdSet(10, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9})),
             std::pair("(8,1-3,2)", IdSet(10, {1, 2, 3, 8}))}) {
        auto const checked = IdSet::checked(10, text);
        ASSERT_TRUE(checked) << checked.error().text.stdString();
        EXPECT_EQ(*checked, expected);
    }
    EXPECT_EQ(*IdSet::checked(65535, "(65533-65534)"), parsed("(65533-65534)", 65535));
    EXPECT_EQ(*IdSet::checked(0, "()"), IdSet());
}

TEST(IdSetTextTest, CheckedParsingTellsWhatIsWrongAndWhere) {
    struct Row {
        char const* text;
        char const* error;
        std::size_t offset;
    };
    for (auto const& row : {Row{"", "\"(\" expected, at offset 0", 0}, Row{"1", "\"(\" expected, at offset 0", 0},
             Row{" (1)", "\"(\" expected, at offset 0", 0}, Row{"(", "an id from 0 to 65534 expected, at offset 1", 1},
             Row{"(1", "\",\" or \")\" expected, at offset 2", 2},
             Row{"(1)(2)", "nothing may follow the \")\", at offset 3", 3},
             Row{"() ", "nothing may follow the \")\", at offset 2", 2},
             Row{"(1,,2)", "an id from 0 to 65534 expected, at offset 3", 3},
             Row{"(1,)", "an id from 0 to 65534 expected, at offset 3", 3},
             Row{"( 1)", "an id from 0 to 65534 expected, at offset 1", 1},
             Row{"(+1)", "an id from 0 to 65534 expected, at offset 1", 1},
             Row{"(-1)", "an id from 0 to 65534 expected, at offset 1", 1},
             Row{"(1-)", "an id from 0 to 65534 expected, at offset 3", 3},
             Row{"(01)", "\",\" or \")\" expected, at offset 2", 2},
             Row{"(99999999999999999999)", "an id from 0 to 65534 expected, at offset 1", 1},
             Row{"(70000)", "an id from 0 to 65534 expected, at offset 1", 1},
             Row{"(3x)", "\",\" or \")\" expected, at offset 2", 2},
             Row{"(1-2-3)", "\",\" or \")\" expected, at offset 4", 4},
             Row{"(2,5-5)", "a range runs from a smaller id to a larger one, at offset 3", 3},
             Row{"(7-3)", "a range runs from a smaller id to a larger one, at offset 1", 1},
             Row{"(10)", "id 10 is not below the size 10, at offset 1", 1},
             Row{"(2,5-10)", "id 10 is not below the size 10, at offset 5", 5},
             Row{"(0-65535)", "id 65535 is not below the size 10, at offset 3", 3}}) {
        auto const checked = IdSet::checked(10, row.text);
        ASSERT_FALSE(checked) << row.text;
        EXPECT_EQ(checked.error().text, row.error) << row.text;
        EXPECT_EQ(checked.error().offset, row.offset) << row.text;
    }
}

TEST(IdSetTextTest, CheckedParsingOfLargeSizesSharesBuckets) {
    for (auto const& text : {"(5,16389)", "(63-16384)", "(16300-16500)", "(0-65534)", "(65534)", "(3,40000-60000,7)"}) {
        auto const checked = IdSet::checked(65535, text);
        ASSERT_TRUE(checked) << text;
        EXPECT_EQ(*checked, parsed(text, 65535)) << text;
    }
}

TEST(IdSetTextTest, RangeFromTheLastBucketOnHasAllItsIds) {
    Words const words = {{0, allOnes}, {1, allOnes}, {2, allOnes}, {3, (Vel::U64(1) << 24) - 1}, {255, allOnes << 10}};
    EXPECT_EQ(wordsOf(parsed("(16330-16599)", 20000)), words);
    auto const checked = IdSet::checked(20000, "(16330-16599)");
    ASSERT_TRUE(checked);
    EXPECT_EQ(wordsOf(*checked), words);
}

TEST(IdSetTextTest, EverySingleIdOfLargeSizesIsChecked) {
    EXPECT_FALSE(IdSet::checked(65535, "(65535)"));
    EXPECT_FALSE(IdSet::checked(65535, "(0-65535)"));
    EXPECT_FALSE(IdSet::checked(0, "(0)"));
    EXPECT_TRUE(IdSet::checked(1, "(0)"));
}

TEST(IdSetTextTest, CheckedTextMayHoldAnyByte) {
    using namespace std::string_literals;
    for (auto const& text : {"(1\0)"s, "\0"s, "(\xff)"s, "(1,\x80)"s, "(1)\0"s}) {
        auto const checked = IdSet::checked(10, text);
        ASSERT_FALSE(checked);
        EXPECT_LE(checked.error().offset, text.size());
    }
    std::string const unterminated = "(12";  // of which only the first two characters are the text
    EXPECT_EQ(IdSet::checked(100, std::string_view(unterminated).substr(0, 2)).error().offset, 2u);
}

}  // namespace
