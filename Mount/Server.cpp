#include "Mount/Server.h"

#include "Mount/internal/Connection.h"
#include "Mount/internal/Destroy.h"
#include "Mount/internal/Listener.h"
#include "Mount/internal/Users.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/AttrLogServer.h"
#include "Vel/text/Strep.h"

#include <asio/io_context.hpp>

#include <algorithm>
#include <map>
#include <unistd.h>

namespace Mount {

using Vel::format;

namespace {

constexpr std::size_t usersRemembered = 1000;
constexpr std::chrono::minutes groupsRemembered{1};

}  // namespace

class Server::Impl : public std::enable_shared_from_this<Impl> {
public:
    Impl(Loop& loop, Vel::Ptr<Vel::Entity> root, Options options)
        : loop_(loop),
          options_(std::move(options)),
          users_(usersOf(options_.peer.users)),
          history_(historyFor(options_)),
          server_(std::move(root), options_.source),
          timer_(loop.context()),
          status_(ServerStatus::newEntity(String("server"))) {
        needOneKindOfRights();
        if (history_) server_.extraIs(historyPath, [this](auto const& rights) { return historyOf(rights); });
        memory_.limit = options_.source.limits.memory;
        memory_.exceeded = [this] { freeMemory(); };
        if (users_.empty()) users_ = {::geteuid(), 0};
        if (!options_.writers.empty()) writerUsers_ = usersThere(options_.writers);
        if (options_.socketMode == 0) options_.socketMode = options_.peer.users.empty() ? 0600 : 0666;
    }

    Address listen(Address const& address);
    void start() { scheduleStatus(); }
    void checkFiles();
    void close();

    Loop& loop() { return loop_; }
    std::size_t connections() const { return connections_.size(); }
    std::size_t backlog() const { return server_.backlog(); }
    Vel::Ptr<ServerStatus> const& status() const { return status_; }
    Vel::Ptr<History> const& history() const { return history_; }

private:
    struct Served {
        std::shared_ptr<Connection> connection;
        std::unique_ptr<Vel::StreamPeer> reader;
        std::string peer;  // identifies the other side: peerOf(), or the certificate's name once that is known
        String place;      // where the other side is: placeOf()
        gid_t group = 0;   // at a Unix socket, with rights
        bool isRefused = false;
    };

    static Vel::Ptr<History> historyFor(Options& options);
    void needOneKindOfRights() const;
    Vel::Ptr<Vel::Entity> historyOf(std::shared_ptr<Vel::StreamRights const> const& rights);
    std::shared_ptr<Vel::StreamRights const> rightsOf(Served const& served, std::optional<uid_t> user);
    std::vector<gid_t> const& groupsOf(uid_t user, gid_t first);
    static std::vector<uid_t> usersThere(std::vector<String> const& names);
    void accepted(Descriptor socket, int family, Address::Kind kind);
    Vel::StreamPeer& ready(Connection& connection, std::optional<uid_t> user);
    String admission(Connection& connection);
    void ended(Connection& connection, String const& error);
    void refuse(Connection& connection, String const& reason);
    Connection* newcomerToGo() const;
    void freeMemory();
    bool mayWrite(String const& name, std::optional<uid_t> user) const;
    String const& nameOf(uid_t user);
    void scheduleStatus();
    void updateStatus();

