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
    Vel::U64 const before = pair.source.log().messages();
    for (U32 i = 1; i <= 10; ++i) a->sizeIs(i);
    EXPECT_EQ(pair.source.log().messages() - before, 10u);
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

TEST_F(StreamSourceTest, NothingIsWrittenToTheLogWhenNobodyReadsIt) {
    a->sizeIs(1);
    Vel::U64 const before = pair.source.log().messages();
    EXPECT_GT(before, 0u);
    pair.reader->closed("gone");
    a->sizeIs(2);
    EXPECT_EQ(pair.source.log().messages(), before);
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
    EXPECT_LE(pair.source.log().size(), 1000u + 256u);
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
    EXPECT_LE(pair.source.log().size(), 1000u + 256u);
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
    Vel::U64 const before = pair.source.log().messages();
    a->sizeIs(5);
    EXPECT_EQ(delivered, Strings{"a 258"});
    EXPECT_EQ(pair.source.log().messages(), before);
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

// A hello whose modules are changed.
Bytes hello(bool wantsToWrite, std::map<std::string, Vel::U64> const& instead) {
    Vel::NboAttrLog::BufferSm sm;
    auto& out = sm.begin(Vel::NboAttrLog::MessageKind::hello, 0);
    std::map<std::string, Vel::U64> modules;
    for (auto const* const module : Vel::Registry::modules()) {
        Vel::VelType const any(module, 0);
        modules[std::string(any.moduleName())] = any.moduleFingerprint();
    }
    for (auto const& [name, fingerprint] : instead) modules[name] = fingerprint;
    std::erase_if(modules, [](auto const& m) { return m.second == 0; });
    out << U32(0x56454c41) << Vel::U16(1) << wantsToWrite << String() << static_cast<U32>(modules.size());
    for (auto const& [name, fingerprint] : modules) out << String(name) << fingerprint;
    sm.commit();
    return {sm.bytes().begin(), sm.bytes().end()};
}

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
}

TEST_F(StreamSourceTest, AnotherVersionIsRefused) {
    Bytes bytes = hello(false, {});
    bytes[bytes.size() - Vel::NboAttrLog::messageBody(bytes).size() + 4 + 1] = 9;  // behind the magic
    auto const reader = pair.source.newReader();
    reader->input(bytes);
    EXPECT_EQ(told(takeOutput(*reader)),
        Strings{"refused the client speaks version 9 of the protocol, and the server version 1"});
}

TEST_F(StreamSourceTest, BytesThatAreNoHelloCloseTheConnection) {
    auto const reader = pair.source.newReader();
    reader->input(Bytes{'G', 'E', 'T', ' ', '/'});
    EXPECT_TRUE(reader->isClosing());
    EXPECT_EQ(pair.source.readers(), 1u);
}

TEST_F(StreamSourceTest, WriteToAReadOnlySourceIsRefused) {
    Vel::GenericValue const value(Vel::typeOf<U32>(), "5");
    EXPECT_THROW(pair.replica.write(*leafOf("a"), 258, value), Vel::ReadOnlyException);
    auto const reader = pair.source.newReader();
    reader->input(hello(true, {}));
    takeOutput(*reader);
    Vel::NboAttrLog::BufferSm sm;
    sm.begin(Vel::NboAttrLog::MessageKind::write, 7)
        << Vel::NboAttrLog::Compact{pair.source.adapter(*a)->id()} << Vel::NboAttrLog::Compact{258} << U32(5);
    sm.commit();
    reader->input(sm.bytes());
    EXPECT_EQ(told(takeOutput(*reader)), Strings{"refused /a is mounted read-only and takes no changes"});
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
    Vel::NboAttrLog::BufferSm sm;
    sm.begin(Vel::NboAttrLog::MessageKind::write, 4)
        << Vel::NboAttrLog::Compact{1} << Vel::NboAttrLog::Compact{258} << Vel::U8(5);
    sm.commit();
    reader->input(sm.bytes());
    ASSERT_TRUE(reader->isClosing()) << "a U32 of one byte";
    a->sizeIs(1);
    EXPECT_EQ(delivered, 1u);
}

