#include "Vel/describe/Module.h"

#include "FixtureTable.h"
#include "Fixtures.h"
#include "Vel/describe/internal/Records.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

extern "C" char const _Fixtures_c182c5812ed84934_velModule[];

namespace {

using namespace std::string_literals;
using FixtureTables::fixtures;
using FixtureTables::Table;
using Vel::AttributeKind;
using Vel::AttributeRecord;
using Vel::ModuleHeader;
using Vel::ParameterRecord;
using Vel::Registry;
using Vel::String;
using Vel::typeOf;
using Vel::TypeGlue;
using Vel::TypeRecord;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using Vel::VelType;

std::string malformation(std::function<void(Table&)> const& spoil) {
    Table table;
    spoil(table);
    return Registry::malformation(&table.header()).stdString();
}

// "name|name|" of the names in a table's list.
std::string names(char const* list, std::size_t size) {
    std::string text(list, size);
    std::replace(text.begin(), text.end(), '\0', '|');
    return text;
}

// --- the layout ---

TEST(ModuleTest, TableStandsUnderItsExportedSymbol) {
    EXPECT_EQ(static_cast<void const*>(_Fixtures_c182c5812ed84934_velModule), &fixtures());
    EXPECT_EQ(fixtures().fingerprint, 0xc182c5812ed84934u);
    EXPECT_EQ(typeOf<Fixture::Chip>().moduleFingerprint(), 0xc182c5812ed84934u);
    EXPECT_EQ(typeOf<Fixture::Chip>().moduleName(), "Fixtures");
    EXPECT_EQ(std::string(fixtures().magic, 8), "VELMOD1\0"s);
}

TEST(ModuleTest, NamesAreSortedAndEachStandsOnce) {
    ModuleHeader const& m = fixtures();
    EXPECT_EQ(names(Vel::at<char>(m, m.typeNames), m.typeNamesSize),
        "F64|Fixture::Chip|Fixture::ChipBits|Fixture::Demanding|Fixture::Everything|Fixture::Leaf|Fixture::MaybeNumber|"
        "Fixture::MaybeText|Fixture::Moment|Fixture::Nameless|Fixture::Sample|Fixture::Stamp|Fixture::Tally|"
        "Fixture::Twig|Fixture::Version|Fixture::Words|U1|U16|U32|U64|U8|Vel::Entity|Vel::Seconds|Vel::String|bool|");
    EXPECT_EQ(names(Vel::at<char>(m, m.attributeNames), m.attributeNamesSize),
        "|allChips|bit|by|cached|changes|chip|chips|concat|count|current|defaultReprAttribute|doInit|doUpdate|dummy|"
        "equals|flag|grown|hash|high|huge|id|initialId|isActive|isSet|large|last|low|max|maxWords|maybe|middle|min|"
        "noChips|null|nullBit|oneChip|other|packed|peer|pid|present|ratio|size|small|stringValue|t|text|time|timestamp|"
        "toStrep|unpack|update|val|valid|value|valueDefault|valueInvalid|valueSet|version|when|word|words|");
}

TEST(ModuleTest, TypeRecordEndsWithItsFirstAttributeAndTheirNumber) {
    ModuleHeader const& m = fixtures();
    auto const* const words = Vel::at<U16>(m, m.types);
    EXPECT_EQ(words[6], 0);  // Fixture::Chip
    EXPECT_EQ(words[7], 6);
    EXPECT_EQ(words[8 + 6], 6);  // Fixture::ChipBits
    EXPECT_EQ(words[8 + 7], 7);
}

TEST(ModuleTest, AttributeRecordBeginsWithItsIdAndLocatesItsName) {
    ModuleHeader const& m = fixtures();
    char const* const record = Vel::at<char>(m, m.attributes) + 3 * 20;  // Fixture::Chip.allChips
    U32 id = 0;
    U32 second = 0;
    U16 high = 0;
    std::memcpy(&id, record, 4);
    std::memcpy(&second, record + 4, 4);
    std::memcpy(&high, record + 8, 2);
    EXPECT_EQ(id, 5u);
    EXPECT_STREQ(Vel::at<char>(m, m.attributeNames) + (second >> 28 | U32(high) << 4), "allChips");
    // A name beyond the first 16 bytes needs the word that follows, too.
    std::memcpy(&second, record - 60 + 4, 4);
    std::memcpy(&high, record - 60 + 8, 2);
    EXPECT_GT(high, 0);
    EXPECT_STREQ(Vel::at<char>(m, m.attributeNames) + (second >> 28 | U32(high) << 4), "value");
}

TEST(ModuleTest, AttributeRecordsAreGroupedByTypeInOrderOfTheirIds) {
    ModuleHeader const& m = fixtures();
    auto const* const types = Vel::at<TypeRecord>(m, m.types);
    auto const* const attributes = Vel::at<AttributeRecord>(m, m.attributes);
    unsigned next = 0;
    for (unsigned t = 0; t < m.typeCount; ++t) {
        EXPECT_EQ(types[t].firstAttribute, next);
        for (unsigned i = 1; i < types[t].attributeCount; ++i)
            EXPECT_EQ(attributes[next + i].id, attributes[next + i - 1].id + 1);
        next += types[t].attributeCount;
    }
    EXPECT_EQ(next, m.attributeCount);
}

// --- soundness ---

TEST(ModuleTest, EveryRegisteredTableIsSound) {
    for (ModuleHeader const* const module : Registry::modules()) EXPECT_EQ(Registry::malformation(module), "");
    EXPECT_EQ(malformation([](Table&) {}), "");
}

TEST(ModuleTest, HeaderMustFitTheTable) {
    EXPECT_EQ(malformation([](Table& t) { t.header().magic[6] = '2'; }), "it does not begin with VELMOD1");
    EXPECT_EQ(malformation([](Table& t) { t.header().magic[7] = ' '; }), "it does not begin with VELMOD1");
    auto const outside = "a part of it lies outside its size";
    EXPECT_EQ(malformation([](Table& t) { t.header().size = 0; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().size = sizeof(ModuleHeader) - 1; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().size -= 8; }), outside);  // cuts off the last glue
    EXPECT_EQ(malformation([](Table& t) { t.header().types = t.header().size - 16; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().types = 0xFFFFFFF0; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().attributes = t.header().size; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().parameters = t.header().size; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().typeNames = t.header().size; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().attributeNames = t.header().size; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().name = t.header().size; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().glue = t.header().size; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().typeCount = 0xFFFF; }), outside);
    EXPECT_EQ(malformation([](Table& t) { t.header().attributeCount = 0xFFFF; }), outside);
}

TEST(ModuleTest, PartsMustBeAligned) {
    auto const misaligned = "a part of it is not aligned";
    EXPECT_EQ(malformation([](Table& t) { t.header().types += 1; }), misaligned);
    EXPECT_EQ(malformation([](Table& t) { t.header().attributes += 2; }), misaligned);
    EXPECT_EQ(malformation([](Table& t) { t.header().parameters += 1; }), misaligned);
    EXPECT_EQ(malformation([](Table& t) { t.header().glue -= 4; }), misaligned);
}

TEST(ModuleTest, ModuleMustHaveAName) {
    EXPECT_EQ(malformation([](Table& t) { t.header().nameSize = 0; }), "it has no name");
    EXPECT_EQ(malformation([](Table& t) { t.header().nameSize = 1; }), "it has no name");
    EXPECT_EQ(malformation([](Table& t) { t.name()[t.header().nameSize - 1] = 'x'; }), "it has no name");
}

TEST(ModuleTest, NameListsMustBeSortedAndEnd) {
    EXPECT_EQ(malformation([](Table& t) { t.typeNames()[t.header().typeNamesSize - 1] = 'x'; }),
        "the list of type names does not end with a NUL");
    EXPECT_EQ(
        malformation([](Table& t) { t.header().typeNamesSize = 0; }), "the list of type names does not end with a NUL");
    EXPECT_EQ(malformation([](Table& t) { t.attributeNames()[t.header().attributeNamesSize - 1] = 'x'; }),
        "the list of attribute names does not end with a NUL");
    EXPECT_EQ(
        malformation([](Table& t) { t.typeNames()[0] = 'a'; }), "the type names are not sorted at \"Fixture::Chip\"");
    EXPECT_EQ(
        malformation([](Table& t) { t.attributeNames()[1] = 'z'; }), "the attribute names are not sorted at \"bit\"");
    EXPECT_EQ(malformation([](Table& t) { t.attributeNames()[0] = 'a'; }),
        "the attribute names do not begin with the empty name");
}

TEST(ModuleTest, TypesMustHaveNamesAndGlue) {
    EXPECT_EQ(malformation([](Table& t) { t.types()[2].name += 1; }), "type 2 has no name");
    EXPECT_EQ(malformation([](Table& t) { t.types()[2].name = 0xFFFE; }), "type 2 has no name");
    EXPECT_EQ(malformation([](Table& t) { t.types()[0].base = 1; }), "the base of Fixture::Chip has no name");
    EXPECT_EQ(malformation([](Table& t) { t.glue()[0] = nullptr; }), "Fixture::Chip has no glue");
    EXPECT_EQ(malformation([](Table& t) { t.types()[1].name = t.types()[0].name; }), "it defines Fixture::Chip twice");
    EXPECT_EQ(malformation([](Table& t) {
        t.typeNames()[0] = '\0';  // "F64" becomes "" and "64"
        t.types()[0].name = 0;
    }),
        "type 0 has no name");
}

TEST(ModuleTest, AttributesMustBeInsideAndInOrder) {
    EXPECT_EQ(malformation([](Table& t) { t.types()[0].firstAttribute = t.header().attributeCount; }),
        "the attributes of Fixture::Chip lie outside the table");
    EXPECT_EQ(malformation([](Table& t) { t.types()[0].attributeCount = 0xFFFF; }),
        "the attributes of Fixture::Chip lie outside the table");
    EXPECT_EQ(
        malformation([](Table& t) { t.attributes()[1].id = 2; }), "attribute id 2 of Fixture::Chip is out of order");
    EXPECT_EQ(
        malformation([](Table& t) { t.attributes()[1].id = 4; }), "attribute id 4 of Fixture::Chip is out of order");
    EXPECT_EQ(malformation([](Table& t) {
        for (U32 i = 0; i < 6; ++i) t.attributes()[i].id = i + 1;
    }),
        "attribute id 1 of Fixture::Chip is out of order");
}

TEST(ModuleTest, AttributesMustHaveNamesAndTypes) {
    EXPECT_EQ(malformation([](Table& t) { t.attributes()[0].nameHigh = 0xFFFF; }),
        "attribute 2 of Fixture::Chip has no name");
    EXPECT_EQ(malformation([](Table& t) {
        t.attributes()[0].nameHigh = 0;
        t.attributes()[0].nameLowKindOps &= 0x0FFFFFFF;
    }),
        "attribute 2 of Fixture::Chip has no name");
    EXPECT_EQ(
        malformation([](Table& t) { t.attributes()[0].valueType += 1; }), "attribute 2 of Fixture::Chip has no type");
    EXPECT_EQ(
        malformation([](Table& t) { t.attributes()[0].keyType = 1; }), "attribute 2 of Fixture::Chip has no type");
}

TEST(ModuleTest, ParametersMustBeInsideAndHaveNamesAndTypes) {
    EXPECT_EQ(malformation([](Table& t) { t.attributes()[6].parameterCount = 0xFFFF; }),
        "the parameters of attribute 2 of Fixture::ChipBits lie outside the table");
    EXPECT_EQ(malformation([](Table& t) { t.parameters()[0].name += 1; }),
        "a parameter of attribute 2 of Fixture::ChipBits has no name or type");
    EXPECT_EQ(malformation([](Table& t) { t.parameters()[0].type = Vel::noName; }),
        "a parameter of attribute 2 of Fixture::ChipBits has no name or type");
}

// Whatever byte is wrong: the check itself reads only the table, and what it lets pass can be read.
TEST(ModuleTest, AnyWrongByteIsLookedAtSafely) {
    Table table;
    unsigned refused = 0;
    unsigned passed = 0;
    std::size_t read = 0;
    for (std::size_t at = 0; at < fixtures().size; ++at) {
        char const good = table.bytes()[at];
        for (unsigned const flip : {1u, 2u, 4u, 8u, 16u, 32u, 64u, 128u, 255u, unsigned(static_cast<U8>(good))}) {
            if (flip == 0) continue;
            table.bytes()[at] = static_cast<char>(static_cast<U8>(good) ^ flip);
            if (!Registry::malformation(&table.header()).empty()) {
                ++refused;
                continue;
            }
            ++passed;
            for (U32 i = 0; i < table.header().typeCount; ++i) {
                VelType const type(&table.header(), i);
                read += std::strlen(type.name());
                for (U32 j = 0; j < type.attributeCount(); ++j) {
                    Vel::VelAttr const attr = type.attribute(j);
                    read += std::strlen(attr.name());
                    for (U32 p = 0; p < attr.parameterCount(); ++p) read += std::strlen(attr.parameterName(p));
                }
            }
        }
        table.bytes()[at] = good;
    }
    EXPECT_GT(refused, 1000u);
    EXPECT_GT(passed, 1000u);
    EXPECT_GT(read, 1000u);
}

// --- registration ---

std::string refusalOf(std::string_view module) {
    for (Registry::Refusal const& refusal : Registry::refusals())
        if (refusal.module == module) return refusal.reason.stdString();
    return "";
}

TEST(RegistryTest, FindsTypesByName) {
    EXPECT_EQ(Registry::type("Fixture::Tally"), typeOf<Fixture::Tally>());
    EXPECT_EQ(Registry::type("Vel::Dir"), typeOf<Vel::Dir>());
    EXPECT_EQ(Registry::type("U32"), typeOf<U32>());
    for (char const* const name : {"", "Fixture::", "fixture::Tally", "Fixture::Tally "})
        EXPECT_FALSE(Registry::type(name)) << name;
}

TEST(RegistryTest, ListsTypesInOrderOfDeclaration) {
    std::string list;
    for (VelType const type : Registry::types())
        if (&type.module() == &fixtures()) list += type.name() + 9 + " "s;
    EXPECT_EQ(list, "Chip ChipBits Words Sample Tally MaybeText MaybeNumber Stamp Moment Version Everything Leaf Twig "
                    "Nameless Demanding ");
}

TEST(RegistryTest, NoModuleOfThisProgramIsRefused) { EXPECT_TRUE(Registry::refusals().empty()); }

TEST(RegistryTest, RegisteredModuleIsUsedUntilWithdrawn) {
    {
        Table table;
        table.renamedTo('G');
        Vel::velModuleIs(&table.header());
        VelType const type = Registry::type("Gixture::Tally");
        ASSERT_TRUE(type);
        EXPECT_EQ(type.moduleName(), "Gixtures");
        EXPECT_EQ(Registry::modules().back(), &table.header());
        EXPECT_TRUE(Registry::type("Fixture::Tally"));
    }
    EXPECT_FALSE(Registry::type("Gixture::Tally"));
    EXPECT_TRUE(Registry::type("Fixture::Tally"));
}

TEST(RegistryTest, SecondModuleWithATypeOfTheSameNameIsRefused) {
    {
        Table table;
        table.name()[0] = 'P';
        Vel::velModuleIs(&table.header());
        testing::internal::CaptureStderr();
        EXPECT_EQ(Registry::type("Fixture::Chip"), typeOf<Fixture::Chip>());
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "vel: module Pixtures is refused: it defines the type Fixture::Chip, which module Fixtures defines too\n");
        EXPECT_EQ(refusalOf("Pixtures"), "it defines the type Fixture::Chip, which module Fixtures defines too");
        EXPECT_EQ(std::ranges::count(Registry::modules(), &table.header()), 0);
    }
    EXPECT_EQ(refusalOf("Pixtures"), "");
    EXPECT_EQ(Registry::type("Fixture::Chip"), typeOf<Fixture::Chip>());
}

