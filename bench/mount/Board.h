#pragma once

#include "Process.h"

#include <algorithm>
#include <array>

namespace Bench {

constexpr std::size_t maximumReaders = 16;
constexpr Nanoseconds measurementLimit = 120 * second;  // for one run

// What the processes of a measurement tell each other.
struct Board {
    struct Reader {  // on a cache line of its own
        alignas(64) std::atomic<bool> isReady;
        std::atomic<Nanoseconds> done;  // when it had all; 0: not yet
        std::atomic<std::uint64_t> told;
        std::atomic<std::uint64_t> allocations;
        std::atomic<pid_t> pid;
    };

    std::atomic<bool> listens;
    std::atomic<bool> hasEnded;  // the source needs the readers no longer
    std::atomic<Nanoseconds> begun;
    std::atomic<Nanoseconds> sourceCpu;
    std::atomic<Nanoseconds> brokerCpu;
    std::atomic<std::uint64_t> leftOut;
    std::atomic<std::uint64_t> allocations;  // of the source
    std::atomic<std::uint32_t> size;         // of what is served
    std::array<std::atomic<std::size_t>, 11> resident;
    std::array<Reader, maximumReaders> readers;

    bool allReady(std::size_t count) const {
        return std::all_of(
            readers.begin(), readers.begin() + count, [](Reader const& reader) { return reader.isReady.load(); });
    }
    bool allDone(std::size_t count) const {
        return std::all_of(
            readers.begin(), readers.begin() + count, [](Reader const& reader) { return reader.done.load() != 0; });
    }
};

}  // namespace Bench
