#include "tools/lib/TagTrie.h"

#include "tools/lib/TrieDifference.h"
#include "tools/lib/TrieFile.h"
#include "tools/lib/TrieTree.h"

#include "LibTest.h"

#include <nlohmann/json.hpp>

#include <limits>

// Tries of tags: their states, their files, what is drawn of them and what two of them differ in.
namespace {

using namespace Tool;
using namespace ToolTest;

std::string setOf(std::string_view text) { return Tags::checkedTags(text)->stdString(); }

std::string mistakeIn(std::string_view tags) {
    auto const set = Tags::checkedTags(tags);
    return set ? "" : std::to_string(set.error().offset) + ": " + set.error().text.stdString();
}

TEST(TagTrieTest, ASetHasEachTagOnceInTheOrderOfTheirBytes) {
    EXPECT_EQ(setOf("b,a,b,B"), "B,a,b");
    EXPECT_EQ(setOf("{b,a}"), "a,b");
    EXPECT_EQ(setOf("{}"), "");
    EXPECT_EQ(setOf(""), "");
}

TEST(TagTrieTest, WhatIsNoSetOfTagsIsToldByItsPlace) {
    EXPECT_EQ(mistakeIn("{a"), "2: a closing brace expected");
    EXPECT_EQ(mistakeIn("{a,b c}"), "4: a tag has no blanks, control bytes and braces");
    EXPECT_EQ(mistakeIn("a,,b"), "2: a tag expected");
    EXPECT_EQ(mistakeIn("a,"), "2: a tag expected");
}

TEST(TagTrieTest, AUnionSharesTheTextOfASetThatHasAll) {
    Vel::String const ab("a,b"), b("b"), c("c");
    EXPECT_EQ(Tags::unitedTags(ab, c), "a,b,c");
    EXPECT_TRUE(Tags::unitedTags(ab, b).sharesStorageWith(ab));
    EXPECT_TRUE(Tags::unitedTags(b, ab).sharesStorageWith(ab));
    EXPECT_TRUE(Tags::unitedTags(Vel::String(), ab).sharesStorageWith(ab));
}

// --- files ---

class TrieTest : public testing::Test {
protected:
    // The trie of a file whose lines are all good.
    Vel::Ptr<TagTrie> trieOf(std::string const& text) const {
        Input input(folder_.write("f", text));
        TrieFile file = readTrie(input);
        EXPECT_EQ(file.rejected, 0u);
        return file.trie;
    }

