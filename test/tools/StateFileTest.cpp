#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ToolTest;

// What is wrong with a state file, as "mox serve" tells.
std::string mistake(std::string const& text) {
    Folder const folder;
    Outcome const outcome = mox({"serve", folder.path() + "/s", "-"}, {}, text);
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
}

TEST(MoxStateFileTest, PointsAtTheMistake) {
    EXPECT_EQ(mistake("# fine\n/a Vel::Dir\n/a/b  Vel::Dirr\n"),
        "mox: standard input:3:7: there is no type Vel::Dirr; did you mean Vel::Dir?\n"
        "    /a/b  Vel::Dirr\n"
        "          ^\n");
    EXPECT_EQ(mistake("/c Cell::Status\n/c cellId = 1x\n"),
        "mox: standard input:2:14: expected the end of the text at offset 1, at 'x'\n"
        "    /c cellId = 1x\n"
        "                 ^\n");
    EXPECT_EQ(mistake("a Vel::Dir\n"), "mox: standard input:1:1: a path expected, which begins with a \"/\"\n"
                                       "    a Vel::Dir\n"
                                       "    ^\n");
}

TEST(MoxStateFileTest, SaysWhatIsMissing) {
    EXPECT_THAT(mistake("/a\n"), testing::HasSubstr("1:3: a type or an attribute expected behind the path\n"));
    EXPECT_THAT(mistake("/a/b x = 1\n"), testing::HasSubstr("1:2: there is no such entity\n"));
    EXPECT_THAT(mistake("/c Cell::Status\n/c cell = 1\n"),
        testing::HasSubstr("2:4: Cell::Status has no attribute cell; did you mean cellId"));
    EXPECT_THAT(mistake("/c Cell::Status\n/c cellId 1\n"), testing::HasSubstr("2:11: an \"=\" expected"));
    EXPECT_THAT(mistake("/c Cell::Status\n/c/d Vel::Dir\n"),
        testing::HasSubstr("2:4: a Cell::Status has no such place for an entity\n"));
    EXPECT_THAT(
        mistake("/t Mox::PrefixTrie\n/t state = /nowhere\n"), testing::HasSubstr("2:13: there is no such entity"));
}

TEST(MoxStateFileTest, RefusesWhatWouldBeTwiceOrWithinItself) {
    EXPECT_THAT(mistake("/a Vel::Dir\n/a Vel::Dir\n"), testing::HasSubstr("2:1: this entity is there already\n"));
    EXPECT_THAT(mistake("/a Vel::Dir\n/ Vel::Dir\n"), testing::HasSubstr("2:1: the root comes first"));
    EXPECT_THAT(mistake("/t Mox::PrefixTrie\n/t/a Mox::PrefixTrie\n/t/a child 't' = /t\n"),
        testing::HasSubstr("3:18: an entity cannot be within itself\n"));
    EXPECT_THAT(mistake("/d Vel::Dir\n/t Vel::Dir\n/d entry 't' = /t\n"),
        testing::HasSubstr("3:16: /t is in use in another place than /d\n"));
}

TEST(MoxStateFileTest, TakesTheRootForAnyEntity) {
    Folder const folder;
    std::string const socket = folder.path() + "/s";
    auto const server = moxBeside({"serve", socket, folder.write("state", "/ Mox::GenerationEntity\n")});
    server->until("serving");
    EXPECT_EQ(mox({"ls", socket}).out, "");
    EXPECT_EQ(mox({"get", socket, "/", "generation"}).out, "Value('Mox::Generation', ** {'id': 0, 'valid': False})\n");
}

}  // namespace
