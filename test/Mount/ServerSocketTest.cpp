#include "MountFixture.h"
#include "SystemFailures.h"

#include "Vel/base/Exception.h"

#include <deque>
#include <fstream>
#include <functional>
#include <utility>

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::function<void()> beforeLock;  // called once

}  // namespace

// In the place of the C library's, so that something can happen after a lock's file was opened and before it is locked.
extern "C" __attribute__((visibility("default"))) int flock(int file, int operation) noexcept {
    if (auto const happens = std::exchange(beforeLock, nullptr)) happens();
    return static_cast<int>(::syscall(SYS_flock, file, operation));
}

namespace {

using namespace MountTest;

class ServerSocketTest : public SharedTest {
protected:
    static U32 modeOf(Address const& address) {
        struct stat found {};
        return ::stat(address.path().charPtr(), &found) == 0 ? found.st_mode & 07777 : 0xffffffff;
    }
    static bool exists(Address const& address) {
        struct stat found {};
        return ::lstat(address.path().charPtr(), &found) == 0;
    }
    std::string refusal(Address const& place, Server::Options const& options = {}) {
        Server server(loop, served, options);
        try {
            return "listens at " + server.listen(place).text().stdString();
        } catch (Vel::Exception const& error) {
            return error.what();
        }
    }
    bool isServed(Address const& place) {
        Client client(loop, place, Dir::newEntity(""), "copy", quick());
        return client.sync(enough);
    }
    static void leaveSocketAt(Address const& address) {
        int const socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un where{};
        where.sun_family = AF_UNIX;
        address.path().view().copy(where.sun_path, sizeof where.sun_path - 1);
        ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
        ASSERT_EQ(::listen(socket, 5), 0);
        ::close(socket);
    }
};

TEST_F(ServerSocketTest, ASocketThatNobodyListensAtAnyMoreIsTakenOver) {
    leaveSocketAt(address());
    Server server(loop, served);
    EXPECT_EQ(server.listen(address()), address());
    EXPECT_TRUE(isServed(address()));
}

TEST_F(ServerSocketTest, ASocketThatIsServedIsNotTakenOver) {
    Server server(loop, served);
    server.listen(address());
    EXPECT_EQ(refusal(address()),
        address().text() + Vel::format(": Address already in use (EADDRINUSE); process %d serves there", ::getpid()));
    EXPECT_TRUE(exists(address()));
    EXPECT_TRUE(isServed(address()));
}

TEST_F(ServerSocketTest, AServerDoesNotListenAtItsOwnSocketTwice) {
    Server server(loop, served);
    server.listen(address());
    EXPECT_THROW(server.listen(address()), Vel::ErrnoException);
    EXPECT_EQ(server.listen(address("second")), address("second"));
    EXPECT_TRUE(isServed(address()));
    EXPECT_TRUE(isServed(address("second")));
    EXPECT_EQ(server.status()->address(), address().text() + " " + address("second").text());
}

// Whatever else stands there refuses connections just as a socket does that was left behind.
TEST_F(ServerSocketTest, AFileThatIsNoSocketStays) {
    std::ofstream(folder.path("socket").charPtr()) << "precious";
    EXPECT_EQ(refusal(address()), address().text() + ": Address already in use (EADDRINUSE)");
    std::ifstream file(folder.path("socket").charPtr());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "precious");
}

TEST_F(ServerSocketTest, ALinkToASocketThatWasLeftBehindStays) {
    leaveSocketAt(address("left"));
    ASSERT_EQ(::symlink(folder.path("left").charPtr(), folder.path("socket").charPtr()), 0);
    EXPECT_EQ(refusal(address()), address().text() + ": Address already in use (EADDRINUSE)");
    EXPECT_TRUE(exists(address()));
}

TEST_F(ServerSocketTest, AFolderThatIsNotThereIsAnError) {
    Address const place("unix:" + folder.path("none") + "/socket");
    EXPECT_EQ(refusal(place), place.text() + ": No such file or directory (ENOENT)");
}

TEST_F(ServerSocketTest, TheModeIsForThoseWhoMayConnect) {
    mode_t const before = ::umask(0777);
    {
        Server own(loop, served);
        own.listen(address("own"));
        Server::Options options;
        options.peer.users = {"0"};
        Server users(loop, served, options);
        users.listen(address("users"));
        options.socketMode = 0640;
        Server given(loop, served, options);
        given.listen(address("given"));
        EXPECT_EQ(modeOf(address("own")), 0600u);
        EXPECT_EQ(modeOf(address("users")), 0666u);
        EXPECT_EQ(modeOf(address("given")), 0640u);
    }
    ::umask(before);
}

