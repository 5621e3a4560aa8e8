#include "Mox/Generation.h"

#include "ModuleTable.h"
#include "RecordTest.h"

#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Mox::Generation;
using Vel::AttributeOp;
using namespace std::string_literals;

// --- values ---

TEST(GenerationTest, DefaultIsTheNullGeneration) {
    EXPECT_EQ(Generation().id(), 0u);
    EXPECT_FALSE(Generation().valid());
    EXPECT_EQ(Generation::null(), Generation());
    EXPECT_EQ(Generation::null(), Generation(0, false));
}

TEST(GenerationTest, IsMadeOfItsFieldsInTheirOrder) {
    Generation const generation(7, true);
    EXPECT_EQ(generation.id(), 7u);
    EXPECT_TRUE(generation.valid());
}

TEST(GenerationTest, EqualityIsOfBothFields) {
    Generation const values[] = {{0, false}, {0, true}, {7, false}, {7, true}, {4294967295u, true}};
    for (auto const& a : values)
        for (auto const& b : values) {
            EXPECT_EQ(a == b, &a == &b);
            EXPECT_EQ(a != b, &a != &b);
            EXPECT_EQ(equalByReflection(a, b), &a == &b);
        }
}

TEST(GenerationTest, HasNeitherOrderNorHash) {
    EXPECT_FALSE(Ordered<Generation>);
    EXPECT_FALSE(HasHash<Generation>);
    expectNoHash<Generation>("Mox::Generation");
}

// --- text ---

TEST(GenerationTest, TextShowsBothFields) {
    EXPECT_EQ(textOf(Generation()), "Value('Mox::Generation', ** {'id': 0, 'valid': False})");
    EXPECT_EQ(textOf(Generation(4294967295u, true)), "Value('Mox::Generation', ** {'id': 4294967295, 'valid': True})");
    EXPECT_EQ(printed(Generation(7, false)), "Value('Mox::Generation', ** {'id': 7, 'valid': False})");
}

TEST(GenerationTest, TextsParseBack) {
    EXPECT_EQ(Vel::strepToValue<Generation>("Value('Mox::Generation', ** {'id': 4294967295, 'valid': False})", nullptr),
        Generation(4294967295u, false));
    auto const checked = Vel::checkedStrepToValue<Generation>("Value('Mox::Generation', ** {'id': 0, 'valid': True})");
    ASSERT_TRUE(checked);
    EXPECT_EQ(*checked, Generation(0, true));
}

TEST(GenerationTest, NoOtherTextIsParsed) {
    expectNothingElseParsed<Generation>("Value('Mox::Generation', ** {'id': 7, 'valid': True})");
    for (auto const* const text : {"Value('Mox::Generation', ** {'valid': True, 'id': 7})",
             "Value('Mox::Generation', ** {'id': 4294967296, 'valid': True})",
             "Value('Mox::Generation', ** {'id': -1, 'valid': True})",
             "Value('Mox::Generation', ** {'id': 07, 'valid': True})",
             "Value('Mox::Generation', ** {'id': 7, 'valid': true})",
             "Value('Mox::Generation', ** {'id': 7, 'valid': 1})", "Value('Mox::Generation', ** {'id': 7})",
             "Value('Mox::GenTime', ** {'id': 7, 'valid': True})"})
        expectRefused<Generation>(text);
}

TEST(GenerationTest, RefusalsNameTheAttributeAndThePlace) {
    EXPECT_EQ(parseError<Generation>("Value('Mox::Generation', ** {'id': x"),
        "attribute \"id\": expected a number from 0 to 4294967295 at offset 35, at 'x'");
    EXPECT_EQ(parseError<Generation>("Value('Mox::Generation', ** {'id': 7, 'valid': Yes})"),
        "attribute \"valid\": expected True or False at offset 47, at 'Yes})'");
}

// --- attribute log ---

TEST(GenerationTest, BytesAreTheIdAndThenTheFlag) {
    EXPECT_EQ(writtenHex(Generation()), "0000000000");
    EXPECT_EQ(writtenHex(Generation(0x01020304, true)), "0102030401");
    EXPECT_EQ(readFrom<Generation>("ffffffff00"), Generation(4294967295u, false));
    Generation const generation;
    EXPECT_EQ(attrLogSize(&generation), 5u);
    EXPECT_EQ(Vel::typeOf<Generation>().encodedSize(), 5u);
}

TEST(GenerationTest, OtherLengthsAreRefused) {
    expectOtherLengthsRefused<Generation>("0102030401");
    EXPECT_EQ(readError<Generation>("010203"),
        "Mox::Generation.id: the attribute log ends within U32 at offset 0: 4 bytes needed, 3 left");
    EXPECT_EQ(readError<Generation>("01020304"),
        "Mox::Generation.valid: the attribute log ends within bool at offset 4: 1 bytes needed, 0 left");
    EXPECT_EQ(
        readError<Generation>("01020304ff"), "Mox::Generation.valid: the bool at offset 4 is 255, and neither 0 nor 1");
}

