#include "Vel/stream/AttrLogServer.h"

#include "StreamTools.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::AttrLogReplica;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;

TEST(StreamServerTest, ReaderGetsWhatIsAtItsPath) {
    auto const root = Dir::newEntity("");
    auto const d = Dir::newEntity("d");
    root->entryIs(d);
    d->entryIs(Leaf::newEntity("a"));
    Vel::AttrLogServer server(root);
    EXPECT_EQ(server.source("/d"), server.source("d/"));
    EXPECT_EQ(server.source("/x"), nullptr);
    auto const reader = server.newReader();
    AttrLogReplica replica(Dir::newEntity("d"), {.path = "/d"});
    replica.connected();
    reader->input(takeOutput(replica));
    replica.input(takeOutput(*reader));
    EXPECT_EQ(treeOf(*replica.root()), treeOf(*d));
}

TEST(StreamServerTest, PathWithoutAnEntityIsRefused) {
    Vel::AttrLogServer server(Dir::newEntity(""));
    auto const reader = server.newReader();
    AttrLogReplica replica(Dir::newEntity("d"), {.path = "/d"});
    replica.connected();
    reader->input(takeOutput(replica));
    replica.input(takeOutput(*reader));
    EXPECT_EQ(replica.error(), "refused: there is nothing at '/d'");
    EXPECT_EQ(replica.fault(), Vel::StreamFault::nothingThere);
    EXPECT_EQ(reader->fault(), Vel::StreamFault::nothingThere);
    replica.connected();
    EXPECT_EQ(replica.fault(), Vel::StreamFault::none);
    replica.closed("cut");
    EXPECT_EQ(replica.fault(), Vel::StreamFault::other);
    replica.connected();
    replica.closed("");
    EXPECT_EQ(replica.fault(), Vel::StreamFault::none);
}

