#include "Mox/MaybeTypes.h"

#include "ModuleTable.h"
#include "RecordTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <optional>
#include <sstream>
#include <vector>

namespace {

using Mox::MaybeU63;
using Vel::AttributeOp;
using Vel::U64;
using namespace std::string_literals;

constexpr U64 absentWord = 9223372036854775808ul;
constexpr U64 largest = 9223372036854775807ul;

MaybeU63 parsed(std::string const& text) { return Vel::strepToValue<MaybeU63>(text, nullptr); }

// --- values ---

TEST(MaybeU63Test, DefaultIsTheNumberZero) {
    EXPECT_EQ(MaybeU63().value(), 0u);
    EXPECT_FALSE(MaybeU63().null());
}

TEST(MaybeU63Test, WordsFromBit63UpAreAbsent) {
    static_assert(MaybeU63::nullBit() == absentWord);
    EXPECT_FALSE(MaybeU63(largest).null());
    EXPECT_EQ(MaybeU63(largest).value(), largest);
    EXPECT_TRUE(MaybeU63(absentWord).null());
    EXPECT_TRUE(MaybeU63(absentWord + 5).null());
    EXPECT_EQ(MaybeU63(absentWord + 5).value(), absentWord + 5);
    EXPECT_EQ(MaybeU63(std::nullopt).value(), absentWord);
}

TEST(MaybeU63Test, NullIsAViewOfBit63) {
    MaybeU63 maybe = 5;
    maybe.nullIs(true);
    EXPECT_EQ(textOf(maybe), "None");
    EXPECT_EQ(maybe.value(), absentWord + 5);
    maybe.nullIs(true);
    EXPECT_EQ(maybe.value(), absentWord + 5);
    maybe.nullIs(false);
    EXPECT_EQ(textOf(maybe), "5");
    maybe.nullIs(false);
    EXPECT_EQ(maybe.value(), 5u);
}

TEST(MaybeU63Test, ValueIsTheRawWord) {
    MaybeU63 maybe;
    maybe.valueIs(18446744073709551615ul);
    EXPECT_TRUE(maybe.null());
    EXPECT_EQ(maybe.value(), 18446744073709551615ul);
    maybe.nullIs(false);
    EXPECT_EQ(maybe.value(), largest);
}

TEST(MaybeU63Test, IsAnOptionalNumber) {
    using Optional = std::optional<U64>;
    EXPECT_EQ(MaybeU63(Optional()).value(), absentWord);
    EXPECT_EQ(MaybeU63(Optional(7)).value(), 7u);
    EXPECT_EQ(MaybeU63(Optional(largest)).value(), largest);
    EXPECT_EQ(messageOf<Vel::RangeException>([] { MaybeU63(Optional(absentWord)); }),
        "9223372036854775808 does not fit into 63 bits");
    EXPECT_EQ(MaybeU63(7).optional(), Optional(7));
    EXPECT_EQ(MaybeU63().optional(), Optional(0));
    EXPECT_EQ(MaybeU63(absentWord + 7).optional(), std::nullopt);
}

TEST(MaybeU63Test, HasNoHash) {
    EXPECT_FALSE(HasHash<MaybeU63>);
    expectNoHash<MaybeU63>("Mox::MaybeU63");
}

// --- text ---

TEST(MaybeU63Test, TextIsTheNumberOrNone) {
    for (auto const& [word, text] : {std::pair(U64(0), "0"), std::pair(U64(42), "42"),
             std::pair(largest, "9223372036854775807"), std::pair(absentWord, "None"),
             std::pair(absentWord + 42, "None"), std::pair(18446744073709551615ul, "None")}) {
        EXPECT_EQ(MaybeU63(word).stringValue(), text);
        EXPECT_EQ(textOf(MaybeU63(word)), text);
        EXPECT_EQ(printed(MaybeU63(word)), text);
        EXPECT_EQ(Vel::GenericValue(Vel::typeOf<MaybeU63>(), text).strep(), text);
    }
}

TEST(MaybeU63Test, StreamsBaseDoesNotShow) {
    std::ostringstream out;
    out << std::hex << std::showbase << MaybeU63(255) << " " << MaybeU63(absentWord);
    EXPECT_EQ(out.str(), "255 None");
}

TEST(MaybeU63Test, TextsAreParsed) {
    EXPECT_EQ(parsed("None").value(), absentWord);
    EXPECT_EQ(parsed("NoneL").value(), absentWord);
    EXPECT_EQ(parsed("Nonel").value(), absentWord);
    EXPECT_EQ(parsed("0").value(), 0u);
    EXPECT_EQ(parsed("0L").value(), 0u);
    EXPECT_EQ(parsed("42").value(), 42u);
    EXPECT_EQ(parsed("42L").value(), 42u);
    EXPECT_EQ(parsed("42l").value(), 42u);
    EXPECT_EQ(parsed("9223372036854775807").value(), largest);
}

TEST(MaybeU63Test, NumbersThatNeedBit63ReadAsAbsent) {
    EXPECT_EQ(textOf(parsed("9223372036854775808")), "None");
    EXPECT_EQ(parsed("9223372036854775808L").value(), absentWord);
    EXPECT_EQ(parsed("9223372036854775809").value(), absentWord + 1);
    EXPECT_EQ(parsed("18446744073709551615").value(), 18446744073709551615ul);
}

TEST(MaybeU63Test, OtherTextsAreRefused) {
    for (auto const* const text :
        {"none", "NONE", "Non", "N", "L", "-1", "+1", " 1", "1 ", "0x1", "1.0", "007", "18446744073709551616", "42LL",
            "42Ll", "NoneLL", "NoneNone", "None0", "42 L", "4L2", "''", "Value('Mox::MaybeU63', ** {'value': 7})"})
        expectRefused<MaybeU63>(text);
}

TEST(MaybeU63Test, RefusalsSayWhatWasExpectedAndWhere) {
    EXPECT_EQ(parseError<MaybeU63>("none"), "expected a number from 0 to 18446744073709551615 at offset 0, at 'none'");
    EXPECT_EQ(parseError<MaybeU63>("42LL"), "expected the end of the text at offset 3, at 'L'");
    EXPECT_EQ(parseError<MaybeU63>("None x"), "expected the end of the text at offset 4, at ' x'");
}

TEST(MaybeU63Test, NothingIsRefusedByItsOwnMessage) {
    EXPECT_EQ(messageOf<Vel::RangeException>([] { parsed(""); }), "Error deserializing Mox::MaybeU63");
    MaybeU63 maybe = 7;
    EXPECT_EQ(messageOf<Vel::RangeException>([&] { maybe.stringValueIs(""); }), "Error deserializing Mox::MaybeU63");
    EXPECT_EQ(maybe.value(), 7u);
    auto const checked = Vel::checkedStrepToValue<MaybeU63>("");
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, "Error deserializing Mox::MaybeU63");
}

