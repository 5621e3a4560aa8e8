#include "Mox/Cell.h"

#include "ModuleTable.h"
#include "ValueTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace {

using Cell::CellId;
using Vel::AttributeOp;
using Vel::U16;
using Vel::U32;
using namespace std::string_literals;

// --- values ---

TEST(CellIdTest, DefaultIsZeroAndMaxIs65535) {
    EXPECT_EQ(CellId().value(), 0);
    EXPECT_EQ(CellId::max(), 65535);
}

TEST(CellIdTest, EqualityAndOrderAreOfTheNumbers) {
    EXPECT_TRUE(CellId(5) == CellId(5));
    EXPECT_FALSE(CellId(5) == CellId(6));
    EXPECT_TRUE(CellId(0) < CellId(65535));
    EXPECT_FALSE(CellId(65535) < CellId(0));
    EXPECT_FALSE(CellId(5) < CellId(5));
    EXPECT_TRUE(CellId(0) < CellId(32768));
    EXPECT_FALSE(CellId(32768) < CellId(0));
}

TEST(CellIdTest, HashIsTheNumberWhateverTheSeed) {
    for (auto const n : std::initializer_list<U16>{0, 1, 42, 65535}) {
        EXPECT_EQ(CellId(n).hash(), n);
        EXPECT_EQ(CellId(n).hash(0), n);
        EXPECT_EQ(CellId(n).hash(12345), n);
    }
}

// --- text and bytes ---

TEST(CellIdTest, TextIsTheNumberAlone) {
    EXPECT_EQ(Cell::valueToStrep(CellId()), "0");
    EXPECT_EQ(Cell::valueToStrep(CellId(65535)), "65535");
    EXPECT_EQ(Vel::strepToValue<CellId>("42", nullptr), CellId(42));
}

TEST(CellIdTest, BadTextsAreRefused) {
    for (auto const& text : {"", "x", "-1", "+1", " 7", "7 ", "7\n", "0x7", "007", "65536", "4294967297"})
        EXPECT_THROW(Vel::strepToValue<CellId>(text, nullptr), Vel::ParseException) << text;
    EXPECT_EQ(parseError<CellId>("x"), "attribute \"value\": expected a number from 0 to 65535 at offset 0, at 'x'");
    EXPECT_EQ(parseError<CellId>("7x"), "expected the end of the text at offset 1, at 'x'");
}

TEST(CellIdTest, ParsingStopsBehindTheNumber) {
    Vel::String const text = "12, 13";
    auto it = text.begin();
    EXPECT_EQ(CellId(it, text.end()), CellId(12));
    EXPECT_EQ(it - text.begin(), 2);
}

TEST(CellIdTest, StreamsPrintItAsAnInteger) {
    std::ostringstream out;
    out << CellId(255) << " " << std::hex << CellId(255) << std::dec << std::setw(4) << CellId(7);
    EXPECT_EQ(out.str(), "255 ff   7");
}

TEST(CellIdTest, BytesAreOne16BitItem) {
    EXPECT_EQ(writtenHex(CellId(0x1234)), "1234");
    EXPECT_EQ(Vel::typeOf<CellId>().encodedSize(), 2u);
    auto const bytes = bytesOf("002aff");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(CellId(&in, Vel::StreamBogon()), CellId(42));
    EXPECT_THROW(CellId(&in, Vel::StreamBogon()), Vel::StreamException);
    EXPECT_EQ(in.left(), 1u);
}

// --- reflection ---

TEST(CellIdTest, AttributesAreListed) {
    EXPECT_EQ(attributesOf(Vel::typeOf<CellId>()),
        (std::vector<std::string>{
            "2 value field get U16", "3 max constant get U16", "4 id derived get U16", "5 hash method call"}));
    EXPECT_EQ(Vel::typeOf<CellId>().strepTemplate(), "%u");
}

TEST(CellIdTest, ValueMaxAndIdAreRead) {
    CellId object = 9;
    for (auto const& [id, expected] : std::map<Vel::AttributeId, U16>{{2, 9}, {3, 65535}, {4, 9}}) {
        U16 number = 0;
        EXPECT_EQ(attributeOp(object, id, AttributeOp::get, &number), 0);
        EXPECT_EQ(number, expected) << id;
    }
}

TEST(CellIdTest, HashIsCalled) {
    CellId object = 65535;
    U32 hash = 0xAAAAAAAAu;
    void const* const arguments[] = {nullptr};
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::call, &hash, arguments), 0);
    EXPECT_EQ(hash, 65535u);
}

TEST(CellIdTest, NothingCanBeSet) {
    CellId object = 9;
    U16 const number = 77;
    for (Vel::AttributeId const id : {2u, 3u, 4u, 5u})
        EXPECT_EQ(attributeOp<CellId>(object, id, AttributeOp::set, nullptr, &number), 1) << id;
    EXPECT_EQ(object, CellId(9));
}

