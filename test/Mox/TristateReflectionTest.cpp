#include "ModuleTable.h"
#include "TristateTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

// Tristates as reflection and the module's table show them.
namespace {

using namespace Mox;
using namespace std::string_literals;
using Vel::AttributeOp;

template <class T> class TristateReflectionTest : public TristateTest<T> {};
TYPED_TEST_SUITE(TristateReflectionTest, TristateTypes);

TYPED_TEST(TristateReflectionTest, FieldsAreRead) {
    TypeParam object(this->sample, true);
    typename TestFixture::Scalar value{};
    bool isSet = false;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::get, &value), 0);
    EXPECT_EQ(value, this->sample);
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, &isSet), 0);
    EXPECT_TRUE(isSet);
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::get, nullptr), 0);  // nobody wants to know
}

TYPED_TEST(TristateReflectionTest, FieldsAreNotWritten) {
    TypeParam object(this->sample, true);
    auto const zero = this->zero;
    bool const isSet = false;
    EXPECT_EQ(attributeOp(object, 2, AttributeOp::set, nullptr, &zero), 1);
    EXPECT_EQ(attributeOp(object, 3, AttributeOp::set, nullptr, &isSet), 1);
    EXPECT_EQ(object, TypeParam(this->sample, true));
}

TYPED_TEST(TristateReflectionTest, ValueSetYieldsANewValueAndLeavesTheObject) {
    TypeParam object(this->zero, false);
    TypeParam result;
    auto const sample = this->sample;
    auto const zero = this->zero;
    EXPECT_EQ(callOp(object, 4, &result, sample), 0);
    EXPECT_EQ(result, TypeParam(this->sample, true));
    EXPECT_EQ(callOp(object, 4, &result, zero), 0);
    EXPECT_EQ(result, TypeParam(this->zero, true));
    EXPECT_EQ(object, TypeParam(this->zero, false));
    EXPECT_EQ(callOp(object, 4, nullptr, sample), 0);
}

TYPED_TEST(TristateReflectionTest, ValueDefaultIsTheZeroWhateverTheObject) {
    TypeParam object(this->sample, true);
    typename TestFixture::Scalar value = this->sample;
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::get, &value), 0);
    EXPECT_EQ(value, this->zero);
    EXPECT_EQ(attributeOp(object, 5, AttributeOp::set, nullptr, &value), 1);
}

TYPED_TEST(TristateReflectionTest, ValueInvalidYieldsTheUnsetValueAndLeavesTheObject) {
    TypeParam object(this->sample, true);
    TypeParam result(this->sample, true);
    EXPECT_EQ(callOp(object, 6, &result), 0);
    EXPECT_EQ(result, TypeParam());
    EXPECT_EQ(object, TypeParam(this->sample, true));
}

TYPED_TEST(TristateReflectionTest, ToStrepYieldsTheShortText) {
    TypeParam object(this->sample, false);
    Vel::String result = "untouched";
    if constexpr (std::is_same_v<TypeParam, TristateString>) {
        EXPECT_EQ(callOp(object, 7, &result), 2);
        EXPECT_EQ(result, "untouched");
    } else {
        EXPECT_EQ(callOp(object, 7, &result), 0);
        EXPECT_EQ(result, "unset");
        object = TypeParam::valueSet(this->sample);
        EXPECT_EQ(callOp(object, 7, &result), 0);
        EXPECT_EQ(result, object.toStrep());
    }
}

TYPED_TEST(TristateReflectionTest, OtherOperationsAreRefused) {
    TypeParam object(this->sample, true);
    using Ops = std::vector<Vel::U32>;
    EXPECT_EQ(opsNotAnswered(object, 2, 1, 0), Ops());
    EXPECT_EQ(opsNotAnswered(object, 3, 1, 0), Ops());
    EXPECT_EQ(opsNotAnswered(object, 4, 1, 10), Ops());
    EXPECT_EQ(opsNotAnswered(object, 5, 1, 0), Ops());
    EXPECT_EQ(opsNotAnswered(object, 6, 1, 10), Ops());
    if constexpr (std::is_same_v<TypeParam, TristateString>)
        EXPECT_EQ(opsNotAnswered(object, 7, 2), Ops());
    else
        EXPECT_EQ(opsNotAnswered(object, 7, 1, 10), Ops());
    for (Vel::AttributeId const id : {0u, 1u, 8u, 258u}) EXPECT_EQ(opsNotAnswered(object, id, 2), Ops()) << id;
}

TYPED_TEST(TristateReflectionTest, ValuesAnswerTruthAndEqualityAndNoOrder) {
    TypeParam object(this->sample, true);
    EXPECT_EQ(wholeValueOps(object), (std::vector<Vel::U32>{11, 12}));
}

TYPED_TEST(TristateReflectionTest, IsConstructedCopiedAndParsedByItsGlue) {
    auto const type = Vel::typeOf<TypeParam>();
    auto const& glue = type.glue();
    TypeParam const source(this->sample, true);
    Vel::GenericValue object(type);  // by the glue
    auto& value = *static_cast<TypeParam*>(object.data());
    EXPECT_EQ(value, TypeParam());
    glue.genericIfDestruct(&value);
    glue.genericIfConstruct(&value, &source);
    EXPECT_EQ(value, source);
    std::string const text = this->recordText(TestFixture::Case::zeroText, "True");
    glue.genericIfStrepToValue(&value, text, type);
    EXPECT_EQ(value, TypeParam(this->zero, true));
    EXPECT_EQ(glue.genericIfStrRep(&value, type).stdString(), text);
    EXPECT_THROW(
        glue.genericIfStrepToValue(&value, this->recordText(TestFixture::Case::sampleText, "True") + "x", type),
        Vel::ParseException);
    EXPECT_EQ(value, TypeParam(this->zero, true));
}

