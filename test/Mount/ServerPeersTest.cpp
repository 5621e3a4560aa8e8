#include "MountFixture.h"
#include "SystemFailures.h"

#include <deque>

#include <pwd.h>

namespace {

using namespace MountTest;

class ServerPeersTest : public SharedTest {
protected:
    std::unique_ptr<RawPeer> peer(std::string_view path = "", int bufferSize = 0) {
        auto made = std::make_unique<RawPeer>(address(), bufferSize);
        EXPECT_TRUE(made->isConnected());
        Message const hello = helloFor(String(path));
        EXPECT_EQ(made->send(hello), hello.size());
        return made;
    }
    // What a process of another user is told; empty when it got a copy.
    std::string toldToNobody(uid_t user = 65534) {
        Child child([&](int socket) {
            if (::setgid(user) != 0 || ::setuid(user) != 0) return say(socket, "can't be another user");
            Loop own;
            auto const place = Dir::newEntity("");
            Client client(own, address(), place, "copy", quick());
            if (!own.runUntil(
                    [&] { return client.state() == Client::State::synced || !client.error().empty(); }, enough))
                say(socket, "nothing happened");
            say(socket, client.error().view());
        });
        ::fcntl(child.socket(), F_SETFL, O_NONBLOCK);
        std::string told;
        bool isOver = false;
        EXPECT_TRUE(untilSeen([&] {
            char room[1024];
            ssize_t const got = ::read(child.socket(), room, sizeof room);
            if (got > 0) told.append(room, static_cast<std::size_t>(got));
            return isOver = got == 0 || (got < 0 && errno != EAGAIN);
        }));
        return told;
    }
    void everybodyReachesTheFolder() { ASSERT_EQ(::chmod(folder.path(".").charPtr(), 0711), 0); }
};

TEST_F(ServerPeersTest, AUserWhoIsNotAmongThoseNamedIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    everybodyReachesTheFolder();
    generation(served, "g", 1);
    Server::Options options = quickServer();
    options.peer.users = {"0", "54321"};
    Server server(loop, served, options);
    server.listen(address());
    std::string const told = toldToNobody();
    EXPECT_EQ(told, address().text() + ": refused: user nobody may not connect");
    EXPECT_TRUE(until([&] { return !server.status()->error().empty() && server.connections() == 0; }));
    EXPECT_EQ(server.status()->error(), "nobody: user nobody may not connect");
    EXPECT_EQ(server.status()->refused(), 1u);
}

TEST_F(ServerPeersTest, TheOwnUserIsRefusedWhenOthersAreNamed) {
    Server::Options options;
    options.peer.users = {"54321"};
    Server server(loop, served, options);
    server.listen(address());
    Client client(loop, address(), here, "copy", quick());
    ASSERT_TRUE(until([&] { return !client.error().empty() || client.state() == Client::State::synced; }));
    EXPECT_NE(client.error().view().find(": refused: user "), std::string_view::npos) << client.error();
    EXPECT_FALSE(here->entry("copy"));
}

TEST_F(ServerPeersTest, AUserWithoutANameIsCalledByNumber) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    everybodyReachesTheFolder();
    Server::Options options;
    options.peer.users = {"54321"};
    Server server(loop, served, options);
    server.listen(address());
    EXPECT_EQ(toldToNobody(54322), address().text() + ": refused: user 54322 may not connect");
    EXPECT_EQ(toldToNobody(54321), "");
}

TEST_F(ServerPeersTest, AUserWhoIsNamedIsServed) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    everybodyReachesTheFolder();
    Server::Options options;
    options.peer.users = {"nobody"};
    Server server(loop, served, options);
    server.listen(address());
    EXPECT_EQ(toldToNobody(), "");
    Client client(loop, address(), here, "copy", quick());
    EXPECT_TRUE(until([&] { return !client.error().empty(); })) << "root is refused when others are named";
    EXPECT_EQ(client.error(), address().text() + ": refused: user root may not connect");
}

