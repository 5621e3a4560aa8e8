#pragma once

#include "Vel/stream/AttrLogSource.h"

#include <chrono>
#include <vector>

namespace Mount {

using Vel::String;
using Vel::U32;
using Milliseconds = std::chrono::milliseconds;

// The files that an address of kind tls needs, in PEM form.
struct TlsFiles {
    String certificate{};  // this side's, perhaps with those that lead to the authority's
    String key{};
    String authority{};  // CA certificates that the peer's must be signed by
};

// Who may be on the other side, and how long it may be silent. Who is at a Unix socket the system tells: a user's name,
// or number when it has no name. At a TLS connection it is the common name of the certificate.
struct PeerOptions {
    std::vector<String> users{};  // of a Unix socket, by name or number; none: this process's user, and root
    std::vector<String> names{};  // of certificates; none: all that the authority has signed
    TlsFiles tls{};
    Milliseconds helloTimeout{10'000};  // until the first message has come wholly, handshakes included
    Milliseconds idleTimeout{30'000};   // without a byte that comes, after a third of which the other side is asked for
                                        // one; or without a byte that is taken, where some wait to be
};

struct ServerOptions {
    Vel::AttrLogSource::Options source{};  // the log, what readers may write, bounds on what they may send
    PeerOptions peer{};
    std::vector<String> writers{};   // who may write if source.mayWrite, as in PeerOptions; none: all who may connect
    std::size_t connections = 1024;  // that have said hello; more are refused
    std::size_t newcomers =
        64;              // that have not; when there is another, the peer that has most of them loses its oldest
    U32 socketMode = 0;  // of a Unix socket's file; 0: 0600, or 0666 when `users` says who may connect
    Milliseconds statusInterval{1000};  // how often what has changed of the status is published
};

struct ClientOptions {
    String path{};              // of what is wanted, at the server
    bool wantsToWrite = false;  // see AttrLogReplica::write()
    Vel::StreamLimits limits{};
    PeerOptions peer{};
    Milliseconds connectTimeout{5'000};
    Milliseconds firstDelay{100};   // before the second attempt; doubled each time, and up to a quarter more or less,
    Milliseconds lastDelay{5'000};  // up to this
    Milliseconds statusInterval{1000};
};

}  // namespace Mount
