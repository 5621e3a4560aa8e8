#include "StatisticsTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Checked.h"
#include "Vel/describe/Module.h"

namespace {

using namespace std::string_literals;
using Vel::StreamBogon;

template <class T> class EventStreamTest : public testing::Test {
protected:
    static std::size_t sizeOf(FieldFact const& field) { return field.type == "U1"s ? 1 : field.type == "U32"s ? 4 : 8; }
    static std::string itemOf(FieldFact const& field) { return field.type == "U1"s ? "bool" : field.type; }
};
TYPED_TEST_SUITE(EventStreamTest, EventAndStatisticTypes, TypeNames);

TYPED_TEST(EventStreamTest, BytesAreTheFieldsInOrder) {
    std::string const hex = Facts<TypeParam>::hex;
    EXPECT_EQ(writtenHex(Facts<TypeParam>::sample()), hex);
    EXPECT_EQ(writtenHex(TypeParam()), std::string(hex.size(), '0'));
    auto const values = Facts<TypeParam>::oneFieldSet();
    ASSERT_EQ(values.size(), Facts<TypeParam>::fields.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        auto const& field = Facts<TypeParam>::fields[i];
        std::string expected(hex.size(), '0');
        expected.replace(2 * field.offset, 2 * this->sizeOf(field), hex, 2 * field.offset, 2 * this->sizeOf(field));
        EXPECT_EQ(writtenHex(values[i]), expected) << field.name;
    }
}

TYPED_TEST(EventStreamTest, WritingYieldsTheStream) {
    Vel::NboAttrLog::Out out;
    TypeParam const value = Facts<TypeParam>::sample();
    EXPECT_EQ(&(out << value << value), &out);
    EXPECT_EQ(hexOf(out.bytes()), Facts<TypeParam>::hex + std::string(Facts<TypeParam>::hex));
}

TYPED_TEST(EventStreamTest, SizeIsTheSumOfTheWidths) {
    TypeParam const value;
    std::size_t const size = std::string_view(Facts<TypeParam>::hex).size() / 2;
    EXPECT_EQ(attrLogSize(&value), size);
    EXPECT_EQ(Vel::typeOf<TypeParam>().encodedSize(), size);
    EXPECT_TRUE(Vel::typeOf<TypeParam>().hasFixedEncodedSize());
    EXPECT_EQ(Vel::typeOf<TypeParam>().glue().attrLogSize(&value), size);
}

TEST(EventSizeTest, SizesAreTheseNumbers) {
    auto const size = [](char const* type) {
        return Vel::GenericValue(Vel::VelType(Vel::Registry::type(type))).attrLogSize();
    };
    EXPECT_EQ(size("Mox::Event"), 9u);
    EXPECT_EQ(size("Mox::Count"), 12u);
    EXPECT_EQ(size("Mox::EventOrCount"), 13u);
    EXPECT_EQ(size("Mox::ConditionOrChanged"), 10u);
    EXPECT_EQ(size("Mox::ConditionStat"), 13u);
    EXPECT_EQ(size("Mox::EventStat"), 13u);
    EXPECT_EQ(size("Mox::CountStat"), 12u);
    EXPECT_EQ(size("Mox::EventOrCountStat"), 12u);
    EXPECT_EQ(size("Mox::ConditionOrCountStat"), 13u);
    EXPECT_EQ(size("Mox::ConditionOrChangedStat"), 13u);
    EXPECT_EQ(size("Mox::CountOrChangedStat"), 16u);
}

TYPED_TEST(EventStreamTest, BytesAreReadInTurn) {
    auto const bytes = bytesOf(Facts<TypeParam>::hex + std::string(Facts<TypeParam>::hex) + "99");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(TypeParam(&in, StreamBogon()), Facts<TypeParam>::sample());
    EXPECT_EQ(TypeParam(&in, StreamBogon()), Facts<TypeParam>::sample());
    EXPECT_EQ(in.left(), 1u);
}

TYPED_TEST(EventStreamTest, InputThatEndsEarlyNamesTheAttribute) {
    auto const bytes = bytesOf(Facts<TypeParam>::hex);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        auto const* field = &Facts<TypeParam>::fields.front();
        while (field->offset + this->sizeOf(*field) <= size) ++field;
        Vel::NboAttrLog::In in(std::span<Vel::U8 const>(bytes).first(size));
        try {
            TypeParam(&in, StreamBogon());
            ADD_FAILURE() << "read " << size << " bytes";
        } catch (Vel::StreamException const& error) {
            EXPECT_EQ(error.what(), std::string(Facts<TypeParam>::name) + "." + field->name +
                                        ": the attribute log ends within " + this->itemOf(*field) + " at offset " +
                                        std::to_string(field->offset) + ": " + std::to_string(this->sizeOf(*field)) +
                                        " bytes needed, " + std::to_string(size - field->offset) + " left");
            EXPECT_EQ(error.offset(), field->offset);
        }
        EXPECT_EQ(in.offset(), field->offset);
    }
}

TYPED_TEST(EventStreamTest, FlagThatIsNeitherZeroNorOneIsRefused) {
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        if (field.type != "U1"s) continue;
        for (unsigned const flag : {2u, 127u, 128u, 255u}) {
            auto bytes = bytesOf(Facts<TypeParam>::hex);
            bytes[field.offset] = static_cast<Vel::U8>(flag);
            auto const read = Vel::checkedRead<TypeParam>(bytes);
            ASSERT_FALSE(read) << flag;
            EXPECT_EQ(read.error().text, std::string(Facts<TypeParam>::name) + "." + field.name +
                                             ": the bool at offset " + std::to_string(field.offset) + " is " +
                                             std::to_string(flag) + ", and neither 0 nor 1");
            EXPECT_EQ(read.error().offset, field.offset);
        }
    }
}

TYPED_TEST(EventStreamTest, EveryBitOfATimeAndOfACounterGoesThrough) {
    for (FieldFact const& field : Facts<TypeParam>::fields) {
        if (field.type == "U1"s) continue;
        for (std::size_t bit = 0; bit < 8 * this->sizeOf(field); ++bit) {
            auto bytes = bytesOf(Facts<TypeParam>::hex);
            bytes[field.offset + bit / 8] = static_cast<Vel::U8>(bytes[field.offset + bit / 8] ^ 1u << bit % 8);
            Vel::NboAttrLog::In in(bytes);
            TypeParam const value(&in, StreamBogon());
            EXPECT_EQ(writtenHex(value), hexOf(bytes));
            EXPECT_FALSE(value == Facts<TypeParam>::sample()) << field.name << bit;
        }
    }
}

TYPED_TEST(EventStreamTest, CheckedReadTakesAllBytesOrSaysWhatIsWrong) {
    auto bytes = bytesOf(Facts<TypeParam>::hex);
    auto const good = Vel::checkedRead<TypeParam>(bytes);
    ASSERT_TRUE(good);
    EXPECT_EQ(*good, Facts<TypeParam>::sample());
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(Vel::checkedRead<TypeParam>(std::span(bytes).first(size))) << size;
    bytes.push_back(0);
    auto const more = Vel::checkedRead<TypeParam>(bytes);
    ASSERT_FALSE(more);
    EXPECT_EQ(more.error().text, "1 bytes left over at offset " + std::to_string(bytes.size() - 1));
    EXPECT_EQ(more.error().offset, bytes.size() - 1);
}

}  // namespace
