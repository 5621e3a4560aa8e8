#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace ToolTest;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char gauge[] = "Value('Test::Gauge', ** {'level': 4, 'label': 'it\\'s'})";

TEST(MoxValueTest, ShowsEverythingOfANumber) {
    Outcome const outcome = mox({"value", "--type", "Mox::Seqno16", "258"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "type          Mox::Seqno16\n"
                           "module        Seqno b10c04b51b44f4ab\n"
                           "text          258\n"
                           "bytes         01 02\n"
                           "encoded size  2 bytes\n"
                           "hash          -\n"
                           "truth         True\n"
                           "\n"
                           "  attribute  kind   type  value\n"
                           "  value      field  U16   258\n");
}

TEST(MoxValueTest, TakesTheTypeFromTheText) {
    Outcome const outcome = mox({"--module", GAUGE_LIBRARY, "value", gauge});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "type          Test::Gauge\n"
                           "module        Gauge 151e8898ba266406\n"
                           "text          Value('Test::Gauge', ** {'level': 4, 'label': 'it\\'s'})\n"
                           "bytes         00 00 00 04 00 00 00 04 69 74 27 73\n"
                           "encoded size  12 bytes\n"
                           "hash          00000004\n"
                           "truth         True\n"
                           "\n"
                           "  attribute  kind      type         value\n"
                           "  level      field     U32          4\n"
                           "  label      field     Vel::String  'it\\'s'\n"
                           "  part       derived   U32          250\n"
                           "  limit      constant  U32          1000\n");
}