// The file's mode keeps others out; without it the server does.
TEST_F(ServerPeersTest, NobodyButTheOwnUserIsServedUnlessNamed) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    everybodyReachesTheFolder();
    Server::Options options;
    options.socketMode = 0666;
    Server server(loop, served, options);
    server.listen(address());
    EXPECT_EQ(toldToNobody(), address().text() + ": refused: user nobody may not connect");
    ASSERT_EQ(::chmod(folder.path("socket").charPtr(), 0600), 0);
    EXPECT_EQ(toldToNobody(), address().text() + ": Permission denied (EACCES)");
}

TEST_F(ServerPeersTest, AClientLeavesAServerOfAnUnexpectedUser) {
    Server server(loop, served);
    server.listen(address());
    Client::Options options = quick();
    options.peer.users = {"54321"};
    Client client(loop, address(), here, "copy", options);
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    Vel::String const user(::getpwuid(::geteuid())->pw_name);
    EXPECT_EQ(client.error(), address().text() + ": user " + user + " serves there, who is not among those expected");
    EXPECT_FALSE(here->entry("copy"));
}

TEST_F(ServerPeersTest, AUserWhoDoesNotExistIsAnError) {
    Server::Options options;
    options.peer.users = {"no such user"};
    try {
        Server server(loop, served, options);
        ADD_FAILURE();
    } catch (Vel::RangeException const& error) {
        EXPECT_EQ(error.text(), "there is no user 'no such user' on this machine");
    }
}

TEST_F(ServerPeersTest, WhomTheSystemDoesNotTellIsNotLetIn) {
    Server server(loop, served, quickServer());
    server.listen(address());
    auto const stranger = peer();
    SystemFailure const failure("getsockopt", EOPNOTSUPP, 2);  // it is asked who connects, and once more who has most
    EXPECT_TRUE(untilSeen([&] { return stranger->isClosed(); }));
    EXPECT_NE(stranger->received().find("user 4294967295 may not connect"), std::string::npos);
}

TEST_F(ServerPeersTest, ConnectionsBeyondTheLimitAreTold) {
    Server::Options options = quickServer();
    options.connections = 2;
    Server server(loop, served, options);
    server.listen(address());
    std::deque<Client> clients;
    for (int i = 0; i < 2; ++i) {
        clients.emplace_back(loop, address(), here, Vel::format("copy%d", i), quick());
        ASSERT_TRUE(clients[static_cast<std::size_t>(i)].sync(enough));
    }
    Client third(loop, address(), here, "third", quick());
    ASSERT_TRUE(until([&] { return !third.error().empty(); }));
    EXPECT_EQ(third.error(), address().text() + ": refused: the server has 2 connections already");
    clients.pop_front();
    EXPECT_TRUE(third.sync(enough)) << "a place that has become free is given";
    EXPECT_EQ(clients.front().state(), Client::State::synced);
}

// Those that are being refused take nobody's place.
TEST_F(ServerPeersTest, RefusedConnectionsDoNotCount) {
    Server::Options options = quickServer();
    options.connections = 2;
    Server server(loop, served, options);
    server.listen(address());
    auto first = peer();
    auto const second = peer();
    ASSERT_TRUE(untilSeen([&] { return !first->received().empty() && !second->received().empty(); }));
    std::deque<std::unique_ptr<RawPeer>> refused;  // none of which closes
    for (int i = 0; i < 10; ++i) refused.push_back(peer());
    for (auto& one : refused) {
        ASSERT_TRUE(untilSeen([&] { return !one->received().empty(); }));
        EXPECT_NE(one->received().find("the server has 2 connections already"), std::string::npos);
    }
    first->close();
    ASSERT_TRUE(until([&] { return server.status()->connections() != 0 && server.connections() <= 11; }));
    auto const third = peer();
    ASSERT_TRUE(untilSeen([&] { return !third->received().empty(); }));
    EXPECT_EQ(third->received().substr(0, 4), std::string("\4\2\0\2", 4));
}

