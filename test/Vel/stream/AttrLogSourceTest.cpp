#include "StreamTools.h"
#include "ValueTable.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/AttrLogServer.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Fixture::Twig;
using Vel::AttributeId;
using Vel::AttrLogReplica;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;

// A directory "root" with a leaf "a", and a replica that has synchronised.
class StreamSourceTest : public testing::Test {
protected:
    explicit StreamSourceTest(Vel::AttrLogSource::Options options = {}) : pair(root, options) {
        root->entryIs(a);
        pair.connect();
        pair.run();
    }
    ~StreamSourceTest() override { root->entryDelAll(); }

    Ptr<Dir> copy() const { return Vel::ptr_cast<Dir>(pair.replica.root()); }
    Ptr<Leaf> leafOf(char const* name) const { return Vel::ptr_cast<Leaf>(copy()->entry(name)); }
    // Collects from now on what observers of the replica's entity are told.
    void observe(Vel::Entity const& entity) {
        std::string const name = entity.name().stdString();
        observers_.push_back(Vel::notifieeOf(entity, [this, name](AttributeId id, Vel::NotifieeKey const* key) {
            notified.push_back(name + " " + std::to_string(id));
            if (key) notified.back() += " " + key->as<String>().stdString();
        }));
    }

    Ptr<Dir> root = Dir::newEntity("root");
    Ptr<Leaf> a = Leaf::newEntity("a");
    Pair pair;
    Strings notified;

private:
    std::vector<std::unique_ptr<Vel::Notifiee>> observers_;
};

TEST_F(StreamSourceTest, CopyEqualsTheSource) {
    EXPECT_EQ(pair.replica.state(), AttrLogReplica::State::synced);
    pair.expectEqual();
    EXPECT_EQ(copy()->parent(), pair.place.get());
}

TEST_F(StreamSourceTest, ObserversOfTheCopyAreToldOfEveryChange) {
    observe(*leafOf("a"));
    observe(*copy());
    a->sizeIs(1);
    a->sizeIs(2);
    root->entryIs(Twig::newEntity("b"));
    root->entryDel("a");
    pair.run();
    EXPECT_EQ(notified, (Strings{"a 258", "a 258", "root 258 b", "root 258 a"}));
    pair.expectEqual();
}

TEST_F(StreamSourceTest, EntityKnownToSeveralIsOneInTheCopy) {
    auto const b = Leaf::newEntity("b");
    b->peerIs(a);
    a->peerIs(b);
    root->entryIs(b);
    pair.run();
    EXPECT_EQ(leafOf("a")->peer(), leafOf("b"));
    EXPECT_EQ(leafOf("b")->peer(), leafOf("a"));
    leafOf("a")->peerIs(nullptr);
    a->peerIs(nullptr);
}

TEST_F(StreamSourceTest, EntityThatMovesStaysTheSame) {
    root->entryIs(Dir::newEntity("d"));
    pair.run();
    auto const moved = leafOf("a");
    root->entryDel("a");
    Vel::ptr_cast<Dir>(root->entry("d"))->entryIs(a);
    pair.run();
    pair.expectEqual();
    EXPECT_EQ(copy()->entity("d/a"), moved);
}

TEST_F(StreamSourceTest, WhatCannotBeCreatedIsLeftOut) {
    root->entryIs(Fixture::Demanding::newEntity("demanding", 4u));
    root->entryIs(Leaf::newEntity("z"));
    pair.run();
    EXPECT_EQ(pair.replica.error(), "");
    EXPECT_FALSE(copy()->entryExists("demanding"));
    EXPECT_TRUE(copy()->entryExists("z"));
}

// --- one log for many ---