    Loop& loop_;
    Options options_;
    std::vector<uid_t> users_;
    std::vector<uid_t> writerUsers_;
    std::map<uid_t, String> userNames_;
    struct Groups {
        std::vector<gid_t> all;
        std::chrono::steady_clock::time_point asked;
    };
    std::map<std::pair<uid_t, gid_t>, Groups> groups_;  // of users, by the group of the process
    struct Part {
        std::weak_ptr<Vel::StreamRights const> rights;
        Vel::Ptr<History> history;
    };
    std::map<Vel::StreamRights const*, Part> parts_;  // of the history, for readers with rights
    std::unique_ptr<TlsContext> tls_;
    Vel::Ptr<History> history_;
    Vel::AttrLogServer server_;
    std::vector<std::shared_ptr<Listener>> listeners_;
    String addresses_;  // of all listeners, separated by blanks
    std::map<Connection*, Served> connections_;
    std::vector<Connection*> newcomers_;  // connections that have not yet said a hello that was accepted; oldest first
    SharedMemory memory_;
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

// Makes the history, and has the sources keep it. Returns null if none is wanted.
Vel::Ptr<History> Server::Impl::historyFor(Options& options) {
    if (options.history == 0 && options.ownChanges == 0 && options.lastChanges == 0) return nullptr;
    options.source.history = std::make_shared<Vel::WriteHistory>(
        Vel::WriteHistory::Sizes{std::max<std::size_t>(options.history, 1), options.ownChanges, options.lastChanges});
    return History::of(options.source.history, "history");
}

void Server::Impl::needOneKindOfRights() const {
    if (!options_.rights) return;
    if (options_.source.mayWrite || !options_.writers.empty())
        Vel::throwRangeException(
            "with rights, neither source.mayWrite nor writers may be set: the rights say who may write");
    if (options_.ownChanges != 0 || options_.lastChanges != 0)
        Vel::throwRangeException(
            "with rights, neither ownChanges nor lastChanges may be set: they would name what some may not read");
}

// Each set of rights has its own part. It goes when nobody has these rights any more.
Vel::Ptr<Vel::Entity> Server::Impl::historyOf(std::shared_ptr<Vel::StreamRights const> const& rights) {
    if (!rights) return history_;
    if (auto const found = parts_.find(rights.get()); found != parts_.end() && !found->second.rights.expired())
        return found->second.history;
    std::erase_if(parts_, [](auto const& part) { return part.second.rights.expired(); });
    // Nobody knows who could read something that referred to an entity in no place.
    auto const mayRead = [weak = std::weak_ptr(rights)](std::optional<String> const& place) {
        auto const there = weak.lock();
        return there && Vel::allows(place ? there->of(*place) : there->least(), Vel::Access::read);
    };
    auto const made = History::of(options_.source.history, "history", mayRead);
    parts_[rights.get()] = {rights, made};
    return made;
}

// --- listening ---

// Returns the users among `names`. The other names may be common names of certificates.
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
            // A host's name may stand for IPv4 and IPv6 addresses, and this machine may have only one of the kinds.
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

void Server::Impl::checkFiles() {
    for (auto const& listener : listeners_) try {
            listener->checkFile();
        } catch (Vel::ErrnoException const& error) {
            lastError_ = error.text();
        }
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
    std::string const peer = peerOf(socket.get());
    String const place = history_ ? placeOf(socket.get()) : String();
    std::optional<uid_t> user;
    if (family == AF_UNIX) user = userOf(socket.get());
    gid_t const group = user && options_.rights ? groupOf(socket.get()) : 0;
    auto channel = kind == Address::Kind::tls ? tls_->channel(socket.get(), String())
                                              : plainChannel(socket.get(), user ? nameOf(*user) : String());
    Connection::Socket connected(loop_.context(), asio::generic::stream_protocol(family, 0), socket.release());
    auto const connection =
        std::make_shared<Connection>(std::move(connected), std::move(channel), options_.peer, &memory_);
    connections_[connection.get()] = {connection, nullptr, peer, place, group};
    newcomers_.push_back(connection.get());
    auto const self = shared_from_this();
    connection->start([self, user](Connection& c) -> Vel::StreamPeer& { return self->ready(c, user); },
        [self](Connection& c, String const& error) { self->ended(c, error); });
    // After start(), which reads the hello if it is there already: then this connection is no newcomer any more.
    if (newcomers_.size() > std::max<std::size_t>(options_.newcomers, 1))
        refuse(*newcomerToGo(), format("too many connections say no hello: more than %zu", options_.newcomers));
}

Vel::StreamPeer& Server::Impl::ready(Connection& connection, std::optional<uid_t> user) {
    String const& name = connection.peerName();
    auto& served = connections_[&connection];
    if (!user && !name.empty()) served.peer = "certificate of " + name.stdString();
    String const author = name.empty() || !history_ ? served.place : name + " (" + served.place + ")";
    served.reader = server_.newReader(
        mayWrite(name, user), [this, &connection] { return admission(connection); }, author, rightsOf(served, user));
    if (user && std::find(users_.begin(), users_.end(), *user) == users_.end())
        served.reader->refuse("user " + name + " may not connect");
    return *served.reader;
}

// Called when the hello is here. Returns why the connection is refused, or an empty text. A refused connection stays a
// newcomer until it has been told.
String Server::Impl::admission(Connection& connection) {
    if (connections_.size() - newcomers_.size() >= options_.connections)
        return format("the server has %zu connections already", options_.connections);
    std::erase(newcomers_, &connection);
    return {};
}

void Server::Impl::ended(Connection& connection, String const& error) {
    bytesInBefore_ += connection.bytesIn();
    bytesOutBefore_ += connection.bytesOut();
    Served const& served = connections_[&connection];
    if (!error.empty()) {
        bool const isRefused = served.isRefused || (served.reader && served.reader->hasRefused());
        ++(isRefused ? refused_ : failed_);
        lastError_ = error;
        if (!connection.peerName().empty()) lastError_ = connection.peerName() + ": " + error;
    }
    std::erase(newcomers_, &connection);
    connections_.erase(&connection);
}

// --- too much ---

// Ends a connection to make room for others.
void Server::Impl::refuse(Connection& connection, String const& reason) {
    std::erase(newcomers_, &connection);
    Served& served = connections_[&connection];
    served.isRefused = true;
    auto const kept = served.connection;  // keeps the connection alive while it ends
    kept->refuse(reason);
}

// Returns the oldest newcomer of the peer that has most of them, so that one peer can't keep the others out.
Connection* Server::Impl::newcomerToGo() const {
    std::map<std::string_view, std::size_t> counts;
    auto const peerAt = [&](Connection* c) { return std::string_view(connections_.find(c)->second.peer); };
    for (Connection* const c : newcomers_) ++counts[peerAt(c)];
    return *std::max_element(newcomers_.begin(), newcomers_.end(),
        [&](Connection* a, Connection* b) { return counts[peerAt(a)] < counts[peerAt(b)]; });
}

void Server::Impl::freeMemory() {
    while (memory_.held > memory_.limit) {
        auto const most = std::max_element(connections_.begin(), connections_.end(),
            [](auto const& a, auto const& b) { return a.first->held() < b.first->held(); });
        if (most == connections_.end() || most->first->held() == 0) return;
        refuse(*most->first,
            format("the connections of the server hold more than %zu bytes, and this one most of them", memory_.limit));
    }
}

// Caches users' names: a look-up is slow where users are kept on another machine.
String const& Server::Impl::nameOf(uid_t user) {
    if (userNames_.size() > usersRemembered) userNames_.clear();
    auto const [at, isNew] = userNames_.try_emplace(user);
    if (isNew) at->second = userName(user);
    return at->second;
}

// Asks for a user's groups again after a minute.
std::vector<gid_t> const& Server::Impl::groupsOf(uid_t user, gid_t first) {
    if (groups_.size() > usersRemembered) groups_.clear();
    Groups& known = groups_[{user, first}];
    auto const now = std::chrono::steady_clock::now();
    if (known.all.empty() || now - known.asked > groupsRemembered) known = {Mount::groupsOf(user, first), now};
    return known.all;
}

std::shared_ptr<Vel::StreamRights const> Server::Impl::rightsOf(Served const& served, std::optional<uid_t> user) {
    if (!options_.rights) return nullptr;
    if (!user) return options_.rights->ofPeer({.name = served.connection->peerName()});
    return options_.rights->ofPeer({.user = user, .groups = groupsOf(*user, served.group)});
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
        self->scheduleStatus();  // before updateStatus(), whose observers may throw
        self->server_.checkPaths();
        self->checkFiles();
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
    auto const status = status_;  // keeps the status alive even if an observer destroys the server
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
    auto const impl = impl_;  // keeps it alive even if an observer of the status destroys the server
    return impl->listen(address);
}
std::size_t Server::connections() const { return impl_->connections(); }
std::size_t Server::backlog() const { return impl_->backlog(); }
Vel::Ptr<ServerStatus> Server::status() const { return impl_->status(); }
Vel::Ptr<History> Server::history() const { return impl_->history(); }

}  // namespace Mount