TEST(MaybeU63Test, StringValueIsAssignsAWholeText) {
    MaybeU63 maybe;
    for (auto const& [text, word] : {std::pair("17", U64(17)), std::pair("None", absentWord), std::pair("18L", U64(18)),
             std::pair("NoneL", absentWord), std::pair("19l", U64(19)),
             std::pair("9223372036854775813", absentWord + 5)}) {
        maybe.stringValueIs(text);
        EXPECT_EQ(maybe.value(), word) << text;
    }
}

TEST(MaybeU63Test, StringValueIsRefusesLeftOversAndKeepsTheValue) {
    MaybeU63 maybe = 7;
    for (auto const* const text : {"42LL", "42 ", "42x", "007", "NoneNone", "NoneLl", "9 None"})
        EXPECT_EQ(messageOf<Vel::RangeException>([&] { maybe.stringValueIs(text); }), "Invalid Mox::MaybeU63") << text;
    EXPECT_THROW(maybe.stringValueIs("none"), Vel::RangeException);
    EXPECT_THROW(maybe.stringValueIs(Vel::String()), Vel::RangeException);
    EXPECT_EQ(maybe.value(), 7u);
}

TEST(MaybeU63Test, SequencesAreParsedOneByOne) {
    Vel::String const text = "42L,NoneL,NoneNon";
    auto it = text.begin();
    auto const end = text.end();
    MaybeU63* const type = nullptr;
    EXPECT_EQ(sequenceToValue(it, end, type).value(), 42u);
    EXPECT_EQ(it - text.begin(), 3);
    ++it;
    EXPECT_EQ(sequenceToValue(it, end, type).value(), absentWord);
    EXPECT_EQ(it - text.begin(), 9);
    ++it;
    EXPECT_EQ(sequenceToValue(it, end, type).value(), absentWord);
    EXPECT_EQ(it - text.begin(), 14);
    EXPECT_THROW(sequenceToValue(it, end, type), Vel::RangeException);
    EXPECT_EQ(it - text.begin(), 14);
}

