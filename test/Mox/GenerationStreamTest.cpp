#include "Mox/Generation.h"
#include "test/Vel/stream/StreamTools.h"

#include <gtest/gtest.h>

namespace {

using namespace StreamTest;
using Ids = std::vector<Vel::AttributeId>;
constexpr Vel::AttributeId none = ~Vel::AttributeId(0);

class GenerationStreamTest : public testing::Test {
protected:
    Vel::Ptr<Mox::GenerationEntity> entity = Mox::generationEntityFactory("gen");
    Vel::StreamView view{entity};
    Vel::Entity::VelNboAttrLogSa& adapter = *view.adapterIs(*entity);
    Line line{view};
};

TEST_F(GenerationStreamTest, IsAnnouncedWithItsNameAndSendsItsOneAttribute) {
    entity->generationIs({7, true});
    line.announce(adapter, {});
    EXPECT_EQ(line.take(), (Strings{"type 0 Mox::GenerationEntity", "announce 1 type 0 gen"}));
    EXPECT_EQ(line.flow(adapter, 0), Ids{0});
    EXPECT_EQ(line.sent, Strings{"value 1.258 0000000701"});
}

TEST_F(GenerationStreamTest, FlowsFromTheAttributeOnAndFromNoOther) {
    EXPECT_EQ(line.flow(adapter, 258), Ids{0});
    EXPECT_EQ(line.sent, Strings{"value 1.258 0000000000"});
    EXPECT_EQ(line.flow(adapter, 257), Ids{none});
    EXPECT_EQ(line.flow(adapter, 259), Ids{none});
    EXPECT_EQ(line.flow(adapter, 1), Ids{none});
    EXPECT_EQ(line.sent.size(), 1u);
}

TEST_F(GenerationStreamTest, ResumesAtTheAttributeThatTheConnectionCouldNotTake) {
    line.announce(adapter, {});
    line.take();
    line.room = 0;
    auto& flow = line.flowIs(adapter, 0);
    EXPECT_EQ(adapter.continueFlowOut(line, flow, 0), 258u);
    EXPECT_EQ(line.take(), Strings{});
    line.room = 1;
    EXPECT_EQ(adapter.continueFlowOut(line, flow, 258), 0u);
    EXPECT_EQ(line.take(), Strings{"value 1.258 0000000000"});
}

TEST_F(GenerationStreamTest, IsCreatedFromItsNameAndFollows) {
    Pair pair(entity);
    pair.connect();
    pair.run();
    auto const copy = Vel::ptr_cast<Mox::GenerationEntity>(pair.replica.root());
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->name(), "gen");
    EXPECT_TRUE(copy->hasNotificationActive());
    Ids notified;
    auto const observer = Vel::notifieeOf(*copy, [&](Vel::AttributeId id) { notified.push_back(id); });
    entity->generationIs({3, false});
    entity->generationIs({3, true});
    pair.run();
    EXPECT_EQ(copy->generation(), Mox::Generation(3, true));
    EXPECT_EQ(notified, (Ids{258, 258}));
}

}  // namespace
