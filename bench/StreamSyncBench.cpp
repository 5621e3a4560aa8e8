// Entities that follow others over the attribute log: a copy of a trie from nothing, and changes that are encoded,
// carried through memory, applied and told to an observer; and what readers of one server cost it that ask for
// different paths. Copies of types that only the source has, beside copies of types that both have. What it costs to
// keep who has changed what.

#include "Bench.h"
#include "Level.h"

#include "Mox/PrefixTrie.h"

#include "Vel/describe/Module.h"
#include "Vel/entity/ForeignEntity.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/AttrLogServer.h"
#include "Vel/stream/WriteHistory.h"

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A type that only the source has: it is in no registry, so that a copy is made of its description.
namespace Abroad {

class Level : public Vel::EntityOf<Level> {
public:
    explicit Level(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 level() const { return level_; }
    void levelIs(Vel::U32 v) { velSet<&Level::level_>(v); }

    static constexpr auto description() {
        return Vel::entity("Abroad::Level", Vel::attribute<&Level::level_, &Level::level, &Level::levelIs>("level"));
    }

private:
    Vel::U32 level_ = 0;
};

extern Vel::Detail::ModuleTableOf<Level> const levels;

}  // namespace Abroad

template <> Vel::VelType Vel::DefinedByVEL_MODULE<Abroad::Level>::type() { return {&Abroad::levels.header, 0}; }
namespace Abroad {
constinit Vel::Detail::ModuleTableOf<Level> const levels = Vel::Detail::moduleTable<Level>("Abroad");
}  // namespace Abroad
template struct Vel::DefinedByVEL_MODULE<Abroad::Level>;

namespace Bench {

namespace {

// A replica and its line to the source, through memory.
class Follower {
public:
    explicit Follower(Vel::AttrLogSource& source, Vel::AttrLogReplica::Options const& options = {})
        : replica(place, "copy", options), reader(source.newReader()) {
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

    Vel::Ptr<Vel::Dir> place = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica;
    std::unique_ptr<Vel::StreamPeer> reader;
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
        Vel::U64 const before = source.messages();
        Vel::U32 value = 0;
        for (auto _ : state) {
            level->levelIs(++value);
            if (value % 1000 == 0)
                for (auto const& follower : followers) follower->drop();
        }
        require(source.messages() - before == value, "messages encoded more than once");
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

// --- readers of one server ---

constexpr std::size_t nested = 16;

// Directories within one another, and in the innermost many entities.
class Nest {
public:
    explicit Nest(Vel::U32 entities) {
        paths.emplace_back();
        Vel::Ptr<Vel::Dir> inner = root;
        for (std::size_t i = 1; i < nested; ++i) {
            auto const dir = Vel::Dir::newEntity("d");
            inner->entryIs(dir);
            inner = dir;
            paths.push_back(paths.back() + "/d");
        }
        for (Vel::U32 i = 0; i < entities; ++i) {
            level = Level::newEntity(Vel::format("level%u", i));
            inner->entryIs(level);
        }
    }

    Vel::Ptr<Vel::Dir> root = Vel::Dir::newEntity("root");
    std::vector<std::string> paths;  // of the directories, the outermost first
    Vel::Ptr<Level> level;           // the last one
};

// The source's side of a connection whose reader takes everything, and makes nothing of it.
class Listener {
public:
    Listener(Vel::AttrLogServer& server, std::string const& path) : reader(server.newReader()) {
        Vel::AttrLogReplica replica(Vel::Dir::newEntity(""), "copy", {.path = Vel::String(path)});
        replica.connected();
        reader->input(replica.output(1 << 16));
        take();
    }
    std::size_t take() {
        std::size_t taken = 0;
        while (reader->wantsOutput()) {
            auto const bytes = reader->output(1 << 16);
            taken += bytes.size();
            reader->outputTaken(bytes.size());
        }
        require(reader->error().empty(), "a reader that is refused");
        return taken;
    }

    std::unique_ptr<Vel::StreamPeer> reader;
};

using Listeners = std::vector<std::unique_ptr<Listener>>;

// `count` of them, at the outermost path or each at another.
Listeners listeners(Vel::AttrLogServer& server, Nest const& nest, std::size_t count, bool apart) {
    Listeners all;
    for (std::size_t i = 0; i < count; ++i)
        all.push_back(std::make_unique<Listener>(server, nest.paths[apart ? i : 0]));
    return all;
}

void addPaths() {
    auto const addReaders = [](char const* name, std::size_t count, bool apart) {
        Bench::add("a change of a U32, told to readers", name, [=](benchmark::State& state) {
            Nest const nest(1);
            Vel::AttrLogServer server(nest.root);
            auto const all = listeners(server, nest, count, apart);
            Vel::U32 value = 0;
            std::vector<std::size_t> taken(count);
            auto const take = [&] {
                for (std::size_t i = 0; i < count; ++i) taken[i] += all[i]->take();
            };
            for (auto _ : state) {
                nest.level->levelIs(++value);
                if (value % 1000 == 0) take();
            }
            take();
            for (std::size_t const one : taken)
                require(one == taken[0] && one >= std::size_t(9) * value, "readers that were told less");
        });
    };
    addReaders("1", 1, false);
    addReaders("16 of one path", nested, false);
    addReaders("16 of nested paths", nested, true);
}

// --- copies of what only the source has ---

Vel::AttrLogReplica::Options const describing{.limits = {}, .policy = {.described = true}};

template <class Level> void addCopyOf(char const* name, bool isForeign, Vel::U32 entities) {
    auto const check = [isForeign](Vel::Entity const& copy) {
        require((dynamic_cast<Vel::ForeignEntity const*>(&copy) != nullptr) == isForeign, "a copy of another kind");
    };
    Bench::add("a change of a U32, applied to a copy", name, [=](benchmark::State& state) {
        auto const level = Level::newEntity("level");
        Vel::AttrLogSource source(level);
        Follower follower(source, describing);
        check(*follower.replica.root());
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
    Bench::add(std::to_string(entities) + " entities, copied from nothing", name, [=](benchmark::State& state) {
        auto const root = Vel::Dir::newEntity("root");
        for (Vel::U32 i = 0; i < entities; ++i) {
            auto const level = Level::newEntity(Vel::format("level%u", i));
            level->levelIs(i);
            root->entryIs(level);
        }
        for (auto _ : state) {
            Vel::AttrLogSource source(root);
            Follower follower(source, describing);
            auto const copy = Vel::ptr_cast<Vel::Dir>(follower.replica.root());
            require(copy->entries() == entities, "a copy that lacks entities");
            check(*copy->entry("level0"));
        }
    });
}

void addDescribed(Vel::U32 entities) {
    addCopyOf<Level>("of a type that both sides have", false, entities);
    addCopyOf<Abroad::Level>("of a type that was described", true, entities);
}

// --- who has changed what ---

void addHistories() {
    struct Kept {
        char const* name;
        Vel::WriteHistory::Sizes sizes;
    };
    static constexpr Kept kinds[] = {{"without a history", {}}, {"noted by its author", {1024, 0, 0}},
        {"and as the attribute's last", {1024, 0, 1024}}};
    static constexpr Kept ownKinds[] = {
        {"without a history", {}}, {"noted", {1, 1024, 0}}, {"and as the attribute's last", {1, 1024, 1024}}};
    for (Kept const& kept : kinds)
        Bench::add(
            "a change that a reader asks for, until it is answered", kept.name, [&kept](benchmark::State& state) {
                auto const root = Vel::Dir::newEntity("root");
                auto const level = Level::newEntity("level");
                root->entryIs(level);
                auto const history = kept.sizes.asked != 0 ? std::make_shared<Vel::WriteHistory>(kept.sizes) : nullptr;
                Vel::AttrLogSource source(root, {.mayWrite = true, .limits = {}, .history = history});
                Follower follower(source, {.path = {}, .wantsToWrite = true});
                auto const copy = Vel::ptr_cast<Vel::Dir>(follower.replica.root())->entry("level");
                Vel::U32 value = 0, done = 0;
                for (auto _ : state) {
                    follower.replica.write(*copy, Vel::attributeId<Level>("level"), ++value,
                        [&](Vel::WriteAnswer const& answer) { done += answer.result == Vel::WriteResult::done; });
                    if (value % 1000 == 0) follower.carry();
                }
                follower.carry();
                require(done == value && level->level() == value, "changes that were not made");
            });
    for (Kept const& kept : ownKinds)
        Bench::add("a change that the process makes, encoded", kept.name, [&kept](benchmark::State& state) {
            auto const root = Vel::Dir::newEntity("root");
            auto const level = Level::newEntity("level");
            root->entryIs(level);
            auto const history = kept.sizes.asked != 0 ? std::make_shared<Vel::WriteHistory>(kept.sizes) : nullptr;
            Vel::AttrLogSource source(root, {.mayWrite = false, .limits = {}, .history = history});
            Follower follower(source);
            Vel::U32 value = 0;
            for (auto _ : state) {
                level->levelIs(++value);
                if (value % 1000 == 0) follower.drop();
            }
            require(source.coalesced() == 0, "changes that were left out");
        });
}

// Bytes that the program has allocated.
double allocated() {
    auto const info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

void tellMemory() {
    constexpr Vel::U32 entities = 50'000;
    constexpr double mebi = 1 << 20;
    std::printf("\nmemory for readers that have all of %u entities\n", entities);
    for (bool const apart : {false, true}) {
        Nest const nest(entities);
        double const before = allocated();
        Vel::AttrLogServer server(nest.root);
        auto all = listeners(server, nest, 1, apart);
        double const first = allocated();
        for (std::size_t i = 1; i < nested; ++i)
            all.push_back(std::make_unique<Listener>(server, nest.paths[apart ? i : 0]));
        double const each = (allocated() - first) / (nested - 1);
        std::printf("    %-20s first %7.2f MiB, each of %zu more %7.3f MiB\n",
            apart ? "of nested paths" : "of one path", (first - before) / mebi, nested - 1, each / mebi);
    }
}

// --- a copy from nothing ---

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

// The processor's time that this thread has taken, in seconds: others on the machine don't count.
double threadTime() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// The longest output() of a source, for others wait that long: in a directory or trie of so many entities, the tables
// of which grow meanwhile. In seconds, beside the time of the whole.
void addTurns(Vel::U32 entities) {
    std::string const group = "the longest turn of a first copy of " + std::to_string(entities);
    auto const measure = [](benchmark::State& state, Vel::Ptr<Vel::Entity> const& root) {
        double total = 0;
        for (auto _ : state) {
            Vel::AttrLogSource source(root);
            Vel::AttrLogReplica replica(Vel::Dir::newEntity(""), root->name(), {});
            replica.connected();
            auto const reader = source.newReader();
            double longest = 0;
            reader->input(replica.output(1 << 16));
            while (reader->wantsOutput()) {
                double const start = threadTime();
                auto const bytes = reader->output(256 << 10);
                longest = std::max(longest, threadTime() - start);
                reader->outputTaken(bytes.size());
            }
            total += longest;
        }
        state.counters["longest"] = total / static_cast<double>(state.iterations());
    };
    Bench::add(group, "in a directory", [=](benchmark::State& state) {
        auto const dir = Vel::Dir::newEntity("dir");
        for (Vel::U32 i = 0; i < entities; ++i) dir->entryIs(Level::newEntity(Vel::format("e%u", i)));
        measure(state, dir);
    });
    Bench::add(group, "in a trie", [=](benchmark::State& state) {
        auto const trie = Mox::prefixTrieFactory("trie");
        for (Vel::U32 i = 0; i < entities; ++i) trie->newChildIs(Vel::format("e%u", i));
        measure(state, trie);
    });
}

}  // namespace
}  // namespace Bench

VEL_MODULE(StreamSyncBench, e8d058c2ec7e3269, Bench::Level);

int main(int argc, char** argv) {
    Bench::addUpdates();
    Bench::addPaths();
    Bench::addDescribed(50'000);
    Bench::addHistories();
    Bench::addSync(100'000);
    Bench::addTurns(500'000);
    int const status = Bench::run(argc, argv);
    if (status == 0) Bench::tellMemory();
    return status;
}
