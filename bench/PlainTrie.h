#pragma once

#include "Mox/PrefixTrie.h"

// The plainest trie that there can be, for the benchmarks.
namespace Bench {

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
    void childInstanceDel(Vel::String const& key) override { prefixChildDel(key); }
    static Vel::Ptr<Mox::PrefixTrieState> const& state() {
        static Vel::Ptr<Mox::PrefixTrieState> const one(new PlainState);
        return one;
    }
};

}  // namespace Bench
