// Publish and subscribe of libzmq over ipc. Each process has an I/O thread of the library's beside its own.

#include "Contestant.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <zmq.h>

namespace Bench {
namespace {

// Waiting messages at each side. The source then waits, rather than drop what comes.
constexpr int highWater = 20'000;

class Socket {
public:
    explicit Socket(int type) : context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)) {
        if (!socket_) fail("zmq_socket");
        set(ZMQ_LINGER, 0);
    }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;
    ~Socket() {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }

    [[noreturn]] static void fail(char const* what) { throw Failure(std::string(what) + ": " + zmq_strerror(errno)); }
    void set(int option, int value) {
        if (zmq_setsockopt(socket_, option, &value, sizeof value) != 0) fail("zmq_setsockopt");
    }
    void* get() const { return socket_; }

private:
    void* context_;
    void* socket_;
};

class ZeroMqSource final : public Source {
public:
    explicit ZeroMqSource(std::string const& address) {
        socket_.set(ZMQ_SNDHWM, highWater);
        socket_.set(ZMQ_XPUB_NODROP, 1);
        socket_.set(ZMQ_XPUB_VERBOSE, 1);  // tells of every subscription, and not of the first only
        if (zmq_bind(socket_.get(), address.c_str()) != 0) Socket::fail("zmq_bind");
    }

    bool hasReaders(std::size_t count) override {
        std::array<char, 8> subscription{};
        while (zmq_recv(socket_.get(), subscription.data(), subscription.size(), ZMQ_DONTWAIT) >= 0) ++readers_;
        return readers_ >= count;
    }
    void change(std::uint32_t value) override {
        std::memcpy(message_.data(), &value, sizeof value);
        if (zmq_send(socket_.get(), message_.data(), message_.size(), 0) < 0) Socket::fail("zmq_send");
    }
    void flush() override {}  // the library decides what goes together
    void serve(Nanoseconds time) override { sleepUntil(now() + time); }

private:
    Socket socket_{ZMQ_XPUB};
    std::array<char, messageSize> message_{};
    std::size_t readers_ = 0;
};

class ZeroMqReader final : public Reader {
public:
    explicit ZeroMqReader(std::string const& address) {
        socket_.set(ZMQ_RCVHWM, highWater);
        if (zmq_setsockopt(socket_.get(), ZMQ_SUBSCRIBE, "", 0) != 0) Socket::fail("zmq_setsockopt");
        if (zmq_connect(socket_.get(), address.c_str()) != 0) Socket::fail("zmq_connect");
    }

    void receive(Listener& listener, Deadline const& deadline) override {
        socket_.set(ZMQ_RCVTIMEO, static_cast<int>(deadline.left() / millisecond) + 1);
        std::array<char, messageSize> message{};
        while (!listener.isDone) {
            if (zmq_recv(socket_.get(), message.data(), message.size(), 0) != messageSize) Socket::fail("zmq_recv");
            std::uint32_t value = 0;
            std::memcpy(&value, message.data(), sizeof value);
            listener.changed(value);
        }
    }

private:
    Socket socket_{ZMQ_SUB};
};

class ZeroMqContestant final : public Contestant {
public:
    std::string name() const override { return "ZeroMQ"; }
    bool countsAllocations() const override { return false; }
    std::unique_ptr<Source> source() override { return std::make_unique<ZeroMqSource>("ipc://" + socket()); }
    std::unique_ptr<Reader> reader() override { return std::make_unique<ZeroMqReader>("ipc://" + socket()); }
};

}  // namespace

std::unique_ptr<Contestant> zeroMqContestant() { return std::make_unique<ZeroMqContestant>(); }

}  // namespace Bench
