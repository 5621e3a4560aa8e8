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
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::MessageKind;
using Vel::NboAttrLog::Out;

Bytes message(
    MessageKind kind, std::function<void(Out&)> const& body = [](Out&) {}) {
    Vel::NboAttrLog::BufferSm sm;
    body(sm.begin(kind, 0));
    sm.commit();
    return {sm.bytes().begin(), sm.bytes().end()};
}

// --- lengths and other compact numbers ---

TEST(StreamNumberTest, SmallNumbersTakeFewBytes) {
    std::vector<std::pair<U32, char const*>> const cases{{0, "00"}, {63, "3f"}, {64, "4040"}, {258, "4102"},
        {16383, "7fff"}, {16384, "80004000"}, {(1u << 30) - 1, "bfffffff"}, {1u << 30, "c000000040000000"},
        {0xFFFFFFFF, "c0000000ffffffff"}};
    for (auto const& [number, bytes] : cases) {
        Out out;
        out << Compact{number};
        EXPECT_EQ(hex(out.bytes()), bytes);
        EXPECT_EQ(Vel::NboAttrLog::compactSize(number), out.size());
        In in(out.bytes());
        EXPECT_EQ(nextCompact(in), number);
        EXPECT_EQ(in.left(), 0u);
        for (std::size_t cut = 0; cut < out.size(); ++cut) {
            In less(out.bytes().first(cut));
            EXPECT_THROW(nextCompact(less), Vel::StreamException);
            EXPECT_EQ(less.offset(), 0u);
            EXPECT_EQ(Vel::NboAttrLog::messageLength(out.bytes().first(cut)).size, 0u);
        }
        EXPECT_EQ(Vel::NboAttrLog::messageLength(out.bytes()).length, number);
    }
}

TEST(StreamNumberTest, NumberInMoreBytesThanItNeedsIsTheSame) {
    for (std::size_t const size : {1u, 2u, 4u, 8u}) {
        U8 bytes[8];
        Vel::NboAttrLog::storeCompact(bytes, 5, size);
        In in(std::span<U8 const>(bytes).first(size));
        EXPECT_EQ(nextCompact(in), 5u);
        EXPECT_EQ(in.left(), 0u);
    }
}

TEST(StreamNumberTest, NumberOfMoreThan32BitsIsRefused) {
    U8 const bytes[]{0xC0, 0, 0, 1, 0, 0, 0, 0};
    In in(bytes);
    EXPECT_THROW(nextCompact(in), Vel::StreamException);
}

TEST(StreamNumberTest, MessageMayBeLongerThanWasSaidWhenItWasBegun) {
    for (std::size_t const said : {0u, 10u, 62u, 63u, 100u, 20000u})
        for (std::size_t const size : {0u, 62u, 63u, 64u, 1000u, 16382u, 16383u, 20000u}) {
            Vel::NboAttrLog::BufferSm sm;
            sm.begin(MessageKind::ping, 0);
            sm.commit();
            std::size_t const before = sm.size();
            Out& out = sm.begin(MessageKind::value, said);
            for (std::size_t i = 0; i < size; ++i) out << static_cast<U8>(i);
            sm.commit();
            auto const bytes = sm.bytes().subspan(before);
            auto const body = Vel::NboAttrLog::messageBody(bytes);
            ASSERT_EQ(body.size(), size) << said;
            EXPECT_EQ(Vel::NboAttrLog::messageLength(bytes).length, 1 + size);
            EXPECT_EQ(body.data()[-1], static_cast<U8>(MessageKind::value));
            for (std::size_t i = 0; i < size; ++i) ASSERT_EQ(body[i], static_cast<U8>(i));
        }
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
    return "03" + index + hex(out.bytes());
}

TEST_F(StreamBytesTest, SynchronisationIsTheseMessages) {
    EXPECT_EQ(sent(), (Strings{"02000100",                                         // welcome, read-only
                          typeBytes("00", "Vel::Dir", "Dir", Vel::typeOf<Dir>()),  //
                          "04010000"                                               // announce 1, the root
                          "0000000164",                                            // "d"
                          typeBytes("01", "Fixture::Leaf", "Fixtures", Vel::typeOf<Leaf>()),
                          "040201014102"  // announce 2 in 1.258
                          "0000000178"    // at "x"
                          "0000000178",   // name "x"
                          "060141020000000178"
                          "02",                  // keySet 1.258 "x" 2
                          "0502410200000007",    // value 2.258
                          "050241030000000000",  // value 2.259
                          "0502410400000002",    // pointer 2.260
                          "09"}));               // synced
}

