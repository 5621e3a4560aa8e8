#include "Board.h"
#include "RoundTrip.h"

#include <algorithm>
#include <functional>

namespace Bench {
namespace {

// Runs work(writer, deadline) in a process beside the owner's. The last change has to be of `last`.
void run(WriteContestant& contestant, Shared<Board>& board, std::uint32_t last,
    std::function<void(Writer&, Deadline const&)> const& work) {
    TemporaryDirectory const directory;
    Family family(measurementLimit);
    Deadline const deadline = family.deadline();
    contestant.start(directory.path(), deadline);
    family.start(contestant.name() + ", owner", [&] {
        auto const owner = contestant.owner();
        board->listens = true;
        while (!board->hasEnded) {
            deadline.check("for the writer");
            owner->serve(millisecond);
        }
    });
    family.start(contestant.name() + ", writer", [&] {
        deadline.await("for the owner", [&] { return board->listens.load(); });
        auto const writer = contestant.writer();
        work(*writer, deadline);
        if (writer->stored(deadline) != last) throw Failure("another value than the last that was asked for");
        board->hasEnded = true;
    });
    try {
        family.wait();
    } catch (...) {
        contestant.stop();
        throw;
    }
    contestant.stop();
}

}  // namespace

std::vector<Nanoseconds> roundTrips(WriteContestant& contestant, std::uint32_t changes, Nanoseconds interval) {
    Shared<Board> board;
    Shared<Nanoseconds> times(changes);
    run(contestant, board, 2 * changes, [&](Writer& writer, Deadline const& deadline) {
        for (std::uint32_t i = 1; i <= changes; ++i) writer.change(i, deadline);
        Nanoseconds due = now();
        for (std::uint32_t i = 0; i < changes; ++i) {
            sleepUntil(due += interval);
            Nanoseconds const begun = now();
            writer.change(changes + i + 1, deadline);
            times[i] = now() - begun;
        }
    });
    std::vector<Nanoseconds> result;
    for (std::uint32_t i = 0; i < changes; ++i) result.push_back(times[i]);
    std::sort(result.begin(), result.end());
    return result;
}

double writesInFlight(WriteContestant& contestant, std::uint32_t changes, std::uint32_t inFlight) {
    Shared<Board> board;
    run(contestant, board, changes, [&](Writer& writer, Deadline const& deadline) {
        board->begun = now();
        for (std::uint32_t i = 1; i <= changes; ++i) {
            writer.ask(i);
            if (i >= inFlight) writer.await(i - inFlight + 1, deadline);
        }
        writer.await(changes, deadline);
        board->readers[0].done = now();
    });
    return static_cast<double>(board->readers[0].done - board->begun) / static_cast<double>(second);
}

}  // namespace Bench
