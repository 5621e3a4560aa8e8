#include "Mount/Client.h"

#include "Mount/internal/Connection.h"
#include "Mount/internal/Destroy.h"
#include "Mount/internal/Socket.h"
#include "Mount/internal/Users.h"

#include "Vel/base/Exception.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

namespace Mount {

using Vel::AttrLogReplica;
using asio::ip::tcp;

char const* stateName(Client::State state) {
    switch (state) {
    case Client::State::empty:
        return "empty";
    case Client::State::syncing:
        return "syncing";
    case Client::State::synced:
        return "synced";
    case Client::State::stale:
        break;
    }
    return "stale";
}

class Client::Impl : public std::enable_shared_from_this<Impl> {
public:
    template <class... Root>
    Impl(Loop& loop, Address const& address, Options options, Root&&... root)
        : loop_(loop),
          address_(address),
          options_(std::move(options)),
          users_(usersOf(options_.peer.users)),
          replica_(std::forward<Root>(root)...,
              AttrLogReplica::Options{options_.path, options_.wantsToWrite, options_.limits, options_.policy}),
          resolver_(loop.context()),
          timer_(loop.context()),
          statusTimer_(loop.context()),
          socket_(loop.context()),
          status_(ClientStatus::newEntity(String("client"))),
          random_(std::random_device()()),
          delay_(options_.firstDelay) {
        checkAddress(address_, options_.peer, {});
        if (address_.kind() == Address::Kind::tls)
            tls_ = std::make_unique<TlsContext>(TlsContext::Side::client, options_.peer);
    }

    void start();
    void close();

    Loop& loop() { return loop_; }
    AttrLogReplica& replica() { return replica_; }
    bool isConnected() const { return connection_ != nullptr; }
    String const& error() const { return error_; }
    Vel::StreamFault fault() const { return fault_; }
    Vel::Ptr<ClientStatus> const& status() const { return status_; }

    std::function<void(State)> onState;
    std::function<void(String const&)> onError;

private:
    void attempt();
    void resolved(std::vector<SocketAddress> places);
    void connect(std::size_t place);
    void connected(SocketAddress const& place);
    void ended(Connection& connection, String const& error);
    void failed(String const& error, Vel::StreamFault fault = Vel::StreamFault::other);
    void stateChanged(State state);
    void scheduleStatus();
    void updateStatus();