TEST_F(ServerPeersTest, AFloodOfConnectionsIsBounded) {
    Server::Options options = quickServer();
    options.newcomers = 4;
    Server server(loop, served, options);
    server.listen(address());
    std::deque<RawPeer> peers;
    for (int i = 0; i < 60; ++i) peers.emplace_back(address());
    ASSERT_TRUE(until([&] { return server.status()->accepted() == 60; }));
    EXPECT_EQ(server.connections(), 4u);
    EXPECT_TRUE(until([&] { return server.status()->refused() == 56; }));
    EXPECT_EQ(server.status()->failed(), 0u);
    for (std::size_t i = 0; i < 56; ++i) EXPECT_TRUE(untilSeen([&] { return peers[i].isClosed(); })) << i;
    for (std::size_t i = 56; i < 60; ++i) EXPECT_FALSE(peers[i].isClosed()) << i;
    EXPECT_NE(peers[0].received().find("too many connections say no hello: more than 4"), std::string::npos);
}

// Those that say nothing take no place of those that do.
TEST_F(ServerPeersTest, SilentConnectionsLockNobodyOut) {
    generation(served, "g", 1);
    Server::Options options = quickServer();
    options.connections = 2;
    options.newcomers = 3;
    Server server(loop, served, options);
    server.listen(address());
    std::deque<RawPeer> silent;
    for (int i = 0; i < 10; ++i) silent.emplace_back(address());
    ASSERT_TRUE(until([&] { return server.status()->accepted() == 10; }));
    Client client(loop, address(), here, "copy", quick());
    ASSERT_TRUE(client.sync(enough)) << client.error();
    for (int i = 0; i < 10; ++i) silent.emplace_back(address());
    ASSERT_TRUE(until([&] { return server.status()->accepted() >= 21; }));
    EXPECT_EQ(client.status()->connects(), 1u);
    EXPECT_EQ(server.connections(), 4u) << "those who have said hello stay";
}

// All clients of a server that is there again come at once, and more than it takes newcomers.
TEST_F(ServerPeersTest, ManyHonestClientsAtOnceAllGetIn) {
    generation(served, "g", 1);
    Server::Options options = quickServer();
    options.newcomers = 8;
    Server server(loop, served, options);
    server.listen(address());
    std::deque<Client> clients;
    for (int i = 0; i < 100; ++i) clients.emplace_back(loop, address(), here, Vel::format("copy%d", i), quick());
    for (auto& client : clients) EXPECT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(server.connections(), 100u);
    EXPECT_TRUE(until([&] { return server.backlog() == 0; }));
}

// A flood of one peer costs others nothing, not even those who came before it.
TEST_F(ServerPeersTest, ThePeerThatHasMostNewcomersLosesItsOldest) {
    Server::Options options = quickServer();
    options.newcomers = 4;
    Server server(loop, served, options);
    Address const tcp = server.listen("tcp:127.0.0.1:0");
    server.listen(address());
    RawPeer first(tcp);
    RawPeer second(tcp);
    ASSERT_TRUE(until([&] { return server.status()->accepted() == 2; }));
    std::deque<RawPeer> flood;
    for (int i = 0; i < 20; ++i) flood.emplace_back(address());
    ASSERT_TRUE(until([&] { return server.status()->accepted() == 22; }));
    EXPECT_FALSE(first.isClosed());
    EXPECT_FALSE(second.isClosed());
    EXPECT_FALSE(flood[19].isClosed());
    EXPECT_FALSE(flood[18].isClosed());
    EXPECT_TRUE(flood[17].isClosed());
}

// --- silence ---

TEST_F(ServerPeersTest, APeerThatDoesNotSayHelloIsLeft) {
    Server::Options options = quickServer();
    options.peer.helloTimeout = 20ms;
    Server server(loop, served, options);
    server.listen(address());
    RawPeer silent(address());
    Message const hello = helloFor("");
    RawPeer half(address());
    half.send({hello.data(), hello.size() - 1});
    EXPECT_TRUE(untilSeen([&] { return silent.isClosed() && half.isClosed(); }));
    EXPECT_EQ(silent.received(), "");
    EXPECT_TRUE(until([&] { return server.status()->failed() == 2; }));
    EXPECT_TRUE(server.status()->error().view().ends_with("not a word came within 0.02 s")) << server.status()->error();
}