TEST_F(StreamSourceTest, ChangeIsEncodedOnceForAllThatReadAlong) {
    std::vector<std::unique_ptr<Vel::StreamPeer>> readers;
    std::vector<std::unique_ptr<AttrLogReplica>> replicas;
    for (int i = 0; i < 15; ++i) {
        readers.push_back(pair.source.newReader());
        replicas.push_back(std::make_unique<AttrLogReplica>(Dir::newEntity("root"), AttrLogReplica::Options{}));
        replicas.back()->connected();
        readers.back()->input(takeOutput(*replicas.back()));
        replicas.back()->input(takeOutput(*readers.back()));
    }
    EXPECT_EQ(pair.source.liveReaders(), 16u);
    Vel::U64 const before = pair.source.messages();
    for (U32 i = 1; i <= 10; ++i) a->sizeIs(i);
    EXPECT_EQ(pair.source.messages() - before, 10u);
    auto const* const first = readers[0]->output(1000).data();
    for (auto const& reader : readers) EXPECT_EQ(reader->output(1000).data(), first);
    for (std::size_t i = 0; i < readers.size(); ++i) {
        replicas[i]->input(takeOutput(*readers[i]));
        EXPECT_EQ(treeOf(*replicas[i]->root()), treeOf(*root));
    }
}

TEST_F(StreamSourceTest, WakesOnceWhoeverHasTakenAll) {
    int woken = 0;
    pair.reader->wakeIs([&] { ++woken; });
    a->sizeIs(1);
    a->sizeIs(2);
    EXPECT_EQ(woken, 1);
    pair.run();
    a->sizeIs(3);
    EXPECT_EQ(woken, 2);
}

TEST_F(StreamSourceTest, WakesWhenAnEntityThatWasKeptIsDestroyed) {
    root->entryDel("a");
    pair.run();
    int woken = 0;
    pair.reader->wakeIs([&] { ++woken; });
    a = nullptr;
    EXPECT_EQ(woken, 1);
}

TEST_F(StreamSourceTest, IsSweptWhenMoreReferencesWereDroppedThanHalfOfItsEntitiesAndThanSixtyFour) {
    std::vector<Ptr<Leaf>> kept;
    for (int i = 0; i < 300; ++i) {
        kept.push_back(Leaf::newEntity(Vel::format("%d", i)));
        root->entryIs(kept.back());
    }
    pair.run();
    std::size_t next = 0;
    auto const drop = [&](std::size_t count) {
        for (std::size_t const end = next + count; next < end; ++next) root->entryDel(kept[next]->name());
        pair.run();
        return pair.source.entities();
    };
    EXPECT_EQ(drop(151), 302u);
    EXPECT_EQ(drop(1), 150u);
    EXPECT_EQ(drop(75), 150u) << "it counts anew";
    EXPECT_EQ(drop(1), 74u);
    EXPECT_EQ(drop(64), 74u);
    EXPECT_EQ(drop(1), 9u);
}

TEST_F(StreamSourceTest, NothingIsWrittenOfWhatIsNoAttributeWithAValue) {
    Vel::U64 const before = pair.source.messages();
    auto* const adapter = pair.source.impl().adapter(*root);
    adapter->handleAttribute(1000);
    adapter->handleAttribute(258);  // a collection, of whose changes it is told with their keys
    EXPECT_EQ(pair.source.messages(), before);
}

TEST_F(StreamSourceTest, NothingIsWrittenToTheLogWhenNobodyReadsIt) {
    a->sizeIs(1);
    Vel::U64 const before = pair.source.messages();
    EXPECT_GT(before, 0u);
    pair.reader->closed("gone");
    a->sizeIs(2);
    EXPECT_EQ(pair.source.messages(), before);
}

// A longer form of a length would be read as well, and cost every reader.
TEST(StreamLengthTest, LengthsTakeAsFewBytesAsTheyCan) {
    for (std::size_t n = 20; n <= 64; ++n) {
        String const name(std::string(n, 'x'));
        auto const root = Dir::newEntity(name);
        root->entryIs(Leaf::newEntity(name));
        Pair pair(root);
        pair.connect();
        pair.reader->input(takeOutput(pair.replica));
        Bytes const bytes = takeOutput(*pair.reader);
        for (std::span<Vel::U8 const> rest = bytes; !rest.empty();) {
            auto const [head, length] = Vel::NboAttrLog::messageLength(rest);
            EXPECT_EQ(head, Vel::NboAttrLog::compactSize(static_cast<U32>(length))) << n;
            rest = rest.subspan(head + length);
        }
        root->entryDelAll();
    }
}

