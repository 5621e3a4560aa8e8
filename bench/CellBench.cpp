// The process's facts once they are cached, and paths made of them.

#include "Bench.h"

#include "Mox/Cell.h"

#include "Vel/base/System.h"

#include <cstring>

namespace {

// Answers from here, so that the results do not depend on the machine.
class FixedCalls : public Vel::SystemCalls {
public:
    char const* getenv(char const* name) override {
        ++calls;
        if (std::strcmp(name, "CELLID") == 0) return "2";
        return std::strcmp(name, "ACTIVE_CELLID") == 0 ? "1" : nullptr;
    }
    std::size_t calls = 0;
};

}  // namespace

int main(int argc, char** argv) {
    FixedCalls calls;
    Vel::System::callsIs(&calls);
    Bench::require(Cell::cellId() == 2 && Cell::activeCellId() == 1, "the cell ids");
    Bench::require(Cell::path("status", 0) == "cell/2/status", "the path");
    std::size_t const before = calls.calls;
    Cell::cellId();
    Bench::require(calls.calls == before, "a cached cell id needs no system call");

    Bench::add("cell", "getenv and strtol", [](benchmark::State& state) {
        for (auto _ : state) {
            char const* const text = std::getenv("PATH");
            benchmark::DoNotOptimize(std::strtol(text ? text : "2", nullptr, 0));
        }
    });
    Bench::add("cell", "Cell::cellId, cached", [](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Cell::cellId());
    });
    Bench::add("cell", "Cell::activeCellId, by variable", [](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Cell::activeCellId());
    });
    Bench::add("cell", "Cell::path of the own cell", [](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Cell::path("redundancy/status", 0).charPtr());
    });
    int const status = Bench::run(argc, argv);
    Vel::System::callsIs(nullptr);
    return status;
}
