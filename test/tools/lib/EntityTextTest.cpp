#include "tools/lib/EntityText.h"

#include "tools/lib/StateFile.h"

#include "LibTest.h"

#include "Mox/Generation.h"

#include "Vel/entity/Dir.h"

#include <nlohmann/json.hpp>

namespace {

using namespace Tool;
using Vel::typeOf;

TEST(EntityTextTest, APathIsStepsByNameAttributeAndKey) {
    auto const steps = stepsOf("/a//b%2fc/@state/@inlet[7]");
    ASSERT_EQ(steps.size(), 4u);
    EXPECT_EQ(steps[0].key, "a");
    EXPECT_EQ(steps[0].end, 2u);
    EXPECT_EQ(steps[1].key, "b/c");
    EXPECT_EQ(steps[1].end, 9u);
    EXPECT_EQ(steps[2].attribute, "state");
    EXPECT_FALSE(steps[2].hasKey);
    EXPECT_EQ(steps[3].attribute, "inlet");
    EXPECT_EQ(steps[3].key, "7");
    EXPECT_TRUE(stepsOf("/").empty());
}

TEST(EntityTextTest, APercentSignWithoutDigitsStandsForItself) {
    EXPECT_EQ(decodedStep("%41%4a%4A"), "AJJ");
    EXPECT_EQ(decodedStep("%4%zz%"), "%4%zz%");
}

TEST(EntityTextTest, AStepIsOneWordWhateverTheName) {
    auto const dir = Vel::Dir::newEntity("");
    auto const* const naming = namingCollection(*streamTableOf(*dir));
    ASSERT_TRUE(naming);
    EXPECT_EQ(stepText(dir->fwkType(), *naming, "a b/%\n\xff"), "a%20b%2f%25%0a%ff");
    EXPECT_EQ(stepText(dir->fwkType(), *naming, "@a"), "%40a");
    EXPECT_EQ(stepsOf(stepText(dir->fwkType(), *naming, "@a b"))[0].key, "@a b");
}

TEST(EntityTextTest, AttributesThatTravelAreFoundByName) {
    auto const type = typeOf<Mox::GenerationEntity>();
    EXPECT_EQ(attributeNames(type), (std::vector<std::string>{"generation"}));
    EXPECT_TRUE(attributeNamed(type, "generation"));
    EXPECT_FALSE(attributeNamed(type, "name"));
    EXPECT_EQ(noSuchAttribute(type, "generatoin"),
        "Mox::GenerationEntity has no attribute generatoin; did you mean generation?");
}

TEST(EntityTextTest, AnAttributeThatIsNotThereIsAFailure) {
    auto const entity = Mox::generationEntityFactory("g");
    EXPECT_EQ(typeName(attributeOf(*entity, "generation")), "Mox::Generation");
    EXPECT_EQ(ToolTest::failureOf([&] { attributeOf(*entity, "zzz"); }),
        "1: a Mox::GenerationEntity has no attribute zzz, only generation");
}

TEST(EntityTextTest, StoredValuesAreReadAndSet) {
    auto const entity = Mox::generationEntityFactory("g");
    auto const& attribute = attributeOf(*entity, "generation");
    storedValueIs(*entity, attribute,
        Vel::GenericValue(attribute.type(), "Value('Mox::Generation', ** {'id': 7, 'valid': True})"));
    EXPECT_EQ(entity->generation(), Mox::Generation(7, true));
    EXPECT_EQ(storedValue(*entity, attribute).strep(), "Value('Mox::Generation', ** {'id': 7, 'valid': True})");
    EXPECT_EQ(jsonValue(storedValue(*entity, attribute)).dump(), "{\"id\":7,\"valid\":true}");
}

TEST(EntityTextTest, JsonHasWhatItCanHave) {
    auto const json = [](Vel::VelType type, char const* text) {
        return jsonValue(Vel::GenericValue(type, Vel::String(text))).dump();
    };
    EXPECT_EQ(json(typeOf<double>(), "1.5"), "1.5");
    EXPECT_EQ(json(typeOf<double>(), "nan"), "\"nan\"");
    EXPECT_EQ(json(typeOf<Vel::Seconds>(), "inf"), "\"inf\"");
    EXPECT_EQ(json(typeOf<Vel::String>(), "'a'"), "\"a\"");
    EXPECT_EQ(json(typeOf<Vel::U64>(), "18446744073709551615"), "18446744073709551615");
}

TEST(EntityTextTest, KeysAndTheirMembersAreFound) {
    auto const dir = Vel::Dir::newEntity("");
    auto const made = dir->createEntity("Vel::Dir", "a");
    auto const& naming = *namingCollection(*streamTableOf(*dir));
    std::vector<std::string> keys;
    eachKey(*dir, naming, [&](std::string const& key) { keys.push_back(key); });
    EXPECT_EQ(keys, (std::vector<std::string>{"a"}));
    EXPECT_EQ(memberOf(*dir, naming, "a"), made.get());
    EXPECT_EQ(memberOf(*dir, naming, "b"), nullptr);
    EXPECT_EQ(entityAt(*dir, placeOf(*dir, stepsOf("/a")[0])), made.get());
    EXPECT_EQ(placeOf(*made, {"nothing", "", false, 0}).attribute, nullptr);
}

}  // namespace
