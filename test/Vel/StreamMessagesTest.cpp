#include "Fixtures.h"
#include "StreamTools.h"
#include "Vel/Exception.h"
#include "Vel/Module.h"
#include "Vel/StreamProtocol.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U8;
using Vel::NboAttrLog::MessageKind;
using Vel::NboAttrLog::Out;

Bytes message(
    MessageKind kind, std::function<void(Out&)> const& body = [](Out&) {}) {
    Vel::NboAttrLog::BufferSm sm;
    body(sm.begin(kind, 0));
    sm.commit();
    return {sm.bytes().begin(), sm.bytes().end()};
}

// --- exact bytes ---

// A directory "d" with a leaf "x" of size 7 that points to itself.
class StreamBytesTest : public testing::Test {
protected:
    StreamBytesTest() {
        leaf->sizeIs(7);
        leaf->peerIs(leaf);
        root->entryIs(leaf);
        pair.connect();
        pair.reader->input(takeOutput(pair.replica));
    }
    ~StreamBytesTest() override { leaf->peerIs(nullptr); }
    Strings sent() { return messages(takeOutput(*pair.reader)); }

    Ptr<Dir> root = Dir::newEntity("d");
    Ptr<Leaf> leaf = Leaf::newEntity("x");
    Pair pair{root};
};

// "type 0 Vel::Dir Dir <fingerprint>"
std::string typeBytes(std::string const& index, std::string const& name, std::string const& module, Vel::VelType type) {
    Out out;
    out << String(name) << String(module) << type.moduleFingerprint();
    return "03" + index + Detail::hex(out.bytes());
}

TEST_F(StreamBytesTest, SynchronisationIsTheseMessages) {
    EXPECT_EQ(sent(), (Strings{"02000100",                                               // welcome, read-only
                          typeBytes("00000000", "Vel::Dir", "Dir", Vel::typeOf<Dir>()),  //
                          "04000000010000000000000000"                                   // announce 1, the root
                          "0000000164",                                                  // "d"
                          typeBytes("00000001", "Fixture::Leaf", "Fixtures", Vel::typeOf<Leaf>()),
                          "0400000002000000010000000100000102"  // announce 2 in 1.258
                          "0000000178"                          // at "x"
                          "0000000178",                         // name "x"
                          "0600000001000001020000000178"
                          "00000002",                      // keySet 1.258 "x" 2
                          "05000000020000010200000007",    // value 2.258
                          "0500000002000001030000000000",  // value 2.259
                          "05000000020000010400000002",    // pointer 2.260
                          "09"}));                         // synced
}

TEST_F(StreamBytesTest, ChangesAreTheseMessages) {
    sent();
    leaf->sizeIs(8);
    EXPECT_EQ(sent(), Strings{"05000000020000010200000008"});
    leaf->peerIs(nullptr);
    EXPECT_EQ(sent(), Strings{"05000000020000010400000000"});
    Ptr<Leaf> const kept = leaf;
    root->entryDel("x");
    EXPECT_EQ(sent(), Strings{"0700000001000001020000000178"});
    root->entryIs(kept);
    EXPECT_EQ(sent(), Strings{"060000000100000102000000017800000002"});
}

TEST_F(StreamBytesTest, DestroyedEntityIsGone) {
    auto const other = Leaf::newEntity("y");
    root->entryIs(other);
    sent();
    Vel::EntityId const id = pair.source.adapter(*other)->id();
    EXPECT_EQ(id, 3u);
    root->entryDel("x");
    leaf->peerIs(nullptr);
    leaf = nullptr;
    EXPECT_EQ(sent(), (Strings{"0700000001000001020000000178", "05000000020000010400000000", "0800000002"}));
    leaf = Leaf::newEntity("");
}

