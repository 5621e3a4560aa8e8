#include "Mount/internal/Channel.h"

#include "Vel/base/Exception.h"

#include <cerrno>
#include <sys/socket.h>

namespace Mount {

namespace {

class PlainChannel final : public Channel {
public:
    PlainChannel(int socket, String const& peerName) : Channel(socket) { peerName_ = peerName; }

    Outcome receive(std::span<U8> into) override {
        for (;;) {
            ssize_t const n = ::recv(socket_, into.data(), into.size(), MSG_DONTWAIT);
            if (n > 0) return {Result::done, static_cast<std::size_t>(n)};
            if (n == 0) return {Result::end};
            if (errno == EINTR) continue;
            return failed(Result::wantsRead);
        }
    }

    Outcome send(std::span<U8 const> bytes) override {
        for (;;) {
            ssize_t const n = ::send(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n >= 0) return {Result::done, static_cast<std::size_t>(n)};
            if (errno == EINTR) continue;
            return failed(Result::wantsWrite);
        }
    }

    void finish() override { ::shutdown(socket_, SHUT_WR); }

private:
    Outcome failed(Result wants) {
        if (errno == EAGAIN) return {wants};
        error_ = Vel::ErrnoException(errno).text();
        return {Result::failed};
    }
};

}  // namespace

std::unique_ptr<Channel> plainChannel(int socket, String const& peerName) {
    return std::make_unique<PlainChannel>(socket, peerName);
}

}  // namespace Mount
