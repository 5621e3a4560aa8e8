#pragma once

#include "PrefixTrieHooks.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace TrieTest {

// What a trie of tags should do, said as plainly as possible: all its nodes in one map by the way to them. Nodes that
// have been pruned are kept, as in prefixChild. For tests and the fuzzer.
class Model {
public:
    using Way = std::vector<std::string>;
    struct Node {
        bool mountPoint = false;
        bool present = false;
        bool inChild = true;
        std::optional<Tags> state;
        friend bool operator==(Node const&, Node const&) = default;
    };

    std::map<Way, Node> nodes{{Way(), Node()}};
    unsigned newStates = 0;

    // Cuts off the first component, by the letter.
    struct Cut {
        std::string head, rest;
        bool starred = true;
    };
    static Cut cut(std::string const& path) {
        auto const slash = path.find('/', 1);
        auto const dot = path.find('.', 1);
        auto const separator = std::min(slash, dot);
        if (path.empty() || separator == std::string::npos) return {path, "", true};
        bool const starred = path.find('*') == separator - 1;
        return {path.substr(0, starred ? separator - 1 : separator), path.substr(separator), starred};
    }
    static bool mayBeAdded(std::string path) {
        for (Cut step = cut(path); !step.rest.empty(); step = cut(path)) path = step.rest;
        return path.find('*') == std::string::npos;
    }

    void add(std::string const& path, Tags given) {
        auto step = cut(path);
        Way way;
        for (;;) {
            Node& node = child(way, step.head);
            if (step.starred) node.mountPoint = true;
            if (!node.state) node.state = fresh();
            if (step.rest.empty()) {
                node.present = true;
                return pushDown(way, given);
            }
            given.insert(node.state->begin(), node.state->end());
            step = cut(step.rest);
        }
    }

    void del(std::string const& path, Way const& at = {}) {
        auto const [head, rest, starred] = cut(path);
        Way way = at;
        way.push_back(head);
        if (!has(way)) return;
        if (!rest.empty()) {
            del(rest, way);
            if (leaf(way) && !nodes.at(way).present) prune(way);
        } else if (leaf(way)) {
            prune(way);
        } else {
            nodes.at(way).present = false;
            nodes.at(way).state = fresh();
        }
    }

    // The node of each leading part of the path, as far as there are any; `whole`: all of them.
    struct Found {
        std::vector<Way> ways;
        bool whole = true;
    };
    Found find(std::string const& path) const {
        Found found;
        Way way;
        for (std::string rest = path;;) {
            Cut const step = cut(rest);
            way.push_back(step.head);
            if (!has(way)) return found.whole = false, found;
            found.ways.push_back(way);
            if (step.rest.empty()) return found;
            rest = step.rest;
        }
    }
    bool isPrefix(std::string const& path) const {
        auto const found = find(path);
        return found.whole && nodes.at(found.ways.back()).present;
    }
    bool isLeaf(std::string const& path) const {
        auto const found = find(path);
        return found.whole && leaf(found.ways.back());
    }
    std::optional<Way> enclosing(std::string const& path, bool proper) const {
        auto found = find(path);
        if (proper && found.whole) found.ways.pop_back();
        for (auto way = found.ways.rbegin(); way != found.ways.rend(); ++way)
            if (nodes.at(*way).present) return *way;
        return std::nullopt;
    }
    std::optional<Tags> state(std::string const& path) const {
        return isPrefix(path) ? nodes.at(find(path).ways.back()).state : std::nullopt;
    }

    void append(Model const& other) { merge(Way(), other, fresh()); }

    void empty(Way const& way) {
        removeBelow(way);
        Node& node = nodes.at(way);
        node.mountPoint = node.present = false;
        node.state.reset();
    }

private:
    static Tags fresh(unsigned& made) { return ++made, Hooks::the().freshTags; }
    Tags fresh() { return fresh(newStates); }

