#include "Vel/stream/internal/StreamView.h"

#include "StreamTools.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;

// Two views of one demuxer: of a directory, and of one within it that holds a leaf.
class StreamViewTest : public testing::Test {
protected:
    StreamViewTest() {
        root->entryIs(dir);
        dir->entryIs(leaf);
        for (Vel::StreamView* const view : {&all, &part}) {
            for (Vel::Entity* const entity :
                {static_cast<Vel::Entity*>(dir.get()), static_cast<Vel::Entity*>(leaf.get())})
                view->adapterIs(*entity);
        }
        all.adapterIs(*root);
    }
    ~StreamViewTest() override { root->entryDelAll(); }

    Ptr<Dir> root = Dir::newEntity("root"), dir = Dir::newEntity("dir");
    Ptr<Leaf> leaf = Leaf::newEntity("leaf");
    std::shared_ptr<Vel::StreamDemuxer> demuxer = std::make_shared<Vel::StreamDemuxer>();
    Vel::StreamView all{demuxer, root}, part{demuxer, dir};
};

TEST_F(StreamViewTest, EntityOfTwoViewsHasOneAdapter) {
    EXPECT_EQ(demuxer->entities(), 3u);
    EXPECT_EQ(all.entities(), 3u);
    EXPECT_EQ(part.entities(), 2u);
    EXPECT_EQ(all.adapter(*leaf), part.adapter(*leaf));
    EXPECT_EQ(all.adapter(part.adapter(*leaf)->id()), part.adapter(*leaf));
}

TEST_F(StreamViewTest, KnowsNothingOfWhatIsInOtherViewsOnly) {
    ASSERT_NE(demuxer->adapter(*root), nullptr);
    EXPECT_EQ(part.adapter(*root), nullptr);
    EXPECT_EQ(part.adapter(all.adapter(*root)->id()), nullptr);
    EXPECT_FALSE(part.usesType(part.demuxer().typeIndex(Vel::typeOf<Leaf>())));
    EXPECT_TRUE(part.usesType(part.typeIndex(Vel::typeOf<Leaf>())));
    EXPECT_FALSE(all.usesType(demuxer->typeIndex(Vel::typeOf<Leaf>())));
}

TEST_F(StreamViewTest, WhatCannotBeMadeInACopyIsTheRootOrLeftOut) {
    auto const demanding = Fixture::Demanding::newEntity("x", 1u);
    EXPECT_EQ(all.adapterIs(*demanding), nullptr);
    Vel::StreamView view(demanding);
    EXPECT_NE(view.adapterIs(*demanding), nullptr);
}

TEST_F(StreamViewTest, SweepRemovesFromEachViewWhatItCannotReach) {
    dir->entryDel("leaf");
    part.sweep();
    EXPECT_EQ(part.adapter(*leaf), nullptr);
    EXPECT_NE(all.adapter(*leaf), nullptr) << "each view is swept by itself";
    all.sweep();
    EXPECT_EQ(demuxer->adapter(*leaf), nullptr);
    EXPECT_EQ(all.entities(), 2u);
}

TEST_F(StreamViewTest, IsSweptWhenHalfAsManyReferencesWereDroppedAsItHasEntities) {
    dir->entryDel("leaf");
    for (int i = 1; i < 64; ++i) part.referenceDropped();  // one was, with the entry
    part.sweepIfDue();
    EXPECT_NE(part.adapter(*leaf), nullptr);
    part.referenceDropped();
    part.sweepIfDue();
    EXPECT_EQ(part.adapter(*leaf), nullptr);
}

TEST_F(StreamViewTest, ViewThatGoesTakesAlongWhatNoOtherHas) {
    {
        auto const other = Leaf::newEntity("other");
        Vel::StreamView view(demuxer, other);
        view.adapterIs(*other);
        view.adapterIs(*leaf);
        EXPECT_EQ(demuxer->entities(), 4u);
    }
    EXPECT_EQ(demuxer->entities(), 3u);
    EXPECT_NE(all.adapter(*leaf), nullptr);
}

}  // namespace