// --- several sources behind one server ---

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
    Vel::EntityId const id = pair.source.adapter(*a)->id();
    root->entryDel("a");
    a = nullptr;
    auto const b = Leaf::newEntity("a");
    root->entryIs(b);
    EXPECT_GT(pair.source.adapter(*b)->id(), id);
}

TEST_F(StreamSourceTest, SlotIsUsedAgain) {
    U32 const slot = pair.source.adapter(*a)->slot();
    root->entryDel("a");
    a = nullptr;
    auto const b = Leaf::newEntity("b");
    root->entryIs(b);
    EXPECT_EQ(pair.source.adapter(*b)->slot(), slot);
}

TEST_F(StreamSourceTest, SlotOfWhatHasGoneIsNobodys) {
    U32 const slot = pair.source.adapter(*a)->slot();
    EXPECT_TRUE(pair.source.members().has(slot));
    root->entryDel("a");
    a = nullptr;
    EXPECT_FALSE(pair.source.members().has(slot));
    EXPECT_EQ(pair.source.demuxer().adapterAt(slot), nullptr);
}

// --- ids run out ---

// Three ids are left.
class LastIdsTest : public StreamSourceTest {
protected:
    LastIdsTest() { pair.source.lastIdIs(~Vel::EntityId(0) - 3); }
    void addLeaves(int count) {
        for (int i = 0; i < count; ++i) root->entryIs(Leaf::newEntity(Vel::format("n%d", i)));
    }
    static constexpr char const* reason = "entity ids have run out, and begin anew with the next connection";
};

