#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace {

using namespace ToolTest;
using testing::HasSubstr;

std::string count(std::string const& n, std::string const& when) {
    return "Value('Mox::Count', ** {'count': " + n + ", 'when': " + when + "})\n";
}
std::string countStat(std::string const& n, std::string const& last) {
    return "Value('Mox::CountStat', ** {'count': " + n + ", 'last': " + last + "})\n";
}

std::string const counts =
    "# eth0\n" + count("3", "1700000000.125") + "\n \t\n" + count("0", "1700000001.0") + count("4", "1700000002.5");
std::string const allStatistics =
    "Mox::ConditionStat, Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat, Mox::ConditionOrCountStat, "
    "Mox::ConditionOrChangedStat, Mox::CountOrChangedStat";

Outcome stat(std::vector<std::string> arguments, std::string_view input = {}) {
    arguments.insert(arguments.begin(), "stat");
    return mox(arguments, {}, input);
}

TEST(MoxStatTest, PrintsTheStatisticAtTheEnd) {
    Folder const folder;
    Outcome const outcome = stat({"Mox::CountStat", folder.write("counts.txt", counts)});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, countStat("7", "1700000002.5"));
}

TEST(MoxStatTest, ReadsStandardInputByDefaultAndAsADash) {
    EXPECT_EQ(stat({"CountStat"}, counts).out, countStat("7", "1700000002.5"));
    EXPECT_EQ(stat({"CountStat", "-"}, counts).out, countStat("7", "1700000002.5"));
}

TEST(MoxStatTest, PrintsTheStatisticAfterEachObservation) {
    Outcome const outcome = stat({"CountStat", "--each"}, counts);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out,
        countStat("3", "1700000000.125") + countStat("3", "1700000000.125") + countStat("7", "1700000002.5"));
}

TEST(MoxStatTest, BeginsWithAGivenStatistic) {
    Outcome const outcome =
        stat({"CountStat", "--from", "Value('Mox::CountStat', ** {'count': 9, 'last': 1.0})"}, count("1", "2.0"));
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, countStat("10", "2.0"));
}

TEST(MoxStatTest, WithoutObservationsTheStatisticIsTheFirstOne) {
    EXPECT_EQ(stat({"CountStat"}).out, countStat("0", "0.0"));
    EXPECT_EQ(stat({"CountStat", "--each"}).out, "");
}

TEST(MoxStatTest, ToleratesWindowsLineEndsAndAMissingLastOne) {
    Outcome const outcome = stat({"CountStat"}, "\r\nValue('Mox::Count', ** {'count': 3, 'when': 1.0})\r\n"
                                                "Value('Mox::Count', ** {'count': 3, 'when': 2.0})");
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, countStat("6", "2.0"));
}

TEST(MoxStatTest, FeedsEveryStatisticOfTheLibrary) {
    auto const after = [](std::string const& type, std::string const& observation) {
        Outcome const outcome = stat({type}, observation);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return outcome.out;
    };
    std::string const event = "Value('Mox::Event', ** {'value': True, 'when': 1.5})";
    EXPECT_EQ(after("ConditionStat", event),
        "Value('Mox::ConditionStat', ** {'current': True, 'changes': 1, 'lastChange': 1.5})\n");
    EXPECT_EQ(after("EventStat", event), "Value('Mox::EventStat', ** {'current': True, 'count': 1, 'last': 1.5})\n");
    std::string const counted = "Value('Mox::EventOrCount', ** {'value': True, 'count': 3, 'when': 1.5})";
    EXPECT_EQ(after("EventOrCountStat", counted), "Value('Mox::EventOrCountStat', ** {'count': 3, 'last': 1.5})\n");
    EXPECT_EQ(after("ConditionOrCountStat", counted),
        "Value('Mox::ConditionOrCountStat', ** {'current': True, 'changes': 5, 'lastChange': 1.5})\n");
    EXPECT_EQ(after("ConditionOrChangedStat",
                  "Value('Mox::ConditionOrChanged', ** {'current': False, 'changed': True, 'when': 1.5})"),
        "Value('Mox::ConditionOrChangedStat', ** {'current': False, 'changes': 2, 'lastChange': 1.5})\n");
    EXPECT_EQ(after("CountStat", count("3", "1.5")), countStat("3", "1.5"));
    EXPECT_EQ(after("CountOrChangedStat", count("3", "1.5")),
        "Value('Mox::CountOrChangedStat', ** {'count': 3, 'changes': 1, 'lastChange': 1.5})\n");
}

TEST(MoxStatTest, JsonHoldsTheFields) {
    Outcome const outcome = stat({"CountStat", "--json"}, counts + "x\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(nlohmann::json::parse(outcome.out),
        (nlohmann::json{{"type", "Mox::CountStat"}, {"observationType", "Mox::Count"}, {"observations", 3}, {"bad", 1},
            {"text", "Value('Mox::CountStat', ** {'count': 7, 'last': 1700000002.5})"},
            {"attributes", {{{"name", "count"}, {"type", "U32"}, {"text", "7"}},
                               {{"name", "last"}, {"type", "Vel::Seconds"}, {"text", "1700000002.5"}}}}}));
}

