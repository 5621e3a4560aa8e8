#include "tools/LiveCommand.h"

namespace Tool {

LiveCommand::LiveCommand(CLI::App& app, char const* name, char const* what, char const* help)
    : Command(app, name, what, help) {
    neededArgument("ADDRESS", where_.address, "unix:PATH, tcp:HOST:PORT or tls:HOST:PORT");
    option("--cert", where_.certificate, "FILE", "tls: this side's certificate");
    option("--key", where_.key, "FILE", "tls: its key");
    option("--authority", where_.authority, "FILE", "tls: certificates of who signs the other side's");
}

void LiveCommand::addTimeoutAndJson() {
    option("--timeout", where_.timeout, "S", "Give up when nothing comes for so long (default: 5)");
    flag("--json", json_, "Answer in JSON");
}

}  // namespace Tool
