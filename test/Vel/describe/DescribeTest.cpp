#include "Vel/describe/Describe.h"

#include "Fixtures.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/internal/Records.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

// What a description comes to in the tables: every fixture word for word.
namespace {

using namespace Fixture;
using Vel::AttributeKind;
using Vel::typeOf;
using Vel::VelAttr;
using Vel::VelType;

char const* spelled(AttributeKind kind) {
    static constexpr char const* names[] = {
        "field", "derived", "constant", "setter", "method", "collection", "ctorParam", "declared", "entityAttribute"};
    return names[static_cast<unsigned>(kind)];
}

std::string nameOf(VelType type) { return type ? type.name() : "-"; }

// "2 value field ops 0 1 type U8 size 1", with "key K", "result R" and "(name Type, ...)" where there are any.
std::string spelled(VelAttr attr) {
    std::string text = std::to_string(attr.attributeId()) + " " + attr.name() + " " + spelled(attr.kind()) + " ops";
    for (U32 op = 0; op < 22; ++op)
        if (attr.answers(static_cast<AttributeOp>(op))) text += " " + std::to_string(op);
    if (attr.valueType()) text += " type " + nameOf(attr.valueType());
    if (attr.keyType()) text += " key " + nameOf(attr.keyType());
    if (attr.resultType()) text += " result " + nameOf(attr.resultType());
    if (attr.record().encodedSize) text += " size " + std::to_string(attr.record().encodedSize);
    for (U32 i = 0; i < attr.parameterCount(); ++i)
        text += (i == 0 ? " (" : ", ") + std::string(attr.parameterName(i)) + " " + nameOf(attr.parameterType(i));
    return attr.parameterCount() ? text + ")" : text;
}

// The type's name, template, encoded size ("fixed" or "from", when strings or the like come on top), whole-value ops.
std::string spelled(VelType type) {
    std::string text = std::string(type.name()) + "\n" + type.strepTemplate().stdString() + "\n";
    text += (type.hasFixedEncodedSize() ? "fixed " : "from ") + std::to_string(type.encodedSize()) + " ops";
    for (U32 op = 0; op < 32; ++op)
        if (type.answers(static_cast<AttributeOp>(op))) text += " " + std::to_string(op);
    if (type.isHashable()) text += " hashable";
    if (type.isEntity()) text += " entity";
    if (type.isPolymorphic()) text += " polymorphic";
    text += " base " + nameOf(type.base()) + "\n";
    for (U32 i = 0; i < type.attributeCount(); ++i) text += spelled(type.attribute(i)) + "\n";
    return text;
}

TEST(DescribeTest, NumberWithConstantsAndASecondEntry) {
    EXPECT_EQ(spelled(typeOf<Chip>()), "Fixture::Chip\n"
                                       "%u\n"
                                       "fixed 1 ops 11 12 13 hashable base -\n"
                                       "2 value field ops 0 1 type U8 size 1\n"
                                       "3 min constant ops 0 type U8\n"
                                       "4 max constant ops 0 type U8\n"
                                       "5 allChips constant ops 0 type U8\n"
                                       "6 null constant ops 0 type U8\n"
                                       "7 hash derived ops 0 1 type U8\n");
}

TEST(DescribeTest, FunctionsBeforeFieldsKeepTheOrderOfTheirIds) {
    EXPECT_EQ(spelled(typeOf<ChipBits>()), "Fixture::ChipBits\n"
                                           "Value('Fixture::ChipBits', ** {'low': %lu, 'high': %lu})\n"
                                           "fixed 16 ops 11 12 13 hashable base -\n"
                                           "2 oneChip method ops 10 result Fixture::ChipBits (chip Fixture::Chip)\n"
                                           "3 noChips method ops 10 result Fixture::ChipBits\n"
                                           "4 chips method ops 10 result U32\n"
                                           "5 chip collection ops 0 1 2 type bool key Fixture::Chip\n"
                                           "6 concat method ops 10 result Fixture::ChipBits (other Fixture::ChipBits)\n"
                                           "7 low field ops 0 1 type U64 size 8\n"
                                           "8 high field ops 0 1 type U64 size 8\n");
}

TEST(DescribeTest, OwnTextAndOwnStreamHaveNeitherTemplateNorSize) {
    EXPECT_EQ(spelled(typeOf<Words>()), "Fixture::Words\n"
                                        "%s\n"
                                        "from 0 ops 11 12 13 15 18 19 20 21 base -\n"
                                        "2 size derived ops 0 type U16\n"
                                        "3 initialId ctorParam ops type U16\n"
                                        "4 word collection ops 0 1 2 3 4 5 type U64 key U8\n"
                                        "5 maxWords declared ops\n"
                                        "6 words method ops 10 result U32\n");
}

TEST(DescribeTest, PlainRecord) {
    EXPECT_EQ(spelled(typeOf<Sample>()), "Fixture::Sample\n"
                                         "Value('Fixture::Sample', ** {'value': %s, 'count': %u, 'when': %s})\n"
                                         "fixed 13 ops 11 12 base -\n"
                                         "2 value field ops 0 1 type U1 size 1\n"
                                         "3 count field ops 0 1 type U32 size 4\n"
                                         "4 when field ops 0 1 type Vel::Seconds size 8\n");
}

TEST(DescribeTest, SetterAndMethodOfThreeParameters) {
    EXPECT_EQ(spelled(typeOf<Tally>()), "Fixture::Tally\n"
                                        "Value('Fixture::Tally', ** {'current': %s, 'changes': %u, 'last': %s})\n"
                                        "fixed 13 ops 11 12 base -\n"
                                        "2 current field ops 0 1 type U1 size 1\n"
                                        "3 changes field ops 0 1 type U32 size 4\n"
                                        "4 last field ops 0 1 type Vel::Seconds size 8\n"
                                        "5 update setter ops 1 type Fixture::Sample\n"
                                        "6 doUpdate method ops 10 (val bool, count U32, timestamp Vel::Seconds)\n");
}

TEST(DescribeTest, ReadOnlyFieldsAndFunctionsThatYieldTheType) {
    EXPECT_EQ(spelled(typeOf<MaybeText>()), "Fixture::MaybeText\n"
                                            "Value('Fixture::MaybeText', ** {'value': %s, 'isSet': %s})\n"
                                            "from 5 ops 11 12 base -\n"
                                            "2 value field ops 0 type Vel::String size 4\n"
                                            "3 isSet field ops 0 type bool size 1\n"
                                            "4 valueSet method ops 10 result Fixture::MaybeText (value Vel::String)\n"
                                            "5 valueDefault constant ops 0 type Vel::String\n"
                                            "6 valueInvalid method ops 10 result Fixture::MaybeText\n"
                                            "7 toStrep method ops 10 result Vel::String\n");
}

TEST(DescribeTest, NumberWithOwnTextAndArithmetic) {
    EXPECT_EQ(spelled(typeOf<MaybeNumber>()), "Fixture::MaybeNumber\n"
                                              "%s\n"
                                              "fixed 8 ops 11 12 13 14 15 16 17 base -\n"
                                              "2 value field ops 0 1 type U64 size 8\n"
                                              "3 null derived ops 0 1 type bool\n"
                                              "4 nullBit constant ops 0 type U64\n"
                                              "5 stringValue derived ops 0 1 type Vel::String\n"
                                              "6 defaultReprAttribute constant ops 0 type Vel::String\n");
}

TEST(DescribeTest, PackedFormAndOrder) {
    EXPECT_EQ(spelled(typeOf<Stamp>()), "Fixture::Stamp\n"
                                        "Value('Fixture::Stamp', ** {'timestamp': %u, 'pid': %u, 'count': %u})\n"
                                        "fixed 8 ops 11 12 13 hashable base -\n"
                                        "2 timestamp field ops 0 type U32 size 4\n"
                                        "3 pid field ops 0 type U16 size 2\n"
                                        "4 count field ops 0 type U16 size 2\n"
                                        "5 val derived ops 0 type U64\n"
                                        "6 doInit method ops 10\n"
                                        "7 unpack method ops 10 result Fixture::Stamp (packed U64)\n");
}

TEST(DescribeTest, ComparisonsWithoutOperators) {
    EXPECT_EQ(spelled(typeOf<Moment>()), "Fixture::Moment\n"
                                         "Value('Fixture::Moment', ** {'value': %s, 'dummy': %s})\n"
                                         "fixed 16 ops 11 12 13 base -\n"
                                         "2 value field ops 0 type Vel::Seconds size 8\n"
                                         "3 dummy field ops 0 1 type Vel::Seconds size 8\n"
                                         "4 isActive method ops 10 result bool\n"
                                         "5 equals method ops 10 result bool (t Vel::Seconds)\n");
}

TEST(DescribeTest, ConstantOfTheTypeItself) {
    EXPECT_EQ(spelled(typeOf<Version>()), "Fixture::Version\n"
                                          "Value('Fixture::Version', ** {'id': %u, 'valid': %s})\n"
                                          "fixed 5 ops 11 12 base -\n"
                                          "2 id field ops 0 type U32 size 4\n"
                                          "3 valid field ops 0 type bool size 1\n"
                                          "4 null constant ops 0 type Fixture::Version\n");
}

TEST(DescribeTest, EveryKindOfField) {
    EXPECT_EQ(spelled(typeOf<Everything>()),
        "Fixture::Everything\n"
        "Value('Fixture::Everything', ** {'flag': %s, 'bit': %s, 'small': %u, 'middle': %u, 'large': %u, "
        "'huge': %lu, 'ratio': %s, 'time': %s, 'text': %s, 'version': %s, 'chip': %s, 'maybe': %s})\n"
        "from 48 ops 11 base -\n"
        "2 flag field ops 0 1 type bool size 1\n"
        "3 bit field ops 0 1 type U1 size 1\n"
        "4 small field ops 0 1 type U8 size 1\n"
        "5 middle field ops 0 1 type U16 size 2\n"
        "6 large field ops 0 1 type U32 size 4\n"
        "7 huge field ops 0 1 type U64 size 8\n"
        "8 ratio field ops 0 1 type F64 size 8\n"
        "9 time field ops 0 1 type Vel::Seconds size 8\n"
        "10 text field ops 0 1 type Vel::String size 4\n"
        "11 version field ops 0 1 type Fixture::Version size 5\n"
        "12 chip field ops 0 1 type Fixture::Chip size 1\n"
        "13 maybe field ops 0 1 type Fixture::MaybeText size 5\n");
}

TEST(DescribeTest, EntityAttributesCountFrom258) {
    EXPECT_EQ(spelled(typeOf<Leaf>()), "Fixture::Leaf\n"
                                       "\n"
                                       "from 0 ops entity polymorphic base Vel::Entity\n"
                                       "258 size entityAttribute ops 0 1 type U32 size 4\n"
                                       "259 version entityAttribute ops 0 1 type Fixture::Version size 5\n"
                                       "260 peer entityAttribute ops 0 1 type Fixture::Leaf\n"
                                       "261 cached entityAttribute ops 0 type U32 size 4\n"
                                       "262 grown method ops 10 result U32 (by U32)\n");
}

TEST(DescribeTest, DerivedEntityContinuesItsBasesIds) {
    EXPECT_EQ(spelled(typeOf<Twig>()), "Fixture::Twig\n"
                                       "\n"
                                       "from 0 ops entity polymorphic base Fixture::Leaf\n"
                                       "263 present entityAttribute ops 0 1 type bool size 1\n");
}

TEST(DescribeTest, DirectoryIsAnEntityWithOneCollection) {
    EXPECT_EQ(spelled(Vel::typeOf<Vel::Entity>()), "Vel::Entity\n\nfrom 0 ops entity polymorphic base -\n");
    EXPECT_EQ(Vel::typeOf<Vel::Entity>().attributeCount(), 0u);
}

TEST(DescribeTest, ScalarsAreTypes) {
    EXPECT_EQ(spelled(typeOf<bool>()), "bool\n%s\nfixed 1 ops 11 12 base -\n");
    EXPECT_EQ(spelled(typeOf<U1>()), "U1\n%s\nfixed 1 ops 11 12 base -\n");
    EXPECT_EQ(spelled(typeOf<U8>()), "U8\n%u\nfixed 1 ops 11 12 13 hashable base -\n");
    EXPECT_EQ(spelled(typeOf<U16>()), "U16\n%u\nfixed 2 ops 11 12 13 hashable base -\n");
    EXPECT_EQ(spelled(typeOf<U32>()), "U32\n%u\nfixed 4 ops 11 12 13 hashable base -\n");
    EXPECT_EQ(spelled(typeOf<U64>()), "U64\n%lu\nfixed 8 ops 11 12 13 hashable base -\n");
    EXPECT_EQ(spelled(typeOf<F64>()), "F64\n%s\nfixed 8 ops 11 12 13 base -\n");
    EXPECT_EQ(spelled(typeOf<Seconds>()), "Vel::Seconds\n%s\nfixed 8 ops 11 12 base -\n");
    EXPECT_EQ(spelled(typeOf<String>()), "Vel::String\n%s\nfrom 4 ops 11 12 base -\n");
}

TEST(DescribeTest, AttributesAreFoundByNameAndById) {
    VelType const type = typeOf<Tally>();
    EXPECT_EQ(type.attribute("doUpdate")->attributeId(), 6u);
    EXPECT_STREQ(type.attributeOfId(3)->name(), "changes");
    EXPECT_FALSE(type.attribute("value"));
    EXPECT_FALSE(type.attribute(""));
    for (U32 const id : {0u, 1u, 7u, 258u, 0xFFFFFFFFu}) EXPECT_FALSE(type.attributeOfId(id)) << id;
}

TEST(DescribeTest, AttributesOfABaseAreFoundThroughTheDerivedType) {
    VelType const twig = typeOf<Twig>();
    EXPECT_EQ(nameOf(twig.attribute("size")->type()), "Fixture::Leaf");
    EXPECT_EQ(twig.attribute("size")->attributeId(), 258u);
    EXPECT_STREQ(twig.attributeOfId(262)->name(), "grown");
    EXPECT_STREQ(twig.attributeOfId(263)->name(), "present");
    EXPECT_FALSE(twig.attributeOfId(264));
    EXPECT_FALSE(typeOf<Leaf>().attributeOfId(263));
}

TEST(DescribeTest, NamesStandForTheirNumbers) {
    static_assert(Vel::attributeId<Tally>("changes") == 3);
    static_assert(Vel::attributeId<Tally>("doUpdate") == 6);
    static_assert(Vel::attributeId<Leaf>("size") == 258);
    static_assert(Vel::attributeId<Twig>("size") == 258);  // the base's
    static_assert(Vel::attributeId<Twig>("present") == 263);
}

TEST(DescribeTest, RecordsHaveTheirObjectSizes) {
    EXPECT_EQ(typeOf<Chip>().record().objectSize, 1u);
    EXPECT_EQ(typeOf<Stamp>().record().objectSize, 8u);
    EXPECT_EQ(typeOf<Tally>().record().objectSize, 16u);
    EXPECT_EQ(typeOf<MaybeText>().record().objectSize, 16u);
}

}  // namespace
