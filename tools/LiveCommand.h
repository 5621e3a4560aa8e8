#pragma once

#include "tools/Command.h"
#include "tools/lib/Connection.h"

namespace Tool {

// Base of the commands that access a server's live state. It has their common options: the address, the timeout, and
// the files for TLS.
class LiveCommand : public Command {
protected:
    LiveCommand(CLI::App& app, char const* name, char const* what, char const* help);

    void addPath(char const* what) { argument("PATH", where_.path, what); }
    void addTimeoutAndJson();

    ConnectionOptions where_;
    bool json_ = false;
};

}  // namespace Tool
