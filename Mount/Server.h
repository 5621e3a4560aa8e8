#pragma once

#include "Mount/Address.h"
#include "Mount/Loop.h"
#include "Mount/Options.h"
#include "Mount/Status.h"

#include <memory>

namespace Mount {

// Serves an entity, and all that it leads to, to other processes; each asks for a path below it, or for all. Changes go
// out by themselves while the loop runs.
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

    // Listens at one more address; returns it with the port that was chosen. The file of a Unix socket that nobody
    // listens at any more is taken over. Throws ErrnoException, and RangeException for an address that is not to be
    // served: plain TCP that is not loopback, tls without its files.
    Address listen(Address const& address);

    std::size_t connections() const;
    std::size_t backlog() const;            // bytes that the slowest reader of those that keep up has still to be sent
    Vel::Ptr<ServerStatus> status() const;  // kept up to date; make it an entry of a directory to have it found

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace Mount