TEST(StreamServerTest, PathIsCutAndCleanedInTheRefusal) {
    Vel::AttrLogServer server(Dir::newEntity("root"));
    std::string const path = "a'\n" + std::string(50'000, 'x');
    Vel::AttrLogReplica replica(Dir::newEntity(""), "copy", {.path = String(path)});
    replica.connected();
    auto const reader = server.newReader();
    reader->input(takeOutput(replica));
    EXPECT_EQ(reader->error(), "there is nothing at 'a'\\x0a" + std::string(247, 'x') + "...'");
}

TEST(StreamServerTest, BacklogIsTheLargestOfItsSources) {
    auto const root = Dir::newEntity("root");
    std::vector<Ptr<Leaf>> leaves;
    std::vector<std::unique_ptr<Vel::StreamPeer>> readers;
    Vel::AttrLogServer server(root);
    for (char const* const name : {"x", "y"}) {
        leaves.push_back(Leaf::newEntity(name));
        root->entryIs(leaves.back());
        Vel::AttrLogReplica replica(Dir::newEntity(""), "copy", {.path = name});
        replica.connected();
        readers.push_back(server.newReader());
        readers.back()->input(takeOutput(replica));
        takeOutput(*readers.back());
    }
    EXPECT_EQ(server.backlog(), 0u);
    leaves[0]->sizeIs(1);
    leaves[0]->sizeIs(2);
    leaves[1]->sizeIs(1);
    EXPECT_EQ(server.backlog(), 18u);
    takeOutput(*readers[0]);
    EXPECT_EQ(server.backlog(), 9u);
}

TEST(StreamServerTest, HelloOfTheMostModulesFits) {
    Vel::NboAttrLog::BufferSm sm;
    auto const helloOf = [&](U32 modules) {
        sm.clear();
        Vel::NboAttrLog::Out& out = sm.begin(Vel::NboAttrLog::MessageKind::hello, 60'000);
        out << Vel::streamMagic << Vel::streamVersion << false << String() << modules;
        for (U32 i = 0; i < modules; ++i)
            out << Vel::format("module whose name has a length of 50 bytes, so %04u", i % 10'000) << Vel::U64(i);
        sm.commit();
        return sm.bytes();
    };
    Vel::AttrLogServer server(Dir::newEntity("root"));
    auto const most = server.newReader();
    most->input(helloOf(1024));
    EXPECT_EQ(most->error(), "");
    EXPECT_TRUE(most->isGreeted());
    EXPECT_GT(most->held(), 1024u * 50) << "names are kept";
    auto const more = server.newReader();
    more->input(helloOf(1025));
    EXPECT_EQ(
        told(takeOutput(*more)), Strings{"refused the client has 1025 modules, and the server takes at most 1024"});
}

TEST(StreamServerTest, HelloThatIsTooLongIsToldSo) {
    Vel::AttrLogServer server(Dir::newEntity("root"));
    Vel::AttrLogReplica replica(Dir::newEntity(""), "copy", {.path = String(std::string(100'000, 'x'))});
    replica.connected();
    auto const hello = takeOutput(replica);
    auto const reader = server.newReader();
    reader->input(hello);
    std::string const length = std::to_string(Vel::NboAttrLog::messageLength(hello).length);
    EXPECT_EQ(told(takeOutput(*reader)),
        Strings{"refused a hello of " + length + " bytes, where the server takes at most 65536"});
}

TEST(StreamServerTest, AdmissionIsAskedWhenAHelloIsAboutToBeAnswered) {
    Vel::AttrLogServer server(Dir::newEntity("root"));
    std::string why = "the house is full";
    int asked = 0;
    auto const admission = [&] {
        ++asked;
        return String(why);
    };
    auto const answerTo = [&](char const* path) {
        Vel::AttrLogReplica replica(Dir::newEntity(""), "copy", {.path = path});
        replica.connected();
        auto const reader = server.newReader(true, admission);
        reader->input(takeOutput(replica));
        return told(takeOutput(*reader)).at(0);
    };
    EXPECT_EQ(answerTo("none"), "refused there is nothing at 'none'");
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(answerTo(""), "refused the house is full");
    why.clear();
    EXPECT_EQ(answerTo(""), "welcome");
    EXPECT_EQ(asked, 2);
}

TEST(StreamServerTest, SourceThatGoesTellsItsReaders) {
    auto source = std::make_unique<Vel::AttrLogSource>(Dir::newEntity("d"));
    auto const reader = source->newReader();
    reader->input(hello(false, {}));
    takeOutput(*reader);
    source = nullptr;
    EXPECT_TRUE(reader->isClosing());
    EXPECT_EQ(told(takeOutput(*reader)), Strings{"refused what was served is gone"});
}

// A server of a directory with another one, "d", in it, and a replica of what is at "/d".
class ServedPathTest : public testing::Test {
protected:
    ServedPathTest() {
        root->entryIs(Dir::newEntity("d"));
        put("old");
        connect();
        run();
    }
    void put(char const* leaf) { Vel::ptr_cast<Dir>(root->entry("d"))->entryIs(Leaf::newEntity(leaf)); }
    void replace() {
        root->entryDel("d");
        root->entryIs(Dir::newEntity("d"));
        put("new");
    }
    void connect() {
        reader = server.newReader();
        reader->wakeIs([this] { ++woken; });
        replica.connected();
    }
    void run() {
        while (replica.wantsOutput() || reader->wantsOutput()) {
            reader->input(takeOutput(replica));
            replica.input(takeOutput(*reader));
        }
    }
    void reconnect() {
        reader->closed("");
        replica.closed("");
        connect();
        run();
    }

    Ptr<Dir> root = Dir::newEntity("");
    Vel::AttrLogServer server{root};
    std::unique_ptr<Vel::StreamPeer> reader;
    AttrLogReplica replica{Dir::newEntity(""), "d", {.path = "/d"}};
    int woken = 0;
};

TEST_F(ServedPathTest, ReaderOfWhatWasReplacedIsRefusedAndFindsWhatIsThereNow) {
    replace();
    EXPECT_FALSE(reader->isClosing());
    woken = 0;
    server.checkPaths();
    EXPECT_TRUE(reader->isClosing());
    EXPECT_EQ(woken, 1);
    run();
    EXPECT_EQ(replica.error(), "refused: what was served is gone");
    reconnect();
    EXPECT_EQ(replica.error(), "");
    EXPECT_EQ(treeOf(*replica.root()), treeOf(*root->entry("d")));
}

TEST_F(ServedPathTest, HelloWakesTheTransportSinceThereIsSomethingToSend) {
    auto const other = server.newReader();
    int calls = 0;
    other->wakeIs([&] { ++calls; });
    AttrLogReplica otherReplica(Dir::newEntity(""), "d", {.path = "d"});
    otherReplica.connected();
    other->input(takeOutput(otherReplica));
    EXPECT_EQ(calls, 1);
}

TEST_F(ServedPathTest, ReaderOfWhatWasTakenOutIsRefusedAndFindsNothing) {
    root->entryDel("d");
    server.checkPaths();
    EXPECT_TRUE(reader->isClosing());
    EXPECT_EQ(server.sources(), 0u);
    reconnect();
    EXPECT_EQ(replica.error(), "refused: there is nothing at '/d'");
}

TEST_F(ServedPathTest, WhatIsServedWherePathsAgreeGoesOn) {
    replace();
    root->entryIs(Dir::newEntity("e"));
    auto const other = server.newReader();
    AttrLogReplica otherReplica(Dir::newEntity("e"), {.path = "e/"});
    otherReplica.connected();
    other->input(takeOutput(otherReplica));
    server.checkPaths();
    server.checkPaths();
    EXPECT_FALSE(other->isClosing());
    EXPECT_EQ(server.sources(), 1u);
}

TEST_F(ServedPathTest, HelloIsAnsweredWithWhatIsThereNow) {
    replace();
    AttrLogReplica other(Dir::newEntity(""), "d", {.path = "//d"});
    auto const second = server.newReader();
    other.connected();
    second->input(takeOutput(other));
    other.input(takeOutput(*second));
    ASSERT_EQ(other.error(), "");
    EXPECT_EQ(treeOf(*other.root()), treeOf(*root->entry("d")));
    EXPECT_TRUE(reader->isClosing()) << "and who reads what was there is told";
}

TEST_F(ServedPathTest, SourceWithoutReadersIsGivenUp) {
    EXPECT_EQ(server.sources(), 1u);
    reader->closed("");
    server.checkPaths();
    EXPECT_EQ(server.sources(), 0u);
    EXPECT_EQ(server.source("d"), server.source("/d/"));
    EXPECT_EQ(server.sources(), 1u);
}

}  // namespace
