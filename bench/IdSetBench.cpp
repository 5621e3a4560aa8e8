// Sets of ids below 16320, against what else keeps such sets.

#include "Bench.h"

#include "Mox/IdSet.h"

#include <bitset>
#include <charconv>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <set>

#include <absl/container/btree_set.h>
#include <boost/dynamic_bitset.hpp>
#include <roaring/roaring.h>

namespace {

using Mox::Id;
using Mox::IdSet;
using Ids = std::vector<Mox::U16>;

constexpr Mox::U16 size = 16320;
enum class Op { unite, intersect, subtract, exclude };

// --- contestants: the same operations on each ---

struct MoxSet {
    static constexpr char const* name = "Mox::IdSet";
    IdSet set{size};

    void add(unsigned id) { set.updateId(Id(static_cast<Mox::U16>(id)), true); }
    bool has(unsigned id) const { return set.id(Id(static_cast<Mox::U16>(id))); }
    template <Op op> MoxSet combined(MoxSet const& other) const {
        if constexpr (op == Op::unite) return {set | other.set};
        if constexpr (op == Op::intersect) return {set & other.set};
        if constexpr (op == Op::subtract) return {set - other.set};
        if constexpr (op == Op::exclude) return {set ^ other.set};
    }
    template <class F> void each(F f) const {
        for (Id const id : set) f(id.value());
    }
    template <class F> void eachCalled(F f) const {
        set.forEachId([&](Id id) { f(id.value()); });
    }
    std::size_t count() const { return set.ids(); }
    bool equal(MoxSet const& other) const { return set == other.set; }
    std::size_t hash() const { return set.hash(0); }
    std::size_t print() const { return set.stringValue().length(); }
    static MoxSet parsed(Vel::String const& text) {
        static IdSet const empty(size);
        auto at = text.begin();
        return {sequenceToValue(at, text.end(), &empty)};
    }
};

struct StdBitset {
    static constexpr char const* name = "std::bitset";
    std::bitset<16384> set;

    void add(unsigned id) { set.set(id); }
    bool has(unsigned id) const { return set[id]; }
    template <Op op> StdBitset combined(StdBitset const& other) const {
        if constexpr (op == Op::unite) return {set | other.set};
        if constexpr (op == Op::intersect) return {set & other.set};
        if constexpr (op == Op::subtract) return {set & ~other.set};
        if constexpr (op == Op::exclude) return {set ^ other.set};
    }
    template <class F> void each(F f) const {
        for (std::size_t id = set._Find_first(); id < set.size(); id = set._Find_next(id)) f(static_cast<unsigned>(id));
    }
    std::size_t count() const { return set.count(); }
    bool equal(StdBitset const& other) const { return set == other.set; }
    std::size_t hash() const { return std::hash<std::bitset<16384>>()(set); }
};

struct Roaring {
    static constexpr char const* name = "CRoaring";
    struct Free {
        void operator()(roaring_bitmap_t* set) const { roaring_bitmap_free(set); }
    };
    std::unique_ptr<roaring_bitmap_t, Free> set{roaring_bitmap_create()};

    void add(unsigned id) { roaring_bitmap_add(set.get(), id); }
    void addRange(unsigned first, unsigned last) { roaring_bitmap_add_range_closed(set.get(), first, last); }
    void finish() { roaring_bitmap_run_optimize(set.get()); }
    bool has(unsigned id) const { return roaring_bitmap_contains(set.get(), id); }
    template <Op op> Roaring combined(Roaring const& other) const {
        auto* const f = op == Op::unite       ? roaring_bitmap_or
                        : op == Op::intersect ? roaring_bitmap_and
                        : op == Op::subtract  ? roaring_bitmap_andnot
                                              : roaring_bitmap_xor;
        return {std::unique_ptr<roaring_bitmap_t, Free>(f(set.get(), other.set.get()))};
    }
    template <class F> void each(F f) const {
        roaring_uint32_iterator_t i;
        for (roaring_init_iterator(set.get(), &i); i.has_value; roaring_advance_uint32_iterator(&i)) f(i.current_value);
    }
    template <class F> void eachCalled(F f) const {
        auto const call = [](std::uint32_t id, void* function) {
            (*static_cast<F*>(function))(id);
            return true;
        };
        roaring_iterate(set.get(), call, &f);
    }
    std::size_t count() const { return roaring_bitmap_get_cardinality(set.get()); }
    bool equal(Roaring const& other) const { return roaring_bitmap_equals(set.get(), other.set.get()); }
};

struct DynamicBitset {
    static constexpr char const* name = "boost::dynamic_bitset";
    boost::dynamic_bitset<> set{size};