TEST(RegistryTest, RefusalIsReportedOnce) {
    Table table;
    Vel::velModuleIs(&table.header());
    testing::internal::CaptureStderr();
    Registry::types();
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    Registry::types();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(Registry::refusals().size(), 1u);
}

TEST(RegistryTest, ModuleOfWhichOneTypeClashesDefinesNone) {
    Table table;
    table.renamedTo('G');
    std::string_view const list(table.typeNames(), table.header().typeNamesSize);
    table.typeNames()[list.find("Gixture::Chip")] = 'F';  // the first one, so the names stay sorted
    Vel::velModuleIs(&table.header());
    testing::internal::CaptureStderr();
    EXPECT_FALSE(Registry::type("Gixture::Tally"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
        "vel: module Gixtures is refused: it defines the type Fixture::Chip, which module Fixtures defines too\n");
}

TEST(RegistryTest, MalformedModuleIsRefusedUnderItsNameOrAQuestionMark) {
    Table table;
    table.header().magic[0] = 'X';
    Vel::velModuleIs(&table.header());
    testing::internal::CaptureStderr();
    Registry::types();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "vel: module ? is refused: it does not begin with VELMOD1\n");
    EXPECT_EQ(refusalOf("?"), "it does not begin with VELMOD1");
    Table named;
    named.glue()[0] = nullptr;
    Vel::velModuleIs(&named.header());
    testing::internal::CaptureStderr();
    EXPECT_EQ(refusalOf("Fixtures"), "Fixture::Chip has no glue");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "vel: module Fixtures is refused: Fixture::Chip has no glue\n");
}

