// Sets of path prefixes: is this path or one that encloses it in the set, and which is the longest, against what else
// answers that. With --million also for a million paths, which takes a minute and 2 GB.

#include "Bench.h"

#include "Mox/PrefixTrie.h"

#include <memory>
#include <random>
#include <set>
#include <unordered_map>

#include <absl/container/flat_hash_set.h>
#include <malloc.h>

namespace {

using Paths = std::vector<std::string>;

// --- contestants: the same operations on each ---

// All of its states are one that holds nothing: the others have none.
class PlainState : public Mox::PrefixTrieState {
    bool upgradeState(Vel::Ptr<PrefixTrieState> const&, bool) override { return false; }
    Vel::String outputForm() override { return ""; }
};

class PlainTrie : public Mox::PrefixTrie {
public:
    explicit PlainTrie(Vel::String const& name) : PrefixTrie(name) {}
    static Vel::Ptr<PlainTrie> newEntity(Vel::String const& name) {
        Vel::Ptr<PlainTrie> const made(new PlainTrie(name));
        made->hasNotificationActiveIs(true);  // as every factory does
        return made;
    }
    Vel::Ptr<Mox::PrefixTrieState> newStateIs() override { return state(); }
    Vel::Ptr<PrefixTrie> newChildIs(Vel::String const& key) override { return newChildOf<PlainTrie>(key); }
    static Vel::Ptr<Mox::PrefixTrieState> const& state() {
        static Vel::Ptr<Mox::PrefixTrieState> const one(new PlainState);
        return one;
    }
};

struct MoxTrie {
    static constexpr char const* name = "Mox::PrefixTrie";
    Vel::Ptr<PlainTrie> root = PlainTrie::newEntity("");

    void add(Vel::String const& path) { root->prefixIs(path, PlainTrie::state()); }
    bool isPrefix(std::string const& path) const { return root->isPrefix(path); }
    bool hasPrefix(std::string const& path) const { return root->hasPrefix(path); }
    auto enclosingPrefix(std::string const& path) const { return root->enclosingPrefix(path); }

    std::size_t nodes() const { return nodesBelow(*root); }
    static std::size_t nodesBelow(Mox::PrefixTrie const& node) {
        std::size_t count = 0;
        for (auto const& child : node.childMembers()) count += 1 + nodesBelow(*child);
        return count;
    }
};

// The length of every prefix of the path that ends before a separator, the shortest first, then its own.
template <class F> bool anyPrefix(std::string_view path, F f) {
    for (std::size_t i = 1; i < path.size(); ++i)
        if ((path[i] == '/' || path[i] == '.') && f(path.substr(0, i))) return true;
    return f(path);
}
template <class F> std::string longestPrefix(std::string_view path, F f) {
    for (;;) {
        if (f(path)) return std::string(path);
        auto const separator = path.find_last_of("/.");
        if (separator == 0 || separator == std::string_view::npos) return {};
        path = path.substr(0, separator);
    }
}

template <class Set> struct Probed {
    Set set;

    void add(std::string const& path) { set.emplace(path); }
    bool isPrefix(std::string const& path) const { return set.contains(path); }
    bool hasPrefix(std::string const& path) const {
        return anyPrefix(path, [&](std::string_view prefix) { return set.contains(prefix); });
    }
    std::string enclosingPrefix(std::string const& path) const {
        return longestPrefix(path, [&](std::string_view prefix) { return set.contains(prefix); });
    }
};
// Looked up by std::string_view, which the library's own hash does not take when it was built for C++14.
struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
        return absl::Hash<absl::string_view>()(absl::string_view(text.data(), text.size()));
    }
};
using HashSet = absl::flat_hash_set<std::string, TextHash, std::equal_to<>>;
struct FlatSet : Probed<HashSet> {
    static constexpr char const* name = "absl::flat_hash_set, probed";
};
struct TreeSet : Probed<std::set<std::string, std::less<>>> {
    static constexpr char const* name = "std::set, probed";
};

