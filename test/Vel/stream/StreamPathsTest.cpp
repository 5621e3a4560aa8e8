#include "StreamTools.h"
#include "test/Vel/describe/Fixtures.h"

#include "Vel/stream/AttrLogServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

// Readers of one server at paths that overlap.
namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::Dir;
using Vel::EntityId;
using Vel::Ptr;
using Vel::String;
using Vel::U32;

// A reader of a path, and its copy.
class Reading {
public:
    Reading(Vel::AttrLogServer& server, char const* path)
        : replica(place, server.source(path)->root().name(), {.path = path, .wantsToWrite = true}),
          reader(server.newReader()) {
        replica.connected();
        reader->input(takeOutput(replica));
    }
    Strings take() {
        auto const bytes = takeOutput(*reader);
        replica.input(bytes);
        EXPECT_EQ(replica.error(), "");
        return told(bytes);
    }
    Strings takeRest() {  // behind the message that takeByte() has begun
        while (replica.inputHeld() != 0) takeByte();
        return take();
    }
    void takeByte() {
        Bytes const byte{reader->output(1)[0]};
        reader->outputTaken(1);
        replica.input(byte);
    }
    // Asks for a change that the replica knows nothing of, and returns the answer.
    std::string write(EntityId id, U32 size) {
        reader->input(writeMessage(0, 0, id, [&](auto& out) { out << Vel::NboAttrLog::Compact{258} << size; }));
        std::string answer;
        eachMessage(takeOutput(*reader), [&](std::span<Vel::U8 const> one) {
            auto const kind = static_cast<MessageKind>(one[0]);
            Bytes const bytes = message(kind, [&](Out& out) {
                for (Vel::U8 const byte : one.subspan(1)) out << byte;
            });
            if (kind == MessageKind::answer)
                answer = told(bytes)[0];
            else
                replica.input(bytes);
        });
        return answer;
    }
    void expectEqual(Vel::Entity const& entity) { EXPECT_EQ(treeOf(*replica.root()), treeOf(entity)); }

    Ptr<Dir> place = Dir::newEntity("");
    Vel::AttrLogReplica replica;
    std::unique_ptr<Vel::StreamPeer> reader;
};

// A server of /a/x and /b/y, and readers of all and of "a".
class StreamPathsTest : public testing::Test {
protected:
    explicit StreamPathsTest(Vel::AttrLogSource::Options const& options = {.mayWrite = true}) : server(root, options) {
        a->entryIs(x);
        b->entryIs(y);
        root->entryIs(a);
        root->entryIs(b);
        all = std::make_unique<Reading>(server, "");
        ofA = std::make_unique<Reading>(server, "a");
        all->take();
    }
    std::string idOf(Vel::Entity const& entity) {
        return std::to_string(server.source("")->impl().adapter(entity)->id());
    }
    void move(Dir& from, Dir& to) {
        from.entryDel("x");
        to.entryIs(x);
        server.source("a")->impl().sweep();
    }
    void expectAllEqual() {
        all->take();
        ofA->take();
        all->expectEqual(*root);
        ofA->expectEqual(*a);
        EXPECT_EQ(ofA->replica.entities(), server.source("a")->entities());
    }

    Ptr<Dir> root = Dir::newEntity("root"), a = Dir::newEntity("a"), b = Dir::newEntity("b");
    Ptr<Leaf> x = Leaf::newEntity("x"), y = Leaf::newEntity("y");
    Vel::AttrLogServer server;
    std::unique_ptr<Reading> all, ofA;
};

TEST_F(StreamPathsTest, WhatIsAtSeveralPathsIsObservedOnce) {
    ofA->take();
    auto* const adapter = server.source("")->impl().adapter(*x);
    ASSERT_TRUE(adapter);
    EXPECT_EQ(server.source("a")->impl().adapter(*x), adapter);
    EXPECT_EQ(server.source("a")->impl().demuxer().entities(), 5u);
}

TEST_F(StreamPathsTest, ChangeReachesThePathsThatHaveTheEntity) {
    ofA->take();
    x->sizeIs(7);
    y->sizeIs(8);
    x->peerIs(x);
    Strings const ofX{"value " + idOf(*x) + ".258 00000007", "value " + idOf(*x) + ".260 " + idOf(*x)};
    EXPECT_EQ(ofA->take().front(), ofX.front());
    expectAllEqual();
    x->peerIs(nullptr);  // who refers to itself is never freed, nor are its copies
    all->take();
    ofA->take();
}

