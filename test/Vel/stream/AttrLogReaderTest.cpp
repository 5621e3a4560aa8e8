#include "Vel/stream/internal/AttrLogReader.h"

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

// --- what a reader must not send ---

Bytes helloWith(U32 magic, Bytes const& behind = {}) {
    return message(MessageKind::hello, [&](Out& out) {
        out << magic << Vel::streamVersion << false << String() << 0u;
        for (U8 const byte : behind) out << byte;
    });
}

Bytes helloThatWrites() {
    return message(
        MessageKind::hello, [](Out& out) { out << Vel::streamMagic << Vel::streamVersion << true << String() << 0u; });
}

TEST(HostileReaderTest, WhatNoReaderSaysIsRefusedByName) {
    Bytes const hello = helloWith(Vel::streamMagic);
    Bytes const write = writeMessage(0, 0, 1, [](Out& out) { out << Compact{258}; });
    Bytes const value = message(MessageKind::value, [](Out& out) { out << Compact{1} << Compact{258}; });
    std::vector<std::pair<std::vector<Bytes>, std::string>> const cases{
        {{write}, "a reader sends no message of kind 11 now"},
        {{value}, "a reader sends no message of kind 5 now"},
        {{hello, hello}, "a reader sends no message of kind 1 now"},
        {{hello, value}, "a reader sends no message of kind 5 now"},
        {{helloWith(0x47455420)}, "not an attribute log"},
        {{helloWith(Vel::streamMagic, {0})}, "a hello with bytes behind its end"},
    };
    Vel::AttrLogSource source(Dir::newEntity("d"));
    for (auto const& [inputs, error] : cases) {
        auto const reader = source.newReader();
        for (Bytes const& bytes : inputs) reader->input(bytes);
        EXPECT_EQ(reader->error(), error);
        EXPECT_TRUE(reader->isClosing());
    }
    EXPECT_EQ(source.readers(), 0u);
}

// To an entity that has gone at the source, of which the reader has not heard yet.
TEST(HostileReaderTest, WriteToWhatIsNotThereChangesNothing) {
    Vel::AttrLogSource source(Dir::newEntity("d"));
    auto const reader = source.newReader();
    reader->input(helloWith(Vel::streamMagic));
    reader->input(writeMessage(0, 0, 99, [](Out& out) { out << Compact{258} << 1u; }));
    EXPECT_EQ(reader->error(), "");
}

TEST(HostileReaderTest, WriteToWhatIsNoValueIsRefused) {
    Vel::AttrLogSource::Options options;
    options.mayWrite = true;
    Vel::AttrLogSource source(Leaf::newEntity("x"), options);
    for (U32 const attribute : {260u, 300u}) {  // a pointer, and none at all
        auto const reader = source.newReader();
        reader->input(helloThatWrites());
        reader->input(writeMessage(0, 0, 1, [&](Out& out) { out << Compact{attribute} << 1u; }));
        EXPECT_EQ(reader->error(), Vel::format("Fixture::Leaf has no value attribute %u", attribute));
    }
}

// A ping comes before each output, which is taken wholly.
class PingingReaderTest : public testing::Test {
protected:
    void step() {
        pair.reader->input(message(MessageKind::ping, [](Out& out) { out << U32(1); }));
        auto const bytes = pair.reader->output(64);
        pair.replica.input(bytes);
        pair.reader->outputTaken(bytes.size());
    }
    std::vector<Vel::Ptr<Leaf>> leaves;
    Pair pair = [this] {
        auto const root = Dir::newEntity("d");
        for (int i = 0; i < 20; ++i) root->entryIs(leaves.emplace_back(Leaf::newEntity(Vel::format("leaf%d", i))));
        return Pair(root);
    }();
};

TEST_F(PingingReaderTest, IsSynchronisedAllTheSame) {
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    for (int i = 0; i < 200 && pair.replica.state() != Vel::AttrLogReplica::State::synced; ++i) step();
    EXPECT_EQ(pair.replica.state(), Vel::AttrLogReplica::State::synced);
    EXPECT_GE(pair.replica.pongs(), 10u) << "and it gets its answers";
    pair.expectEqual();
}

TEST_F(PingingReaderTest, HearsOfChangesAllTheSame) {
    pair.connect();
    pair.run();
    for (U32 size = 1; size <= 20; ++size) {
        for (auto const& leaf : leaves) leaf->sizeIs(size);
        step();
    }
    U32 const pongs = pair.replica.pongs();
    for (int i = 0; i < 200; ++i) step();
    EXPECT_GE(pair.replica.pongs(), pongs + 90);
    pair.expectEqual();
}

}  // namespace