// It goes to a terminal, and may come from whatever library was loaded.
TEST(RegistryTest, NamesOfARefusedModuleAreCleaned) {
    Table table;
    std::string_view const list(table.typeNames(), table.header().typeNamesSize);
    table.typeNames()[list.find("Fixture::ChipBits")] = '\n';
    table.name()[0] = '\x1b';
    Vel::velModuleIs(&table.header());
    testing::internal::CaptureStderr();
    EXPECT_EQ(refusalOf(R"(\x1bixtures)"), R"(the type names are not sorted at "\x0aixture::ChipBits")");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
        "vel: module \\x1bixtures is refused: the type names are not sorted at \"\\x0aixture::ChipBits\"\n");
}

TEST(RegistryTest, NothingIsLookedAtBeforeTheRegistryIsAsked) {
    testing::internal::CaptureStderr();
    {
        Table table;
        Vel::velModuleIs(&table.header());
        table.header().magic[0] = 'X';
    }
    Registry::types();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(Registry::refusals().empty());
}

TEST(RegistryTest, NameIsFreeAgainWhenItsModuleIsWithdrawn) {
    Table second;
    second.renamedTo('G');
    {
        Table first;
        first.renamedTo('G');
        Vel::velModuleIs(&first.header());
        EXPECT_EQ(&Registry::type("Gixture::Chip").module(), &first.header());
    }
    Vel::velModuleIs(&second.header());
    EXPECT_EQ(&Registry::type("Gixture::Chip").module(), &second.header());
}

