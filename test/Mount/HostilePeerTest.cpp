#include "MountFixture.h"

#include <deque>
#include <random>

#include <malloc.h>

namespace {

using namespace MountTest;

// Peers that are broken, hostile, or leave at the worst moment. Whatever they do, the next one is served.
class HostilePeerTest : public SharedTest {
protected:
    void SetUp() override {
        for (int i = 0; i < 20; ++i) generation(served, Vel::format("g%d", i).charPtr(), static_cast<U32>(i + 1));
        Server::Options options = quickServer();
        options.source.mayWrite = true;
        options.source.limits.frame = 100'000;
        server.emplace(loop, served, options);
        server->listen(address());
    }
    void TearDown() override {
        ASSERT_TRUE(until([&] { return server->connections() == 0; }));
        Client client(loop, address(), here, "copy", quick());
        EXPECT_TRUE(client.sync(enough)) << client.error();
        EXPECT_EQ(idAt("copy/g19"), 20u);
    }
    // All of it, while the server takes it.
    void sendAll(RawPeer& peer, std::span<U8 const> bytes) {
        untilSeen([&] {
            bytes = bytes.subspan(peer.send(bytes));
            return bytes.empty() || peer.isClosed();
        });
    }
    std::string lastError() {
        EXPECT_TRUE(until([&] { return server->connections() == 0 && !server->status()->error().empty(); }));
        return server->status()->error().stdString();
    }
    static Message message(std::initializer_list<int> bytes) {
        Message made(bytes.size() + 1);
        made[0] = static_cast<U8>(bytes.size());
        std::transform(bytes.begin(), bytes.end(), made.begin() + 1, [](int b) { return static_cast<U8>(b); });
        return made;
    }

    // The first bytes of a write that is one byte longer. The server's room for it is never more than that: with a longer
    // one the room, at most twice what has come, would depend on how the bytes are cut on their way.
    static Message partOfWrite(std::size_t size) {
        std::size_t const length = size + 1 - 4;  // of the message behind its head
        Message made(size);
        for (std::size_t i = 0; i < 4; ++i) made[i] = static_cast<U8>(length >> 8 * (3 - i));
        made[0] |= 0x80;
        made[4] = 11;
        return made;
    }