TEST_F(StreamSourceTest, OutputMayBeTakenInParts) {
    a->sizeIs(1);
    a->sizeIs(2);
    auto const bytes = pair.reader->output(1000);
    ASSERT_EQ(bytes.size(), 18u);
    pair.replica.input(bytes);
    for (std::size_t const part : {5u, 4u, 9u}) {
        EXPECT_TRUE(pair.reader->wantsOutput());
        pair.reader->outputTaken(part);
    }
    EXPECT_FALSE(pair.reader->wantsOutput());
    pair.expectEqual();
}

class SmallLogTest : public StreamSourceTest {
protected:
    SmallLogTest() : StreamSourceTest(Vel::AttrLogSource::Options{.logSize = 1000}) {}
};

TEST_F(SmallLogTest, StalledReaderCostsAFlagAndNoQueue) {
    observe(*leafOf("a"));
    for (U32 i = 1; i <= 100000; ++i) a->sizeIs(i);
    EXPECT_EQ(pair.source.liveReaders(), 0u);
    EXPECT_LE(pair.source.impl().log().size(), 1000u + 256u);
    EXPECT_GT(pair.source.coalesced(), 99000u);
    pair.run();
    EXPECT_EQ(notified, Strings{"a 258"});
    EXPECT_EQ(leafOf("a")->size(), 100000u);
    EXPECT_EQ(pair.source.liveReaders(), 1u);
}

TEST_F(SmallLogTest, ReaderThatHasCaughtUpIsToldSoEachTime) {
    for (int round = 0; round < 2; ++round) {
        for (U32 i = 1; i <= 1000; ++i) a->sizeIs(i);
        Strings const sent = told(takeOutput(*pair.reader));
        EXPECT_EQ(sent.size(), 2u);
        EXPECT_EQ(sent.back(), "synced");
    }
}

TEST_F(SmallLogTest, WakesAgainWhoeverHasFallenBehindAndCaughtUp) {
    int woken = 0;
    pair.reader->wakeIs([&] { ++woken; });
    for (U32 i = 1; i <= 1000; ++i) a->sizeIs(i);
    pair.run();
    woken = 0;
    a->sizeIs(1001);
    EXPECT_EQ(woken, 1);
}

// Two messages go into a piece of the log; a reader that has all falls behind with the first of the next piece.
class TinyLogTest : public StreamSourceTest {
protected:
    TinyLogTest() : StreamSourceTest(Vel::AttrLogSource::Options{.logSize = 0, .chunkSize = 20}) {}
};

TEST_F(TinyLogTest, WakesOnceForEachChangeWhoeverHasAllWhetherItFallsBehindOrNot) {
    int woken = 0;
    pair.reader->wakeIs([&] { ++woken; });
    bool wasLive[2] = {};
    for (U32 i = 1; i <= 10; ++i) {
        woken = 0;
        a->sizeIs(i);
        wasLive[pair.source.liveReaders()] = true;
        EXPECT_EQ(woken, 1) << i;
        pair.run();
    }
    EXPECT_TRUE(wasLive[0] && wasLive[1]) << "which is what is tested";
    pair.expectEqual();
    pair.reader->wakeIs({});  // the directory is emptied when `woken` has gone
}

TEST_F(SmallLogTest, MessageThatWasCutByTheStallGoesOn) {
    a->sizeIs(1);
    a->sizeIs(2);
    auto const bytes = pair.reader->output(13);
    ASSERT_EQ(bytes.size(), 13u);
    pair.replica.input(bytes);
    for (U32 i = 3; i <= 1000; ++i) a->sizeIs(i);
    EXPECT_EQ(pair.source.liveReaders(), 0u);
    pair.reader->outputTaken(13);
    pair.run();
    EXPECT_EQ(pair.replica.error(), "");
    EXPECT_EQ(leafOf("a")->size(), 1000u);
}