TEST(MoxValueTest, LeavesOutWhatCannotBeComputed) {
    Outcome const outcome =
        mox({"--module", GAUGE_LIBRARY, "value", "Value('Test::Gauge', ** {'level': 0, 'label': ''})"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(row(outcome.out, "truth"), ElementsAre("truth", "False"));
    EXPECT_THAT(outcome.out, testing::Not(HasSubstr("part")));
    EXPECT_THAT(outcome.out, HasSubstr("limit"));
}

TEST(MoxValueTest, JsonTellsTheSame) {
    Outcome const outcome = mox({"--module", GAUGE_LIBRARY, "value", gauge, "--json"});
    auto const json = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(json["type"], "Test::Gauge");
    EXPECT_EQ(json["module"], "Gauge");
    EXPECT_EQ(json["text"], gauge);
    EXPECT_EQ(json["bytes"], "00 00 00 04 00 00 00 04 69 74 27 73");
    EXPECT_EQ(json["encodedSize"], 12);
    EXPECT_EQ(json["hash"], 4);
    EXPECT_EQ(json["truth"], true);
    EXPECT_EQ(json["attributes"][2],
        (nlohmann::json{{"name", "part"}, {"kind", "derived"}, {"type", "U32"}, {"text", "250"}}));
    EXPECT_EQ(json["attributes"].size(), 4u);
}

TEST(MoxValueTest, DecodesBytes) {
    for (char const* const hex : {"0000002a", "00 00 00 2A", "00:00:00:2a", " 0 0\t00\n002a "}) {
        Outcome const outcome = mox({"value", "--type", "U32", "--hex", hex});
        EXPECT_EQ(outcome.code, 0) << hex;
        EXPECT_THAT(row(outcome.out, "text"), ElementsAre("text", "42"));
    }
}

TEST(MoxValueTest, ReadsStandardInputWithoutItsLastNewline) {
    EXPECT_THAT(row(mox({"value", "--type", "U8", "-"}, {}, "7\n").out, "text"), ElementsAre("text", "7"));
    EXPECT_THAT(row(mox({"value", "--type", "U8", "--hex", "-"}, {}, "07\n\n").out, "text"), ElementsAre("text", "7"));
    EXPECT_EQ(mox({"value", "--type", "U8", "-"}, {}, "7\n\n").code, 1);
}

// --- errors: exit code and exact text ---

Outcome failing(int code, std::vector<std::string> arguments, std::string_view input = {}) {
    arguments.insert(arguments.begin(), {"--module", GAUGE_LIBRARY, "value"});
    Outcome outcome = mox(arguments, {}, input);
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.out, "");
    return outcome;
}

TEST(MoxValueTest, PutsACaretBelowThePlaceOfAParseError) {
    EXPECT_EQ(failing(1, {"--type", "U32", "12x"}).err,
        "mox: this is no U32: expected the end of the text at offset 2, at 'x'\n"
        "    12x\n"
        "      ^\n");
}

TEST(MoxValueTest, PutsTheCaretBelowTheRightCharacterInLongAndForeignTexts) {
    std::string const label = "\xc3\xa4\xc3\xb6\xc3\xbc";  // three characters of two bytes each
    std::string const text = "Value('Test::Gauge', ** {'level': 4, 'label': '" + label + "'}";
    std::string const err = failing(1, {text}).err;
    EXPECT_THAT(err, HasSubstr("\n    ...e('Test::Gauge', ** {'level': 4, 'label': '" + label + "'}\n" +
                               std::string(4 + 3 + 47, ' ') + "^\n"));
}

TEST(MoxValueTest, ShowsControlCharactersOfABadTextEscapedAndTabsAsBlanks) {
    EXPECT_THAT(failing(1, {"--type", "U8", "7\x1b[2J\t."}).err, HasSubstr("\n    7\\x1b[2J .\n     ^\n"));
}

TEST(MoxValueTest, SaysThatATextIsEmpty) {
    EXPECT_EQ(failing(1, {"--type", "U8", ""}).err,
        "mox: this is no U8: expected a number from 0 to 255 at offset 0, at the end of the text\n    (empty)\n");
}

TEST(MoxValueTest, SaysHowManyBytesAreLeftOver) {
    EXPECT_EQ(failing(1, {"--type", "U16", "--hex", "00 01 02 03 04"}).err,
        "mox: 3 bytes are left over: a U16 ends after 2 of the 5\n"
        "    00 01 02 03 04\n"
        "          ^\n");
    EXPECT_THAT(failing(1, {"--type", "U16", "--hex", "000102"}).err, HasSubstr("mox: 1 byte is left over: "));
}

TEST(MoxValueTest, SaysWhatIsMissingOfBytes) {
    EXPECT_EQ(failing(1, {"--type", "U32", "--hex", "0001"}).err,
        "mox: these bytes are no U32: the attribute log ends within U32 at offset 0: 4 bytes needed, 2 left\n"
        "    00 01\n"
        "    ^\n");
}

TEST(MoxValueTest, SaysWhatIsWrongWithHexadecimalDigits) {
    EXPECT_EQ(failing(1, {"--type", "U16", "--hex", "00 0g"}).err,
        "mox: no hexadecimal digit at offset 4 (blanks and colons may stand between digits)\n"
        "    00 0g\n"
        "        ^\n");
    EXPECT_EQ(failing(1, {"--type", "U16", "--hex", "000"}).err,
        "mox: the last byte is half: there is an odd number of hexadecimal digits\n"
        "    000\n"
        "       ^\n");
}

TEST(MoxValueTest, ExplainsAValueThatBreaksAPrecondition) {
    std::string const err = failing(1, {"--type", "Test::Fragile", "13"}).err;
    EXPECT_THAT(
        err, HasSubstr("/src/Test/Gauge:2: void Test::Fragile::check() const: Assertion `value != 13' failed."));
    EXPECT_THAT(err, testing::EndsWith("mox: this breaks a precondition of the type, as the assertion above says\n"));
}

TEST(MoxValueTest, PassesOnAnErrorWithoutAPlace) {
    EXPECT_EQ(failing(1, {"--type", "Test::Fragile", "14"}).err, "mox: this is no Test::Fragile: 14 is taken\n");
}

TEST(MoxValueTest, AsksForWhatIsMissingOnTheCommandLine) {
    EXPECT_EQ(failing(2, {}).err, "mox: give a text, --hex BYTES, or - for standard input\n");
    EXPECT_EQ(failing(2, {"7"}).err, "mox: the text does not name its type, as Value('TYPE', ...) does; say --type "
                                     "TYPE (\"mox types\" lists them)\n");
    EXPECT_EQ(failing(2, {"--hex", "00"}).err, "mox: --hex needs --type TYPE: bytes name no type\n");
    EXPECT_EQ(failing(2, {"--hex", "00", "7"}).err, "mox: give a text or --hex, not both\n");
    EXPECT_EQ(failing(2, {"--type", "Cell::Status", "7"}).err,
        "mox: Cell::Status is an entity, which is no value and has no text form; \"mox types Cell::Status\" shows its "
        "attributes\n");
    EXPECT_EQ(failing(2, {"Value('Mox::Seqno61', 7)"}).err,
        "mox: there is no type Mox::Seqno61; did you mean Mox::Seqno16 or Mox::Seqno32?\n");
}

// --- hostile input ---

TEST(MoxValueTest, TakesNulsForWhatTheyAre) {
    std::string_view const text("7\0", 2);
    EXPECT_EQ(failing(1, {"--type", "U8", "-"}, text).code, 1);
    Outcome const string = mox({"value", "--type", "Vel::String", "--hex", "00000002 00 61"});
    EXPECT_THAT(row(string.out, "text"), ElementsAre("text", "'\\x00a'"));
}

TEST(MoxValueTest, BelievesNoLength) {
    EXPECT_THAT(failing(1, {"--type", "Vel::String", "--hex", "ffffffff 61"}).err, HasSubstr("these bytes are no "));
}

TEST(MoxValueTest, ShortensTheFormsOfALongText) {
    std::string const text = "'" + std::string(1u << 20, 'x') + "'";
    Outcome const outcome = mox({"value", "--type", "Vel::String", "-"}, {}, text);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_LT(outcome.out.size(), 20000u);
    EXPECT_THAT(outcome.out, HasSubstr("... (1048578 bytes in all)\n"));
    EXPECT_THAT(row(outcome.out, "encoded size"), ElementsAre("encoded size", "1048580 bytes"));
}

TEST(MoxValueTest, TakesAWordForAStringAndAWholeNumberForADouble) {
    auto const taken = [](std::string const& type, std::string const& text) {
        Outcome const outcome = mox({"value", "--verbose", "--type", type, "--", text});
        return outcome.err + row(outcome.out, "text").back();
    };
    EXPECT_EQ(taken("Vel::String", "uplink"), "mox: uplink is taken for the text 'uplink'\n"
                                              "'uplink'");
    EXPECT_EQ(taken("Vel::String", "'uplink'"), "'uplink'");
    EXPECT_EQ(taken("F64", "-12"), "mox: -12 is taken for -12.0\n"
                                   "-12.0");
    EXPECT_EQ(taken("F64", "10000000000000000"), "mox: 10000000000000000 is taken for 1e+16\n"
                                                 "1e+16");
    EXPECT_EQ(taken("Mox::TristateString", "Value('Mox::TristateString', ** {'value': up, 'isSet': True})"),
        "mox: value: up is taken for the text 'up'\n"
        "Value('Mox::TristateString', ** {'value': 'up', 'isSet': True})");
    EXPECT_EQ(mox({"value", "--type", "Vel::String", "uplink"}).err, "");
}

TEST(MoxValueTest, TakesNothingThatIsNotMeantByIt) {
    auto const refused = [](std::string const& type, std::string const& text) {
        Outcome const outcome = mox({"value", "--type", type, "--", text});
        EXPECT_EQ(outcome.code, 1);
        EXPECT_EQ(outcome.out, "");
        return outcome.err;
    };
    // No double is this number, so none can be meant.
    EXPECT_EQ(refused("F64", "9007199254740993"),
        "mox: this is no F64: expected the shortest decimal of a double, such as 1.5 at offset 0, at "
        "'9007199254740993'\n    9007199254740993\n    ^\n");
    EXPECT_THAT(refused("Vel::String", "two words"), HasSubstr("at offset 0, at 'two words'"));
    EXPECT_THAT(refused("Vel::String", "it's"), HasSubstr("at offset 0"));
    EXPECT_THAT(refused("U8", "1.0"), HasSubstr("expected the end of the text at offset 1"));
    EXPECT_THAT(refused("Mox::Count", "Value('Mox::Count', ** {'count': x, 'when': 1})"), HasSubstr("at offset 33"));
}

TEST(MoxValueTest, RefusesMoreInputThanAnyValueNeeds) {
    std::string const text((16u << 20) + 1, '0');
    EXPECT_EQ(failing(1, {"--type", "U8", "--hex", "-"}, text).err,
        "mox: standard input holds more than 16 MiB, which no value needs\n");
}

TEST(MoxValueTest, ShortensAHugeTypeName) {
    std::string const err = failing(2, {"Value('" + std::string(100000, 'x') + "', "}).err;
    EXPECT_LT(err.size(), 300u);
}

}  // namespace