TEST(StreamHelloTest, SaysWhoItIsAndWhatItWants) {
    Vel::AttrLogReplica replica(Dir::newEntity("place"), "copy", {.path = "/a", .wantsToWrite = true});
    EXPECT_FALSE(replica.wantsOutput());
    replica.connected();
    auto const bytes = takeOutput(replica);
    auto const text = messages(bytes).at(0);
    EXPECT_EQ(text.substr(0, 2 + 8 + 4 + 2 + 12), "01"
                                                  "56454c41"
                                                  "0001"
                                                  "01"
                                                  "000000022f61");
    Vel::NboAttrLog::In in(std::span<U8 const>(bytes).subspan(4 + 14));
    U32 const modules = in.nextU32();
    EXPECT_EQ(modules, Vel::Registry::modules().size());
    for (U32 i = 0; i < modules; ++i) {
        in.nextString();
        in.nextU64();
    }
    EXPECT_EQ(in.left(), 0u);
}

// --- what a peer must not send ---

class HostileSourceTest : public testing::Test {
protected:
    HostileSourceTest() {
        root->entryIs(Leaf::newEntity("x"));
        replica.connected();
        takeOutput(replica);
    }
    void send(Bytes const& bytes) { replica.input(bytes); }
    void sendTypes() {
        send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
        sendType(0, Vel::typeOf<Dir>());
        sendType(1, Vel::typeOf<Leaf>());
        send(message(MessageKind::announce, [](Out& out) { out << 1u << 0u << 0u << String("d"); }));
        send(message(
            MessageKind::announce, [](Out& out) { out << 2u << 1u << 1u << 258u << String("x") << String("x"); }));
        send(message(MessageKind::keySet, [](Out& out) { out << 1u << 258u << String("x") << 2u; }));
        ASSERT_EQ(replica.error(), "");
    }
    void sendType(U32 index, Vel::VelType type) {
        send(message(MessageKind::type, [&](Out& out) {
            out << index << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
        }));
    }
    // The message makes the connection closing, and changes nothing.
    void expectRefused(Bytes const& bytes, std::string const& error) {
        std::string const before = replica.root() ? treeOf(*replica.root()) : "";
        send(bytes);
        EXPECT_TRUE(replica.isClosing());
        EXPECT_EQ(replica.error(), error);
        EXPECT_EQ(replica.root() ? treeOf(*replica.root()) : "", before);
    }

    Ptr<Dir> root = Dir::newEntity("d");
    Vel::AttrLogReplica replica{root, {}};
};

TEST_F(HostileSourceTest, NothingComesBeforeTheWelcome) {
    expectRefused(message(MessageKind::synced), "the source did not say welcome first");
}

TEST_F(HostileSourceTest, LengthBeyondTheLimitIsRefusedBeforeAnythingIsKept) {
    expectRefused({0xff, 0xff, 0xff, 0xff}, "a message of 4294967295 bytes, where at most 16777216 are taken");
    EXPECT_EQ(replica.inputHeld(), 0u);
}

TEST_F(HostileSourceTest, MessageWithoutAKindIsRefused) { expectRefused({0, 0, 0, 0}, "a message without a kind"); }

TEST_F(HostileSourceTest, UnknownKindIsRefused) {
    sendTypes();
    expectRefused(message(static_cast<MessageKind>(99)), "a source sends no message of kind 99");
}

TEST_F(HostileSourceTest, EntityThatWasNotAnnouncedIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << 9u << 258u << 1u; }), "entity 9 was not announced");
}

TEST_F(HostileSourceTest, EntityIsAnnouncedOnce) {
    sendTypes();
    expectRefused(message(MessageKind::announce, [](Out& out) { out << 2u << 1u << 0u << String("y"); }),
        "entity 2 can't be announced");
}

TEST_F(HostileSourceTest, AttributeThatTheTypeHasNotIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << 2u << 261u << 1u; }),
        "Fixture::Leaf has no value or pointer 261");
}

