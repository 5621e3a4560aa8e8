#include "Vel/describe/ModuleDescription.h"
#include "Fixtures.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <string>

// Modules as other processes describe them: the text that their fingerprint hashes.
namespace {

using Vel::ModuleDescription;
using Vel::TypeDescription;

std::string textOf(Vel::VelType type) { return ModuleDescription::spellingOf(type.module()).stdString(); }

std::string replaced(std::string text, std::string const& from, std::string const& to) {
    auto const at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

TEST(ModuleDescriptionTest, EveryModuleKeepsTheTextThatItsFingerprintHashes) {
    for (Vel::ModuleHeader const* const module : Vel::Registry::modules()) {
        Vel::VelType const any(module, 0);
        std::string const text = textOf(any);
        EXPECT_EQ(ModuleDescription::fingerprintOf(text), any.moduleFingerprint()) << text;
    }
}

// As reflection sees the module, so does somebody who has only the text.
TEST(ModuleDescriptionTest, DescribesWhatReflectionSees) {
    for (Vel::ModuleHeader const* const module : Vel::Registry::modules()) {
        auto const described = ModuleDescription::parsed(textOf(Vel::VelType(module, 0)));
        EXPECT_EQ(described.name, Vel::String(Vel::VelType(module, 0).moduleName()));
        EXPECT_EQ(described.fingerprint, module->fingerprint);
        ASSERT_EQ(described.types.size(), module->typeCount);
        for (Vel::U32 i = 0; i < module->typeCount; ++i) {
            Vel::VelType const type(module, i);
            TypeDescription const& text = described.types[i];
            EXPECT_EQ(text.name, Vel::String(type.name()));
            EXPECT_EQ(text.isEntity(), type.isEntity());
            EXPECT_EQ(text.base, Vel::String(type.base() ? type.base().name() : ""));
            EXPECT_EQ(text.spelling.view(), type.glue().spelling);
            ASSERT_EQ(text.attributes.size(), type.attributeCount());
            for (Vel::U32 a = 0; a < type.attributeCount(); ++a) {
                Vel::VelAttr const attr = type.attribute(a);
                auto const& other = text.attributes[a];
                EXPECT_EQ(other.id, attr.attributeId());
                EXPECT_EQ(other.name, Vel::String(attr.name()));
                EXPECT_EQ(other.kind, attr.kind());
                EXPECT_EQ(other.valueType, Vel::String(attr.valueType() ? attr.valueType().name() : ""));
                EXPECT_EQ(other.keyType, Vel::String(attr.keyType() ? attr.keyType().name() : ""));
                EXPECT_EQ(other.parameters.size(), attr.parameterCount());
                bool const isSent = type.isEntity() && type.glue().stream().find(attr.attributeId()) != nullptr;
                EXPECT_EQ(type.isEntity() && other.isStreamed(), isSent) << type.name() << "." << attr.name();
            }
        }
    }
}

constexpr char plain[] = "module M\n"
                         "type M::Mood form 1 base - flags 8 ops 14336\n"
                         "attribute 2 value kind 0 ops 3 value U8 key - result -\n"
                         "attribute 3 calm kind 2 ops 1 value U8 key - result - is 7\n"
                         "type M::Port form 2 base Vel::Entity flags 0 ops 0\n"
                         "attribute 258 speed kind 8 ops 3 value U32 key - result -\n"
                         "attribute 259 mood kind 5 ops 39 value M::Mood key U8 result - values\n"
                         "attribute 260 reset kind 4 ops 1024 value - key - result bool\n"
                         "parameter hard bool\n";

TEST(ModuleDescriptionTest, ReadsAllPartsOfTheText) {
    auto const module = ModuleDescription::parsed(plain);
    EXPECT_EQ(module.name, "M");
    ASSERT_EQ(module.types.size(), 2u);
    EXPECT_TRUE(module.types[0].isEnumeration());
    EXPECT_FALSE(module.types[0].isEntity());
    EXPECT_EQ(module.types[0].attributes[1].number, 7u);
    EXPECT_EQ(module.types[0].ops, 14336u);
    TypeDescription const& port = module.types[1];
    EXPECT_TRUE(port.isEntity());
    EXPECT_EQ(port.base, "Vel::Entity");
    EXPECT_EQ(port.attributes[0].valueType, "U32");
    EXPECT_TRUE(port.attributes[0].isStreamed());
    EXPECT_EQ(port.attributes[1].members, Vel::Members::values);
    EXPECT_EQ(port.attributes[1].keyType, "U8");
    EXPECT_EQ(port.attributes[2].resultType, "bool");
    EXPECT_FALSE(port.attributes[2].isStreamed());
    ASSERT_EQ(port.attributes[2].parameters.size(), 1u);
    EXPECT_EQ(port.attributes[2].parameters[0].name, "hard");
    EXPECT_EQ(port.attributes[2].parameters[0].type, "bool");
}

std::string errorOf(std::string const& text) {
    try {
        ModuleDescription::parsed(text);
    } catch (Vel::ParseException const& error) {
        return error.what();
    }
    return "accepted";
}

std::string errorOfChange(std::string const& from, std::string const& to) { return errorOf(replaced(plain, from, to)); }

TEST(ModuleDescriptionTest, SaysInWhichLineWhatIsWrong) {
    EXPECT_EQ(errorOf(plain), "accepted");
    EXPECT_EQ(errorOf(""), "line 0 of a description: an empty description");
    EXPECT_EQ(errorOf("module M\n"), "line 1 of a description: a module without types");
    EXPECT_EQ(errorOf("module M"), "line 1 of a description: a line without an end");
    EXPECT_EQ(errorOf("\n"), "line 1 of a description: expected \"module\"");
    EXPECT_EQ(errorOf("module M\nparameter a bool\n"), "line 2 of a description: expected a type");
    EXPECT_EQ(errorOfChange("module M", "module -"), "line 1 of a description: expected a name");
    EXPECT_EQ(errorOfChange("module M", "module M N"), "line 1 of a description: more words than belong there");
    EXPECT_EQ(errorOfChange("module M", "modules M"), "line 1 of a description: expected \"module\"");
    EXPECT_EQ(errorOfChange("type M::Mood form 1", "type M::Mood form 4"),
        "line 2 of a description: expected a number of at most 3");
    EXPECT_EQ(errorOfChange("flags 8", "flags 1"), "line 2 of a description: unknown flags");
    EXPECT_EQ(errorOfChange("flags 8", "flags 08"), "line 2 of a description: expected a number of at most 65535");
    EXPECT_EQ(errorOfChange("flags 8", "flags"), "line 2 of a description: expected a number of at most 65535");
    EXPECT_EQ(errorOfChange("ops 14336", "ops 14336 "), "line 2 of a description: a word is missing");
    EXPECT_EQ(
        errorOfChange("ops 14336", "ops 4194304"), "line 2 of a description: expected a number of at most 4194303");
    EXPECT_EQ(errorOfChange("base -", "base M::Port"), "line 2 of a description: a type that can't have this base");
    EXPECT_EQ(
        errorOfChange("base Vel::Entity", "base M::Port"), "line 5 of a description: a type that can't have this base");
    EXPECT_EQ(errorOfChange("M::Port", "M::Mood"), "line 5 of a description: a second type of this name");
    EXPECT_EQ(errorOfChange("M::Mood", "M::\x1bMood"), "line 2 of a description: expected a name");
    EXPECT_EQ(errorOfChange("M::Mood", std::string("M::\0Mood", 8)), "line 2 of a description: expected a name");
    EXPECT_EQ(errorOfChange("M::Mood", "M::M'ood"), "line 2 of a description: expected a name");
    EXPECT_EQ(errorOfChange("M::Mood", std::string(256, 'm')), "line 2 of a description: expected a name");
    EXPECT_EQ(errorOfChange("M::Mood", std::string(255, 'm')), "accepted");
    EXPECT_EQ(errorOfChange("attribute 2 value", "attribute 3 value"),
        "line 3 of a description: an attribute's number out of order");
    EXPECT_EQ(
        errorOfChange("attribute 3", "attribute 4"), "line 4 of a description: an attribute's number out of order");
    EXPECT_EQ(
        errorOfChange("attribute 258", "attribute 257"), "line 6 of a description: an attribute's number out of order");
    EXPECT_EQ(errorOfChange("calm", "value"), "line 4 of a description: a second attribute of this name");
    EXPECT_EQ(errorOfChange("calm", "not-calm"), "line 4 of a description: expected an identifier");
    EXPECT_EQ(errorOfChange("kind 8", "kind 9"), "line 6 of a description: expected a number of at most 8");
    EXPECT_EQ(errorOfChange("kind 8", "kind 0"),
        "line 6 of a description: an attribute of this kind belongs to another form of type");
    EXPECT_EQ(errorOfChange("speed kind 8 ops 3 value U32", "speed kind 8 ops 3 value -"),
        "line 6 of a description: a stored attribute has a type");
    EXPECT_EQ(errorOfChange("key U8", "key -"), "line 7 of a description: a key belongs to a collection");
    EXPECT_EQ(errorOfChange("U32 key -", "U32 key U8"), "line 6 of a description: a key belongs to a collection");
    EXPECT_EQ(errorOfChange("result - values", "result - values values"),
        "line 7 of a description: more words than belong there");
    EXPECT_EQ(errorOfChange("U32 key - result -", "U32 key - result - values"),
        "line 6 of a description: only a collection of an entity is sent");
    EXPECT_EQ(errorOfChange("U32 key - result -", "U32 key - result - is 1"),
        "line 6 of a description: a number belongs to an enumerator");
    EXPECT_EQ(errorOfChange("is 7", "is 18446744073709551616"),
        "line 4 of a description: expected a number of at most 18446744073709551615");
    EXPECT_EQ(errorOfChange("parameter hard", "parameter hard hard"),
        "line 9 of a description: more words than belong there");
    EXPECT_EQ(errorOf("module M\ntype M::A form 0 base - flags 0 ops 0\n"),
        "line 2 of a description: the type before has no fields");
    EXPECT_EQ(
        errorOf(
            "module M\ntype M::A form 3 base - flags 0 ops 0\nattribute 2 a kind 0 ops 3 value U8 key - result -\n"),
        "line 3 of a description: a scalar has no attributes");
    EXPECT_EQ(
        errorOf("module M\ntype M::A form 1 base - flags 0 ops 0\nattribute 2 a kind 0 ops 3 value U8 key - result -\n"
                "attribute 3 b kind 0 ops 3 value U8 key - result -\n"),
        "line 4 of a description: the number before has several fields");
}

TEST(ModuleDescriptionTest, LengthsAreLimited) {
    EXPECT_EQ(
        errorOf(std::string(ModuleDescription::longestSpelling + 1, 'm')), "a description of more than 1048576 bytes");
    std::string text = "module M\ntype M::A form 0 base - flags 0 ops 0\n";
    for (std::size_t i = 0; i < ModuleDescription::mostAttributes; ++i)
        text +=
            "attribute " + std::to_string(i + 2) + " a" + std::to_string(i) + " kind 0 ops 3 value U8 key - result -\n";
    EXPECT_EQ(errorOf(text), "accepted");
    text += "attribute 1026 more kind 0 ops 3 value U8 key - result -\n";
    EXPECT_EQ(errorOf(text), "line 1027 of a description: too many attributes");
    std::string parameters = plain;
    for (int i = 0; i < 5; ++i) parameters += "parameter a bool\n";
    EXPECT_EQ(errorOf(parameters), "accepted");
    EXPECT_EQ(errorOf(parameters + "parameter a bool\n"), "line 15 of a description: a parameter without a place");
}

// Whatever is cut off or changed, the answer is a description or an error.
TEST(ModuleDescriptionTest, AnyDamageIsAnErrorOrAnotherDescription) {
    std::string const text = plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        errorOf(text.substr(0, i));
        for (char const c : {'\0', ' ', '\n', '-', '9', 'a', '\xff'}) errorOf(std::string(text).replace(i, 1, 1, c));
    }
}

}  // namespace
