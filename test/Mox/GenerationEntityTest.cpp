#include "Mox/Generation.h"

#include "RecordTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <vector>

namespace {

using Mox::Generation;
using Mox::GenerationEntity;
using Vel::AttributeOp;
using Ids = std::vector<Vel::AttributeId>;

class GenerationEntityTest : public testing::Test {
protected:
    GenerationEntityTest() { Vel::globalDir()->entryDelAll(); }
    ~GenerationEntityTest() override { Vel::globalDir()->entryDelAll(); }

    // Collects from now on the ids under which the entity's observers are told, and the generation they find then.
    void observe(GenerationEntity const& observed) {
        notifiee_ = Vel::notifieeOf(observed, [this, &observed](Vel::AttributeId id) {
            notified.push_back(id);
            seen.push_back(observed.generation());
        });
    }
    int op(AttributeOp what, void* result, void const* arg = nullptr) {
        return entity->attributeOp(result, attribute(), what, nullptr, arg);
    }
    static Vel::VelAttr attribute() { return Vel::typeOf<GenerationEntity>().attributeOfId(258).value(); }

    Ids notified;
    std::vector<Generation> seen;
    Vel::Ptr<GenerationEntity> const entity = Mox::generationEntityFactory("mine");

private:
    std::unique_ptr<Vel::Notifiee> notifiee_;
};

// --- construction ---

TEST_F(GenerationEntityTest, StartsWithTheNullGenerationUnderItsName) {
    EXPECT_EQ(entity->name(), "mine");
    EXPECT_EQ(entity->generation(), Generation(0, false));
    EXPECT_EQ(entity->path(), "mine");  // in no tree
    EXPECT_EQ(entity->parent(), nullptr);
}

TEST_F(GenerationEntityTest, FactoriesSwitchNotificationOnAndTheConstructorDoesNot) {
    EXPECT_TRUE(entity->hasNotificationActive());
    EXPECT_TRUE(GenerationEntity::GenerationEntityIs("x")->hasNotificationActive());
    EXPECT_EQ(GenerationEntity::GenerationEntityIs("x")->name(), "x");
    Vel::Ptr<GenerationEntity> const plain(new GenerationEntity("plain"));
    EXPECT_FALSE(plain->hasNotificationActive());
    observe(*plain);
    plain->generationIs(Generation(1, true));
    EXPECT_EQ(plain->generation(), Generation(1, true));
    EXPECT_EQ(notified, Ids());
}

TEST_F(GenerationEntityTest, IsMadeFromItsNameOnly) {
    EXPECT_TRUE((std::is_constructible_v<GenerationEntity, Vel::String>));
    EXPECT_FALSE((std::is_convertible_v<Vel::String, GenerationEntity>));
    EXPECT_FALSE((std::is_constructible_v<GenerationEntity, Vel::String, Generation>));
    EXPECT_FALSE(std::is_default_constructible_v<GenerationEntity>);
    EXPECT_TRUE((std::is_base_of_v<Vel::Entity, GenerationEntity>));
}

TEST_F(GenerationEntityTest, KnowsItsTypeAndItsBase) {
    auto const type = entity->fwkType();
    EXPECT_EQ(type, Vel::Registry::type("Mox::GenerationEntity"));
    EXPECT_TRUE(type.isEntity());
    EXPECT_EQ(type.moduleName(), "Generation");
    EXPECT_STREQ(type.base().name(), "Vel::Entity");
}

TEST_F(GenerationEntityTest, AllocationsAreTrackedByType) {
    auto const& statistics = *Vel::typeOf<GenerationEntity>().glue().allocTrack;
    EXPECT_STREQ(statistics.typeName(), "Mox::GenerationEntity");
    auto const live = statistics.live();
    auto another = Mox::generationEntityFactory("x");
    EXPECT_EQ(statistics.live(), live + 1);
    another = nullptr;
    EXPECT_EQ(statistics.live(), live);
}

// --- notification ---

TEST_F(GenerationEntityTest, ObserversAreToldOfEveryChangeOfEitherField) {
    observe(*entity);
    entity->generationIs(Generation(1, false));
    entity->generationIs(Generation(1, true));
    entity->generationIs(Generation(2, true));
    entity->generationIs(Generation());
    EXPECT_EQ(notified, (Ids{258, 258, 258, 258}));
    EXPECT_EQ(seen, (std::vector<Generation>{{1, false}, {1, true}, {2, true}, {0, false}}));
}

TEST_F(GenerationEntityTest, ObserversAreNotToldOfTheSameGeneration) {
    observe(*entity);
    entity->generationIs(Generation());
    entity->generationIs(Generation::null());
    EXPECT_EQ(notified, Ids());
    entity->generationIs(Generation(7, true));
    entity->generationIs(Generation(7, true));
    entity->generationIs(entity->generation());
    EXPECT_EQ(notified, Ids{258});
}

TEST_F(GenerationEntityTest, ObserversAreToldInTheOrderInWhichTheyCame) {
    std::vector<int> told;
    auto const first = Vel::notifieeOf(*entity, [&](Vel::AttributeId) { told.push_back(1); });
    auto second = Vel::notifieeOf(*entity, [&](Vel::AttributeId) { told.push_back(2); });
    entity->generationIs(Generation(1, true));
    EXPECT_EQ(told, (std::vector<int>{1, 2}));
    second = nullptr;
    entity->generationIs(Generation(2, true));
    EXPECT_EQ(told, (std::vector<int>{1, 2, 1}));
}

TEST_F(GenerationEntityTest, NothingIsToldWhileNotificationIsOff) {
    observe(*entity);
    entity->hasNotificationActiveIs(false);
    entity->generationIs(Generation(1, true));
    EXPECT_EQ(notified, Ids());
    entity->hasNotificationActiveIs(true);
    entity->generationIs(Generation(2, true));
    EXPECT_EQ(notified, Ids{258});
}

TEST_F(GenerationEntityTest, DestructionWithdrawsTheObservers) {
    auto another = Mox::generationEntityFactory("x");
    auto const notifiee = Vel::notifieeOf(*another, [](Vel::AttributeId) {});
    EXPECT_TRUE(notifiee->hasNotifier());
    another = nullptr;
    EXPECT_FALSE(notifiee->hasNotifier());
}

// --- directory ---

TEST_F(GenerationEntityTest, DirectoryCreatesOneByName) {
    auto const created =
        Vel::ptr_cast<GenerationEntity>(Vel::globalDir()->createEntity("Mox::GenerationEntity", "config"));
    ASSERT_TRUE(created);
    EXPECT_EQ(created->name(), "config");
    EXPECT_EQ(created->path(), "/config");
    EXPECT_EQ(created->generation(), Generation());
    EXPECT_TRUE(created->hasNotificationActive());
}

TEST_F(GenerationEntityTest, DirectoryGivesTheOneThatIsThereAlready) {
    auto const created =
        Vel::ptr_cast<GenerationEntity>(Vel::globalDir()->createEntity("Mox::GenerationEntity", "config"));
    created->generationIs(Generation(7, true));
    EXPECT_EQ(Vel::globalDir()->createEntity("Mox::GenerationEntity", "config"), created);
    EXPECT_EQ(created->generation(), Generation(7, true));
    EXPECT_EQ(Vel::globalDir()->entries(), 1u);
}

TEST_F(GenerationEntityTest, DirectoryRefusesConstructorArguments) {
    Generation const generation(7, true);
    void const* const arguments[] = {&generation};
    EXPECT_EQ(messageOf<Vel::NewEntityArgsException>(
                  [&] { Vel::globalDir()->createEntity("Mox::GenerationEntity", "config", arguments); }),
        "an entity of type Mox::GenerationEntity takes no constructor arguments but its name");
    EXPECT_EQ(Vel::globalDir()->entries(), 0u);
}

TEST_F(GenerationEntityTest, IsFoundByItsPath) {
    auto const agents = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "agents"));
    auto const created = agents->createEntity("Mox::GenerationEntity", "config");
    EXPECT_EQ(Vel::globalDir()->entity("/agents/config"), created);
    EXPECT_EQ(Vel::globalDir()->entity("agents/config"), created);
    EXPECT_EQ(created->parent(), agents.get());
    EXPECT_FALSE(Vel::globalDir()->entity("/agents/config/generation"));
    EXPECT_FALSE(Vel::globalDir()->entity("/agents/other"));
    agents->entryDel("config");
    EXPECT_FALSE(Vel::globalDir()->entity("/agents/config"));
    EXPECT_EQ(created->parent(), nullptr);
}

