#include "StreamSimulation.h"

#include <cstdlib>
#include <fstream>
#include <iostream>

namespace {

using Simulation::History;
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
    for (U64 seed = first; seed < first + runs && !HasFailure(); ++seed)
        EXPECT_EQ(Simulation::run(Simulation::historyOf(seed)).violation, "")
            << "scripts/simulate --seed " << seed << " tells the history";
}

// The same with readers at different paths.
TEST(StreamSimulationTest, ReplicasOfOverlappingPathsConvergeInOrderToo) {
    U64 const runs = variable("MOX_SIMULATION_RUNS", 300);
    for (U64 seed = 1; seed <= runs && !HasFailure(); ++seed)
        EXPECT_EQ(Simulation::run(Simulation::pathsHistoryOf(seed)).violation, "")
            << "scripts/simulate --paths --seed " << seed << " tells the history";
}

// The same with readers that ask for changes.
TEST(StreamSimulationTest, WhatReadersAskForIsAnsweredOnceAndNeverSeenInHalf) {
    U64 const runs = variable("MOX_SIMULATION_RUNS", 300);
    for (U64 seed = 1; seed <= runs && !HasFailure(); ++seed)
        EXPECT_EQ(Simulation::run(Simulation::writesHistoryOf(seed)).violation, "")
            << "scripts/simulate --writes --seed " << seed << " tells the history";
}

// The same with readers that have types in another version, or not at all.
TEST(StreamSimulationTest, CopiesOfOtherVersionsConvergeInOrderToo) {
    U64 const runs = variable("MOX_SIMULATION_RUNS", 300);
    for (U64 seed = 1; seed <= runs && !HasFailure(); ++seed)
        EXPECT_EQ(Simulation::run(Simulation::skewedHistoryOf(seed)).violation, "")
            << "scripts/simulate --skewed --seed " << seed << " tells the history";
}

// What has failed once: "seed N: why", "paths N: why", "writes N: why", "skewed N: why" or "history STEPS: why", a line each.
TEST(StreamSimulationTest, WhatHasFailedOnceHolds) {
    std::ifstream file(MOX_SOURCE_DIR "/test/Mox/simulation-regressions.txt");
    ASSERT_TRUE(file);
    std::size_t runs = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::string const what = line.substr(0, line.find(':'));
        bool const isSeed = what.starts_with("seed "), isPaths = what.starts_with("paths ");
        bool const isWrites = what.starts_with("writes "), isSkewed = what.starts_with("skewed ");
        ASSERT_TRUE(isSeed || isPaths || isWrites || isSkewed || what.starts_with("history ")) << line;
        History const history = isSeed     ? Simulation::historyOf(std::stoul(what.substr(5)))
                                : isPaths  ? Simulation::pathsHistoryOf(std::stoul(what.substr(6)))
                                : isWrites ? Simulation::writesHistoryOf(std::stoul(what.substr(7)))
                                : isSkewed ? Simulation::skewedHistoryOf(std::stoul(what.substr(7)))
                                           : Simulation::historyFrom(std::string_view(what).substr(8));
        EXPECT_EQ(Simulation::run(history).violation, "") << line;
        ++runs;
    }
    EXPECT_NE(runs, 0u);
}

// Else what has failed once is run as something else.
TEST(StreamSimulationTest, SeedMeansTheSameForEver) {
    History const history = Simulation::historyOf(1);
    std::string const text = Simulation::textOf(history);
    EXPECT_EQ(text.substr(0, 60), "log 43041 63977 55565 3127; childIs 60519 21854 51467 46521;");
    EXPECT_EQ(Simulation::textOf(Simulation::historyFrom(text)), text);
    std::string const skewed = Simulation::textOf(Simulation::skewedHistoryOf(1));
    EXPECT_EQ(skewed.substr(0, 58), "log 43041 63977 55565 3127; skewed 18324 25108 8251 13722;");
}

TEST(StreamSimulationTest, ShrinkingLeavesWhatFails) {
    History const history = Simulation::historyOf(1);
    auto const fails = [](History const& tried) {
        auto const drops = [](Simulation::Step const& step) { return step.what == Simulation::What::share; };
        return std::count_if(tried.begin(), tried.end(), drops) >= 2;
    };
    ASSERT_TRUE(fails(history));
    EXPECT_EQ(Simulation::shrunk(history, fails).size(), 2u);
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
