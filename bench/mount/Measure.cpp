#include "Measure.h"

#include "Board.h"

#include "../Allocations.h"

namespace Bench {
namespace {

// Checks that each change arrives, once and in order.
class InOrder : public Listener {
public:
    InOrder(std::uint32_t changes, Board::Reader& reader) : changes_(changes), reader_(reader) {}

    void changed(std::uint32_t value) override {
        if (value != next_) {
            problem = "told of " + std::to_string(value) + " and not of " + std::to_string(next_);
            isDone = true;
            return;
        }
        if (++next_ == changes_ / 2) before_ = allocationCount;
        if (next_ != changes_) return;
        reader_.allocations = allocationCount - before_;
        reader_.done = now();
        isDone = true;
    }

private:
    std::uint32_t changes_;
    std::uint32_t next_ = 0;
    std::size_t before_ = 0;
    Board::Reader& reader_;
};

using Times = Shared<std::atomic<Nanoseconds>>;

// Turns the time when a change was made into what has passed since.
class Timed final : public InOrder {
public:
    Timed(std::uint32_t changes, Board::Reader& reader, Times& times) : InOrder(changes, reader), times_(times) {}

    void changed(std::uint32_t value) override {
        Nanoseconds const t = now();
        InOrder::changed(value);
        if (problem.empty()) times_[value] = t - times_[value];
    }

private:
    Times& times_;
};

// What the contestant has started goes when this does.
class Started {
public:
    Started(Contestant& contestant, std::string const& directory, Deadline const& deadline) : contestant_(contestant) {
        contestant.start(directory, deadline);
    }
    Started(Started const&) = delete;
    Started& operator=(Started const&) = delete;
    ~Started() { contestant_.stop(); }

private:
    Contestant& contestant_;
};

template <class F> void serveUntil(Source& source, Deadline const& deadline, char const* what, F done) {
    while (!done()) {
        deadline.check(what);
        source.serve(millisecond);
    }
}

// changes(source, board) makes them; listener(reader) checks them.
template <class Changes, class MakeListener>
void run(
    Contestant& contestant, std::size_t readers, Shared<Board>& board, Changes changes, MakeListener makeListener) {
    TemporaryDirectory const directory;
    Family family(measurementLimit);
    Deadline const deadline = family.deadline();
    Started const started(contestant, directory.path(), deadline);

    family.start(contestant.name() + ", source", [&] {
        auto const source = contestant.source();
        board->listens = true;
        serveUntil(
            *source, deadline, "for readers", [&] { return source->hasReaders(readers) && board->allReady(readers); });
        source->serve(5 * millisecond);
        Nanoseconds const cpu = cpuTime(), broker = contestant.brokerTime();
        board->begun = now();
        changes(*source);
        source->flush();
        serveUntil(*source, deadline, "for all to be told", [&] { return board->allDone(readers); });
        board->sourceCpu = cpuTime() - cpu;
        board->brokerCpu = contestant.brokerTime() - broker;
        board->leftOut = source->leftOut();
        board->hasEnded = true;
    });
    for (std::size_t i = 0; i < readers; ++i)
        family.start(contestant.name() + ", reader", [&, i] {
            deadline.await("for the source", [&] { return board->listens.load(); });
            auto const reader = contestant.reader();
            auto listener = makeListener(board->readers[i]);
            board->readers[i].isReady = true;
            reader->receive(listener, deadline);
            if (!listener.problem.empty()) throw Failure(listener.problem);
            // Nobody goes while the source is measured, and others are sent to.
            deadline.await("for the source to end", [&] { return board->hasEnded.load(); });
        });
    family.wait();
}

double seconds(Nanoseconds time) { return static_cast<double>(time) / static_cast<double>(second); }

}  // namespace

StreamResult stream(Contestant& contestant, Stream const& what) {
    Shared<Board> board;
    auto const changes = [&](Source& source) {
        std::size_t before = allocationCount;
        Nanoseconds due = now();
        for (std::uint32_t i = 0; i < what.changes; ++i) {
            if (i == what.changes / 2) before = allocationCount;
            source.change(i);
            if (what.interval == 0 || (i + 1) % batch != 0) continue;
            source.flush();
            due += what.interval;
            Nanoseconds const t = now();
            if (t < due) source.serve(due - t);
        }
        board->allocations = allocationCount - before;
    };
    run(contestant, what.readers, board, changes, [&](Board::Reader& reader) { return InOrder(what.changes, reader); });

    StreamResult result;
    Nanoseconds last = 0;
    std::uint64_t allocations = 0;
    for (std::size_t i = 0; i < what.readers; ++i) {
        last = std::max(last, board->readers[i].done.load());
        allocations = std::max(allocations, board->readers[i].allocations.load());
    }
    result.seconds = seconds(last - board->begun);
    result.sourceCpu = seconds(board->sourceCpu);
    result.brokerCpu = seconds(board->brokerCpu);
    result.leftOut = board->leftOut;
    if (contestant.countsAllocations()) {
        result.sourceAllocations = static_cast<double>(board->allocations);
        result.readerAllocations = static_cast<double>(allocations);
    }
    return result;
}

LatencyResult latency(Contestant& contestant, std::uint32_t changes, Nanoseconds interval) {
    std::uint32_t const all = 2 * changes;
    Shared<Board> board;
    Times times(all);
    auto const change = [&](Source& source) {
        std::size_t before = allocationCount;
        Nanoseconds due = now();
        for (std::uint32_t i = 0; i < all; ++i) {
            if (i == changes) {
                before = allocationCount;
                due = now();
            }
            if (i >= changes) sleepUntil(due += interval);
            times[i] = now();
            source.change(i);
            source.flush();
        }
        board->allocations = allocationCount - before;
    };
    run(contestant, 1, board, change, [&](Board::Reader& reader) { return Timed(all, reader, times); });

    LatencyResult result;
    for (std::uint32_t i = changes; i < all; ++i) result.times.push_back(times[i]);
    std::sort(result.times.begin(), result.times.end());
    if (contestant.countsAllocations()) {
        result.sourceAllocations = static_cast<double>(board->allocations);
        result.readerAllocations = static_cast<double>(board->readers[0].allocations);
    }
    return result;
}

}  // namespace Bench