TYPED_TEST(TristateReflectionTest, ConstructionByReflectionTakesNoArguments) {
    auto const& glue = Vel::typeOf<TypeParam>().glue();
    alignas(TypeParam) unsigned char storage[sizeof(TypeParam)];
    auto const value = this->sample;
    bool const isSet = true;
    void const* const arguments[] = {&value, &isSet};
    glue.genericIfConstructFromCtorArgs(storage, arguments);
    EXPECT_EQ(*std::launder(reinterpret_cast<TypeParam*>(storage)), TypeParam());
    glue.genericIfDestruct(storage);
    glue.genericIfConstructFromCtorArgs(storage, nullptr);
    EXPECT_EQ(*std::launder(reinterpret_cast<TypeParam*>(storage)), TypeParam());
    glue.genericIfDestruct(storage);
}

TYPED_TEST(TristateReflectionTest, ViewsOfAnotherTypeAreRefused) {
    TypeParam object;
    auto const type = Vel::typeOf<TypeParam>();
    auto const other = Vel::Registry::type("Mox::Seqno32");
    EXPECT_EQ(type.glue().genericIfVoidPtrIs(&object, type, type), &object);
    EXPECT_THROW(type.glue().genericIfVoidPtrIs(&object, other, type), Vel::TypeException);
    EXPECT_THROW(type.glue().genericIfVoidPtrIs(&object, type, other), Vel::TypeException);
}

// --- module table ---

TYPED_TEST(TristateReflectionTest, AttributesAreListed) {
    using Case = typename TestFixture::Case;
    std::string const scalar = Case::scalarName;
    std::vector<std::string> expected = {"2 value field get " + scalar, "3 isSet field get bool",
        "4 valueSet method call", "5 valueDefault constant get " + scalar, "6 valueInvalid method call"};
    if (!std::is_same_v<TypeParam, TristateString>) expected.push_back("7 toStrep method call");
    auto const type = Vel::Registry::type(Case::name);
    ASSERT_EQ(type, Vel::typeOf<TypeParam>());
    EXPECT_EQ(attributesOf(type), expected);
    EXPECT_EQ(type.strepTemplate().stdString(), this->recordText(Case::conversion, "%s"));
}

TYPED_TEST(TristateReflectionTest, FunctionsTellTheirParametersAndResults) {
    auto const type = Vel::typeOf<TypeParam>();
    auto const valueSet = type.attribute("valueSet").value();
    ASSERT_EQ(valueSet.parameterCount(), 1u);
    EXPECT_STREQ(valueSet.parameterType(0).name(), TestFixture::Case::scalarName);
    EXPECT_EQ(valueSet.resultType(), type);
    auto const valueInvalid = type.attribute("valueInvalid").value();
    EXPECT_EQ(valueInvalid.parameterCount(), 0u);
    EXPECT_EQ(valueInvalid.resultType(), type);
    if (auto const toStrep = type.attribute("toStrep")) {
        EXPECT_EQ(toStrep->parameterCount(), 0u);
        EXPECT_STREQ(toStrep->resultType().name(), "Vel::String");
    }
}

TEST(TristateModuleTest, NamesAreListedInByteOrder) {
    ModuleTable const table("_TristateTypes_104cc86953bb2461_velModule");
    ASSERT_TRUE(table);
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.typeNames(), "F64\0Mox::TristateBoolean\0Mox::TristateF64\0Mox::TristateString\0"
                                 "Mox::TristateU16\0Mox::TristateU32\0Mox::TristateU64\0Mox::TristateU8\0"
                                 "U16\0U32\0U64\0U8\0Vel::String\0bool\0"s);
    EXPECT_EQ(table.attributeNames(), "\0isSet\0toStrep\0value\0valueDefault\0valueInvalid\0valueSet\0"s);
}

TEST(TristateModuleTest, RecordsStandInTheOrderOfTheirIds) {
    ModuleTable const table("_TristateTypes_104cc86953bb2461_velModule");
    ASSERT_TRUE(table);
    ASSERT_EQ(table.types(), 7u);
    EXPECT_EQ(table.attributes(), 41u);
    static constexpr char const* names[] = {"value", "isSet", "valueSet", "valueDefault", "valueInvalid", "toStrep"};
    unsigned next = 0;
    for (unsigned type = 0; type < 7; ++type) {
        EXPECT_EQ(table.firstAttribute(type), next);
        EXPECT_EQ(table.attributeCount(type), type == 1 ? 5u : 6u);  // the second is the string
        for (unsigned i = 0; i < table.attributeCount(type); ++i, ++next) {
            EXPECT_EQ(table.attributeId(next), i + 2);
            EXPECT_EQ(table.attributeName(next), names[i]);
        }
    }
}

}  // namespace
