#pragma once

#include "Mount/Address.h"
#include "Mount/Loop.h"
#include "Mount/Options.h"
#include "Mount/Status.h"

#include "Vel/stream/AttrLogReplica.h"

#include <memory>

namespace Mount {

// Mounts what a server has at a path: keeps a copy of it in this process's own entities, and applies the server's
// changes to the copy. While the server is away the copy stays as it was, and the client tries to connect again, with
// longer and longer pauses.
// Threads: the one that runs the loop.
class VEL_API Client {
public:
    using Options = ClientOptions;
    using State = Vel::AttrLogReplica::State;

    // The first form makes the copy in `parent` under `name`. The second uses `root` as the copy; `root` must be of the
    // type that is served. Both throw if the address or the TLS files are wrong, and retry whatever else fails.
    Client(Loop& loop, Address const& address, Vel::Ptr<Vel::Dir> parent, String const& name, Options options = {});
    Client(Loop& loop, Address const& address, Vel::Ptr<Vel::Entity> root, Options options = {});
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;
    ~Client();  // the copy stays

    // Runs the loop until the copy is complete. Returns false if it is not complete after `time`; error() says why.
    bool sync(Loop::Duration time);

    // For root(), write() and the like. The client itself uses the replica's onStateIs(): use onStateIs() below
    // instead.
    Vel::AttrLogReplica& replica();
    State state() const;
    void onStateIs(std::function<void(State)> told);
    bool isConnected() const;
    String const& error() const;     // why the last attempt failed; empty once synced
    Vel::StreamFault fault() const;  // the kind of that error; StreamFault::other if the copy has not caused it
    // `told` is called whenever an attempt fails or a connection is lost.
    void onErrorIs(std::function<void(String const& error)> told);
    Vel::Ptr<ClientStatus> status() const;  // the client updates it; add it to a directory so that others can find it

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

// The state's name: "empty", "syncing", "synced" or "stale".
VEL_API char const* stateName(Client::State state);

}  // namespace Mount
