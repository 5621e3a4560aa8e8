#include "Allocations.h"
#include "Mox/Cell.h"
#include "Mox/Generation.h"
#include "Mox/PrefixTrie.h"
#include "StreamSimulation.h"
#include "test/Vel/stream/StreamTools.h"
#include "test/Vel/stream/ValueTable.h"

#include "Vel/describe/Module.h"
#include "Vel/stream/internal/StreamProtocol.h"

#include <cstdio>
#include <functional>

#ifdef __GLIBC__
#include <malloc.h>
#endif

// What the two sides of a stream hold and do is bounded by the state, and not by the number of changes.
namespace {

using namespace StreamTest;
using Simulation::Thing;
using Vel::AttributeId;
using Vel::AttrLogReplica;
using Vel::AttrLogSource;
using Vel::Dir;
using Vel::EntityId;
using Vel::Ptr;
using Vel::String;
using Vel::StreamLimits;
using Vel::NboAttrLog::Compact;

// Bytes that this process has allocated. Under a sanitizer, whose allocator does not tell, always 0.
std::size_t held() {
#ifdef __GLIBC__
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
#else
    return 0;
#endif
}
std::size_t heldSince(std::size_t before) { return held() < before ? 0 : held() - before; }

void carry(Vel::StreamPeer& from, Vel::StreamPeer& to, std::size_t limit = 1u << 16) {
    auto const bytes = from.output(limit);
    to.input(bytes);
    from.outputTaken(bytes.size());
}

// Without the differences, line by line, which would take gigabytes to find in trees of this size.
void expectSame(Pair& pair) {
    ASSERT_TRUE(pair.replica.root());
    EXPECT_TRUE(treeOf(*pair.replica.root()) == treeOf(pair.source.root())) << "the copy is not like its source";
}

// --- what has been sent ---

TEST(OutputRoomTest, EmptyOutputKeepsNoLargeRoom) {
    if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "allocations are not counted in this build";
    Vel::NboAttrLog::BufferSm output;
    auto const send = [&] {
        output.begin(MessageKind::value, 100'000).append(100'000);
        output.commit();
        output.take(output.size());
    };
    send();
    output.compact(1 << 20);
    EXPECT_EQ(allocationsOf(send), 0u);
    output.compact(4096);
    EXPECT_GT(allocationsOf(send), 0u);
}

// A directory with 200 texts of 20 kB, and a reader that has said hello when another has synchronised.
class SlowReaderTest : public testing::Test {
protected:
    SlowReaderTest() {
        for (int i = 0; i < 200; ++i) {
            auto const status = Cell::statusFactory(Vel::format("n%d", i));
            status->productIs(String(std::string(20'000, static_cast<char>('a' + i % 26))));
            root->entryIs(status);
        }
        first.connect();
        first.run();
        replica.connected();
        reader->input(takeOutput(replica));
    }

    Ptr<Dir> root = Dir::newEntity("root");
    Pair first{root};
    std::unique_ptr<Vel::StreamPeer> reader = first.source.newReader();
    AttrLogReplica replica{Dir::newEntity(""), "copy", {}};
};

TEST_F(SlowReaderTest, WhatWasTakenIsNotHeld) {
    std::size_t const before = held();
    std::size_t most = 0;
    while (reader->wantsOutput()) {
        auto const bytes = reader->output(1u << 16);
        reader->outputTaken(std::min<std::size_t>(bytes.size(), 10'000));
        most = std::max(most, heldSince(before));
    }
    EXPECT_LT(most, 500'000u);
}

TEST_F(SlowReaderTest, ReaderThatHasAllHoldsNoBuffer) {
    std::size_t const before = held();
    while (reader->wantsOutput()) reader->outputTaken(reader->output(1u << 20).size());
    EXPECT_TRUE(reader->output(1).empty());
    EXPECT_LT(heldSince(before), 20'000u);
}

TEST_F(SlowReaderTest, BytesThatWereGivenStayInPlaceUntilTheNext) {
    while (reader->wantsOutput()) {
        auto const bytes = reader->output(30'000);
        Bytes const copy(bytes.begin(), bytes.end());
        reader->outputTaken(bytes.size() / 3);
        root->entryIs(Mox::generationEntityFactory(Vel::format("g%u", root->entries())));
        if (root->entries() % 4 == 0) reader->ping(1);
        reader->outputTaken(bytes.size() - bytes.size() / 3);
        ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), copy.begin()));
        if (root->entries() < 230) continue;
        while (reader->wantsOutput()) reader->outputTaken(reader->output(1u << 16).size());
    }
}

// --- keys that come and go ---

class StalledTest : public testing::Test {
protected:
    template <class E> explicit StalledTest(Ptr<E> const& root) : pair(root, {.logSize = 1000}) {}
    StalledTest() : StalledTest(Dir::newEntity("root")) {}

    Dir& root() { return static_cast<Dir&>(pair.source.root()); }
    void synchronise() {
        pair.connect();
        pair.run();
    }
    // What is held more at the end, while the reader takes nothing, of so many changes.
    template <class F> std::size_t heldBy(unsigned changes, F change) {
        for (unsigned i = 0; i < 1000; ++i) change(i);
        EXPECT_EQ(pair.source.liveReaders(), 0u);
        std::size_t const before = held();
        for (unsigned i = 1000; i < 1000 + changes; ++i) change(i);
        return heldSince(before);
    }
    void expectEqualAfterwards() {
        pair.run();
        EXPECT_EQ(pair.replica.error(), "");
        EXPECT_EQ(pair.source.liveReaders(), 1u);
        expectSame(pair);
    }

    Pair pair;
};

TEST_F(StalledTest, EntriesThatCameAndWentLeaveNothing) {
    for (int i = 0; i < 10; ++i) root().entryIs(Mox::generationEntityFactory(Vel::format("k%d", i)));
    synchronise();
    root().entryDel("k3");
    std::size_t const more = heldBy(30'000, [&](unsigned i) {
        String const name = Vel::format("n%u", i);
        root().entryIs(Mox::generationEntityFactory(name));
        root().entryDel(name);
    });
    EXPECT_LT(more, 20'000u);
    expectEqualAfterwards();
}

TEST_F(StalledTest, InstancesThatCameAndWentLeaveNothing) {
    auto const trie = Mox::prefixTrieFactory("trie");
    for (int i = 0; i < 10; ++i) trie->newChildIs(Vel::format("k%d", i));
    root().entryIs(trie);
    synchronise();
    std::size_t const more = heldBy(30'000, [&](unsigned i) {
        String const key = Vel::format("n%u", i);
        trie->newChildIs(key);
        trie->childDel(key);
        trie->prefixChildDel(key);
        if (i == 5000) trie->prefixChildDel("k3");
    });
    EXPECT_LT(more, 20'000u);
    expectEqualAfterwards();
}

class StalledTableTest : public StalledTest {
protected:
    StalledTableTest() : StalledTest(ValueTable::newEntity("t")) {}
    ValueTable& table() { return static_cast<ValueTable&>(pair.source.root()); }
    ValueTable& copy() { return static_cast<ValueTable&>(*pair.replica.root()); }
    void churn(unsigned keys) {
        for (unsigned i = 0; i < keys; ++i) {
            String const key = Vel::format("n%u", i);
            table().entryIs(key, Entry(i));
            table().entryDel(key);
        }
    }
    // Makes the reader one that catches up, with no key flagged.
    void stall() {
        for (unsigned i = 0; i < 1000; ++i) table().uidIs(i);
        ASSERT_EQ(pair.source.liveReaders(), 0u);
    }
};

TEST_F(StalledTableTest, ValuesThatCameAndWentLeaveNothing) {
    table().entryIs("k", Entry(1));
    synchronise();
    std::size_t const more = heldBy(30'000, [&](unsigned i) {
        String const key = Vel::format("n%u", i);
        table().entryIs(key, Entry(i));
        table().entryDel(key);
    });
    EXPECT_LT(more, 20'000u);
    expectEqualAfterwards();
}

TEST_F(StalledTableTest, CollectionComesAgainWhenItHasMoreFlagsThanMembers) {
    table().entryIs("k", Entry(1));
    synchronise();
    stall();
    churn(64);
    EXPECT_EQ(pair.source.entities(), 1u);
    Strings sent = messages(takeOutput(*pair.reader));
    EXPECT_EQ(sent.size(), 66u);  // the number, 64 deletions, the sync mark
    stall();
    churn(65);
    sent = messages(takeOutput(*pair.reader));
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[1], "0e014103");  // 1.259 comes again
    EXPECT_EQ(sent[2].substr(0, 18), "06014103000000016b");
    EXPECT_EQ(sent[3], "0f014103");  // and that was all
}

TEST_F(StalledTableTest, FlagsOfALargeCollectionAreKept) {
    for (unsigned i = 0; i < 300; ++i) table().entryIs(Vel::format("k%u", i), Entry(i));
    synchronise();
    stall();
    churn(200);
    Strings const sent = messages(takeOutput(*pair.reader));
    EXPECT_EQ(sent.size(), 202u);
    EXPECT_EQ(sent[1].substr(0, 2), "07");
}

TEST_F(StalledTableTest, ObserversOfTheCopyAreToldOfDifferencesOnly) {
    for (char const* const key : {"deleted", "same", "changed"}) table().entryIs(key, Entry(1));
    synchronise();
    Strings notified;
    auto const observer = Vel::notifieeOf(copy(), [&](AttributeId id, Vel::NotifieeKey const* key) {
        if (id == ValueTable::entryAttribute) notified.push_back(key->as<String>().stdString());
    });
    stall();
    churn(100);
    table().entryDel("deleted");
    table().entryIs("changed", Entry(2));
    table().entryIs("new", Entry(3));
    expectEqualAfterwards();
    std::sort(notified.begin(), notified.end());
    EXPECT_EQ(notified, (Strings{"changed", "deleted", "new"}));
}

TEST_F(StalledTableTest, CollectionThatComesAgainOverAndOverArrives) {
    for (unsigned i = 0; i < 40; ++i) table().entryIs(Vel::format("k%u", i), Entry(i));
    synchronise();
    stall();
    churn(100);
    for (unsigned i = 0; i < 30; ++i) {
        for (int n = 0; n < 7; ++n) carry(*pair.reader, pair.replica, 1);
        table().entryDel(Vel::format("k%u", i));
        churn(70 + i);
    }
    expectEqualAfterwards();
    EXPECT_FALSE(copy().entryExists("k29"));
    EXPECT_TRUE(copy().entryExists("k30"));
}

TEST_F(StalledTableTest, CollectionThatComesAgainBeforeTheSyncMarkArrives) {
    for (unsigned i = 0; i < 40; ++i) table().entryIs(Vel::format("k%u", i), Entry(i));
    synchronise();
    pair.disconnect();
    table().entryDel("k1");
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    for (unsigned i = 0; i < 40; ++i) {
        carry(*pair.reader, pair.replica, 1);
        if (i == 20) table().entryDel("k2");
        if (i % 5 == 4) churn(100);
    }
    EXPECT_EQ(pair.replica.state(), AttrLogReplica::State::syncing);
    EXPECT_TRUE(copy().entryExists("k1")) << "what has gone goes at the sync mark";
    expectEqualAfterwards();
}

// What guarantee 3 of docs/streaming.md says that flags cost.
TEST_F(StalledTest, FlagsTakeNoMoreThanTheFormula) {
    std::vector<Ptr<Mox::GenerationEntity>> all;
    std::vector<Ptr<ValueTable>> tables;
    for (int i = 0; i < 2000; ++i) {
        all.push_back(Mox::generationEntityFactory(Vel::format("n%d", i)));
        root().entryIs(all.back());
    }
    tables.push_back(ValueTable::newEntity("table"));
    root().entryIs(tables.back());
    for (unsigned i = 0; i < 2000; ++i) tables[0]->entryIs(Vel::format("key %09u", i), Entry(i));
    synchronise();
    for (unsigned i = 0; i < 1000; ++i) all[0]->generationIs({i, true});
    ASSERT_EQ(pair.source.liveReaders(), 0u);
    std::size_t before = held();
    for (unsigned n = 0; n < 3; ++n)
        for (auto const& entity : all) entity->generationIs({n, false});
    std::size_t const entities = heldSince(before);
    before = held();
    for (unsigned n = 0; n < 3; ++n)
        for (unsigned i = 0; i < 2000; ++i) tables[0]->entryIs(Vel::format("key %09u", i), Entry(n));
    std::size_t const keys = heldSince(before);
    std::printf("flags: %zu bytes for each of 2000 entities, %zu for each of 2000 keys of 17 bytes\n", entities / 2000,
        keys / 2000);
    EXPECT_LE(entities, 2000u * 400);
    EXPECT_LE(keys, 2000u * (128 + 17));
    expectEqualAfterwards();
}

// Entities that come and go while a reader takes a little now and then: what it was told of, and has gone, does not
// add up there either.
TEST_F(StalledTest, EntitiesThatComeAndGoUnderASlowReaderDoNotAddUp) {
    root().entryIs(Dir::newEntity("d"));
    synchronise();
    Ptr<Dir> const d = Vel::ptr_cast<Dir>(root().entry("d"));
    auto const carryMessage = [&] {
        Vel::U64 const until = pair.replica.messagesIn() + 1;
        while (pair.replica.messagesIn() < until && pair.reader->wantsOutput()) carry(*pair.reader, pair.replica, 1);
    };
    std::size_t before = 0;
    std::size_t most = 0;
    std::size_t mostInCopy = 0;
    for (unsigned i = 0; i < 60'000; ++i) {
        // What came last is sent first, so that it is told of before it goes.
        auto const name = [&](unsigned n) { return Vel::format("n%09u", 1'000'000 - i * 4 - n); };
        for (unsigned n = 0; n < 4; ++n) {
            (n % 2 ? *d : root()).entryIs(Mox::generationEntityFactory(name(n)));
            if (n >= 2) carryMessage();
        }
        for (unsigned n = 0; n < 4; ++n) (n % 2 ? *d : root()).entryDel(name(n));
        if (i == 2000) before = held();
        if (i >= 2000) most = std::max(most, heldSince(before));
        mostInCopy = std::max(mostInCopy, pair.replica.entities());
    }
    std::printf("at most %zu entities in the copy, and %zu bytes more\n", mostInCopy, most);
    EXPECT_LT(mostInCopy, 400u);
    EXPECT_LT(most, 60'000u);
    expectEqualAfterwards();
}

// --- a source that means ill ---

class GreedySourceTest : public testing::Test {
protected:
    GreedySourceTest() {
        limits.copySize = 200'000;
        connect();
    }
    void connect() {
        if (!replica) replica = std::make_unique<AttrLogReplica>(place, "copy", options());
        replica->connected();
        send(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; });
        U32 index = 0;
        for (Vel::VelType const type : {Vel::typeOf<Dir>(), Vel::typeOf<ValueTable>(), Vel::typeOf<Cell::Status>(),
                 Vel::typeOf<Mox::PrefixTrie>()})
            send(MessageKind::type, [&](Out& out) {
                out << Compact{index++} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
            });
        announce(1, 0, "copy");
    }
    void reconnect() {
        replica->closed("cut");
        connect();
    }
    AttrLogReplica::Options options() const { return {.path = {}, .wantsToWrite = false, .limits = limits}; }
    void send(MessageKind kind, std::function<void(Out&)> const& body) {
        sm.clear();
        body(sm.begin(kind, 0));
        sm.commit();
        replica->input(sm.bytes());
    }
    void announce(EntityId id, U32 type, String const& name) {
        send(MessageKind::announce, [&](Out& out) { out << Compact{id} << Compact{type} << Compact{0} << name; });
    }
    void keySet(EntityId id, AttributeId attribute, String const& key, EntityId member) {
        send(
            MessageKind::keySet, [&](Out& out) { out << Compact{id} << Compact{attribute} << key << Compact{member}; });
    }
    void keyDel(EntityId id, AttributeId attribute, String const& key) {
        send(MessageKind::keyDel, [&](Out& out) { out << Compact{id} << Compact{attribute} << key; });
    }
    void gone(EntityId id) {
        send(MessageKind::gone, [&](Out& out) { out << Compact{id}; });
    }
    void entry(EntityId id, String const& key, String const& text) {
        send(MessageKind::keySet, [&](Out& out) {
            out << Compact{id} << Compact{ValueTable::entryAttribute} << key << U32(1) << text << true;
        });
    }
    // A directory of that name in the one that has the id.
    void dirIn(EntityId id, String const& name) {
        announce(++last, 0, name);
        keySet(id, 258, name, last);
    }
    // Does it until the replica refuses, and expects that no more was held than the limit.
    template <class F> void expectRefused(F next) {
        std::size_t const before = held();
        for (unsigned i = 0; !replica->isClosing(); ++i) {
            ASSERT_LT(i, 100'000u);
            next(i);
        }
        EXPECT_EQ(replica->error(), "a copy of more than 200000 bytes");
        std::printf("held %zu bytes of an estimate of %zu\n", heldSince(before), replica->copySize());
        EXPECT_LE(heldSince(before), 2 * limits.copySize);
        EXPECT_LE(replica->copySize(), limits.copySize);
    }

    StreamLimits limits;
    Vel::NboAttrLog::BufferSm sm;
    Ptr<Dir> place = Dir::newEntity("");
    std::unique_ptr<AttrLogReplica> replica;
    EntityId last = 1;
};

TEST_F(GreedySourceTest, AnnouncementsAreBoundedByBytes) {
    expectRefused([&](unsigned i) { announce(2 + i, 0, "d"); });
}

TEST_F(GreedySourceTest, EntriesAreBoundedByBytes) {
    expectRefused([&](unsigned i) { dirIn(1, Vel::format("n%u", i)); });
}

TEST_F(GreedySourceTest, KeysOfValuesAreBoundedByBytes) {
    announce(2, 1, "t");
    expectRefused([&](unsigned i) { entry(2, Vel::format("k%u", i), ""); });
}

TEST_F(GreedySourceTest, TextsAreBoundedByBytes) {
    announce(2, 1, "t");
    expectRefused([&](unsigned i) { entry(2, Vel::format("k%u", i), String(std::string(10'000, 'x'))); });
}

TEST_F(GreedySourceTest, TextOfAnAttributeCountsAsLongAsItIs) {
    announce(2, 2, "status");
    AttributeId const product = 260;
    auto const set = [&](std::size_t size) {
        send(MessageKind::value,
            [&](Out& out) { out << Compact{2} << Compact{product} << String(std::string(size, 'x')); });
    };
    set(0);
    ASSERT_EQ(replica->error(), "");
    std::size_t const before = replica->copySize();
    for (int i = 0; i < 100; ++i) set(50'000);
    EXPECT_EQ(replica->copySize(), before + 50'000);
    set(10);
    EXPECT_EQ(replica->copySize(), before + 10);
    set(199'990);
    EXPECT_EQ(replica->error(), "a copy of more than 200000 bytes");
}

TEST_F(GreedySourceTest, ValueOfAKeyCountsAsLongAsItIs) {
    announce(2, 1, "t");
    entry(2, "k", "");
    std::size_t const before = replica->copySize();
    for (int i = 0; i < 100; ++i) entry(2, "k", String(std::string(50'000, 'x')));
    EXPECT_EQ(replica->copySize(), before + 50'000);
    entry(2, "k", String(std::string(10, 'x')));
    EXPECT_EQ(replica->copySize(), before + 10);
    entry(2, "k", String(std::string(199'990, 'x')));
    EXPECT_EQ(replica->error(), "a copy of more than 200000 bytes");
}

TEST_F(GreedySourceTest, KeyWithAValueOfAFixedSizeCounts) {
    announce(2, 1, "t");
    std::size_t const before = replica->copySize();
    for (U32 const value : {7u, 8u})
        send(MessageKind::keySet, [&](Out& out) { out << Compact{2} << Compact{260} << Vel::U8(1) << value; });
    EXPECT_EQ(replica->copySize(), before + 160 + 1);
}

TEST_F(GreedySourceTest, MemberThatIsReplacedCountsAsOneKey) {
    dirIn(1, "a");
    EntityId const first = last;
    std::size_t const before = replica->copySize();
    dirIn(1, "a");
    gone(first);
    EXPECT_EQ(replica->error(), "");
    EXPECT_EQ(replica->copySize(), before);
}

// Nothing of the connection is looked at behind the observer.
TEST_F(GreedySourceTest, ObserverMayEndTheConnectionThatBringsAValue) {
    for (bool const isKey : {false, true}) {
        announce(2, isKey ? 1 : 2, "seen");
        keySet(1, 258, "seen", 2);
        Ptr<Vel::Entity> const entity = Vel::ptr_cast<Dir>(replica->root())->entry("seen");
        ASSERT_TRUE(entity) << replica->error();
        auto const observer = Vel::notifieeOf(
            *entity, [&](AttributeId, Vel::NotifieeKey const*) { replica->closed("it has seen enough"); });
        if (isKey)
            entry(2, "k", "some text");
        else
            send(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{260} << String("some text"); });
        EXPECT_EQ(replica->error(), "it has seen enough");
        EXPECT_EQ(replica->entities(), 0u);
        connect();
    }
}

TEST_F(GreedySourceTest, ObserverMayEndTheConnectionThatTakesAValueAway) {
    announce(2, 1, "seen");
    keySet(1, 258, "seen", 2);
    entry(2, "k", "some text");
    Ptr<Vel::Entity> const entity = Vel::ptr_cast<Dir>(replica->root())->entry("seen");
    ASSERT_TRUE(entity) << replica->error();
    auto const observer =
        Vel::notifieeOf(*entity, [&](AttributeId, Vel::NotifieeKey const*) { replica->closed("it has seen enough"); });
    keyDel(2, 259, "k");
    EXPECT_EQ(replica->error(), "it has seen enough");
    EXPECT_EQ(replica->entities(), 0u);
    EXPECT_EQ(replica->state(), AttrLogReplica::State::stale);
}

TEST_F(GreedySourceTest, ObserverMayEndTheConnectionAtItsSyncMark) {
    announce(2, 1, "seen");
    keySet(1, 258, "seen", 2);
    connect();
    auto const observer = Vel::notifieeOf(
        *replica->root(), [&](AttributeId, Vel::NotifieeKey const*) { replica->closed("it has seen enough"); });
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica->error(), "it has seen enough");
    EXPECT_EQ(replica->state(), AttrLogReplica::State::stale);
}

TEST_F(GreedySourceTest, WhatGoesIsNotCountedAnyMore) {
    dirIn(1, "d");
    announce(++last, 1, "t");
    std::size_t const before = replica->copySize();
    for (unsigned i = 0; i < 5000; ++i) {
        dirIn(1, "a");
        EntityId const a = last;
        keySet(2, 258, "a", a);  // it moves
        keyDel(1, 258, "a");
        keyDel(2, 258, "a");
        gone(a);
        entry(3, "k", String(std::string(i % 100, 'x')));
        send(MessageKind::keyDel, [&](Out& out) { out << Compact{3} << Compact{259} << String("k"); });
        ASSERT_EQ(replica->error(), "");
    }
    EXPECT_EQ(replica->copySize(), before);
}

TEST_F(GreedySourceTest, WhatSomebodyHoldsCountsUntilItIsReleased) {
    std::size_t const before = replica->copySize();
    dirIn(1, "d");
    auto kept = Vel::ptr_cast<Dir>(replica->root())->entry("d");
    keyDel(1, 258, "d");
    gone(last);
    EXPECT_GT(replica->copySize(), before);
    kept = nullptr;
    EXPECT_EQ(replica->copySize(), before);
}

TEST_F(GreedySourceTest, ConnectionsThatNeverSynchroniseDoNotAddUp) {
    std::size_t const before = held();
    String error;
    for (unsigned n = 0; n < 100 && error.empty(); ++n) {
        dirIn(1, Vel::format("s%u", n));
        EntityId const below = last;
        for (unsigned i = 0; i < 100; ++i) dirIn(below, Vel::format("n%u", i));
        error = replica->error();
        last = 1;
        reconnect();
    }
    EXPECT_EQ(error, "a copy of more than 200000 bytes");
    EXPECT_LE(heldSince(before), 3 * limits.copySize);
}

TEST_F(GreedySourceTest, ConnectionsThatAreCutMayFindTheSameOverAndOver) {
    for (unsigned n = 0; n < 100; ++n) {
        for (unsigned i = 0; i < 100; ++i) {
            String const name = Vel::format("n%u", i);
            EntityId const id = ++last;
            send(MessageKind::announce,
                [&](Out& out) { out << Compact{id} << Compact{0} << Compact{1} << Compact{258} << name << name; });
            keySet(1, 258, name, id);
        }
        ASSERT_EQ(replica->error(), "") << n;
        last = 1;
        reconnect();
    }
}

TEST_F(GreedySourceTest, KeysThatDoNotComeAgainHaveNoEnd) {
    send(MessageKind::keysEnd, [](Out& out) { out << Compact{1} << Compact{258}; });
    EXPECT_EQ(replica->error(), "the end of keys that did not come again");
}

TEST_F(GreedySourceTest, OnlyKeysOfACollectionComeAgain) {
    announce(2, 1, "t");
    send(MessageKind::keysAgain, [](Out& out) { out << Compact{2} << Compact{258}; });
    EXPECT_EQ(replica->error(), "StreamTest::ValueTable has no collection 258");
}

// A new entity goes anywhere, since nothing can be within it; what is there already is looked for on the way up.
TEST_F(GreedySourceTest, WhatIsMovedGoesSoDeepAndNoDeeper) {
    limits = {};
    replica = nullptr;
    place = Dir::newEntity("");
    connect();
    EntityId at = 1;
    for (unsigned i = 0; i < 3000; ++i) {
        dirIn(at, "d");
        at = last;
        ASSERT_EQ(replica->error(), "");
    }
    dirIn(1, "moved");
    keySet(1 + 999, 258, "moved", last);  // 1000 and its place are above
    EXPECT_EQ(replica->error(), "");
    keySet(1 + 1000, 258, "moved", last);
    EXPECT_EQ(replica->error(), "an entity that is moved within more than 1000 others");
}

TEST(EntityWalkTest, NobodyLooksForWhatNeverHeldAnything) {
    auto const a = Dir::newEntity("a");
    auto const b = Dir::newEntity("b");
    a->parentIs(b.get());
    b->parentIs(a.get());  // who went up here would never come back
    EXPECT_FALSE(Dir::newEntity("c")->encloses(*a));
    EXPECT_TRUE(a->encloses(*b));
    a->parentIs(nullptr);
    b->parentIs(nullptr);
}

// --- a hello ---

class LargeStateTest : public testing::Test {
protected:
    LargeStateTest() {
        for (unsigned i = 0; i < 100; ++i) {
            auto const d = Dir::newEntity(Vel::format("d%u", i));
            root->entryIs(d);
            for (unsigned n = 0; n < 100; ++n) d->entryIs(Thing::newEntity(Vel::format("n%u", n)));
        }
        pair.connect();
        pair.reader->input(takeOutput(pair.replica));
    }
    ~LargeStateTest() override { Thing::cutAllPointers(); }
    Ptr<Dir> dir(char const* name) const { return Vel::ptr_cast<Dir>(root->entry(name)); }
    // In the place of what has the name there.
    void move(char const* from, char const* to, char const* name) {
        auto const moved = dir(from)->entryDel(name);
        dir(to)->entryDel(name);
        dir(to)->entryIs(moved);
    }
    Ptr<Thing> thing(char const* path) const { return Vel::ptr_cast<Thing>(root->entity(path)); }

    Ptr<Dir> root = Dir::newEntity("root");
    Pair pair{root};
};

TEST_F(LargeStateTest, HelloLooksAtTheRootOnly) { EXPECT_EQ(pair.source.entities(), 1u); }

TEST_F(LargeStateTest, EachOutputAddsAFewMessages) {
    std::size_t outputs = 0;
    std::size_t entities = 1;
    for (; pair.reader->wantsOutput(); ++outputs) {
        auto const bytes = pair.reader->output(1u << 30);
        EXPECT_LE(messages(bytes).size(), Vel::AttrLogReader::mostSteps + 4);
        EXPECT_LE(pair.source.entities() - entities, Vel::AttrLogReader::mostSteps);
        entities = pair.source.entities();
        pair.replica.input(bytes);
        pair.reader->outputTaken(bytes.size());
    }
    EXPECT_GT(outputs, 10u);
    expectSame(pair);
}

// Of a member that came with the other collection there is nothing to say.
TEST(LargeTrieTest, EachOutputLooksAtAFewKeys) {
    auto const trie = Mox::prefixTrieFactory("t");
    for (unsigned i = 0; i < 30'000; ++i) trie->newChildIs(Vel::format("c%u", i));
    Pair pair(trie);
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    int empty = 0;
    while (pair.reader->wantsOutput()) {
        auto const bytes = pair.reader->output(1u << 30);
        if (bytes.empty()) ++empty;
        pair.replica.input(bytes);
        pair.reader->outputTaken(bytes.size());
    }
    EXPECT_GE(empty, 5);
    EXPECT_EQ(pair.replica.state(), Vel::AttrLogReplica::State::synced);
}

// Of an empty directory there is nothing to say, but to look that it is.
TEST_F(LargeStateTest, EachOutputLooksAtAFewEntities) {
    for (unsigned i = 0; i < 30'000; ++i) dir("d5")->entryIs(Dir::newEntity(Vel::format("e%u", i)));
    int woken = 0;
    pair.reader->wakeIs([&] { ++woken; });
    int empty = 0;
    while (pair.reader->wantsOutput()) {
        std::span<Vel::U8 const> bytes;
        EXPECT_LE(allocationsOf([&] { bytes = pair.reader->output(1u << 30); }), 12 * Vel::AttrLogReader::mostSteps);
        if (bytes.empty()) ++empty;
        pair.replica.input(bytes);
        pair.reader->outputTaken(bytes.size());
    }
    EXPECT_GT(empty, 5);
    EXPECT_EQ(woken, empty);
    expectSame(pair);
}

TEST_F(LargeStateTest, TreeMayChangeWhileItIsMet) {
    Ptr<Vel::Entity> far = thing("d99/n50");
    for (unsigned i = 0; pair.reader->wantsOutput(); ++i) {
        carry(*pair.reader, pair.replica, 2000);
        if (i == 3) thing("d0/n1")->peerIs(thing("d98/n7"));  // from what was met to what was not
        if (i == 5) thing("d97/n3")->peerIs(thing("d0/n2"));
        if (i == 7) move("d0", "d96", "n3");
        if (i == 9) move("d95", "d0", "n4");
        if (i == 11) root->entryDel("d94");
        if (i == 13) root->entryIs(Dir::newEntity("d94"));
        if (i == 15) dir("d99")->entryDel("n50");
        if (i == 17) dir("d94")->entryIs(far);
    }
    EXPECT_EQ(pair.replica.error(), "");
    EXPECT_EQ(pair.source.entities(), 1u + 100 + 10'000 - 2 - 100);
    expectSame(pair);
}

TEST_F(LargeStateTest, SweepFindsWhatIsReachedThroughWhatWasNotMetYet) {
    carry(*pair.reader, pair.replica);  // a welcome
    carry(*pair.reader, pair.replica, 20'000);
    auto const moved = dir("d0")->entryDel("n5");
    ASSERT_TRUE(pair.source.impl().adapter(*moved));
    EntityId const id = pair.source.impl().adapter(*moved)->id();
    ASSERT_FALSE(pair.source.impl().adapter(*thing("d99/n1")));
    thing("d99/n1")->peerIs(moved);
    pair.source.impl().sweep();
    ASSERT_TRUE(pair.source.impl().adapter(*moved));
    EXPECT_EQ(pair.source.impl().adapter(*moved)->id(), id);
    pair.run();
    expectSame(pair);
}

}  // namespace