TEST_F(StreamBytesTest, ChangesAreTheseMessages) {
    sent();
    leaf->sizeIs(8);
    EXPECT_EQ(sent(), Strings{"0502410200000008"});
    leaf->peerIs(nullptr);
    EXPECT_EQ(sent(), Strings{"0502410400000000"});
    Ptr<Leaf> const kept = leaf;
    root->entryDel("x");
    EXPECT_EQ(sent(), Strings{"070141020000000178"});
    root->entryIs(kept);
    EXPECT_EQ(sent(), Strings{"06014102000000017802"});
}

TEST_F(StreamBytesTest, DestroyedEntityIsGone) {
    sent();
    auto const other = Leaf::newEntity("y");
    root->entryIs(other);
    sent();
    Vel::EntityId const id = pair.source.adapter(*other)->id();
    EXPECT_EQ(id, 3u);
    root->entryDel("x");
    leaf->peerIs(nullptr);
    leaf = nullptr;
    EXPECT_EQ(sent(), (Strings{"070141020000000178", "0502410400000000", "0802"}));
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
    Vel::NboAttrLog::In in(Vel::NboAttrLog::messageBody(bytes).subspan(13));
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
        send(message(
            MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("d"); }));
        send(message(MessageKind::announce, [](Out& out) {
            out << Compact{2} << Compact{1} << Compact{1} << Compact{258} << String("x") << String("x");
        }));
        send(message(
            MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{258} << String("x") << Compact{2}; }));
        ASSERT_EQ(replica.error(), "");
    }
    void sendType(U32 index, Vel::VelType type) {
        send(message(MessageKind::type, [&](Out& out) {
            out << Compact{index} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
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
    sendTypes();
    expectRefused({0xbf, 0xff, 0xff, 0xff}, "a message of 1073741823 bytes, where at most 16777216 are taken");
    EXPECT_EQ(replica.inputHeld(), 0u);
}

TEST_F(HostileSourceTest, FirstMessageIsNoLongerThanAHello) {
    send({0x80, 0x01, 0x00, 0x00, 0x02});
    EXPECT_FALSE(replica.isClosing());
    replica.connected();
    expectRefused({0x80, 0x01, 0x00, 0x01}, "a message of 65537 bytes, where at most 65536 are taken");
}

TEST_F(HostileSourceTest, NothingOfTheLastConnectionHelpsTheNext) {
    sendTypes();
    replica.refuse("it has seen enough");
    EXPECT_TRUE(replica.hasRefused());
    replica.closed("");
    replica.connected();
    EXPECT_FALSE(replica.hasRefused());
    EXPECT_FALSE(replica.isGreeted());
    expectRefused({0x80, 0x01, 0x00, 0x01}, "a message of 65537 bytes, where at most 65536 are taken");
}

TEST_F(HostileSourceTest, MessageAsLongAsTheLimitIsTakenAndNoneLonger) {
    Bytes const welcome = message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; });
    ASSERT_EQ(welcome.size(), 5u);  // of which 4 behind the length
    for (std::size_t const limit : {3u, 4u}) {
        Vel::StreamLimits limits;
        limits.frame = limit;
        Vel::AttrLogReplica small(Dir::newEntity("d"), {.path = {}, .wantsToWrite = false, .limits = limits});
        small.connected();
        small.input(welcome);
        EXPECT_EQ(small.messagesIn(), limit == 4 ? 1u : 0u);
        EXPECT_EQ(small.error(), limit == 4 ? "" : "a message of 4 bytes, where at most 3 are taken");
    }
}

TEST_F(HostileSourceTest, LengthIsOf62BitsAtMost) {
    sendTypes();
    send({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
    EXPECT_FALSE(replica.isClosing());
    expectRefused({0xff}, "a message of 4611686018427387903 bytes, where at most 16777216 are taken");
    EXPECT_EQ(replica.inputHeld(), 0u);
}

TEST_F(HostileSourceTest, KindThatNobodyKnowsIsRefusedBeforeItsMessageIsThere) {
    expectRefused({0x47, 0x45, 0x54}, "no message is of kind 84");
}

TEST_F(HostileSourceTest, NothingIsReadBehindALengthThatEndsTheInput) {
    Bytes bytes = message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; });
    bytes.insert(bytes.end(), {7, 0xff});  // the length of another message; then what has not come
    replica.input(std::span(bytes).first(bytes.size() - 1));
    EXPECT_EQ(replica.error(), "");
    EXPECT_EQ(replica.inputHeld(), 1u);
}

TEST_F(HostileSourceTest, MessageWithoutAKindIsRefused) { expectRefused({0, 0, 0, 0}, "a message without a kind"); }

TEST_F(HostileSourceTest, UnknownKindIsRefused) {
    sendTypes();
    expectRefused(message(static_cast<MessageKind>(99)), "a source sends no message of kind 99");
}

TEST_F(HostileSourceTest, EntityThatWasNotAnnouncedIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << Compact{9} << Compact{258} << 1u; }),
        "entity 9 was not announced");
}

