#include "Vel/describe/ForeignTypes.h"
#include "Fixtures.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"
#include "Vel/entity/ForeignEntity.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

// Types that a peer has described: how their values read, print and parse.
namespace {

using Vel::ForeignTypes;
using Vel::GenericValue;
using Vel::ModuleDescription;
using Vel::VelType;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::Out;

std::shared_ptr<ForeignTypes> typesOf(std::initializer_list<std::string> modules) {
    auto types = std::make_shared<ForeignTypes>(Vel::ForeignEntity::functions());
    for (std::string const& text : modules) types->add(ModuleDescription::parsed(text));
    return types;
}

std::string textOf(GenericValue const& value) { return value.strep().stdString(); }
std::string bytesOf(GenericValue const& value) {
    Out out;
    value.type().glue().write(out, value.data());
    return std::string(out.bytes().begin(), out.bytes().end());
}
GenericValue valueOf(VelType type, std::string_view bytes) {
    In in({reinterpret_cast<Vel::U8 const*>(bytes.data()), bytes.size()});
    GenericValue value(type, in);
    EXPECT_EQ(in.left(), 0u);
    return value;
}
template <class F> std::string errorOf(F f) {
    try {
        f();
    } catch (Vel::Exception const& error) {
        return error.what();
    }
    return "accepted";
}

std::string record(std::string const& name, std::initializer_list<std::string> fieldTypes, int flags = 0) {
    std::string text = "type " + name + " form 0 base - flags " + std::to_string(flags) + " ops 0\n";
    int id = 2;
    for (std::string const& type : fieldTypes) {
        text += "attribute " + std::to_string(id) + " f" + std::to_string(id) + " kind 0 ops 3 value " + type +
                " key - result -\n";
        ++id;
    }
    return text;
}

std::string const mood = "type M::Mood form 1 base - flags 8 ops 0\n"
                         "attribute 2 value kind 0 ops 3 value U16 key - result -\n"
                         "attribute 3 calm kind 2 ops 1 value U16 key - result - is 7\n"
                         "attribute 4 wild kind 2 ops 1 value U16 key - result - is 258\n";

TEST(ForeignTypesTest, RecordsHaveTheTextOfRecords) {
    auto const types = typesOf({"module M\n" + mood + record("M::In", {"Vel::String", "bool"}) +
                                record("M::Out", {"U32", "M::In", "M::Mood", "Vel::String"})});
    VelType const type = types->valueType("M::Out");
    EXPECT_STREQ(type.name(), "M::Out");
    EXPECT_EQ(type.moduleName(), "M");
    ASSERT_EQ(type.attributeCount(), 4u);
    EXPECT_STREQ(type.attribute(1).valueType().name(), "M::In");
    EXPECT_EQ(type.attribute(0).valueType(), Vel::typeOf<Vel::U32>());

    GenericValue const empty(type);
    EXPECT_EQ(textOf(empty), "Value('M::Out', ** {'f2': 0, 'f3': Value('M::In', ** {'f2': '', 'f3': False}), "
                             "'f4': 0, 'f5': ''})");
    std::string const text = "Value('M::Out', ** {'f2': 258, 'f3': Value('M::In', ** {'f2': '\\', \\'f3\\': True})', "
                             "'f3': True}), 'f4': 'wild', 'f5': '})'})";
    GenericValue const value(type, text);
    EXPECT_EQ(textOf(value), text);
    std::string const bytes("\0\0\1\2\0\0\0\x0f', 'f3': True})\1\1\2\0\0\0\2})", 4 + 4 + 15 + 1 + 2 + 4 + 2);
    EXPECT_EQ(bytesOf(value).size(), bytes.size());
    EXPECT_EQ(bytesOf(value), bytes);
    EXPECT_EQ(textOf(valueOf(type, bytes)), text);
    EXPECT_EQ(value.attrLogSize(), bytes.size());
}

TEST(ForeignTypesTest, OnlyTheCanonicalTextIsTaken) {
    auto const types = typesOf({"module M\n" + mood + record("M::A", {"U8", "M::Mood"})});
    VelType const type = types->valueType("M::A");
    std::string const good = "Value('M::A', ** {'f2': 7, 'f3': 'calm'})";
    EXPECT_EQ(textOf(GenericValue(type, good)), good);
    for (std::size_t i = 0; i < good.size(); ++i) {
        EXPECT_THROW(GenericValue(type, good.substr(0, i)), Vel::ParseException) << i;
        EXPECT_THROW(GenericValue(type, std::string(good).insert(i, 1, '~')), Vel::ParseException) << i;
    }
    EXPECT_THROW(GenericValue(type, good + " "), Vel::ParseException);
    EXPECT_EQ(errorOf([&] { GenericValue(type, "Value('M::A', ** {'f2': 256, 'f3': 'calm'})"); }),
        "behind offset 24: expected a number from 0 to 255 at offset 0, at '256'");
    EXPECT_THROW(GenericValue(type, "Value('M::A', ** {'f2': 7, 'f3': 7})"), Vel::ParseException);  // it has a name
    EXPECT_EQ(bytesOf(GenericValue(type, "Value('M::A', ** {'f2': 7, 'f3': 8})")), std::string("\7\0\10", 3));
}

TEST(ForeignTypesTest, BytesThatNoWriterWritesAreRefused) {
    auto const types = typesOf({"module M\n" + record("M::A", {"U8", "bool", "Vel::String", "U64"})});
    VelType const type = types->valueType("M::A");
    std::string const bytes("\1\1\0\0\0\1x\0\0\0\0\0\0\0\7", 15);
    EXPECT_EQ(textOf(valueOf(type, bytes)), "Value('M::A', ** {'f2': 1, 'f3': True, 'f4': 'x', 'f5': 7})");
    for (std::size_t i = 0; i < bytes.size(); ++i)
        EXPECT_THROW(valueOf(type, bytes.substr(0, i)), Vel::StreamException) << i;
    EXPECT_THROW(valueOf(type, std::string("\1\2\0\0\0\1x\0\0\0\0\0\0\0\7", 15)), Vel::StreamException);
}

TEST(ForeignTypesTest, FieldsAreReadByReflection) {
    auto const types = typesOf({"module M\n" + record("M::In", {"U8"}) + record("M::A", {"Vel::String", "M::In"})});
    VelType const type = types->valueType("M::A");
    GenericValue const value(type, "Value('M::A', ** {'f2': 'x', 'f3': Value('M::In', ** {'f2': 9})})");
    EXPECT_EQ(textOf(*value.get(*type.attribute("f2"))), "'x'");
    EXPECT_EQ(textOf(*value.get(*type.attribute("f3"))), "Value('M::In', ** {'f2': 9})");
    GenericValue const same(value), other(type);
    EXPECT_EQ(value.test(Vel::AttributeOp::equal, &same), true);
    EXPECT_EQ(value.test(Vel::AttributeOp::equal, &other), false);
    EXPECT_THROW(value.hash(), Vel::UnhashableException);
    char text[100];
    auto const [end, error] = value.toChars(text, text + sizeof text);
    EXPECT_EQ(std::string(text, end), textOf(value));
    EXPECT_EQ(value.toChars(text, text + 10).ec, std::errc::value_too_large);
}

TEST(ForeignTypesTest, FormsOfTheirOwnAreShownAsBytes) {
    auto const types = typesOf({"module M\n" + record("M::Text", {"U16"}, 8) + record("M::Bytes", {}, 256) +
                                record("M::A", {"U8", "M::Text"}) + record("M::B", {"U8", "M::Bytes"})});
    EXPECT_EQ(textOf(valueOf(types->valueType("M::Text"), "\1\2")), "Bytes('0102')");
    EXPECT_EQ(textOf(valueOf(types->valueType("M::A"), "\1\2\3")), "Value('M::A', ** {'f2': 1, 'f3': Bytes('0203')})");
    EXPECT_EQ(textOf(valueOf(types->valueType("M::B"), "\1\xab")), "Bytes('01ab')");
    EXPECT_EQ(textOf(GenericValue(types->valueType("M::Text"))), "Bytes('0000')");
    EXPECT_EQ(textOf(GenericValue(types->valueType("M::B"))), "Bytes('')");
    EXPECT_EQ(
        bytesOf(GenericValue(types->valueType("M::A"), "Value('M::A', ** {'f2': 1, 'f3': Bytes('0203')})")), "\1\2\3");
    VelType const text = types->valueType("M::Text");
    for (char const* const wrong : {"Bytes('01')", "Bytes('010203')", "Bytes('010')", "Bytes('01 02')", "Bytes('010G')",
             "Bytes('0102'", "Bytes('0102') ", "bytes('0102')", "Bytes('01AB')"})
        EXPECT_THROW(GenericValue(text, wrong), Vel::ParseException) << wrong;
}

// The types of this process are used if the peer has them with the same description, so that they keep their forms.
TEST(ForeignTypesTest, TypesOfThisProcessAreUsedIfTheyAreTheSame) {
    auto const types = typesOf({"module M\n" + record("M::A", {"Fixture::Words", "Fixture::Version"})});
    EXPECT_EQ(types->valueType("Fixture::Words"), Vel::typeOf<Fixture::Words>());
    GenericValue const value(types->valueType("M::A"));
    EXPECT_EQ(textOf(value).substr(0, 27),
        "Value('M::A', ** {'f2': " + textOf(GenericValue(Vel::typeOf<Fixture::Words>())).substr(0, 3));
    EXPECT_TRUE(types->isSame(Vel::typeOf<Fixture::Leaf>()));

    // A field more, so another version.
    auto const others = typesOf({"module Fixtures\n" + record("Fixture::Version", {"U32", "bool", "U8"}) +
                                 record("Fixture::MaybeText", {"Fixture::Version"})});
    EXPECT_NE(others->valueType("Fixture::Version"), Vel::typeOf<Fixture::Version>());
    EXPECT_EQ(textOf(GenericValue(others->valueType("Fixture::Version"))),
        "Value('Fixture::Version', ** {'f2': 0, 'f3': False, 'f4': 0})");
    EXPECT_FALSE(others->isSame(Vel::typeOf<Fixture::Leaf>()));  // it has a Version
    // A type that the peer has as this process does, and whose part it has otherwise.
    EXPECT_EQ(textOf(GenericValue(others->valueType("Fixture::Everything")))
                      .find("'version': Value('Fixture::Version', ** {'f2'") == std::string::npos,
        false);
}

// Another type of their module has changed. A form of its own may have changed with it, a description has not.
TEST(ForeignTypesTest, FormsOfTheirOwnNeedTheSameModule) {
    std::string const same = ModuleDescription::spellingOf(Vel::typeOf<Fixture::Chip>().module()).stdString();
    auto const types = typesOf({same + record("Fixture::New", {"Fixture::Version", "Fixture::Words"})});
    EXPECT_EQ(types->valueType("Fixture::Version"), Vel::typeOf<Fixture::Version>());
    EXPECT_EQ(types->valueType("Fixture::Everything"), Vel::typeOf<Fixture::Everything>());
    EXPECT_TRUE(types->valueType("Fixture::MaybeNumber").glue().foreign);
    EXPECT_TRUE(types->valueType("Fixture::Words").glue().foreign);
    EXPECT_EQ(textOf(GenericValue(types->valueType("Fixture::New"))), "Bytes('')");
    EXPECT_EQ(textOf(GenericValue(types->valueType("Fixture::MaybeNumber"))), "Bytes('0000000000000000')");
}

TEST(ForeignTypesTest, ImpossibleTypesAreRefused) {
    auto const errorOfType = [](std::string const& text, char const* type) {
        return errorOf([&] { typesOf({text})->valueType(type); });
    };
    EXPECT_EQ(errorOfType("module M\n" + record("M::A", {"M::A"}), "M::A"), "M::A contains itself");
    EXPECT_EQ(errorOfType("module M\n" + record("M::A", {"M::B"}) + record("M::B", {"M::A"}), "M::A"),
        "M::A contains itself");
    EXPECT_EQ(errorOfType("module M\n" + record("M::A", {"M::B"}), "M::A"), "no description of M::B");
    EXPECT_EQ(errorOfType("module M\n" + record("M::A", {"Vel::Dir"}), "M::A"), "Vel::Dir is no type of values");
    EXPECT_EQ(errorOfType("module M\n" + record("M::A", {"U8"}), "M::B"), "no description of M::B");
    EXPECT_EQ(errorOfType("module M\ntype M::A form 3 base - flags 0 ops 0\n", "M::A"),
        "M::A is a scalar that this process does not have");
    std::string enumeration = "module M\n" + mood;
    for (std::size_t at = 0; (at = enumeration.find("U16", at)) != std::string::npos;)
        enumeration.replace(at, 3, "Vel::String");
    EXPECT_EQ(errorOfType(enumeration, "M::Mood"), "M::Mood is an enumeration of Vel::String");
    EXPECT_EQ(errorOf([] {
        typesOf({"module M\n" + mood, "module N\n" + mood});
    }),
        "the type M::Mood is described twice");

    // Twice the size with each level: no more than a table can say, and no deeper than 64 levels.
    std::string doubled = "module M\n" + record("M::A0", {"U8"});
    std::string nested = doubled;
    for (int i = 1; i < 80; ++i) {
        std::string const name = "M::A" + std::to_string(i), part = "M::A" + std::to_string(i - 1);
        doubled += record(name, {part, part});
        nested += record(name, {part});
    }
    EXPECT_EQ(errorOfType(doubled, "M::A15"), "accepted");
    EXPECT_EQ(errorOfType(doubled, "M::A16"), "M::A16 contains too much");
    EXPECT_EQ(errorOfType(doubled, "M::A79"), "M::A16 contains too much");
    EXPECT_EQ(errorOfType(nested, "M::A63"), "accepted");
    EXPECT_EQ(errorOfType(nested, "M::A64"), "M::A64 contains too much");
}

// So deep that the stack would not hold them.
TEST(ForeignTypesTest, TypesWithinTypesAreNotFollowedWithoutEnd) {
    std::string values = "module M\n" + record("M::A0", {"U8"});
    std::string entities = "module M\ntype M::A0 form 2 base Vel::Entity flags 0 ops 0\n";
    for (int i = 1; i < 6000; ++i) {
        std::string const name = "M::A" + std::to_string(i), before = "M::A" + std::to_string(i - 1);
        values += record(name, {before});
        entities += "type " + name + " form 2 base " + before + " flags 0 ops 0\n";
    }
    EXPECT_EQ(errorOf([&] { typesOf({values})->valueType("M::A5999"); }), "M::A5870 is within too many other types");
    EXPECT_EQ(errorOf([&] { typesOf({entities})->entityType("M::A5999"); }), "M::A5870 is within too many other types");
}

std::string entity(std::string const& name, std::string const& base, std::string const& attributes = {}) {
    return "type " + name + " form 2 base " + base + " flags 0 ops 0\n" + attributes;
}

TEST(ForeignTypesTest, EntityTypesHaveTheAttributesOfTheirBases) {
    auto const types = typesOf(
        {"module M\n" + entity("M::A", "Vel::Entity", "attribute 258 a kind 8 ops 3 value U8 key - result -\n") +
            entity("M::B", "M::A", "attribute 259 b kind 8 ops 3 value U16 key - result -\n") +
            entity("M::T", "Fixture::Leaf", "attribute 263 t kind 8 ops 1 value U8 key - result -\n")});
    VelType const type = types->entityType("M::B");
    EXPECT_TRUE(type.isDerived(types->entityType("M::A")));
    EXPECT_TRUE(type.isDerived(Vel::typeOf<Vel::Entity>()));
    EXPECT_STREQ(type.attributeOfId(258)->name(), "a");
    EXPECT_STREQ(type.attributeOfId(259)->name(), "b");
    EXPECT_EQ(type.glue().stream().attributes.size(), 2u);
    // An entity of another process is none of this one's classes, even if the base is the same.
    VelType const twig = types->entityType("M::T");
    EXPECT_FALSE(twig.isDerived(Vel::typeOf<Fixture::Leaf>()));
    EXPECT_STREQ(twig.base().name(), "Fixture::Leaf");
    EXPECT_EQ(twig.glue().stream().attributes.size(), 3u);  // those of the leaf that have a mutator
    EXPECT_TRUE(twig.isDerived(Vel::typeOf<Vel::Entity>()));
}

TEST(ForeignTypesTest, ImpossibleEntityTypesAreRefused) {
    auto const errorOfType = [](std::string const& text, char const* type) {
        return errorOf([&] { typesOf({"module M\n" + text})->entityType(type); });
    };
    EXPECT_EQ(errorOfType(entity("M::A", "M::B") + entity("M::B", "M::A"), "M::A"), "M::A contains itself");
    EXPECT_EQ(errorOfType(entity("M::A", "M::B"), "M::A"), "no description of M::B");
    EXPECT_EQ(errorOfType(entity("M::A", "U8"), "M::A"), "U8 is no type of entities");
    EXPECT_EQ(errorOfType(record("M::A", {"U8"}), "M::A"), "M::A is no type of entities");
    std::string const a = "attribute 258 a kind 8 ops 3 value U8 key - result -\n";
    EXPECT_EQ(errorOfType(entity("M::A", "Vel::Entity", a) + entity("M::B", "M::A", a), "M::B"),
        "M::B has attributes with the numbers of its base");
    EXPECT_EQ(
        errorOfType(entity("M::A", "Vel::Entity", "attribute 258 a kind 8 ops 3 value X key - result -\n"), "M::A"),
        "no description of X");
    EXPECT_EQ(
        errorOfType(entity("M::A", "Vel::Entity", "attribute 258 a kind 5 ops 3 value U8 key U8 result - references\n"),
            "M::A"),
        "M::A.a has members of another kind");
    EXPECT_EQ(
        errorOfType(
            entity("M::A", "Vel::Entity", "attribute 258 a kind 5 ops 3 value M::A key U8 result - values\n"), "M::A"),
        "M::A.a has members of another kind");
    EXPECT_EQ(errorOfType(record("M::K", {}, 256) +
                              entity("M::A", "Vel::Entity",
                                  "attribute 258 a kind 5 ops 3 value M::A key M::K result - references\n"),
                  "M::A"),
        "M::A.a has keys with a byte form of their own");
}

// Many types with many attributes of one base: what is made of them is limited.
TEST(ForeignTypesTest, AttributesOfAllTypesAreLimited) {
    std::string attributes;
    for (int i = 0; i < 1000; ++i)
        attributes += "attribute " + std::to_string(258 + i) + " a" + std::to_string(i) +
                      " kind 8 ops 3 value U8 key - result -\n";
    std::string text = "module M\n" + entity("M::A", "Vel::Entity", attributes);
    for (int i = 0; i < 70; ++i) text += entity("M::B" + std::to_string(i), "M::A");
    auto const types = typesOf({text});
    EXPECT_EQ(errorOf([&] {
        for (int i = 0; i < 70; ++i) types->entityType("M::B" + std::to_string(i));
    }),
        "descriptions of more than 65536 attributes");
}

TEST(ForeignTypesTest, TheSameDescriptionIsTheSameType) {
    std::string const in = record("M::In", {"U8"});
    auto const make = [&](std::string const& part) {
        return typesOf({"module M\n" + part +
                        entity("M::A", "Vel::Entity", "attribute 258 a kind 8 ops 3 value M::In key - result -\n")});
    };
    auto const one = make(in), same = make(in), other = make(record("M::In", {"U16"}));
    VelType const a = one->entityType("M::A");
    EXPECT_TRUE(Vel::isSameType(a, a));
    EXPECT_TRUE(Vel::isSameType(a, same->entityType("M::A")));
    EXPECT_TRUE(Vel::isSameType(a, same->entityType("M::A")));
    EXPECT_FALSE(Vel::isSameType(a, other->entityType("M::A")));
    EXPECT_TRUE(Vel::isSameType(one->valueType("M::In"), same->valueType("M::In")));
    EXPECT_FALSE(Vel::isSameType(a, Vel::typeOf<Fixture::Leaf>()));
    EXPECT_FALSE(Vel::isSameType(a, VelType()));
}

// A later description may have the name of a type that was taken from this process. What is in use stays as it is: an
// entity or a value has its parts by the types that were there first.
TEST(ForeignTypesTest, TypesInUseAreNotChangedByLaterDescriptions) {
    auto const types = typesOf({"module M\n" + record("M::V", {"U64", "Vel::String"}) +
                                entity("M::A", "Fixture::Leaf",
                                    "attribute 263 x kind 8 ops 3 value U64 key - result -\n"
                                    "attribute 264 m kind 5 ops 39 value U16 key U32 result - values\n"
                                    "attribute 265 p kind 8 ops 3 value Fixture::Leaf key - result -\n")});
    VelType const type = types->entityType("M::A");
    VelType const values = types->valueType("M::V");
    VelType const base = type.base();
    auto const one = Vel::ForeignEntity::newEntity(type, "a");
    one->valueIs(263, GenericValue(Vel::typeOf<Vel::U64>(), "7"));
    GenericValue const value(values, "Value('M::V', ** {'f2': 9, 'f3': 'x'})");
    types->add(ModuleDescription::parsed(
        "module N\n" + entity("U64", "Vel::Entity") + record("U16", {"Vel::String"}) + record("U32", {"bool"}) +
        record("Vel::String", {"bool"}) +
        entity("Fixture::Leaf", "Vel::Entity", "attribute 258 z kind 8 ops 3 value bool key - result -\n")));
    EXPECT_TRUE(types->isEntity("U64"));
    EXPECT_EQ(type.attributeOfId(263)->valueType(), Vel::typeOf<Vel::U64>());
    EXPECT_EQ(type.attributeOfId(264)->valueType(), Vel::typeOf<Vel::U16>());
    EXPECT_EQ(type.attributeOfId(264)->keyType(), Vel::typeOf<Vel::U32>());
    EXPECT_EQ(type.base(), base);
    EXPECT_FALSE(type.attribute("z"));
    Vel::U64 read = 0;
    ASSERT_EQ(type.attributeOp(&read, one.get(), 263, Vel::AttributeOp::get), 0);
    EXPECT_EQ(read, 7u);
    EXPECT_EQ(textOf(*value.get(*values.attribute("f2"))), "9");
    EXPECT_EQ(textOf(*value.get(*values.attribute("f3"))), "'x'");
}

// What refers to an entity does so whatever its declared type turns out to be.
TEST(ForeignTypesTest, ReferencesStayReferences) {
    auto const types = typesOf(
        {"module M\n" + entity("M::A", "Vel::Entity", "attribute 258 p kind 8 ops 3 value Vel::Dir key - result -\n")});
    VelType const type = types->entityType("M::A");
    EXPECT_EQ(type.attributeOfId(258)->valueType(), Vel::typeOf<Vel::Dir>());
    types->add(ModuleDescription::parsed("module N\n" + record("Vel::Dir", {"U8"})));
    EXPECT_FALSE(types->isEntity("Vel::Dir"));
    EXPECT_EQ(type.attributeOfId(258)->valueType(), Vel::typeOf<Vel::Entity>());
}

// A number stands for one attribute, also if no value of it is sent: reflection finds an attribute by its number, and
// the value by the same number.
TEST(ForeignTypesTest, NumbersOfABaseAreNotUsedAgain) {
    std::string const base = entity("M::A", "Vel::Entity",
        "attribute 258 a kind 8 ops 3 value U64 key - result -\n"
        "attribute 259 b kind 8 ops 1 value U64 key - result -\n");
    std::string const derived = entity("M::B", "M::A",
        "attribute 259 b kind 8 ops 1 value Vel::String key - result -\n"
        "attribute 260 c kind 8 ops 3 value U64 key - result -\n");
    EXPECT_EQ(errorOf([&] { typesOf({"module M\n" + base + derived})->entityType("M::B"); }),
        "M::B has attributes with the numbers of its base");
    std::string const unsent =
        entity("M::B", "M::A", "attribute 258 b kind 8 ops 1 value Vel::String key - result -\n");
    EXPECT_EQ(errorOf([&] { typesOf({"module M\n" + base + unsent})->entityType("M::B"); }),
        "M::B has attributes with the numbers of its base");
}

TEST(ForeignTypesTest, AttributeOfAnotherTypeIsNotRead) {
    auto const text = [](std::string const& type) {
        return "module M\n" +
               entity("M::A", "Vel::Entity", "attribute 258 a kind 8 ops 3 value " + type + " key - result -\n");
    };
    auto const types = typesOf({text("U64")}), others = typesOf({text("Vel::String")});
    VelType const type = types->entityType("M::A");
    auto const one = Vel::ForeignEntity::newEntity(type, "a");
    Vel::String read("untouched");
    EXPECT_EQ(type.glue().genericIfAttributeOp(&read, one.get(), *others->entityType("M::A").attributeOfId(258),
                  Vel::AttributeOp::get, nullptr, nullptr),
        static_cast<int>(Vel::AttributeResult::unsupported));
    EXPECT_EQ(read, "untouched");
}

// A value without bytes of a known number still is one.
TEST(ForeignTypesTest, ValuesWithTheirOwnByteFormCountWithinValues) {
    ASSERT_EQ(Vel::typeOf<Fixture::Words>().encodedSize(), 0u);
    std::string doubled = "module M\n" + record("M::A0", {"Fixture::Words"});
    for (int i = 1; i < 60; ++i) {
        std::string const part = "M::A" + std::to_string(i - 1);
        doubled += record("M::A" + std::to_string(i), {part, part});
    }
    EXPECT_EQ(errorOf([&] { typesOf({doubled})->valueType("M::A59"); }), "M::A15 contains too much");
}

TEST(ForeignTypesTest, TypesInUseAreFound) {
    auto const types = typesOf(
        {"module Fixtures\n" + record("Fixture::Version", {"U32"}), "module M\n" + entity("M::A", "Vel::Entity")});
    EXPECT_FALSE(types->inUse("M::A"));
    EXPECT_FALSE(types->inUse("Fixture::Leaf"));
    VelType const told = types->entityType("M::A"), borrowed = types->entityType("Fixture::Leaf");
    EXPECT_EQ(types->inUse("M::A"), told);
    EXPECT_EQ(types->inUse("Fixture::Leaf"), borrowed);
    EXPECT_NE(borrowed, Vel::typeOf<Fixture::Leaf>());
}

TEST(ForeignTypesTest, EachOfManyAttributesIsFoundByItsNumber) {
    for (int const count : {1, 16, 17, 1000}) {
        std::string attributes;
        for (int i = 0; i < count; ++i)  // every other one is sent
            attributes += "attribute " + std::to_string(258 + i) + " a" + std::to_string(i) + " kind 8 ops " +
                          (i % 2 == 0 ? "3" : "1") + " value U8 key - result -\n";
        auto const types = typesOf({"module M\n" + entity("M::A", "Vel::Entity", attributes)});
        Vel::StreamTable const& table = types->entityType("M::A").glue().stream();
        for (Vel::AttributeId id = 256; id < 262u + static_cast<unsigned>(count); ++id) {
            bool const isSent = id >= 258 && id < 258u + static_cast<unsigned>(count) && id % 2 == 0;
            Vel::StreamAttribute const* const found = table.find(id);
            ASSERT_EQ(found != nullptr, isSent) << id;
            ASSERT_TRUE(!found || found->id == id);
        }
    }
}

// A value keeps its type, also when the connection has ended.
TEST(ForeignTypesTest, ValuesKeepTheirTypes) {
    auto types = typesOf({"module M\n" + record("M::A", {"U8"})});
    auto const value = std::make_unique<GenericValue>(types->valueType("M::A"), "Value('M::A', ** {'f2': 7})");
    std::weak_ptr<ForeignTypes> const watched = types;
    types = nullptr;
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(textOf(GenericValue(*value)), "Value('M::A', ** {'f2': 7})");
}

}  // namespace
