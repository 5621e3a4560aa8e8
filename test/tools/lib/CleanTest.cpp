#include "tools/lib/Clean.h"

#include <gtest/gtest.h>

namespace {

using namespace Tool;

TEST(CleanTest, PlainTextsStayAsTheyAre) {
    EXPECT_EQ(cleaned("a b~ü€"), "a b~ü€");
    EXPECT_EQ(uncleanAt("ü€"), std::string_view::npos);
}

TEST(CleanTest, WhatATerminalObeysIsEscapedByteByByte) {
    EXPECT_EQ(cleaned("a\x1b[1m\n\t\x7f"), "a\\x1b[1m\\x0a\\x09\\x7f");
    EXPECT_EQ(cleaned("\xc2\x9b|\xe2\x80\xae|\xff"), "\\xc2\\x9b|\\xe2\\x80\\xae|\\xff");
    EXPECT_EQ(cleaned(std::string_view("\0", 1)), "\\x00");
}

TEST(CleanTest, TheFirstUncleanByteIsFoundFromAnyPlace) {
    EXPECT_EQ(uncleanAt("ab\ncd\n"), 2u);
    EXPECT_EQ(uncleanAt("ab\ncd\n", 3), 5u);
    EXPECT_EQ(uncleanAt("ab\ncd\n", 6), std::string_view::npos);
}

TEST(CleanTest, OnlyHighBytesAreReadBack) {
    EXPECT_EQ(uncleaned(cleaned("ü\xff\x9b")), "ü\xff\x9b");
    EXPECT_EQ(uncleaned("\\x0a\\x7f"), "\\x0a\\x7f");
    EXPECT_EQ(uncleaned("\\xfF\\xFf\\xf"), "\\xfF\\xFf\\xf");
    EXPECT_EQ(uncleaned("\\\\xff"), "\\\xff");
}

TEST(CleanTest, WhatIsTheToolsOwnStays) {
    auto const newline = [](std::string_view rest) { return std::size_t(rest.starts_with('\n') ? 1 : 0); };
    EXPECT_EQ(cleanedBut("a\n\x1b\n", newline), "a\n\\x1b\n");
}

TEST(CleanTest, JsonSaysTheSameInUnits) {
    EXPECT_EQ(cleanedJson("{\n  \"a\": \"\x7f\xc2\x9b\xe2\x80\xae\"}"), "{\n  \"a\": \"\\u007f\\u009b\\u202e\"}");
    EXPECT_EQ(cleanedJson("\"ü\""), "\"ü\"");
}

}  // namespace
