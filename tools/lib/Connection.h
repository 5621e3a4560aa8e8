#pragma once

#include "tools/lib/EntityText.h"

#include "Mount/Client.h"
#include "Mount/Loop.h"

#include "Vel/entity/Dir.h"

#include <optional>
#include <string>

// Connects the live commands to a server.
namespace Tool {

// Where the wanted entity is, and how long to wait for it.
struct ConnectionOptions {
    std::string address;  // in the form of Mount::Address
    std::string path = "/";
    double timeout = 5;                       // longest time in seconds without a message
    std::string certificate, key, authority;  // files, for tls: addresses
};

Mount::Address addressFrom(std::string const& text);             // throws Failure
Mount::TlsFiles tlsFilesFrom(ConnectionOptions const& options);  // throws Failure if only some of them are given
// Returns the options of a client that copies the entity at `path`. Throws Failure.
Mount::ClientOptions clientOptions(ConnectionOptions const& options, std::string const& path);
// Makes a client with these options, which makes its copy in `place` under the name "copy". Throws Failure.
void connect(std::optional<Mount::Client>& client, Mount::Loop& loop, Vel::Ptr<Vel::Dir> const& place,
    Mount::ClientOptions const& clientOptions, ConnectionOptions const& options);
std::chrono::nanoseconds secondsFrom(double seconds);

// Returns "; " and what the user can do about a connection's error, or an empty text.
std::string adviceFor(Vel::StreamFault fault);

// Returns the error with the address in front, unless it begins with the address already.
std::string withAddress(ConnectionOptions const& options, std::string const& error);

// Returns a directory for a copy. It is never destroyed, since destroying a large copy takes as long as making it.
Vel::Ptr<Vel::Dir> placeForCopy();

// A copy of the entity at a path of a server, for a command that needs it once.
class Connection {
public:
    Connection(ConnectionOptions const& options, std::string const& path, bool wantsToWrite = false);

    // Runs the loop until the copy is complete. Returns false if nothing is at the path. Throws Failure if connecting
    // fails, or if no message comes within the timeout of the options.
    bool sync();
    Mount::Loop& loop() { return loop_; }
    Mount::Client& client() { return *client_; }
    Vel::Entity& root();
    std::string const& error() const { return error_; }  // the first error
    Vel::StreamFault fault() const { return fault_; }    // its kind

private:
    ConnectionOptions const& options_;
    Mount::Loop loop_;
    Vel::Ptr<Vel::Dir> place_ = placeForCopy();
    std::string error_;
    Vel::StreamFault fault_ = Vel::StreamFault::none;
    std::optional<Mount::Client> client_;
};

// An entity of a server at any path. A server finds entities by names only, so the copy may be of an entity above it.
class Found {
public:
    // Throws Failure if the entity is not there; its text says what is there instead.
    Found(ConnectionOptions const& options, std::string const& path, bool wantsToWrite = false);

    Connection& connection() { return *connection_; }
    std::string const& rootPath() const { return rootPath_; }  // path of the copy's root at the server
    Vel::Entity& entity() const { return *entity_; }

private:
    void connect(std::vector<Step> const& steps, std::size_t count, bool wantsToWrite);
    [[noreturn]] void failMissing(Vel::Entity const& above, std::string const& path, Step const& step) const;

    ConnectionOptions const& options_;
    std::optional<Connection> connection_;
    std::string rootPath_;
    Vel::Entity* entity_ = nullptr;
};

// Returns the usual form "/a/b" of a path, such as of "a//b/".
std::string normalPath(std::string const& path);

// Returns the attribute with this name. Throws Failure if there is none, or if it is a collection.
Vel::StreamAttribute const& singleAttribute(
    Vel::Entity const& entity, std::string const& name, ConnectionOptions const& options);

}  // namespace Tool
