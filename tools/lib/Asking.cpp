#include "tools/lib/Asking.h"

#include "tools/lib/Clean.h"
#include "tools/lib/Output.h"

#include "Mount/Answer.h"

#include "Vel/base/Exception.h"

namespace Tool {

using Vel::WriteResult;

Vel::WriteAnswer ask(Found& found, ConnectionOptions const& where,
    std::function<void(Vel::AttrLogReplica&, Vel::WriteTold)> const& send) {
    Vel::AttrLogReplica& replica = found.connection().client().replica();
    if (!replica.mayWrite())
        throw Failure(somethingWrong, where.address + " is read-only for you: its server takes no changes, or not from "
                                                      "this user (\"mox serve\" has --writable and --writer)");
    Mount::Answer answer(found.connection().loop());
    try {
        send(replica, answer.told());
    } catch (Vel::Exception const& error) {
        throw Failure(somethingWrong, cleaned(error.text().view()));
    }
    return answer.wait(secondsFrom(where.timeout));
}

void checkAnswer(Vel::WriteAnswer const& answer, Connection const& connection, ConnectionOptions const& where,
    std::string const& what) {
    switch (answer.result) {
    case WriteResult::done:
    case WriteResult::differs:
        return;
    case WriteResult::observerFailed:
        complain(what + " was done, but an observer at the server failed: " + cleaned(answer.text.view()));
        return;
    case WriteResult::unknown:
        throw Failure(somethingWrong,
            connection.error().empty()
                ? where.address + ": no answer after " + Vel::format("%g", where.timeout).stdString() +
                      " s, so it may have been done or not; --timeout S waits longer"
                : withAddress(where, cleaned(connection.error())) + ", so it may have been done or not");
    default:
        throw Failure(somethingWrong, "the server does not take it: " + cleaned(answer.text.view()));
    }
}

}  // namespace Tool
