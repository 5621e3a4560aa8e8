#pragma once

#include "Allocations.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// What every benchmark program shares. One program is one source file, so this header may define functions.
//
// A benchmark's name is "group/contestant". The repetitions of all contestants are interleaved, and after the run a
// table shows the least time of each, how far above it the median lies, and its ratio to the first contestant of its
// group. The least, since whatever else the machine does only adds to a time; ratios come from one run.

// --- allocations ---

namespace Bench {

// Adds the column "allocations" to a benchmark: how many there were for one iteration.
class CountAllocations {
public:
    explicit CountAllocations(benchmark::State& state) : state_(state), before_(allocationCount) {}
    CountAllocations(CountAllocations const&) = delete;
    CountAllocations& operator=(CountAllocations const&) = delete;
    ~CountAllocations() {
        auto const count = static_cast<double>(allocationCount - before_);
        state_.counters["allocations"] = benchmark::Counter(count, benchmark::Counter::kAvgIterations);
    }

private:
    benchmark::State& state_;
    std::size_t before_;
};

// The value has to be in memory now. (benchmark::DoNotOptimize may load a small one into a register at once, which
// waits for its parts to be stored.)
template <class T> void keep(T const& value) { asm volatile("" : : "r"(&value) : "memory"); }

// --- contestants must agree ---

inline void require(bool good, std::string_view what) {
    if (good) return;
    std::fprintf(stderr, "the contestants disagree: %.*s\n", static_cast<int>(what.size()), what.data());
    std::exit(1);
}

inline void requireSame(std::string_view got, std::string_view wanted, std::string_view who) {
    if (got == wanted) return;
    std::fprintf(stderr, "the contestants disagree: %.*s gives\n    %.*s\nand not\n    %.*s\n",
        static_cast<int>(who.size()), who.data(), static_cast<int>(got.size()), got.data(),
        static_cast<int>(wanted.size()), wanted.data());
    std::exit(1);
}

// --- the run ---

// Prints a line a repetition as it comes, and the table of ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    explicit RatioReporter(std::vector<std::string> const& names) : ConsoleReporter(OO_None) {
        for (std::string const& name : names) find(name);
    }

    void ReportRuns(std::vector<Run> const& runs) override {
        for (Run const& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            Contestant& contestant = find(run.run_name.function_name);
            contestant.times.push_back(run.GetAdjustedCPUTime());
            auto const allocations = run.counters.find("allocations");
            if (allocations != run.counters.end()) contestant.allocations = allocations->second.value;
        }
    }
    void Finalize() override {
        for (Group& group : groups_) {
            std::erase_if(group.contestants, [](Contestant const& contestant) { return contestant.times.empty(); });
            if (group.contestants.empty()) continue;  // left out by --benchmark_filter
            std::printf("\n%s\n", group.name.c_str());
            for (Contestant& contestant : group.contestants)
                std::sort(contestant.times.begin(), contestant.times.end());
            double const base = group.contestants.front().least();
            for (Contestant const& contestant : group.contestants) {
                std::printf("    %-36s %9.2f ns  +%4.1f%%  x %6.2f", contestant.name.c_str(), contestant.least(),
                    100 * (contestant.median() / contestant.least() - 1), contestant.least() / base);
                if (contestant.allocations >= 0) std::printf("  %.2f allocations", contestant.allocations);
                std::printf("\n");
            }
        }
    }

private:
    struct Contestant {
        explicit Contestant(std::string given) : name(std::move(given)) {}
        std::string name;
        std::vector<double> times;  // ns for one iteration, one a repetition
        double allocations = -1;    // for one iteration; below 0: not counted

        double least() const { return times.front(); }  // these two REQUIRE sorted times
        double median() const { return times[times.size() / 2]; }
    };
    struct Group {
        explicit Group(std::string given) : name(std::move(given)) {}
        std::string name;
        std::vector<Contestant> contestants;
    };

    // Makes the place on first use: in the order of registration, and not in that of the interleaved runs.
    Contestant& find(std::string_view name) {
        auto const slash = name.rfind('/');
        auto const named = [](auto& list, std::string_view name) -> auto& {
            for (auto& element : list)
                if (element.name == name) return element;
            return list.emplace_back(std::string(name));
        };
        return named(named(groups_, name.substr(0, slash)).contestants, name.substr(slash + 1));
    }

    std::vector<Group> groups_;
};

inline std::vector<std::string> names;  // in order of registration

// Registers "group/contestant".
template <class F> void add(std::string const& group, std::string const& contestant, F function) {
    names.push_back(group + "/" + contestant);
    benchmark::RegisterBenchmark(names.back().c_str(), [function](benchmark::State& state) {
        CountAllocations const count(state);
        function(state);
    });
}

// Runs what was added; arguments are Google Benchmark's and override what stands here.
inline int run(int argc, char** argv) {
    static char repetitions[] = "--benchmark_repetitions=9";
    static char interleaving[] = "--benchmark_enable_random_interleaving=true";
    static char time[] = "--benchmark_min_time=0.02";
    std::vector<char*> arguments{argv[0], repetitions, interleaving, time};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
    RatioReporter reporter(names);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}

}  // namespace Bench
