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
    EXPECT_EQ(error({}), "mox: say what to do: cell, types, value, stat, idset, trie, serve, watch, get, set, call, "
                         "why, rights, ls, tree; see \"mox --help\"\n");
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
    for (std::string const arguments : {"types", "--help", "--version", "stat --help", "cell", "idset '(1)'",
             "value --type U8 7", "stat CountStat /dev/null", "trie /dev/null", "trie /dev/null tree"}) {
        Outcome const outcome = run({"sh", "-c", MOX_TOOL_PATH " " + arguments + " >/dev/full"});
        EXPECT_EQ(outcome.code, 1) << arguments;
        EXPECT_EQ(outcome.err, "mox: cannot write the answer: No space left on device\n") << arguments;
    }
}

TEST(MoxUsageTest, TellsWhenStandardFilesAreClosed) {
    Outcome const out = run({"sh", "-c", MOX_TOOL_PATH " types >&-"});
    EXPECT_EQ(out.code, 1);
    EXPECT_EQ(out.err, "mox: cannot write the answer: Bad file descriptor\n");
    Outcome const in = run({"sh", "-c", MOX_TOOL_PATH " stat CountStat <&-"});
    EXPECT_EQ(in.code, 2);
    EXPECT_EQ(in.err, "mox: cannot read standard input: Bad file descriptor\n");
}

TEST(MoxUsageTest, LeavesQuietlyWhenNobodyReadsOn) {
    Outcome const outcome = run({"bash", "-c",
        "trap '' PIPE; for i in types --help; do { sleep 0; " MOX_TOOL_PATH " $i; echo code $? >&2; } | true; done"});
    // Whether the reader has gone already is a matter of chance; that nothing is said of it is not.
    EXPECT_THAT(outcome.err, testing::MatchesRegex("code [01]\ncode [01]\n"));
}

}  // namespace