    void add(unsigned id) { set.set(id); }
    bool has(unsigned id) const { return set[id]; }
    template <Op op> DynamicBitset combined(DynamicBitset const& other) const {
        if constexpr (op == Op::unite) return {set | other.set};
        if constexpr (op == Op::intersect) return {set & other.set};
        if constexpr (op == Op::subtract) return {set - other.set};
        if constexpr (op == Op::exclude) return {set ^ other.set};
    }
    template <class F> void each(F f) const {
        for (auto id = set.find_first(); id != set.npos; id = set.find_next(id)) f(static_cast<unsigned>(id));
    }
    std::size_t count() const { return set.count(); }
    bool equal(DynamicBitset const& other) const { return set == other.set; }
};

template <class Tree> struct TreeSet {
    static constexpr char const* name = std::is_same_v<Tree, std::set<Mox::U16>> ? "std::set" : "absl::btree_set";
    Tree set;

    void add(unsigned id) { set.insert(static_cast<Mox::U16>(id)); }
    bool has(unsigned id) const { return set.count(static_cast<Mox::U16>(id)) != 0; }
    template <Op op> TreeSet combined(TreeSet const& other) const {
        TreeSet result;
        auto const apply = [&](auto algorithm) {
            algorithm(set.begin(), set.end(), other.set.begin(), other.set.end(),
                std::inserter(result.set, result.set.end()));
        };
        if constexpr (op == Op::unite) apply([](auto... x) { std::set_union(x...); });
        if constexpr (op == Op::intersect) apply([](auto... x) { std::set_intersection(x...); });
        if constexpr (op == Op::subtract) apply([](auto... x) { std::set_difference(x...); });
        if constexpr (op == Op::exclude) apply([](auto... x) { std::set_symmetric_difference(x...); });
        return result;
    }
    template <class F> void each(F f) const {
        for (auto const id : set) f(unsigned(id));
    }
    std::size_t count() const { return set.size(); }
    bool equal(TreeSet const& other) const { return set == other.set; }
};
using StdSet = TreeSet<std::set<Mox::U16>>;
using AbslSet = TreeSet<absl::btree_set<Mox::U16>>;

// --- range lists of the contestants that have none: the obvious loops ---

template <class Set> std::string printed(Set const& set) {
    std::string text = "(";
    unsigned first = 0;
    unsigned end = ~0u;
    auto const close = [&] {
        if (end == ~0u) return;
        char item[16];
        char* to = item;
        if (text.size() > 1) *to++ = ',';
        to = std::to_chars(to, std::end(item), first).ptr;
        if (end - first > 1) {
            *to++ = '-';
            to = std::to_chars(to, std::end(item), end - 1).ptr;
        }
        text.append(item, to);
    };
    set.each([&](unsigned id) {
        if (id != end) {
            close();
            first = id;
        }
        end = id + 1;
    });
    close();
    return text += ")";
}

template <class Set> Set parsed(std::string_view text) {
    Set set;
    char const* at = text.data() + 1;
    for (char const* const end = text.data() + text.size(); at < end && *at != ')'; at += *at == ',') {
        unsigned first = 0;
        at = std::from_chars(at, end, first).ptr;
        if (*at != '-') {
            set.add(first);
            continue;
        }
        unsigned last = 0;
        at = std::from_chars(at + 1, end, last).ptr;
        if constexpr (requires { set.addRange(first, last); })
            set.addRange(first, last);
        else
            for (unsigned id = first; id <= last; ++id) set.add(id);
    }
    return set;
}

// --- densities ---

struct Density {
    char const* name;
    Ids ids;    // in random order, but for all and the runs
    Ids other;  // of the same kind
};

Ids randomIds(std::size_t count, std::mt19937& random) {
    Ids ids(size);
    std::iota(ids.begin(), ids.end(), Mox::U16(0));
    std::shuffle(ids.begin(), ids.end(), random);
    ids.resize(count);
    return ids;
}

Ids runs(unsigned first) {
    Ids ids;
    for (unsigned run = 0; run < 10; ++run)
        for (unsigned i = 0; i < 300; ++i) ids.push_back(static_cast<Mox::U16>(first + run * 1600 + i));
    return ids;
}

std::vector<Density> densities() {
    std::mt19937 random(1);
    std::vector<Density> result;
    result.push_back({"16", randomIds(16, random), randomIds(16, random)});
    result.push_back({"200", randomIds(200, random), randomIds(200, random)});
    result.push_back({"2000", randomIds(2000, random), randomIds(2000, random)});
    Ids all(size);
    std::iota(all.begin(), all.end(), Mox::U16(0));
    result.push_back({"all", all, all});
    result.push_back({"10x300", runs(7), runs(180)});
    return result;
}

template <class Set> Set built(Ids const& ids) {
    Set set;
    for (auto const id : ids) set.add(id);
    return set;
}
template <class Set> std::shared_ptr<Set const> fixture(Ids const& ids) {
    Set set = built<Set>(ids);
    if constexpr (requires { set.finish(); }) set.finish();
    return std::make_shared<Set const>(std::move(set));
}

// --- measurements ---

template <class F> void measure(char const* what, Density const& density, char const* who, F function) {
    Bench::add(std::string(what) + "/" + density.name, who, [function](benchmark::State& state) {
        for (auto _ : state) {
            auto&& result = function();
            benchmark::DoNotOptimize(&result);
            benchmark::ClobberMemory();
        }
    });
}

template <class Set> void addMembers(Density const& density) {
    auto const a = fixture<Set>(density.ids);
    auto const queries = [] {
        std::mt19937 random(2);
        Ids ids(4096);
        for (auto& id : ids) id = static_cast<Mox::U16>(random() % size);
        return ids;
    }();
    measure("4096 memberships", density, Set::name, [a, queries] {
        unsigned sum = 0;
        for (auto const id : queries) sum += a->has(id);
        return sum;
    });
    measure("iterate", density, Set::name, [a] {
        unsigned sum = 0;
        a->each([&](unsigned id) { sum += id; });
        return sum;
    });
    if constexpr (requires { a->eachCalled([](unsigned) {}); })
        measure("for each", density, Set::name, [a] {
            unsigned sum = 0;
            a->eachCalled([&](unsigned id) { sum += id; });
            return sum;
        });
    else
        measure("for each", density, Set::name, [a] {
            unsigned sum = 0;
            a->each([&](unsigned id) { sum += id; });
            return sum;
        });
    measure("build", density, Set::name, [ids = density.ids] { return built<Set>(ids); });
}

template <class Set> void addWhole(Density const& density) {
    auto const a = fixture<Set>(density.ids);
    auto const b = fixture<Set>(density.other);
    auto const same = fixture<Set>(density.ids);
    measure("union", density, Set::name, [=] { return a->template combined<Op::unite>(*b); });
    measure("intersection", density, Set::name, [=] { return a->template combined<Op::intersect>(*b); });
    measure("difference", density, Set::name, [=] { return a->template combined<Op::subtract>(*b); });
    measure("symmetric difference", density, Set::name, [=] { return a->template combined<Op::exclude>(*b); });
    measure("equal", density, Set::name, [=] { return a->equal(*same); });
    measure("count", density, Set::name, [=] { return a->count(); });
    if constexpr (requires { a->hash(); }) measure("hash", density, Set::name, [=] { return a->hash(); });
}

template <class Set> void addText(Density const& density) {
    auto const a = fixture<Set>(density.ids);
    Vel::String const text = fixture<MoxSet>(density.ids)->set.stringValue();
    if constexpr (std::is_same_v<Set, MoxSet>) {
        measure("print", density, Set::name, [=] { return a->set.stringValue(); });
        measure("parse", density, Set::name, [=] { return MoxSet::parsed(text); });
    } else {
        measure("print", density, Set::name, [=] { return printed(*a); });
        measure("parse", density, Set::name, [=] { return parsed<Set>(text.view()); });
    }
}

void addStream(Density const& density) {
    auto const a = fixture<MoxSet>(density.ids);
    auto const out = std::make_shared<Vel::NboAttrLog::Out>();
    std::string const what = "write and read " + std::to_string(a->set.buckets()) + " buckets";
    measure(what.c_str(), density, MoxSet::name, [=] {
        out->clear();
        *out << a->set;
        Vel::NboAttrLog::In in(out->bytes());
        return IdSet(&in, Mox::StreamBogon());
    });
    auto const r = fixture<Roaring>(density.ids);
    auto const bytes = std::make_shared<std::vector<char>>(1 << 16);
    measure(what.c_str(), density, Roaring::name, [=] {
        auto const written = roaring_bitmap_portable_serialize(r->set.get(), bytes->data());
        return std::unique_ptr<roaring_bitmap_t, Roaring::Free>(
            roaring_bitmap_portable_deserialize_safe(bytes->data(), written));
    });
}

template <class Set> void addAll(Density const& density) {
    addMembers<Set>(density);
    addWhole<Set>(density);
    addText<Set>(density);
}

// --- agreement ---

template <class Set> void checkAgreement(Density const& density) {
    auto const text = [](auto const& set) { return printed(set); };
    auto const a = fixture<MoxSet>(density.ids);
    auto const b = fixture<MoxSet>(density.other);
    auto const x = fixture<Set>(density.ids);
    auto const y = fixture<Set>(density.other);
    for (unsigned id = 0; id < size; ++id) Bench::require(a->has(id) == x->has(id), Set::name);
    Bench::require(a->count() == x->count() && x->equal(built<Set>(density.ids)), Set::name);
    Bench::requireSame(a->set.stringValue().view(), text(*x), Set::name);
    Bench::requireSame(text(parsed<Set>(text(*x))), text(*x), Set::name);
    Bench::requireSame(text(MoxSet::parsed(a->set.stringValue())), text(*x), Set::name);
    Bench::requireSame(text(a->combined<Op::unite>(*b)), text(x->template combined<Op::unite>(*y)), Set::name);
    Bench::requireSame(text(a->combined<Op::intersect>(*b)), text(x->template combined<Op::intersect>(*y)), Set::name);
    Bench::requireSame(text(a->combined<Op::subtract>(*b)), text(x->template combined<Op::subtract>(*y)), Set::name);
    Bench::requireSame(text(a->combined<Op::exclude>(*b)), text(x->template combined<Op::exclude>(*y)), Set::name);
}

void printBytes(std::vector<Density> const& all) {
    std::printf("bytes of a set: density, Mox::IdSet, std::bitset, CRoaring serialised\n");
    for (auto const& density : all) {
        auto const a = fixture<MoxSet>(density.ids);
        std::printf("    %-8s %6zu %6zu %6zu\n", density.name, sizeof(IdSet) + a->set.allocatedBytes(),
            sizeof(std::bitset<16384>), roaring_bitmap_size_in_bytes(fixture<Roaring>(density.ids)->set.get()));
    }
}

// An empty set, and a range put into it.
void addRanges(unsigned buckets) {
    std::string const group = "range of " + std::to_string(buckets) + " buckets";
    unsigned const last = 5 + buckets * 64 - 10;
    Density const density{group.c_str(), {}, {}};
    measure("new set", density, MoxSet::name, [=] {
        MoxSet set;
        set.set.idSetRange(Id(5), Id(static_cast<Mox::U16>(last)));
        return set;
    });
    measure("new set", density, Roaring::name, [=] {
        Roaring set;
        set.addRange(5, last - 1);
        return set;
    });
    measure("new set", density, DynamicBitset::name, [=] {
        DynamicBitset set;
        set.set.set(5, last - 5, true);
        return set;
    });
}

template <class... Sets> void forAll(Density const& density) {
    (checkAgreement<Sets>(density), ...);
    (addAll<Sets>(density), ...);
}

}  // namespace

int main(int argc, char** argv) {
    auto const all = densities();
    printBytes(all);
    for (auto const& density : all) {
        forAll<MoxSet, StdBitset, Roaring, DynamicBitset, AbslSet, StdSet>(density);
        addStream(density);
    }
    for (unsigned const buckets : {8, 255}) addRanges(buckets);
    return Bench::run(argc, argv);
}