TEST_F(StreamPathsTest, ChangesComeInTheirOrderWhateverIsSharedOfThem) {
    ofA->take();
    x->sizeIs(1);
    x->sizeIs(2);
    auto const w = Leaf::newEntity("w");
    a->entryIs(w);
    w->sizeIs(3);
    y->sizeIs(4);
    x->sizeIs(5);
    std::string const ofX = "value " + idOf(*x) + ".258 ", ofW = "value " + idOf(*w) + ".258 ";
    Strings values;
    for (std::string const& message : ofA->take())
        if (message.find(".258 0") != std::string::npos) values.push_back(message);
    EXPECT_EQ(
        values, (Strings{ofX + "00000001", ofX + "00000002", ofW + "00000000", ofW + "00000003", ofX + "00000005"}));
    expectAllEqual();
}

TEST_F(StreamPathsTest, ReadersThatHaveAllAreWokenByEachPathsNextChange) {
    ofA->take();
    std::string woken;
    all->reader->wakeIs([&] { woken += "all "; });
    ofA->reader->wakeIs([&] { woken += "a "; });
    for (int round = 0; round < 3; ++round) {
        all->take();
        ofA->take();
        woken.clear();
        y->sizeIs(y->size() + 1);
        EXPECT_EQ(woken, "all ");
        x->sizeIs(x->size() + 1);
        EXPECT_EQ(woken, "all a ");
        x->sizeIs(x->size() + 1);
        EXPECT_EQ(woken, "all a ") << "but once";
    }
}

TEST_F(StreamPathsTest, ReadersThatHaveAllAreWokenByTheNextChangeOfWhatTheyShare) {
    ofA->take();
    int woken = 0;
    all->reader->wakeIs([&] { ++woken; });
    ofA->reader->wakeIs([&] { ++woken; });
    for (U32 round = 1; round <= 3; ++round) {  // of one entity: who gets the message is the same each time
        woken = 0;
        x->sizeIs(round);
        EXPECT_EQ(woken, 2) << "round " << round;
        all->take();
        ofA->take();
    }
}

TEST_F(StreamPathsTest, WhatEachPathIsToldByItselfComesBehindWhatWasSharedBefore) {
    ofA->take();
    x->sizeIs(1);
    x->sizeIs(2);  // waits to be given to both
    x->peerIs(x);
    std::string const ofX = "value " + idOf(*x);
    EXPECT_EQ(ofA->take(), (Strings{ofX + ".258 00000001", ofX + ".258 00000002", ofX + ".260 0000000" + idOf(*x)}));
    x->sizeIs(3);
    x->sizeIs(4);
    a->entryDel("x");
    Strings const told = ofA->take();
    ASSERT_EQ(told.size(), 3u);
    EXPECT_EQ(told[1], ofX + ".258 00000004");
    EXPECT_EQ(told[2].substr(0, 7), "keyDel ");
    x->peerIs(nullptr);
    expectAllEqual();
}

// The paths are asked in the order in which they came to be read: the first of them counts, too.
TEST_F(StreamPathsTest, ChangeReachesNoPathThatDoesNotHaveTheEntityWhicheverWasReadFirst) {
    ofA->take();
    all = std::make_unique<Reading>(server, "");
    all->take();
    x->sizeIs(7);
    y->sizeIs(8);
    EXPECT_EQ(ofA->take(), Strings{"value " + idOf(*x) + ".258 00000007"});
    expectAllEqual();
}

// A type that another path was told of first, and this one of something that has gone.
TEST_F(StreamPathsTest, LaterReaderIsToldOfAllTypesThatItsPathWasToldOf) {
    Vel::AttrLogServer another(root);
    Reading ofX(another, "a/x"), first(another, "b");
    ofX.take();
    first.take();
    b->entryDel("y");
    y = nullptr;
    Reading second(another, "b");
    second.take();
    b->entryIs(Leaf::newEntity("z"));
    first.take();
    second.take();
    second.expectEqual(*b);
}

TEST_F(StreamPathsTest, ReaderIsToldOfNothingOutsideOfItsPath) {
    b->entryIs(Fixture::Twig::newEntity("t"));
    all->take();
    Strings const told = ofA->take();
    for (std::string const& message : told) EXPECT_EQ(message.find("Twig"), std::string::npos) << message;
    EXPECT_EQ(ofA->replica.entities(), 2u);
    b->entryIs(Leaf::newEntity("z"));
    y->sizeIs(5);
    b->entryDel("y");
    EXPECT_EQ(ofA->take(), Strings{});
    expectAllEqual();
}

