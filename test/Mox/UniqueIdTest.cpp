#include "Mox/UniqueId.h"

#include "FakeSystem.h"
#include "ModuleTable.h"
#include "RecordTest.h"

#include "Vel/base/Hash.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>
#include <vector>

// What an id is; UniqueIdMintTest.cpp has how ids are made.
namespace {

using Mox::UniqueId;
using Vel::AttributeOp;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using namespace std::string_literals;

constexpr U64 allOnes = 18446744073709551615ul;

// --- values ---

TEST(UniqueIdTest, IsMadeOfItsFieldsInTheirOrder) {
    UniqueId const id(1, 2, 3);
    EXPECT_EQ(id.timestamp(), 1u);
    EXPECT_EQ(id.pid(), 2);
    EXPECT_EQ(id.count(), 3);
}

TEST(UniqueIdTest, ValPacksAndUniqueIdIsUnpacks) {
    EXPECT_EQ(UniqueId(1, 2, 3).val(), 0x0000000100020003ul);
    EXPECT_EQ(UniqueId(0xFEDCBA98u, 0x7654, 0x3210).val(), 0xFEDCBA9876543210ul);
    EXPECT_EQ(UniqueId::uniqueIdIs(0x0000000100020003ul), UniqueId(1, 2, 3));
    for (U64 const packed :
        {U64(0), U64(1), U64(0xFFFF), U64(0xFFFF0000), U64(0xFFFFFFFF00000000), allOnes - 1, U64(0xFEDCBA9876543210)})
        EXPECT_EQ(UniqueId::uniqueIdIs(packed).val(), packed);
}

TEST(UniqueIdTest, EqualityIsOfAllFields) {
    UniqueId const id(5, 6, 7);
    EXPECT_TRUE(id == UniqueId(5, 6, 7));
    EXPECT_FALSE(id == UniqueId(4, 6, 7));
    EXPECT_FALSE(id == UniqueId(5, 7, 7));
    EXPECT_FALSE(id == UniqueId(5, 6, 6));
    EXPECT_TRUE(id != UniqueId(5, 6, 6));
    EXPECT_TRUE(equalByReflection(id, UniqueId(5, 6, 7)));
    EXPECT_FALSE(equalByReflection(id, UniqueId(5, 6, 6)));
}

TEST(UniqueIdTest, OrderIsByTimestampThenPidThenCountUnsigned) {
    UniqueId const ascending[] = {{0, 65535, 65535}, {1, 5, 0}, {1, 5, 65535}, {1, 6, 0}, {1, 32768, 0}, {1, 65535, 1},
        {2, 0, 0}, {2147483648u, 0, 0}, {4294967295u, 65535, 0}, {4294967295u, 65535, 65534}};
    for (auto const& a : ascending)
        for (auto const& b : ascending) {
            EXPECT_EQ(a < b, &a < &b) << a << " " << b;
            EXPECT_EQ(a > b, &a > &b) << a << " " << b;
            EXPECT_EQ(a <= b, &a <= &b) << a << " " << b;
            EXPECT_EQ(lessByReflection(a, b), &a < &b) << a << " " << b;
        }
}

TEST(UniqueIdTest, HashMixesTheFieldsByTheirWidths) {
    UniqueId const id(1700000000, 4711, 9);
    for (U32 const seed : {0u, 1u, 4294967295u})
        EXPECT_EQ(id.hash(seed), Vel::Hash(seed).hashMix<4>(1700000000).hashMix<2>(4711).hashMix<2>(9).result());
    EXPECT_NE(UniqueId(1, 2, 3).hash(0), UniqueId(1, 3, 2).hash(0));
    EXPECT_EQ(std::hash<UniqueId>()(id), id.hash(0));
    std::unordered_set<UniqueId> const set = {id, UniqueId(1, 2, 3), id};
    EXPECT_EQ(set.size(), 2u);
}

// --- text ---

TEST(UniqueIdTest, TextsAreTheRecordAndTheShortOne) {
    UniqueId const id(1700000000, 4242, 0);
    EXPECT_EQ(textOf(id), "Value('Mox::UniqueId', ** {'timestamp': 1700000000, 'pid': 4242, 'count': 0})");
    EXPECT_EQ(printed(id), textOf(id));
    EXPECT_EQ(id.toStrep(), "timestamp 1700000000, pid 4242, count 0");
    EXPECT_EQ(UniqueId(4294967295u, 65535, 65534).toStrep(), "timestamp 4294967295, pid 65535, count 65534");
    EXPECT_EQ(textOf(UniqueId(4294967295u, 65535, 65534)),
        "Value('Mox::UniqueId', ** {'timestamp': 4294967295, 'pid': 65535, 'count': 65534})");
}

TEST(UniqueIdTest, TextsParseBack) {
    EXPECT_EQ(Vel::strepToValue<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': 2, 'count': 3})", nullptr),
        UniqueId(1, 2, 3));
    EXPECT_EQ(Vel::strepToValue<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': 0, 'pid': 0, 'count': 0})", nullptr),
        UniqueId(0, 0, 0));
    auto const checked = Vel::checkedStrepToValue<UniqueId>(textOf(UniqueId(4, 65535, 65535)));
    ASSERT_TRUE(checked);
    EXPECT_EQ(*checked, UniqueId(4, 65535, 65535));
}

TEST(UniqueIdTest, NoOtherTextIsParsed) {
    expectNothingElseParsed<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': 2, 'count': 3})");
    for (auto const* const text : {"Value('Mox::UniqueId', ** {'pid': 2, 'timestamp': 1, 'count': 3})",
             "Value('Mox::UniqueId', ** {'timestamp': 4294967296, 'pid': 2, 'count': 3})",
             "Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': 65536, 'count': 3})",
             "Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': 2, 'count': 65536})",
             "Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': -1, 'count': 3})", "timestamp 1, pid 2, count 3"})
        expectRefused<UniqueId>(text);
}

TEST(UniqueIdTest, RefusalsNameTheAttributeAndThePlace) {
    EXPECT_EQ(parseError<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': x"),
        "attribute \"timestamp\": expected a number from 0 to 4294967295 at offset 40, at 'x'");
    EXPECT_EQ(parseError<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': 65536})"),
        "attribute \"pid\": expected a number from 0 to 65535 at offset 50, at '65536})'");
    EXPECT_EQ(parseError<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': 1, 'pid': 2, 'count': "),
        "attribute \"count\": expected a number from 0 to 65535 at offset 62, at the end of the text");
}

// --- attribute log ---

TEST(UniqueIdTest, BytesAreTheFieldsInTheirOrder) {
    EXPECT_EQ(writtenHex(UniqueId(0x01020304, 0x0506, 0x0708)), "0102030405060708");
    EXPECT_EQ(readFrom<UniqueId>("0102030405060708"), UniqueId(0x01020304, 0x0506, 0x0708));
    UniqueId const id(1, 2, 3);
    EXPECT_EQ(attrLogSize(&id), 8u);
    EXPECT_EQ(Vel::typeOf<UniqueId>().encodedSize(), 8u);
}

TEST(UniqueIdTest, OtherLengthsAreRefused) {
    expectOtherLengthsRefused<UniqueId>("0102030405060708");
    EXPECT_EQ(readError<UniqueId>("010203"),
        "Mox::UniqueId.timestamp: the attribute log ends within U32 at offset 0: 4 bytes needed, 3 left");
    EXPECT_EQ(readError<UniqueId>("0102030405"),
        "Mox::UniqueId.pid: the attribute log ends within U16 at offset 4: 2 bytes needed, 1 left");
    EXPECT_EQ(readError<UniqueId>("010203040506"),
        "Mox::UniqueId.count: the attribute log ends within U16 at offset 6: 2 bytes needed, 0 left");
}

// --- reflection ---

TEST(UniqueIdReflectionTest, FieldsAndValAreReadOnly) {
    UniqueId object(1, 2, 3);
    U32 timestamp = 0;
    U16 number = 0;
    U64 val = 0;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::get, &timestamp), 0);
    EXPECT_EQ(timestamp, 1u);
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, &number), 0);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(attributeOp(object, 4, AttributeOp::get, &number), 0);
    EXPECT_EQ(number, 3);
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::get, &val), 0);
    EXPECT_EQ(val, 0x0000000100020003ul);
    U64 const other = 9;
    for (Vel::AttributeId const id : {2u, 3u, 4u, 5u})
        EXPECT_EQ(attributeOp(object, id, AttributeOp::set, nullptr, &other), 1) << id;
    EXPECT_EQ(object, UniqueId(1, 2, 3));
}