struct NodeTrie {
    static constexpr char const* name = "trie of unordered_map nodes";
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    struct Node {
        std::unordered_map<std::string, std::unique_ptr<Node>, Hash, std::equal_to<>> children;
        bool present = false;
    };
    Node root;

    // Calls f(node, bytes of the path up to it) from the root down, until it says true.
    template <class F> void walk(std::string_view path, F f) const {
        Node const* at = &root;
        for (std::size_t begin = 0; begin != path.size();) {
            auto const separator = path.find_first_of("/.", begin + 1);
            std::size_t const end = separator == std::string_view::npos ? path.size() : separator;
            auto const found = at->children.find(path.substr(begin, end - begin));
            if (found == at->children.end()) return;
            at = found->second.get();
            if (f(*at, end)) return;
            begin = end;
        }
    }
    void add(std::string_view path) {
        Node* at = &root;
        for (std::size_t begin = 0; begin != path.size();) {
            auto const separator = path.find_first_of("/.", begin + 1);
            std::size_t const end = separator == std::string_view::npos ? path.size() : separator;
            std::string_view const key = path.substr(begin, end - begin);
            auto found = at->children.find(key);
            if (found == at->children.end()) found = at->children.emplace(key, std::make_unique<Node>()).first;
            at = found->second.get();
            begin = end;
        }
        at->present = true;
    }
    bool isPrefix(std::string_view path) const {
        bool result = false;
        walk(path, [&](Node const& node, std::size_t end) { return (result = end == path.size() && node.present); });
        return result;
    }
    bool hasPrefix(std::string_view path) const {
        bool result = false;
        walk(path, [&](Node const& node, std::size_t) { return (result = node.present); });
        return result;
    }
    std::string enclosingPrefix(std::string_view path) const {
        std::size_t length = 0;
        walk(path, [&](Node const& node, std::size_t end) {
            if (node.present) length = end;
            return false;
        });
        return std::string(path.substr(0, length));
    }
};

// --- paths: 3 to 8 components, as in a tree of settings: a few names at the top, many further down ---

Paths randomPaths(std::size_t count, unsigned seed) {
    static constexpr char const* words[] = {"interface", "config", "status", "counter", "port", "slot", "vlan",
        "address", "route", "neighbour", "policy", "queue", "sensor", "fan", "peer", "group"};
    std::mt19937 random(seed);
    HashSet seen;
    Paths paths;
    while (paths.size() < count) {
        std::string path;
        unsigned const components = 3 + static_cast<unsigned>(random() % 6);
        for (unsigned i = 0; i < components; ++i) {
            if (i) path += random() % 4 ? '/' : '.';
            unsigned const range = i < 2 ? 1 : 4u << (2 * i);  // 1 number at first, then 64, 256, ...
            path += words[random() % 16];
            if (range > 1) path += std::to_string(random() % std::min(range, 1000u));
        }
        if (seen.insert(path).second) paths.push_back(path);
    }
    return paths;
}

struct Data {
    Paths paths;
    Paths below;    // two components below a path of the set
    Paths strange;  // like the others, but none of the set encloses them

    explicit Data(std::size_t count) : paths(randomPaths(count, 1)) {
        for (std::string const& path : paths) below.push_back(path + "/more.below");
        HashSet const set(paths.begin(), paths.end());
        for (std::string const& path : randomPaths(count + count / 2 + 100, 2))
            if (!anyPrefix(path, [&](std::string_view prefix) { return set.contains(prefix); }))
                strange.push_back(path);
        std::shuffle(below.begin(), below.end(), std::mt19937(3));
    }
};

template <class C> std::unique_ptr<C> built(Paths const& paths) {
    auto contestant = std::make_unique<C>();
    if constexpr (std::is_same_v<C, MoxTrie>) {
        // The path as agents have it. The others take theirs from a std::string.
        for (std::string const& path : paths) contestant->add(Vel::String(path));
    } else {
        for (std::string const& path : paths) contestant->add(path);
    }
    return contestant;
}

