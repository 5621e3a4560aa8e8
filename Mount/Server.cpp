#include "Mount/Server.h"

#include "Mount/internal/Connection.h"
#include "Mount/internal/Destroy.h"
#include "Mount/internal/Listener.h"

#include "Vel/Exception.h"
#include "Vel/Strep.h"

#include <asio/io_context.hpp>

#include <algorithm>
#include <map>
#include <unistd.h>

namespace Mount {

using Vel::format;

namespace {

constexpr std::size_t refusalsAtOnce = 16;
constexpr std::size_t usersRemembered = 1000;

}  // namespace

class Server::Impl : public std::enable_shared_from_this<Impl> {
public:
    Impl(Loop& loop, Vel::Ptr<Vel::Entity> root, Options options)
        : loop_(loop),
          options_(std::move(options)),
          users_(usersOf(options_.peer.users)),
          server_(std::move(root), options_.source),
          timer_(loop.context()),
          status_(ServerStatus::newEntity(String("server"))) {
        if (users_.empty()) users_ = {::geteuid(), 0};
        if (!options_.writers.empty()) writerUsers_ = usersThere(options_.writers);
        if (options_.socketMode == 0) options_.socketMode = options_.peer.users.empty() ? 0600 : 0666;
    }

    Address listen(Address const& address);
    void start() { scheduleStatus(); }
    void close();

    Loop& loop() { return loop_; }
    std::size_t connections() const { return connections_.size(); }
    std::size_t backlog() const { return server_.backlog(); }
    Vel::Ptr<ServerStatus> const& status() const { return status_; }

private:
    struct Served {
        std::shared_ptr<Connection> connection;
        std::unique_ptr<Vel::StreamPeer> reader;
        bool isRefused = false;
    };

    static std::vector<uid_t> usersThere(std::vector<String> const& names);
    void accepted(Descriptor socket, int family, Address::Kind kind);
    Vel::StreamPeer& ready(Connection& connection, std::optional<uid_t> user);
    void ended(Connection& connection, String const& error);
    bool mayWrite(String const& name, std::optional<uid_t> user) const;
    String const& nameOf(uid_t user);
    void scheduleStatus();
    void updateStatus();

