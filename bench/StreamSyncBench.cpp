// Entities that follow others over the attribute log: a copy of a trie from nothing, and changes that are encoded, carried
// through memory, applied and told to an observer.

#include "Bench.h"
#include "Level.h"

#include "Mox/PrefixTrie.h"

#include "Vel/AttrLogReplica.h"
#include "Vel/AttrLogSource.h"
#include "Vel/Module.h"

#include <functional>
#include <memory>

namespace Bench {

namespace {

// A replica and its line to the source, through memory.
class Follower {
public:
    explicit Follower(Vel::AttrLogSource& source) : reader(source.newReader()) {
        replica.connected();
        carry();
        require(replica.state() == Vel::AttrLogReplica::State::synced, "a replica that does not synchronise");
    }

    void carry() {
        while (replica.wantsOutput()) {
            auto const bytes = replica.output(1 << 16);
            reader->input(bytes);
            replica.outputTaken(bytes.size());
        }
        while (reader->wantsOutput()) {
            auto const bytes = reader->output(1 << 16);
            replica.input(bytes);
            reader->outputTaken(bytes.size());
        }
    }
    void drop() {
        while (reader->wantsOutput()) reader->outputTaken(reader->output(1 << 16).size());
    }

    std::unique_ptr<Vel::StreamPeer> reader;
    Vel::Ptr<Vel::Dir> place = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica{place, "copy", {}};
};

void addUpdates() {
    std::string const group = "a change of a U32, 1000 at a time";
    Bench::add(group, "set and encoded", [](benchmark::State& state) {
        auto const level = Level::newEntity("level");
        Vel::AttrLogSource source(level);
        Follower follower(source);
        Vel::U32 value = 0;
        for (auto _ : state) {
            level->levelIs(++value);
            if (value % 1000 == 0) follower.drop();
        }
        require(source.coalesced() == 0, "changes that were left out");
    });
    Bench::add(group, "and applied, and an observer told", [](benchmark::State& state) {
        auto const level = Level::newEntity("level");
        Vel::AttrLogSource source(level);
        Follower follower(source);
        Counter counter;
        counter.notifierIs(follower.replica.root().get());
        Vel::U32 value = 0;
        for (auto _ : state) {
            level->levelIs(++value);
            if (value % 1000 == 0) follower.carry();
        }
        follower.carry();
        require(counter.count == value, "changes that were left out");
    });
    Bench::add(group, "encoded for 16 readers", [](benchmark::State& state) {
        auto const level = Level::newEntity("level");
        Vel::AttrLogSource source(level);
        std::vector<std::unique_ptr<Follower>> followers;
        for (int i = 0; i < 16; ++i) followers.push_back(std::make_unique<Follower>(source));
        Vel::U64 const before = source.log().messages();
        Vel::U32 value = 0;
        for (auto _ : state) {
            level->levelIs(++value);
            if (value % 1000 == 0)
                for (auto const& follower : followers) follower->drop();
        }
        require(source.log().messages() - before == value, "messages encoded more than once");
    });
    Bench::add(group, "with a reader that takes nothing", [](benchmark::State& state) {
        auto const level = Level::newEntity("level");
        Vel::AttrLogSource source(level);
        Follower stalled(source);
        Vel::U32 value = 0;
        for (auto _ : state) level->levelIs(++value);
        stalled.carry();
        require(static_cast<Level&>(*stalled.replica.root()).level() == value, "a copy that is behind");
    });
}

void fill(Mox::PrefixTrie& trie, Vel::U32 prefixes) {
    for (Vel::U32 i = 0; i < prefixes; ++i) {
        auto const a = trie.newChildIs(Vel::format("a%u", i % 10));
        auto const b = a->newChildIs(Vel::format("/b%u", i / 10 % 100));
        b->newChildIs(Vel::format("/c%u", i / 1000))->presentIs(true);
    }
}

void addSync(Vel::U32 prefixes) {
    std::string const group = "a trie of " + std::to_string(prefixes) + " prefixes";
    Bench::add(group, "copied from nothing", [prefixes](benchmark::State& state) {
        auto const trie = Mox::prefixTrieFactory("trie");
        fill(*trie, prefixes);
        for (auto _ : state) {
            Vel::AttrLogSource source(trie);
            Follower follower(source);
            keep(follower);
        }
    });
    Bench::add(group, "to one more reader", [prefixes](benchmark::State& state) {
        auto const trie = Mox::prefixTrieFactory("trie");
        fill(*trie, prefixes);
        Vel::AttrLogSource source(trie);
        Follower first(source);
        for (auto _ : state) {
            Follower follower(source);
            keep(follower);
        }
    });
    Bench::add(group, "copied again after a break", [prefixes](benchmark::State& state) {
        auto const trie = Mox::prefixTrieFactory("trie");
        fill(*trie, prefixes);
        Vel::AttrLogSource source(trie);
        Follower follower(source);
        for (auto _ : state) {
            follower.reader->closed("");
            follower.replica.closed("");
            follower.reader = source.newReader();
            follower.replica.connected();
            follower.carry();
        }
    });
}

}  // namespace
}  // namespace Bench

VEL_MODULE(StreamSyncBench, e8d058c2ec7e3269, Bench::Level);

int main(int argc, char** argv) {
    Bench::addUpdates();
    Bench::addSync(100'000);
    return Bench::run(argc, argv);
}
