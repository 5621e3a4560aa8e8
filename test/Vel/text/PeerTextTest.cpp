#include "Vel/text/PeerText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Vel::peerText;

TEST(PeerTextTest, WhatShowsStaysAsItIs) {
    EXPECT_EQ(peerText(""), "");
    EXPECT_EQ(peerText("module 'A', 100 % \\ \"x\""), "module 'A', 100 % \\ \"x\"");
    EXPECT_EQ(peerText("\xc3\xa4 \xe2\x82\xac \xf0\x9f\x90\xb1"), "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x90\xb1");
}

TEST(PeerTextTest, ControlsAreEscaped) {
    EXPECT_EQ(peerText(std::string_view("a\nb\x1b[31m\0\x7f", 10)), "a\\x0ab\\x1b[31m\\x00\\x7f");
    EXPECT_EQ(peerText("\xc2\x9b\xc2\xa0"), "\\xc2\\x9b\xc2\xa0") << "the second set of controls ends before U+00A0";
    EXPECT_EQ(peerText("\xe2\x80\xae|\xe2\x80\xa8|\xe2\x81\xa6"), "\\xe2\\x80\\xae|\\xe2\\x80\\xa8|\\xe2\\x81\\xa6");
}

// What only turns the direction of a text, or begins a line, does not show; its neighbours do.
TEST(PeerTextTest, MarksAreEscapedAndTheirNeighboursAreNot) {
    for (char const* const mark :
        {"\xd8\x9c", "\xe2\x80\x8e", "\xe2\x80\x8f", "\xe2\x80\xa8", "\xe2\x81\xa6", "\xe2\x81\xa9"})
        EXPECT_EQ(peerText(mark).view().find("\\x"), 0u) << mark;
    for (char const* const shown : {"\xd8\x9b", "\xd8\x9d", "\xe2\x80\x8d", "\xe2\x80\x90", "\xe2\x80\xa7",
             "\xe2\x80\xaf", "\xe2\x81\xa5", "\xe2\x81\xaa"})
        EXPECT_EQ(peerText(shown), shown);
}

TEST(PeerTextTest, BytesThatAreNoCharactersAreEscaped) {
    EXPECT_EQ(peerText("\xff\x80"), "\\xff\\x80");
    EXPECT_EQ(peerText("\xe2\x82"), "\\xe2\\x82") << "cut short";
    EXPECT_EQ(peerText("\xe2\x82z"), "\\xe2\\x82z");
    EXPECT_EQ(peerText("\xe2z\xac"), "\\xe2z\\xac");
    EXPECT_EQ(peerText("\xc0\xaf"), "\\xc0\\xaf") << "longer than it needs to be";
    EXPECT_EQ(peerText("\xe0\x80\xaf"), "\\xe0\\x80\\xaf");
    EXPECT_EQ(peerText("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "half of a pair";
    EXPECT_EQ(peerText("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond the last character";
}

TEST(PeerTextTest, ALongTextIsCut) {
    EXPECT_EQ(peerText(std::string(256, 'x')), std::string(256, 'x'));
    EXPECT_EQ(peerText(std::string(257, 'x')), std::string(253, 'x').append("..."));
    EXPECT_EQ(peerText(std::string(5'000'000, '\1')).length(), 255u);
}

TEST(PeerTextTest, ACutIsBetweenCharacters) {
    std::string const euro = "\xe2\x82\xac";
    EXPECT_EQ(peerText(euro + euro + euro, 8), euro + "...");
    EXPECT_EQ(peerText(euro + euro + euro, 9), euro + euro + euro);
    EXPECT_EQ(peerText("ab\1", 5), "ab...") << "nor within an escape";
}

TEST(PeerTextTest, WhatIsFitStaysFit) {
    std::string const once = peerText(std::string(100, '\x1b') + std::string(300, 'x')).stdString();
    EXPECT_EQ(peerText(once), once);
}

}  // namespace
