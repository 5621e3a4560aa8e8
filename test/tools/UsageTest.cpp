#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ToolTest;
using testing::HasSubstr;

TEST(MoxUsageTest, HelpTeachesByExamples) {
    for (std::vector<std::string> const& arguments :
        {std::vector<std::string>{"--help"}, {"cell", "--help"}, {"types", "-h"}, {"value", "--help"},
            {"stat", "--help"}, {"idset", "--help"}, {"trie", "--help"}, {"serve", "--help"}, {"watch", "--help"},
            {"mount", "--help"}, {"get", "--help"}, {"set", "--help"}, {"ls", "--help"}, {"tree", "--help"}}) {
        Outcome const outcome = mox(arguments);
        EXPECT_EQ(outcome.code, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_THAT(outcome.out, HasSubstr("\nExamples:\n  mox "));
    }
}

TEST(MoxUsageTest, TellsItsVersion) {
    Outcome const outcome = mox({"--version"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(outcome.out, testing::MatchesRegex("mox [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(MoxUsageTest, BadCommandLinesNameTheMistakeAndTheHelp) {
    auto const error = [](std::vector<std::string> const& arguments) {
        Outcome const outcome = mox(arguments);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_EQ(outcome.out, "");
        return outcome.err;
    };
    EXPECT_EQ(error({}),
        "mox: say what to do: cell, types, value, stat, idset, trie, serve, watch, get, set, ls, tree; see \"mox "
        "--help\"\n");
    EXPECT_EQ(error({"cel"}), "mox: there is no command cel; did you mean cell?; see \"mox --help\"\n");
    EXPECT_EQ(
        error({"cell", "--nope"}), "mox: The following argument was not expected: --nope; see \"mox cell --help\"\n");
    EXPECT_EQ(
        error({"types", "a", "b"}), "mox: The following argument was not expected: b; see \"mox types --help\"\n");
    EXPECT_THAT(error({"value", "--type"}), HasSubstr("--type"));
}

TEST(MoxUsageTest, UsesNoColourOutsideATerminal) {
    Outcome const outcome = mox({"cell"}, {{"TERM", "xterm"}, {"CELLID", "x"}});
    EXPECT_THAT(outcome.out, testing::Not(HasSubstr("\x1b")));
}

TEST(MoxUsageTest, TellsWhenTheAnswerCannotBeWritten) {
    Outcome const outcome = run({"sh", "-c", MOX_TOOL_PATH " types >/dev/full"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.err, "mox: cannot write the answer: No space left on device\n");
}

}  // namespace