TEST(RegistryTest, WithdrawingWhatIsNotRegisteredChangesNothing) {
    auto const before = Registry::modules();
    Table table;
    Vel::velModuleDel(&table.header());
    EXPECT_EQ(Registry::modules(), before);
}

// --- the fingerprint ---

#define VARIANT(NAME, ...)                                                                                             \
    struct NAME {                                                                                                      \
        U32 a = 0;                                                                                                     \
        U32 b = 0;                                                                                                     \
        U16 c = 0;                                                                                                     \
        bool operator==(NAME const&) const = default;                                                                  \
        U32 hash(U32) const { return 0; }                                                                              \
        static bool before(NAME const&, NAME const&) { return false; }                                                 \
        static String print(NAME const&) { return {}; }                                                                \
        static NAME scan(String::IteratorConst&, String::IteratorConst const&, NAME*) { return {}; }                   \
        static void write(Vel::NboAttrLog::Out&, NAME const&) {}                                                       \
        static void read(NAME&, Vel::NboAttrLog::In&) {}                                                               \
        static std::size_t size(NAME const&) { return 0; }                                                             \
        static NAME sum(NAME const& x, NAME const&) { return x; }                                                      \
        U32 f(U32 x) const { return x; }                                                                               \
        U16 g(U32) const { return 0; }                                                                                 \
        U32 h(U16) const { return 0; }                                                                                 \
        static constexpr auto description() { return __VA_ARGS__; }                                                    \
    }