TEST(MoxStatTest, JsonAfterEachObservationIsOneObjectALine) {
    EXPECT_EQ(stat({"CountStat", "--json", "--each"}, "\n" + count("1", "2.0") + count("2", "3.0")).out,
        "{\"line\":2,\"text\":\"Value('Mox::CountStat', ** {'count': 1, 'last': 2.0})\"}\n"
        "{\"line\":3,\"text\":\"Value('Mox::CountStat', ** {'count': 3, 'last': 3.0})\"}\n");
}

// --- bad lines ---

TEST(MoxStatTest, ShowsABadLineAndLeavesOnlyThatOut) {
    Outcome const outcome = stat({"CountStat"}, count("1", "2.0") + count("2x", "3.0") + count("4", "5.0"));
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, countStat("5", "5.0"));
    EXPECT_EQ(outcome.err, "mox: standard input:2:35: this is no Mox::Count: expected \", 'when': \" at offset 34, at "
                           "'x, \\'when\\': 3.0})'\n"
                           "    Value('Mox::Count', ** {'count': 2x, 'when': 3.0})\n"
                           "                                      ^\n"
                           "mox: 1 of 3 observations is bad and left out\n");
}

TEST(MoxStatTest, NamesTheFileOfABadLine) {
    Folder const folder;
    std::string const file = folder.write("counts.txt", "x\n\n y\n");
    Outcome const outcome = stat({"CountStat", file});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.err, HasSubstr("mox: " + file + ":1:1: this is no Mox::Count: "));
    EXPECT_THAT(outcome.err, HasSubstr("mox: " + file + ":3:1: this is no Mox::Count: "));
    EXPECT_THAT(outcome.err, HasSubstr("\nmox: 2 of 2 observations are bad and left out\n"));
}

TEST(MoxStatTest, PassesOverALineOfMoreThanAMebibyte) {
    std::string const longest(1u << 20, ' ');
    EXPECT_EQ(stat({"CountStat"}, longest + "\n" + count("1", "2.0")).code, 0);
    Outcome const outcome = stat({"CountStat"}, longest + std::string(100000, 'x') + "\n" + count("1", "2.0"));
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, countStat("1", "2.0"));
    EXPECT_THAT(outcome.err,
        testing::StartsWith(
            "mox: standard input:1:1048577: this line is longer than 1 MiB, which no observation needs\n    ... "));
    EXPECT_THAT(outcome.err, testing::EndsWith("^\nmox: 1 of 2 observations is bad and left out\n"));
}

TEST(MoxStatTest, PrintsWhatCameBeforeABadLineBeforeIt) {
    Outcome const outcome = run(
        {"sh", "-c", MOX_TOOL_PATH " stat CountStat --each 2>&1"}, {}, count("1", "2.0") + "x\n" + count("1", "3.0"));
    EXPECT_THAT(outcome.out, testing::StartsWith(countStat("1", "2.0") + "mox: standard input:2:1: "));
    EXPECT_THAT(outcome.out, HasSubstr("\n" + countStat("2", "3.0") + "mox: 1 of 3 "));
}

TEST(MoxStatTest, ShowsTwentyBadLinesAndCountsTheOthersByTheirKind) {
    std::string text;
    for (int i = 0; i < 50'000; ++i) text += "x\n" + count("2x", "3.0");
    Outcome const outcome = stat({"CountStat"}, text);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 64);
    EXPECT_THAT(outcome.err, HasSubstr("mox: standard input:20:35: "));
    EXPECT_THAT(
        outcome.err, testing::EndsWith("^\nmox: standard input: 99980 more that are not shown:\n"
                                       "    49990  this is no Mox::Count: expected \", 'when': \"\n"
                                       "    49990  this is no Mox::Count: expected \"Value('Mox::Count', ** {\"\n"
                                       "mox: 100000 of 100000 observations are bad and left out\n"));
}

TEST(MoxStatTest, SaysThatAFileIsCompressedOrBinaryInsteadOfMoreComplaints) {
    auto const said = [](std::string const& input) {
        Outcome const outcome = stat({"CountStat"}, input);
        EXPECT_EQ(outcome.code, 1);
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 5);
        std::size_t const end = outcome.err.rfind('\n', outcome.err.size() - 2);
        std::size_t const begin = outcome.err.rfind('\n', end - 1) + 1;
        return outcome.err.substr(begin, end - begin);
    };
    std::string const rest = "; no more is said about its lines";
    EXPECT_EQ(said("\x1f\x8b\x08x\ny\nz\n"), "mox: standard input: looks like gzip" + rest);
    EXPECT_EQ(said("BZh91AY\ny\n"), "mox: standard input: looks like bzip2" + rest);
    EXPECT_EQ(said(std::string("\xfd"
                               "7zXZ\0\ny\n",
                  9)),
        "mox: standard input: looks like xz" + rest);
    EXPECT_EQ(said("\x28\xb5\x2f\xfd\ny\n"), "mox: standard input: looks like zstd" + rest);
    EXPECT_EQ(said(std::string("a\nb\0\nc\n", 7)), "mox: standard input: binary: byte 0x00 at offset 3" + rest);
}

