#include "LibTest.h"

#include <nlohmann/json.hpp>

namespace {

using namespace Tool;

TEST(OutputTest, TextsThatWouldHideSomethingAreShownAsStreps) {
    EXPECT_EQ(shown("a b"), "a b");
    EXPECT_EQ(shown(""), "''");
    EXPECT_EQ(shown(" a"), "' a'");
    EXPECT_EQ(shown("a "), "'a '");
    EXPECT_EQ(shown("'a'"), "'\\'a\\''");
    EXPECT_EQ(shown("a\n"), "'a\\n'");
}

TEST(OutputTest, ShorteningTellsTheWholeSizeAndSplitsNoCharacter) {
    EXPECT_EQ(shortened("abcdef", 6), "abcdef");
    EXPECT_EQ(shortened("abcdefg", 6), "abcdef... (7 bytes in all)");
    EXPECT_EQ(shortened("abcde€", 6), "abcde... (8 bytes in all)");
}

TEST(OutputTest, TextsAreJoinedBySeparators) {
    EXPECT_EQ(joined({}, ", "), "");
    EXPECT_EQ(joined({"a"}, ", "), "a");
    EXPECT_EQ(joined({"a", "b", "c"}, ", "), "a, b, c");
}

TEST(OutputTest, TheCaretStandsBelowTheCharacter) {
    EXPECT_EQ(caretBelow("abc", 1), "    abc\n     ^");
    EXPECT_EQ(caretBelow("abc", 3), "    abc\n       ^");
    EXPECT_EQ(caretBelow("abc", 99), "    abc\n       ^");
    EXPECT_EQ(caretBelow("€€x", 6), "    €€x\n      ^");
    EXPECT_EQ(caretBelow("€x", 1), "    €x\n    ^");
    EXPECT_EQ(caretBelow("\t\x1bx", 2), "     \\x1bx\n         ^");
    EXPECT_EQ(caretBelow("", 0), "    (empty)");
}

TEST(OutputTest, TheCaretShowsAPartOfALongText) {
    std::string const left(60, 'a'), right(60, 'b');
    EXPECT_EQ(caretBelow(left + right, 60),
        "    ..." + std::string(50, 'a') + std::string(25, 'b') + "...\n" + std::string(57, ' ') + "^");
}

TEST(OutputTest, TablesAlignTheirColumns) {
    Table table("> ");
    table.add({"a", "b", "c"});
    table.add({"€€€", "", "x"});
    table.add({"long", ""});
    EXPECT_EQ(table.text(), "> a     b  c\n> €€€      x\n> long\n");
}

TEST(OutputTest, JsonShowsNoByteThatATerminalObeys) {
    EXPECT_EQ(jsonLine(Json{{"a", "\x1b\x7f\xff"}}), "{\"a\":\"\\u001b\\u007f\xef\xbf\xbd\"}");
    EXPECT_EQ(jsonText(Json{{"a", 1}}), "{\n  \"a\": 1\n}\n");
}

TEST(OutputTest, ComplaintsKeepTheirLines) {
    EXPECT_EQ(ToolTest::complaintsOf([] { complain("a\nb\n    c\x1b"); }), "mox: a\\x0ab\n    c\\x1b\n");
}

TEST(OutputTest, RemarksAreForWhoWantsThem) {
    EXPECT_EQ(ToolTest::complaintsOf([] { remark("a"); }), "");
    verboseIs(true);
    EXPECT_EQ(ToolTest::complaintsOf([] { remark("a"); }), "mox: a\n");
    verboseIs(false);
}

}  // namespace