    Folder folder_;
    Answers answers_{std::numeric_limits<std::size_t>::max()};
};

TEST_F(TrieTest, PrefixesInheritWhateverTheOrderOfTheLines) {
    for (char const* const text :
        {"site {north}\nsite/rack1.port7 {lab,10g}\n", "site/rack1.port7 {10g,lab}\nsite {north}\n"}) {
        auto const trie = trieOf(text);
        EXPECT_EQ(trie->tagsOf("site/rack1.port7.x"), "10g,lab,north");
        EXPECT_EQ(trie->tagsOf("site/rack2"), "north");
    }
}

TEST_F(TrieTest, BadLinesAreLeftOutAndCounted) {
    std::string const path = folder_.write("f", "a\nb {x\n{y}\n\xc3\xbc\\xff {z}\n");
    Input input(path);
    TrieFile file;
    std::string const err = complaintsOf([&] { file = readTrie(input, "t"); });
    EXPECT_EQ(file.taken, 2u);
    EXPECT_EQ(file.rejected, 2u);
    EXPECT_EQ(file.trie->name(), "t");
    EXPECT_TRUE(file.trie->isPrefix("\xc3\xbc\xff"));
    EXPECT_THAT(err, testing::HasSubstr(path + ":2:5: a closing brace expected\n"));
    EXPECT_THAT(err, testing::HasSubstr(path + ":3:1: a path expected before the tags\n"));
    EXPECT_THAT(err, testing::EndsWith(path + ": 2 of 4 lines are bad and left out\n"));
}

TEST(TrieFileTest, MistakesInPathsAreToldByTheirPlace) {
    auto const mistake = [](std::string_view path) {
        auto const found = mistakeInPath(path);
        return found ? std::to_string(found->offset) + ": " + found->text : "";
    };
    EXPECT_EQ(mistake("/a*/b.c"), "");
    EXPECT_EQ(mistake(""), "0: a path expected");
    EXPECT_EQ(mistake("a\x01"), "1: a path has no control bytes");
    EXPECT_THAT(mistake("a/b*"), testing::StartsWith("3: the last component of a path has no star"));
    std::string longest = "a";
    for (std::size_t i = 1; i < mostComponents; ++i) longest += ".a";
    EXPECT_EQ(mistake(longest), "");
    EXPECT_EQ(mistake(longest + "/a"), "8191: a path has at most 4096 components");
}

TEST(TrieFileTest, MarginsAreBlanksAndTabs) {
    EXPECT_EQ(withoutMargins(" \ta b\t "), "a b");
    EXPECT_EQ(withoutMargins(" \t"), "");
}

// --- pictures ---

TEST_F(TrieTest, ATrieIsDrawnInAscii) {
    drawTree(answers_, *trieOf("tap*/rack\nsite {b,a}\n"), "f", true);
    EXPECT_EQ(answers_.kept(), "f\n"
                               "|-- [x] site {a,b}\n"
                               "`-- [*] tap\n"
                               "    `-- [x] /rack\n"
                               "\n[x] prefix in the set, a mount point, too   [*] only a mount point   [ ] neither\n");
}

TEST_F(TrieTest, ATrieIsWrittenForGraphviz) {
    writeDot(answers_, *trieOf("a/\"b {x}\n"), "f\\");
    EXPECT_THAT(answers_.kept(), testing::HasSubstr("  n0 [label=\"f\\\\\", shape=plaintext];\n"
                                                    "  n1 [label=\"a\", style=dashed];\n"
                                                    "  n0 -> n1;\n"
                                                    "  n2 [label=\"/\\\"b\\n{x}\", style=filled];\n"
                                                    "  n1 -> n2;\n}\n"));
}

TEST_F(TrieTest, JsonHasEachNodeWithItsLevel) {
    writeTreeJson(answers_, *trieOf("a/b {x}\n"), 3);
    auto const json = Json::parse(answers_.kept());
    EXPECT_EQ(json["nodes"][1].dump(),
        "{\"path\":\"a/b\",\"present\":true,\"mountPoint\":true,\"tags\":[\"x\"],\"key\":\"/b\",\"level\":2}");
    EXPECT_EQ(json["nodes"].size(), 2u);
    EXPECT_EQ(json["bad"], 3);
}

// --- differences ---

TEST_F(TrieTest, DifferencesAreLinesInTheOrderOfPaths) {
    auto const here = trieOf("a\nb {x}\nc/d\n"), there = trieOf("a\nb {y}\nb/e {z}\n");
    EXPECT_TRUE(writeDifference(answers_, *here, *there, "f", "g", 0, false));
    EXPECT_EQ(answers_.kept(), "--- f\n+++ g\n~ b {x} -> {y}\n+ b/e {y,z}\n- c/d\n");
}

TEST_F(TrieTest, EqualTriesHaveNoDifference) {
    EXPECT_FALSE(writeDifference(answers_, *trieOf("a {x}\n"), *trieOf("a {x}\n"), "f", "g", 0, false));
    EXPECT_EQ(answers_.kept(), "");
}

TEST_F(TrieTest, DifferencesAreListsInJson) {
    auto const here = trieOf("b {x}\nc/d\n"), there = trieOf("b {y}\nb/e {z}\n");
    EXPECT_TRUE(writeDifference(answers_, *here, *there, "f", "g", 2, true));
    auto const json = Json::parse(answers_.kept());
    EXPECT_EQ(json["onlyHere"][0]["path"], "c/d");
    EXPECT_EQ(json["onlyThere"][0]["tags"].dump(), "[\"y\",\"z\"]");
    EXPECT_EQ(json["different"][0]["here"]["tags"].dump(), "[\"x\"]");
    EXPECT_EQ(json["different"][0]["there"]["tags"].dump(), "[\"y\"]");
    EXPECT_EQ(json["bad"], 2);
}

}  // namespace