// --- reflection ---

TEST_F(GenerationEntityTest, GenerationIsReadAndWrittenThroughTheMutator) {
    observe(*entity);
    Generation const generation(7, true);
    for (int again = 0; again < 2; ++again) EXPECT_EQ(op(AttributeOp::set, nullptr, &generation), 0);
    EXPECT_EQ(notified, Ids{258});
    EXPECT_EQ(entity->generation(), generation);
    Generation result;
    EXPECT_EQ(op(AttributeOp::get, &result), 0);
    EXPECT_EQ(result, generation);
    EXPECT_EQ(op(AttributeOp::get, nullptr), 0);
}

TEST_F(GenerationEntityTest, OtherOperationsAreRefused) {
    Generation value(9, true);
    for (Vel::U32 what = 0; what < 40; ++what) {
        if (what > 1) {
            EXPECT_EQ(op(AttributeOp(what), &value, &value), 1) << what;
        }
        EXPECT_EQ(entity->attributeOp(&value, Vel::VelAttr(), AttributeOp(what), &value, &value), 1) << what;
    }
    EXPECT_EQ(value, Generation(9, true));
    EXPECT_EQ(entity->generation(), Generation());
}

TEST_F(GenerationEntityTest, OtherIdsAreUnknown) {
    auto const type = Vel::typeOf<GenerationEntity>();
    for (Vel::AttributeId const id : {0u, 1u, 2u, 257u, 259u}) EXPECT_FALSE(type.attributeOfId(id)) << id;
    EXPECT_FALSE(type.attribute("name"));
    Generation value(9, true);
    for (Vel::U32 what = 0; what < 40; ++what)
        EXPECT_EQ(entity->attributeOp(&value, Vel::VelAttr(type, 1), AttributeOp(what), nullptr, &value), 2) << what;
    EXPECT_EQ(value, Generation(9, true));
}

TEST_F(GenerationEntityTest, PrintsAsItsTypeAndPath) {
    Vel::globalDir()->entryIs(entity);
    Vel::StrepOut out;
    entity->velPrint(out);
    EXPECT_EQ(out.str(), "Mox::GenerationEntity('/mine')");
}

}  // namespace