TEST(CellIdTest, OtherOperationsAreRefused) {
    CellId object = 9;
    U32 result = 77;
    for (U32 op = 0; op < 40; ++op) {
        for (Vel::AttributeId const id : {2u, 3u, 4u, 5u}) {
            if (op == (id == 5 ? 10u : 0u)) continue;
            EXPECT_EQ(attributeOp(object, id, AttributeOp(op), &result), 1) << id << " " << op;
        }
        for (Vel::AttributeId const id : {1u, 6u, 258u})
            EXPECT_EQ(attributeOp(object, id, AttributeOp(op), &result), 2) << id << " " << op;
        if (op >= 11 && op <= 13) continue;
        EXPECT_EQ(valueOp(object, AttributeOp(op), &result, &object), 1) << op;
    }
    EXPECT_EQ(result, 77u);
}

TEST(CellIdTest, TruthIsValidity) {
    CellId object;
    bool result = true;
    EXPECT_EQ(valueOp(object, AttributeOp::truth, &result), 0);
    EXPECT_FALSE(result);
    object = 65535;
    EXPECT_EQ(valueOp(object, AttributeOp::truth, &result), 0);
    EXPECT_TRUE(result);
}

TEST(CellIdTest, EqualAndLessAreOfTheNumbers) {
    CellId zero;
    CellId last = 65535;
    bool result = false;
    EXPECT_EQ(valueOp(zero, AttributeOp::less, &result, &last), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(valueOp(last, AttributeOp::less, &result, &zero), 0);
    EXPECT_FALSE(result);
    EXPECT_EQ(valueOp(last, AttributeOp::equal, &result, &zero), 0);
    EXPECT_FALSE(result);
    EXPECT_EQ(valueOp(last, AttributeOp::equal, &result, &last), 0);
    EXPECT_TRUE(result);
}

TEST(CellIdTest, GlueHashesConstructsAndParses) {
    auto const type = Vel::typeOf<CellId>();
    CellId object = 99;
    U16 const number = 43;
    void const* const arguments[] = {&number};
    type.glue().genericIfConstructFromCtorArgs(&object, arguments);
    EXPECT_EQ(object, CellId(43));
    EXPECT_TRUE(type.isHashable());
    EXPECT_EQ(type.glue().genericIfHash(&object, type), 43u);
    EXPECT_THROW(type.glue().genericIfStrepToValue(&object, "44x", type), Vel::ParseException);
    EXPECT_EQ(object, CellId(43));
    type.glue().genericIfStrepToValue(&object, "44", type);
    EXPECT_EQ(object, CellId(44));
    CellId copy = 1;
    type.glue().genericIfConstruct(&copy, &object);
    EXPECT_EQ(copy, CellId(44));
    type.glue().genericIfConstruct(&copy, nullptr);
    EXPECT_EQ(copy, CellId(0));
}

// --- module table ---

class CellModuleTest : public testing::Test {
protected:
    ModuleTable const table{Vel::format("_Cell_%016lx_velModule", Vel::typeOf<CellId>().moduleFingerprint()).charPtr()};
};

TEST_F(CellModuleTest, TableIsExported) {
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.header(), &Vel::typeOf<CellId>().module());
    EXPECT_EQ(table.header(), &Vel::typeOf<Cell::Status>().module());
}

TEST_F(CellModuleTest, NamesAreListedInByteOrder) {
    ASSERT_TRUE(table);
    EXPECT_EQ(table.typeNames(), "Cell::CellId\0Cell::Status\0U16\0Vel::Entity\0Vel::String\0bool\0"s);
    EXPECT_EQ(table.attributeNames(), "\0activeCellId\0cellId\0cellType\0cpuBmcMode\0cpuBmcModeInitialized\0"
                                      "electionMgrSupported\0electionMgrSupportedInitialized\0"
                                      "hash\0id\0max\0product\0value\0"s);
}

TEST_F(CellModuleTest, RecordsHaveTheirLayout) {
    ASSERT_TRUE(table);
    ASSERT_EQ(table.types(), 2u);
    EXPECT_EQ(table.firstAttribute(0), 0u);
    EXPECT_EQ(table.attributeCount(0), 4u);
    EXPECT_EQ(table.firstAttribute(1), 4u);
    EXPECT_EQ(table.attributeCount(1), 8u);
    std::vector<std::string> records;
    for (unsigned i = 0; i < table.attributes(); ++i)
        records.push_back(std::to_string(table.attributeId(i)) + " " + table.attributeName(i));
    EXPECT_EQ(records, (std::vector<std::string>{"2 value", "3 max", "4 id", "5 hash", "258 cellId", "259 activeCellId",
                           "260 cellType", "261 product", "262 electionMgrSupported",
                           "263 electionMgrSupportedInitialized", "264 cpuBmcMode", "265 cpuBmcModeInitialized"}));
}

}  // namespace
