#pragma once

#include "Mox/PrefixTrie.h"

#include <string_view>

// A prefix trie to copy from. The state of a prefix is a set of tags. A path below a prefix inherits its tags, and two
// sets merge into their union. The types of "mox serve --trie" have the same names and attributes as these.
namespace Tags {

// Returns the set of the tags in a list, which may have any order. A set is the text "a,b": each tag once, in the order
// of their bytes. The empty set is the empty text.
Vel::String tagSet(std::string_view list);

// The state of a prefix.
class TagState : public Vel::EntityOf<TagState, Mox::PrefixTrieState> {
public:
    TagState();
    ~TagState() override;

    Vel::String tags() const { return tags_; }
    void tagsIs(Vel::String const& v) { velSet<&TagState::tags_>(v); }  // REQUIRES: a set as tagSet() returns it

    // Adds the tags of `inheritedState`, which must be a TagState. Ignores `inheritedOnly`.
    bool upgradeState(Vel::Ptr<Mox::PrefixTrieState> const& inheritedState, bool inheritedOnly) override;
    Vel::String outputForm() override;  // "{a,b}"

    static constexpr auto description() {
        return Vel::entity(
            "Tags::TagState", Vel::attribute<&TagState::tags_, &TagState::tags, &TagState::tagsIs>("tags"))
            .with(Vel::base<Mox::PrefixTrieState>);
    }

private:
    Vel::String tags_;
};

// A trie of TagStates. Threads: one thread at a time.
class TagTrie : public Vel::EntityOf<TagTrie, Mox::PrefixTrie> {
public:
    explicit TagTrie(Vel::String const& name);
    ~TagTrie() override;

    // Returns the tags that apply to the path: those of the longest prefix in the trie that encloses it, which may be
    // the path itself.
    Vel::String tagsOf(std::string_view path) const;

    Vel::Ptr<State> newStateIs() override;
    Vel::Ptr<PrefixTrie> newChildIs(Vel::String const& key) override;
    void childInstanceDel(Vel::String const& key) override { prefixChildDel(key); }

    static constexpr auto description() {
        return Vel::entity("Tags::TagTrie", Vel::method<&TagTrie::tagsOf>("tagsOf", "path"))
            .with(Vel::base<Mox::PrefixTrie>);
    }
};

}  // namespace Tags
