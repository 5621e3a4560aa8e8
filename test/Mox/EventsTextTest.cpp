#include "EventTypes.h"

#include "Mox/Statistics.h"

#include "Vel/base/Exception.h"

#include <algorithm>
#include <sstream>
#include <version>

namespace {

using namespace std::string_literals;

class EventTextTest : public EventTypeTest {
protected:
    // The sample's text up to a field's value, and what follows the value.
    std::string before(FieldFact const& field) const { return std::string(type.text).substr(0, field.textAt); }
    std::string behind(FieldFact const& field) const {
        return std::string(type.text).substr(field.textAt + std::string_view(field.text).size());
    }
    std::string with(FieldFact const& field, std::string const& text) const {
        return before(field) + text + behind(field);
    }
    bool isAccepted(std::string const& text) const {
        try {
            type.parsed(text);
            return true;
        } catch (Vel::ParseException const&) {
            return false;
        }
    }
};
INSTANTIATE_TEST_SUITE_P(Types, EventTextTest, eachEventType(), eventTypeName);

// --- printing ---

TEST_P(EventTextTest, TextFillsTheTemplate) {
    EXPECT_EQ(type.type().strepTemplate(), type.strepTemplate);
    EXPECT_EQ(type.textOf(EventValue(type).data()), type.zeroText);
    EXPECT_EQ(type.textOf(type.sample().data()), type.text);
}

TEST_P(EventTextTest, StreamsPrintTheTextWhateverTheirState) {
    std::ostringstream out;
    out << std::hex << type.sample() << ";" << EventValue(type);
    EXPECT_EQ(out.str(), type.text + ";"s + type.zeroText);
}

#if defined(__cpp_lib_format)
TEST_P(EventTextTest, FormatsAsItsText) { EXPECT_EQ(type.formatted(type.sample().data()), "["s + type.text + "]"); }
#endif

TEST_P(EventTextTest, LongestTextPrintsWhole) {
    std::string text = type.text;
    for (auto field = type.fields.rbegin(); field != type.fields.rend(); ++field)
        text.replace(field->textAt, std::string_view(field->text).size(),
            field->type == "U1"s    ? "False"
            : field->type == "U32"s ? "4294967295"
                                    : "-2.2250738585072014e-308");
    EXPECT_EQ(type.textOf(type.parsed(text).data()), text);
}

// --- parsing ---

TEST_P(EventTextTest, TextIsParsedBack) {
    EventValue value(type);
    type.strepToValueOfChars(value.data(), type.text);
    EXPECT_EQ(value, type.sample());
    type.strepToValueOfChars(value.data(), type.zeroText);
    EXPECT_EQ(value, EventValue(type));
    for (EventValue const& expected : type.oneFieldSet()) {
        type.strepToValueOfString(value.data(), type.textOf(expected.data()));
        EXPECT_EQ(value, expected);
    }
}

TEST_P(EventTextTest, ParsingStopsBehindTheText) {
    std::string const text = type.text;
    Vel::String const twice = text + text + ")";
    auto it = twice.begin();
    EventValue value(type);
    type.constructAt(value.data(), it, twice.end());
    EXPECT_EQ(value, type.sample());
    EXPECT_EQ(it.offset(), text.size());
    type.construct(value.data());
    type.constructAt(value.data(), it, twice.end());
    EXPECT_EQ(value, type.sample());
    EXPECT_EQ(it.offset(), 2 * text.size());
}

TEST_P(EventTextTest, EveryFormOfAValueThatIsPrintedIsAccepted) {
    for (FieldFact const& field : type.fields) {
        std::vector<std::string> texts;
        if (field.type == "U1"s)
            texts = {"True", "False"};
        else if (field.type == "U32"s)
            texts = {"0", "9", "10", "2147483647", "2147483648", "4294967295"};
        else
            texts = {"0.0", "-0.0", "0.1", "-1.5", "1700000000.125", "1e+16", "1e-05", "5e-324",
                "1.7976931348623157e+308", "inf", "-inf", "nan"};
        for (auto const& text : texts) {
            auto const whole = with(field, text);
            EXPECT_EQ(type.textOf(type.parsed(whole).data()), whole);
        }
    }
}

TEST_P(EventTextTest, OtherSpellingsOfAValueAreRefused) {
    for (FieldFact const& field : type.fields) {
        std::vector<std::string> texts = {"", " ", "x", "None", "''", "'1'", "{}", "%s", "%u"};
        if (field.type == "U1"s)
            texts.insert(texts.end(), {"true", "false", "TRUE", "1", "0", "Tru", "Fals", "Truee", "Falsee", " True",
                                          "True ", "Trueness", "FalseTrue", "\0True"s, "True\0"s});
        else if (field.type == "U32"s)
            texts.insert(texts.end(),
                {"-1", "+1", "-0", "01", "00", "4294967296", "4294967300", "18446744073709551616",
                    "18446744073709551617", "99999999999999999999", "340282366920938463463374607431768211457", "1.0",
                    "1e3", "0x1", "1u", "1L", "1_000", "1,000", " 1", "1 ", "True", "inf", "\xEF\xBC\x91", "1\0"s});
        else
            texts.insert(texts.end(),
                {"0", "1", "1.", ".5", "1e16", "1E+16", "1e+0016", "1.0e+16", "10000000000000000.0", "+1.0", "00.0",
                    "01.5", "0.10", "1.50", "0.0001e+5", "infinity", "Infinity", "INF", "+inf", "NaN", "-nan", "nan(1)",
                    "0x1.8p+0", "0.1000000000000000055511151231257827", "1e+400", "1e-400", "4e-324",
                    "1.7976931348623159e+308", " 1.5", "1.5 ", "1,5", "1.5s", "True", "1.5\0"s});
        for (auto const& text : texts) EXPECT_FALSE(isAccepted(with(field, text))) << field.name << text;
    }
}

TEST_P(EventTextTest, FieldsStandInTheirOrderAndEachOnce) {
    auto const& fields = type.fields;
    std::vector<std::size_t> order;
    auto const text = [&] {
        std::string text = "Value('"s + type.name + "', ** {";
        for (std::size_t i = 0; i < order.size(); ++i)
            text += (i ? ", '" : "'") + std::string(fields[order[i]].name) + "': " + fields[order[i]].text;
        return text + "})";
    };
    // Every choice of up to one field more than there are, in every order.
    std::size_t accepted = 0;
    std::size_t const base = fields.size() + 1;
    std::size_t codes = 1;
    for (std::size_t i = 0; i < base; ++i) codes *= base;
    for (std::size_t code = 0; code < codes; ++code) {
        order.clear();
        for (std::size_t rest = code; rest; rest /= base)
            if (rest % base) order.push_back(rest % base - 1);
        if (!isAccepted(text())) continue;
        EXPECT_EQ(text(), type.text);
        ++accepted;
    }
    EXPECT_GT(accepted, 0u);
}

TEST_P(EventTextTest, EveryBeginningOfTheTextIsRefused) {
    std::string const text = type.text;
    for (std::size_t size = 0; size < text.size(); ++size) EXPECT_FALSE(isAccepted(text.substr(0, size))) << size;
}

TEST_P(EventTextTest, EverySingleEditIsRefusedOrSaysAnotherValue) {
    std::string const text = type.text;
    static constexpr char alphabet[] = " '\"(){},:*.0179-+eEnifTFrtuVx\n";
    auto const check = [&](std::string const& edited) {
        if (edited == text || !isAccepted(edited)) return;
        auto const value = type.parsed(edited);
        EXPECT_EQ(type.textOf(value.data()), edited);
        EXPECT_FALSE(value == type.sample()) << edited;
    };
    for (std::size_t at = 0; at <= text.size(); ++at) {
        for (char const c : std::string_view(alphabet)) {
            check(std::string(text).insert(at, 1, c));
            if (at < text.size()) check(std::string(text).replace(at, 1, 1, c));
        }
        if (at < text.size()) check(std::string(text).erase(at, 1));
    }
}

TEST_P(EventTextTest, TextsOfOtherTypesAreRefused) {
    EXPECT_EQ(eventTypes().size(), 11u);
    for (EventType const& other : eventTypes())
        EXPECT_EQ(isAccepted(other.text), std::string(other.text) == type.text) << other.text;
}

// --- what is left behind by a parse that fails ---

TEST_P(EventTextTest, ParseThatFailsLeavesWhatItDidNotReachAtZero) {
    for (FieldFact const& field : type.fields) {
        EventValue value = type.sample();
        Vel::String const text = before(field) + "x";
        auto it = text.begin();
        EXPECT_THROW(type.parse(value.data(), it, text.end()), Vel::ParseException);
        std::string expected = type.zeroText;
        for (auto const& [name, kind, offset, said, zero, at] : type.fields) {
            if (name == field.name) break;
            auto const key = "'" + std::string(name) + "': ";
            expected.replace(expected.find(key), key.size() + std::string_view(zero).size(), key + said);
        }
        EXPECT_EQ(type.textOf(value.data()), expected) << field.name;
    }
}

TEST_P(EventTextTest, ReflectiveParseThatFailsLeavesTheTarget) {
    EventValue value = type.sample();
    auto const& glue = type.type().glue();
    for (std::string const& text : {""s, type.zeroText + "x"s, before(type.fields[1])}) {
        EXPECT_THROW(glue.genericIfStrepToValue(value.data(), text, type.type()), Vel::ParseException);
        EXPECT_EQ(value, type.sample());
    }
}

// --- what errors say ---

TEST_P(EventTextTest, ErrorsNameTheAttributeAndThePlace) {
    for (FieldFact const& field : type.fields) {
        std::string const what = field.type == "U1"s    ? "True or False"
                                 : field.type == "U32"s ? "a number from 0 to 4294967295"
                                                        : "seconds as the shortest decimal of a double, such as 1.5";
        auto const text = "attribute \"" + std::string(field.name) + "\": expected " + what + " at offset " +
                          std::to_string(field.textAt);
        EXPECT_EQ(type.parseError(before(field) + "x"), text + ", at 'x'");
        EXPECT_EQ(type.parseError(before(field)), text + ", at the end of the text");
    }
}

TEST_P(EventTextTest, ErrorsShowThePieceThatIsMissing) {
    std::string const opening = "Value('"s + type.name + "', ** {";
    EXPECT_EQ(type.parseError("x"), "expected \"" + opening + "\" at offset 0, at 'x'");
    for (FieldFact const& field : type.fields) {
        bool const isFirst = &field == &type.fields.front();
        auto const piece = (isFirst ? "'" : ", '") + std::string(field.name) + "': ";
        auto const at = field.textAt - piece.size();
        EXPECT_EQ(type.parseError(std::string(type.text).substr(0, at)),
            "expected \"" + piece + "\" at offset " + std::to_string(at) + ", at the end of the text");
    }
    std::string const text = type.text;
    EXPECT_EQ(type.parseError(text.substr(0, text.size() - 1)),
        "expected \"})\" at offset " + std::to_string(text.size() - 2) + ", at '}'");
    EXPECT_EQ(type.parseError(text + "\n"),
        "expected the end of the text at offset " + std::to_string(text.size()) + ", at '\\n'");
}

TEST(EventErrorTest, ErrorsQuoteTheText) {
    EXPECT_EQ(parseError<Mox::Event>("Value('Mox::Event', ** {'value': 1, 'when': 0.0})"),
        "attribute \"value\": expected True or False at offset 33, at '1, \\'when\\': 0.0})'");
    EXPECT_EQ(parseError<Mox::Event>("Value('Mox::Event', ** { 'value': True, 'when': 0.0})"),
        "expected \"'value': \" at offset 24, at ' \\'value\\': True, \\'when\\': '...");
    EXPECT_EQ(parseError<Mox::EventOrCount>("Value('Mox::EventOrCount', ** {'count': 1, 'value': True, 'when': 0.0})"),
        "expected \"'value': \" at offset 31, at '\\'count\\': 1, \\'value\\': Tru'...");
    EXPECT_EQ(parseError<Mox::CountStat>("Value('Mox::CountStat', ** {'count': 4294967296, 'last': 0.0})"),
        "attribute \"count\": expected a number from 0 to 4294967295 at offset 37, at '4294967296, \\'last\\': "
        "0.0}'...");
    EXPECT_EQ(parseError<Mox::CountStat>("Value('Mox::CountStat', ** {'count': 0, 'last': 5})"),
        "attribute \"last\": expected seconds as the shortest decimal of a double, such as 1.5 at offset 48, at '5})'");
}

TEST_P(EventTextTest, CheckedParseYieldsTheValueOrTheError) {
    EventValue value(type);
    Vel::CheckedError error;
    ASSERT_TRUE(type.checkedStrepToValue(value.data(), type.text, error));
    EXPECT_EQ(value, type.sample());
    auto const& last = type.fields.back();
    ASSERT_FALSE(type.checkedStrepToValue(value.data(), with(last, "x"), error));
    EXPECT_EQ(error.offset, last.textAt);
    EXPECT_EQ(error.text, type.parseError(with(last, "x")));
    value = type.sample();
    ASSERT_FALSE(type.checkedStrepToValue(value.data(), type.text + "}"s, error));
    EXPECT_EQ(error.offset, std::string_view(type.text).size());
    EXPECT_EQ(value, EventValue(type));
}

}  // namespace