TEST(UniqueIdReflectionTest, ToStrepAndUniqueIdIsAreCalled) {
    UniqueId object(1, 2, 3);
    Vel::String text;
    EXPECT_EQ(callOp(object, 7, &text), 0);
    EXPECT_EQ(text, "timestamp 1, pid 2, count 3");
    UniqueId result(0, 0, 0);
    EXPECT_EQ(callOp(object, 9, &result, U64(0x0000000400050006)), 0);
    EXPECT_EQ(result, UniqueId(4, 5, 6));
    EXPECT_EQ(object, UniqueId(1, 2, 3));
}

TEST(UniqueIdReflectionTest, OtherOperationsAreRefused) {
    UniqueId object(1, 2, 3);
    using Ops = std::vector<U32>;
    for (Vel::AttributeId const id : {2u, 3u, 4u, 5u}) EXPECT_EQ(opsNotAnswered(object, id, 1, 0), Ops()) << id;
    for (Vel::AttributeId const id : {6u, 7u, 8u, 9u}) EXPECT_EQ(opsNotAnswered(object, id, 1, 10), Ops()) << id;
    for (Vel::AttributeId const id : {0u, 1u, 10u, 258u}) EXPECT_EQ(opsNotAnswered(object, id, 2), Ops()) << id;
    EXPECT_EQ(wholeValueOps(object), (Ops{11, 12, 13}));
}

