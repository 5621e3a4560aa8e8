#pragma once

#include "PrefixTrieHooks.h"

#include "Vel/text/Trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using Strings = std::vector<std::string>;

// A trie "root" of tags. Every test also sees that no node and no state outlives it.
class PrefixTrieTest : public testing::Test {
protected:
    using Node = Mox::PrefixTrie;
    using State = TrieTest::State;
    using Trie = TrieTest::Trie;

    PrefixTrieTest() {
        hooks = TrieTest::Hooks();
        Vel::Trace::levelsIs("");
    }
    ~PrefixTrieTest() override {
        Vel::Trace::sinkIs(nullptr);
        Vel::Trace::levelsIs("");
        notifiees_.clear();
        hooks = TrieTest::Hooks();
        trie = nullptr;
        EXPECT_EQ(TrieTest::liveNodes(), liveNodesBefore_);
        EXPECT_EQ(TrieTest::liveStates(), liveStatesBefore_);
    }

    static Vel::Ptr<State> stateOf(std::string const& label, TrieTest::Tags const& tags = {}) {
        return State::newEntity(label, tags);
    }
    void add(std::string_view path, TrieTest::Tags const& tags = {}) { addTo(*trie, path, tags); }
    static void addTo(Node& to, std::string_view path, TrieTest::Tags const& tags = {}) {
        to.prefixIs(path, stateOf("new", tags));
    }
    static Vel::Ptr<Node> trieOf(Strings const& paths) {
        Vel::Ptr<Node> made = Trie::newEntity("other");
        for (auto const& path : paths) addTo(*made, path);
        hooks.takeCalls();
        return made;
    }

    // The node below the trie that is reached by these keys in `prefixChild`; a failed test when there is none.
    Vel::Ptr<Node> nodeAt(Strings const& keys) const {
        Vel::Ptr<Node> node = trie;
        for (auto const& key : keys)
            if (node) node = node->prefixChild(key);
        EXPECT_TRUE(node) << testing::PrintToString(keys);
        return node;
    }
    static TrieTest::Tags tagsOf(Node const& node) {
        return node.state() ? static_cast<State const&>(*node.state()).tags : TrieTest::Tags{"no state"};
    }

    // What takes part in the answers: keys in order, "*" for a mount point, "+" for a present one, children in
    // parentheses: "a*(/b*+ /c*+)".
    static std::string shapeOf(Node const& node) { return textOf(node, false); }
    std::string shape() const { return shapeOf(*trie); }
    // The same of all nodes, with "-" before those that are not in `child`.
    std::string nodes() const { return textOf(*trie, true); }

    // Collects from now on what observers of the node are told: "a 260", "root 261 a".
    void observe(Node const& node) {
        std::string const name = node.name().stdString();
        notifiees_.push_back(Vel::notifieeOf(node, [this, name](Vel::AttributeId id, Vel::NotifieeKey const* key) {
            notified.push_back(name + " " + std::to_string(id));
            if (key) notified.back() += " " + key->as<Vel::String>().stdString();
        }));
    }
    Strings takeNotified() { return std::exchange(notified, {}); }

    static Strings takeCalls() { return hooks.takeCalls(); }
    // The calls that begin with `start`.
    static Strings takeCalls(std::string_view start) {
        Strings calls = takeCalls();
        std::erase_if(calls, [&](std::string const& call) { return !call.starts_with(start); });
        return calls;
    }
    static Strings takeMerges() {
        Strings calls = takeCalls();
        std::erase_if(calls, [&](std::string const& call) { return call.find(".upgradeState(") == std::string::npos; });
        return calls;
    }

    static inline TrieTest::Hooks& hooks = TrieTest::Hooks::the();
    Strings notified;

private:
    static std::string textOf(Node const& node, bool all) {
        std::map<std::string, Vel::Ptr<Node>> members;
        auto const collect = [&](auto const& range) {
            for (Vel::Ptr<Node> const member : range) members[member->name().stdString()] = member;
        };
        collect(node.childMembers());
        if (all) collect(node.prefixChildMembers());
        std::string text;
        for (auto const& [key, member] : members) {
            if (!text.empty()) text += ' ';
            if (!node.childExists(key)) text += '-';
            text += key;
            if (member->mountPoint()) text += '*';
            if (member->present()) text += '+';
            if (std::string const below = textOf(*member, all); !below.empty()) text += "(" + below + ")";
        }
        return text;
    }

    Vel::U64 const liveNodesBefore_ = TrieTest::liveNodes();
    Vel::U64 const liveStatesBefore_ = TrieTest::liveStates();
    std::vector<std::unique_ptr<Vel::Notifiee>> notifiees_;

protected:
    Vel::Ptr<Node> trie = Trie::newEntity("root");
};

// A path of `count` components that are `component` each.
inline std::string pathOf(std::size_t count, std::string_view component = "/a") {
    std::string path;
    path.reserve(count * component.size());
    for (std::size_t i = 0; i < count; ++i) path += component;
    return path;
}
