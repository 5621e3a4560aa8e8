#include "RightsSimulation.h"

#include <gtest/gtest.h>

namespace {

// scripts/simulate --rights makes more runs.
TEST(RightsSimulationTest, NobodyIsEverSentWhatHeMayNotRead) {
    for (Vel::U64 seed = 1; seed <= 100 && !HasFailure(); ++seed) {
        auto const history = RightsSimulation::historyOf(seed);
        std::string const violation = RightsSimulation::run(history);
        if (violation.empty()) continue;
        auto const small = RightsSimulation::shrunk(history);
        ADD_FAILURE() << "seed " << seed << ": " << violation << "\nshrunk: " << RightsSimulation::textOf(small) << "\n"
                      << RightsSimulation::run(small);
    }
}

TEST(RightsSimulationTest, HistoryReadsBackFromItsText) {
    auto const history = RightsSimulation::historyOf(7);
    EXPECT_EQ(RightsSimulation::textOf(RightsSimulation::historyFrom(RightsSimulation::textOf(history))),
        RightsSimulation::textOf(history));
}

}  // namespace