TEST(MoxStatTest, GivesUpOnALineWithoutAnEnd) {
    Outcome const outcome = stat({"CountStat", "/dev/zero"});
    EXPECT_EQ(outcome.code, 2);
    EXPECT_THAT(outcome.err, testing::EndsWith("\nmox: /dev/zero:1: this line has no end within 64 MiB: this is no "
                                               "file of lines\n"));
}

TEST(MoxStatTest, TakesAWholeNumberForADouble) {
    Outcome const outcome = stat({"CountStat"}, count("1", "2") + count("2", "1700000000"));
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, countStat("3", "1700000000.0"));
    EXPECT_EQ(stat({"CountStat", "--verbose", "--from", "Value('Mox::CountStat', ** {'count': 9, 'last': 1})"},
                  "# a\n" + count("1", "2"))
                  .err,
        "mox: --from: last: 1 is taken for 1.0\n"
        "mox: standard input:2:45: when: 2 is taken for 2.0\n");
}

TEST(MoxStatTest, TellsOnlyOfTheFirstThingsThatItTookForOthers) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += count("1", "2");
    std::string const err = stat({"CountStat", "--verbose"}, text).err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 21);
    EXPECT_THAT(err, testing::EndsWith("\nmox: more that is taken for something else is not shown\n"));
}

// --- statistics of other libraries ---

Outcome average(std::string_view input, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"--module", AVERAGE_LIBRARY, "stat", "Average"});
    return mox(arguments, {}, input);
}

TEST(MoxStatTest, FeedsAStatisticOfAnotherLibrary) {
    Outcome const outcome = average("3\n4\n");
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "Value('Test::Average', ** {'sum': 7, 'samples': 2})\n");
}

TEST(MoxStatTest, AnObservationThatTheStatisticRefusesLeavesNoTrace) {
    Outcome const outcome = average("3\n1001\n4\n");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "Value('Test::Average', ** {'sum': 7, 'samples': 2})\n");
    EXPECT_EQ(outcome.err, "mox: standard input:2:1: a sample above 1000\n"
                           "    1001\n"
                           "    ^\n"
                           "mox: 1 of 3 observations is bad and left out\n");
}

TEST(MoxStatTest, ExplainsAnAbortAndKeepsTheAnswersBeforeIt) {
    Outcome const outcome = average("3\n13\n4\n", {"--each"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "Value('Test::Average', ** {'sum': 3, 'samples': 1})\n");
    EXPECT_THAT(outcome.err, HasSubstr("value != 13"));
    EXPECT_THAT(outcome.err, testing::EndsWith("\nmox: line 2: this breaks a precondition of the type, as the "
                                               "assertion above says; nothing behind it is read\n"));
}

// --- bad usage ---

std::string usageError(std::vector<std::string> const& arguments, std::string_view input = {}) {
    Outcome const outcome = stat(arguments, input);
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
}

TEST(MoxStatTest, ATypeWithoutUpdateIsAnsweredWithThoseThatHaveOne) {
    std::string const noStatistic =
        " is no statistic: it has no attribute \"update\" that takes an observation; those that have: ";
    EXPECT_EQ(usageError({"Count"}), "mox: Mox::Count" + noStatistic + allStatistics + "\n");
    EXPECT_EQ(usageError({"Cell::Status"}), "mox: Cell::Status" + noStatistic + allStatistics + "\n");
}

TEST(MoxStatTest, NamesTheStatisticThatMayBeMeant) {
    EXPECT_EQ(usageError({}), "mox: say which statistic: " + allStatistics + "\n");
    EXPECT_EQ(usageError({"countstat"}), "mox: there is no statistic countstat; did you mean Mox::CountStat?\n");
    EXPECT_EQ(usageError({"Foo"}), "mox: there is no statistic Foo; there are " + allStatistics + "\n");
}

TEST(MoxStatTest, TellsWhichFileCannotBeRead) {
    EXPECT_EQ(usageError({"CountStat", "/no/file"}), "mox: cannot open /no/file: No such file or directory\n");
    EXPECT_EQ(usageError({"CountStat", "/"}), "mox: cannot read /: Is a directory\n");
}

TEST(MoxStatTest, PointsAtTheMistakeInFrom) {
    EXPECT_EQ(usageError({"CountStat", "--from", "Value('Mox::CountStat', ** {'count': 9})"}),
        "mox: --from: this is no Mox::CountStat: expected \", 'last': \" at offset 38, at '})'\n"
        "    Value('Mox::CountStat', ** {'count': 9})\n"
        "                                          ^\n");
}

}  // namespace
