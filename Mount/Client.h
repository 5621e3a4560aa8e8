#pragma once

#include "Mount/Address.h"
#include "Mount/Loop.h"
#include "Mount/Options.h"
#include "Mount/Status.h"

#include "Vel/stream/AttrLogReplica.h"

#include <memory>

namespace Mount {

// Mounts what a server has at a path: keeps a copy of it that follows, in this process's own entities. While the server
// is away the copy stays as it was, and connecting is tried again, less and less often.
// Threads: the one that runs the loop.
class VEL_API Client {
public:
    using Options = ClientOptions;
    using State = Vel::AttrLogReplica::State;

    // The copy is made in the directory, under that name; or it is `root`, which must be of the type that is served.
    // Throws what is wrong with the address or the files; whatever else fails is tried again.
    Client(Loop& loop, Address const& address, Vel::Ptr<Vel::Dir> parent, String const& name, Options options = {});
    Client(Loop& loop, Address const& address, Vel::Ptr<Vel::Entity> root, Options options = {});
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;
    ~Client();  // the copy stays

    // Runs the loop until the copy is complete. False when it was not in that time: error() says why.
    bool sync(Loop::Duration time);

    // For root(), write() and what else it tells. Its onStateIs() is taken; onStateIs() here serves instead.
    Vel::AttrLogReplica& replica();
    State state() const;
    void onStateIs(std::function<void(State)> told);
    bool isConnected() const;
    String const& error() const;     // what the last attempt failed by; empty once synced
    Vel::StreamFault fault() const;  // of which kind that is; what is no fault of the copy is StreamFault::other
    // Told whenever an attempt fails or a connection is lost.
    void onErrorIs(std::function<void(String const& error)> told);
    Vel::Ptr<ClientStatus> status() const;  // kept up to date; make it an entry of a directory to have it found

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

// The word for it: "empty", "syncing", "synced", "stale".
VEL_API char const* stateName(Client::State state);

}  // namespace Mount