#define A_AND_B(NAME) Vel::field<&NAME::a>("a"), Vel::field<&NAME::b>("b")

VARIANT(Plain, Vel::record("T", A_AND_B(Plain)));
VARIANT(OtherName, Vel::record("U", A_AND_B(OtherName)));
VARIANT(OtherAttribute, Vel::record("T", Vel::field<&OtherAttribute::a>("a"), Vel::field<&OtherAttribute::b>("c")));
VARIANT(OtherOrder, Vel::record("T", Vel::field<&OtherOrder::b>("b"), Vel::field<&OtherOrder::a>("a")));
VARIANT(OtherWidth, Vel::record("T", Vel::field<&OtherWidth::a>("a"), Vel::field<&OtherWidth::c>("b")));
VARIANT(ReadOnly, Vel::record("T", Vel::field<&ReadOnly::a>("a"), Vel::readOnlyField<&ReadOnly::b>("b")));
VARIANT(Fewer, Vel::record("T", Vel::field<&Fewer::a>("a")));
VARIANT(Number, Vel::number("T", Vel::field<&Number::a>("a")));
VARIANT(Ordered, Vel::record("T", A_AND_B(Ordered)).with(Vel::less<&Ordered::before>));
VARIANT(Hashed, Vel::record("T", A_AND_B(Hashed)).with(Vel::hashBy<&Hashed::hash>));
VARIANT(OwnText, Vel::record("T", A_AND_B(OwnText)).with(Vel::textBy<&OwnText::print, &OwnText::scan>));
VARIANT(OwnStream,
    Vel::record("T", A_AND_B(OwnStream)).with(Vel::streamBy<&OwnStream::write, &OwnStream::read, &OwnStream::size>));
