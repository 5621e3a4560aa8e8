#include "Redundancy/RedundancyStatus.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Redundancy::RedundancyStatus;
using Vel::AttributeOp;

class RedundancyStatusTest : public testing::Test {
protected:
    Vel::VelAttr const attr = Vel::typeOf<RedundancyStatus>().attributeOfId(258).value();
    Vel::Ptr<RedundancyStatus> const status = Redundancy::redundancyStatusFactory("status");
};

TEST_F(RedundancyStatusTest, ActiveCellIsNotKnownAtFirst) {
    EXPECT_EQ(RedundancyStatus::unknownCell, 0xFFFFFFFFu);
    EXPECT_EQ(status->activeCellId(), 0xFFFFFFFFu);
    EXPECT_EQ(status->name(), "status");
}

TEST_F(RedundancyStatusTest, MutatorNotifiesChangesOnly) {
    std::vector<Vel::AttributeId> notified;
    auto const notifiee = Vel::notifieeOf(*status, [&](Vel::AttributeId id) { notified.push_back(id); });
    status->activeCellIdIs(0xFFFFFFFFu);
    EXPECT_EQ(notified, std::vector<Vel::AttributeId>());
    status->activeCellIdIs(2);
    status->activeCellIdIs(2);
    EXPECT_EQ(status->activeCellId(), 2u);
    EXPECT_EQ(notified, std::vector<Vel::AttributeId>{258});
}

TEST_F(RedundancyStatusTest, ActiveCellIsItsOneAttribute) {
    auto const type = status->fwkType();
    EXPECT_EQ(type, Vel::Registry::type("Redundancy::RedundancyStatus"));
    ASSERT_EQ(type.attributeCount(), 1u);
    EXPECT_STREQ(attr.name(), "activeCellId");
    EXPECT_STREQ(attr.valueType().name(), "U32");
    EXPECT_EQ(attr.kind(), Vel::AttributeKind::entityAttribute);
}

TEST_F(RedundancyStatusTest, AttributeIsReadAndWrittenByReflection) {
    Vel::U32 const value = 7;
    Vel::U32 result = 0;
    EXPECT_EQ(status->attributeOp(nullptr, attr, AttributeOp::set, nullptr, &value), 0);
    EXPECT_EQ(status->attributeOp(&result, attr, AttributeOp::get), 0);
    EXPECT_EQ(result, 7u);
    EXPECT_EQ(status->activeCellId(), 7u);
    for (Vel::U32 op = 2; op < 40; ++op) EXPECT_EQ(status->attributeOp(&result, attr, AttributeOp(op)), 1) << op;
}

TEST_F(RedundancyStatusTest, DirectoryCreatesOneByNameAlone) {
    auto const dir = Vel::Dir::newEntity("dir");
    auto const created = Vel::ptr_cast<RedundancyStatus>(dir->createEntity("Redundancy::RedundancyStatus", "status"));
    ASSERT_TRUE(created);
    EXPECT_EQ(created->name(), "status");
    EXPECT_TRUE(created->hasNotificationActive());
    void const* const arguments[] = {nullptr};
    EXPECT_THROW(dir->createEntity("Redundancy::RedundancyStatus", "another", arguments), Vel::NewEntityArgsException);
}

}  // namespace