    bool has(Way const& way) const {
        auto const found = nodes.find(way);
        return found != nodes.end() && found->second.inChild;
    }
    Way below(Way way, std::string const& key) const {
        way.push_back(key);
        return way;
    }
    std::vector<std::string> children(Way const& way) const {
        std::vector<std::string> keys;
        for (auto const& [at, node] : nodes)
            if (at.size() == way.size() + 1 && std::equal(way.begin(), way.end(), at.begin()) && node.inChild)
                keys.push_back(at.back());
        return keys;
    }
    bool leaf(Way const& way) const { return children(way).empty(); }
    Node& child(Way& way, std::string const& key) {
        way.push_back(key);
        Node& node = nodes[way];
        node.inChild = true;
        return node;
    }
    void removeBelow(Way const& way) {
        std::erase_if(nodes, [&](auto const& entry) {
            return entry.first.size() > way.size() && std::equal(way.begin(), way.end(), entry.first.begin());
        });
    }
    void prune(Way const& way) {
        nodes.at(way).inChild = false;
        if (!Hooks::the().prunedAreDestroyed) return;
        removeBelow(way);
        nodes.erase(way);
    }
    static bool unite(Tags& tags, Tags const& from) {
        auto const before = tags.size();
        tags.insert(from.begin(), from.end());
        return tags.size() != before;
    }
    void pushDown(Way const& way, Tags passedOn) {
        Node& node = nodes.at(way);
        if (node.present) {
            if (!unite(*node.state, passedOn)) return;
            passedOn = *node.state;
        }
        for (auto const& key : children(way)) pushDown(below(way, key), passedOn);
    }
    void merge(Way const& way, Model const& other, Tags passedOn) {
        Node& node = nodes.at(way);
        Node const& given = other.nodes.at(way);
        node.present |= given.present;
        node.mountPoint |= given.mountPoint;
        bool changed = true;
        if (node.present) {
            if (!node.state) node.state = fresh();
            changed = unite(*node.state, passedOn);
            if (given.state && unite(*node.state, Tags(*given.state))) changed = true;
            passedOn = *node.state;
        }
        if (changed)
            for (auto const& key : children(way))
                if (!other.has(below(way, key))) pushDown(below(way, key), passedOn);
        for (auto const& key : other.children(way)) {
            Way to = way;
            child(to, key);
            merge(to, other, passedOn);
        }
    }
};

// A trie and what it should be.
struct Pair {
    Ptr<Mox::PrefixTrie> trie;
    Model model;
};

// What one query about the path, or its outcome, differs in; empty: nothing.
inline std::string differentAnswer(Pair const& pair, std::string const& path) {
    auto const text = [](std::optional<Model::Way> const& way) {
        std::string all;
        if (way)
            for (auto const& key : *way) all += key;
        return all;
    };
    Mox::PrefixTrie const& trie = *pair.trie;
    Model const& model = pair.model;
    if (trie.isPrefix(path) != model.isPrefix(path)) return "isPrefix of " + path;
    if (trie.isLeaf(path) != model.isLeaf(path)) return "isLeaf of " + path;
    if (trie.hasPrefix(path) != model.enclosing(path, false).has_value()) return "hasPrefix of " + path;
    if (trie.hasProperPrefix(path) != model.enclosing(path, true).has_value()) return "hasProperPrefix of " + path;
    if (trie.enclosingPrefix(path) != text(model.enclosing(path, false))) return "enclosingPrefix of " + path;
    if (trie.properEnclosingPrefix(path) != text(model.enclosing(path, true)))
        return "properEnclosingPrefix of " + path;
    auto const state = trie.prefixState(path);
    std::optional<Tags> tags;
    if (state) tags = static_cast<State const&>(*state).tags;
    return tags == model.state(path) ? "" : "prefixState of " + path;
}

// What a node or one below it differs in; empty: nothing.
inline std::string differentNode(Mox::PrefixTrie const& trie, Model const& model) {
    std::map<Model::Way, Model::Node> nodes;
    std::string wrong;
    auto const collect = [&](auto const& self, Mox::PrefixTrie const& node, Model::Way const& way,
                             bool inChild) -> void {
        Model::Node& entry = nodes[way];
        entry = {node.mountPoint(), node.present(), inChild, std::nullopt};
        if (node.state()) entry.state = static_cast<State const&>(*node.state()).tags;
        Vel::U32 children = 0;
        Vel::U32 all = 0;
        for (Ptr<Mox::PrefixTrie> const member : node.prefixChildMembers()) {
            std::string const key = member->name().stdString();
            auto const child = node.child(key);
            if (child && child != member) wrong = "two nodes named " + key;
            if (member->parent() != &node) wrong = "a wrong parent of " + key;
            ++all;
            children += child ? 1 : 0;
            Model::Way to = way;
            to.push_back(key);
            self(self, *member, to, bool(child));
        }
        if (node.children() != children || node.prefixChildren() != all) wrong = "a wrong number of children";
    };
    collect(collect, trie, {}, true);
    if (!wrong.empty() || nodes == model.nodes) return wrong;
    for (auto const& [way, node] : nodes)
        if (auto const found = model.nodes.find(way); found == model.nodes.end() || !(found->second == node))
            return "the node " + (way.empty() ? std::string("at the top") : way.back());
    return "a node is missing";
}

}  // namespace TrieTest