TEST_F(StreamPathsTest, ReaderCannotChangeWhatIsOutsideOfItsPath) {
    ofA->take();
    EXPECT_EQ(ofA->write(server.source("")->impl().adapter(*y)->id(), 7), "answer 0 gone: the entity has gone");
    EXPECT_EQ(y->size(), 0u);
    EXPECT_EQ(ofA->write(server.source("")->impl().adapter(*x)->id(), 7), "answer 0 done");
    EXPECT_EQ(x->size(), 7u);
    expectAllEqual();
}

TEST_F(StreamPathsTest, ReaderCannotChangeWhatHasLeftItsPath) {
    ofA->take();
    move(*a, *b);
    EXPECT_EQ(ofA->write(server.source("")->impl().adapter(*x)->id(), 7), "answer 0 gone: the entity has gone");
    EXPECT_EQ(x->size(), 0u);
}

TEST_F(StreamPathsTest, EntityThatLeavesAPathIsGoneThereAlone) {
    ofA->take();
    move(*a, *b);
    Strings const told = ofA->take();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[1], "gone " + idOf(*x));
    x->sizeIs(7);
    EXPECT_EQ(ofA->take(), Strings{});
    expectAllEqual();
    move(*b, *a);
    EXPECT_EQ(ofA->take().front().substr(0, 10), "announce " + idOf(*x));
    x->sizeIs(8);
    expectAllEqual();
}

TEST_F(StreamPathsTest, EntityThatComesBackHasGoneBefore) {
    a->entryIs(Leaf::newEntity("w"));
    while (!server.source("a")->impl().adapter(*x)) ofA->takeByte();
    EXPECT_EQ(server.source("a")->liveReaders(), 0u) << "which is what is tested";
    move(*a, *b);
    move(*b, *a);
    Strings const told = ofA->takeRest();
    auto const at = [&](std::string const& text) {
        return std::find_if(told.begin(), told.end(), [&](auto const& message) { return message.starts_with(text); });
    };
    ASSERT_NE(at("gone " + idOf(*x)), told.end());
    EXPECT_LT(at("gone " + idOf(*x)), at("announce " + idOf(*x)));
    expectAllEqual();
}

TEST_F(StreamPathsTest, AdaptersGoWithTheLastPathThatHasThem) {
    ofA->take();
    auto const demuxer = [&]() -> Vel::StreamDemuxer& { return server.source("a")->impl().demuxer(); };
    all->reader->closed("");
    server.checkPaths();
    EXPECT_EQ(demuxer().entities(), 2u);
    x->sizeIs(7);
    ofA->take();
    ofA->expectEqual(*a);
}

TEST_F(StreamPathsTest, IdsThatRunOutDoSoForAllPaths) {
    ofA->take();
    server.source("")->impl().demuxer().lastIdIs(~EntityId(0));
    b->entryIs(Leaf::newEntity("z"));
    EXPECT_TRUE(all->reader->isClosing());
    EXPECT_TRUE(ofA->reader->isClosing());
    Reading again(server, "a");
    again.take();
    again.expectEqual(*a);
}

TEST_F(StreamPathsTest, ReaderThatStandsStillDoesNotMakeItsLogGrowWhileOthersRead) {
    ofA->take();
    std::size_t most = 0;
    for (U32 i = 1; i <= 200'000; ++i) {
        x->sizeIs(i);
        all->reader->outputTaken(all->reader->output(1000).size());
        most = std::max(most, server.source("a")->impl().log().size());
    }
    EXPECT_LE(most, server.source("a")->impl().options().logSize + (64u << 10));
    EXPECT_EQ(server.source("a")->liveReaders(), 0u);
}

// Readers are behind with the first message that they have not read.
class ShortLogPathsTest : public StreamPathsTest {
protected:
    ShortLogPathsTest() : StreamPathsTest({.logSize = 0, .mayWrite = true, .chunkSize = 1}) {}
};

TEST_F(ShortLogPathsTest, ReaderThatDidNotReadThatAnEntityLeftAndCameBackIsTold) {
    ofA->take();
    move(*a, *b);
    move(*b, *a);
    x->sizeIs(7);
    EXPECT_EQ(server.source("a")->liveReaders(), 0u) << "which is what is tested";
    expectAllEqual();
}

}  // namespace