TEST_F(LastIdsTest, LastIdIsAnIdAsAnyOther) {
    addLeaves(3);
    EXPECT_EQ(pair.source.adapter(*root->entry("n2"))->id(), ~Vel::EntityId(0));
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
    EXPECT_EQ(pair.source.adapter(*root)->id(), 1u);
    EXPECT_LE(pair.source.adapter(*root->entry("n3"))->id(), 6u);
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
    pair.source.lastIdIs(~Vel::EntityId(0));
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
    EXPECT_EQ(pair.source.adapter(*root)->id(), 1u);
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

// --- adapters ---

class Recorder : public Vel::Entity::VelNboAttrLogSa {
public:
    using VelNboAttrLogSa::VelNboAttrLogSa;
    bool doMessageMulticast(AttributeId id) override {
        calls.push_back("multicast " + std::to_string(id));
        return delivers;
    }
    Vel::NboAttrLog::OutSm* singletonSerializeCheck(
        AttributeId id, bool flag, bool whole, std::size_t size, bool isKey) override {
        calls.push_back(Vel::format("check %u %d %d %zu %d", id, flag, whole, size, isKey).stdString());
        if (!takes) return nullptr;
        sm.begin(Vel::NboAttrLog::MessageKind::value, size);
        return &sm;
    }
    Strings calls;
    bool delivers = false;
    bool takes = true;
    Vel::NboAttrLog::BufferSm sm;
};

class HandleValueSerializationTest : public testing::Test {
protected:
    Ptr<Leaf> leaf = Leaf::newEntity("a");
    Vel::StreamDemuxer demuxer;
    Recorder recorder{demuxer, *leaf, 1, 0};
};

TEST_F(HandleValueSerializationTest, ChecksThenWritesThenCommits) {
    recorder.handleValueSerialization(259, Fixture::Version(7, true), true);
    EXPECT_EQ(recorder.calls, Strings{"check 259 1 1 5 0"});
    EXPECT_EQ(messages(recorder.sm.bytes()), Strings{"050000000701"});
    recorder.handleValueSerialization(260, String("abc"), false);
    EXPECT_EQ(recorder.calls.back(), "check 260 0 1 7 0");
}

TEST_F(HandleValueSerializationTest, StopsWhereThereIsNoOutput) {
    recorder.takes = false;
    recorder.handleValueSerialization(259, U32(1), false);
    EXPECT_EQ(recorder.sm.size(), 0u);
}

TEST_F(HandleValueSerializationTest, MulticastThatDeliversIsAll) {
    recorder.attrLogFlagsIs(0x4000, true);
    recorder.delivers = true;
    recorder.handleValueSerialization(259, U32(1), false);
    EXPECT_EQ(recorder.calls, Strings{"multicast 259"});
    recorder.delivers = false;
    recorder.handleValueSerialization(259, U32(1), false);
    EXPECT_EQ(recorder.calls.back(), "check 259 0 1 4 0");
}

TEST_F(HandleValueSerializationTest, NoMulticastToOneReaderOrOfAReadersChange) {
    for (U32 const bit : {0x80000u, 0x100000u}) {
        recorder.calls.clear();
        recorder.attrLogFlagsIs(0x4000 | bit, true);
        recorder.handleValueSerialization(259, U32(1), false);
        EXPECT_EQ(recorder.calls, Strings{"check 259 0 1 4 0"});
        recorder.attrLogFlagsIs(bit, false);
    }
}

// To one reader, but there is none.
TEST(StreamAdapterTest, NothingIsWrittenWhereNobodyIsFlowedOutTo) {
    auto const dir = Dir::newEntity("d");
    auto const leaf = Leaf::newEntity("a");
    dir->entryIs(leaf);
    Vel::AttrLogSource source(dir);
    for (Vel::Entity* const entity : std::initializer_list<Vel::Entity*>{dir.get(), leaf.get()}) {
        auto* const adapter = source.adapterIs(*entity);
        Vel::NboAttrLog::Out key;
        key << String("a");
        std::string_view const view(reinterpret_cast<char const*>(key.data()), key.size());
        for (Vel::StreamAttribute const& attribute : adapter->table().attributes)
            if (attribute.isCollection())
                adapter->handleCollectionKeySerialization(attribute, view, true);
            else
                adapter->handleAttributeSerialization(attribute, true);
    }
    EXPECT_EQ(source.log().messages(), 0u);
    EXPECT_EQ(source.entities(), 2u);
}

TEST_F(StreamSourceTest, NothingIsWrittenOfWhatIsNoAttributeWithAValue) {
    Vel::U64 const before = pair.source.log().messages();
    auto* const adapter = pair.source.adapter(*root);
    adapter->handleAttribute(1000);
    adapter->handleAttribute(258);  // a collection, whose keys are told one by one
    EXPECT_EQ(pair.source.log().messages(), before);
}

TEST(StreamAdapterTest, AnotherEntityMayBeAppliedWhileOneIsWritten) {
    class Other : public Recorder {
    public:
        using Recorder::Recorder;
        Vel::NboAttrLog::OutSm* singletonSerializeCheck(AttributeId id, bool, bool, std::size_t, bool) override {
            Bytes const bytes{0, 0, 0, 9};
            Vel::NboAttrLog::In in(bytes);
            other->onAttributeForConnection(id, in);
            return nullptr;
        }
        Vel::StreamAdapter* other = nullptr;
    };
    auto const a = Leaf::newEntity("a"), b = Leaf::newEntity("b");
    Vel::StreamDemuxer demuxer;
    Recorder ofB(demuxer, *b, 2, 1);
    Other ofA(demuxer, *a, 1, 0);
    ofA.other = &ofB;
    ofA.handleAttributeSerialization(*ofA.table().find(258), false);
    EXPECT_EQ(b->size(), 9u);
}

TEST(StreamAdapterDeathTest, NothingIsAppliedWhileItIsWritten) {
    class Reentrant : public Recorder {
    public:
        using Recorder::Recorder;
        Vel::NboAttrLog::OutSm* singletonSerializeCheck(AttributeId id, bool, bool, std::size_t, bool) override {
            Bytes const bytes(4);
            Vel::NboAttrLog::In in(bytes);
            onAttributeForConnection(id, in);
            return nullptr;
        }
    };
    auto const leaf = Leaf::newEntity("a");
    Vel::StreamDemuxer demuxer;
    Reentrant adapter(demuxer, *leaf, 1, 0);
    EXPECT_DEATH(adapter.handleAttributeSerialization(*adapter.table().find(258), false), "!_isActive");
}

}  // namespace
