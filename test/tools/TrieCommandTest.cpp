#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace ToolTest;
using nlohmann::json;
using testing::HasSubstr;

std::string const racks = "# racks\n"
                          "site {north}\n"
                          "\n"
                          "site/rack1.port7 {lab,10g}\n"
                          "tap*/rack2\n"
                          "  other/x \t b,a,b \n";

Outcome trie(std::vector<std::string> arguments, std::string_view input = racks) {
    arguments.insert(arguments.begin(), {"trie", "-"});
    return mox(arguments, {}, input);
}
std::string answer(std::vector<std::string> const& arguments, std::string_view input = racks) {
    Outcome const outcome = trie(arguments, input);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
}

// --- questions ---

TEST(MoxTrieTest, CountsWhatIsInTheFile) {
    Outcome const outcome = trie({});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "prefixes      4\nmount points  5\nnodes         7\nlevels        3\n");
    EXPECT_EQ(json::parse(answer({"--json"})),
        (json{{"prefixes", 4}, {"mountPoints", 5}, {"nodes", 7}, {"levels", 3}, {"bad", 0}}));
}

TEST(MoxTrieTest, ReadsAFile) {
    Folder const folder;
    Outcome const outcome = mox({"trie", folder.write("racks", racks), "has", "site"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, "True\n");
}

TEST(MoxTrieTest, HasWhatAPrefixEncloses) {
    EXPECT_EQ(answer({"has", "site/rack9.port1"}), "True\n");
    EXPECT_EQ(answer({"has", "site"}), "True\n");
    EXPECT_EQ(answer({"has", "sites"}), "False\n");
    EXPECT_EQ(answer({"has", "tap"}), "False\n");
    EXPECT_EQ(trie({"has", "site"}).code, 0);
    EXPECT_EQ(trie({"has", "tap"}).code, 1);
}

TEST(MoxTrieTest, AnswersSeveralPathsWithALineForEach) {
    Outcome const outcome = trie({"has", "tap", "site/x", "tap*/rack2.y"});
    EXPECT_EQ(outcome.code, 1);  // one of them is no
    EXPECT_EQ(outcome.out, "tap False\nsite/x True\ntap*/rack2.y True\n");
    EXPECT_EQ(trie({"has", "site/x", "site"}).code, 0);
}

TEST(MoxTrieTest, FindsTheEnclosingPrefix) {
    EXPECT_EQ(answer({"enclosing", "site/rack1.port7.lane1"}), "site/rack1.port7\n");
    EXPECT_EQ(answer({"enclosing", "site/rack1"}), "site\n");
    EXPECT_EQ(answer({"enclosing", "tap*/rack2"}), "tap/rack2\n");
    EXPECT_EQ(answer({"enclosing", "tap"}), "-\n");
    EXPECT_EQ(trie({"enclosing", "tap"}).code, 1);
    EXPECT_EQ(json::parse(answer({"enclosing", "site/rack1.port7.lane1", "tap", "--json"})),
        json::parse(R"({"command": "enclosing", "answers": [
            {"path": "site/rack1.port7.lane1", "answer": "site/rack1.port7", "tags": ["10g", "lab", "north"]},
            {"path": "tap", "answer": null, "tags": []}], "bad": 0})"));
}

TEST(MoxTrieTest, FindsTheProperEnclosingPrefix) {
    EXPECT_EQ(answer({"proper", "site/rack1.port7"}), "site\n");
    EXPECT_EQ(answer({"proper", "site"}), "-\n");
    EXPECT_EQ(trie({"proper", "site/rack1.port7"}).code, 0);
    EXPECT_EQ(trie({"proper", "site"}).code, 1);
}

TEST(MoxTrieTest, KnowsLeaves) {
    EXPECT_EQ(
        answer({"leaf", "site", "site/rack1.port7", "nowhere"}), "site False\nsite/rack1.port7 True\nnowhere False\n");
}

TEST(MoxTrieTest, TellsTheTagsOfAPrefixWithThoseThatItInherits) {
    EXPECT_EQ(answer({"state", "site", "site/rack1.port7", "site/rack1", "tap/rack2", "other/x"}),
        "site {north}\nsite/rack1.port7 {10g,lab,north}\nsite/rack1 -\ntap/rack2 {}\nother/x {a,b}\n");
    EXPECT_EQ(trie({"state", "tap/rack2"}).code, 0);
    EXPECT_EQ(trie({"state", "site/rack1"}).code, 1);
    EXPECT_EQ(json::parse(answer({"state", "other/x", "nowhere", "--json"})),
        json::parse(R"({"command": "state", "answers": [{"path": "other/x", "answer": ["a", "b"]},
            {"path": "nowhere", "answer": null}], "bad": 0})"));
}

