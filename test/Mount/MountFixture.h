#pragma once

#include "Mount/Client.h"
#include "Mount/Server.h"

#include "TempFolder.h"

#include "Mox/Generation.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// What the tests of servers and clients share.
namespace MountTest {

using namespace std::chrono_literals;
using Mount::Address;
using Mount::Client;
using Mount::Loop;
using Mount::Server;
using Mox::GenerationEntity;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using Message = std::vector<U8>;

// A wait that takes so long has failed. Tests of known bugs, which are to fail, wait less.
inline std::chrono::seconds const enough =
    std::getenv("MOX_TEST_PATIENCE") ? std::chrono::seconds(std::atoi(std::getenv("MOX_TEST_PATIENCE"))) : 30s;

// The first bytes that a client sends.
inline Message helloFor(String const& path, bool wantsToWrite = false) {
    Vel::AttrLogReplica replica(Dir::newEntity(""), "copy", {path, wantsToWrite, {}});
    replica.connected();
    auto const bytes = replica.output(1u << 20);
    return Message(bytes.begin(), bytes.end());
}

// A connection whose bytes a test makes itself.
class RawPeer {
public:
    explicit RawPeer(Address const& address, int bufferSize = 0) {
        bool const isUnix = address.kind() == Address::Kind::unixSocket;
        fd_ = ::socket(isUnix ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bufferSize != 0)
            for (int const option : {SO_RCVBUF, SO_SNDBUF})
                ::setsockopt(fd_, SOL_SOCKET, option, &bufferSize, sizeof bufferSize);
        if (isUnix) {
            sockaddr_un where{};
            where.sun_family = AF_UNIX;
            address.path().view().copy(where.sun_path, sizeof where.sun_path - 1);
            isConnected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&where), sizeof where) == 0;
        } else {
            sockaddr_in where{};
            where.sin_family = AF_INET;
            where.sin_port = htons(address.port());
            where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            isConnected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&where), sizeof where) == 0;
        }
        ::fcntl(fd_, F_SETFL, O_NONBLOCK);
    }
    RawPeer(RawPeer const&) = delete;
    RawPeer& operator=(RawPeer const&) = delete;
    ~RawPeer() { close(); }

    bool isConnected() const { return isConnected_; }
    int socket() const { return fd_; }
    // How many went: fewer when the other side does not read, or is gone.
    std::size_t send(std::span<U8 const> bytes) {
        ssize_t const sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return sent < 0 ? 0 : static_cast<std::size_t>(sent);
    }
    void finish() { ::shutdown(fd_, SHUT_WR); }
    void close() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }
    // All that came so far.
    std::string const& received() {
        char room[65536];
        for (;;) {
            ssize_t const got = ::recv(fd_, room, sizeof room, 0);
            if (got > 0) {
                received_.append(room, static_cast<std::size_t>(got));
                continue;
            }
            if (got == 0 || (errno != EAGAIN && errno != EINTR)) isClosed_ = true;
            return received_;
        }
    }
    bool isClosed() {  // by the other side
        received();
        return isClosed_;
    }

private:
    int fd_ = -1;
    bool isConnected_ = false;
    bool isClosed_ = false;
    std::string received_;
};

// Another process, which does what it is given and ends. It ends with this one, too.
class Child {
public:
    // `work` gets a socket; the other end is socket() here.
    explicit Child(std::function<void(int socket)> const& work) {
        int both[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
        std::fflush(nullptr);  // once, not by the child too
        id_ = ::fork();
        if (id_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(both[0]);
            try {
                work(both[1]);
            } catch (std::exception const& error) {
                std::fprintf(stderr, "a process of the test ends by: %s\n", error.what());
                ::_exit(1);
            }
            ::_exit(0);  // what the parent has made is the parent's to destroy
        }
        ::close(both[1]);
        socket_ = both[0];
    }
    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;
    ~Child() { kill(); }

    int socket() const { return socket_; }
    pid_t id() const { return id_; }
    void signal(int number) const { ::kill(id_, number); }
    void kill() {
        if (id_ <= 0) return;
        ::kill(id_, SIGKILL);
        ::waitpid(std::exchange(id_, -1), nullptr, 0);
        ::close(socket_);
    }
    // All that it says until it ends.
    std::string said() const {
        std::string text;
        char room[4096];
        for (ssize_t got; (got = ::read(socket_, room, sizeof room)) > 0;)
            text.append(room, static_cast<std::size_t>(got));
        return text;
    }

private:
    pid_t id_ = -1;
    int socket_ = -1;
};

inline void say(int socket, std::string_view text) {
    while (!text.empty()) {
        ssize_t const sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
}

class SharedTest : public testing::Test {
protected:
    Address address(std::string const& file = "socket") const { return Address("unix:" + folder.path(file)); }
    static Ptr<GenerationEntity> generation(Ptr<Dir> const& dir, char const* name, U32 id = 0) {
        auto const made = Vel::ptr_cast<GenerationEntity>(dir->createEntity("Mox::GenerationEntity", name));
        if (id != 0) made->generationIs({id, true});
        return made;
    }
    Ptr<GenerationEntity> copyAt(char const* path) const { return Vel::ptr_cast<GenerationEntity>(here->entity(path)); }
    U32 idAt(char const* path) const {
        auto const copy = copyAt(path);
        return copy ? copy->generation().id() : 0;
    }

    // Clients that come back soon, and servers that look at their paths soon.
    static Client::Options quick(String const& path = String()) {
        Client::Options options;
        options.path = path;
        options.firstDelay = 2ms;
        options.lastDelay = 20ms;
        options.statusInterval = 5ms;
        return options;
    }
    static Server::Options quickServer() {
        Server::Options options;
        options.statusInterval = 5ms;
        return options;
    }

    bool until(std::function<bool()> const& done) { return loop.runUntil(done, enough); }
    // For what no event of the loop tells.
    bool untilSeen(std::function<bool()> const& done) {
        auto const end = std::chrono::steady_clock::now() + enough;
        while (!done()) {
            if (std::chrono::steady_clock::now() > end) return false;
            loop.runFor(1ms);
        }
        return true;
    }

    TempFolder folder;
    Loop loop;
    Ptr<Dir> served = Dir::newEntity("served");
    Ptr<Dir> here = Dir::newEntity("here");
};

}  // namespace MountTest
