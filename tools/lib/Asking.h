#pragma once

#include "tools/lib/Connection.h"

#include "Vel/stream/AttrLogReplica.h"

#include <functional>
#include <string>

// Asks a server for a change or a call, and waits for the answer.
namespace Tool {

// Throws Failure if the server takes no changes from this user, or if `send` throws.
Vel::WriteAnswer ask(Found& found, ConnectionOptions const& where,
    std::function<void(Vel::AttrLogReplica&, Vel::WriteTold)> const& send);

// Throws Failure unless it was done. An observer at the server that has failed is only reported. `what` is what was to
// change, or was called. The result `differs` is the caller's affair.
void checkAnswer(Vel::WriteAnswer const& answer, Connection const& connection, ConnectionOptions const& where,
    std::string const& what);

}  // namespace Tool
