#pragma once

#include "Process.h"

#include <memory>
#include <string>
#include <vector>

// What the benchmark compares: each tells processes of the changes of a number in another process, over a Unix socket.
namespace Bench {

// Who is told. Throws nothing, since it may be called by an entity's observer.
class Listener {
public:
    virtual ~Listener() = default;
    virtual void changed(std::uint32_t value) = 0;
    bool isDone = false;  // nothing more is wanted
    std::string problem;  // of what was told; done then
};

// The process that changes the number. The constructor makes it ready for readers.
class Source {
public:
    virtual ~Source() = default;

    virtual bool hasReaders(std::size_t count) = 0;  // as far as it knows
    // Another value. May keep it back for a while, so that many go together, and waits where readers are far behind.
    virtual void change(std::uint32_t value) = 0;
    virtual void flush() = 0;                      // sends what was kept back
    virtual void serve(Nanoseconds time) = 0;      // does what comes up in that time
    virtual std::uint64_t leftOut() { return 0; }  // changes of which some reader was not told, if it knows
};

// A process that is told. The constructor connects; there is nothing that it misses from then on.
class Reader {
public:
    virtual ~Reader() = default;
    virtual void receive(Listener& listener, Deadline const& deadline) = 0;  // until the listener is done
};

class Contestant {
public:
    virtual ~Contestant() = default;

    virtual std::string name() const = 0;
    virtual bool countsAllocations() const { return true; }  // one thread only, so that they can be counted
    // For one measurement, in the process that forks the others.
    virtual void start(std::string const& directory, Deadline const&) { directory_ = directory; }
    virtual void stop() {}
    virtual Nanoseconds brokerTime() const { return 0; }  // CPU time of what stands between source and readers

    virtual std::unique_ptr<Source> source() = 0;
    virtual std::unique_ptr<Reader> reader() = 0;

protected:
    std::string socket() const { return directory_ + "/socket"; }

    std::string directory_;
};

constexpr std::size_t messageSize = 32;  // bytes, for those that send messages: the value and what comes with it
constexpr std::size_t batch = 1000;      // changes that go together when they come fast

std::unique_ptr<Contestant> moxContestant();
std::unique_ptr<Contestant> socketContestant();
std::unique_ptr<Contestant> redisContestant();  // null: no server is installed
std::unique_ptr<Contestant> zeroMqContestant();

}  // namespace Bench
