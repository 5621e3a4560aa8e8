#include "tools/lib/IdSetExpression.h"

#include "tools/lib/IdSetPicture.h"

#include "LibTest.h"

#include <tuple>

namespace {

using namespace Tool;
using ToolTest::failureOf;

std::string result(std::string const& expression, Vel::U16 size = 16320) {
    return idSetFrom(expression, size).stringValue().stdString();
}

TEST(IdSetExpressionTest, KnowsEachOperatorAsAWordAndAsASign) {
    for (auto const& [word, sign, expected] : {std::tuple<std::string, std::string, char const*>("or", "|", "(1-6)"),
             {"and", "&", "(3-4)"}, {"minus", "-", "(1-2)"}, {"xor", "^", "(1-2,5-6)"}}) {
        EXPECT_EQ(result("(1-4) " + word + " (3-6)"), expected);
        EXPECT_EQ(result("(1-4) " + sign + " (3-6)"), expected);
        EXPECT_EQ(result("(1-4)" + sign + "(3-6)"), expected);
        EXPECT_EQ(result("(1-4)" + word + "(3-6)"), expected);
    }
}

TEST(IdSetExpressionTest, GoesFromLeftToRight) {
    EXPECT_EQ(result("(1) or (2) and (2-3)"), "(2)");
    EXPECT_EQ(result("(1-9) - (1-5) - (8)"), "(6-7,9)");
}

TEST(IdSetExpressionTest, NotTakesTheOperandBehindIt) {
    EXPECT_EQ(result("not (3) and (1-5)"), "(1-2,4-5)");
    EXPECT_EQ(result("(1-5) & ~(3)"), "(1-2,4-5)");
    EXPECT_EQ(result("~~(3)"), "(3)");
}

TEST(IdSetExpressionTest, TheComplementEndsAtTheSize) {
    EXPECT_EQ(result("not (1-16318)"), "(0,16319)");
    EXPECT_EQ(result("not ()", 70), "(0-69)");
    EXPECT_EQ(idSetFrom("not ()", 70).ids(), 70u);
    EXPECT_EQ(result("not (0-63)", 64), "()");
    EXPECT_EQ(result("not ()", 0), "()");
}

TEST(IdSetExpressionTest, PointsAtTheMistake) {
    auto const error = [](std::string const& what, std::size_t offset, std::string const& text) {
        return "2: " + what + ", at offset " + std::to_string(offset) + "\n    " + text + "\n    " +
               std::string(offset, ' ') + "^";
    };
    for (auto const& [text, offset, what] :
        {std::tuple("(1) plus (2)", 4u, "an operator expected: or |, and &, minus -, xor ^"),
            {"(1) (2)", 4u, "an operator expected: or |, and &, minus -, xor ^"},
            {"(1) not (2)", 4u, "an operator expected: or |, and &, minus -, xor ^"},
            {"(1) minus", 9u, "a range list such as (1-3,5), @FILE or - expected"},
            {"not", 3u, "a range list such as (1-3,5), @FILE or - expected"},
            {"| (1)", 0u, "a range list such as (1-3,5), @FILE or - expected"},
            {"(1) | @", 7u, "the name of a file expected behind the @"},
            {"1-3", 0u, "ids stand in parentheses: (1-3,5)"}, {"(1-3, 5)", 5u, "no blanks inside a range list"},
            {"((1) or (2)) and (3)", 1u, "parentheses hold ids, not expressions: operators go from left to right"},
            {"(1) or (5-3)", 8u, "a range runs from a smaller id to a larger one"},
            {"(1) or (16320)", 8u, "id 16320 is not below the size 16320"}, {"(1-3", 4u, "\",\" or \")\" expected"}}) {
        std::string const expression = text;
        EXPECT_EQ(failureOf([&] { result(expression); }), error(what, offset, expression));
    }
}

TEST(IdSetExpressionTest, SurvivesHostileExpressions) {
    EXPECT_EQ(failureOf([] { result(std::string(100000, '(')); }).substr(0, 30), "2: parentheses hold ids, not e");
    EXPECT_EQ(result(std::string(100000, '~') + "(3)"), "(3)");
    std::string many = "(0)";
    for (int i = 0; i < 20000; ++i) many += "^(0)";
    EXPECT_EQ(result(many), "(0)");
}

// --- pictures ---

std::string picture(std::string const& expression, Vel::U16 size, unsigned perRow = 64) {
    return pictureOf(idSetFrom(expression, size), perRow);
}

TEST(IdSetPictureTest, RowsThatAreAllEmptyOrAllFullAreOne) {
    EXPECT_EQ(picture("(1-3,7,64-200,16319)", 16320),
        "    0  ·███···█ ········ ········ ········ ········ ········ ········ ········\n"
        "   64  to 191: all\n"
        "  192  ████████ █······· ········ ········ ········ ········ ········ ········\n"
        "  256  to 16255: none\n"
        "16256  ········ ········ ········ ········ ········ ········ ········ ·······█\n");
    EXPECT_EQ(picture("(0-7,16)", 24, 8), "    0  to 7: all\n    8  to 15: none\n   16  █·······\n");
}

TEST(IdSetPictureTest, EndsAtTheSize) {
    EXPECT_EQ(picture("(1,11)", 12), "    0  ·█······ ···█\n");
    EXPECT_EQ(picture("()", 12), "    0  to 11: none\n");
    EXPECT_EQ(picture("()", 0), "no ids are below the size 0\n");
}

}  // namespace
