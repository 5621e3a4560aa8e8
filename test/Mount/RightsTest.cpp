#include "Mount/Rights.h"

#include "Vel/base/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Who may do what, by rules.
namespace {

using Mount::Access;
using Mount::Rights;
using Mount::RightsPeer;
using Mount::textOf;
using Vel::String;
using testing::ElementsAre;

// alice is 1, bob 2; netops is group 10, lab 11.
Mount::RightsNames const names = {[](String const& name) -> std::optional<Vel::U32> {
                                      if (name == "alice") return 1;
                                      if (name == "bob") return 2;
                                      return std::nullopt;
                                  },
    [](String const& name) -> std::optional<Vel::U32> {
        if (name == "netops") return 10;
        if (name == "lab") return 11;
        return std::nullopt;
    }};

std::shared_ptr<Rights> rightsOf(std::string_view text) {
    std::vector<Rights::Mistake> mistakes;
    auto const rights = Rights::parsed(text, mistakes, names);
    for (auto const& mistake : mistakes) ADD_FAILURE() << mistake.line << ": " << mistake.text;
    return rights;
}

std::vector<std::string> mistakesIn(std::string_view text) {
    std::vector<Rights::Mistake> mistakes;
    Rights::parsed(text, mistakes, names);
    std::vector<std::string> texts;
    for (auto const& [line, column, why] : mistakes)
        texts.push_back(std::to_string(line) + ":" + std::to_string(column) + ": " + why.stdString());
    return texts;
}

RightsPeer const alice{.user = 1, .groups = {10}};
RightsPeer const bob{.user = 2, .groups = {10, 11}};
RightsPeer const box{.name = "db7.lab.example"};
RightsPeer const nobody;

struct Row {
    char const* rules;
    RightsPeer peer;
    char const* path;
    char const* may;
};
Row const rows[] = {
    {"", alice, "", "nothing"},
    {"everybody / read", alice, "", "read"},
    {"everybody / read", nobody, "a/b", "read"},
    {"everybody / read\neverybody /a nothing", nobody, "a", "nothing"},
    {"everybody / read\neverybody /a nothing", nobody, "a/b", "nothing"},
    {"everybody / read\neverybody /a nothing", nobody, "ab", "read"},
    {"everybody / read\neverybody /a nothing", nobody, "a.b", "read"},
    {"everybody / read\neverybody /a nothing", nobody, "a*", "read"},
    {"everybody / read\neverybody /a.b nothing", nobody, "a", "read"},
    {"everybody / read\neverybody /a.b nothing", nobody, "a.b/c", "nothing"},
    {"everybody / read\neverybody /a% nothing", nobody, "a%/c", "nothing"},
    {"everybody / read\neverybody '/a b' nothing", nobody, "a b/c", "nothing"},
    {"everybody /a read", nobody, "", "nothing"},
    {"everybody /a read", nobody, "b", "nothing"},
    {"everybody //a//b/ read", nobody, "a/b", "read"},
    {"user:alice / write", alice, "a", "read write"},
    {"user:alice / write", bob, "a", "nothing"},
    {"user:alice / write", box, "a", "nothing"},
    {"user:alice / write call", alice, "a", "read write call"},
    {"user:alice / nothing\neverybody / read", alice, "a", "nothing"},
    {"user:alice / nothing\neverybody /a read", alice, "a", "read"},
    {"group:netops / write", bob, "a", "read write"},
    {"group:netops / write\neverybody / read", nobody, "a", "read"},
    {"group:netops / nothing\neverybody / read", bob, "a", "nothing"},
    {"group:netops / read\ngroup:lab / nothing", bob, "a", "read"},
    {"group:lab / call\ngroup:netops / write", bob, "a", "read write call"},
    {"group:lab / write\nuser:bob / read", bob, "a", "read"},
    {"group:lab / write\nuser:bob / read", alice, "a", "nothing"},
    {"name:db7.lab.example / read", box, "a", "read"},
    {"name:*.lab.example / read", box, "a", "read"},
    {"name:*.example / read", box, "a", "read"},
    {"name:* / read", box, "a", "read"},
    {"name:* / read", alice, "a", "nothing"},
    {"name:*.lab.example / read", {.name = "lab.example"}, "a", "nothing"},
    {"name:*.lab.example / read", {.name = ".lab.example"}, "a", "nothing"},
    {"name:*.lab.example / read", {.name = "xlab.example"}, "a", "nothing"},
    {"name:*.lab.example / read", {.name = "a.b.lab.example"}, "a", "read"},
    {"name:*.lab.example / nothing\nname:db7.lab.example / read", box, "a", "read"},
    {"name:db7.lab.example / nothing\nname:*.lab.example / read", box, "a", "nothing"},
    {"name:*.lab.example / nothing\neverybody / read", box, "a", "nothing"},
    {"name:*.lab.example /a nothing\nname:db7.lab.example / read", box, "a/b", "nothing"},
    {"name:alice / read", alice, "a", "nothing"},
    {"everybody / read\neverybody @history nothing", alice, "@history", "nothing"},
};

class RightsRowsTest : public testing::TestWithParam<Row> {};

TEST_P(RightsRowsTest, DeepestPathDecidesAndThenWhoItIsFor) {
    Row const& row = GetParam();
    auto const rights = rightsOf(row.rules);
    EXPECT_EQ(textOf(rights->ofPeer(row.peer)->of(row.path)), row.may);
    EXPECT_EQ(textOf(accessOf(rights->deciding(row.peer, row.path))), row.may);
}

INSTANTIATE_TEST_SUITE_P(Rows, RightsRowsTest, testing::ValuesIn(rows));

TEST(RightsTest, PeersWithTheSameRulesShareTheirRights) {
    auto const rights = rightsOf("everybody / read\ngroup:netops /a write\nuser:bob /b write");
    auto const one = rights->ofPeer(alice);
    EXPECT_EQ(one, rights->ofPeer({.user = 77, .groups = {10}}));
    EXPECT_NE(one, rights->ofPeer(bob));
    EXPECT_EQ(rights->ofPeer(nobody), rights->ofPeer(box));
    EXPECT_EQ(textOf(one->most()), "read write");
}

TEST(RightsTest, LeastIsWhatIsAllowedAtEachPath) {
    EXPECT_EQ(textOf(rightsOf("everybody / read\neverybody /a nothing")->ofPeer(alice)->least()), "nothing");
    EXPECT_EQ(textOf(rightsOf("everybody / read write\neverybody /a read")->ofPeer(alice)->least()), "read");
    EXPECT_EQ(textOf(rightsOf("everybody /a read")->ofPeer(alice)->least()), "nothing");
    EXPECT_EQ(textOf(rightsOf("everybody / read")->ofPeer(alice)->least()), "read");
    EXPECT_EQ(textOf(rightsOf("")->ofPeer(alice)->least()), "nothing");
}

TEST(RightsTest, RightsThatNobodyUsesAreNotKept) {
    Rights rights;
    for (int i = 0; i < 1000; ++i) rights.add("user:" + std::to_string(i), "/", Access::read);
    std::weak_ptr<Vel::StreamRights const> last;
    for (Vel::U32 i = 0; i < 1000; ++i) last = rights.ofPeer({.user = i});
    EXPECT_TRUE(last.expired());
}

TEST(RightsTest, DecidingRulesHaveTheirLines) {
    auto const rights = rightsOf("# who path may\n\neverybody / read\ngroup:lab /a read\ngroup:netops /a write\n");
    auto const deciding = rights->deciding(bob, "a/b");
    ASSERT_EQ(deciding.size(), 2u);
    EXPECT_EQ(deciding[0]->line, 4u);
    EXPECT_EQ(deciding[1]->line, 5u);
    EXPECT_EQ(rights->deciding(bob, "b").at(0)->line, 3u);
}

TEST(RightsTest, AllMistakesAreToldWithTheirPlaces) {
    EXPECT_THAT(mistakesIn("everybody / read\n"
                           "  user:carol / read\n"
                           "group:nogroup / read\n"
                           "somebody / read\n"
                           "everybody a read\n"
                           "everybody / reed\n"
                           "everybody /\n"
                           "everybody\n"
                           "everybody / nothing read\n"
                           "everybody / read nothing\n"
                           "name:a*b / read\n"
                           "name:*b / read\n"
                           "name: / read\n"
                           "user: / read\n"
                           "everybody '/a read\n"
                           "name:*. / read\n"),
        ElementsAre("2:3: there is no user \"carol\" on this machine",
            "3:1: there is no group \"nogroup\" on this machine",
            "4:1: \"somebody\" is nobody: everybody, user:NAME, group:NAME or name:PATTERN expected",
            "5:11: a path begins with \"/\"; \"/\" alone is all that is served",
            "6:13: \"reed\" is no right: read, write, call or nothing expected",
            "7:12: read, write, call or nothing expected behind the path",
            "8:10: a path expected behind who the rule is for", "9:21: \"nothing\" stands alone",
            "10:18: \"nothing\" stands alone", "11:1: a star is the first label of a name, as in *.lab.example",
            "12:1: a star is the first label of a name, as in *.lab.example",
            "13:1: a certificate's name is missing behind \"name:\"", "14:1: the user's name or number is missing",
            "15:11: the quote is not closed", "16:1: a star is the first label of a name, as in *.lab.example"));
}

TEST(RightsTest, CommentsQuotesAndBlanksAreUnderstood) {
    auto const rights = rightsOf("# comment\n\r\n\teverybody '/it\\'s' read # why\n");
    ASSERT_EQ(rights->rules().size(), 1u);
    EXPECT_EQ(rights->rules()[0].path, "it's");
    EXPECT_EQ(rights->rules()[0].line, 3u);
}

TEST(RightsTest, MistakesAndRulesAreBounded) {
    std::string bad, many;
    for (int i = 0; i < 500; ++i) bad += "x\n";
    EXPECT_EQ(mistakesIn(bad).size(), Rights::mostMistakes);
    for (std::size_t i = 0; i <= Rights::mostRules; ++i) many += "everybody / read\n";
    EXPECT_THAT(mistakesIn(many), ElementsAre("10001:1: there are more than 10000 rules"));
    EXPECT_THAT(mistakesIn(std::string(Rights::longestText + 1, ' ')),
        ElementsAre("1:1: rules have at most 1048576 bytes, and these have 1048577"));
    EXPECT_THAT(mistakesIn("everybody /" + std::string(Rights::longestPath, 'x') + " read"),
        ElementsAre("1:1: a path of a rule has at most 1024 bytes"));
}

TEST(RightsTest, TextsOfMistakesAreCleaned) {
    EXPECT_THAT(mistakesIn("\x1b[31m / read"),
        ElementsAre("1:1: \"\\x1b[31m\" is nobody: everybody, user:NAME, group:NAME or name:PATTERN expected"));
}

TEST(RightsTest, MistakesAreThrownTogether) {
    try {
        Rights::of("x / read\neverybody / reed");
        FAIL();
    } catch (Vel::RangeException const& error) {
        EXPECT_EQ(error.text(), "1:1: \"x\" is nobody: everybody, user:NAME, group:NAME or name:PATTERN expected\n"
                                "2:13: \"reed\" is no right: read, write, call or nothing expected");
    }
}

TEST(RightsTest, NamesOfThisMachineAreFound) {
    Rights rights;
    rights.add("user:root", "/", Access::all);
    rights.add("group:root", "/", Access::read);
    rights.add("user:4711", "/", Access::read);
    EXPECT_EQ(rights.rules()[0].number, 0u);
    EXPECT_EQ(rights.rules()[1].number, 0u);
    EXPECT_EQ(rights.rules()[2].number, 4711u);
    EXPECT_THROW(rights.add("group:no-such-group", "/", Access::read), Vel::RangeException);
    EXPECT_THROW(rights.add(std::string("user:root\0x", 11), "/", Access::all), Vel::RangeException);
    EXPECT_THROW(rights.add(std::string("group:root\0x", 12), "/", Access::all), Vel::RangeException);
}

}  // namespace
