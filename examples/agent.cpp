// An agent: mounts the state database at /ql/Zendb, and prints which cell is active whenever that changes.
//
//     $ CELLID=1 agent unix:/run/mox/state.sock
#include "Mount/Client.h"
#include "Mox/Cell.h"
#include "Redundancy/RedundancyStatus.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/ActivityManager.h"

#include <csignal>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: agent ADDRESS\n";
        return 2;
    }
    try {
        Vel::activityManager().systemNameIs("ql");
        auto const ql = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "ql"));
        Mount::Loop loop;
        loop.onSignal(SIGTERM, [&] { loop.stop(); });
        loop.onSignal(SIGINT, [&] { loop.stop(); });
        Mount::Client database(loop, argv[1], ql, "Zendb", {.path = "/ql/Zendb"});

        auto const tell = [](char const* why) {
            std::cout << "cell " << Cell::cellId() << ": active is cell " << Cell::activeCellId() << " (" << why << ")"
                      << std::endl;
        };
        tell("nothing is mounted yet");
        // The database may go away, and its entities may be replaced, so this looks for the status again whenever the
        // copy is complete.
        std::unique_ptr<Vel::Notifiee> observer;
        database.onStateIs([&](Mount::Client::State state) {
            if (state == Mount::Client::State::stale) tell("the database is away");
            if (state != Mount::Client::State::synced) return;
            tell("mounted");
            auto const status = database.replica().root()->entity(Cell::path("redundancy/status", 0));
            observer = status ? Vel::notifieeOf(*status, [&](Vel::AttributeId) { tell("a change"); }) : nullptr;
        });
        database.onErrorIs([last = Vel::String()](Vel::String const& error) mutable {
            if (error != last) std::cerr << "agent: " << error << '\n';
            last = error;
        });
        loop.run();
    } catch (Vel::Exception const& error) {
        std::cerr << "agent: " << error.what() << '\n';
        return 1;
    }
}
