#include "Mox/Seqno.h"

#include "ModuleTable.h"
#include "ValueTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <concepts>
#include <iomanip>
#include <sstream>

namespace {

using Mox::Seqno16;
using Mox::Seqno32;
using Vel::AttributeOp;
using namespace std::string_literals;

template <class T> std::string textOf(T const& value) { return Mox::valueToStrep(value).stdString(); }

// --- values ---

TEST(SeqnoTest, DefaultIsZero) {
    EXPECT_EQ(Seqno16().value(), 0);
    EXPECT_EQ(Seqno32().value(), 0u);
}

TEST(SeqnoTest, ValueCanBeSetAndIncrementedPastTheWrap) {
    Seqno16 a = 65530;
    a.valueInc(10);
    EXPECT_EQ(a.value(), 4);
    a.valueIs(7);
    EXPECT_EQ(a.value(), 7);
    Seqno32 b = 4294967290u;
    b.valueInc(10);
    EXPECT_EQ(b.value(), 4u);
    b.valueIs(7);
    EXPECT_EQ(b.value(), 7u);
}

TEST(SeqnoTest, EqualityIsOfTheRawValues) {
    EXPECT_TRUE(Seqno16(5) == Seqno16(5));
    EXPECT_FALSE(Seqno16(0) == Seqno16(32768));
    EXPECT_TRUE(Seqno16(5) != Seqno16(6));
    EXPECT_TRUE(Seqno32(5) == Seqno32(5));
    EXPECT_FALSE(Seqno32(0) == Seqno32(2147483648u));
    EXPECT_TRUE(Seqno32(5) != Seqno32(65541));
}

// --- order ---

TEST(SeqnoTest, OrderOf16BitsWrapsAround) {
    struct Row {
        Vel::U16 a, b;
        bool less, greater;
    };
    for (Row const row : {Row{65535, 0, true, false}, Row{0, 65535, false, true}, Row{5, 5, false, false},
             Row{0, 32768, true, true}, Row{32768, 0, true, true}, Row{0, 32767, true, false},
             Row{32767, 0, false, true}, Row{0, 32769, false, true}, Row{1, 2, true, false}, Row{65530, 3, true, false},
             Row{40000, 7232, true, true}, Row{40000, 7231, true, false}, Row{40000, 7233, false, true}}) {
        EXPECT_EQ(Seqno16(row.a) < Seqno16(row.b), row.less) << row.a << " " << row.b;
        EXPECT_EQ(Seqno16(row.b) < Seqno16(row.a), row.greater) << row.b << " " << row.a;
    }
}

TEST(SeqnoTest, OrderOf32BitsWrapsAround) {
    struct Row {
        Vel::U32 a, b;
        bool less, greater;
    };
    for (Row const row : {Row{4294967295u, 0, true, false}, Row{0, 4294967295u, false, true}, Row{5, 5, false, false},
             Row{0, 2147483648u, true, true}, Row{2147483648u, 0, true, true}, Row{0, 2147483647u, true, false},
             Row{0, 2147483649u, false, true}, Row{1, 2, true, false}, Row{65535, 0, false, true},
             Row{0, 32768, true, false}, Row{4294967290u, 3, true, false}, Row{3000000000u, 852516352u, true, true}}) {
        EXPECT_EQ(Seqno32(row.a) < Seqno32(row.b), row.less) << row.a << " " << row.b;
        EXPECT_EQ(Seqno32(row.b) < Seqno32(row.a), row.greater) << row.b << " " << row.a;
    }
}

TEST(SeqnoTest, ThirtyTwoBitNumbersAreLessExactlyWhenTheirDifferenceIsNegative) {
    static constexpr Vel::U32 edges[] = {
        0, 1, 2, 0x7FFFu, 0x8000u, 0xFFFFu, 0x10000u, 0x7FFFFFFEu, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFFu};
    for (Vel::U32 const a : edges)
        for (Vel::U32 const b : edges) {
            // b is ahead of a by this much, going upward and around
            auto const ahead = (std::uint64_t(b) + (std::uint64_t(1) << 32) - a) % (std::uint64_t(1) << 32);
            bool const less = ahead > 0 && ahead <= 0x80000000u;
            EXPECT_EQ(Seqno32(a) < Seqno32(b), less) << a << " " << b;
        }
}

TEST(SeqnoTest, EveryDistanceOf16BitsAgreesWithCountingUpward) {
    for (unsigned const a : {0u, 1u, 12345u, 32767u, 32768u, 65535u})
        for (unsigned distance = 0; distance < 65536; ++distance) {
            Seqno16 const from(static_cast<Vel::U16>(a));
            Seqno16 const to(static_cast<Vel::U16>(a + distance));
            bool const less = distance >= 1 && distance <= 32768;  // ahead by up to half the range
            ASSERT_EQ(from < to, less) << a << " " << distance;
        }
}

TEST(SeqnoTest, PlainIntegerMayStandOnTheRight) {
    Vel::U16 const zero16 = 0;
    Vel::U16 const half16 = 32768;
    EXPECT_TRUE(Seqno16(65535) < zero16);
    EXPECT_FALSE(Seqno16(0) < Vel::U16(65535));
    EXPECT_TRUE(Seqno16(0) < half16);
    EXPECT_TRUE(Seqno16(3) < 4);
    EXPECT_TRUE(Seqno32(4294967295u) < 0u);
    EXPECT_FALSE(Seqno32(0) < 4294967295u);
    EXPECT_TRUE(Seqno32(0) < 2147483648u);
}

template <class A, class B>
concept LessThan = requires(A a, B b) {
    { a < b } -> std::same_as<bool>;
};

TEST(SeqnoTest, PlainIntegerMayNotStandOnTheLeft) {
    static_assert(LessThan<Seqno16, Seqno16> && LessThan<Seqno16, Vel::U16>);
    static_assert(LessThan<Seqno32, Seqno32> && LessThan<Seqno32, Vel::U32>);
    EXPECT_FALSE((LessThan<Vel::U16, Seqno16>));
    EXPECT_FALSE((LessThan<Vel::U32, Seqno32>));
    EXPECT_FALSE((LessThan<Seqno16, Seqno32>));
}

// --- text ---

TEST(SeqnoTest, TextIsTheNumberAlone) {
    EXPECT_EQ(textOf(Seqno16()), "0");
    EXPECT_EQ(textOf(Seqno16(65535)), "65535");
    EXPECT_EQ(textOf(Seqno32(7)), "7");
    EXPECT_EQ(textOf(Seqno32(4294967295u)), "4294967295");
}

TEST(SeqnoTest, TextIsParsedBack) {
    EXPECT_EQ(Vel::strepToValue<Seqno16>("65535", nullptr).value(), 65535);
    EXPECT_EQ(Vel::strepToValue<Seqno32>("7", nullptr).value(), 7u);
    EXPECT_EQ(Vel::strepToValue<Seqno32>("4294967295", nullptr).value(), 4294967295u);
}

TEST(SeqnoTest, ParsingStopsBehindTheNumber) {
    Vel::String const text = "12x";
    auto it = text.begin();
    EXPECT_EQ(Seqno16(it, text.end()).value(), 12);
    EXPECT_EQ(it - text.begin(), 2);
}

TEST(SeqnoTest, BadTextsAreRefused) {
    for (auto const& text : {"", "x", "-1", "+1", " 7", "7 ", "7x", "7\n", "0x7", "007", "65536",
             "99999999999999999999", "Value('Mox::Seqno16', ** {'value': 7})"})
        EXPECT_THROW(Vel::strepToValue<Seqno16>(text, nullptr), Vel::ParseException) << text;
    for (auto const& text : {"", "x", "-1", "7x", " 7", "4294967296", "18446744073709551616"})
        EXPECT_THROW(Vel::strepToValue<Seqno32>(text, nullptr), Vel::ParseException) << text;
}

TEST(SeqnoTest, ErrorsNameTheAttributeAndThePlace) {
    EXPECT_EQ(parseError<Seqno16>("x"), "attribute \"value\": expected a number from 0 to 65535 at offset 0, at 'x'");
    EXPECT_EQ(
        parseError<Seqno16>("65536"), "attribute \"value\": expected a number from 0 to 65535 at offset 0, at '65536'");
    EXPECT_EQ(parseError<Seqno32>(""),
        "attribute \"value\": expected a number from 0 to 4294967295 at offset 0, at the end of the text");
    EXPECT_EQ(parseError<Seqno32>("7x"), "expected the end of the text at offset 1, at 'x'");
}

TEST(SeqnoTest, StreamsPrintAsTheyPrintIntegers) {
    std::ostringstream out;
    out << Seqno16(255) << " " << std::hex << Seqno16(255) << " " << std::showbase << Seqno32(0xABCDEF01u) << " "
        << std::dec << std::setw(6) << std::setfill('.') << Seqno16(42) << std::setw(6) << std::left << Seqno32(42)
        << "|";
    EXPECT_EQ(out.str(), "255 ff 0xabcdef01 ....4242....|");
}

// --- attribute log ---

TEST(SeqnoTest, BytesAreTheNumberInNetworkOrder) {
    EXPECT_EQ(writtenHex(Seqno16(0x1234)), "1234");
    EXPECT_EQ(writtenHex(Seqno32(0x12345678)), "12345678");
    EXPECT_EQ(Vel::typeOf<Seqno16>().encodedSize(), 2u);
    EXPECT_EQ(Vel::typeOf<Seqno32>().encodedSize(), 4u);
}

TEST(SeqnoTest, BytesAreReadInTurn) {
    auto const bytes = bytesOf("1234ffffffff99");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(Seqno16(&in, Vel::StreamBogon()).value(), 0x1234);
    EXPECT_EQ(Seqno32(&in, Vel::StreamBogon()).value(), 0xFFFFFFFFu);
    EXPECT_THROW(Seqno16(&in, Vel::StreamBogon()), Vel::StreamException);
    EXPECT_EQ(in.left(), 1u);
}

// --- reflection ---

template <class T> class SeqnoReflectionTest : public testing::Test {};
using SeqnoTypes = testing::Types<Seqno16, Seqno32>;
TYPED_TEST_SUITE(SeqnoReflectionTest, SeqnoTypes);
template <class T> using Number = decltype(T().value());

TYPED_TEST(SeqnoReflectionTest, ValueIsReadAndWritten) {
    TypeParam object = 9;
    Number<TypeParam> number = 0;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::get, &number), 0);
    EXPECT_EQ(number, 9u);
    Number<TypeParam> const set = 1234;
    EXPECT_EQ(attributeOp<TypeParam>(object, 2, AttributeOp::set, nullptr, &set), 0);
    EXPECT_EQ(object.value(), 1234u);
}

