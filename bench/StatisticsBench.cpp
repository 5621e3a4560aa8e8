#include "Bench.h"

#include "Mox/Events.h"

#include <array>
#include <random>

// What one observation costs: every statistic over the same random observations.

namespace {

struct Observation {
    bool val;
    bool changed;
    Vel::U32 count;
    Vel::Seconds when;
};

constexpr std::size_t mask = 1023;

std::array<Observation, mask + 1> const observations = [] {
    std::array<Observation, mask + 1> result;
    std::mt19937 random(1);
    double time = 1.7e9;
    for (Observation& o : result) {
        o = {(random() & 1) != 0, (random() & 1) != 0, static_cast<Vel::U32>(random() % 4), Vel::Seconds(time)};
        time += 0.001;
    }
    return result;
}();

template <class Stat, class Update> void add(char const* name, Update update) {
    Bench::add("doUpdate", name, [update](benchmark::State& state) {
        // Several in turn, as an agent keeps them: one alone would measure how fast a store reaches the next load.
        std::array<Stat, 64> stats;
        std::size_t i = 0;
        for (auto _ : state) {
            update(stats[i % stats.size()], observations[i & mask]);
            benchmark::ClobberMemory();
            ++i;
        }
        benchmark::DoNotOptimize(stats);
    });
}

}

int main(int argc, char** argv) {
    using O = Observation;
    add<Mox::CountStat>("CountStat", [](auto& s, O const& o) { s.doUpdate(o.count, o.when); });
    add<Mox::ConditionStat>("ConditionStat", [](auto& s, O const& o) { s.doUpdate(o.val, o.when); });
    add<Mox::EventStat>("EventStat", [](auto& s, O const& o) { s.doUpdate(o.val, o.when); });
    add<Mox::EventOrCountStat>("EventOrCountStat", [](auto& s, O const& o) { s.doUpdate(o.val, o.count, o.when); });
    add<Mox::ConditionOrCountStat>(
        "ConditionOrCountStat", [](auto& s, O const& o) { s.doUpdate(o.val, o.count, o.when); });
    add<Mox::ConditionOrChangedStat>(
        "ConditionOrChangedStat", [](auto& s, O const& o) { s.doUpdate(o.val, o.changed, o.when); });
    add<Mox::CountOrChangedStat>("CountOrChangedStat", [](auto& s, O const& o) { s.doUpdate(o.count, o.when); });
    return Bench::run(argc, argv);
}
