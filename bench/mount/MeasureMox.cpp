// What only Mox has: copies of much at once, and readers that stand still.

#include "Board.h"
#include "Measure.h"

#include "Mount/Client.h"
#include "Mount/Server.h"

#include "Mox/PrefixTrie.h"
#include "Redundancy/RedundancyStatus.h"

#include "Vel/entity/Dir.h"
#include "Vel/entity/NotifieeList.h"

#include <csignal>

#include <unistd.h>

namespace Bench {
namespace {

using std::chrono::nanoseconds;

void serveUntil(Mount::Loop& loop, Deadline const& deadline, char const* what, std::function<bool()> const& done) {
    while (!done()) {
        deadline.check(what);
        loop.runFor(std::chrono::milliseconds(2));
    }
}

void require(bool good, char const* what) {
    if (!good) throw Failure(what);
}

// --- a trie ---

Vel::Ptr<Mox::PrefixTrie> trieOf(std::uint32_t prefixes) {
    auto const trie = Mox::prefixTrieFactory("trie");
    for (std::uint32_t i = 0; i < prefixes; ++i) {
        auto const a = trie->newChildIs(Vel::format("a%u", i % 10));
        auto const b = a->newChildIs(Vel::format("/b%u", i / 10 % 100));
        b->newChildIs(Vel::format("/c%u", i / 1000))->presentIs(true);
    }
    return trie;
}

std::uint32_t nodes(Mox::PrefixTrie const& trie) {
    std::uint32_t count = 1;
    for (Vel::Ptr<Mox::PrefixTrie> const& child : trie.childMembers()) count += nodes(*child);
    return count;
}

void check(Mox::PrefixTrie const& copy, std::uint32_t prefixes, std::uint32_t size) {
    require(nodes(copy) == size, "the copy has not as many nodes");
    for (std::uint32_t n = 0; n < 1000; ++n) {
        std::uint32_t const i = n * 7919 % prefixes;
        Vel::String const path = Vel::format("a%u/b%u/c%u", i % 10, i / 10 % 100, i / 1000);
        require(copy.isPrefix(path), "a prefix that the copy does not have");
        require(!copy.isPrefix(path + "/d") && copy.hasPrefix(path + "/d"), "a prefix that only the copy has");
    }
    require(!copy.isPrefix("a1/b1"), "an inner node that is present in the copy");
}

}  // namespace

SyncResult sync(std::uint32_t prefixes) {
    TemporaryDirectory const directory;
    Vel::String const path((directory.path() + "/socket").c_str());
    Shared<Board> board;
    Shared<std::atomic<Nanoseconds>> times(2);
    Family family(measurementLimit);
    Deadline const deadline = family.deadline();

    family.start("source of a trie", [&] {
        auto const trie = trieOf(prefixes);
        board->size = nodes(*trie);
        Mount::Loop loop;
        Mount::Server server(loop, trie);
        server.listen(Mount::Address::unixSocket(path));
        board->listens = true;
        serveUntil(loop, deadline, "for copies", [&] { return board->allDone(2); });
    });
    for (std::size_t i = 0; i < 2; ++i)
        family.start("copy of a trie", [&, i] {
            deadline.await("for the trie", [&] { return board->listens.load(); });
            if (i == 1) deadline.await("for the first copy", [&] { return board->readers[0].done.load() != 0; });
            auto const place = Vel::Dir::newEntity("");
            Nanoseconds const begun = now();
            Mount::Loop loop;
            Mount::Client client(loop, Mount::Address::unixSocket(path), place, "copy");
            if (!client.sync(nanoseconds(deadline.left()))) throw Failure(client.error().stdString());
            times[i] = now() - begun;
            check(*Vel::ptr_cast<Mox::PrefixTrie>(client.replica().root()), prefixes, board->size);
            board->readers[i].done = now();
        });
    family.wait();
    return {static_cast<double>(times[0]) / 1e9, static_cast<double>(times[1]) / 1e9, board->size};
}

// --- readers that stand still ---

namespace {

using Redundancy::RedundancyStatus;

// Counts the changes, and notes when every entity has its last value: `first` or more.
class Copy final : public Vel::Notifiee {
public:
    Copy(RedundancyStatus& entity, std::uint32_t first, Board::Reader& reader, std::uint32_t& finished)
        : entity_(entity), first_(first), reader_(reader), finished_(finished) {
        notifierIs(&entity);
    }
    void handleAttribute(Vel::AttributeId) override {
        std::uint32_t const value = entity_.activeCellId();
        isWrong_ |= seen_ && value <= last_;
        seen_ = true;
        last_ = value;
        ++reader_.told;
        finished_ += value >= first_;
    }

