#include "LibTest.h"

namespace {

using namespace Tool;
using namespace ToolTest;

class InputTest : public testing::Test {
protected:
    std::string file(std::string_view text) const { return folder_.write("f", text); }
    Folder folder_;
};

TEST_F(InputTest, LinesEndInEitherWay) {
    Input input(file("a\r\nb\n\nc"));
    LineReader lines(input);
    std::vector<std::string> texts;
    while (lines.next()) texts.emplace_back(lines.text());
    EXPECT_EQ(texts, (std::vector<std::string>{"a", "b", "", "c"}));
    EXPECT_EQ(lines.number(), 4u);
    EXPECT_EQ(lines.bytesRead(), 7u);
}

TEST_F(InputTest, BlankLinesAndCommentsAreKnown) {
    Input input(file(" \t\n# a\n #\n"));
    LineReader lines(input);
    std::vector<bool> blank;
    while (lines.next()) blank.push_back(lines.isBlank());
    EXPECT_EQ(blank, (std::vector<bool>{true, true, false}));
}

TEST_F(InputTest, PlacesCountFromOne) {
    std::string const path = file("a\nb\n");
    Input input(path);
    LineReader lines(input);
    lines.next();
    EXPECT_EQ(lines.place(0), path + ":1:1");
    lines.next();
    EXPECT_EQ(lines.place(4), path + ":2:5");
}

TEST_F(InputTest, ALongLineIsCutAndPassedOver) {
    Input input(
        file(std::string(LineReader::longest, 'a') + "\n" + std::string(LineReader::longest + 1, 'b') + "\nc\n"));
    LineReader lines(input);
    ASSERT_TRUE(lines.next());
    EXPECT_FALSE(lines.isTooLong());
    ASSERT_TRUE(lines.next());
    EXPECT_TRUE(lines.isTooLong());
    EXPECT_EQ(lines.text().size(), LineReader::longest);
    ASSERT_TRUE(lines.next());
    EXPECT_EQ(lines.text(), "c");
    EXPECT_EQ(lines.number(), 3u);
}

TEST_F(InputTest, MoreThanTheLimitIsRefused) {
    std::string const path = file("0123456789");
    Input input(path);
    LineReader lines(input, {}, 9);
    EXPECT_EQ(failureOf([&] { lines.next(); }), "2: " + path + " holds more than 0 MiB, which is the limit");
    EXPECT_EQ(Input(path).all(10), "0123456789");
    EXPECT_EQ(Input(path).all(9), std::nullopt);
}

TEST_F(InputTest, AFileThatIsNotThereIsNamed) {
    EXPECT_EQ(failureOf([] { Input input("/nowhere/f"); }), "2: cannot open /nowhere/f: No such file or directory");
}

TEST_F(InputTest, OneWhoWaitsIsCalledBeforeEachRead) {
    Input input(file("a\nb\n"));
    int calls = 0;
    LineReader lines(input, [&] { ++calls; });
    lines.next();
    lines.next();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(lines.next());
    EXPECT_EQ(calls, 2);
}

// --- what is wrong with a file ---

TEST(NatureTest, CompressedAndBinaryFilesAreKnown) {
    auto const natureOf = [](std::string_view bytes) {
        Nature nature;
        for (char const& c : bytes) nature.see({&c, 1});
        return nature.text();
    };
    EXPECT_EQ(natureOf("a text\n"), "");
    EXPECT_EQ(natureOf("\x1f\x8b\x08"), "looks like gzip");
    EXPECT_EQ(natureOf("\x7f"
                       "ELF"),
        "looks like a program (ELF)");
    EXPECT_EQ(natureOf({"ab\0", 3}), "binary: byte 0x00 at offset 2");
}

TEST(ComplaintsTest, TheFirstAreShownAndTheOthersCountedByKind) {
    Nature const nature;
    Complaints complaints("f", nature);
    std::string const err = complaintsOf([&] {
        for (int i = 0; i < 25; ++i)
            complaints.add("f:1:1", (i < 23 ? "bad at offset " : "worse at offset ") + std::to_string(i), "x", 0);
        complaints.end();
    });
    EXPECT_EQ(complaints.count(), 25u);
    EXPECT_THAT(err, testing::StartsWith("mox: f:1:1: bad at offset 0\n    x\n    ^\n"));
    EXPECT_THAT(err, testing::EndsWith("bad at offset 19\n    x\n    ^\n"
                                       "mox: f: 5 more that are not shown:\n    3  bad\n    2  worse\n"));
}

TEST(ComplaintsTest, OfABinaryFileOneLineIsEnough) {
    Nature nature;
    nature.see({"\0", 1});
    Complaints complaints("f", nature);
    std::string const err = complaintsOf([&] {
        complaints.add("f:1:1", "bad", "x", 0);
        complaints.add("f:2:1", "bad", "y", 0);
        complaints.end();
    });
    EXPECT_EQ(err, "mox: f:1:1: bad\n    x\n    ^\n"
                   "mox: f: binary: byte 0x00 at offset 0; no more is said about its lines\n");
    EXPECT_EQ(complaints.count(), 2u);
}

}  // namespace
