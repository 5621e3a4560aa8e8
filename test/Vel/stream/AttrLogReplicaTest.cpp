#include "Vel/stream/AttrLogReplica.h"

#include "StreamTools.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "test/Vel/describe/Fixtures.h"

#include <malloc.h>

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U8;
using Vel::NboAttrLog::Compact;

TEST(StreamHelloTest, SaysWhoItIsAndWhatItWants) {
    Vel::AttrLogReplica replica(Dir::newEntity("place"), "copy", {.path = "/a", .wantsToWrite = true});
    EXPECT_FALSE(replica.wantsOutput());
    replica.connected();
    auto const bytes = takeOutput(replica);
    auto const text = messages(bytes).at(0);
    EXPECT_EQ(text.substr(0, 2 + 8 + 4 + 2 + 12), "01"
                                                  "56454c41"
                                                  "0002"
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

// --- what a source must not send ---

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
    expectRefused(message(MessageKind::welcome, [](Out& out) { out << Vel::U16(1) << false; }),
        "the source speaks version 1 of the protocol, and this reader version 2");
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
    EXPECT_EQ(replica.fault(), Vel::StreamFault::otherVersion);
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
    EXPECT_EQ(replica.fault(), Vel::StreamFault::noSuchModule);
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

TEST_F(HostileSourceTest, EntitiesThatComeAndGoTakeNoMemory) {
    sendTypes();
    auto const comeAndGo = [&](U32 times) {
        for (U32 i = 0; i < times; ++i) {
            send(message(
                MessageKind::announce, [](Out& out) { out << Compact{3} << Compact{1} << Compact{0} << String("y"); }));
            send(message(MessageKind::gone, [](Out& out) { out << Compact{3}; }));
        }
    };
    comeAndGo(1000);
    auto const before = mallinfo2();
    comeAndGo(100'000);
    auto const after = mallinfo2();
    EXPECT_EQ(replica.error(), "");
    EXPECT_LE(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 10'000);
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

}  // namespace
