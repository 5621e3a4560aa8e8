#pragma once

#include "Mount/internal/Channel.h"

#include "Certificates.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace MountTest {

using Mount::Channel;
using Mount::TlsContext;
using Result = Channel::Result;
using Bytes = std::vector<Vel::U8>;

class Socket {
public:
    explicit Socket(int number = -1) : number_(number) {}
    Socket(Socket&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Socket() { close(); }
    void close() {
        if (number_ >= 0) ::close(std::exchange(number_, -1));
    }
    int number() const { return number_; }
    std::size_t waiting() const {  // bytes that can be read
        int bytes = 0;
        ::ioctl(number_, FIONREAD, &bytes);
        return static_cast<std::size_t>(bytes);
    }
    void write(std::string_view bytes) const {
        EXPECT_EQ(::send(number_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void fill() const {  // until nothing more can be written
        char const zeros[4096] = {};
        while (::send(number_, zeros, sizeof zeros, MSG_NOSIGNAL) > 0) {}
    }
    // Everything that is there; empty also when nothing is.
    std::string read() const {
        std::string bytes(waiting(), '\0');
        if (bytes.empty()) return bytes;
        ssize_t const got = ::recv(number_, bytes.data(), bytes.size(), 0);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }

private:
    int number_;
};

inline std::pair<Socket, Socket> socketPair(int bufferSize = 0) {
    int both[2] = {};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    if (bufferSize != 0)
        for (int const one : both) ::setsockopt(one, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
    return {Socket(both[0]), Socket(both[1])};
}

// Whether what the result says is to be waited for has come.
inline bool isReady(Result result, Socket const& socket) {
    if (result != Result::wantsRead && result != Result::wantsWrite) return false;
    pollfd file{socket.number(), static_cast<short>(result == Result::wantsRead ? POLLIN : POLLOUT), 0};
    return ::poll(&file, 1, 0) == 1;
}

// A server and a client with a connection between them. A side is called again only when what it wants has come, so
// that a wrong want shows as a standstill.
struct Ends {
    Socket serverSocket;
    Socket clientSocket;
    std::unique_ptr<Channel> server;
    std::unique_ptr<Channel> client;
    Result serverResult = Result::wantsRead;
    Result clientResult = Result::wantsRead;

    // Until neither side can go on.
    void handshake() {
        clientResult = client->handshake().result;
        serverResult = server->handshake().result;
        while (isReady(clientResult, clientSocket) || isReady(serverResult, serverSocket)) {
            if (isReady(clientResult, clientSocket)) clientResult = client->handshake().result;
            if (isReady(serverResult, serverSocket)) serverResult = server->handshake().result;
        }
    }
    bool areOpen() const { return serverResult == Result::done && clientResult == Result::done; }
};

inline Result receiveResult(Channel& channel) {
    Bytes into(100);
    return channel.receive(into).result;
}

inline std::string receiveText(Channel& channel) {
    Bytes into(20000);
    auto const [result, bytes] = channel.receive(into);
    EXPECT_EQ(result, Result::done);
    return std::string(into.begin(), into.begin() + static_cast<std::ptrdiff_t>(bytes));
}

inline std::span<Vel::U8 const> asBytes(std::string_view text) {
    return {reinterpret_cast<Vel::U8 const*>(text.data()), text.size()};
}

class TlsTest : public testing::Test {
protected:
    static Mount::PeerOptions options(Mount::TlsFiles const& files, std::vector<Vel::String> names = {}) {
        Mount::PeerOptions options;
        options.tls = files;
        options.names = std::move(names);
        return options;
    }

    static Certificates& certificates() {
        static Certificates made;
        return made;
    }
    static Mount::TlsFiles const& serverFiles() {
        static Mount::TlsFiles const files =
            certificates().issue({"state server", {"DNS:state.example", "IP:127.0.0.1", "IP:::1"}});
        return files;
    }
    static Mount::TlsFiles const& clientFiles() {
        static Mount::TlsFiles const files = certificates().issue({"reader", {}});
        return files;
    }

    static Ends connect(Mount::PeerOptions const& server, Mount::PeerOptions const& client,
        Vel::String const& host = "state.example", int bufferSize = 0) {
        auto [a, b] = socketPair(bufferSize);
        Ends ends{std::move(a), std::move(b), {}, {}};
        ends.server = TlsContext(TlsContext::Side::server, server).channel(ends.serverSocket.number(), "");
        ends.client = TlsContext(TlsContext::Side::client, client).channel(ends.clientSocket.number(), host);
        return ends;
    }
    static Ends connect(int bufferSize = 0) {
        return connect(options(serverFiles()), options(clientFiles()), "state.example", bufferSize);
    }
    static Ends open(int bufferSize = 0) {
        Ends ends = connect(bufferSize);
        ends.handshake();
        EXPECT_TRUE(ends.areOpen()) << ends.server->error() << ends.client->error();
        return ends;
    }
};

}  // namespace MountTest