TYPED_TEST(SeqnoReflectionTest, OtherOperationsOnValueAreRefused) {
    TypeParam object = 9;
    Number<TypeParam> number = 77;
    for (Vel::U32 op = 2; op < 40; ++op) EXPECT_EQ(attributeOp(object, 2, AttributeOp(op), &number, &number), 1) << op;
    EXPECT_EQ(object, TypeParam(9));
    EXPECT_EQ(number, 77u);
}

TYPED_TEST(SeqnoReflectionTest, OtherAttributesAreUnknown) {
    TypeParam object = 9;
    Number<TypeParam> number = 77;
    for (Vel::AttributeId const id : {1u, 3u, 4u, 258u})
        for (Vel::U32 op = 0; op < 40; ++op)
            EXPECT_EQ(attributeOp(object, id, AttributeOp(op), &number, &number), 2) << id << " " << op;
    EXPECT_EQ(object, TypeParam(9));
    EXPECT_EQ(number, 77u);
}

TYPED_TEST(SeqnoReflectionTest, TruthIsBeingOtherThanZero) {
    TypeParam object;
    bool result = true;
    EXPECT_EQ(valueOp(object, AttributeOp::truth, &result), 0);
    EXPECT_FALSE(result);
    object = static_cast<Number<TypeParam>>(~Number<TypeParam>(0) / 2 + 1);
    EXPECT_EQ(valueOp(object, AttributeOp::truth, &result), 0);
    EXPECT_TRUE(result);
}