    Loop& loop_;
    Options options_;
    std::vector<uid_t> users_;
    std::vector<uid_t> writerUsers_;
    std::map<uid_t, String> userNames_;
    std::unique_ptr<TlsContext> tls_;
    Vel::AttrLogServer server_;
    std::vector<std::shared_ptr<Listener>> listeners_;
    String addresses_;  // of all of them
    std::map<Connection*, Served> connections_;
    std::size_t refusing_ = 0;  // of them, those that are being told so
    asio::steady_timer timer_;
    Vel::Ptr<ServerStatus> status_;
    U64 accepted_ = 0;
    U64 refused_ = 0;
    U64 failed_ = 0;
    U64 bytesInBefore_ = 0;  // of connections that have ended
    U64 bytesOutBefore_ = 0;
    String lastError_;
    bool isClosed_ = false;
};

// --- listening ---

// Writers may be certificates' names as well, which need not be users here.
std::vector<uid_t> Server::Impl::usersThere(std::vector<String> const& names) {
    std::vector<uid_t> users;
    for (String const& name : names) {
        try {
            users.push_back(usersOf({name}).front());
        } catch (Vel::RangeException const&) {}
    }
    return users;
}

Address Server::Impl::listen(Address const& address) {
    auto places = resolve(address, true);
    checkAddress(address, options_.peer, places);
    if (address.kind() == Address::Kind::tls && !tls_)
        tls_ = std::make_unique<TlsContext>(TlsContext::Side::server, options_.peer);
    if (address.kind() != Address::Kind::unixSocket && address.port() == 0) places.resize(1);  // one port for all

    std::vector<std::shared_ptr<Listener>> made;
    for (SocketAddress const& place : places) {
        try {
            made.push_back(std::make_shared<Listener>(loop_.context(), address, place, options_.socketMode));
        } catch (Vel::ErrnoException const& error) {
            // A host may have a kind of address that this machine does not speak.
            bool const isLast = &place == &places.back();
            if (error.error() != EAFNOSUPPORT && error.error() != EADDRNOTAVAIL) throw;
            if (isLast && made.empty()) throw;
        }
    }
    for (auto const& listener : made) {
        listener->start([self = shared_from_this(), kind = address.kind()](
                            Descriptor socket, int family) { self->accepted(std::move(socket), family, kind); });
        listeners_.push_back(listener);
        addresses_ = addresses_ + (addresses_.empty() ? "" : " ") + listener->address().text();
    }
    updateStatus();
    return made.front()->address();
}

void Server::Impl::close() {
    isClosed_ = true;
    timer_.cancel();
    for (auto const& listener : listeners_) listener->stop();
    std::vector<std::shared_ptr<Connection>> open;
    for (auto const& [connection, served] : connections_) open.push_back(served.connection);
    for (auto const& connection : open) connection->close(String());
    updateStatus();
}

// --- connections ---

void Server::Impl::accepted(Descriptor socket, int family, Address::Kind kind) {
    ++accepted_;
    // Each of those that are refused is told so, but not any number of them at a time.
    if (connections_.size() >= options_.connections + refusalsAtOnce) {
        ++refused_;
        return;
    }
    std::optional<uid_t> user;
    if (family == AF_UNIX) user = userOf(socket.get());
    auto channel = kind == Address::Kind::tls ? tls_->channel(socket.get(), String())
                                              : plainChannel(socket.get(), user ? nameOf(*user) : String());
    Connection::Socket connected(loop_.context(), asio::generic::stream_protocol(family, 0), socket.release());
    auto const connection = std::make_shared<Connection>(std::move(connected), std::move(channel), options_.peer);
    connections_[connection.get()].connection = connection;
    auto const self = shared_from_this();
    connection->start([self, user](Connection& c) -> Vel::StreamPeer& { return self->ready(c, user); },
        [self](Connection& c, String const& error) { self->ended(c, error); });
}

Vel::StreamPeer& Server::Impl::ready(Connection& connection, std::optional<uid_t> user) {
    String const& name = connection.peerName();
    auto& served = connections_[&connection];
    auto& reader = served.reader;
    reader = server_.newReader(mayWrite(name, user));
    if (user && std::find(users_.begin(), users_.end(), *user) == users_.end()) {
        served.isRefused = true;
        reader->refuse("user " + name + " may not connect");
    } else if (connections_.size() - refusing_ > options_.connections) {
        served.isRefused = true;
        reader->refuse(format("there are %zu connections already", options_.connections));
    }
    if (served.isRefused) {
        ++refused_;
        ++refusing_;
    }
    return *reader;
}

void Server::Impl::ended(Connection& connection, String const& error) {
    bytesInBefore_ += connection.bytesIn();
    bytesOutBefore_ += connection.bytesOut();
    if (!error.empty()) {
        ++failed_;
        lastError_ = error;
        if (!connection.peerName().empty()) lastError_ = connection.peerName() + ": " + error;
    }
    if (connections_[&connection].isRefused) --refusing_;
    connections_.erase(&connection);
}

// Where users are kept elsewhere, asking for a name takes its time.
String const& Server::Impl::nameOf(uid_t user) {
    if (userNames_.size() > usersRemembered) userNames_.clear();
    auto const [at, isNew] = userNames_.try_emplace(user);
    if (isNew) at->second = userName(user);
    return at->second;
}

bool Server::Impl::mayWrite(String const& name, std::optional<uid_t> user) const {
    if (options_.writers.empty()) return true;
    if (user) return std::find(writerUsers_.begin(), writerUsers_.end(), *user) != writerUsers_.end();
    return !name.empty() && std::find(options_.writers.begin(), options_.writers.end(), name) != options_.writers.end();
}

// --- status ---

void Server::Impl::scheduleStatus() {
    timer_.expires_after(options_.statusInterval);
    timer_.async_wait([weak = weak_from_this()](std::error_code const& error) {
        auto const self = weak.lock();
        if (error || !self || self->isClosed_) return;
        self->scheduleStatus();  // first, since observers may throw
        self->server_.checkPaths();
        self->updateStatus();
    });
}

void Server::Impl::updateStatus() {
    U64 in = bytesInBefore_;
    U64 out = bytesOutBefore_;
    for (auto const& [connection, served] : connections_) {
        in += connection->bytesIn();
        out += connection->bytesOut();
    }
    auto const status = status_;  // whatever its observers do
    status->addressIs(isClosed_ ? String() : addresses_);
    status->connectionsIs(static_cast<U32>(connections_.size()));
    status->acceptedIs(accepted_);
    status->refusedIs(refused_);
    status->failedIs(failed_);
    status->bytesInIs(in);
    status->bytesOutIs(out);
    status->coalescedIs(server_.coalesced());
    status->errorIs(lastError_);
}

// --- the server ---

Server::Server(Loop& loop, Vel::Ptr<Vel::Entity> root, Options options)
    : impl_(std::make_shared<Impl>(loop, std::move(root), std::move(options))) {
    impl_->start();
}
Server::~Server() {
    destroy(impl_->loop(), [&] { impl_->close(); });
}

Address Server::listen(Address const& address) {
    auto const impl = impl_;  // whatever observers of the status do
    return impl->listen(address);
}
std::size_t Server::connections() const { return impl_->connections(); }
std::size_t Server::backlog() const { return impl_->backlog(); }
Vel::Ptr<ServerStatus> Server::status() const { return impl_->status(); }

}  // namespace Mount
