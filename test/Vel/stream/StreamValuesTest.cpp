#include "StreamTools.h"
#include "ValueTable.h"
#include "Vel/describe/Module.h"

namespace {

using namespace StreamTest;
using Vel::AttributeId;
using Vel::AttrLogReplica;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U8;
using Vel::operator<<;
using Vel::NboAttrLog::Compact;

// A table "t" with an entry at "k" and a mark at 7, and a replica that has synchronised.
class StreamValuesTest : public testing::Test {
protected:
    explicit StreamValuesTest(Vel::AttrLogSource::Options options = {}) : pair(table, options) {
        table->entryIs("k", Entry(1));
        table->markIs(7, 8);
        pair.connect();
        pair.run();
    }

    Ptr<ValueTable> copy() const { return Vel::ptr_cast<ValueTable>(pair.replica.root()); }
    void observe() {
        observer_ = Vel::notifieeOf(*copy(), [this](AttributeId id, Vel::NotifieeKey const* key) {
            notified.push_back(std::to_string(id));
            if (id == ValueTable::entryAttribute) notified.back() += " " + key->as<String>().stdString();
            if (id == ValueTable::markAttribute) notified.back() += " " + std::to_string(key->as<U8>());
        });
    }
    // What the source sends, when nobody else takes it.
    Strings sent() { return messages(takeOutput(*pair.reader)); }

