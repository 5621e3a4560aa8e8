#include "Vel/stream/StreamPeer.h"

#include "StreamTools.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U8;
using Vel::NboAttrLog::Compact;

// --- pings ---

TEST(StreamPeerTest, AnswersPingsAtAnyTimeOnceItIsGreeted) {
    Pair pair(Dir::newEntity("d"));
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    EXPECT_TRUE(pair.reader->isGreeted());
    EXPECT_FALSE(pair.replica.isGreeted());
    pair.reader->ping(5);
    pair.replica.ping(6);
    pair.run();
    EXPECT_EQ(pair.reader->pongs(), 1u);
    EXPECT_EQ(pair.replica.pongs(), 1u);
    EXPECT_EQ(pair.replica.state(), Vel::AttrLogReplica::State::synced);
}

TEST(StreamPeerTest, HelloComesBeforePingsAndTheirAnswers) {
    for (MessageKind const kind : {MessageKind::ping, MessageKind::pong}) {
        Pair pair(Dir::newEntity("d"));
        pair.connect();
        pair.reader->input(message(kind, [](Out& out) { out << U32(1); }));
        EXPECT_EQ(pair.reader->error(), Vel::format("no message of kind %u comes first", static_cast<U32>(kind)));
        EXPECT_FALSE(pair.reader->wantsOutput());
        EXPECT_FALSE(pair.reader->isGreeted());
    }
}

TEST(StreamPeerTest, PingWithBytesBehindItsEndIsRefused) {
    Pair pair(Dir::newEntity("d"));
    pair.connect();
    pair.run();
    pair.reader->input(message(MessageKind::ping, [](Out& out) { out << U32(1) << false; }));
    EXPECT_EQ(pair.reader->error(), "a message with bytes behind its end");
}

// 4096 bytes of them, of 6 each, wherever they wait.
TEST(StreamPeerTest, AnswersThatNobodyTakesAreFew) {
    Pair pair(Dir::newEntity("d"));
    pair.connect();
    pair.run();
    Bytes const ping = message(MessageKind::ping, [](Out& out) { out << U32(1); });
    int answered = 0;
    while (!pair.reader->isClosing() && answered < 10'000) {
        pair.reader->input(ping);
        pair.reader->output(1);
        ++answered;
    }
    EXPECT_EQ(answered, 4096 / 6 + 1);
    EXPECT_EQ(pair.reader->error(), "pings come faster than their answers are taken");
    EXPECT_LT(pair.reader->held(), 10'000u);
}

TEST(StreamPeerTest, AnswersThatAreTakenMayBeMany) {
    Pair pair(Dir::newEntity("d"));
    pair.connect();
    pair.run();
    for (U32 token = 0; token < 5000; ++token) {
        pair.replica.ping(token);
        pair.run();
    }
    EXPECT_EQ(pair.replica.pongs(), 5000u);
    EXPECT_EQ(pair.reader->error(), "");
}

// What is held is what has come, not what is announced; and nothing is kept when the message is complete.
TEST(StreamPeerTest, MessageHoldsWhatHasComeOfIt) {
    Pair pair(Dir::newEntity("d"));
    pair.connect();
    pair.run();
    std::size_t const before = pair.reader->held();
    Bytes const large = writeMessage(0, 0, 1000, [](Out& out) { out.append(1'000'000); });
    std::span<Vel::U8 const> const bytes = large;
    pair.reader->input(bytes.first(10));
    EXPECT_LE(pair.reader->held(), before + 10);
    pair.reader->input(bytes.subspan(10, 600'000));
    EXPECT_LE(pair.reader->held(), before + large.size());
    EXPECT_GE(pair.reader->held(), before + 600'010);
    pair.reader->input(bytes.subspan(600'010));
    EXPECT_EQ(pair.reader->error(), "");
    EXPECT_LE(pair.reader->held(), before + 200) << "for the answer";
}

// Up to 4 KiB of room are kept for the next message that comes in parts, and no more.
TEST(StreamPeerTest, RoomOfAMessageThatCameInPartsIsKeptUnlessItIsLarge) {
    for (std::size_t const size : {4096u, 4097u}) {
        Pair pair(Dir::newEntity("d"));
        pair.connect();
        pair.run();
        std::size_t const before = pair.reader->held();
        // Behind a length of two bytes, the kind, the number, what is asked for and the entity's id:
        Bytes const bytes = writeMessage(0, 0, 63, [&](Out& out) { out.append(size - 6); });
        ASSERT_EQ(bytes.size(), size);
        pair.reader->input(std::span(bytes).first(3000));
        pair.reader->input(std::span(bytes).subspan(3000));
        EXPECT_EQ(pair.reader->error(), "");
        std::size_t const answer = 200;  // more than it takes
        EXPECT_LE(pair.reader->held() - before, answer + (size == 4096 ? size : 0));
        EXPECT_GE(pair.reader->held() - before, size == 4096 ? size : 0);
    }
}

// What an output has room for is memory, also when all of it was taken.
TEST(StreamPeerTest, RoomThatIsKeptForTheNextOutputIsHeld) {
    auto const root = Dir::newEntity("d");
    for (int i = 0; i < 5000; ++i) root->entryIs(Leaf::newEntity(Vel::format("leaf%060d", i)));
    Pair pair(root);
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    std::size_t const size = pair.reader->output(64u << 10).size();
    EXPECT_GE(size, 60'000u);
    pair.reader->outputTaken(size);
    EXPECT_GE(pair.reader->held(), size);
    // With less asked for at a time it shrinks, and goes when there is nothing to send.
    pair.reader->outputTaken(pair.reader->output(4096).size());
    EXPECT_LT(pair.reader->held(), 20'000u);
    takeOutput(*pair.reader);
    EXPECT_LT(pair.reader->held(), 10'000u);
}

TEST(StreamPeerTest, PingDoesNotCutAMessageInTwo) {
    auto const leaf = Leaf::newEntity("x");
    Pair pair(leaf);
    pair.connect();
    pair.run();
    leaf->sizeIs(1);
    auto const bytes = pair.reader->output(6);
    pair.replica.input(bytes);
    pair.reader->ping(5);  // while the bytes are on their way
    pair.reader->outputTaken(bytes.size());
    leaf->sizeIs(2);
    pair.run();
    EXPECT_EQ(pair.replica.error(), "");
    EXPECT_EQ(pair.reader->pongs(), 1u);
    pair.expectEqual();
}

}  // namespace