TEST(MoxTrieTest, AddsInAnyOrderToTheSameStates) {
    EXPECT_EQ(answer({"state", "a/b.c", "a"}, "a/b.c {x}\na {y}\na/b.c {z}\n"), "a/b.c {x,y,z}\na {y}\n");
    EXPECT_EQ(answer({"state", "a/b.c", "a"}, "a {y}\na/b.c {z}\na/b.c {x}\n"), "a/b.c {x,y,z}\na {y}\n");
}

TEST(MoxTrieTest, ReadsQuestionsFromStandardInput) {
    Folder const folder;
    std::string const file = folder.write("racks", racks);
    Outcome const outcome = mox({"trie", file, "has", "-"}, {}, "site/x\n\n# no path\n tap \r\na b\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "site/x True\ntap False\na b False\n");
    EXPECT_EQ(json::parse(mox({"trie", file, "has", "-", "--json"}, {}, "site\n").out),
        json::parse(R"({"command": "has", "answers": [{"path": "site", "answer": true}], "bad": 0})"));
}

TEST(MoxTrieTest, TakesAnyTextForAPath) {
    EXPECT_EQ(answer({"has", "[site]", "stat", "", "*", "\x1b[31m", "a*", "//..//"}),
        "[site] False\nstat False\n'' False\n* False\n'\\x1b[31m' False\na* False\n//..// False\n");
    EXPECT_EQ(answer({"has", "--", "--json"}), "False\n");
    EXPECT_EQ(answer({"has", "[a,b]"}, "[a,b]\n"), "True\n");
}

// --- drawings ---

TEST(MoxTrieTest, DrawsTheTreeInAsciiWithoutALocale) {
    EXPECT_EQ(answer({"tree"}), "standard input\n"
                                "|-- [ ] other\n"
                                "|   `-- [x] /x {a,b}\n"
                                "|-- [x] site {north}\n"
                                "|   `-- [ ] /rack1\n"
                                "|       `-- [x] .port7 {10g,lab,north}\n"
                                "`-- [*] tap\n"
                                "    `-- [x] /rack2\n"
                                "\n"
                                "[x] prefix in the set, a mount point, too   [*] only a mount point   [ ] neither\n");
}

TEST(MoxTrieTest, DrawsTheTreeWithLinesInAUtf8Locale) {
    std::string const expected = "standard input\n"
                                 "├─ ● a {x}\n"
                                 "│  └─ ○ /b\n"
                                 "│     └─ ● .c {x}\n"
                                 "└─ ◆ d\n"
                                 "   └─ ● /e\n"
                                 "\n"
                                 "● prefix in the set, a mount point, too   ◆ only a mount point   ○ neither\n";
    std::string const input = "a/b.c\na {x}\nd*/e\n";
    EXPECT_EQ(mox({"trie", "-", "tree"}, {{"LANG", "de_DE.UTF-8"}}, input).out, expected);
    EXPECT_EQ(mox({"trie", "-", "tree"}, {{"LC_ALL", "C.utf8"}, {"LANG", "C"}}, input).out, expected);
    for (Outcome const& plain : {mox({"trie", "-", "tree", "--ascii"}, {{"LANG", "C.UTF-8"}}, input),
             mox({"trie", "-", "tree"}, {{"LC_ALL", "C"}, {"LANG", "C.UTF-8"}}, input)})
        EXPECT_THAT(plain.out, testing::StartsWith("standard input\n|-- [x] a {x}\n"));
}

TEST(MoxTrieTest, WritesTheTreeForGraphviz) {
    EXPECT_EQ(answer({"tree", "--dot"}, "a*/b\\\" {x,\"y}\na*/c.d\n"),
        "// filled: prefixes in the set; two frames: only mount points; dashed: neither\n"
        "digraph trie {\n"
        "  rankdir=LR;\n"
        "  node [shape=box, fontname=monospace];\n"
        "  n0 [label=\"standard input\", shape=plaintext];\n"
        "  n1 [label=\"a\", peripheries=2];\n"
        "  n0 -> n1;\n"
        "  n2 [label=\"/b\\\\\\\"\\n{\\\"y,x}\", style=filled];\n"
        "  n1 -> n2;\n"
        "  n3 [label=\"/c\", style=dashed];\n"
        "  n1 -> n3;\n"
        "  n4 [label=\".d\", style=filled];\n"
        "  n3 -> n4;\n"
        "}\n");
}

TEST(MoxTrieTest, WritesTheTreeAsJson) {
    EXPECT_EQ(json::parse(answer({"tree", "--json"}, "a*/b {x}\n")), json::parse(R"({"nodes": [
        {"path": "a", "present": false, "mountPoint": true, "tags": [], "key": "a", "level": 1},
        {"path": "a/b", "present": true, "mountPoint": true, "tags": ["x"], "key": "/b", "level": 2}], "bad": 0})"));
    EXPECT_EQ(json::parse(answer({"tree", "--json"}, "")), json::parse(R"({"nodes": [], "bad": 0})"));
}