TEST_F(SmallLogTest, OtherReadersDoNotNoticeTheStalledOne) {
    auto const reader = pair.source.newReader();
    AttrLogReplica other(Dir::newEntity("root"), {});
    other.connected();
    reader->input(takeOutput(other));
    other.input(takeOutput(*reader));
    std::vector<U32> seen;
    auto const leaf = Vel::ptr_cast<Leaf>(Vel::ptr_cast<Dir>(other.root())->entry("a"));
    auto const observer = Vel::notifieeOf(*leaf, [&](AttributeId) { seen.push_back(leaf->size()); });
    std::vector<U32> all;
    for (U32 i = 1; i <= 1000; ++i) {
        a->sizeIs(i);
        all.push_back(i);
        other.input(takeOutput(*reader));
    }
    EXPECT_EQ(seen, all);
}

// What is being sent stays where it is, although the log has long gone on.
TEST_F(SmallLogTest, OutputStaysInPlaceUntilItIsTaken) {
    auto const reader = pair.source.newReader();  // keeps the log at work
    AttrLogReplica other(Dir::newEntity("root"), {});
    other.connected();
    reader->input(takeOutput(other));
    other.input(takeOutput(*reader));
    for (U32 i = 1; i <= 10; ++i) a->sizeIs(i);
    auto const bytes = pair.reader->output(1000);
    Bytes const before(bytes.begin(), bytes.end());
    ASSERT_GE(before.size(), 90u);
    for (U32 i = 11; i <= 2000; ++i) {
        a->sizeIs(i);
        if (i % 110 == 0) other.input(takeOutput(*reader));  // so late that all chunks come into use
    }
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), before);
    EXPECT_LE(pair.source.impl().log().size(), 1000u + 256u);
}

TEST_F(StreamSourceTest, BacklogIsThatOfTheSlowestReaderThatKeepsUp) {
    EXPECT_EQ(pair.source.backlog(), 0u);
    auto const quick = pair.source.newReader();
    AttrLogReplica other(Dir::newEntity("root"), {});
    other.connected();
    quick->input(takeOutput(other));
    a->sizeIs(1);
    EXPECT_EQ(pair.source.backlog(), 9u) << "a message; who catches up has no part in it";
    takeOutput(*quick);
    a->sizeIs(2);
    a->sizeIs(3);
    takeOutput(*quick);
    EXPECT_EQ(pair.source.backlog(), 27u);
    auto const bytes = pair.reader->output(10);
    pair.reader->outputTaken(bytes.size());
    EXPECT_EQ(pair.source.backlog(), 17u);
    pair.run();
    EXPECT_EQ(pair.source.backlog(), 0u);
}

// --- somebody else who delivers ---

class MulticastTest : public testing::Test {
protected:
    MulticastTest() {
        pair.source.multicastIs([&](Vel::Entity& entity, AttributeId id) {
            delivered.push_back(entity.name().stdString() + " " + std::to_string(id));
            return delivers;
        });
        pair.connect();
        pair.run();
        EXPECT_EQ(delivered, Strings()) << "what one reader is told is nothing for many";
    }
    Ptr<Leaf> a = Leaf::newEntity("a");
    Pair pair{a};
    Strings delivered;
    bool delivers = true;
};

TEST_F(MulticastTest, WhatIsDeliveredIsNotInTheLog) {
    Vel::U64 const before = pair.source.messages();
    a->sizeIs(5);
    EXPECT_EQ(delivered, Strings{"a 258"});
    EXPECT_EQ(pair.source.messages(), before);
    EXPECT_FALSE(pair.reader->wantsOutput());
}

TEST_F(MulticastTest, WhatIsNotDeliveredToAllIsInTheLog) {
    delivers = false;
    a->sizeIs(5);
    EXPECT_EQ(delivered, Strings{"a 258"});
    pair.run();
    pair.expectEqual();
}

TEST_F(MulticastTest, WithoutItEverythingIsInTheLog) {
    pair.source.multicastIs(nullptr);
    a->sizeIs(5);
    EXPECT_EQ(delivered, Strings());
    pair.run();
    pair.expectEqual();
}

// --- from one connection to the next ---

TEST_F(StreamSourceTest, LostConnectionLeavesTheCopyStale) {
    pair.disconnect("no route");
    EXPECT_EQ(pair.replica.state(), AttrLogReplica::State::stale);
    EXPECT_EQ(pair.replica.error(), "no route");
    EXPECT_TRUE(copy()->entryExists("a"));
}

