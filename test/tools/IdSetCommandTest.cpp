#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace ToolTest;
using testing::HasSubstr;

Outcome idSet(std::vector<std::string> arguments, std::string_view input = {}) {
    arguments.insert(arguments.begin(), "idset");
    return mox(arguments, {}, input);
}

// What it prints, without the newline.
std::string result(std::vector<std::string> const& arguments, std::string_view input = {}) {
    Outcome outcome = idSet(arguments, input);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, testing::EndsWith("\n"));
    outcome.out.pop_back();
    return outcome.out;
}

std::string usageError(std::vector<std::string> const& arguments, std::string_view input = {}) {
    Outcome const outcome = idSet(arguments, input);
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
}

// --- expressions ---

TEST(MoxIdSetTest, PrintsASetAsItsRangeList) {
    EXPECT_EQ(result({"(5,1-3,2,4,16319)"}), "(1-5,16319)");
    EXPECT_EQ(result({"()"}), "()");
    EXPECT_EQ(result({"not", "not", "(3)"}), "(3)");
    EXPECT_EQ(result({"not ()", "--size", "70", "--count"}), "70");
}

// --- files ---

TEST(MoxIdSetTest, ReadsIdsRangesAndRangeListsFromAFile) {
    Folder const folder;
    std::string const file = folder.write("ids", "1\n 3-5 \n# a comment\n\n(7,9)\r\n20,22-23");
    EXPECT_EQ(result({"@" + file}), "(1,3-5,7,9,20,22-23)");
    EXPECT_EQ(result({"@" + file + " minus @" + file}), "()");
}

TEST(MoxIdSetTest, ReadsStandardInputOnce) {
    EXPECT_EQ(result({"-"}, "5\n8\n"), "(5,8)");
    EXPECT_EQ(result({"(1-9) - -"}, "(5,8)\n"), "(1-4,6-7,9)");
    EXPECT_EQ(usageError({"- or -"}), "mox: standard input can be read only once, at offset 5\n"
                                      "    - or -\n"
                                      "         ^\n");
}

TEST(MoxIdSetTest, PointsAtTheMistakeInAFile) {
    Folder const folder;
    std::string const file = folder.write("ids", "1\n  3-x\n");
    EXPECT_EQ(usageError({"@" + file}), "mox: " + file +
                                            ":2:5: an id from 0 to 65534 expected\n"
                                            "      3-x\n"
                                            "        ^\n");
    EXPECT_EQ(usageError({"-"}, "16320\n"), "mox: standard input:1:1: id 16320 is not below the size 16320\n"
                                            "    16320\n"
                                            "    ^\n");
}

TEST(MoxIdSetTest, TellsWhichFileCannotBeRead) {
    EXPECT_EQ(usageError({"@/no/file"}), "mox: cannot open /no/file: No such file or directory\n");
    EXPECT_EQ(usageError({"@/"}), "mox: cannot read /: Is a directory\n");
}

TEST(MoxIdSetTest, StopsAtALineWithoutEnd) {
    EXPECT_EQ(usageError({"@/dev/zero"}), "mox: /dev/zero:1:1: this line is longer than 1 MiB\n");
}

// --- other answers ---

TEST(MoxIdSetTest, CountsTheIds) {
    EXPECT_EQ(result({"(1-3,7)", "--count"}), "4");
    EXPECT_EQ(result({"not ()", "--count"}), "16320");
}

TEST(MoxIdSetTest, ListsTheIdsSoThatTheyCanBeReadBack) {
    EXPECT_EQ(result({"(1-3,7)", "--list"}), "1\n2\n3\n7");
    EXPECT_EQ(idSet({"()", "--list"}).out, "");
    EXPECT_EQ(result({"-"}, idSet({"(1-3,7)", "--list"}).out), "(1-3,7)");
}

TEST(MoxIdSetTest, TheExitCodeTellsWhetherAnIdIsContained) {
    Outcome const yes = idSet({"(1-3,7)", "--contains", "3"});
    EXPECT_EQ(yes.code, 0);
    EXPECT_EQ(yes.out, "True\n");
    Outcome const no = idSet({"(1-3,7)", "--contains", "4"});
    EXPECT_EQ(no.code, 1);
    EXPECT_EQ(no.out, "False\n");
    EXPECT_EQ(no.err, "");
}

TEST(MoxIdSetTest, JsonTellsEverything) {
    EXPECT_EQ(result({"(1-3,7)", "--json", "--size", "10"}),
        "{\n  \"rangeList\": \"(1-3,7)\",\n  \"count\": 4,\n  \"first\": 1,\n  \"last\": 7,\n  \"size\": 10\n}");
    EXPECT_EQ(nlohmann::json::parse(result({"()", "--json"})),
        (nlohmann::json{{"rangeList", "()"}, {"count", 0}, {"first", nullptr}, {"last", nullptr}, {"size", 16320}}));
    EXPECT_EQ(nlohmann::json::parse(result({"(1-2)", "--json", "--list"}))["ids"], (nlohmann::json{1, 2}));
    Outcome const contains = idSet({"(1-2)", "--json", "--contains", "9"});
    EXPECT_EQ(contains.code, 1);
    EXPECT_EQ(nlohmann::json::parse(contains.out)["contains"], false);
    EXPECT_EQ(nlohmann::json::parse(contains.out)["id"], 9);
}

TEST(MoxIdSetTest, DrawsAPicture) {
    EXPECT_EQ(result({"(1-3,7,64-200,16319)", "--picture"}),
        "    0  ·███···█ ········ ········ ········ ········ ········ ········ ········\n"
        "   64  to 191: all\n"
        "  192  ████████ █······· ········ ········ ········ ········ ········ ········\n"
        "  256  to 16255: none\n"
        "16256  ········ ········ ········ ········ ········ ········ ········ ·······█");
}

// --- bad usage ---

TEST(MoxIdSetTest, PointsAtTheMistakeInAnExpression) {
    EXPECT_EQ(usageError({"(1)", "plus", "(2)"}),
        "mox: an operator expected: or |, and &, minus -, xor ^, at offset 4\n"
        "    (1) plus (2)\n        ^\n");
    EXPECT_EQ(usageError({"[1]"}), "mox: a range list such as (1-3,5), @FILE or - expected, at offset 0\n"
                                   "    [1]\n    ^\n");
    EXPECT_THAT(usageError({"(1)\x1b[2J"}), testing::Not(HasSubstr("\x1b")));
}

TEST(MoxIdSetTest, WantsAnExpression) {
    EXPECT_EQ(usageError({}), "mox: give an expression, such as '(1-3,5) minus (2)'; see \"mox idset --help\"\n");
    EXPECT_EQ(usageError({""}), "mox: a range list such as (1-3,5), @FILE or - expected, at offset 0\n    (empty)\n");
}

TEST(MoxIdSetTest, ChecksItsNumbers) {
    for (char const* const size : {"16321", "-1", "1x", ""})
        EXPECT_THAT(usageError({"(1)", "--size", size}), HasSubstr(" is not a number from 0 to 16320\n")) << size;
    EXPECT_EQ(
        usageError({"(1)", "--size", "9", "--contains", "9"}), "mox: --contains: 9 is not an id below the size 9\n");
}

TEST(MoxIdSetTest, GivesOneAnswer) {
    EXPECT_EQ(
        usageError({"(1)", "--count", "--list"}), "mox: choose one of --count, --contains, --list and --picture\n");
    EXPECT_EQ(usageError({"(1)", "--json", "--picture"}), "mox: choose one of --picture and --json\n");
}

}  // namespace
