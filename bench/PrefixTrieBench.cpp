// Sets of path prefixes: is this path or one that encloses it in the set, and which is the longest, against what else
// answers that. With --million also for a million paths, which takes a minute and 2 GB.

#include "Bench.h"
#include "PlainTrie.h"

#include "Mox/internal/TriePath.h"

#include <memory>
#include <random>
#include <set>
#include <unordered_map>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <malloc.h>

namespace {

using Paths = std::vector<std::string>;

// Paths that lie in memory in the order in which they are asked: what is measured is the set, and not the fetching of
// what is asked.
class Queries {
public:
    void add(std::string_view path) {
        ends_.push_back(text_.size());
        text_ += path;
    }
    std::size_t size() const { return ends_.size(); }
    std::string_view operator[](std::size_t i) const {
        std::size_t const end = i + 1 == size() ? text_.size() : ends_[i + 1];
        return std::string_view(text_).substr(ends_[i], end - ends_[i]);
    }

private:
    std::string text_;
    std::vector<std::size_t> ends_;  // of what is before each
};

// --- contestants: the same operations on each ---

struct MoxTrie {
    static constexpr char const* name = "Mox::PrefixTrie";
    Vel::Ptr<Bench::PlainTrie> root = Bench::PlainTrie::newEntity("");