TEST_F(HostileSourceTest, ValueThatIsTooLongChangesNothing) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << 2u << 258u << 1u << U8(0); }),
        "a value is followed by bytes that are not its own");
}

TEST_F(HostileSourceTest, ValueThatIsTooShortChangesNothing) {
    sendTypes();
    send(message(MessageKind::value, [](Out& out) { out << 2u << 259u << 1u; }));
    EXPECT_TRUE(replica.isClosing());
    EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->version(), Fixture::Version());
}

TEST_F(HostileSourceTest, PointerToAnEntityOfAnotherTypeIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << 2u << 260u << 1u; }),
        "an entity of type Vel::Dir came where Fixture::Leaf belongs");
}

TEST_F(HostileSourceTest, MemberIsKeptUnderItsOwnNameOnly) {
    sendTypes();
    expectRefused(message(MessageKind::keySet, [](Out& out) { out << 1u << 258u << String("y") << 2u; }),
        "a member's name is not its key");
}

TEST_F(HostileSourceTest, TypeWithAnotherFingerprintIsRefusedByName) {
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    String const here = Vel::format("%016lx", Vel::typeOf<Dir>().moduleFingerprint());
    expectRefused(message(MessageKind::type,
                      [](Out& out) { out << 0u << String("Vel::Dir") << String("Dir") << Vel::U64(0x12); }),
        "Vel::Dir comes from module Dir, fingerprint 0000000000000012, there and from Dir, " + here.stdString() +
            ", here");
}

TEST_F(HostileSourceTest, TypeOfNoModuleIsRefused) {
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    expectRefused(
        message(MessageKind::type, [](Out& out) { out << 0u << String("No::Such") << String("No") << Vel::U64(0x12); }),
        "no module here has the entity type 'No::Such'");
}

TEST_F(HostileSourceTest, EntitiesAreLimited) {
    Vel::StreamLimits limits;
    limits.entities = 2;
    Vel::AttrLogReplica small(Dir::newEntity("d"), {.path = {}, .wantsToWrite = false, .limits = limits});
    small.connected();
    small.input(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    small.input(message(MessageKind::type, [&](Out& out) {
        Vel::VelType const type = Vel::typeOf<Dir>();
        out << 0u << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
    }));
    for (U32 id = 1; id <= 3; ++id)
        small.input(message(MessageKind::announce, [&](Out& out) { out << id << 0u << 0u << String("d"); }));
    EXPECT_EQ(small.error(), "the source has too many entities");
    EXPECT_EQ(small.entities(), 2u);
}

TEST_F(HostileSourceTest, NothingIsTakenAfterAnError) {
    sendTypes();
    send(message(static_cast<MessageKind>(99)));
    send(message(MessageKind::value, [](Out& out) { out << 2u << 258u << 77u; }));
    EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->size(), 0u);
}

TEST_F(HostileSourceTest, EveryCutOfAMessageWaitsForTheRest) {
    sendTypes();
    Bytes const bytes = message(MessageKind::value, [](Out& out) { out << 2u << 258u << 5u; });
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        Vel::ptr_cast<Leaf>(root->entry("x"))->sizeIs(0);
        replica.input(std::span(bytes).first(cut));
        EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->size(), cut == bytes.size() ? 5u : 0u);
        EXPECT_EQ(replica.inputHeld(), cut == bytes.size() ? 0 : cut);
        replica.input(std::span(bytes).subspan(cut));
        EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->size(), 5u);
    }
}

// --- pings ---

TEST(StreamPeerTest, AnswersPingsAtAnyTime) {
    Pair pair(Dir::newEntity("d"));
    pair.connect();
    pair.reader->ping(5);
    pair.replica.ping(6);
    pair.run();
    EXPECT_EQ(pair.reader->pongs(), 1u);
    EXPECT_EQ(pair.replica.pongs(), 1u);
    EXPECT_EQ(pair.replica.state(), Vel::AttrLogReplica::State::synced);
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
