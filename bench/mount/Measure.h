#pragma once

#include "Contestant.h"

#include <cstdint>
#include <vector>

// One run of each measurement. All throw Failure when what arrives is not what was sent, or nothing does.
namespace Bench {

struct Stream {
    std::size_t readers = 1;
    std::uint32_t changes = 1'000'000;
    Nanoseconds interval = 0;  // between the beginnings of batches; 0: as fast as all can take them
};
struct StreamResult {
    double seconds = 0;             // from the first change until the last reader was told of the last
    double sourceCpu = 0;           // seconds of CPU, user and system, from the first change until all were told
    double brokerCpu = 0;           // of what stands between
    std::uint64_t leftOut = 0;      // changes that some reader was not told of
    double sourceAllocations = -1;  // in all, in the second half of the changes; below 0: not counted
    double readerAllocations = -1;  // of the reader that makes most
};
StreamResult stream(Contestant& contestant, Stream const& what);

struct LatencyResult {
    std::vector<Nanoseconds> times;  // from each change until the reader was told, in order of size
    double sourceAllocations = -1;   // as above
    double readerAllocations = -1;
};
// Changes one by one, with so much time between. As many before them, without any, warm everything up.
LatencyResult latency(Contestant& contestant, std::uint32_t changes, Nanoseconds interval);

struct SyncResult {
    double first = 0;    // seconds until the first reader of a server has its copy,
    double further = 0;  // and until one more has
    std::uint32_t nodes = 0;
};
// Mox only: copies of a trie of so many prefixes.
SyncResult sync(std::uint32_t prefixes);

struct StallResult {
    std::vector<std::size_t> resident;  // of the server, bytes: before the changes, and after each tenth
    std::uint64_t leftOut = 0;          // changes that a reader was spared
    std::uint64_t told = 0;             // changes that the one that follows was told of,
    std::uint64_t toldLate = 0;         // and the one that stood still
};
// Mox only: so many changes of `entities` entities in turn, with one reader that follows and one that stands still.
// Both must have the last values in the end.
StallResult stall(std::uint32_t changes, std::uint32_t entities);

}  // namespace Bench