    bool isWrong() const { return isWrong_; }  // an older value came after a newer one

private:
    RedundancyStatus& entity_;
    std::uint32_t first_;
    Board::Reader& reader_;
    std::uint32_t& finished_;
    bool isWrong_ = false;
    bool seen_ = false;
    std::uint32_t last_ = 0;
};

void makeChanges(std::vector<Vel::Ptr<RedundancyStatus>> const& entities, std::uint32_t changes, Mount::Loop& loop,
    Mount::Server const& server, Board& board) {
    board.resident[0] = residentBytes();
    for (std::uint32_t i = 0; i < changes; ++i) {
        entities[i % entities.size()]->activeCellIdIs(i);
        if ((i + 1) % batch == 0) {
            loop.poll();
            // Not for long: the one that stands still is waited for, too, until it has fallen out of the log.
            constexpr std::size_t limit = 128 << 10;
            if (server.backlog() > limit)
                loop.runUntil([&] { return server.backlog() <= limit / 2; }, std::chrono::milliseconds(5));
        }
        if ((i + 1) % (changes / 10) == 0) board.resident[(i + 1) / (changes / 10)] = residentBytes();
    }
}

void followAll(Vel::String const& path, std::uint32_t changes, std::uint32_t count, Board& board, std::size_t which,
    Deadline const& deadline) {
    auto const place = Vel::Dir::newEntity("");
    Mount::Loop loop;
    Mount::ClientOptions options;
    options.peer.idleTimeout = std::chrono::hours(1);
    Mount::Client client(loop, Mount::Address::unixSocket(path), place, "copy", options);
    if (!client.sync(nanoseconds(deadline.left()))) throw Failure(client.error().stdString());
    auto const copy = Vel::ptr_cast<Vel::Dir>(client.replica().root());
    require(copy->entries() == count, "the copy has not all entities");
    std::uint32_t finished = 0;
    std::vector<std::unique_ptr<Copy>> copies;
    Board::Reader& reader = board.readers[which];
    for (std::uint32_t i = 0; i < count; ++i) {
        auto const entity = Vel::ptr_cast<RedundancyStatus>(copy->entry(Vel::format("status%u", i)));
        copies.push_back(std::make_unique<Copy>(*entity, changes - count, reader, finished));
    }
    reader.pid = getpid();
    reader.isReady = true;
    if (!loop.runUntil([&] { return finished == count; }, nanoseconds(deadline.left())))
        throw Failure("a copy that does not become equal");
    for (auto const& each : copies) require(!each->isWrong(), "an older value after a newer one");
    reader.done = now();
    serveUntil(loop, deadline, "for the source to end", [&] { return board.hasEnded.load(); });
}

}  // namespace

StallResult stall(std::uint32_t changes, std::uint32_t count) {
    TemporaryDirectory const directory;
    Vel::String const path((directory.path() + "/socket").c_str());
    Shared<Board> board;
    Family family(measurementLimit);
    Deadline const deadline = family.deadline();

    family.start("source with a reader that stands still", [&] {
        auto const root = Vel::Dir::newEntity("root");
        std::vector<Vel::Ptr<RedundancyStatus>> entities;
        for (std::uint32_t i = 0; i < count; ++i) {
            entities.push_back(Redundancy::redundancyStatusFactory(Vel::format("status%u", i)));
            root->entryIs(entities.back());
        }
        Mount::Loop loop;
        Mount::ServerOptions options;
        options.peer.idleTimeout = std::chrono::hours(1);
        options.statusInterval = std::chrono::milliseconds(50);
        Mount::Server server(loop, root, options);
        server.listen(Mount::Address::unixSocket(path));
        board->listens = true;
        serveUntil(loop, deadline, "for readers", [&] { return board->allReady(2); });
        kill(board->readers[1].pid, SIGSTOP);
        makeChanges(entities, changes, loop, server, board[0]);
        serveUntil(loop, deadline, "for the one that follows", [&] { return board->readers[0].done != 0; });
        require(board->readers[1].done == 0, "the reader that stands still does not");
        kill(board->readers[1].pid, SIGCONT);
        serveUntil(loop, deadline, "for the one that stood still", [&] { return board->readers[1].done != 0; });
        loop.runFor(std::chrono::milliseconds(150));
        board->leftOut = server.status()->coalesced();
        board->hasEnded = true;
    });
    for (std::size_t which = 0; which < 2; ++which)
        family.start(which == 0 ? "reader that follows" : "reader that stands still", [&, which] {
            deadline.await("for the source", [&] { return board->listens.load(); });
            followAll(path, changes, count, board[0], which, deadline);
        });
    family.wait();

    StallResult result;
    for (auto const& bytes : board->resident) result.resident.push_back(bytes);
    result.leftOut = board->leftOut;
    result.told = board->readers[0].told;
    result.toldLate = board->readers[1].told;
    return result;
}

}  // namespace Bench