// --- two files ---

TEST(MoxTrieTest, AppendsAnotherFileToASetThatReadsAsOne) {
    Folder const folder;
    std::string const other = folder.write("other", "site {new}\nsite/rack1* /x\nq*/r*/s\n #t\nx*y/z\n");
    Outcome const outcome = trie({"append", other});
    std::string const all = " #t\n"
                            "other/x {a,b}\n"
                            "q*/r*/s\n"
                            "site {new,north}\n"
                            "site/rack1.port7 {10g,lab,new,north}\n"
                            "tap*/rack2\n"
                            "x*y/z\n";
    EXPECT_EQ(outcome.code, 1);  // for the line with a star in the last component
    EXPECT_EQ(outcome.out, all);
    Outcome const again = mox({"trie", folder.write("all", all), "diff", "-"}, {}, all);
    EXPECT_EQ(again.code, 0);
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(mox({"trie", folder.path() + "/all", "append", "-"}, {}, all).out, all);
}

TEST(MoxTrieTest, AppendsAsJson) {
    Folder const folder;
    EXPECT_EQ(json::parse(answer({"append", folder.write("other", "a {x}\n"), "--json"}, "a/b {y}\n")), json::parse(R"(
        {"prefixes": [{"path": "a", "tags": ["x"]}, {"path": "a/b", "tags": ["x", "y"]}], "bad": 0})"));
}

TEST(MoxTrieTest, ShowsTheDifferenceOfTwoFiles) {
    Folder const folder;
    std::string const other = folder.write("other", "site {south}\nsite/rack1.port7\ntap {z}\nother/x {b,a}\nnew*/y\n");
    Outcome const outcome = trie({"diff", other});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "--- standard input\n"
                           "+++ " +
                               other +
                               "\n"
                               "+ new*\n"
                               "+ new/y\n"
                               "~ site {north} -> {south}\n"
                               "~ site/rack1.port7 {10g,lab,north} -> {south}\n"
                               "~ tap * -> {z}\n"
                               "- tap/rack2\n");
}

TEST(MoxTrieTest, EqualFilesDifferInNothing) {
    Folder const folder;
    std::string const same =
        folder.write("same", "other/x {a,b}\ntap*/rack2\nsite/rack1.port7 {10g,lab}\nsite {north}");
    Outcome const outcome = trie({"diff", same});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(json::parse(answer({"diff", same, "--json"})),
        json::parse(R"({"onlyHere": [], "onlyThere": [], "different": [], "bad": 0})"));
}