TYPED_TEST(SeqnoReflectionTest, EqualIsRawAndLessWrapsAround) {
    TypeParam last = static_cast<Number<TypeParam>>(~Number<TypeParam>(0));
    TypeParam zero;
    bool result = false;
    EXPECT_EQ(valueOp(last, AttributeOp::less, &result, &zero), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(valueOp(zero, AttributeOp::less, &result, &last), 0);
    EXPECT_FALSE(result);
    EXPECT_EQ(valueOp(zero, AttributeOp::equal, &result, &zero), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(valueOp(zero, AttributeOp::equal, &result, &last), 0);
    EXPECT_FALSE(result);
}

TYPED_TEST(SeqnoReflectionTest, OtherValueOperationsAreRefused) {
    TypeParam object = 9;
    TypeParam result = 77;
    for (Vel::U32 op = 0; op < 40; ++op) {
        if (op >= 11 && op <= 13) continue;
        EXPECT_EQ(valueOp(object, AttributeOp(op), &result, &object), 1) << op;
        EXPECT_EQ(Vel::typeOf<TypeParam>().answers(AttributeOp(op)), false) << op;
    }
    EXPECT_EQ(result, TypeParam(77));
}

TYPED_TEST(SeqnoReflectionTest, HasNoHash) {
    Vel::GenericValue const value(Vel::typeOf<TypeParam>());
    EXPECT_FALSE(value.type().isHashable());
    try {
        value.hash();
        ADD_FAILURE() << "hashed";
    } catch (Vel::UnhashableException const& error) {
        EXPECT_EQ(error.text().stdString(), "values of type "s + value.type().name() + " have no hash");
    }
}

TYPED_TEST(SeqnoReflectionTest, IsConstructedCopiedAndParsedByItsGlue) {
    auto const& glue = Vel::typeOf<TypeParam>().glue();
    TypeParam source = 41;
    TypeParam object = 99;
    glue.genericIfConstruct(&object, nullptr);
    EXPECT_EQ(object, TypeParam(0));
    glue.genericIfConstruct(&object, &source);
    EXPECT_EQ(object, TypeParam(41));
    Number<TypeParam> const number = 43;
    void const* const arguments[] = {&number};
    glue.genericIfConstructFromCtorArgs(&object, arguments);
    EXPECT_EQ(object, TypeParam(43));
    glue.genericIfStrepToValue(&object, "44", Vel::typeOf<TypeParam>());
    EXPECT_EQ(glue.genericIfStrRep(&object, Vel::typeOf<TypeParam>()), "44");
    EXPECT_THROW(glue.genericIfStrepToValue(&object, "45x", Vel::typeOf<TypeParam>()), Vel::ParseException);
    EXPECT_EQ(object, TypeParam(44));
    glue.genericIfDestruct(&object);
}

TYPED_TEST(SeqnoReflectionTest, ViewsOfAnotherTypeAreRefused) {
    TypeParam object;
    auto const type = Vel::typeOf<TypeParam>();
    auto const other = Vel::Registry::type(sizeof(TypeParam) == 2 ? "Mox::Seqno32" : "Mox::Seqno16");
    EXPECT_EQ(type.glue().genericIfVoidPtrIs(&object, type, type), &object);
    EXPECT_THROW(type.glue().genericIfVoidPtrIs(&object, type, other), Vel::TypeException);
}

// --- module table ---

TEST(SeqnoModuleTest, AttributesAreListed) {
    EXPECT_EQ(attributesOf(Vel::typeOf<Seqno16>()), std::vector<std::string>{"2 value field get set U16"});
    EXPECT_EQ(attributesOf(Vel::typeOf<Seqno32>()), std::vector<std::string>{"2 value field get set U32"});
    EXPECT_EQ(Vel::typeOf<Seqno16>().strepTemplate(), "%u");
    EXPECT_EQ(Vel::typeOf<Seqno32>().strepTemplate(), "%u");
}

TEST(SeqnoModuleTest, TableIsExportedUnderItsSymbol) {
    ModuleTable const table("_Seqno_b10c04b51b44f4ab_velModule");
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.header(), &Vel::typeOf<Seqno16>().module());
    EXPECT_EQ(table.header()->fingerprint, 0xb10c04b51b44f4abul);
    EXPECT_EQ(Vel::typeOf<Seqno32>().moduleName(), "Seqno");
}

TEST(SeqnoModuleTest, NamesAreListedInByteOrder) {
    ModuleTable const table("_Seqno_b10c04b51b44f4ab_velModule");
    ASSERT_TRUE(table);
    EXPECT_EQ(table.typeNames(), "Mox::Seqno16\0Mox::Seqno32\0U16\0U32\0"s);
    EXPECT_EQ(table.attributeNames(), "\0value\0"s);
}

TEST(SeqnoModuleTest, RecordsHaveTheirLayout) {
    ModuleTable const table("_Seqno_b10c04b51b44f4ab_velModule");
    ASSERT_TRUE(table);
    ASSERT_EQ(table.types(), 2u);
    ASSERT_EQ(table.attributes(), 2u);
    for (unsigned const i : {0u, 1u}) {
        EXPECT_EQ(table.firstAttribute(i), i);
        EXPECT_EQ(table.attributeCount(i), 1u);
        EXPECT_EQ(table.attributeId(i), 2u);
        EXPECT_EQ(table.attributeName(i), "value");
    }
}

}  // namespace
