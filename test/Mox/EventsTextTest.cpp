#include "StatisticsTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Checked.h"
#include "Vel/describe/Format.h"

#include <algorithm>
#include <sstream>

namespace {

using namespace std::string_literals;

template <class T> class EventTextTest : public testing::Test {
protected:
    using Type = Facts<T>;
    // The sample's text up to a field's value, and what follows the value.
    static std::string before(FieldFact const& field) { return std::string(Type::text).substr(0, field.textAt); }
    static std::string behind(FieldFact const& field) {
        return std::string(Type::text).substr(field.textAt + std::string_view(field.text).size());
    }
    static std::string with(FieldFact const& field, std::string const& text) {
        return before(field) + text + behind(field);
    }
    static bool isAccepted(std::string const& text) {
        try {
            Vel::strepToValue<T>(text);
            return true;
        } catch (Vel::ParseException const&) {
            return false;
        }
    }
};
TYPED_TEST_SUITE(EventTextTest, EventAndStatisticTypes, TypeNames);

// --- printing ---

TYPED_TEST(EventTextTest, TextFillsTheTemplate) {
    EXPECT_EQ(Vel::typeOf<TypeParam>().strepTemplate(), Facts<TypeParam>::strepTemplate);
    EXPECT_EQ(textOf(TypeParam()), Facts<TypeParam>::zeroText);
    EXPECT_EQ(textOf(Facts<TypeParam>::sample()), Facts<TypeParam>::text);
}

TYPED_TEST(EventTextTest, StreamsPrintTheTextWhateverTheirState) {
    std::ostringstream out;
    out << std::hex << Facts<TypeParam>::sample() << ";" << TypeParam();
    EXPECT_EQ(out.str(), Facts<TypeParam>::text + ";"s + Facts<TypeParam>::zeroText);
}

#if defined(__cpp_lib_format)
TYPED_TEST(EventTextTest, FormatsAsItsText) {
    EXPECT_EQ(std::format("[{}]", Facts<TypeParam>::sample()), "["s + Facts<TypeParam>::text + "]");
}
#endif

TYPED_TEST(EventTextTest, LongestTextPrintsWhole) {
    std::string text = Facts<TypeParam>::text;
    for (auto field = Facts<TypeParam>::fields.rbegin(); field != Facts<TypeParam>::fields.rend(); ++field)
        text.replace(field->textAt, std::string_view(field->text).size(),
            field->type == "U1"s    ? "False"
            : field->type == "U32"s ? "4294967295"
                                    : "-2.2250738585072014e-308");
    EXPECT_EQ(textOf(Vel::strepToValue<TypeParam>(text)), text);
}

// --- parsing ---

TYPED_TEST(EventTextTest, TextIsParsedBack) {
    EXPECT_EQ(Vel::strepToValue<TypeParam>(Facts<TypeParam>::text, nullptr), Facts<TypeParam>::sample());
    EXPECT_EQ(Vel::strepToValue<TypeParam>(Facts<TypeParam>::zeroText, nullptr), TypeParam());
    for (TypeParam const& value : Facts<TypeParam>::oneFieldSet())
        EXPECT_EQ(Vel::strepToValue<TypeParam>(valueToStrep(value)), value);
}

TYPED_TEST(EventTextTest, ParsingStopsBehindTheText) {
    std::string const text = Facts<TypeParam>::text;
    Vel::String const twice = text + text + ")";
    auto it = twice.begin();
    EXPECT_EQ(TypeParam(it, twice.end()), Facts<TypeParam>::sample());
    EXPECT_EQ(it.offset(), text.size());
    EXPECT_EQ(TypeParam(it, twice.end()), Facts<TypeParam>::sample());
    EXPECT_EQ(it.offset(), 2 * text.size());
}

TYPED_TEST(EventTextTest, EveryFormOfAValueThatIsPrintedIsAccepted) {
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        std::vector<std::string> texts;
        if (field.type == "U1"s)
            texts = {"True", "False"};
        else if (field.type == "U32"s)
            texts = {"0", "9", "10", "2147483647", "2147483648", "4294967295"};
        else
            texts = {"0.0", "-0.0", "0.1", "-1.5", "1700000000.125", "1e+16", "1e-05", "5e-324",
                "1.7976931348623157e+308", "inf", "-inf", "nan"};
        for (auto const& text : texts) {
            auto const whole = this->with(field, text);
            EXPECT_EQ(textOf(Vel::strepToValue<TypeParam>(whole)), whole);
        }
    }
}

TYPED_TEST(EventTextTest, OtherSpellingsOfAValueAreRefused) {
    for (FieldFact const& field : Facts<TypeParam>::fields) {
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
        for (auto const& text : texts) EXPECT_FALSE(this->isAccepted(this->with(field, text))) << field.name << text;
    }
}

TYPED_TEST(EventTextTest, FieldsStandInTheirOrderAndEachOnce) {
    auto const& fields = Facts<TypeParam>::fields;
    std::vector<std::size_t> order;
    auto const text = [&] {
        std::string text = "Value('"s + Facts<TypeParam>::name + "', ** {";
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
        if (!this->isAccepted(text())) continue;
        EXPECT_EQ(text(), Facts<TypeParam>::text);
        ++accepted;
    }
    EXPECT_GT(accepted, 0u);
}

TYPED_TEST(EventTextTest, EveryBeginningOfTheTextIsRefused) {
    std::string const text = Facts<TypeParam>::text;
    for (std::size_t size = 0; size < text.size(); ++size) EXPECT_FALSE(this->isAccepted(text.substr(0, size))) << size;
}

