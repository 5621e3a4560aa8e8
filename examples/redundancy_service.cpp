// A redundancy service: whenever it gets SIGUSR1, makes the other cell active in the state database, where all agents
// see it.
//
//     $ redundancy_service unix:/run/mox/state.sock & kill -USR1 $!
#include "Mount/Client.h"
#include "Redundancy/RedundancyStatus.h"

#include "Vel/base/Exception.h"

#include <csignal>
#include <iostream>

namespace {

using Redundancy::RedundancyStatus;

Vel::Ptr<RedundancyStatus> statusOf(unsigned cell, Mount::Client& database) {
    return Vel::ptr_cast<RedundancyStatus>(
        database.replica().root()->entity(Vel::format("cell/%u/redundancy/status", cell)));
}

// Asks the database for the change. The service's own copy changes when the database sends the change back.
void flip(Mount::Client& database) {
    Vel::U32 const active = statusOf(1, database)->activeCellId() == 1 ? 2 : 1;
    for (unsigned const cell : {1u, 2u})
        database.replica().write(*statusOf(cell, database), Vel::attributeId<RedundancyStatus>("activeCellId"), active);
    std::cout << "cell " << active << " is to be active" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: redundancy_service ADDRESS\n";
        return 2;
    }
    try {
        Mount::Loop loop;
        Mount::Client database(
            loop, argv[1], Vel::Dir::newEntity("ql"), "Zendb", {.path = "/ql/Zendb", .wantsToWrite = true});
        if (!database.sync(std::chrono::seconds(10))) throw Vel::Exception(database.error());
        for (unsigned const cell : {1u, 2u})
            if (!statusOf(cell, database)) throw Vel::Exception("the database has no redundancy status of both cells");
        loop.onSignal(SIGUSR1, [&] { flip(database); });
        loop.onSignal(SIGTERM, [&] { loop.stop(); });
        std::cout << "ready" << std::endl;
        loop.run();
    } catch (Vel::Exception const& error) {
        std::cerr << "redundancy_service: " << error.what() << '\n';
        return 1;
    }
}