// --- attribute log ---

TEST(MaybeU63Test, BytesAreTheRawWord) {
    EXPECT_EQ(writtenHex(MaybeU63()), "0000000000000000");
    EXPECT_EQ(writtenHex(MaybeU63(0x0102030405060708ul)), "0102030405060708");
    EXPECT_EQ(writtenHex(MaybeU63(absentWord + 1)), "8000000000000001");
    EXPECT_EQ(readFrom<MaybeU63>("8000000000000001").value(), absentWord + 1);
    EXPECT_EQ(readFrom<MaybeU63>("7fffffffffffffff").value(), largest);
    EXPECT_EQ(Vel::typeOf<MaybeU63>().encodedSize(), 8u);
    MaybeU63 const maybe;
    EXPECT_EQ(attrLogSize(&maybe), 8u);
}

TEST(MaybeU63Test, OtherLengthsAreRefused) {
    expectOtherLengthsRefused<MaybeU63>("0102030405060708");
    EXPECT_EQ(readError<MaybeU63>("01020304050607"),
        "Mox::MaybeU63.value: the attribute log ends within U64 at offset 0: 8 bytes needed, 7 left");
}

// --- reflection ---

TEST(MaybeU63ReflectionTest, ValueIsReadAndWrittenRaw) {
    MaybeU63 object = absentWord + 5;
    U64 word = 0;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::get, &word), 0);
    EXPECT_EQ(word, absentWord + 5);
    word = 18446744073709551615ul;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::set, nullptr, &word), 0);
    EXPECT_EQ(object.value(), 18446744073709551615ul);
}

TEST(MaybeU63ReflectionTest, NullIsReadAndWrittenWithoutTheLowBits) {
    MaybeU63 object = 5;
    bool null = true;
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, &null), 0);
    EXPECT_FALSE(null);
    null = true;
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::set, nullptr, &null), 0);
    EXPECT_EQ(object.value(), absentWord + 5);
    null = false;
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, &null), 0);
    EXPECT_TRUE(null);
    null = false;
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::set, nullptr, &null), 0);
    EXPECT_EQ(object.value(), 5u);
}

TEST(MaybeU63ReflectionTest, ConstantsAreReadOnly) {
    MaybeU63 object = 5;
    U64 word = 0;
    EXPECT_EQ(attributeOp(object, 4, AttributeOp::get, &word), 0);
    EXPECT_EQ(word, absentWord);
    Vel::String text;
    EXPECT_EQ(attributeOp(object, 6, AttributeOp::get, &text), 0);
    EXPECT_EQ(text, "stringValue");
    EXPECT_EQ(attributeOp(object, 4, AttributeOp::set, nullptr, &word), 1);
    EXPECT_EQ(attributeOp(object, 6, AttributeOp::set, nullptr, &text), 1);
    EXPECT_EQ(object.value(), 5u);
}