template <class C> void checkAgainst(NodeTrie const& reference, C const& contestant, Paths const& queries) {
    for (std::size_t i = 0; i < std::min<std::size_t>(queries.size(), 20000); ++i) {
        std::string const& path = queries[i];
        Bench::require(contestant.isPrefix(path) == reference.isPrefix(path), path);
        Bench::require(contestant.hasPrefix(path) == reference.hasPrefix(path), path);
        Bench::requireSame(contestant.enclosingPrefix(path), reference.enclosingPrefix(path), C::name);
    }
}

// Every iteration asks for another path, so that each meets the caches as they come.
template <class C, class Query>
void addQuery(std::string const& group, std::shared_ptr<C const> contestant, Paths const& paths, Query query) {
    Bench::add(group, C::name, [contestant, &paths, query](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            auto const answer = query(*contestant, paths[i]);
            Bench::keep(answer);
            if (++i == paths.size()) i = 0;
        }
    });
}

template <class C> void addContestant(std::string const& size, Data const& data, NodeTrie const& reference) {
    std::size_t const before = mallinfo2().uordblks;
    std::shared_ptr<C const> const contestant = built<C>(data.paths);
    auto const bytes = static_cast<double>(mallinfo2().uordblks - before);
    std::printf("    %-30s %6.1f bytes a path", C::name, bytes / static_cast<double>(data.paths.size()));
    if constexpr (std::is_same_v<C, MoxTrie>) {
        auto const nodes = static_cast<double>(contestant->nodes());
        std::printf(", %.1f a node (%.2f nodes a path)", bytes / nodes, nodes / static_cast<double>(data.paths.size()));
    }
    std::printf("\n");
    for (Paths const* queries : {&data.paths, &data.below, &data.strange})
        checkAgainst(reference, *contestant, *queries);

    auto const isPrefix = [](C const& c, std::string const& path) { return c.isPrefix(path); };
    auto const hasPrefix = [](C const& c, std::string const& path) { return c.hasPrefix(path); };
    auto const enclosing = [](C const& c, std::string const& path) { return c.enclosingPrefix(path); };
    addQuery(size + ", isPrefix, there", contestant, data.paths, isPrefix);
    addQuery(size + ", isPrefix, not there", contestant, data.strange, isPrefix);
    addQuery(size + ", hasPrefix, there", contestant, data.below, hasPrefix);
    addQuery(size + ", hasPrefix, not there", contestant, data.strange, hasPrefix);
    addQuery(size + ", enclosingPrefix, there", contestant, data.below, enclosing);
    addQuery(size + ", enclosingPrefix, not there", contestant, data.strange, enclosing);

    Bench::add(size + ", build (a path)", C::name, [&data](benchmark::State& state) {
        while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(data.paths.size()))) {
            auto made = built<C>(data.paths);
            Bench::keep(made);
            state.PauseTiming();
            made.reset();
            state.ResumeTiming();
        }
    });
}

void addSize(std::size_t count) {
    auto* const data = new Data(count);  // for the rest of the run
    std::string const size = std::to_string(count) + " paths";
    std::printf("%s\n", size.c_str());
    auto const reference = built<NodeTrie>(data->paths);
    addContestant<MoxTrie>(size, *data, *reference);
    addContestant<FlatSet>(size, *data, *reference);
    addContestant<TreeSet>(size, *data, *reference);
    addContestant<NodeTrie>(size, *data, *reference);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    bool const million =
        std::erase_if(arguments, [](char* argument) { return argument == std::string_view("--million"); });
    addSize(1000);
    addSize(100'000);
    if (million) addSize(1'000'000);
    return Bench::run(static_cast<int>(arguments.size()), arguments.data());
}