TYPED_TEST(EventTextTest, EverySingleEditIsRefusedOrSaysAnotherValue) {
    std::string const text = Facts<TypeParam>::text;
    static constexpr char alphabet[] = " '\"(){},:*.0179-+eEnifTFrtuVx\n";
    auto const check = [&](std::string const& edited) {
        if (edited == text || !this->isAccepted(edited)) return;
        auto const value = Vel::strepToValue<TypeParam>(edited);
        EXPECT_EQ(textOf(value), edited);
        EXPECT_FALSE(value == Facts<TypeParam>::sample()) << edited;
    };
    for (std::size_t at = 0; at <= text.size(); ++at) {
        for (char const c : std::string_view(alphabet)) {
            check(std::string(text).insert(at, 1, c));
            if (at < text.size()) check(std::string(text).replace(at, 1, 1, c));
        }
        if (at < text.size()) check(std::string(text).erase(at, 1));
    }
}

TYPED_TEST(EventTextTest, TextsOfOtherTypesAreRefused) {
    for (std::string const other : {Facts<Mox::Event>::text, Facts<Mox::Count>::text, Facts<Mox::EventOrCount>::text,
             Facts<Mox::ConditionOrChanged>::text, Facts<Mox::ConditionStat>::text, Facts<Mox::EventStat>::text,
             Facts<Mox::CountStat>::text, Facts<Mox::EventOrCountStat>::text, Facts<Mox::ConditionOrCountStat>::text,
             Facts<Mox::ConditionOrChangedStat>::text, Facts<Mox::CountOrChangedStat>::text})
        EXPECT_EQ(this->isAccepted(other), other == Facts<TypeParam>::text) << other;
}

// --- what is left behind by a parse that fails ---

TYPED_TEST(EventTextTest, ParseThatFailsLeavesWhatItDidNotReachAtZero) {
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        TypeParam value = Facts<TypeParam>::sample();
        Vel::String const text = this->before(field) + "x";
        auto it = text.begin();
        EXPECT_THROW(Vel::parse(value, it, text.end()), Vel::ParseException);
        std::string expected = Facts<TypeParam>::zeroText;
        for (auto const& [name, type, offset, said, zero, at] : Facts<TypeParam>::fields) {
            if (name == field.name) break;
            auto const key = "'" + std::string(name) + "': ";
            expected.replace(expected.find(key), key.size() + std::string_view(zero).size(), key + said);
        }
        EXPECT_EQ(textOf(value), expected) << field.name;
    }
}

TYPED_TEST(EventTextTest, ReflectiveParseThatFailsLeavesTheTarget) {
    TypeParam value = Facts<TypeParam>::sample();
    auto const& glue = Vel::typeOf<TypeParam>().glue();
    for (std::string const& text :
        {""s, Facts<TypeParam>::zeroText + "x"s, this->before(Facts<TypeParam>::fields[1])}) {
        EXPECT_THROW(glue.genericIfStrepToValue(&value, text, Vel::typeOf<TypeParam>()), Vel::ParseException);
        EXPECT_EQ(value, Facts<TypeParam>::sample());
    }
}

// --- what errors say ---

TYPED_TEST(EventTextTest, ErrorsNameTheAttributeAndThePlace) {
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        std::string const what = field.type == "U1"s    ? "True or False"
                                 : field.type == "U32"s ? "a number from 0 to 4294967295"
                                                        : "seconds as the shortest decimal of a double, such as 1.5";
        auto const text = "attribute \"" + std::string(field.name) + "\": expected " + what + " at offset " +
                          std::to_string(field.textAt);
        EXPECT_EQ(parseError<TypeParam>(this->before(field) + "x"), text + ", at 'x'");
        EXPECT_EQ(parseError<TypeParam>(this->before(field)), text + ", at the end of the text");
    }
}

TYPED_TEST(EventTextTest, ErrorsShowThePieceThatIsMissing) {
    std::string const opening = "Value('"s + Facts<TypeParam>::name + "', ** {";
    EXPECT_EQ(parseError<TypeParam>("x"), "expected \"" + opening + "\" at offset 0, at 'x'");
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        bool const isFirst = &field == &Facts<TypeParam>::fields.front();
        auto const piece = (isFirst ? "'" : ", '") + std::string(field.name) + "': ";
        auto const at = field.textAt - piece.size();
        EXPECT_EQ(parseError<TypeParam>(std::string(Facts<TypeParam>::text).substr(0, at)),
            "expected \"" + piece + "\" at offset " + std::to_string(at) + ", at the end of the text");
    }
    std::string const text = Facts<TypeParam>::text;
    EXPECT_EQ(parseError<TypeParam>(text.substr(0, text.size() - 1)),
        "expected \"})\" at offset " + std::to_string(text.size() - 2) + ", at '}'");
    EXPECT_EQ(parseError<TypeParam>(text + "\n"),
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

TYPED_TEST(EventTextTest, CheckedParseYieldsTheValueOrTheError) {
    auto const good = Vel::checkedStrepToValue<TypeParam>(Facts<TypeParam>::text);
    ASSERT_TRUE(good);
    EXPECT_EQ(*good, Facts<TypeParam>::sample());
    auto const& last = Facts<TypeParam>::fields.back();
    auto const bad = Vel::checkedStrepToValue<TypeParam>(this->with(last, "x"));
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error().offset, last.textAt);
    EXPECT_EQ(bad.error().text, parseError<TypeParam>(this->with(last, "x")));
    auto const more = Vel::checkedStrepToValue<TypeParam>(Facts<TypeParam>::text + "}"s);
    ASSERT_FALSE(more);
    EXPECT_EQ(more.error().offset, std::string_view(Facts<TypeParam>::text).size());
    EXPECT_EQ(more.valueOr(TypeParam()), TypeParam());
}

}  // namespace