TEST(UniqueIdReflectionTest, HashIsThatOfSeedZero) {
    Vel::GenericValue const value(Vel::typeOf<UniqueId>(), textOf(UniqueId(1, 2, 3)));
    EXPECT_TRUE(value.type().isHashable());
    EXPECT_EQ(value.hash(), UniqueId(1, 2, 3).hash(0));
}

TEST(UniqueIdReflectionTest, IsConstructedFromItsFieldsCopiedAndParsed) {
    auto const type = Vel::typeOf<UniqueId>();
    auto const& glue = type.glue();
    UniqueId object(9, 9, 9);
    UniqueId const source(1, 2, 3);
    glue.genericIfConstruct(&object, &source);
    EXPECT_EQ(object, source);
    U32 const timestamp = 4;
    U16 const pid = 5;
    U16 const count = 6;
    void const* const arguments[] = {&timestamp, &pid, &count};
    glue.genericIfConstructFromCtorArgs(&object, arguments);
    EXPECT_EQ(object, UniqueId(4, 5, 6));
    glue.genericIfStrepToValue(&object, textOf(source), type);
    EXPECT_EQ(glue.genericIfStrRep(&object, type).stdString(), textOf(source));
    EXPECT_THROW(glue.genericIfStrepToValue(&object, textOf(UniqueId(7, 7, 7)) + "x", type), Vel::ParseException);
    EXPECT_EQ(object, source);
    glue.genericIfDestruct(&object);
}

// --- module table ---

TEST(UniqueIdModuleTest, AttributesAreListed) {
    auto const type = Vel::Registry::type("Mox::UniqueId");
    EXPECT_EQ(attributesOf(type),
        (std::vector<std::string>{"2 timestamp field get U32", "3 pid field get U16", "4 count field get U16",
            "5 val derived get U64", "6 doInit method call", "7 toStrep method call", "8 generateUniqueId method call",
            "9 uniqueIdIs method call"}));
    EXPECT_EQ(type.strepTemplate(), "Value('Mox::UniqueId', ** {'timestamp': %u, 'pid': %u, 'count': %u})");
    auto const uniqueIdIs = type.attribute("uniqueIdIs").value();
    ASSERT_EQ(uniqueIdIs.parameterCount(), 1u);
    EXPECT_STREQ(uniqueIdIs.parameterType(0).name(), "U64");
    EXPECT_EQ(uniqueIdIs.resultType(), type);
}

TEST(UniqueIdModuleTest, NamesAreListedInByteOrder) {
    ModuleTable const table("_UniqueId_7b073ac0aefaab70_velModule");
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.typeNames(), "Mox::UniqueId\0U16\0U32\0U64\0"s);
    EXPECT_EQ(table.attributeNames(), "\0count\0doInit\0generateUniqueId\0pid\0timestamp\0toStrep\0uniqueIdIs\0val\0"s);
    ASSERT_EQ(table.types(), 1u);
    EXPECT_EQ(table.attributeCount(0), 8u);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(table.attributeId(i), i + 2);
}

#if defined(__cpp_lib_format)
TEST(UniqueIdTest, FormatsAsItsText) { EXPECT_EQ(std::format("{}", UniqueId(1, 2, 3)), textOf(UniqueId(1, 2, 3))); }
#endif

}  // namespace
