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
// A reader that does not keep up gets less often told, with the values at that time; nothing grows meanwhile. Who must not
// wait for that, and changes values faster than they can be sent, asks backlog() and runs the loop while it is high, but
// not for ever: a reader that takes nothing keeps it high until that has fallen behind by the whole log.
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