TEST_F(StreamSourceTest, ReconnectionTellsTheDifferencesOnly) {
    root->entryIs(Leaf::newEntity("b"));
    root->entryIs(Leaf::newEntity("c"));
    pair.run();
    auto const copyOfA = leafOf("a");
    observe(*copy());
    for (char const* const name : {"a", "b", "c"}) observe(*leafOf(name));
    pair.disconnect();
    a->sizeIs(5);
    root->entryDel("b");
    root->entryIs(Leaf::newEntity("d"));
    pair.connect();
    pair.run();
    EXPECT_EQ(notified, (Strings{"root 258 d", "a 258", "root 258 b"}));
    EXPECT_EQ(leafOf("a"), copyOfA);
    pair.expectEqual();
}

TEST_F(StreamSourceTest, ReconnectionWithoutDifferencesTellsNothing) {
    observe(*copy());
    observe(*leafOf("a"));
    for (int i = 0; i < 3; ++i) {
        pair.disconnect();
        pair.connect();
        pair.run();
    }
    EXPECT_EQ(notified, Strings{});
}

TEST_F(StreamSourceTest, WhatHasGoneGoesAtTheSyncMarkAndNotBefore) {
    pair.disconnect();
    root->entryDel("a");
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    Bytes const bytes = takeOutput(*pair.reader);
    pair.replica.input(std::span(bytes).first(bytes.size() - 1));
    EXPECT_EQ(pair.replica.state(), AttrLogReplica::State::syncing);
    EXPECT_TRUE(copy()->entryExists("a"));
    pair.replica.input(std::span(bytes).subspan(bytes.size() - 1));
    EXPECT_EQ(pair.replica.state(), AttrLogReplica::State::synced);
    EXPECT_FALSE(copy()->entryExists("a"));
}

TEST_F(StreamSourceTest, SynchronisationCutAtEveryByteEndsWellTheNextTime) {
    root->entryIs(Twig::newEntity("b"));
    pair.disconnect();
    for (std::size_t cut = 0;; ++cut) {
        pair.connect();
        pair.reader->input(takeOutput(pair.replica));
        Bytes const bytes = takeOutput(*pair.reader);
        if (cut > bytes.size()) break;
        pair.replica.input(std::span(bytes).first(cut));
        ASSERT_EQ(pair.replica.error(), "");
        pair.disconnect();
    }
    pair.disconnect();
    pair.connect();
    pair.run();
    pair.expectEqual();
}

TEST_F(StreamSourceTest, EntityOfAnotherTypeTakesThePlaceOfTheOld) {
    pair.disconnect();
    root->entryDel("a");
    root->entryIs(Twig::newEntity("a"));
    pair.connect();
    pair.run();
    pair.expectEqual();
    EXPECT_TRUE(Vel::ptr_cast<Twig>(copy()->entry("a")));
}

// --- what is refused ---

TEST_F(StreamSourceTest, ReaderWithAnotherFingerprintIsRefusedByName) {
    auto const reader = pair.source.newReader();
    reader->input(hello(false, {{"Fixtures", 0x1234}}));
    Strings const sent = told(takeOutput(*reader));
    EXPECT_TRUE(reader->isClosing());
    std::string const here = Vel::format("%016lx", Vel::typeOf<Leaf>().moduleFingerprint()).stdString();
    std::string const reason =
        "module Fixtures has fingerprint " + here + " at the server and 0000000000001234 at the client";
    EXPECT_EQ(sent.back(), "refused " + reason);
    EXPECT_EQ(reader->error(), reason.c_str());
    EXPECT_EQ(reader->fault(), Vel::StreamFault::otherVersion);
    for (std::string const& message : sent) EXPECT_EQ(message.find("Fixture::"), std::string::npos) << message;
}

TEST_F(StreamSourceTest, ReaderWithoutAModuleIsRefusedWhenTheTypeComes) {
    root->entryDel("a");
    auto const reader = pair.source.newReader();
    reader->input(hello(false, {{"Fixtures", 0}}));
    EXPECT_EQ(told(takeOutput(*reader)).back(),
        "refused the server has module Fixtures, fingerprint " +
            Vel::format("%016lx", Vel::typeOf<Leaf>().moduleFingerprint()).stdString() +
            ", and the client has no such module");
}

