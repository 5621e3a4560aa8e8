// A bare Unix socket with nothing on it: what the others cannot be faster than, but by sending less.

#include "Contestant.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace Bench {
namespace {

sockaddr_un address(std::string const& path) {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    if (path.size() >= sizeof result.sun_path) throw Failure("the path of a socket is too long");
    std::memcpy(result.sun_path, path.data(), path.size());
    return result;
}

void require(bool good, char const* what) {
    if (!good) throw Failure(std::string(what) + ": " + std::strerror(errno));
}

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& from) noexcept : fd_(std::exchange(from.fd_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

class SocketSource final : public Source {
public:
    explicit SocketSource(std::string const& path) : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
        sockaddr_un const at = address(path);
        require(bind(listener_.get(), reinterpret_cast<sockaddr const*>(&at), sizeof at) == 0, "bind");
        require(listen(listener_.get(), 64) == 0, "listen");
        held_.reserve(batch * messageSize);
    }

    bool hasReaders(std::size_t count) override {
        for (int fd; (fd = accept(listener_.get(), nullptr, nullptr)) >= 0;) readers_.emplace_back(fd);
        return readers_.size() >= count;
    }
    void change(std::uint32_t value) override {
        held_.resize(held_.size() + messageSize);
        std::memcpy(held_.data() + held_.size() - messageSize, &value, sizeof value);
        if (held_.size() == batch * messageSize) flush();
    }
    void flush() override {
        for (Descriptor const& reader : readers_)
            for (std::size_t sent = 0; sent < held_.size();) {
                auto const n = send(reader.get(), held_.data() + sent, held_.size() - sent, MSG_NOSIGNAL);
                require(n > 0, "send");
                sent += static_cast<std::size_t>(n);
            }
        held_.clear();
    }
    void serve(Nanoseconds time) override { sleepUntil(now() + time); }

private:
    Descriptor listener_;
    std::vector<Descriptor> readers_;
    std::vector<char> held_;
};

class SocketReader final : public Reader {
public:
    explicit SocketReader(std::string const& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un const at = address(path);
        require(connect(socket_.get(), reinterpret_cast<sockaddr const*>(&at), sizeof at) == 0, "connect");
    }

    void receive(Listener& listener, Deadline const& deadline) override {
        timeval const limit{static_cast<time_t>(deadline.left() / second + 1), 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        while (!listener.isDone) {
            auto const n = recv(socket_.get(), bytes_.data() + held_, bytes_.size() - held_, 0);
            require(n > 0, "recv");
            held_ += static_cast<std::size_t>(n);
            std::size_t at = 0;
            for (; held_ - at >= messageSize; at += messageSize) {
                std::uint32_t value = 0;
                std::memcpy(&value, bytes_.data() + at, sizeof value);
                listener.changed(value);
            }
            std::memmove(bytes_.data(), bytes_.data() + at, held_ - at);
            held_ -= at;
        }
    }

private:
    Descriptor socket_;
    std::array<char, 1 << 16> bytes_;
    std::size_t held_ = 0;
};

class SocketContestant final : public Contestant {
public:
    std::string name() const override { return "bare socket"; }
    std::unique_ptr<Source> source() override { return std::make_unique<SocketSource>(socket()); }
    std::unique_ptr<Reader> reader() override { return std::make_unique<SocketReader>(socket()); }
};

}  // namespace

std::unique_ptr<Contestant> socketContestant() { return std::make_unique<SocketContestant>(); }

}  // namespace Bench