// --- reflection ---

TEST(GenerationReflectionTest, OnlyTheNullGenerationIsFalse) {
    EXPECT_FALSE(truthOf(Generation()));
    EXPECT_TRUE(truthOf(Generation(0, true)));
    EXPECT_TRUE(truthOf(Generation(7, false)));
    EXPECT_TRUE(truthOf(Generation(7, true)));
}

TEST(GenerationReflectionTest, AttributesAreReadOnly) {
    Generation object(7, true);
    Vel::U32 id = 0;
    bool valid = false;
    Generation null(9, true);
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::get, &id), 0);
    EXPECT_EQ(id, 7u);
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, &valid), 0);
    EXPECT_TRUE(valid);
    EXPECT_EQ(attributeOp(object, 4, AttributeOp::get, &null), 0);
    EXPECT_EQ(null, Generation(0, false));
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::set, nullptr, &id), 1);
    valid = false;
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::set, nullptr, &valid), 1);
    EXPECT_EQ(attributeOp(object, 4, AttributeOp::set, nullptr, &null), 1);
    EXPECT_EQ(object, Generation(7, true));
}

TEST(GenerationReflectionTest, OtherOperationsAreRefused) {
    Generation object(7, true);
    using Ops = std::vector<Vel::U32>;
    for (Vel::AttributeId const id : {2u, 3u, 4u}) EXPECT_EQ(opsNotAnswered(object, id, 1, 0), Ops()) << id;
    for (Vel::AttributeId const id : {0u, 1u, 5u, 258u}) EXPECT_EQ(opsNotAnswered(object, id, 2), Ops()) << id;
    EXPECT_EQ(wholeValueOps(object), (Ops{11, 12}));
}

TEST(GenerationReflectionTest, IsConstructedCopiedAndParsedByItsGlue) {
    auto const type = Vel::typeOf<Generation>();
    auto const& glue = type.glue();
    Generation object(9, true);
    Generation const source(7, true);
    glue.genericIfConstruct(&object, nullptr);
    EXPECT_EQ(object, Generation());
    glue.genericIfConstruct(&object, &source);
    EXPECT_EQ(object, source);
    Vel::U32 const id = 8;
    bool const valid = true;
    void const* const arguments[] = {&id, &valid};
    glue.genericIfConstructFromCtorArgs(&object, arguments);  // takes none
    EXPECT_EQ(object, Generation());
    glue.genericIfStrepToValue(&object, textOf(source), type);
    EXPECT_EQ(glue.genericIfStrRep(&object, type).stdString(), textOf(source));
    EXPECT_THROW(glue.genericIfStrepToValue(&object, textOf(Generation()) + "x", type), Vel::ParseException);
    EXPECT_EQ(object, source);
    glue.genericIfDestruct(&object);
}

// --- module table ---

TEST(GenerationModuleTest, AttributesAreListed) {
    auto const type = Vel::Registry::type("Mox::Generation");
    EXPECT_EQ(attributesOf(type), (std::vector<std::string>{"2 id field get U32", "3 valid field get bool",
                                      "4 null constant get Mox::Generation"}));
    EXPECT_EQ(type.strepTemplate(), "Value('Mox::Generation', ** {'id': %u, 'valid': %s})");
    EXPECT_EQ(attributesOf(Vel::Registry::type("Mox::GenerationEntity")),
        (std::vector<std::string>{"258 generation entityAttribute get set Mox::Generation"}));
}

TEST(GenerationModuleTest, NamesAreListedInByteOrder) {
    ModuleTable const table("_Generation_aceedaa2ef566248_velModule");
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.typeNames(), "Mox::Generation\0Mox::GenerationEntity\0U32\0Vel::Entity\0bool\0"s);
    EXPECT_EQ(table.attributeNames(), "\0generation\0id\0null\0valid\0"s);
    ASSERT_EQ(table.types(), 2u);
    EXPECT_EQ(table.firstAttribute(1), 3u);
    EXPECT_EQ(table.attributeCount(0), 3u);
    EXPECT_EQ(table.attributeCount(1), 1u);
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(table.attributeId(i), i + 2);
    EXPECT_EQ(table.attributeId(3), 258u);
    EXPECT_EQ(table.attributeName(3), "generation");
}

#if defined(__cpp_lib_format)
TEST(GenerationTest, FormatsAsItsText) { EXPECT_EQ(std::format("{}", Generation()), textOf(Generation())); }
#endif

}  // namespace