TEST_F(HostileSourceTest, EntityIsAnnouncedOnce) {
    sendTypes();
    expectRefused(
        message(MessageKind::announce, [](Out& out) { out << Compact{2} << Compact{1} << Compact{0} << String("y"); }),
        "entity 2 can't be announced");
}

TEST_F(HostileSourceTest, AttributeThatTheTypeHasNotIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{261} << 1u; }),
        "Fixture::Leaf has no value or pointer 261");
}

TEST_F(HostileSourceTest, PlaceThatIsNoneIsRefused) {
    for (U32 const attribute : {258u, 1000u}) {
        replica.connected();
        sendTypes();
        send(message(MessageKind::keySet, [&](Out& out) { out << Compact{2} << Compact{attribute} << Compact{2}; }));
        EXPECT_EQ(replica.error(), Vel::format("Fixture::Leaf has no references at %u", attribute));
    }
}

TEST_F(HostileSourceTest, ValueThatIsTooLongChangesNothing) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{258} << 1u << U8(0); }),
        "a value is followed by bytes that are not its own");
}

TEST_F(HostileSourceTest, ValueThatIsTooShortChangesNothing) {
    sendTypes();
    send(message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{259} << 1u; }));
    EXPECT_TRUE(replica.isClosing());
    EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->version(), Fixture::Version());
}

TEST_F(HostileSourceTest, PointerToAnEntityOfAnotherTypeIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{260} << 1u; }),
        "an entity of type Vel::Dir came where Fixture::Leaf belongs");
}

TEST_F(HostileSourceTest, MemberIsKeptUnderItsOwnNameOnly) {
    sendTypes();
    expectRefused(
        message(MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{258} << String("y") << Compact{2}; }),
        "a member's name is not its key");
}

