#include "Vel/stream/internal/StreamDemuxer.h"

#include "StreamTools.h"
#include "Vel/stream/internal/StreamView.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::EntityId;
using Vel::Ptr;

class StreamDemuxerTest : public testing::Test {
protected:
    Ptr<Leaf> leaf = Leaf::newEntity("leaf"), other = Leaf::newEntity("other");
    Vel::StreamView view{leaf};
    Vel::StreamDemuxer& demuxer = view.demuxer();
};

TEST_F(StreamDemuxerTest, AdapterIsFoundByIdAndEntityAndSlot) {
    Vel::Entity::VelNboAttrLogSa& adapter = demuxer.newAdapter(*leaf);
    EXPECT_EQ(adapter.id(), 1u);
    EXPECT_EQ(demuxer.adapter(EntityId(1)), &adapter);
    EXPECT_EQ(demuxer.adapter(*leaf), &adapter);
    EXPECT_EQ(demuxer.adapterAt(adapter.slot()), &adapter);
    EXPECT_EQ(demuxer.adapter(*other), nullptr);
    EXPECT_EQ(demuxer.adapter(EntityId(2)), nullptr);
}

TEST_F(StreamDemuxerTest, SlotIsUsedAgainAndAnIdIsNot) {
    demuxer.adapterDel(demuxer.newAdapter(*leaf));
    EXPECT_EQ(demuxer.adapter(*leaf), nullptr);
    Vel::Entity::VelNboAttrLogSa& adapter = demuxer.newAdapter(*other);
    EXPECT_EQ(adapter.slot(), 0u);
    EXPECT_EQ(adapter.id(), 2u);
}

TEST_F(StreamDemuxerTest, TypeHasItsIndexFromTheFirstQuestionOn) {
    EXPECT_EQ(demuxer.typeIndex(Vel::typeOf<Leaf>()), 0u);
    EXPECT_EQ(demuxer.typeIndex(Vel::typeOf<Vel::Dir>()), 1u);
    EXPECT_EQ(demuxer.typeIndex(Vel::typeOf<Leaf>()), 0u);
    EXPECT_EQ(demuxer.types().size(), 2u);
}

TEST_F(StreamDemuxerTest, WhereNoIdIsLeftWorkIsCutShortAndAllStartsOver) {
    demuxer.lastIdIs(~EntityId(0) - 1);
    EXPECT_TRUE(demuxer.givingIds([&] { view.adapterIs(*leaf); }));
    EXPECT_EQ(view.adapter(*leaf)->id(), ~EntityId(0));
    bool isCutShort = true;
    EXPECT_FALSE(demuxer.givingIds([&] {
        view.adapterIs(*other);
        isCutShort = false;
    }));
    EXPECT_TRUE(isCutShort);
    EXPECT_EQ(demuxer.entities(), 0u);
    EXPECT_EQ(view.entities(), 0u);
    EXPECT_TRUE(demuxer.givingIds([&] { view.adapterIs(*other); }));
    EXPECT_EQ(view.adapter(*other)->id(), 1u);
}

// Two views have the leaf: what is told of it waits for the logs of both.
TEST_F(StreamDemuxerTest, ChangeThatSeveralLogsGetIsEncodedOnce) {
    Vel::StreamView second(std::shared_ptr<Vel::StreamDemuxer>(std::shared_ptr<void>(), &demuxer), leaf);
    Line a(view), b(second);
    Vel::NboAttrLog::BufferSm logA, logB;
    Vel::Entity::VelNboAttrLogSa& adapter = *view.adapterIs(*leaf);
    second.adapterIs(*leaf);
    for (Line* const line : {&a, &b}) line->announce(adapter, {});
    EXPECT_EQ(demuxer.liveSm(adapter), nullptr) << "nobody reads along";
    demuxer.liveIs(a, logA, true);
    EXPECT_EQ(demuxer.liveSm(adapter), &logA) << "one log is written to by itself";
    demuxer.liveIs(b, logB, true);
    Vel::NboAttrLog::OutSm* const shared = demuxer.liveSm(adapter);
    ASSERT_NE(shared, nullptr);
    shared->begin(MessageKind::ping, 4) << U32(7);
    shared->commit();
    EXPECT_EQ(logA.size(), 0u);
    demuxer.giveOut();
    EXPECT_EQ(told(logA.bytes()), Strings{"ping 7"});
    EXPECT_EQ(told(logB.bytes()), Strings{"ping 7"});
    demuxer.liveIs(a, logA, false);
    demuxer.liveIs(b, logB, false);
}

TEST_F(StreamDemuxerTest, ChangesAreCountedAndThoseThatWereFlaggedAlready) {
    demuxer.changeCounted(false);
    demuxer.changeCounted(true);
    EXPECT_EQ(demuxer.changes(), 2u);
    EXPECT_EQ(demuxer.coalesced(), 1u);
}

}  // namespace