    Ptr<ValueTable> table = ValueTable::newEntity("t");
    Pair pair;
    Strings notified;

private:
    std::unique_ptr<Vel::Notifiee> observer_;
};

TEST_F(StreamValuesTest, SynchronisationIsTheseMessages) {
    pair.disconnect();
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    Strings const all = sent();
    ASSERT_EQ(all.size(), 7u);
    EXPECT_EQ(Strings(all.begin() + 3, all.end()), (Strings{"0501410200000000",  // value 1.258
                                                       "06014103000000"
                                                       "016b"  // keySet 1.259 "k"
                                                       "00000001"
                                                       "000000056e6f2e2031"
                                                       "01",  // 1, "no. 1", odd
                                                       "06014104"
                                                       "07"
                                                       "00000008",  // keySet 1.260 7: 8
                                                       "09"}));
}

TEST_F(StreamValuesTest, ChangesAreTheseMessages) {
    table->entryIs("k", Entry(6));
    EXPECT_EQ(sent(), Strings{"06014103000000016b00000006000000"
                              "0000"});
    table->markIs(7, 9);
    EXPECT_EQ(sent(), Strings{"060141040700000009"});
    table->markDel(7);
    EXPECT_EQ(sent(), Strings{"0701410407"});
    table->entryDel("k");
    EXPECT_EQ(sent(), Strings{"07014103000000016b"});
}

TEST_F(StreamValuesTest, ObserversOfTheCopyAreToldOfEveryKey) {
    observe();
    table->entryIs("k", Entry(2));
    table->entryIs("l", Entry(3));
    table->markIs(255, 1);
    table->entryDel("k");
    pair.run();
    EXPECT_EQ(notified, (Strings{"259 k", "259 l", "260 255", "259 k"}));
    EXPECT_EQ(copy()->entry("l"), Entry(3));
    pair.expectEqual();
}

TEST_F(StreamValuesTest, SettingWhatIsThereTellsNobody) {
    observe();
    table->entryIs("k", Entry(1));
    table->markIs(7, 8);
    pair.run();
    EXPECT_EQ(notified, Strings{});
}

TEST_F(StreamValuesTest, ReconnectionTellsTheDifferencesOnly) {
    table->entryIs("same", Entry(2));
    table->entryIs("changed", Entry(3));
    pair.run();
    observe();
    pair.disconnect();
    table->entryDel("k");
    table->entryIs("changed", Entry(4));
    table->markDel(7);
    table->markIs(8, 8);
    pair.connect();
    pair.run();
    EXPECT_EQ(notified, (Strings{"259 changed", "260 8", "259 k", "260 7"}));
    pair.expectEqual();
}

TEST_F(StreamValuesTest, KeyThatHasGoneGoesAtTheSyncMarkAndNotBefore) {
    pair.disconnect();
    table->entryDel("k");
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    Bytes const bytes = takeOutput(*pair.reader);
    pair.replica.input(std::span(bytes).first(bytes.size() - 1));
    EXPECT_TRUE(copy()->entryExists("k"));
    pair.replica.input(std::span(bytes).subspan(bytes.size() - 1));
    EXPECT_FALSE(copy()->entryExists("k"));
}

class StalledValuesTest : public StreamValuesTest {
protected:
    StalledValuesTest() : StreamValuesTest(Vel::AttrLogSource::Options{.logSize = 1000}) {}
};

TEST_F(StalledValuesTest, StalledReaderCostsAFlagForEachKey) {
    observe();
    for (U32 i = 1; i <= 10000; ++i) {
        table->entryIs("k", Entry(i));
        table->entryIs("l", Entry(i));
    }
    table->entryDel("k");
    EXPECT_EQ(pair.source.liveReaders(), 0u);
    EXPECT_GT(pair.source.coalesced(), 19000u);
    pair.run();
    EXPECT_EQ(notified, (Strings{"259 k", "259 l"}));
    EXPECT_EQ(copy()->entry("l"), Entry(10000));
    pair.expectEqual();
}

TEST_F(StreamValuesTest, KeysThatComeAndGoWhileTheCollectionIsSentArriveAsTheyAre) {
    pair.disconnect();
    for (unsigned i = 0; i < 100; ++i) table->markIs(static_cast<U8>(i), i + 1);
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    // One message at a time, in the middle of which the marks change.
    for (unsigned i = 0; pair.reader->wantsOutput(); ++i) {
        if (i < 100) {
            table->markIs(static_cast<U8>(i), i + 1000);
            table->markDel(static_cast<U8>(99 - i));
            table->markIs(static_cast<U8>(100 + i), i);
        }
        auto const bytes = pair.reader->output(1);
        pair.replica.input(bytes);
        pair.reader->outputTaken(bytes.size());
    }
    EXPECT_EQ(pair.replica.state(), AttrLogReplica::State::synced);
    pair.expectEqual();
}

// Keys in order are not listed at one go: what is sent next is looked for then, and a change that is sent is not
// flagged.
TEST_F(StreamValuesTest, ChangesBehindAndInFrontOfWhatIsSentAreToldOnce) {
    pair.disconnect();
    for (unsigned i = 0; i < 250; i += 2) table->markIs(static_cast<U8>(i), i);
    pair.connect();
    pair.reader->input(takeOutput(pair.replica));
    Bytes all;
    auto const take = [&] {
        auto const bytes = pair.reader->output(1);
        all.insert(all.end(), bytes.begin(), bytes.end());
        pair.replica.input(bytes);
        pair.reader->outputTaken(bytes.size());
    };
    while (!copy()->markExists(100)) take();
    for (unsigned const i : {51u, 201u, 150u, 248u}) table->markIs(static_cast<U8>(i), i + 1);
    table->markDel(202);
    table->markDel(20);
    while (pair.reader->wantsOutput()) take();
    Strings const sent = messages(all);
    auto const says = [&](unsigned key, unsigned mark) {
        U8 const bytes[] = {6, 1, 0x41, 4, static_cast<U8>(key), 0, 0, 0, static_cast<U8>(mark)};
        return std::count(sent.begin(), sent.end(), hex(bytes));
    };
    for (unsigned const i : {51u, 201u, 150u, 248u}) EXPECT_EQ(says(i, i + 1), 1) << i;
    EXPECT_EQ(says(202, 202), 0);
    pair.expectEqual();
}

// --- what a peer must not send ---

class HostileValuesTest : public testing::Test {
protected:
    HostileValuesTest() {
        Vel::StreamLimits limits;
        limits.keys = 3;
        replica = std::make_unique<AttrLogReplica>(
            table, AttrLogReplica::Options{.path = {}, .wantsToWrite = false, .limits = limits});
        table->markIs(1, 1);
        replica->connected();
        takeOutput(*replica);
        send(MessageKind::welcome, [](Out& out) { out << Vel::U16(2) << false; });
        Vel::VelType const type = Vel::typeOf<ValueTable>();
        send(MessageKind::type, [&](Out& out) {
            out << Compact{0} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
        });
        send(MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("t"); });
    }
    void send(MessageKind kind, std::function<void(Out&)> const& body) {
        Vel::NboAttrLog::BufferSm sm;
        body(sm.begin(kind, 0));
        sm.commit();
        replica->input(sm.bytes());
    }
    void sendMark(U8 key) {
        send(MessageKind::keySet, [&](Out& out) { out << Compact{1} << Compact{260} << key << 5u; });
    }
    void expectRefused(MessageKind kind, std::function<void(Out&)> const& body, std::string const& error) {
        std::string const before = treeOf(*table);
        ASSERT_EQ(replica->error(), "");
        send(kind, body);
        EXPECT_EQ(replica->error(), error.c_str());
        EXPECT_EQ(treeOf(*table), before);
    }

    Ptr<ValueTable> table = ValueTable::newEntity("t");
    std::unique_ptr<AttrLogReplica> replica;
};

TEST_F(HostileValuesTest, ValueThatIsTooLongChangesNothing) {
    expectRefused(
        MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{260} << U8(1) << 5u << U8(0); },
        "a value is followed by bytes that are not its own");
}