// A hello that comes byte by byte for ever is none.
TEST_F(ServerPeersTest, BytesDoNotPutOffTheHello) {
    Server::Options options = quickServer();
    options.peer.helloTimeout = 50ms;
    Server server(loop, served, options);
    server.listen(address());
    Message hello{0x80, 0, 0xff, 0, 1};  // of 65280 bytes
    RawPeer peer(address());
    peer.send(hello);
    EXPECT_TRUE(untilSeen([&] {
        peer.send({hello.data() + 1, 1});
        return peer.isClosed();
    }));
    EXPECT_TRUE(until([&] { return server.status()->failed() == 1; }));
    EXPECT_TRUE(server.status()->error().view().ends_with("not a word came within 0.05 s")) << server.status()->error();
}

// That it sends, even what is asked for, is no sign that it takes anything.
TEST_F(ServerPeersTest, APeerThatSendsAndTakesNothingIsLeft) {
    for (int i = 0; i < 1000; ++i)
        generation(served, Vel::format("%01000d", i).charPtr(), 1);  // more than sockets hold
    Server::Options options = quickServer();
    options.peer.idleTimeout = 60ms;
    Server server(loop, served, options);
    server.listen(address());
    auto const taking = peer();
    auto const busy = peer("", 4096);
    Message const pong{5, 13, 0, 0, 0, 0};
    std::string error;
    EXPECT_TRUE(untilSeen([&] {
        busy->send(pong);
        taking->send(pong);
        taking->received();
        error = server.status()->error().stdString();
        return !error.empty();
    }));
    EXPECT_TRUE(error.ends_with("nothing was taken for 0.06 s")) << error;
    EXPECT_FALSE(taking->isClosed());
}

TEST_F(ServerPeersTest, APeerThatFallsSilentIsAskedAndThenLeft) {
    Server::Options options = quickServer();
    options.peer.idleTimeout = 60ms;
    Server server(loop, served, options);
    server.listen(address());
    auto const silent = peer();
    ASSERT_TRUE(untilSeen([&] { return silent->isClosed(); }));
    EXPECT_NE(silent->received().find(std::string("\0\0\0\5\14\0\0\0\0", 9)), std::string::npos) << "a ping";
    EXPECT_TRUE(until([&] { return server.status()->failed() == 1; }));
    EXPECT_TRUE(server.status()->error().view().ends_with("nothing came for 0.06 s")) << server.status()->error();
}

// Pings are answered by both sides; so a connection at which nothing happens stays, however long.
TEST_F(ServerPeersTest, ConnectionsWithoutChangesStay) {
    Server::Options options = quickServer();
    options.peer.idleTimeout = 300ms;
    Server server(loop, served, options);
    server.listen(address());
    Client::Options mine = quick();
    mine.peer.idleTimeout = 300ms;
    Client client(loop, address(), here, "copy", mine);
    ASSERT_TRUE(client.sync(enough));
    ASSERT_TRUE(until([&] { return client.replica().pongs() >= 4; }));
    EXPECT_EQ(client.status()->connects(), 1u);
    EXPECT_EQ(client.state(), Client::State::synced);
}

TEST_F(ServerPeersTest, AClientLeavesAServerThatIsStopped) {
    generation(served, "g", 1);
    Child child([&](int socket) {
        Loop own;
        Server server(own, served);
        server.listen(address());
        say(socket, "serving\n");
        own.run();
    });
    char room[8];
    ASSERT_EQ(::read(child.socket(), room, sizeof room), 8);
    Client::Options options = quick();
    options.peer.idleTimeout = 500ms;
    options.peer.helloTimeout = 500ms;
    Client client(loop, address(), here, "copy", options);
    std::vector<String> errors;
    client.onErrorIs([&](String const& error) { errors.push_back(error); });
    ASSERT_TRUE(client.sync(enough));
    child.signal(SIGSTOP);
    ASSERT_TRUE(until([&] { return errors.size() >= 2; }));
    EXPECT_EQ(errors[0], address().text() + ": nothing came for 0.5 s");
    EXPECT_EQ(errors[1], address().text() + ": not a word came within 0.5 s");
    EXPECT_EQ(idAt("copy/g"), 1u);
    child.signal(SIGCONT);
    EXPECT_TRUE(until([&] { return client.state() == Client::State::synced; })) << client.error();
}

}  // namespace
