// What agents do all the time, for scripts/bench-counts, which counts the instructions of each operation and the cache
// lines that it touches under callgrind. The program counts allocations itself, and prints a line for each operation:
//     NAME <tab> times warm <tab> times cold <tab> allocations <tab> bytes allocated
// Callgrind writes a file for what was done "warm", and one for each time that it was done "cold", with an empty cache;
// the files say so in their descriptions.

#include "Allocations.h"
#include "ConditionOrCountStat.h"
#include "Level.h"
#include "PlainTrie.h"

#include "Mox/Cell.h"
#include "Mox/IdSet.h"
#include "Mox/UniqueId.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"
#include "Vel/entity/HashMap.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/AttrLogSource.h"
#include "Vel/text/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <valgrind/callgrind.h>

namespace Bench {

namespace {

constexpr int repetitions = 64;
constexpr int coldRepetitions = 4;

// Anything that the result of an operation is given to, so that the compiler makes it.
template <class T> void keep(T const& value) { asm volatile("" : : "r"(&value) : "memory"); }

// Touches more memory than the first cache has, which then holds nothing of ours.
void emptyCache() {
    static std::vector<char> other(std::size_t(1) << 18);
    for (std::size_t i = 0; i < other.size(); i += 32) ++other[i];
    keep(other);
}

// The operation is done some times without counting, which warms up what it keeps, and then as often with. After that
// the lines that it touches are counted, with the cache emptied each time.
template <class F> void measure(std::string const& name, F operation) {
    std::string const warm = "warm " + name;
    std::string const cold = "cold " + name;
    for (int i = 0; i < repetitions; ++i) operation();
    std::size_t const allocations = allocationCount;
    std::size_t const bytes = allocatedBytes;
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < repetitions; ++i) operation();
    CALLGRIND_DUMP_STATS_AT(warm.c_str());
    std::printf("%s\t%d\t%d\t%zu\t%zu\n", name.c_str(), repetitions, coldRepetitions, allocationCount - allocations,
        allocatedBytes - bytes);
    for (int i = 0; i < coldRepetitions; ++i) {
        emptyCache();
        CALLGRIND_ZERO_STATS;
        operation();
        CALLGRIND_DUMP_STATS_AT(cold.c_str());
    }
}

void require(bool good, char const* what) {
    if (good) return;
    std::fprintf(stderr, "bench_Counts: %s went wrong\n", what);
    std::exit(1);
}

// --- values ---

void measureValues() {
    Mox::ConditionOrCountStat const value(true, 1834203, 1700000000.123457);
    Vel::StrepOut text;
    measure("print a record", [&] {
        text.clear();
        text << value;
    });
    Vel::String const printed = Vel::valueToStrep(value);
    measure("parse a record", [&] { keep(Vel::strepToValue<Mox::ConditionOrCountStat>(printed)); });
    Vel::NboAttrLog::Out out;
    measure("write a record", [&] {
        out.clear();
        out << value;
    });
    Mox::ConditionOrCountStat read;
    measure("read a record", [&] {
        Vel::NboAttrLog::In in(out.bytes());
        Vel::read(read, in);
        keep(read);
    });
    require(read == value, "reading a record");
    Vel::VelType const type = Vel::Registry::type("Mox::ConditionOrCountStat");
    measure("get an attribute by its number", [&] {
        Vel::U32 changes = 0;
        type.attributeOp(&changes, &read, Vel::firstValueAttributeId + 1, Vel::AttributeOp::get);
        keep(changes);
    });
    Mox::CountStat statistic;
    double now = 1;
    measure("update a statistic", [&] {
        statistic.doUpdate(3, now += 1);
        keep(statistic);
    });
    measure("make a unique id", [] { keep(Mox::UniqueId::generateUniqueId()); });
}

// --- sets ---

Mox::IdSet everyThird(unsigned words) {
    Mox::IdSet set(60000);
    for (unsigned id = 0; id < 256U * words; id += 3) set.updateId(Mox::Id(static_cast<Mox::U16>(id)), true);
    return set;
}

void measureSets() {
    Mox::IdSet const small = everyThird(1);
    Mox::IdSet const large = everyThird(200);
    Mox::IdSet const other = large & everyThird(180);
    measure("is an id in a set", [&] { keep(large.id(Mox::Id(4711))); });
    measure("count a set's ids", [&] { keep(large.ids()); });
    measure("unite two large sets", [&] { keep(large | other); });
    measure("walk a small set's ids", [&] {
        for (auto const id : small) keep(id);
    });
    Vel::NboAttrLog::Out out;
    measure("write a small set", [&] {
        out.clear();
        out << small;
    });
    measure("parse ranges of ids", [] { keep(Mox::IdSet::checked(4000, "1-5,7,9-400,1024,3000-3999")); });
}

// --- entities ---

constinit Vel::TraceHandle traceHandle("BenchCounts");

void measureEntities() {
    measure("make and destroy an entity", [] { keep(Level::newEntity("level")); });
    auto const level = Level::newEntity("level");
    Counter counter;
    counter.notifierIs(level.get());
    Vel::U32 value = 0;
    measure("tell an observer of a change", [&] { level->levelIs(++value); });
    measure("pass a trace that is off", [] {
        if (traceHandle.enabled(3)) Vel::TraceHelper(traceHandle, 3, "/bench", 1, "counts").stream() << "never";
    });

    auto const root = Vel::Dir::newEntity("root");
    Vel::Ptr<Vel::Dir> at = root;
    std::vector<Vel::String> const names{"system", "interfaces", "ethernet", "counters"};
    for (Vel::String const& name : names) {
        for (int i = 0; i < 100; ++i) at->entryIs(Level::newEntity(Vel::format("entry%d", i)));
        auto const next = Vel::Dir::newEntity(name);
        at->entryIs(next);
        at = next;
    }
    measure("find a directory four levels down", [&] {
        Vel::Ptr<Vel::Entity> found = root;
        for (Vel::String const& name : names) found = found->velChild(name);
        keep(found);
    });
    Vel::HashMap<Vel::String, Vel::U32> map;
    for (Vel::U32 i = 0; i < 1000; ++i) map.set(Vel::format("key%u", i), i);
    measure("find in a hash map", [&] { keep(map.find("key500")); });
    Cell::cellId();
    measure("ask for the own cell", [] { keep(Cell::cellId()); });
}

// --- tries ---

void measureTries() {
    auto const trie = PlainTrie::newEntity("");
    auto const name = [](char const* what, int i) {
        return Vel::format("/interface/ethernet%d.%d/%s", i % 40, i / 40, what);
    };
    for (int i = 0; i < 1000; ++i) trie->prefixIs(name("counters", i), PlainTrie::state());
    int at = 0;
    std::vector<Vel::String> added;
    for (int i = 0; i < 1000; ++i) added.push_back(name("status/oper", i));
    // The index that answers the questions below is made at one of these.
    for (int i = 0; i < 10000; ++i) keep(trie->isPrefix("/interface/ethernet1.1/counters"));
    measure("a trie's longest prefix, found",
        [&] { keep(trie->enclosingPrefix("/interface/ethernet7.11/counters/in/bytes")); });
    measure(
        "a trie's longest prefix, missed", [&] { keep(trie->hasPrefix("/interface/ethernet7.11/neighbors/state")); });
    measure("is it a prefix of a trie", [&] { keep(trie->isPrefix("/interface/ethernet7.11/counters")); });
    measure(
        "add a prefix to a trie", [&] { trie->prefixIs(added[static_cast<std::size_t>(at++)], PlainTrie::state()); });
    at = 0;
    measure("delete a prefix of a trie", [&] { trie->prefixDel(added[static_cast<std::size_t>(at++)]); });
}

// --- streams ---

void measureStreams() {
    auto const level = Level::newEntity("level");
    Vel::AttrLogSource source(level);
    auto const reader = source.newReader();
    auto const place = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica(place, "copy", {});
    auto const toReplica = [&] {
        while (reader->wantsOutput()) {
            auto const bytes = reader->output(1 << 16);
            replica.input(bytes);
            reader->outputTaken(bytes.size());
        }
    };
    replica.connected();
    while (replica.wantsOutput() || reader->wantsOutput()) {
        while (replica.wantsOutput()) {
            auto const bytes = replica.output(1 << 16);
            reader->input(bytes);
            replica.outputTaken(bytes.size());
        }
        toReplica();
    }
    require(replica.state() == Vel::AttrLogReplica::State::synced, "a replica");
    Vel::U32 value = 0;
    measure("encode a change for a reader", [&] {
        level->levelIs(++value);
        reader->outputTaken(reader->output(1 << 16).size());
    });
    measure("encode a change, and apply it", [&] {
        level->levelIs(++value);
        toReplica();
    });
    require(static_cast<Level&>(*replica.root()).level() == value, "a change of a replica");
}

}  // namespace

}  // namespace Bench

VEL_MODULE(BenchCounts, f595847390eb1052, Bench::Level);

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // before anything is counted
    Bench::measureValues();
    Bench::measureSets();
    Bench::measureEntities();
    Bench::measureTries();
    Bench::measureStreams();
    return 0;
}