TEST_F(HostileSourceTest, WhatNoSourceSaysIsRefusedByName) {
    std::vector<std::pair<Bytes, std::string>> const cases{
        {message(MessageKind::synced, [](Out& out) { out << U8(0); }), "a message with bytes behind its end"},
        {message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }),
            "a source sends no message of kind 2"},
        {message(MessageKind::type,
             [](Out& out) {
                 Vel::VelType const type = Vel::typeOf<Dir>();
                 out << Compact{0} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
             }),
            "type 0 is there already"},
        {message(MessageKind::announce, [](Out& out) { out << Compact{0} << Compact{1} << Compact{0} << String("y"); }),
            "entity 0 can't be announced"},
        {message(MessageKind::announce, [](Out& out) { out << Compact{3} << Compact{7} << Compact{0} << String("y"); }),
            "an entity of a type that was not told of"},
        {message(
             MessageKind::announce, [](Out& out) { out << Compact{3} << Compact{1} << Compact{2} << Compact{258}; }),
            "Fixture::Leaf has no references at 258"},
        {message(
             MessageKind::announce, [](Out& out) { out << Compact{3} << Compact{1} << Compact{1} << Compact{300}; }),
            "Vel::Dir has no references at 300"},
        {message(MessageKind::keySet, [](Out& out) { out << Compact{2} << Compact{260} << Compact{2}; }),
            "a key of what is no collection"},
        {message(MessageKind::keyDel, [](Out& out) { out << Compact{2} << Compact{260}; }),
            "a key of what is no collection"},
        {message(MessageKind::keysAgain, [](Out& out) { out << Compact{2} << Compact{258}; }),
            "Fixture::Leaf has no collection 258"},
        {message(MessageKind::keysEnd, [](Out& out) { out << Compact{1} << Compact{300}; }),
            "Vel::Dir has no collection 300"},
        {message(MessageKind::keysEnd, [](Out& out) { out << Compact{1} << Compact{258}; }),
            "the end of keys that did not come again"},
        {message(MessageKind::gone, [](Out& out) { out << Compact{1}; }), "the root can't go"},
        {message(MessageKind::gone, [](Out& out) { out << Compact{9}; }), "entity 9 was not announced"},
    };
    for (auto const& [bytes, error] : cases) {
        replica.connected();
        takeOutput(replica);
        sendTypes();
        expectRefused(bytes, error);
    }
}

TEST_F(HostileSourceTest, MessageWithBytesBehindItsEndIsRefused) {
    std::vector<Bytes> const cases{
        message(MessageKind::type,
            [](Out& out) { out << Compact{2} << String("Vel::Dir") << String("Dir") << Vel::U64(1); }),
        message(MessageKind::announce, [](Out& out) { out << Compact{3} << Compact{1} << Compact{0} << String("y"); }),
        message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{260} << U32(2); }),
        message(MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{258} << String("x") << Compact{2}; }),
        message(MessageKind::keyDel, [](Out& out) { out << Compact{1} << Compact{258} << String("x"); }),
        message(MessageKind::gone, [](Out& out) { out << Compact{2}; }),
        message(MessageKind::synced),
        message(MessageKind::keysAgain, [](Out& out) { out << Compact{1} << Compact{258}; }),
        message(MessageKind::keysEnd, [](Out& out) { out << Compact{1} << Compact{258}; }),
    };
    for (Bytes bytes : cases) {
        replica.connected();
        sendTypes();
        bytes.front() = static_cast<U8>(bytes.front() + 1);  // the length, which is below 64
        bytes.push_back(0);
        expectRefused(bytes, "a message with bytes behind its end");
    }
    replica.connected();
    expectRefused(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false << U8(0); }),
        "a message with bytes behind its end");
}

TEST_F(HostileSourceTest, SynchronisedMayBeSaidAgainAndTellsNobody) {
    unsigned told = 0;
    replica.onStateIs([&](Vel::AttrLogReplica::State state) { told += state == Vel::AttrLogReplica::State::synced; });
    sendTypes();
    for (int i = 0; i < 3; ++i) send(message(MessageKind::synced));
    EXPECT_EQ(replica.state(), Vel::AttrLogReplica::State::synced);
    EXPECT_EQ(told, 1u);
}

TEST_F(HostileSourceTest, AnotherVersionOfTheProtocolIsRefused) {
    expectRefused(message(MessageKind::welcome, [](Out& out) { out << Vel::U16(2) << false; }),
        "the source speaks version 2 of the protocol");
}