TEST(MoxTrieTest, ShowsTheDifferenceAsJson) {
    Folder const folder;
    Outcome const outcome = trie({"diff", folder.write("other", "a {y}\nc\n"), "--json"}, "a {x}\nb* /d\nb*/d\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(json::parse(outcome.out), json::parse(R"({
        "onlyHere": [{"path": "b", "present": false, "mountPoint": true, "tags": []},
                     {"path": "b/d", "present": true, "mountPoint": true, "tags": []}],
        "onlyThere": [{"path": "c", "present": true, "mountPoint": true, "tags": []}],
        "different": [{"path": "a", "here": {"present": true, "mountPoint": true, "tags": ["x"]},
                       "there": {"present": true, "mountPoint": true, "tags": ["y"]}}],
        "bad": 1})"));
}

// --- bad lines ---

TEST(MoxTrieTest, ShowsBadLinesAndLeavesOnlyThoseOut) {
    Outcome const outcome = trie({"append", "/dev/null"}, "a\n"
                                                          "b/c*\n"
                                                          "  {x}\n"
                                                          "d e f\n"
                                                          "d {e\n"
                                                          "d e,,f\n"
                                                          "d {e{}\n"
                                                          "g\x1b[0m\n"
                                                          "h {x}\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "a\nh {x}\n");
    EXPECT_EQ(outcome.err, "mox: standard input:2:4: the last component of a path has no star: it is a mount point "
                           "without one, and a star "
                           "is no wildcard\n"
                           "    b/c*\n"
                           "       ^\n"
                           "mox: standard input:3:3: a path expected before the tags\n"
                           "      {x}\n"
                           "      ^\n"
                           "mox: standard input:4:4: a tag has no blanks, control bytes and braces\n"
                           "    d e f\n"
                           "       ^\n"
                           "mox: standard input:5:5: a closing brace expected\n"
                           "    d {e\n"
                           "        ^\n"
                           "mox: standard input:6:5: a tag expected\n"
                           "    d e,,f\n"
                           "        ^\n"
                           "mox: standard input:7:5: a tag has no blanks, control bytes and braces\n"
                           "    d {e{}\n"
                           "        ^\n"
                           "mox: standard input:8:2: a path has no control bytes\n"
                           "    g\\x1b[0m\n"
                           "     ^\n"
                           "mox: standard input: 7 of 9 lines are bad and left out\n");
}

TEST(MoxTrieTest, NamesTheFileOfABadLine) {
    Folder const folder;
    std::string const other = folder.write("other", "a\n*\n");
    Outcome const outcome = trie({"diff", other}, "a\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, testing::StartsWith("mox: " + other + ":2:1: the last component of a path has no star"));
    EXPECT_THAT(outcome.err, testing::EndsWith("\nmox: " + other + ": 1 of 2 lines is bad and left out\n"));
}

TEST(MoxTrieTest, TakesPathsOf4096ComponentsAndNoMore) {
    std::string path = "a";
    for (int i = 1; i < 4096; ++i) path += i % 2 ? "/a" : ".a";
    EXPECT_EQ(answer({}, path + "\n"), "prefixes      1\nmount points  1\nnodes         4096\nlevels        4096\n");
    EXPECT_EQ(answer({"enclosing", path + "/b"}, path + " {x}\na {y}\n"), path + "\n");
    EXPECT_EQ(answer({"append", "/dev/null"}, path + "\n"), path + "\n");
    EXPECT_EQ(trie({"diff", "/dev/null"}, path + "\n").out, "--- standard input\n+++ /dev/null\n- " + path + "\n");
    EXPECT_EQ(json::parse(answer({"tree", "--json"}, path + "\n"))["nodes"].size(), 4096u);
    Outcome const outcome = trie({"has", path + "/a/a"}, path + "/a\n" + path + "\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "True\n");
    EXPECT_THAT(
        outcome.err, testing::StartsWith("mox: standard input:1:8192: a path has at most 4096 components\n    ..."));
    EXPECT_EQ(answer({"has", std::string(100000, '/')}, "a\n"), "False\n");
}

TEST(MoxTrieTest, PassesOverALineOfMoreThanAMebibyte) {
    Outcome const outcome = trie({}, std::string((1u << 20) + 1, 'a') + "\n" + std::string(1u << 20, 'a') + "\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "prefixes      1\nmount points  1\nnodes         1\nlevels        1\n");
    EXPECT_THAT(outcome.err,
        testing::StartsWith("mox: standard input:1:1048577: this line is longer than 1 MiB, and left out\n"));
}

TEST(MoxTrieTest, SurvivesStarsSeparatorsAndBytesOfAllKinds) {
    std::string input = "*/a\n*.*/b\n***/a\n..//..\n/\n.\na*b*/c\n/*/x\n\xff\xfe/\xc3\n";
    Outcome const outcome = trie({"append", "/dev/null"}, input);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(trie({"append", "/dev/null"}, outcome.out).out, outcome.out);
    EXPECT_EQ(answer({"tree", "--json"}, outcome.out), answer({"tree", "--json"}, input));
    for (char const* const form : {"--json", "--dot", "--ascii"}) EXPECT_EQ(trie({"tree", form}, input).code, 0);
    EXPECT_EQ(json::parse(answer({"tree", "--json"}, input))["nodes"].size(), 18u);
    std::string const nul("a\0b\nc\n", 6);
    EXPECT_EQ(trie({"append", "/dev/null"}, nul).out, "c\n");
}

TEST(MoxTrieTest, BytesThatATerminalObeysAreEscapedAndCanBeReadBack) {
    std::string const input = "b\xc2\x9b/\xff {t\xe2\x80\xae}\n", shown = "b\\xc2\\x9b/\\xff {t\\xe2\\x80\\xae}\n";
    EXPECT_EQ(answer({"append", "/dev/null"}, input), shown);
    EXPECT_EQ(answer({"append", "/dev/null"}, shown), shown);
    for (std::string const& text : {input, shown}) {
        EXPECT_EQ(answer({"state", "b\\xc2\\x9b/\\xff"}, text), "{t\\xe2\\x80\\xae}\n");
        EXPECT_EQ(answer({"enclosing", "b\xc2\x9b/\xff/c"}, text), "b\\xc2\\x9b/\\xff\n");
    }
    EXPECT_EQ(trie({"diff", "/dev/null"}, input).out, "--- standard input\n+++ /dev/null\n- " + shown);
    EXPECT_THAT(answer({"tree", "--ascii"}, input), HasSubstr("/\\xff"));
}

TEST(MoxTrieTest, TakesMoreThanOneBufferOfLines) {
    std::string input;
    for (int i = 0; i < 20000; ++i)
        input += "site" + std::to_string(i % 7) + "/rack" + std::to_string(i) + " {t" + std::to_string(i % 3) + "}\n";
    EXPECT_EQ(answer({}, input), "prefixes      20000\nmount points  20000\nnodes         20007\nlevels        2\n");
    EXPECT_EQ(answer({"state", "site3/rack10"}, input), "{t1}\n");
    Outcome const all = trie({"append", "/dev/null"}, input);
    EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '\n'), 20000);
    EXPECT_THAT(all.out, testing::StartsWith("site0/rack0 {t0}\nsite0/rack10003 {t1}\n"));
}

TEST(MoxTrieTest, EndsQuietlyWhenNobodyReadsTheAnswer) {
    std::string input;
    for (int i = 0; i < 20000; ++i) input += "site/rack" + std::to_string(i) + "\n";
    Outcome const outcome = run({"sh", "-c", MOX_TOOL_PATH " trie - tree | head -1"}, {}, input);
    EXPECT_EQ(outcome.out, "standard input\n");
    EXPECT_EQ(outcome.err, "");
}

// --- bad usage ---

std::string usageError(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "trie");
    Outcome const outcome = mox(arguments, {}, racks);
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
}

TEST(MoxTrieTest, TellsWhatIsMissingOnTheCommandLine) {
    EXPECT_EQ(
        usageError({}), "mox: say which file holds the paths, or - for standard input; see \"mox trie --help\"\n");
    EXPECT_EQ(
        usageError({"-", "has"}), "mox: has takes paths, or - for those on standard input: mox trie - has PATH...\n");
    EXPECT_EQ(usageError({"x", "diff"}), "mox: diff takes one more file: mox trie x diff OTHER\n");
    EXPECT_EQ(usageError({"x", "append", "y", "z"}), "mox: append takes one more file: mox trie x append OTHER\n");
    EXPECT_EQ(usageError({"-", "tree", "a"}), "mox: tree takes no paths: mox trie - tree\n");
}

TEST(MoxTrieTest, TellsWhichCommandMayBeMeant) {
    std::string const only = ", only has, enclosing, proper, leaf, state, tree, append, diff; ";
    EXPECT_EQ(usageError({"-", "apend", "x"}), "mox: there is no command apend" + only + "did you mean append?\n");
    EXPECT_EQ(usageError({"-", "zzzzzzz"}), "mox: there is no command zzzzzzz" + only + "see \"mox trie --help\"\n");
    EXPECT_EQ(usageError({"has", "a/b"}),
        "mox: there is no command a/b" + only + "the file comes first: mox trie FILE has\n");
}

TEST(MoxTrieTest, RefusesOptionsThatDoNotFit) {
    EXPECT_EQ(usageError({"-", "tree", "--dot", "--json"}), "mox: choose one of --json, --dot and --ascii\n");
    EXPECT_EQ(usageError({"-", "has", "a", "--dot"}), "mox: --dot goes with the command tree only\n");
    EXPECT_EQ(usageError({"-", "--ascii"}), "mox: --ascii goes with the command tree only\n");
}

TEST(MoxTrieTest, TellsWhichFileCannotBeRead) {
    EXPECT_EQ(usageError({"/no/file", "tree"}), "mox: cannot open /no/file: No such file or directory\n");
    EXPECT_EQ(usageError({"-", "diff", "/no/file"}), "mox: cannot open /no/file: No such file or directory\n");
    EXPECT_EQ(usageError({"/", "tree"}), "mox: cannot read /: Is a directory\n");
    EXPECT_EQ(usageError({"-", "append", "-"}), "mox: standard input can be read only once\n");
    EXPECT_EQ(usageError({"-", "has", "-"}), "mox: standard input can be read only once\n");
}

}  // namespace