VARIANT(Adding, Vel::record("T", A_AND_B(Adding)).with(Vel::arithmetic<Vel::AttributeOp::sum, &Adding::sum>));
VARIANT(Method, Vel::record("T", A_AND_B(Method), Vel::method<&Method::f>("f", "x")));
VARIANT(OtherParameter, Vel::record("T", A_AND_B(OtherParameter), Vel::method<&OtherParameter::f>("f", "y")));
VARIANT(
    OtherParameterType, Vel::record("T", A_AND_B(OtherParameterType), Vel::method<&OtherParameterType::h>("f", "x")));
VARIANT(OtherResult, Vel::record("T", A_AND_B(OtherResult), Vel::method<&OtherResult::g>("f", "x")));
VARIANT(DeclaredOnly, Vel::record("T", A_AND_B(DeclaredOnly), Vel::declared("f")));
VARIANT(Parameter, Vel::record("T", A_AND_B(Parameter), Vel::ctorParam<U32>("f")));
VARIANT(Collection, Vel::record("T", A_AND_B(Collection), Vel::collection<U32, U32, &Collection::f>("f")));
VARIANT(OtherKey, Vel::record("T", A_AND_B(OtherKey), Vel::collection<U16, U32, &OtherKey::h>("f")));

template <class... T> constexpr U64 print = Vel::Detail::moduleFingerprint<T...>("M");

TEST(FingerprintTest, EveryChangeOfADescriptionChangesIt) {
    constexpr std::array all = {print<Plain>, print<OtherName>, print<OtherAttribute>, print<OtherOrder>,
        print<OtherWidth>, print<ReadOnly>, print<Fewer>, print<Number>, print<Ordered>, print<Hashed>, print<OwnText>,
        print<OwnStream>, print<Adding>, print<Method>, print<OtherParameter>, print<OtherParameterType>,
        print<OtherResult>, print<DeclaredOnly>, print<Parameter>, print<Collection>, print<OtherKey>,
        print<Plain, OtherName>, print<OtherName, Plain>, print<>, Vel::Detail::moduleFingerprint<Plain>("N")};
    EXPECT_EQ(std::set<U64>(all.begin(), all.end()).size(), all.size());
}

// FNV-1a over the spelling written out here, from the seed that all modules share.
constexpr U64 fnv(std::string_view text) {
    U64 hash = 0x4efd2ecf4fc3cb67;
    for (char const c : text) hash = (hash ^ static_cast<U8>(c)) * 0x100000001b3;
    return hash;
}

TEST(FingerprintTest, IsTheHashOfTheSpellingOfADescription) {
    static_assert(print<Plain> == fnv("module M\n"
                                      "type T form 0 base - flags 0 ops 6144\n"
                                      "attribute 2 a kind 0 ops 3 value U32 key - result -\n"
                                      "attribute 3 b kind 0 ops 3 value U32 key - result -\n"));
    static_assert(print<Method> == fnv("module M\n"
                                       "type T form 0 base - flags 0 ops 6144\n"
                                       "attribute 2 a kind 0 ops 3 value U32 key - result -\n"
                                       "attribute 3 b kind 0 ops 3 value U32 key - result -\n"
                                       "attribute 4 f kind 4 ops 1024 value - key - result U32\n"
                                       "parameter x U32\n"));
    static_assert(print<Fixture::Twig> == fnv("module M\n"
                                              "type Fixture::Twig form 2 base Fixture::Leaf flags 0 ops 0\n"
                                              "attribute 263 present kind 8 ops 3 value bool key - result -\n"));
    EXPECT_EQ(print<Plain>, 0x20b8267c8fa4e602u);
}

}  // namespace