TEST_F(HostileSourceTest, TypesAreLimited) {
    Vel::StreamLimits limits;
    limits.types = 1;
    Vel::AttrLogReplica small(root, {.path = {}, .wantsToWrite = false, .limits = limits});
    small.connected();
    small.input(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    U32 index = 0;
    for (Vel::VelType const type : {Vel::typeOf<Dir>(), Vel::typeOf<Leaf>()})
        small.input(message(MessageKind::type, [&](Out& out) {
            out << Compact{index++} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
        }));
    EXPECT_EQ(small.error(), "the source has too many types");
}

// Of a type that takes more than a name, as the root and below it.
TEST_F(HostileSourceTest, EntityThatCannotBeMadeIsRefused) {
    auto const place = Dir::newEntity("");
    for (U32 const id : {1u, 3u}) {
        Vel::AttrLogReplica other(place, "copy", {});
        other.connected();
        other.input(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
        other.input(message(MessageKind::type, [](Out& out) {
            Vel::VelType const type = Vel::typeOf<Fixture::Demanding>();
            out << Compact{0} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
        }));
        ASSERT_EQ(other.error(), "");
        other.input(message(MessageKind::announce, [&](Out& out) { out << Compact{id} << Compact{0} << Compact{0}; }));
        EXPECT_EQ(other.error(), "Fixture::Demanding can't be created");
        EXPECT_EQ(place->entries(), 0u);
    }
}

TEST_F(HostileSourceTest, TypeWithAnotherFingerprintIsRefusedByName) {
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    String const here = Vel::format("%016lx", Vel::typeOf<Dir>().moduleFingerprint());
    expectRefused(message(MessageKind::type,
                      [](Out& out) { out << Compact{0} << String("Vel::Dir") << String("Dir") << Vel::U64(0x12); }),
        "Vel::Dir comes from module Dir, fingerprint 0000000000000012, at the server and from Dir, " +
            here.stdString() + ", at the client");
}

TEST_F(HostileSourceTest, TypeThatIsNoEntityIsRefused) {
    sendTypes();
    expectRefused(message(MessageKind::type,
                      [](Out& out) {
                          Vel::VelType const type = Vel::typeOf<Fixture::Version>();
                          out << Compact{2} << String(type.name()) << String(type.moduleName())
                              << type.moduleFingerprint();
                      }),
        "no module of the client has the entity type 'Fixture::Version'");
}

TEST_F(HostileSourceTest, EntityBelowThatCannotBeMadeIsRefused) {
    sendTypes();
    sendType(2, Vel::typeOf<Fixture::Demanding>());
    expectRefused(message(MessageKind::announce, [](Out& out) { out << Compact{3} << Compact{2} << Compact{0}; }),
        "Fixture::Demanding can't be created");
}

TEST_F(HostileSourceTest, TypeOfNoModuleIsRefused) {
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    expectRefused(message(MessageKind::type,
                      [](Out& out) { out << Compact{0} << String("No::Such") << String("No") << Vel::U64(0x12); }),
        "no module of the client has the entity type 'No::Such'");
}

TEST_F(HostileSourceTest, NamesAreCutAndCleanedInErrors) {
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    std::string const name = "\x1b[2J" + std::string(5'000'000, 'x');
    expectRefused(message(MessageKind::type,
                      [&](Out& out) { out << Compact{0} << String(name) << String("No") << Vel::U64(0x12); }),
        "no module of the client has the entity type '\\x1b[2J" + std::string(246, 'x') + "...'");
}

TEST_F(HostileSourceTest, NameOfAModuleIsCutAndCleanedInErrors) {
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    String const here = Vel::format("%016lx", Vel::typeOf<Dir>().moduleFingerprint());
    String const module(std::string(5'000'000, 'x'));
    expectRefused(message(MessageKind::type,
                      [&](Out& out) { out << Compact{0} << String("Vel::Dir") << module << Vel::U64(0x12); }),
        "Vel::Dir comes from module " + std::string(253, 'x') +
            "..., fingerprint 0000000000000012, at the server and from Dir, " + here.stdString() + ", at the client");
}

TEST_F(HostileSourceTest, RefusalIsCutAndCleaned) {
    std::string const reason = "\x1b[2J" + std::string(5'000'000, 'x');
    send(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    expectRefused(message(MessageKind::refused, [&](Out& out) { out << String(reason); }),
        "refused: \\x1b[2J" + std::string(246, 'x') + "...");
}

TEST_F(HostileSourceTest, EntitiesAreLimited) {
    Vel::StreamLimits limits;
    limits.entities = 2;
    Vel::AttrLogReplica small(Dir::newEntity("d"), {.path = {}, .wantsToWrite = false, .limits = limits});
    small.connected();
    small.input(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; }));
    small.input(message(MessageKind::type, [&](Out& out) {
        Vel::VelType const type = Vel::typeOf<Dir>();
        out << Compact{0} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
    }));
    for (U32 id = 1; id <= 3; ++id)
        small.input(message(
            MessageKind::announce, [&](Out& out) { out << Compact{id} << Compact{0} << Compact{0} << String("d"); }));
    EXPECT_EQ(small.error(), "the source has too many entities");
    EXPECT_EQ(small.entities(), 2u);
}

TEST_F(HostileSourceTest, NothingIsTakenAfterAnError) {
    sendTypes();
    send(message(static_cast<MessageKind>(99)));
    send(message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{258} << 77u; }));
    EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->size(), 0u);
}

