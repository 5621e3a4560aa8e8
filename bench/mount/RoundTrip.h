#pragma once

#include "Process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// What the benchmark of writes compares: each lets a process change a number that another process has, over a Unix
// socket, and tells it when that is done.
namespace Bench {

// The process that has the number. The constructor makes it ready for writers.
class Owner {
public:
    virtual ~Owner() = default;
    virtual void serve(Nanoseconds time) = 0;  // does what comes up in that time
};

// The process that asks for changes. The constructor connects.
class Writer {
public:
    virtual ~Writer() = default;

    virtual void ask(std::uint32_t value) = 0;  // does not wait for the answer
    // Until so many answers have come in all; checks that they say what they should.
    virtual void await(std::uint64_t answers, Deadline const& deadline) = 0;
    // Asks for one change, and waits for its answer. No other is under way.
    virtual void change(std::uint32_t value, Deadline const& deadline) {
        ask(value);
        await(++changes_, deadline);
    }
    virtual std::uint32_t stored(Deadline const& deadline) = 0;  // the value that the owner has

private:
    std::uint64_t changes_ = 0;
};

class WriteContestant {
public:
    virtual ~WriteContestant() = default;

    virtual std::string name() const = 0;
    // For one measurement, in the process that forks the others.
    virtual void start(std::string const& directory, Deadline const&) { directory_ = directory; }
    virtual void stop() {}

    virtual std::unique_ptr<Owner> owner() = 0;
    virtual std::unique_ptr<Writer> writer() = 0;

protected:
    std::string socket() const { return directory_ + "/socket"; }

    std::string directory_;
};

std::unique_ptr<WriteContestant> moxWriteContestant();
std::unique_ptr<WriteContestant> redisWriteContestant();  // null: no server is installed
std::unique_ptr<WriteContestant> grpcContestant();

// Times from each change until its answer, one at a time with `interval` between, in order of size. As many before them,
// without any, warm everything up.
std::vector<Nanoseconds> roundTrips(WriteContestant& contestant, std::uint32_t changes, Nanoseconds interval);
// Seconds for so many changes, of which `inFlight` are under way.
double writesInFlight(WriteContestant& contestant, std::uint32_t changes, std::uint32_t inFlight);

}  // namespace Bench