    Loop& loop_;
    Address address_;
    Options options_;
    std::vector<uid_t> users_;
    std::unique_ptr<TlsContext> tls_;
    AttrLogReplica replica_;
    tcp::resolver resolver_;
    asio::steady_timer timer_;  // limits the attempt under way, or delays the next one
    asio::steady_timer statusTimer_;
    std::vector<SocketAddress> places_;
    Connection::Socket socket_;
    std::shared_ptr<Connection> connection_;
    Vel::Ptr<ClientStatus> status_;
    std::minstd_rand random_;
    Milliseconds delay_;
    String error_;
    Vel::StreamFault fault_ = Vel::StreamFault::none;
    U64 attempts_ = 0;
    U64 connects_ = 0;
    U64 attempt_ = 0;  // number of the attempt under way; 0 if there is none
    U64 bytesInBefore_ = 0;
    U64 bytesOutBefore_ = 0;
    bool isClosed_ = false;
};

void Client::Impl::start() {
    replica_.onStateIs([this](State state) { stateChanged(state); });
    status_->addressIs(address_.text());
    status_->pathIs(options_.path);
    scheduleStatus();
    attempt();
}

void Client::Impl::close() {
    isClosed_ = true;
    attempt_ = 0;
    onState = nullptr;
    onError = nullptr;
    resolver_.cancel();
    timer_.cancel();
    statusTimer_.cancel();
    std::error_code ignored;
    socket_.close(ignored);
    if (connection_) connection_->close(String());
}

// --- getting a connection ---

void Client::Impl::attempt() {
    attempt_ = ++attempts_;
    timer_.expires_after(options_.connectTimeout);
    timer_.async_wait([self = shared_from_this(), attempt = attempt_](std::error_code const& error) {
        if (!error && self->attempt_ == attempt) self->failed("no connection within the time that is given");
    });
    if (address_.kind() == Address::Kind::unixSocket) return resolved({unixAddress(address_.path())});
    // Plain TCP must stay on this machine: "localhost" is 127.0.0.1, and no name server is asked.
    String const host = address_.kind() == Address::Kind::tcp && address_.host() == String("localhost")
                            ? String("127.0.0.1")
                            : address_.host();
    resolver_.async_resolve(host.stdString(), std::to_string(address_.port()), tcp::resolver::numeric_service,
        [self = shared_from_this(), attempt = attempt_](
            std::error_code const& error, tcp::resolver::results_type const& found) {
            if (self->attempt_ != attempt) return;
            if (error) return self->failed("no address of the host: " + String(error.message()));
            std::vector<SocketAddress> places;
            for (auto const& one : found) {
                SocketAddress place;
                place.length = static_cast<socklen_t>(one.endpoint().size());
                std::memcpy(&place.storage, one.endpoint().data(), place.length);
                places.push_back(place);
            }
            try {
                checkAddress(self->address_, self->options_.peer, places);
                self->resolved(std::move(places));
            } catch (std::exception const& wrong) {
                self->failed(wrong.what());
            }
        });
}

void Client::Impl::resolved(std::vector<SocketAddress> places) {
    places_ = std::move(places);
    connect(0);
}

void Client::Impl::connect(std::size_t place) {
    SocketAddress const& where = places_[place];
    std::error_code ignored;
    socket_.close(ignored);
    asio::generic::stream_protocol::endpoint const endpoint(where.get(), where.length);
    socket_.async_connect(
        endpoint, [self = shared_from_this(), attempt = attempt_, place](std::error_code const& error) {
            if (self->attempt_ != attempt) return;
            if (!error) return self->connected(self->places_[place]);
            if (place + 1 < self->places_.size()) return self->connect(place + 1);
            switch (error.value()) {
            case ENOENT:
                return self->failed("there is no such socket; nobody serves there");
            case ECONNREFUSED:
                return self->failed("nobody listens there");
            case ENOBUFS:  // a Unix socket's EAGAIN, which Asio reports like this
                return self->failed("too many are waiting to be let in there");
            default:
                return self->failed(Vel::ErrnoException(error.value()).text());
            }
        });
}

void Client::Impl::connected(SocketAddress const& place) {
    ++connects_;
    attempt_ = 0;
    timer_.cancel();
    std::error_code ignored;
    socket_.native_non_blocking(true, ignored);
    if (place.family() == AF_UNIX) {
        uid_t const user = userOf(socket_.native_handle());
        if (!users_.empty() && std::find(users_.begin(), users_.end(), user) == users_.end())
            return failed("user " + userName(user) + " serves there, who is not among those expected");
    } else {
        socket_.set_option(tcp::no_delay(true), ignored);
    }
    std::unique_ptr<Channel> channel;
    try {
        channel = tls_ ? tls_->channel(socket_.native_handle(), address_.host())
                       : plainChannel(socket_.native_handle(), String());
    } catch (Vel::RangeException const& error) {  // the host's text is not a name that a certificate can have
        return failed(error.text());
    }
    connection_ = std::make_shared<Connection>(std::move(socket_), std::move(channel), options_.peer);
    auto const self = shared_from_this();
    connection_->start(
        [self](Connection&) -> Vel::StreamPeer& {
            self->replica_.connected();
            return self->replica_;
        },
        [self](Connection& connection, String const& error) { self->ended(connection, error); });
}

void Client::Impl::ended(Connection& connection, String const& error) {
    bytesInBefore_ += connection.bytesIn();
    bytesOutBefore_ += connection.bytesOut();
    connection_ = nullptr;
    if (isClosed_) return;
    if (error.empty())
        failed("the server has closed the connection");
    else
        failed(error, connection.fault());
}

// Schedules the next attempt. The delay is partly random, so that the clients of a server that comes back do not all
// connect at the same moment.
void Client::Impl::failed(String const& error, Vel::StreamFault fault) {
    fault_ = fault;
    attempt_ = 0;
    resolver_.cancel();
    std::error_code ignored;
    socket_.close(ignored);
    // Some errors already begin with the address; do not write it twice.
    String const place = address_.text() + ": ";
    error_ = error.view().starts_with(place.view()) ? error : place + error;
    double const part = std::uniform_real_distribution<double>(0.75, 1.25)(random_);
    timer_.expires_after(std::chrono::duration_cast<Milliseconds>(delay_ * part));
    timer_.async_wait([self = shared_from_this()](std::error_code const& cancelled) {
        if (!cancelled && !self->isClosed_) self->attempt();
    });
    delay_ = std::min(delay_ * 2, options_.lastDelay);
    updateStatus();
    if (auto const told = onError) told(error_);
}

// --- status ---

void Client::Impl::stateChanged(State state) {
    if (state == State::synced) {
        error_ = String();
        fault_ = Vel::StreamFault::none;
        delay_ = options_.firstDelay;
    }
    updateStatus();
    if (auto const told = onState) told(state);
}

void Client::Impl::scheduleStatus() {
    statusTimer_.expires_after(options_.statusInterval);
    statusTimer_.async_wait([weak = weak_from_this()](std::error_code const& error) {
        auto const self = weak.lock();
        if (error || !self || self->isClosed_) return;
        self->scheduleStatus();  // before updateStatus(), whose observers may throw
        self->updateStatus();
    });
}

void Client::Impl::updateStatus() {
    auto const status = status_;  // keeps the status alive even if an observer destroys the client
    if (auto const* const state = stateName(replica_.state()); status->state() != state) status->stateIs(state);
    status->attemptsIs(attempts_);
    status->connectsIs(connects_);
    status->bytesInIs(bytesInBefore_ + (connection_ ? connection_->bytesIn() : 0));
    status->bytesOutIs(bytesOutBefore_ + (connection_ ? connection_->bytesOut() : 0));
    status->messagesIs(replica_.messagesIn());
    status->entitiesIs(replica_.entities());
    status->errorIs(error_);
}

// --- the client ---

Client::Client(Loop& loop, Address const& address, Vel::Ptr<Vel::Dir> parent, String const& name, Options options)
    : impl_(std::make_shared<Impl>(loop, address, std::move(options), std::move(parent), name)) {
    impl_->start();
}
Client::Client(Loop& loop, Address const& address, Vel::Ptr<Vel::Entity> root, Options options)
    : impl_(std::make_shared<Impl>(loop, address, std::move(options), std::move(root))) {
    impl_->start();
}
Client::~Client() {
    destroy(impl_->loop(), [&] { impl_->close(); });
}

bool Client::sync(Loop::Duration time) {
    auto const impl = impl_;
    return impl->loop().runUntil([&] { return impl->replica().state() == State::synced; }, time);
}

AttrLogReplica& Client::replica() { return impl_->replica(); }
Client::State Client::state() const { return impl_->replica().state(); }
void Client::onStateIs(std::function<void(State)> told) { impl_->onState = std::move(told); }
bool Client::isConnected() const { return impl_->isConnected(); }
String const& Client::error() const { return impl_->error(); }
Vel::StreamFault Client::fault() const { return impl_->fault(); }
void Client::onErrorIs(std::function<void(String const&)> told) { impl_->onError = std::move(told); }
Vel::Ptr<ClientStatus> Client::status() const { return impl_->status(); }

}  // namespace Mount
