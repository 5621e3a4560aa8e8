#pragma once

#include "Mount/Rights.h"

#include "Vel/stream/AttrLogSource.h"
#include "Vel/stream/StreamPolicy.h"

#include <chrono>
#include <memory>
#include <vector>

namespace Mount {

using Vel::String;
using Vel::U32;
using Milliseconds = std::chrono::milliseconds;

// The files that an address of kind tls needs, in PEM form.
struct TlsFiles {
    String certificate{};  // this side's certificate, followed by intermediate ones if there are any
    String key{};
    String authority{};  // CA certificates that the peer's must be signed by
};

// Who may be on the other side, and how long that side may be silent. At a Unix socket the system identifies the other
// side: by the user's name, or by its number if it has no name. In TLS the certificate's common name identifies it.
struct PeerOptions {
    // Users that a server admits at a Unix socket, by name or number; if empty, this process's user and root. A client
    // accepts a server of these users only; if empty, of any user.
    std::vector<String> users{};
    std::vector<String> names{};  // common names that are admitted; if empty, all that the authority has signed
    TlsFiles tls{};
    Milliseconds helloTimeout{10'000};  // from the connection to the whole first message, handshakes included
    // Ends the connection when for that long no byte has come, or no byte was taken although some wait to be sent.
    // After a third of it without a byte, the other side is pinged.
    Milliseconds idleTimeout{30'000};
};

struct ServerOptions {
    Vel::AttrLogSource::Options source{};  // the log, what readers may write, bounds on what they may send
    PeerOptions peer{};
    // Users or common names that may write if source.mayWrite is set; if empty, all who may connect.
    std::vector<String> writers{};
    // Who may read, change and call what. Null: who may connect may read everything, and source.mayWrite and `writers`
    // say who may change it. With rights, setting either of them is an error, and so are ownChanges and lastChanges:
    // they would name what some readers may not read.
    std::shared_ptr<Rights const> rights{};
    // What the server keeps of who has changed what, and serves at historyPath. 0: none. Each change takes up to 4 KiB.
    std::size_t history = 0;      // number of changes that peers have asked for, the newest; 1 if only others are set
    std::size_t ownChanges = 0;   // number of changes that this process has made, the newest
    std::size_t lastChanges = 0;  // number of attributes of which the last change is kept, whoever made it
    std::size_t connections = 1024;  // that have said hello; further ones are refused
    // Connections that have not said hello. When there is one too many, the peer that has most of them loses its
    // oldest.
    std::size_t newcomers = 64;
    U32 socketMode = 0;                 // of a Unix socket's file; 0 means 0600, or 0666 if peer.users is not empty
    Milliseconds statusInterval{1000};  // between two updates of Server::status()
};

// The path at which a server has its Mount::History. An entity of this name below the served one cannot be asked for.
// With rights, a reader that may read this path gets those changes whose path it may read.
inline constexpr char historyPath[] = "@history";

struct ClientOptions {
    String path{};              // of the entity to mount, at the server; empty means all that is served
    bool wantsToWrite = false;  // see AttrLogReplica::write()
    Vel::StreamLimits limits{};
    PeerOptions peer{};
    Milliseconds connectTimeout{5'000};
    // Delay before the second attempt. It doubles with each failure up to lastDelay, and varies by up to a quarter.
    Milliseconds firstDelay{100};
    Milliseconds lastDelay{5'000};
    Milliseconds statusInterval{1000};  // between two updates of Client::status()
    Vel::StreamPolicy policy{};         // about types that the server has and this process does not, or otherwise
};

}  // namespace Mount
