// What a trace costs that is switched off, and one that is switched on.

#include "Bench.h"

#include "Vel/text/Trace.h"

namespace {

constinit Vel::TraceHandle traceHandle("TraceBench");
std::size_t records = 0;

}  // namespace

// Not in the namespace, so that they can be found by name in the disassembly.
__attribute__((noinline)) void benchEmpty(Vel::U32 value) { benchmark::DoNotOptimize(value); }
__attribute__((noinline)) void benchTraced(Vel::U32 value) {
    if (traceHandle.enabled(3)) {
        Vel::TraceHelper helper(traceHandle, 3, "/bench/TraceBench", 18, "benchTraced");
        helper.stream() << "the value is " << value;
    }
    benchmark::DoNotOptimize(value);
}

int main(int argc, char** argv) {
    Vel::Trace::sinkIs([](Vel::TraceRecord const&) { ++records; });
    Vel::Trace::levelsIs("TraceBench/3");
    benchTraced(1);
    Bench::require(records == 1, "an enabled trace makes a record");
    Vel::Trace::levelsIs("TraceBench/4");
    benchTraced(1);
    Bench::require(records == 1, "a disabled trace makes none");

    Bench::add("trace", "function without a trace", [](benchmark::State& state) {
        for (auto _ : state) benchEmpty(7);
    });
    Bench::add("trace", "with a disabled trace", [](benchmark::State& state) {
        Vel::Trace::levelsIs("TraceBench/4");
        for (auto _ : state) benchTraced(7);
    });
    Bench::add("trace", "with an enabled trace, to a sink", [](benchmark::State& state) {
        Vel::Trace::levelsIs("TraceBench/3");
        for (auto _ : state) benchTraced(7);
    });
    return Bench::run(argc, argv);
}
