#include "ValueTest.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/ForeignTypes.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/ForeignEntity.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

// The library's own types, as a process sees them that has only their descriptions: texts and bytes are the same, but of
// types with a form of their own.
namespace {

using Vel::ForeignTypes;
using Vel::GenericValue;
using Vel::ModuleDescription;
using Vel::VelType;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::Out;

bool hasOwnForm(Vel::TypeDescription const& type) {
    return type.flags & (Vel::TypeFlag::ownText | Vel::TypeFlag::ownStream) && !type.isEnumeration();
}

// Descriptions of all modules but the scalars', which every process has. One more operation of each type makes it
// another version, so that the types of this process are not used in its place.
std::shared_ptr<ForeignTypes> allOthers() {
    auto types = std::make_shared<ForeignTypes>(Vel::ForeignEntity::functions());
    for (Vel::ModuleHeader const* const module : Vel::Registry::modules()) {
        if (VelType(module, 0).moduleName() == "Scalars") continue;
        std::string text = ModuleDescription::spellingOf(*module).stdString();
        for (std::size_t at = 0; (at = text.find("\ntype ", at)) != std::string::npos;) {
            at = text.find(" ops ", at) + 5;
            bool const isOdd = text[text.find('\n', at) - 1] % 2 == 1;
            text[text.find('\n', at) - 1] = isOdd ? '8' : '9';
        }
        types->add(ModuleDescription::parsed(text));
    }
    return types;
}

std::string hexOf(GenericValue const& value) {
    Out out;
    value.type().glue().write(out, value.data());
    return ::hexOf(out.bytes());
}

class ForeignGoldenTest : public testing::Test {
protected:
    // Calls check(type, hex, text) for every row of golden.tsv whose type has the forms of its fields.
    template <class F> void forEachRow(F check) {
        std::ifstream file(MOX_SOURCE_DIR "/test/Mox/golden.tsv");
        unsigned rows = 0;
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with('#')) continue;
            auto const first = line.find('\t'), second = line.find('\t', first + 1);
            std::string name = line.substr(0, first);
            bool const textIsWhole = !name.ends_with('*');
            if (!textIsWhole) name.pop_back();
            VelType const local = Vel::Registry::type(name);
            if (local.record().flags & Vel::TypeFlag::scalar) continue;
            VelType const type = types->valueType(name);
            ASSERT_TRUE(type.glue().foreign) << name;
            if (type.glue().foreign->isShownAsBytes() || hasPartWithOwnForm(type)) continue;
            SCOPED_TRACE(line);
            check(type, line.substr(first + 1, second - first - 1), line.substr(second + 1), textIsWhole);
            ++rows;
        }
        EXPECT_GE(rows, 30u);
    }
    static bool hasPartWithOwnForm(VelType type) {
        for (auto const& field : type.glue().foreign->fields())
            if (auto const* const part = field.type.glue().foreign)
                if (part->isShownAsBytes() || hasPartWithOwnForm(field.type)) return true;
        return false;
    }

    std::shared_ptr<ForeignTypes> types = allOthers();
};

TEST_F(ForeignGoldenTest, TextsGiveTheirBytes) {
    forEachRow([](VelType type, std::string const& hex, std::string const& text, bool textIsWhole) {
        if (!textIsWhole) return;
        GenericValue const value(type, text);
        EXPECT_EQ(hexOf(value), hex);
        EXPECT_EQ(value.strep(), Vel::String(text));
    });
}

TEST_F(ForeignGoldenTest, BytesGiveTheirTexts) {
    forEachRow([](VelType type, std::string const& hex, std::string const& text, bool) {
        auto const bytes = bytesOf(hex);
        In in(bytes);
        GenericValue const value(type, in);
        EXPECT_EQ(in.left(), 0u);
        EXPECT_EQ(value.strep(), Vel::String(text));
        EXPECT_EQ(hexOf(value), hex);
    });
}

TEST_F(ForeignGoldenTest, EveryShorterInputIsRefused) {
    forEachRow([](VelType type, std::string const& hex, std::string const&, bool) {
        auto const bytes = bytesOf(hex);
        for (std::size_t size = 0; size < bytes.size(); ++size) {
            In in(std::span<Vel::U8 const>(bytes).first(size));
            EXPECT_THROW(GenericValue(type, in), Vel::StreamException) << size;
        }
    });
}

// Any bytes give the value that the type of this process gives, or are refused by both.
TEST_F(ForeignGoldenTest, AnyBytesGiveTheSameTexts) {
    std::mt19937 random(7);
    unsigned good = 0;
    for (VelType const local : Vel::Registry::types()) {
        if (local.isEntity() || local.record().flags & Vel::TypeFlag::scalar) continue;
        VelType const type = types->valueType(local.name());
        if (type.glue().foreign->isShownAsBytes() || hasPartWithOwnForm(type)) continue;
        for (int round = 0; round < 200; ++round) {
            std::vector<Vel::U8> bytes(random() % 40);
            for (Vel::U8& byte : bytes) byte = static_cast<Vel::U8>(random() % 3 == 0 ? random() : random() % 2);
            auto const textOf = [&](VelType of) -> std::string {
                In in(bytes);
                try {
                    GenericValue const value(of, in);
                    return value.strep().stdString() + " and " + std::to_string(in.left()) + " bytes";
                } catch (Vel::StreamException const&) {
                    return "refused";
                } catch (Vel::RangeException const&) {
                    return "checked";  // by the class, which a description does not have
                }
            };
            std::string const here = textOf(local);
            if (here == "checked") continue;
            EXPECT_EQ(textOf(type), here) << local.name();
            good += here != "refused";
        }
    }
    EXPECT_GT(good, 100u);
}

TEST_F(ForeignGoldenTest, DefaultValuesAreThoseOfTheFields) {
    GenericValue const value(types->valueType("Mox::Generation"));
    EXPECT_EQ(value.strep(), Vel::String("Value('Mox::Generation', ** {'id': 0, 'valid': False})"));
}

TEST_F(ForeignGoldenTest, FormsOfTheirOwnAreShownAsBytes) {
    GenericValue const set(types->valueType("Mox::IdSet"), "Bytes('0102')");
    EXPECT_EQ(set.strep(), Vel::String("Bytes('0102')"));
    unsigned checked = 0;
    for (VelType const local : Vel::Registry::types()) {
        if (local.isEntity() || local.record().flags & Vel::TypeFlag::scalar) continue;
        VelType const type = types->valueType(local.name());
        bool const isOwn = hasOwnForm(type.glue().foreign->description());
        EXPECT_TRUE(!isOwn || type.glue().foreign->isShownAsBytes()) << local.name();
        checked += isOwn;
    }
    EXPECT_GE(checked, 2u);
}

}  // namespace
