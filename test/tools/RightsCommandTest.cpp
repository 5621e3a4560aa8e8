#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace ToolTest;
using nlohmann::json;
using testing::HasSubstr;

char const rules[] = "# who may do what\n"
                     "everybody / read\n"
                     "user:4711 /ql read write\n"
                     "name:*.lab.example /ql call\n"
                     "everybody /ql/secrets nothing\n"
                     "user:4711 /ql/secrets read\n";

class MoxRightsTest : public testing::Test {
protected:
    Outcome rights(std::vector<std::string> arguments, std::string_view text = rules) {
        arguments.insert(arguments.begin(), {"rights", folder.write("rights.txt", text)});
        return mox(arguments);
    }
    Folder folder;
};

TEST_F(MoxRightsTest, SaysWhatMayBeDoneAndWhichRuleDecides) {
    EXPECT_EQ(rights({"--who", "user:4711", "/ql/cell"}).out, "/ql/cell: read write, by line 3 (user:4711 /ql)\n");
    EXPECT_EQ(rights({"/ql/cell"}).out, "/ql/cell: read, by line 2 (everybody /)\n");
    EXPECT_EQ(
        rights({"--who", "name:db7.lab.example", "/ql"}).out, "/ql: read call, by line 4 (name:*.lab.example /ql)\n");
    EXPECT_EQ(rights({"--who", "user:4711", "/ql/secrets/x"}).out,
        "/ql/secrets/x: read, by line 6 (user:4711 /ql/secrets)\n");
    Outcome const nothing = rights({"/ql/secrets"});
    EXPECT_EQ(nothing.code, 1);
    EXPECT_EQ(nothing.out, "/ql/secrets: nothing, by line 5 (everybody /ql/secrets)\n");
    EXPECT_EQ(rights({"/"}, "").out, "/: nothing, by no rule\n");
}

TEST_F(MoxRightsTest, ShowsAllRulesThatApply) {
    Outcome const table = rights({"--who", "user:4711"});
    EXPECT_EQ(table.code, 0);
    EXPECT_EQ(table.out, "path         may         who        line\n"
                         "/ql/secrets  read        user:4711  6\n"
                         "/ql/secrets  nothing     everybody  5\n"
                         "/ql          read write  user:4711  3\n"
                         "/            read        everybody  2\n");
    EXPECT_THAT(rights({}, "user:4711 / read\n").err, HasSubstr("no rule applies, so nothing is allowed"));
}

TEST_F(MoxRightsTest, AnswersInJson) {
    EXPECT_EQ(json::parse(rights({"--who", "user:4711", "/ql", "--json"}).out), json::parse(R"({"path": "/ql",
        "may": "read write", "rules": [{"line": 3, "who": "user:4711", "path": "/ql", "may": "read write"}]})"));
    EXPECT_EQ(json::parse(rights({"--json"}).out)["rules"].size(), 2u);
}

TEST_F(MoxRightsTest, MistakesHaveTheirPlaces) {
    Outcome const outcome = rights({}, "everybody / reed\nsomebody / read\n");
    EXPECT_EQ(outcome.code, 2);
    EXPECT_THAT(outcome.err, HasSubstr("rights.txt:1:13: \"reed\" is no right"));
    EXPECT_THAT(outcome.err, HasSubstr("rights.txt:2:1: \"somebody\" is nobody"));
    EXPECT_THAT(rights({"--who", "user:no-such-user"}).err, HasSubstr("--who: there is no user \"no-such-user\""));
    EXPECT_THAT(rights({"--who", "name:*.lab"}).err, HasSubstr("a peer has one name"));
}

TEST_F(MoxRightsTest, ServeNeedsOneKindOfRights) {
    std::string const file = folder.write("rights.txt", rules);
    for (std::vector<std::string> const& more : {std::vector<std::string>{"--writable"}, {"--writer", "root"}}) {
        std::vector<std::string> arguments{"serve", folder.path() + "/s", "--rights", file};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Outcome const outcome = mox(arguments);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_THAT(outcome.err, HasSubstr("--rights says who may write: leave --writable and --writer out"));
    }
    Outcome const bad = mox({"serve", folder.path() + "/s", "--rights", folder.write("bad.txt", "x / read\n")});
    EXPECT_EQ(bad.code, 2);
    EXPECT_THAT(bad.err, HasSubstr("bad.txt:1:1: \"x\" is nobody"));
}

}  // namespace
