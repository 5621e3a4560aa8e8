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

// Found by a seed: the reader did not read that the member had come, nor of what it had come into.
TEST(StreamStallTest, MemberThatMovesIntoANewTrieArrives) {
    auto const root = Vel::Dir::newEntity("root");
    auto const from = Simulation::Trie::newEntity("from");
    root->entryIs(from);
    auto const member = from->prefixChildIs("k");
    StreamTest::Pair pair(root, {.logSize = 0});
    pair.connect();
    pair.run();

    auto const to = Simulation::Trie::newEntity("to");
    root->entryIs(to);
    from->prefixChildDel("k");
    to->adopt(member);
    for (int i = 0; i < 1000; ++i) member->presentIs(i % 2 == 0);
    ASSERT_EQ(pair.source.liveReaders(), 0u) << "which is what is tested";
    pair.run();
    pair.expectEqual();
}

}  // namespace
