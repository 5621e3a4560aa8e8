#include "tools/lib/HexText.h"

#include "LibTest.h"

namespace {

using namespace Tool;
using Bytes = std::vector<unsigned char>;

TEST(HexTextTest, BytesAreReadWithWhatStandsBetweenThem) {
    EXPECT_EQ(bytesFromHex("00 2a:FF\n7\tf"), (Bytes{0, 42, 255, 127}));
    EXPECT_EQ(bytesFromHex(""), Bytes());
}

TEST(HexTextTest, MistakesAreShownInTheirPlace) {
    EXPECT_EQ(ToolTest::failureOf([] { bytesFromHex("0g"); }),
        "1: no hexadecimal digit at offset 1 (blanks and colons may stand between digits)\n    0g\n     ^");
    EXPECT_EQ(ToolTest::failureOf([] { bytesFromHex("001"); }),
        "1: the last byte is half: there is an odd number of hexadecimal digits\n    001\n       ^");
}

TEST(HexTextTest, BytesAreWrittenWithBlanks) {
    Bytes const bytes{0, 42, 255};
    EXPECT_EQ(inHex(bytes.data(), bytes.size()), "00 2a ff");
    EXPECT_EQ(inHex(nullptr, 0), "");
}

}  // namespace