TEST_F(StreamSourceTest, LiveReaderIsRefusedByTheFirstTypeThatItHasNot) {
    auto const served = Dir::newEntity("root");
    Vel::AttrLogSource source(served);
    auto const reader = source.newReader();
    reader->input(hello(false, {{"Fixtures", 0}, {"StreamValues", 0}}));
    EXPECT_EQ(told(takeOutput(*reader)).back(), "synced");
    served->entryIs(Leaf::newEntity("a"));
    served->entryIs(ValueTable::newEntity("t"));
    EXPECT_EQ(
        told(takeOutput(*reader)), Strings{"refused the server has module Fixtures, fingerprint " +
                                           Vel::format("%016lx", Vel::typeOf<Leaf>().moduleFingerprint()).stdString() +
                                           ", and the client has no such module"});
    EXPECT_EQ(reader->fault(), Vel::StreamFault::noSuchModule);
}

TEST_F(StreamSourceTest, AnotherVersionIsRefused) {
    Bytes bytes = hello(false, {});
    bytes[bytes.size() - Vel::NboAttrLog::messageBody(bytes).size() + 4 + 1] = 9;  // behind the magic
    auto const reader = pair.source.newReader();
    reader->input(bytes);
    EXPECT_EQ(told(takeOutput(*reader)),
        Strings{"refused the client speaks version 9 of the protocol, and the server version 2"});
}

TEST_F(StreamSourceTest, BytesThatAreNoHelloCloseTheConnection) {
    auto const reader = pair.source.newReader();
    reader->input(Bytes{'G', 'E', 'T', ' ', '/'});
    EXPECT_TRUE(reader->isClosing());
    EXPECT_EQ(pair.source.readers(), 1u);
}

TEST_F(StreamSourceTest, WriteToAReadOnlySourceChangesNothing) {
    Vel::GenericValue const value(Vel::typeOf<U32>(), "5");
    EXPECT_THROW(pair.replica.write(*leafOf("a"), 258, value), Vel::ReadOnlyException);
    auto const reader = pair.source.newReader();
    reader->input(hello(true, {}));
    takeOutput(*reader);
    reader->input(writeMessage(
        0, 0, pair.source.impl().adapter(*a)->id(), [](auto& out) { out << Vel::NboAttrLog::Compact{258} << U32(5); }));
    EXPECT_EQ(told(takeOutput(*reader)), Strings{"answer 0 read-only: /a is mounted read-only and takes no changes"});
    EXPECT_FALSE(reader->isClosing());
    EXPECT_EQ(a->size(), 0u);
}

TEST(StreamWriteTest, WriteChangesTheSourceAndComesBack) {
    auto const a = Leaf::newEntity("a");
    Vel::AttrLogSource source(a, {.mayWrite = true});
    auto const reader = source.newReader();
    AttrLogReplica replica(Leaf::newEntity("a"), {.path = {}, .wantsToWrite = true});
    replica.connected();
    auto const run = [&] {
        for (int i = 0; i < 3; ++i) {
            reader->input(takeOutput(replica));
            replica.input(takeOutput(*reader));
        }
    };
    run();
    ASSERT_TRUE(replica.mayWrite());
    replica.write(*replica.root(), 258, Vel::GenericValue(Vel::typeOf<U32>(), "5"));
    EXPECT_EQ(Vel::ptr_cast<Leaf>(replica.root())->size(), 0u);
    run();
    EXPECT_EQ(a->size(), 5u);
    EXPECT_EQ(Vel::ptr_cast<Leaf>(replica.root())->size(), 5u);
    EXPECT_THROW(
        replica.write(*replica.root(), 258, Vel::GenericValue(Vel::typeOf<String>(), "'x'")), Vel::TypeException);
    EXPECT_THROW(replica.write(*replica.root(), 260, Vel::GenericValue(Vel::typeOf<U32>(), "5")), Vel::RangeException);
    EXPECT_THROW(replica.write(*replica.root(), 300, U32(5)), Vel::RangeException);
    EXPECT_THROW(replica.write(*a, 258, U32(5)), Vel::RangeException) << "which is no copy";
    replica.closed("");
    EXPECT_FALSE(replica.mayWrite());
    EXPECT_THROW(replica.write(*replica.root(), 258, U32(5)), Vel::ReadOnlyException);
}