TEST_F(HostileSourceTest, EveryCutOfAMessageWaitsForTheRest) {
    sendTypes();
    Bytes const bytes = message(MessageKind::value, [](Out& out) { out << Compact{2} << Compact{258} << 5u; });
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        Vel::ptr_cast<Leaf>(root->entry("x"))->sizeIs(0);
        replica.input(std::span(bytes).first(cut));
        EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->size(), cut == bytes.size() ? 5u : 0u);
        EXPECT_EQ(replica.inputHeld(), cut == bytes.size() ? 0 : cut);
        replica.input(std::span(bytes).subspan(cut));
        EXPECT_EQ(Vel::ptr_cast<Leaf>(root->entry("x"))->size(), 5u);
    }
}

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
    Bytes const write = message(MessageKind::write, [](Out& out) { out << Compact{1} << Compact{258}; });
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
    reader->input(message(MessageKind::write, [](Out& out) { out << Compact{99} << Compact{258} << 1u; }));
    EXPECT_EQ(reader->error(), "");
}

TEST(HostileReaderTest, WriteToWhatIsNoValueIsRefused) {
    Vel::AttrLogSource::Options options;
    options.mayWrite = true;
    Vel::AttrLogSource source(Leaf::newEntity("x"), options);
    for (U32 const attribute : {260u, 300u}) {  // a pointer, and none at all
        auto const reader = source.newReader();
        reader->input(helloThatWrites());
        reader->input(message(MessageKind::write, [&](Out& out) { out << Compact{1} << Compact{attribute} << 1u; }));
        EXPECT_EQ(reader->error(), Vel::format("Fixture::Leaf has no value attribute %u", attribute));
    }
}

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
    Bytes const large = message(MessageKind::write, [](Out& out) {
        out << Compact{1000} << Compact{258};
        out.append(1'000'000);
    });
    std::span<Vel::U8 const> const bytes = large;
    pair.reader->input(bytes.first(10));
    EXPECT_LE(pair.reader->held(), before + 10);
    pair.reader->input(bytes.subspan(10, 600'000));
    EXPECT_LE(pair.reader->held(), before + large.size());
    EXPECT_GE(pair.reader->held(), before + 600'010);
    pair.reader->input(bytes.subspan(600'010));
    EXPECT_EQ(pair.reader->error(), "");
    EXPECT_EQ(pair.reader->held(), before);
}

// Up to 4 KiB of room are kept for the next message that comes in parts, and no more.
TEST(StreamPeerTest, RoomOfAMessageThatCameInPartsIsKeptUnlessItIsLarge) {
    for (std::size_t const size : {4096u, 4097u}) {
        Pair pair(Dir::newEntity("d"));
        pair.connect();
        pair.run();
        std::size_t const before = pair.reader->held();
        Bytes const bytes = message(MessageKind::write, [&](Out& out) {
            out << Compact{63} << Compact{63};
            out.append(size - 5);  // behind a length of two bytes, the kind and these two
        });
        ASSERT_EQ(bytes.size(), size);
        pair.reader->input(std::span(bytes).first(3000));
        pair.reader->input(std::span(bytes).subspan(3000));
        EXPECT_EQ(pair.reader->error(), "");
        EXPECT_EQ(pair.reader->held() - before, size == 4096 ? size : 0);
    }
}

// What an output has room for is memory, also when all of it was taken.
TEST(StreamPeerTest, RoomThatIsKeptForTheNextOutputIsHeld) {
    auto const root = Dir::newEntity("d");
    for (int i = 0; i < 5000; ++i) root->entryIs(Leaf::newEntity(Vel::format("leaf%d", i)));
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