TEST_F(ServerSocketTest, TheFileGoesWithTheServer) {
    {
        Server server(loop, served);
        server.listen(address());
        server.listen(address("second"));
        EXPECT_TRUE(exists(address()));
    }
    EXPECT_FALSE(exists(address()));
    EXPECT_FALSE(exists(address("second")));
}

TEST_F(ServerSocketTest, AFileThatSomebodyElseHasMadeSinceStays) {
    std::optional<Server> server(std::in_place, loop, served);
    server->listen(address());
    for (std::string const file : {"socket", "socket.lock"})
        ASSERT_EQ(::rename(folder.path(file).charPtr(), folder.path("moved-" + file).charPtr()), 0);
    Server other(loop, served);
    other.listen(address());
    server.reset();
    EXPECT_TRUE(exists(address()));
    EXPECT_TRUE(exists(address("socket.lock")));
    EXPECT_TRUE(isServed(address()));
}

// A server that is about to listen has no socket yet, and its lock only.
TEST_F(ServerSocketTest, ASocketWhoseLockIsHeldIsNotTakenOver) {
    leaveSocketAt(address());
    int const lock = ::open(folder.path("socket.lock").charPtr(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    EXPECT_EQ(
        refusal(address()), address().text() + ": Address already in use (EADDRINUSE); another process serves there");
    EXPECT_TRUE(exists(address()));
    ::close(lock);
    EXPECT_EQ(refusal(address()), "listens at " + address().text().stdString());
}

TEST_F(ServerSocketTest, AServerWhoseSocketWasTakenAwayKeepsItsPlace) {
    Server server(loop, served);
    server.listen(address());
    ASSERT_EQ(::unlink(folder.path("socket").charPtr()), 0);
    EXPECT_EQ(refusal(address()),
        address().text() + Vel::format(": Address already in use (EADDRINUSE); process %d holds ", ::getpid()) +
            folder.path("socket.lock") + ", though the socket is gone; nobody else can serve there until it ends");
}

TEST_F(ServerSocketTest, ASocketThatWasTakenAwayIsPutBack) {
    generation(served, "g", 3);
    Server server(loop, served, quickServer());
    server.listen(address());
    Client client(loop, address(), here, "copy", quick());
    ASSERT_TRUE(client.sync(enough)) << client.error();
    for (bool const alsoLock : {false, true}) {
        ASSERT_EQ(::unlink(folder.path("socket").charPtr()), 0);
        if (alsoLock) {
            ASSERT_EQ(::unlink(folder.path("socket.lock").charPtr()), 0);
        }
        EXPECT_TRUE(untilSeen([&] { return exists(address()); }));
        EXPECT_TRUE(exists(address("socket.lock")));
        EXPECT_EQ(modeOf(address()), 0600u);
        EXPECT_TRUE(isServed(address()));
    }
    EXPECT_EQ(client.status()->connects(), 1u) << "who was connected stays so";
}

TEST_F(ServerSocketTest, APlaceThatAnotherServerHasTakenIsLeftToItAndTold) {
    Server server(loop, served, quickServer());
    server.listen(address());
    for (std::string const file : {"socket", "socket.lock"}) ASSERT_EQ(::unlink(folder.path(file).charPtr()), 0);
    int const lock = ::open(folder.path("socket.lock").charPtr(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    EXPECT_TRUE(untilSeen([&] { return !server.status()->error().empty(); }));
    EXPECT_EQ(server.status()->error().view().find(
                  address().text().stdString() + ": Address already in use (EADDRINUSE); another process holds "),
        0u);
    EXPECT_FALSE(exists(address()));
    ::close(lock);
    EXPECT_TRUE(untilSeen([&] { return exists(address()); })) << "when it has ended, it is this one's again";
}

// A process that holds the lock because the one that has ended had started it is not known.
TEST_F(ServerSocketTest, AHolderThatHasEndedIsNotNamed) {
    int const lock = ::open(folder.path("socket.lock").charPtr(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    for (std::string const text : {"", "x", "0", "-1", "2147483647\n", "99999999999999999999"}) {
        ASSERT_EQ(::ftruncate(lock, 0), 0);
        ASSERT_EQ(::pwrite(lock, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        EXPECT_NE(refusal(address()).find("; another process holds "), std::string::npos) << text;
    }
    ::close(lock);
}

// As when the server that held it ends just then.
TEST_F(ServerSocketTest, ALockWhoseFileGoesMeanwhileIsTakenAgain) {
    String const lock = folder.path("socket.lock");
    beforeLock = [&] { EXPECT_EQ(::unlink(lock.charPtr()), 0); };
    Server server(loop, served);
    server.listen(address());
    EXPECT_FALSE(beforeLock);
    EXPECT_TRUE(exists(address("socket.lock")));
}

TEST_F(ServerSocketTest, ALockThatWasLeftBehindMeansNothing) {
    std::ofstream(folder.path("socket.lock").charPtr()) << "";
    ASSERT_EQ(::chmod(folder.path("socket.lock").charPtr(), 0600), 0);
    {
        Server server(loop, served);
        server.listen(address());
        EXPECT_TRUE(isServed(address()));
        EXPECT_TRUE(exists(address("socket.lock")));
    }
    EXPECT_FALSE(exists(address("socket.lock"))) << "it goes with the server";
}

// A process that was forked while a server listened has the lock, too, for as long as it lives.
TEST_F(ServerSocketTest, AChildThatLivesOnKeepsNoSocketFromTheNextServer) {
    std::optional<Server> server(std::in_place, loop, served);
    server->listen(address());
    Child child([](int socket) {
        char c = 0;
        EXPECT_EQ(::read(socket, &c, 1), 0) << "until the test is over";
    });
    server.reset();
    EXPECT_EQ(refusal(address()), "listens at " + address().text().stdString());
}

TEST_F(ServerSocketTest, ALockThatCannotBeTakenIsNamed) {
    ASSERT_EQ(::symlink("elsewhere", folder.path("socket.lock").charPtr()), 0);
    EXPECT_EQ(refusal(address()), address().text() + ".lock: " + Vel::ErrnoException(ELOOP).text());
    EXPECT_FALSE(exists(address("elsewhere")));
}

TEST_F(ServerSocketTest, AFolderThatCannotBeWrittenToIsAnError) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    ASSERT_EQ(::chmod(folder.path(".").charPtr(), 0755), 0);
    Child child([&](int socket) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) return say(socket, "can't be another user");
        say(socket, refusal(address()));
    });
    EXPECT_EQ(child.said(), address().text() + ": Permission denied (EACCES)");
}

// The name that a socket has before it listens.
TEST_F(ServerSocketTest, ASocketThatNeverGotItsNameIsInNobodysWay) {
    leaveSocketAt(address("socket~"));
    Server server(loop, served);
    server.listen(address());
    EXPECT_FALSE(exists(address("socket~")));
    EXPECT_TRUE(isServed(address()));
}

TEST_F(ServerSocketTest, AFileThatHasTheFirstNameStays) {
    std::ofstream(folder.path("socket~").charPtr()) << "precious";
    EXPECT_EQ(refusal(address()), address().text() + "~: Address already in use (EADDRINUSE)");
    std::ifstream file(folder.path("socket~").charPtr());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "precious");
    EXPECT_FALSE(exists(address()));
    EXPECT_FALSE(exists(address("socket.lock")));
}

TEST_F(ServerSocketTest, TheLongestPathIsServedAndTakenOver) {
    std::string const folderPath = folder.path("").stdString();
    Address const longest = address(std::string(107 - folderPath.size(), 'p'));
    leaveSocketAt(longest);
    Server server(loop, served);
    server.listen(longest);
    EXPECT_TRUE(isServed(longest));
    EXPECT_EQ(refusal(longest),
        longest.text() + Vel::format(": Address already in use (EADDRINUSE); process %d serves there", ::getpid()));
}

TEST_F(ServerSocketTest, APathThatDoesNotFitIsRefused) {
    String const path(std::string("/tmp/") + std::string(103, 'p'));
    EXPECT_THROW(Address::unixSocket(path), Vel::RangeException);
}

TEST_F(ServerSocketTest, TcpIsServedOnThisMachineOnly) {
    std::string const rule = ": plain TCP is for this machine alone (127.0.0.1, [::1]); with other machines use tls:";
    for (std::string const place :
        {"tcp:0.0.0.0:0", "tcp:192.0.2.1:7400", "tcp:[::]:0", "tcp:[2001:db8::1]:1", "tcp:0:0"})
        EXPECT_EQ(refusal(String(place)), place + rule);
    EXPECT_EQ(refusal("tcp:127.0.0.2:0").substr(0, 25), "listens at tcp:127.0.0.2:");
}

TEST_F(ServerSocketTest, TcpIsMountedFromThisMachineOnly) {
    Client client(loop, "tcp:192.0.2.1:7400", here, "copy", quick());
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error(), "tcp:192.0.2.1:7400: plain TCP is for this machine alone (127.0.0.1, [::1]); with other "
                              "machines use tls:");
    EXPECT_EQ(client.status()->connects(), 0u);
}

TEST_F(ServerSocketTest, AHostThatIsNoneIsAnError) {
    EXPECT_EQ(refusal("tcp:[1.2.3.4.5:x]:1").find("tcp:[1.2.3.4.5:x]:1: no address of the host: "), 0u);
}

TEST_F(ServerSocketTest, TlsWithoutFilesIsRefused) {
    EXPECT_EQ(refusal("tls:127.0.0.1:0"),
        "tls:127.0.0.1:0: tls needs three files: a certificate, its key, and the authority's certificate");
    EXPECT_THROW(Client(loop, "tls:127.0.0.1:1", here, "copy"), Vel::RangeException);
}

TEST_F(ServerSocketTest, ThePortThatWasChosenIsTold) {
    Server server(loop, served);
    Address const first = server.listen("tcp:127.0.0.1:0");
    Address const second = server.listen("tcp:127.0.0.1:0");
    EXPECT_NE(first.port(), 0u);
    EXPECT_NE(first.port(), second.port());
    EXPECT_EQ(server.status()->address(), first.text() + " " + second.text());
    EXPECT_TRUE(isServed(first));
    EXPECT_TRUE(isServed(second));
}

TEST_F(ServerSocketTest, TheOtherLoopbackIsServedToo) {
    Server server(loop, served);
    try {
        server.listen("tcp:[::1]:0");
    } catch (Vel::ErrnoException const& error) {
        GTEST_SKIP() << error.text();
    }
    Address const place = server.status()->address();
    EXPECT_TRUE(place.text().view().starts_with("tcp:[::1]:")) << place.text();
    EXPECT_NE(place.port(), 0u);
    EXPECT_TRUE(isServed(place));
}

TEST_F(ServerSocketTest, APortThatIsTakenIsAnError) {
    Server server(loop, served);
    Address const place = server.listen("tcp:127.0.0.1:0");
    EXPECT_EQ(refusal(place), place.text() + ": Address already in use (EADDRINUSE)");
}

// A port whose last connections are not forgotten yet by the system.
TEST_F(ServerSocketTest, APortIsServedAgainAtOnce) {
    Address place("tcp:127.0.0.1:0");
    for (int round = 0; round < 3; ++round) {
        Server server(loop, served);
        place = server.listen(place);
        EXPECT_TRUE(isServed(place));
    }
}

// Whoever comes meanwhile waits, and is served without coming again.
TEST_F(ServerSocketTest, ConnectionsWaitWhileThereAreNoDescriptors) {
    generation(served, "g", 3);
    Server server(loop, served, quickServer());
    server.listen(address());
    RawPeer peer(address());
    ASSERT_TRUE(peer.isConnected());
    Message const hello = helloFor("g");
    ASSERT_EQ(peer.send(hello), hello.size());
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    int const next = ::dup(0);
    ::close(next);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    loop.runFor(20ms);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(server.connections(), 0u);
    EXPECT_EQ(server.status()->accepted(), 0u);
    EXPECT_TRUE(untilSeen([&] { return peer.received().ends_with("\1\11"); })) << "synchronised";
}

TEST_F(ServerSocketTest, AServerOutOfDescriptorsGoesOnWhenThereAreSomeAgain) {
    generation(served, "g", 3);
    Child child([&](int socket) {
        Loop own;
        Server server(own, served);
        server.listen(address());
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        int const next = ::dup(0);
        ::close(next);
        limit.rlim_cur = static_cast<rlim_t>(next) + 2;  // two connections
        ::setrlimit(RLIMIT_NOFILE, &limit);
        say(socket, "serving\n");
        own.run();
    });
    char room[8];
    ASSERT_EQ(::read(child.socket(), room, sizeof room), 8);
    std::vector<std::unique_ptr<RawPeer>> peers;
    Message const hello = helloFor("g");
    auto const served = [&] {
        std::size_t count = 0;
        for (auto const& peer : peers) count += !peer->received().empty() && !peer->isClosed();
        return count;
    };
    for (int i = 0; i < 6; ++i) {
        peers.push_back(std::make_unique<RawPeer>(address()));
        ASSERT_EQ(peers.back()->send(hello), hello.size());
    }
    ASSERT_TRUE(untilSeen([&] { return served() >= 1; }));
    Client client(loop, address(), here, "copy", quick());
    loop.runFor(50ms);
    EXPECT_LE(served(), 2u);
    EXPECT_NE(client.state(), Client::State::synced);
    peers.clear();
    EXPECT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(idAt("copy/g"), 3u);
}

TEST_F(ServerSocketTest, ADescriptorThatIsMissingToListenIsAnError) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    int const next = ::dup(0);
    ::close(next);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(next);
    Server server(loop, served);
    std::vector<std::string> errors;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    for (Address const& place : {address(), Address("tcp:127.0.0.1:0")}) {
        try {
            server.listen(place);
        } catch (Vel::ErrnoException const& error) {
            errors.emplace_back(error.what());
        }
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], address().text() + ": Too many open files (EMFILE)");
    EXPECT_EQ(errors[1], "tcp:127.0.0.1:0: Too many open files (EMFILE)");
    EXPECT_EQ(server.listen(address()), address());
}

TEST_F(ServerSocketTest, WhatTheSystemRefusesIsToldAndLeavesNothingBehind) {
    for (std::string const call : {"socket", "listen", "rename"}) {
        SystemFailure const failure(call, ENOBUFS);
        EXPECT_EQ(refusal(address()), address().text() + ": No buffer space available (ENOBUFS)");
        EXPECT_EQ(failure.left(), 0) << call;
        for (std::string const file : {"socket", "socket~", "socket.lock"}) EXPECT_FALSE(exists(address(file))) << call;
    }
    for (std::string const call : {"socket", "listen"}) {
        SystemFailure const failure(call, ENOBUFS);
        EXPECT_EQ(refusal("tcp:127.0.0.1:0"), "tcp:127.0.0.1:0: No buffer space available (ENOBUFS)");
        EXPECT_EQ(failure.left(), 0) << call;
    }
}

// Until it works: with the error in the status meanwhile, and with who was connected.
TEST_F(ServerSocketTest, ASocketThatCannotBePutBackIsTriedAgain) {
    Server server(loop, served, quickServer());
    server.listen(address());
    ASSERT_EQ(::unlink(folder.path("socket").charPtr()), 0);
    SystemFailure const failure("socket", ENOBUFS, 2);
    EXPECT_TRUE(untilSeen([&] { return exists(address()); }));
    EXPECT_EQ(failure.left(), 0);
    EXPECT_EQ(server.status()->error(), address().text() + ": No buffer space available (ENOBUFS)");
    EXPECT_TRUE(isServed(address()));
}

TEST_F(ServerSocketTest, AConnectionThatCannotBeAcceptedKeepsNobodyWaiting) {
    Server server(loop, served, quickServer());
    server.listen(address());
    for (int const error : {ECONNABORTED, EINTR, ENOBUFS}) {
        SystemFailure const failure("accept4", error, 2);
        EXPECT_TRUE(isServed(address())) << error;
        EXPECT_EQ(failure.left(), 0) << error;
    }
}

TEST_F(ServerSocketTest, WhoIsGoneBeforeItIsAcceptedDoesNotDelayTheNext) {
    Server server(loop, served);
    server.listen(address());
    std::deque<RawPeer> peers;
    for (int const error : {ECONNABORTED, EINTR, EMFILE}) {
        peers.emplace_back(address());
        auto const before = server.connections();
        SystemFailure const failure("accept4", error);
        loop.poll();  // without any wait
        EXPECT_EQ(failure.left(), 0) << error;
        EXPECT_EQ(server.connections() != before, error != EMFILE) << error;
    }
}

TEST_F(ServerSocketTest, AServerThatGoesWhileThereAreNoDescriptorsLeavesNothingBehind) {
    std::optional<Server> server(std::in_place, loop, served, quickServer());
    server->listen(address());
    RawPeer const peer(address());
    {
        SystemFailure const failure("accept4", EMFILE);
        EXPECT_TRUE(untilSeen([&] { return failure.left() == 0; }));
        server.reset();
    }
    loop.run();  // which ends, since nothing waits any more
    EXPECT_FALSE(exists(address()));
}

}  // namespace
