// A user's program that serves and mounts: the installed package must bring along what that needs, and the types must
// be there although nothing here names them.
#include "Mount/Client.h"
#include "Mount/Server.h"
#include "Mox/Generation.h"

#include <iostream>

int main() {
    Mount::Loop loop;
    Mount::Server server(loop, Mox::generationEntityFactory("served"));
    auto const address = server.listen("tcp:127.0.0.1:0");
    Mount::Client client(loop, address, Vel::Dir::newEntity("here"), "copy");
    bool const synced = client.sync(std::chrono::seconds(10));
    std::cout << (synced ? "mounted " : "not mounted: ") << (synced ? client.replica().root()->path() : client.error())
              << '\n';
    return synced ? 0 : 1;
}
