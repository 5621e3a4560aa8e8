#pragma once

#include "tools/lib/EntityText.h"

#include "Mount/Client.h"
#include "Mount/Loop.h"

#include "Vel/entity/Dir.h"

#include <optional>
#include <string>

// The way to what a server has.
namespace Tool {

// Where something is, and how long to wait for it.
struct ConnectionOptions {
    std::string address;  // as Mount::Address takes it
    std::string path = "/";
    double timeout = 5;                       // seconds in which something has to come
    std::string certificate, key, authority;  // files, for tls: addresses
};

Mount::Address addressFrom(std::string const& text);             // throws Failure
Mount::TlsFiles tlsFilesFrom(ConnectionOptions const& options);  // throws Failure when only some are given
// For a client that copies what is at a path of the server. Throws Failure.
Mount::ClientOptions clientOptions(ConnectionOptions const& options, std::string const& path);
// Makes a client of them, which copies into `place`, under the name "copy". Throws Failure.
void connect(std::optional<Mount::Client>& client, Mount::Loop& loop, Vel::Ptr<Vel::Dir> const& place,
    Mount::ClientOptions const& clientOptions, ConnectionOptions const& options);
std::chrono::nanoseconds secondsFrom(double seconds);

// What may be done about what a connection has ended by, behind "; ", or nothing.
std::string adviceFor(Vel::StreamFault fault);

// The error, behind the address unless that is its beginning anyway.
std::string withAddress(ConnectionOptions const& options, std::string const& error);

// A directory for a copy, which is left to the end of the process: taking a large copy apart takes as long as it took
// to make it, and entities that refer to each other in a circle would stay anyway.
Vel::Ptr<Vel::Dir> placeForCopy();

// A copy of what is at a path of a server, made for a command that asks once.
class Connection {
public:
    Connection(ConnectionOptions const& options, std::string const& path, bool wantsToWrite = false);

    // Until the copy is complete. Throws Failure when connecting fails, or when nothing has come for the time that the
    // options say. False: there is nothing at the path.
    bool sync();
    Mount::Loop& loop() { return loop_; }
    Mount::Client& client() { return *client_; }
    Vel::Entity& root();
    std::string const& error() const { return error_; }  // the first one
    Vel::StreamFault fault() const { return fault_; }    // of which kind that is

private:
    ConnectionOptions const& options_;
    Mount::Loop loop_;
    Vel::Ptr<Vel::Dir> place_ = placeForCopy();
    std::string error_;
    Vel::StreamFault fault_ = Vel::StreamFault::none;
    std::optional<Mount::Client> client_;
};

// An entity of a server, wherever it is: the copy may begin above it, since a server knows names only.
class Found {
public:
    // Throws Failure, which says what there is instead, when the entity is not there.
    Found(ConnectionOptions const& options, std::string const& path, bool wantsToWrite = false);

    Connection& connection() { return *connection_; }
    std::string const& rootPath() const { return rootPath_; }  // of the copy
    Vel::Entity& entity() const { return *entity_; }

private:
    void connect(std::vector<Step> const& steps, std::size_t count, bool wantsToWrite);
    [[noreturn]] void failMissing(Vel::Entity const& above, std::string const& path, Step const& step) const;

    ConnectionOptions const& options_;
    std::optional<Connection> connection_;
    std::string rootPath_;
    Vel::Entity* entity_ = nullptr;
};

// "/a/b" for anything that leads there.
std::string normalPath(std::string const& path);

// The attribute of that name, which is no collection. Throws Failure.
Vel::StreamAttribute const& singleAttribute(
    Vel::Entity const& entity, std::string const& name, ConnectionOptions const& options);

}  // namespace Tool