    void add(Vel::String const& path) { root->prefixIs(path, Bench::PlainTrie::state()); }
    void del(std::string const& path) { root->prefixDel(path); }
    bool isPrefix(std::string_view path) const { return root->isPrefix(path); }
    bool hasPrefix(std::string_view path) const { return root->hasPrefix(path); }
    auto enclosingPrefix(std::string_view path) const { return root->enclosingPrefix(path); }

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
    void del(std::string const& path) { set.erase(path); }
    bool isPrefix(std::string_view path) const { return set.contains(path); }
    bool hasPrefix(std::string_view path) const {
        return anyPrefix(path, [&](std::string_view prefix) { return set.contains(prefix); });
    }
    std::string enclosingPrefix(std::string_view path) const {
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
    void del(std::string_view path) { del(root, path); }
    // Whether nothing is left of the node.
    static bool del(Node& node, std::string_view path) {
        if (path.empty()) {
            node.present = false;
        } else {
            auto const separator = path.find_first_of("/.", 1);
            auto const found = node.children.find(path.substr(0, separator));
            if (found == node.children.end()) return false;
            if (del(*found->second, separator == std::string_view::npos ? "" : path.substr(separator)))
                node.children.erase(found);
        }
        return !node.present && node.children.empty();
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

// No contestant, but the least that coming and going costs where each component is an object that calls two hooks, is
// found in a table, and is allocated and freed. It has no names, states, references or observers, one table for all
// nodes instead of one for each, and cannot list a node's children. Different paths are told apart by 64 bits of a hash
// only.
struct BareNodes {
    static constexpr char const* name = "bare nodes, no trie";
    struct Node {
        virtual ~Node() = default;
        virtual void comes(Node& child) { above = &child == this ? nullptr : above; }
        virtual void goes(Node& child) { above = &child == this ? nullptr : above; }
        Node* above = nullptr;
        unsigned children = 0;
        bool present = false;
        char others[48];  // as many bytes as Mox::PrefixTrie has
    };
    static_assert(sizeof(Node) == sizeof(Mox::PrefixTrie));
    struct AsItIs {
        std::size_t operator()(std::uint64_t hash) const { return hash; }
    };
    absl::flat_hash_map<std::uint64_t, std::unique_ptr<Node>, AsItIs> nodes;
    Node root;

    // Calls f(hash of the path so far) for each component, until it says false.
    template <class F> static void walk(std::string_view path, F f) {
        Vel::TableSecret const& secret = Vel::ProcessSecret::value();
        std::uint64_t hash = 0;
        for (std::size_t begin = 0; begin != path.size();) {
            std::string_view const rest = path.substr(begin);
            std::size_t const length = std::min(Mox::Detail::getSeparatorPos(rest), rest.size());
            hash = Vel::tableHash(rest.substr(0, length), 0, secret) ^ (hash << 5 | hash >> 59);
            if (!f(hash)) return;
            begin += length;
        }
    }
    void add(std::string_view path) {
        Node* at = &root;
        walk(path, [&](std::uint64_t hash) {
            auto const [found, added] = nodes.try_emplace(hash);
            if (added) {
                found->second = std::make_unique<Node>();
                found->second->above = at;
                ++at->children;
                at->comes(*found->second);
            }
            at = found->second.get();
            return true;
        });
        at->present = true;
    }
    void del(std::string_view path) {
        decltype(nodes)::iterator way[16];
        std::size_t depth = 0;
        walk(path, [&](std::uint64_t hash) { return (way[depth++] = nodes.find(hash)) != nodes.end(); });
        way[depth - 1]->second->present = false;
        while (depth > 0) {
            Node& node = *way[--depth]->second;
            if (node.present || node.children != 0) return;
            Node& above = *node.above;
            --above.children;
            above.goes(node);
            nodes.erase(way[depth]);
        }
    }
};

// --- paths: as they occur in a tree of state ---

class RandomPaths {
public:
    explicit RandomPaths(unsigned seed) : random_(seed) {}

    // `count` different paths of 3 to 8 components. Four in five grow out of an earlier one.
    Paths take(std::size_t count) {
        HashSet seen;
        Paths paths;
        while (paths.size() < count) {
            std::size_t const components = 3 + below(6);
            std::string path;
            if (!paths.empty() && below(5) != 0) path = cut(paths[below(paths.size())], 1 + below(components - 1));
            while (componentsOf(path) < components) add(path);
            if (seen.insert(path).second) paths.push_back(path);
        }
        return paths;
    }
    void add(std::string& path) {
        if (!path.empty()) path += below(10) < 7 ? '/' : '.';
        path += component();
    }
    std::size_t below(std::size_t limit) { return random_() % limit; }

private:
    static bool separates(char c) { return c == '/' || c == '.'; }
    static std::size_t componentsOf(std::string const& path) {
        return path.empty() ? 0 : 1 + static_cast<std::size_t>(std::count_if(path.begin(), path.end(), separates));
    }
    static std::string cut(std::string const& path, std::size_t components) {
        auto const end = std::find_if(path.begin(), path.end(), [&](char c) { return separates(c) && !--components; });
        return std::string(path.begin(), end);
    }
    std::string component() {
        static constexpr char const* words[] = {"interface", "interfaces", "counters", "bgp", "ospf", "isis", "status",
            "config", "state", "peer", "neighbor", "address", "route", "routes", "vrf", "default", "policy", "queue",
            "queues", "sensor", "temperature", "fan", "power", "supply", "chassis", "slot", "card", "port", "lane",
            "optics", "speed", "duplex", "mtu", "mac", "arp", "nd", "ipv4", "ipv6", "unicast", "multicast", "mpls",
            "label", "lldp", "lacp", "stp", "vlan", "vlans", "trunk", "access", "acl", "rule", "match", "action",
            "system", "cpu", "memory", "process", "agent", "log", "trace", "time", "ntp", "dns", "snmp", "user",
            "session", "key", "cert", "hw", "sw", "version", "in", "out", "errors", "drops", "packets", "bytes", "rate",
            "total", "last"};
        switch (below(10)) {
        case 0:
            return "Ethernet" + std::to_string(1 + below(64));
        case 1:
            return "vlan" + std::to_string(1 + below(4094));
        case 2:
            return "peer-10-" + std::to_string(below(256)) + "-" + std::to_string(below(256));
        case 3:
            return std::to_string(below(1000));
        default:
            return words[below(std::size(words))];
        }
    }

    std::mt19937 random_;
};

// All in random order.
struct Data {
    static constexpr std::size_t maxQueries = 65536;
    Paths paths;
    Queries there;    // of the set
    Queries below;    // one to three components below a path of the set
    Queries strange;  // like the others, but none of the set encloses them
    Paths toDelete;

    explicit Data(std::size_t count) : paths(RandomPaths(1).take(count)), toDelete(paths) {
        std::shuffle(toDelete.begin(), toDelete.end(), std::mt19937(3));
        for (std::size_t i = 0; i < std::min(count, maxQueries); ++i) there.add(toDelete[i]);
        RandomPaths random(2);
        for (std::size_t i = 0; i < maxQueries; ++i) {
            std::string path = paths[random.below(count)];
            for (std::size_t more = 1 + random.below(3); more > 0; --more) random.add(path);
            below.add(path);
        }
        HashSet const set(paths.begin(), paths.end());
        for (std::string const& path : random.take(2 * maxQueries))
            if (strange.size() < maxQueries &&
                !anyPrefix(path, [&](std::string_view prefix) { return set.contains(prefix); }))
                strange.add(path);
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

template <class C> void checkAgainst(NodeTrie const& reference, C const& contestant, Queries const& queries) {
    for (std::size_t i = 0; i < queries.size(); ++i) {
        std::string_view const path = queries[i];
        Bench::require(contestant.isPrefix(path) == reference.isPrefix(path), path);
        Bench::require(contestant.hasPrefix(path) == reference.hasPrefix(path), path);
        Bench::requireSame(contestant.enclosingPrefix(path), reference.enclosingPrefix(path), C::name);
    }
}

// Every iteration asks for another path, so that each meets the caches as they come.
template <class C, class Query>
void addQuery(std::string const& group, std::shared_ptr<C const> contestant, Queries const& paths, Query query) {
    Bench::add(group, C::name, [contestant, &paths, query](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            auto const answer = query(*contestant, paths[i]);
            Bench::keep(answer);
            if (++i == paths.size()) i = 0;
        }
    });
}

std::size_t allocatedBytes() {
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

template <class C> void addChanges(std::string const& size, Data const& data) {
    Bench::add(size + ", build (a path)", C::name, [&data](benchmark::State& state) {
        while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(data.paths.size()))) {
            auto made = built<C>(data.paths);
            Bench::keep(made);
            state.PauseTiming();
            made.reset();
            state.ResumeTiming();
        }
    });
    Bench::add(size + ", delete (a path)", C::name, [&data](benchmark::State& state) {
        while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(data.paths.size()))) {
            state.PauseTiming();
            auto made = built<C>(data.paths);
            state.ResumeTiming();
            for (std::string const& path : data.toDelete) made->del(path);
            Bench::keep(made);
        }
    });
}

template <class C> void addContestant(std::string const& size, Data const& data, NodeTrie const& reference) {
    std::size_t const before = allocatedBytes();
    std::shared_ptr<C const> const contestant = built<C>(data.paths);
    // A trie is measured with its index.
    for (Queries const* queries : {&data.there, &data.below, &data.strange})
        checkAgainst(reference, *contestant, *queries);
    auto const bytes = static_cast<double>(allocatedBytes() - before);
    std::printf("    %-30s %6.1f bytes a path", C::name, bytes / static_cast<double>(data.paths.size()));
    if constexpr (std::is_same_v<C, MoxTrie>) {
        auto const nodes = static_cast<double>(contestant->nodes());
        std::printf(", %.1f a node (%.2f nodes a path)", bytes / nodes, nodes / static_cast<double>(data.paths.size()));
    }
    std::printf("\n");

    auto const isPrefix = [](C const& c, std::string_view path) { return c.isPrefix(path); };
    auto const hasPrefix = [](C const& c, std::string_view path) { return c.hasPrefix(path); };
    auto const enclosing = [](C const& c, std::string_view path) { return c.enclosingPrefix(path); };
    addQuery(size + ", isPrefix, there", contestant, data.there, isPrefix);
    addQuery(size + ", isPrefix, not there", contestant, data.strange, isPrefix);
    addQuery(size + ", hasPrefix, there", contestant, data.below, hasPrefix);
    addQuery(size + ", hasPrefix, not there", contestant, data.strange, hasPrefix);
    addQuery(size + ", enclosingPrefix, there", contestant, data.below, enclosing);
    addQuery(size + ", enclosingPrefix, not there", contestant, data.strange, enclosing);

    addChanges<C>(size, data);
}

void addSize(std::size_t count) {
    auto* const data = new Data(count);  // for the rest of the run
    std::string const size = std::to_string(count) + " paths";
    std::printf("%s\n", size.c_str());
    auto const reference = built<NodeTrie>(data->paths);
    addContestant<FlatSet>(size, *data, *reference);
    addContestant<MoxTrie>(size, *data, *reference);
    addContestant<TreeSet>(size, *data, *reference);
    addContestant<NodeTrie>(size, *data, *reference);
    addChanges<BareNodes>(size, *data);
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