    std::optional<Server> server;
};

TEST_F(HostilePeerTest, GarbageEndsTheConnection) {
    std::mt19937 random(3);
    for (int round = 0; round < 150; ++round) {
        RawPeer peer(address());
        Message bytes(random() % 3000);
        for (auto& b : bytes) b = static_cast<U8>(random());
        if (round % 3 == 1 && !bytes.empty()) bytes[0] &= 0x7F;  // a message that is short enough
        if (round % 3 == 2) {                                    // behind a hello
            Message hello = helloFor("", true);
            if (bytes.size() > 2) {
                bytes[0] = static_cast<U8>(0x40 + random() % 10);
                bytes[2] = static_cast<U8>(1 + random() % 13);
            }
            bytes.insert(bytes.begin(), hello.begin(), hello.end());
        }
        sendAll(peer, bytes);
        peer.finish();
        ASSERT_TRUE(untilSeen([&] { return peer.isClosed(); })) << round;
    }
}

TEST_F(HostilePeerTest, AHelloWithAnyByteChangedDoesNoHarm) {
    Message const hello = helloFor("g3");
    for (std::size_t i = 0; i < hello.size(); ++i) {
        Message bytes = hello;
        bytes[i] ^= static_cast<U8>(1u << i % 8);
        RawPeer peer(address());
        sendAll(peer, bytes);
        peer.finish();
        ASSERT_TRUE(untilSeen([&] { return peer.isClosed(); })) << i;
    }
}

TEST_F(HostilePeerTest, APeerMayLeaveAfterAnyByteOfItsHello) {
    Message const hello = helloFor("g3");
    for (std::size_t size = 0; size <= hello.size(); ++size) {
        RawPeer peer(address());
        ASSERT_EQ(peer.send({hello.data(), size}), size);
        if (size % 3 == 0) loop.poll();
    }
    EXPECT_TRUE(until([&] { return server->connections() == 0 && server->status()->accepted() == hello.size() + 1; }));
}

TEST_F(HostilePeerTest, APeerThatFinishesWithinAMessageIsAnError) {
    Message const hello = helloFor("g3");
    RawPeer peer(address());
    ASSERT_EQ(peer.send({hello.data(), hello.size() - 1}), hello.size() - 1);
    peer.finish();
    EXPECT_TRUE(untilSeen([&] { return peer.isClosed(); }));
    EXPECT_EQ(lastError().substr(lastError().find(": ") + 2), "the connection was cut in the middle of a message");
}

TEST_F(HostilePeerTest, APeerThatFinishesBetweenMessagesIsNone) {
    RawPeer peer(address());
    Message const hello = helloFor("g3");
    ASSERT_EQ(peer.send(hello), hello.size());
    ASSERT_TRUE(untilSeen([&] { return !peer.received().empty(); }));
    peer.finish();
    EXPECT_TRUE(untilSeen([&] { return peer.isClosed(); }));
    EXPECT_TRUE(until([&] { return server->connections() == 0; }));
    EXPECT_EQ(server->status()->failed(), 0u);
}

TEST_F(HostilePeerTest, AHelloByteByByteIsAHello) {
    RawPeer peer(address());
    for (U8 const byte : helloFor("g3")) {
        ASSERT_EQ(peer.send({&byte, 1}), 1u);
        loop.poll();
    }
    EXPECT_TRUE(untilSeen([&] { return peer.received().ends_with("\1\11"); })) << "synchronised";
}

TEST_F(HostilePeerTest, WhatIsWrongIsToldAndCounted) {
    struct Case {
        Message bytes;
        char const* error;
    };
    Message const huge{0x80, 1, 0x86, 0xa1};
    Message const hello = helloFor("");
    Message hugeLater = hello;
    hugeLater.insert(hugeLater.end(), huge.begin(), huge.end());
    Message twice = hello;
    twice.insert(twice.end(), hello.begin(), hello.end());
    Case const cases[] = {
        {{0}, "a message without a kind"},
        {huge, "a message of 100001 bytes, where at most 65536 are taken"},
        {hugeLater, "a message of 100001 bytes, where at most 100000 are taken"},
        {message({12, 0, 0, 0, 1}), "no message of kind 12 comes first"},
        {message({13, 0, 0, 0, 1}), "no message of kind 13 comes first"},
        {message({3}), "a reader sends no message of kind 3 now"},
        {message({200}), "a reader sends no message of kind 200 now"},
        {message({1, 0, 0, 0, 0}), "not an attribute log"},
        {message({10, 0, 0, 0, 2, 'n', 'o'}), "refused: no"},
        {twice, "a reader sends no message of kind 1 now"},
    };
    U64 failed = 0;
    for (auto const& one : cases) {
        RawPeer peer(address());
        sendAll(peer, one.bytes);
        ASSERT_TRUE(untilSeen([&] { return peer.isClosed(); })) << one.error;
        peer.close();
        ++failed;
        ASSERT_TRUE(until([&] { return server->status()->failed() == failed; })) << one.error;
        EXPECT_NE(lastError().find(one.error), std::string::npos) << lastError() << ", where expected: " << one.error;
    }
}

// The connection ends after a moment although the peer neither reads nor leaves.
TEST_F(HostilePeerTest, ARefusedPeerThatSendsOnIsLeft) {
    RawPeer peer(address());
    sendAll(peer, message({3}));
    Message const more(1000, 7);
    EXPECT_TRUE(untilSeen([&] {
        peer.send(more);
        return server->connections() == 0 && server->status()->accepted() == 1;
    }));
}

TEST_F(HostilePeerTest, AResetInTheMiddleOfEverythingIsAnEnd) {
    Message const hello = helloFor("");
    for (int round = 0; round < 20; ++round) {
        Address const place =
            round == 0
                ? server->listen("tcp:127.0.0.1:0")
                : Address(server->status()->address().view().substr(server->status()->address().view().find("tcp:")));
        RawPeer peer(place);
        ASSERT_TRUE(peer.isConnected());
        peer.send(hello);
        for (int i = 0; i < round; ++i) loop.poll();
        peer.close();  // what it has not read resets the connection
    }
}

// --- memory ---

// Bytes that are allocated now; 0 where a sanitizer allocates.
std::size_t allocated() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 0;
#else
    auto const info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

// A peer that takes nothing costs the server no more for any number of changes.
TEST_F(HostilePeerTest, APeerThatNeverReadsCostsNoQueue) {
    auto const many = Dir::newEntity("many");
    served->entryIs(many);
    std::vector<Ptr<GenerationEntity>> changing;
    for (int i = 0; i < 2000; ++i) changing.push_back(generation(many, Vel::format("g%d", i).charPtr(), 1));
    std::deque<RawPeer> peers;
    Message const hello = helloFor("");
    for (int i = 0; i < 4; ++i) {
        peers.emplace_back(address(), 4096);
        ASSERT_EQ(peers.back().send(hello), hello.size());
    }
    Client reading(loop, address(), here, "reading", quick());
    ASSERT_TRUE(reading.sync(enough));
    U32 id = 1;
    auto const change = [&](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            ++id;
            for (auto const& one : changing) one->generationIs({id, true});
            loop.poll();
        }
    };
    change(100);
    std::size_t const before = allocated();
    change(1000);  // some 36 MB for each peer
    EXPECT_LT(allocated(), before + (8u << 20));
    EXPECT_TRUE(until([&] { return idAt("reading/many/g1999") == id; })) << "others do not notice";
    EXPECT_TRUE(until([&] { return server->status()->coalesced() != 0; }));
    peers.clear();
    here->entryDel("reading");
}