TEST(StreamWriteTest, ReadersChangeIsNotMulticastAndTheNextOneIs) {
    auto const a = Leaf::newEntity("a");
    Vel::AttrLogSource source(a, {.mayWrite = true});
    std::vector<U32> delivered;
    source.multicastIs([&](Vel::Entity&, AttributeId) { return delivered.push_back(a->size()), true; });
    auto const reader = source.newReader();
    AttrLogReplica replica(Leaf::newEntity("a"), {.path = {}, .wantsToWrite = true});
    replica.connected();
    reader->input(takeOutput(replica));
    replica.input(takeOutput(*reader));
    a->sizeIs(1);
    replica.write(*replica.root(), 258, U32(2));
    reader->input(takeOutput(replica));
    ASSERT_EQ(a->size(), 2u);
    a->sizeIs(3);
    EXPECT_EQ(delivered, (std::vector<U32>{1, 3}));
}

TEST(StreamWriteTest, AfterAReadersChangeThatFailedTheNextOneIsMulticast) {
    auto const a = Leaf::newEntity("a");
    Vel::AttrLogSource source(a, {.mayWrite = true});
    unsigned delivered = 0;
    source.multicastIs([&](Vel::Entity&, AttributeId) { return ++delivered, true; });
    auto const reader = source.newReader();
    reader->input(hello(true, {}));
    takeOutput(*reader);
    reader->input(writeMessage(0, 0, 1, [](auto& out) { out << Vel::NboAttrLog::Compact{258} << Vel::U8(5); }));
    ASSERT_TRUE(reader->isClosing()) << "a U32 of one byte";
    a->sizeIs(1);
    EXPECT_EQ(delivered, 1u);
}

// --- leaving the view ---

TEST_F(StreamSourceTest, WhatCannotBeReachedAnyMoreIsSweptOut) {
    std::vector<Ptr<Vel::Entity>> kept;
    for (int i = 0; i < 200; ++i) {
        auto const leaf = Leaf::newEntity(Vel::format("n%d", i));
        root->entryIs(leaf);
        kept.push_back(leaf);
    }
    pair.run();
    for (auto const& leaf : kept) root->entryDel(leaf->name());
    EXPECT_EQ(pair.source.entities(), 202u);
    pair.run();
    EXPECT_EQ(pair.source.entities(), 2u);
    EXPECT_EQ(pair.replica.entities(), 2u);
    pair.expectEqual();
}

TEST_F(StreamSourceTest, IdIsNeverUsedAgain) {
    Vel::EntityId const id = pair.source.impl().adapter(*a)->id();
    root->entryDel("a");
    a = nullptr;
    auto const b = Leaf::newEntity("a");
    root->entryIs(b);
    EXPECT_GT(pair.source.impl().adapter(*b)->id(), id);
}

TEST_F(StreamSourceTest, SlotIsUsedAgain) {
    U32 const slot = pair.source.impl().adapter(*a)->slot();
    root->entryDel("a");
    a = nullptr;
    auto const b = Leaf::newEntity("b");
    root->entryIs(b);
    EXPECT_EQ(pair.source.impl().adapter(*b)->slot(), slot);
}

TEST_F(StreamSourceTest, SlotOfWhatHasGoneIsNobodys) {
    U32 const slot = pair.source.impl().adapter(*a)->slot();
    EXPECT_TRUE(pair.source.impl().members().has(slot));
    root->entryDel("a");
    a = nullptr;
    EXPECT_FALSE(pair.source.impl().members().has(slot));
    EXPECT_EQ(pair.source.impl().demuxer().adapterAt(slot), nullptr);
}

// --- ids run out ---