TEST(MaybeU63ReflectionTest, StringValueIsReadAndWritten) {
    MaybeU63 object = absentWord + 5;
    Vel::String text;
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::get, &text), 0);
    EXPECT_EQ(text, "None");
    Vel::String const number = "42L";
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::set, nullptr, &number), 0);
    EXPECT_EQ(object.value(), 42u);
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::get, &text), 0);
    EXPECT_EQ(text, "42");
    Vel::String const tooMuch = "42LL";
    EXPECT_THROW(attributeOp(object, 5, AttributeOp::set, nullptr, &tooMuch), Vel::RangeException);
    EXPECT_EQ(object.value(), 42u);
}

TEST(MaybeU63ReflectionTest, OtherOperationsAreRefused) {
    MaybeU63 object = 5;
    int result = 77;
    for (Vel::AttributeId const id : {2u, 3u, 5u})
        for (Vel::U32 op = 2; op < 40; ++op)
            EXPECT_EQ(attributeOp(object, id, AttributeOp(op), &result, &result), 1) << id << " " << op;
    using Ops = std::vector<Vel::U32>;
    EXPECT_EQ(opsNotAnswered(object, 4, 1, 0), Ops());
    EXPECT_EQ(opsNotAnswered(object, 6, 1, 0), Ops());
    for (Vel::AttributeId const id : {0u, 1u, 7u, 258u}) EXPECT_EQ(opsNotAnswered(object, id, 2), Ops()) << id;
    EXPECT_EQ(object.value(), 5u);
    EXPECT_EQ(result, 77);
}

TEST(MaybeU63ReflectionTest, IsConstructedFromItsWordCopiedAndParsed) {
    auto const type = Vel::typeOf<MaybeU63>();
    auto const& glue = type.glue();
    MaybeU63 object = 99;
    MaybeU63 const source = absentWord + 7;
    glue.genericIfConstruct(&object, nullptr);
    EXPECT_EQ(object.value(), 0u);
    glue.genericIfConstruct(&object, &source);
    EXPECT_EQ(object.value(), absentWord + 7);
    U64 const word = absentWord + 8;
    void const* const arguments[] = {&word};
    glue.genericIfConstructFromCtorArgs(&object, arguments);
    EXPECT_EQ(object.value(), absentWord + 8);
    glue.genericIfStrepToValue(&object, "44L", type);
    EXPECT_EQ(glue.genericIfStrRep(&object, type), "44");
    EXPECT_THROW(glue.genericIfStrepToValue(&object, "45LL", type), Vel::ParseException);
    EXPECT_THROW(glue.genericIfStrepToValue(&object, "", type), Vel::RangeException);
    EXPECT_EQ(object.value(), 44u);
    glue.genericIfDestruct(&object);
}

// --- module table ---

TEST(MaybeTypesModuleTest, AttributesAreListed) {
    EXPECT_EQ(attributesOf(Vel::Registry::type("Mox::MaybeU63")),
        (std::vector<std::string>{"2 value field get set U64", "3 null derived get set bool",
            "4 nullBit constant get U64", "5 stringValue derived get set Vel::String",
            "6 defaultReprAttribute constant get Vel::String"}));
}

TEST(MaybeTypesModuleTest, NamesAreListedInByteOrder) {
    ModuleTable const table("_MaybeTypes_5ce28a8f6c54f636_velModule");
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.typeNames(), "Mox::MaybeU63\0U64\0"s);
    EXPECT_EQ(table.attributeNames(), "\0defaultReprAttribute\0null\0nullBit\0stringValue\0value\0"s);
    ASSERT_EQ(table.types(), 1u);
    EXPECT_EQ(table.firstAttribute(0), 0u);
    EXPECT_EQ(table.attributeCount(0), 5u);
    for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(table.attributeId(i), i + 2);
    EXPECT_EQ(table.attributeName(4), "defaultReprAttribute");
}

#if defined(__cpp_lib_format)
TEST(MaybeU63Test, FormatsAsItsText) { EXPECT_EQ(std::format("{:>5}", MaybeU63(absentWord)), " None"); }
#endif

}  // namespace