// Pings are answered; of answers that nobody takes there are a few thousand bytes, wherever they wait.
TEST_F(HostilePeerTest, APeerThatPingsAndNeverReadsIsLeft) {
    RawPeer peer(address(), 4096);
    sendAll(peer, helloFor(""));
    ASSERT_TRUE(until([&] { return server->connections() == 1; }));
    std::size_t const before = allocated();
    Message pings;
    for (int i = 0; i < 1000; ++i) {
        Message const ping = message({12, 0, 0, 0, 1});
        pings.insert(pings.end(), ping.begin(), ping.end());
    }
    bool isLeft = false;
    for (int i = 0; i < 5000 && !isLeft; ++i) {
        std::span<U8 const> rest = pings;
        EXPECT_TRUE(untilSeen([&] {
            rest = rest.subspan(peer.send(rest));
            isLeft = server->connections() == 0;
            return rest.empty() || isLeft;
        }));
        EXPECT_LT(allocated(), before + 200'000);
    }
    EXPECT_TRUE(until([&] { return server->connections() == 0; }));
    EXPECT_NE(lastError().find("pings come faster than their answers are taken"), std::string::npos) << lastError();
}

// What 16 peers announce is 64 times what the server has for all of them.
TEST_F(HostilePeerTest, PartsOfMessagesAreBoundedForAllPeersTogether) {
    auto const several = Dir::newEntity("several");
    Server::Options options = quickServer();
    options.source.limits.memory = 1u << 20;
    options.source.limits.frame = 4u << 20;
    Server small(loop, several, options);
    small.listen(address("small"));
    std::size_t const before = allocated();
    std::deque<RawPeer> peers;
    Message const hello = helloFor("");
    Message const part = partOfWrite(300'000);
    for (int i = 0; i < 16; ++i) {
        peers.emplace_back(address("small"));
        sendAll(peers.back(), hello);
        sendAll(peers.back(), part);
        EXPECT_LT(allocated(), before + (3u << 20));
    }
    ASSERT_TRUE(until([&] { return small.status()->refused() >= 13; }));
    EXPECT_GE(small.connections(), 1u);
    EXPECT_TRUE(small.status()->error().view().ends_with(
        "the connections of the server hold more than 1048576 bytes, and this one most of them"))
        << small.status()->error();
    EXPECT_EQ(small.status()->failed(), 0u);
}

// The one that holds most goes, not the one whose byte was too much.
TEST_F(HostilePeerTest, WhoeverHoldsMostGoesFirst) {
    Server::Options options = quickServer();
    options.source.limits.memory = 1u << 20;
    Server small(loop, served, options);
    small.listen(address("small"));
    RawPeer greedy(address("small"));
    RawPeer modest(address("small"));
    for (RawPeer* const peer : {&greedy, &modest}) sendAll(*peer, helloFor(""));
    sendAll(greedy, partOfWrite(900'000));
    sendAll(modest, partOfWrite(200'000));
    ASSERT_TRUE(untilSeen([&] { return greedy.isClosed(); }));
    EXPECT_NE(greedy.received().find("and this one most of them"), std::string::npos) << "it is told";
    EXPECT_FALSE(modest.isClosed());
    EXPECT_EQ(small.connections(), 1u);
}

// What has been given back counts no more.
TEST_F(HostilePeerTest, MemoryIsThereForTheNext) {
    Server::Options options = quickServer();
    options.source.limits.memory = 1u << 20;
    Server small(loop, served, options);
    small.listen(address("small"));
    Message const part = partOfWrite(900'000);
    for (int i = 0; i < 5; ++i) {
        RawPeer peer(address("small"));
        sendAll(peer, helloFor(""));
        sendAll(peer, part);
        peer.close();
        ASSERT_TRUE(until([&] { return small.connections() == 0; }));
    }
    EXPECT_TRUE(until([&] { return small.status()->failed() == 5; }));
    EXPECT_EQ(small.status()->refused(), 0u);
}

// A status is what is served, too; so are those who mount it.
TEST_F(HostilePeerTest, TextsOfAPeerAreCutBeforeTheyAreServed) {
    served->entryIs(server->status());
    Client client(loop, address(), here, "status", quick("server"));
    ASSERT_TRUE(client.sync(enough)) << client.error();
    auto const copy = Vel::ptr_cast<Mount::ServerStatus>(here->entry("status"));
    RawPeer peer(address());
    sendAll(peer, helloFor(String("\x1b" + std::string(60'000, 'x'))));
    ASSERT_TRUE(until([&] { return !copy->error().empty(); }));
    std::string_view const error = copy->error();
    EXPECT_EQ(error.substr(error.find(": ") + 2), "there is nothing at '\\x1b" + std::string(249, 'x') + "...'");
    served->entryDel("server");
    here->entryDel("status");
}

// --- servers ---

// A client at a server that says anything at all: an error, and another attempt.
TEST_F(HostilePeerTest, AClientSurvivesAServerThatSaysAnything) {
    int const listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    Address const place = address("raw");
    place.path().view().copy(where.sun_path, sizeof where.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
    ASSERT_EQ(::listen(listener, 50), 0);

    // What a server really says, to be cut and changed.
    std::string said;
    {
        RawPeer peer(address());
        sendAll(peer, helloFor(""));
        ASSERT_TRUE(untilSeen([&] { return peer.received().ends_with("\1\11"); }));
        said = peer.received();
    }
    Client client(loop, place, here, "raw", quick());
    std::vector<String> errors;
    client.onErrorIs([&](String const& error) { errors.push_back(error); });
    std::mt19937 random(5);
    for (std::size_t round = 0; round < 120; ++round) {
        std::string bytes = said.substr(0, random() % (said.size() + 1));
        if (round % 2 == 1)
            for (int i = 0; i < 3 && !bytes.empty(); ++i) bytes[random() % bytes.size()] = static_cast<char>(random());
        int accepted = -1;
        ASSERT_TRUE(untilSeen([&] { return (accepted = ::accept(listener, nullptr, nullptr)) >= 0; }));
        say(accepted, bytes);
        loop.runFor(1ms);
        ::close(accepted);
        ASSERT_TRUE(untilSeen([&] { return errors.size() > round; })) << round;
    }
    ::close(listener);
    here->entryDel("raw");
}

}  // namespace
