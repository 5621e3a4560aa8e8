#include "StreamSimulation.h"

#include <cstdlib>
#include <iostream>

namespace {

using Vel::U64;

U64 variable(char const* name, U64 otherwise) {
    char const* const text = std::getenv(name);
    return text ? std::strtoul(text, nullptr, 10) : otherwise;
}

// MOX_SIMULATION_SEED=n replays that run alone; MOX_SIMULATION_RUNS=n makes it that many.
TEST(StreamSimulationTest, ReplicasConvergeInOrderWhateverTheNetworkDoes) {
    bool const isReplay = std::getenv("MOX_SIMULATION_SEED");
    U64 const first = variable("MOX_SIMULATION_SEED", 1);
    U64 const runs = isReplay ? 1 : variable("MOX_SIMULATION_RUNS", 300);
    for (U64 seed = first; seed < first + runs && !HasFailure(); ++seed) Simulation::run(seed);
}

}  // namespace
