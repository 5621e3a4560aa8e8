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

TEST(MoxStateFileTest, ShowsAllMistakesButNotWhatFollowsFromThem) {
    EXPECT_EQ(mistake("/a Vel::Dirr\n/a/b Vel::Dir\n/a/b x = 1\nb\n/c Vel::Dir\n"),
        "mox: standard input:1:4: there is no type Vel::Dirr; did you mean Vel::Dir?\n"
        "    /a Vel::Dirr\n"
        "       ^\n"
        "mox: standard input:4:1: a path expected, which begins with a \"/\"\n"
        "    b\n"
        "    ^\n"
        "mox: standard input: 2 mistakes; nothing is served\n");
}

TEST(MoxStateFileTest, CountsMistakesOfWhichThereAreMany) {
    std::string text;
    for (int i = 0; i < 30; ++i) text += "x\n";
    std::string const err = mistake(text + "/c Cell::Status\n/c cellId = 70000\n/c cellId = x\n");
    EXPECT_THAT(err, testing::HasSubstr("standard input:20:1: "));
    EXPECT_THAT(err, testing::Not(testing::HasSubstr("standard input:21:1: ")));
    EXPECT_THAT(err, testing::EndsWith("mox: standard input: 12 more that are not shown:\n"
                                       "    10  a path expected, which begins with a \"/\"\n"
                                       "    2  attribute \"value\": expected a number from 0 to 65535\n"
                                       "mox: standard input: 32 mistakes; nothing is served\n"));
}

TEST(MoxStateFileTest, RefusesANulAndAFileWithoutAnEnd) {
    EXPECT_EQ(mistake(std::string("/a Vel::Dir\n/x\0y Vel::Dir\n/z\0 Vel::Dir\n", 39)),
        "mox: standard input:2:3: a NUL has no place in a text; in a path it stands as %00\n"
        "    /x\\x00y Vel::Dir\n"
        "      ^\n"
        "mox: standard input: binary: byte 0x00 at offset 14; no more is said about its lines\n"
        "mox: standard input: 2 mistakes; nothing is served\n");
    Folder const folder;
    Outcome const endless = mox({"serve", folder.path() + "/s", "/dev/zero"});
    EXPECT_EQ(endless.code, 2);
    EXPECT_EQ(endless.err, "mox: /dev/zero holds more than 256 MiB, which is the limit of a state file\n");
}

TEST(MoxStateFileTest, ShowsAllOfANameWithANul) {
    EXPECT_EQ(mistake("/d%00x Vel::Dir\n/t Vel::Dir\n/d%00x entry 't' = /t\n"),
        "mox: standard input:3:20: /t is in use in another place than /d\\x00x\n"
        "    /d%00x entry 't' = /t\n"
        "                       ^\n");
}

TEST(MoxStateFileTest, TakesWordsForStringsAndWholeNumbersForDoubles) {
    Folder const folder;
    std::string const socket = folder.path() + "/s";
    std::string const text = "/c Cell::Status\n/c product = uplink\n"
                             "/t Test::Tank\n/t level = Value('Test::Level', ** {'litres': 2, 'measured': True})\n";
    auto const server =
        moxBeside({"--module", TANK_LIBRARY, "serve", socket, folder.write("state", text), "--verbose"});
    server->until("serving");
    EXPECT_EQ(mox({"get", socket, "/c", "product"}).out, "'uplink'\n");
    EXPECT_EQ(mox({"--module", TANK_LIBRARY, "get", socket, "/t", "level"}).out,
        "Value('Test::Level', ** {'litres': 2.0, 'measured': True})\n");
    EXPECT_EQ(server->end().err, "mox: " + folder.path() + "/state:2:14: uplink is taken for the text 'uplink'\n" +
                                     "mox: " + folder.path() + "/state:4:47: litres: 2 is taken for 2.0\n");
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
