#pragma once

#include "Mox/PrefixTrie.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

// A trie whose states are sets of tags, and which tells of every hook that is called. Whoever includes this defines its
// module once: VEL_MODULE(TrieTest, ..., TrieTest::State, TrieTest::Trie,
// TrieTest::Plain).
namespace TrieTest {

using Tags = std::set<std::string>;
using Vel::Ptr;
using Vel::String;

// What the hooks of all tries and states do and have done.
struct Hooks {
    bool recording = true;
    bool prunedAreDestroyed = false;  // childInstanceDel takes the node out of prefixChild too
    Tags freshTags;                   // in what newStateIs makes
    std::optional<bool> answer;       // of upgradeState of a state, whatever has changed
    // Told of every call before a trie, and after a state, has done its work; may change the trie.
    std::function<void(std::string const& call)> before;

    std::vector<std::string> calls;
    unsigned outputForms = 0;
    unsigned newStates = 0;

    static Hooks& the() {
        static Hooks hooks;
        return hooks;
    }
    template <class... Parts> void call(Parts const&... parts) {
        if (!recording) return;
        std::string text = (std::string() + ... + std::string(std::string_view(parts)));
        calls.push_back(text);
        if (before) before(text);
    }
    std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }
};

// Merging unites the tags; a state has changed when a tag has come.
class State : public Vel::EntityOf<State, Mox::PrefixTrieState> {
public:
    explicit State(std::string stateLabel = "state", Tags stateTags = {})
        : label(std::move(stateLabel)), tags(std::move(stateTags)) {}

    bool upgradeState(Ptr<Mox::PrefixTrieState> const& inheritedState, bool inheritedOnly) override {
        auto const& from = static_cast<State const&>(*inheritedState);
        auto const before = tags.size();
        tags.insert(from.tags.begin(), from.tags.end());
        bool const changed = Hooks::the().answer.value_or(tags.size() != before);
        Hooks::the().call(label, ".upgradeState(", from.label, inheritedOnly ? ", inherited" : ", given",
            changed ? ") changed" : ") same");
        return changed;
    }
    String outputForm() override {
        ++Hooks::the().outputForms;
        std::string text = label + "{";
        for (std::string const& tag : tags) text += text.ends_with('{') ? tag : "," + tag;
        return text + "}";
    }

    std::string label;
    Tags tags;

    static constexpr auto description() { return Vel::entity("TrieTest::State").with(Vel::base<Mox::PrefixTrieState>); }
};

inline std::string labelOf(Ptr<Mox::PrefixTrieState> const& state) {
    return state ? static_cast<State const&>(*state).label : "null";
}

class Trie : public Vel::EntityOf<Trie, Mox::PrefixTrie> {
public:
    explicit Trie(String const& name) : EntityOf(name) {}

    // The states that a node makes are labelled with its name and counted: "/b#1".
    Ptr<Mox::PrefixTrieState> newStateIs() override {
        Hooks& hooks = Hooks::the();
        ++hooks.newStates;
        hooks.call("newStateIs of ", name());
        return TrieTest::State::newEntity(name().stdString() + "#" + std::to_string(++states_), hooks.freshTags);
    }
    Ptr<Mox::PrefixTrie> newChildIs(String const& key) override {
        Hooks::the().call("newChildIs ", key, " in ", name());
        return newChildOf<Trie>(key);
    }
    bool emptyIs(bool value) override {
        Hooks::the().call("emptyIs ", name());
        return PrefixTrie::emptyIs(value);
    }
    void prefixIs(String const& path, Ptr<Mox::PrefixTrieState> const& newState) override {
        Hooks::the().call("prefixIs ", path, " in ", name(), " with ", labelOf(newState));
        PrefixTrie::prefixIs(path, newState);
    }
    void upgradeState(Ptr<Mox::PrefixTrieState> const& inheritedState, bool inheritedOnly) override {
        Hooks::the().call(
            "upgradeState of ", name(), " with ", labelOf(inheritedState), inheritedOnly ? " inherited" : " given");
        PrefixTrie::upgradeState(inheritedState, inheritedOnly);
    }
    void append(Ptr<Mox::PrefixTrie const> const& target) override {
        Hooks::the().call("append ", target ? target->name() : String("null"), " to ", name());
        PrefixTrie::append(target);
    }
    void childInstanceDel(String const& key) override {
        Hooks::the().call("childInstanceDel ", key, " in ", name());
        if (Hooks::the().prunedAreDestroyed) prefixChildDel(key);
    }

    static constexpr auto description() { return Vel::entity("TrieTest::Trie").with(Vel::base<Mox::PrefixTrie>); }

private:
    unsigned states_ = 0;
};

// The least that a trie has to bring, which leaves the work on paths to the base.
class Plain : public Vel::EntityOf<Plain, Mox::PrefixTrie> {
public:
    explicit Plain(String const& name) : EntityOf(name) {}

    Ptr<Mox::PrefixTrieState> newStateIs() override {
        ++Hooks::the().newStates;
        return TrieTest::State::newEntity("fresh", Hooks::the().freshTags);
    }
    Ptr<Mox::PrefixTrie> newChildIs(String const& key) override { return newChildOf<Plain>(key); }
    void childInstanceDel(String const& key) override {
        if (Hooks::the().prunedAreDestroyed) prefixChildDel(key);
    }

    static constexpr auto description() { return Vel::entity("TrieTest::Plain").with(Vel::base<Mox::PrefixTrie>); }
};

inline Vel::U64 liveNodes() {
    return Vel::typeOf<Trie>().glue().allocTrack->live() + Vel::typeOf<Plain>().glue().allocTrack->live();
}
inline Vel::U64 liveStates() { return Vel::typeOf<State>().glue().allocTrack->live(); }

}  // namespace TrieTest
