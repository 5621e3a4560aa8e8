#include "Mount/internal/Listener.h"

#include <asio/io_context.hpp>

#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <unistd.h>

namespace Mount {

namespace {

constexpr int atOnce = 64;  // connections that are accepted before other handlers have their turn

}  // namespace

Listener::Listener(asio::io_context& context, Address const& address, SocketAddress const& where, U32 mode)
    : address_(address),
      where_(where),
      mode_(mode),
      file_(where.family() == AF_UNIX ? std::make_unique<SocketFile>(address) : nullptr),
      socket_(context, listenAt(address, where).release()),
      timer_(context) {
    if (file_) {
        file_->listen(socket_.native_handle(), mode_);
        return;
    }
    SocketAddress bound;
    bound.length = sizeof bound.storage;
    ::getsockname(socket_.native_handle(), reinterpret_cast<sockaddr*>(&bound.storage), &bound.length);
    bool const isTls = address.kind() == Address::Kind::tls;
    address_ = isTls ? Address::tls(address.host(), bound.port()) : Address::tcp(address.host(), bound.port());
}

Listener::~Listener() = default;

void Listener::start(Accepted accepted) {
    accepted_ = std::move(accepted);
    wait();
}

void Listener::checkFile() {
    if (!file_ || !file_->isGone()) return;
    if (!file_->hasLock()) file_ = std::make_unique<SocketFile>(address_);
    Descriptor made = listenAt(address_, where_);
    file_->listen(made.get(), mode_);
    std::error_code ignored;
    socket_.close(ignored);  // clients that were not accepted yet have to connect again
    socket_.assign(made.release());
    wait();
}

void Listener::stop() {
    file_ = nullptr;
    std::error_code ignored;
    socket_.close(ignored);
    timer_.cancel();
    accepted_ = nullptr;
}

void Listener::wait() {
    socket_.async_wait(
        asio::posix::stream_descriptor::wait_read, [self = shared_from_this()](std::error_code const& error) {
            if (!error) self->accept();
        });
}

void Listener::accept() {
    auto const accepted = accepted_;  // a copy: the call may stop this listener, which clears accepted_
    for (int i = 0; i < atOnce && accepted_; ++i) {
        Descriptor socket(::accept4(socket_.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.get() >= 0) {
            int const yes = 1;
            if (where_.family() != AF_UNIX) ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
            accepted(std::move(socket), where_.family());
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EAGAIN) break;
        // No descriptors or memory are left. The connection stays in the queue; trying again at once would only burn
        // time.
        timer_.expires_after(std::chrono::milliseconds(100));
        timer_.async_wait([self = shared_from_this()](std::error_code const& error) {
            if (!error && self->accepted_) self->wait();
        });
        return;
    }
    if (accepted_) wait();
}

}  // namespace Mount