// Three ids are left.
class LastIdsTest : public StreamSourceTest {
protected:
    LastIdsTest() { pair.source.impl().demuxer().lastIdIs(~Vel::EntityId(0) - 3); }
    void addLeaves(int count) {
        for (int i = 0; i < count; ++i) root->entryIs(Leaf::newEntity(Vel::format("n%d", i)));
    }
    static constexpr char const* reason = "entity ids have run out, and begin anew with the next connection";
};

TEST_F(LastIdsTest, LastIdIsAnIdAsAnyOther) {
    addLeaves(3);
    EXPECT_EQ(pair.source.impl().adapter(*root->entry("n2"))->id(), ~Vel::EntityId(0));
    pair.run();
    pair.expectEqual();
    EXPECT_EQ(pair.replica.error(), "");
}

TEST_F(LastIdsTest, ReadersAreRefusedAndNextTimeIdsBeginAnew) {
    int woken = 0;
    pair.reader->wakeIs([&] { ++woken; });
    addLeaves(4);
    EXPECT_TRUE(pair.reader->isClosing());
    EXPECT_EQ(woken, 1);
    EXPECT_EQ(pair.source.entities(), 0u);
    pair.run();
    EXPECT_EQ(pair.replica.error(), (std::string("refused: ") + reason).c_str());

    auto const copyOfA = leafOf("a");
    observe(*copy());
    pair.disconnect();
    pair.connect();
    pair.run();
    pair.expectEqual();
    EXPECT_EQ(leafOf("a"), copyOfA);
    EXPECT_EQ(notified.size(), 4u);
    EXPECT_EQ(pair.source.impl().adapter(*root)->id(), 1u);
    EXPECT_LE(pair.source.impl().adapter(*root->entry("n3"))->id(), 6u);
    EXPECT_EQ(pair.source.entities(), 6u);
}

TEST_F(LastIdsTest, ReaderThatCatchesUpIsRefusedToo) {
    root->entryIs(Leaf::newEntity("y"));
    pair.disconnect();
    // Whom nobody was told of is met when it is sent.
    a->hasNotificationActiveIs(false);
    auto const chain = Leaf::newEntity("0");
    auto last = chain;
    for (int i = 0; i < 5; ++i) {
        auto const next = Leaf::newEntity("1");
        last->peerIs(next);
        last = next;
    }
    a->peerIs(chain);
    pair.connect();
    pair.run();
    EXPECT_EQ(pair.replica.error(), (std::string("refused: ") + reason).c_str());
    EXPECT_EQ(pair.source.readers(), 0u);
    pair.disconnect();
    pair.connect();
    pair.run();
    pair.expectEqual();
    EXPECT_EQ(pair.source.entities(), 9u);
}

TEST(LastIdTest, ReaderThatFindsNoIdLeftForTheRootIsRefused) {
    Pair pair(Leaf::newEntity("a"));
    pair.source.impl().demuxer().lastIdIs(~Vel::EntityId(0));
    pair.connect();
    pair.run();
    EXPECT_EQ(pair.replica.error(), "refused: entity ids have run out, and begin anew with the next connection");
    EXPECT_EQ(pair.source.readers(), 0u);
    pair.disconnect();
    pair.connect();
    pair.run();
    pair.expectEqual();
}

TEST_F(LastIdsTest, WithoutReadersItStartsOverUnnoticed) {
    pair.disconnect();
    addLeaves(10);
    pair.connect();
    pair.run();
    pair.expectEqual();
    EXPECT_EQ(pair.source.impl().adapter(*root)->id(), 1u);
}

TEST_F(LastIdsTest, PointerThatTakesTheLastIdsStartsOver) {
    auto const chain = Leaf::newEntity("0");
    auto last = chain;
    for (int i = 0; i < 5; ++i) {
        auto const next = Leaf::newEntity("1");
        last->peerIs(next);
        last = next;
    }
    a->peerIs(chain);
    EXPECT_TRUE(pair.reader->isClosing());
    a->sizeIs(1);
    pair.run();
    EXPECT_EQ(leafOf("a")->size(), 0u);
    EXPECT_EQ(leafOf("a")->peer(), nullptr);
    pair.disconnect();
    pair.connect();
    pair.run();
    pair.expectEqual();
}

}  // namespace
