#pragma once

#include "Mount/Address.h"
#include "Mount/History.h"
#include "Mount/Loop.h"
#include "Mount/Options.h"
#include "Mount/Status.h"

#include <memory>

namespace Mount {

// Serves an entity, and all that it leads to, to other processes. Each of them asks for a path below the entity, or for
// all of it. The server sends changes while the loop runs.
//
// A slow reader gets fewer, newer values; memory stays bounded. A producer that outpaces its readers can throttle
// itself: run the loop while backlog() is high, but with a time limit, since a stalled reader keeps it high until it is
// a whole log behind.
// Threads: the one that runs the loop.
class VEL_API Server {
public:
    using Options = ServerOptions;

    Server(Loop& loop, Vel::Ptr<Vel::Entity> root, Options options = {});
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;
    ~Server();  // closes all connections; what was not sent is lost

    // Listens at one more address; returns it with the port that was chosen. Takes over the file of a Unix socket at
    // which nobody listens any more. Throws ErrnoException; throws RangeException for an address that may not be
    // served: plain TCP that is not loopback, or TLS without its files.
    Address listen(Address const& address);

    std::size_t connections() const;
    // Bytes of the log that still have to be sent to the slowest reader that is less than a whole log behind.
    std::size_t backlog() const;
    Vel::Ptr<History> history() const;      // null unless ServerOptions::history is set
    Vel::Ptr<ServerStatus> status() const;  // the server updates it; add it to a directory so that others can find it

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace Mount
