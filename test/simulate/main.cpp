// Runs simulations of streaming until one breaks a guarantee, which is shrunk and told. scripts/simulate starts it.
//
// usage: mox_simulate seed FIRST STEP COUNT SECONDS     seeds FIRST, FIRST + STEP, ..., COUNT of them; 0 SECONDS: no limit
//        mox_simulate paths FIRST STEP COUNT SECONDS    the same with readers at different paths
//        mox_simulate writes FIRST STEP COUNT SECONDS   the same with readers that ask for changes
//        mox_simulate skewed FIRST STEP COUNT SECONDS   the same with readers that have other versions of types
//        mox_simulate rights FIRST STEP COUNT SECONDS   readers that may not read everything
//        mox_simulate history STEPS                     one history, as it is written down; "rights STEPS" with rights

#include "../Mox/StreamSimulation.h"
#include "../Vel/stream/RightsSimulation.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace {

using Simulation::History;
using Simulation::Result;

void tell(History const& history) {
    Result const result = Simulation::run(history, true);
    for (std::string const& words : result.words) std::cout << "  " << words << '\n';
    std::cout << (result.violation.empty() ? "all that is guaranteed held" : "violated: " + result.violation) << '\n';
}

int report(std::string const& name, History const& history, Result const& result) {
    std::cout << name << " is violated after " << result.steps << " steps: " << result.kind() << std::endl;
    History const small = Simulation::shrunk(
        history, [&](History const& tried) { return Simulation::run(tried).kind() == result.kind(); });
    tell(small);
    std::cout << "history " << Simulation::textOf(small) << '\n';
    return 1;
}

// Runs the seed, and shrinks and prints its history if it fails. Returns the exit code.
int runRights(Vel::U64 seed) {
    RightsSimulation::History const history = RightsSimulation::historyOf(seed);
    std::string const violation = RightsSimulation::run(history);
    if (violation.empty()) return 0;
    std::cout << "rights " << seed << " is violated: " << violation << std::endl;
    RightsSimulation::History const small = RightsSimulation::shrunk(history);
    std::cout << "violated: " << RightsSimulation::run(small) << "\nhistory rights " << RightsSimulation::textOf(small)
              << '\n';
    return 1;
}

int runSeeds(std::string const& kind, Vel::U64 first, Vel::U64 step, Vel::U64 count, long seconds) {
    auto const start = std::chrono::steady_clock::now();
    auto const elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    Vel::U64 runs = 0;
    for (; runs < count && (seconds == 0 || elapsed() < static_cast<double>(seconds)); ++runs) {
        Vel::U64 const seed = first + runs * step;
        if (kind == "rights") {
            if (int const code = runRights(seed)) return code;
            continue;
        }
        History const history = kind == "paths"    ? Simulation::pathsHistoryOf(seed)
                                : kind == "writes" ? Simulation::writesHistoryOf(seed)
                                : kind == "skewed" ? Simulation::skewedHistoryOf(seed)
                                                   : Simulation::historyOf(seed);
        Result const result = Simulation::run(history);
        if (!result.violation.empty()) return report(kind + " " + std::to_string(seed), history, result);
    }
    std::cout << runs << " runs in " << elapsed() << " s\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "history") == 0 && std::strncmp(argv[2], "rights ", 7) == 0) {
        std::string const violation = RightsSimulation::run(RightsSimulation::historyFrom(argv[2] + 7));
        std::cout << (violation.empty() ? "all that is guaranteed held" : "violated: " + violation) << '\n';
        return violation.empty() ? 0 : 1;
    }
    if (argc == 3 && std::strcmp(argv[1], "history") == 0) {
        History const history = Simulation::historyFrom(argv[2]);
        Result const result = Simulation::run(history);
        if (!result.violation.empty()) return report("the history", history, result);
        tell(history);
        return 0;
    }
    if (argc != 6) {
        std::cerr
            << "usage: mox_simulate (seed | paths | writes | skewed | rights) FIRST STEP COUNT SECONDS | mox_simulate "
               "history STEPS\n";
        return 2;
    }
    auto const number = [&](int i) { return std::strtoul(argv[i], nullptr, 10); };
    return runSeeds(argv[1], number(2), number(3), number(4), static_cast<long>(number(5)));
}