TEST_F(HostileValuesTest, ValueThatIsTooShortChangesNothing) {
    std::string const before = treeOf(*table);
    send(MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{259} << String("k") << 5u << String("x"); });
    EXPECT_TRUE(replica->isClosing());
    EXPECT_EQ(treeOf(*table), before);
}

TEST_F(HostileValuesTest, EntityIsNotAnnouncedWhereValuesBelong) {
    expectRefused(
        MessageKind::announce,
        [](Out& out) { out << Compact{2} << Compact{0} << Compact{1} << Compact{260} << U8(1) << String("t"); },
        "an entity where values belong");
}

TEST_F(HostileValuesTest, CollectionHasNoValueAsAWhole) {
    expectRefused(
        MessageKind::value, [](Out& out) { out << Compact{1} << Compact{260} << 5u; },
        "StreamTest::ValueTable has no value or pointer 260");
}

TEST_F(HostileValuesTest, KeysAreLimited) {
    for (U8 const key : std::initializer_list<U8>{1, 2, 3, 3, 2}) sendMark(key);  // 1 was there before
    expectRefused(
        MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{259} << String("k") << Entry(1); },
        "the source has too many keys");
}

TEST_F(HostileValuesTest, DeletedKeysMakeRoom) {
    for (U8 key = 1; key < 100; ++key) {
        sendMark(key);
        send(MessageKind::keyDel, [&](Out& out) { out << Compact{1} << Compact{260} << key; });
        send(MessageKind::keyDel, [&](Out& out) { out << Compact{1} << Compact{260} << key; });
    }
    for (U8 const key : std::initializer_list<U8>{1, 2, 3}) sendMark(key);
    EXPECT_EQ(replica->error(), "");
    sendMark(4);
    EXPECT_EQ(replica->error(), "the source has too many keys");
}

TEST_F(HostileValuesTest, EntityThatHasGoneMakesRoomForItsKeys) {
    for (U32 const id : {2u, 3u, 4u}) {
        send(MessageKind::announce, [&](Out& out) { out << Compact{id} << Compact{0} << Compact{0} << String("u"); });
        for (U8 const key : std::initializer_list<U8>{1, 2})  // a third was there before
            send(MessageKind::keySet, [&](Out& out) { out << Compact{id} << Compact{260} << key << 5u; });
        ASSERT_EQ(replica->error(), "") << id;
        if (id == 4) break;
        send(MessageKind::gone, [&](Out& out) { out << Compact{id}; });
    }
    expectRefused(
        MessageKind::keySet, [](Out& out) { out << Compact{4} << Compact{260} << U8(3) << 5u; },
        "the source has too many keys");
}

}  // namespace

namespace StreamTest {

// A table that has marks from the start.
class PresetTable : public Vel::EntityOf<PresetTable> {
public:
    explicit PresetTable(String const& name) : EntityOf(name) {}

    U32 mark(U8 key) const { return markExists(key) ? marks_.at(key) : 0; }
    void markIs(U8 key, U32 mark) {
        marks_[key] = mark;
        velNotify<"mark">(key);
    }
    void markDel(U8 key) {
        marks_.erase(key);
        velNotify<"mark">(key);
    }
    bool markExists(U8 key) const { return marks_.contains(key); }

    static constexpr auto description() {
        using T = PresetTable;
        return Vel::entity("StreamTest::PresetTable",
            Vel::values<&T::marks_>(
                Vel::collection<U8, U32, &T::mark, &T::markIs, &T::markDel, Vel::none, Vel::none, &T::markExists>(
                    "mark")));
    }

private:
    std::map<U8, U32> marks_{{1, 10}, {2, 20}};
};

namespace {

// The keys that a constructor makes are the copy's, too, until the source does not mention them.
TEST(PresetValuesTest, KeysOfANewCopyThatTheSourceDoesNotHaveAreDeleted) {
    auto const root = Dir::newEntity("d");
    auto const source = PresetTable::newEntity("preset");
    source->markDel(1);
    source->markIs(3, 30);
    root->entryIs(source);
    Pair pair(root);
    pair.connect();
    pair.run();
    auto const copy = Vel::ptr_cast<PresetTable>(pair.replica.root()->entity("preset"));
    ASSERT_TRUE(copy);
    EXPECT_FALSE(copy->markExists(1));
    EXPECT_EQ(copy->mark(2), 20u);
    EXPECT_EQ(copy->mark(3), 30u);
}

}  // namespace
}  // namespace StreamTest

VEL_MODULE(StreamValues, 1a18677315030719, StreamTest::Entry, StreamTest::ValueTable);
VEL_MODULE(StreamPresets, 2d64bfff7fc4f7e0, StreamTest::PresetTable);
