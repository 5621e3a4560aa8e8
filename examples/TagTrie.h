#pragma once

#include "Mox/PrefixTrie.h"

#include <string_view>

// A prefix trie to copy from: the state of a prefix is a set of tags, what is below a prefix inherits its tags, and two
// sets merge into their union. Tries from "mox serve --trie" are of types with the same names and attributes.
namespace Tags {

// A set of tags is the text "a,b": each tag once, in the order of their bytes; nothing for no tags.
Vel::String tagSet(std::string_view list);  // of tags in any order

// The state of a prefix.
class TagState : public Vel::EntityOf<TagState, Mox::PrefixTrieState> {
public:
    TagState();
    ~TagState() override;

    Vel::String tags() const { return tags_; }
    void tagsIs(Vel::String const& v) { velSet<&TagState::tags_>(v); }  // REQUIRES: a set

    // Takes on the tags of `inheritedState`, a TagState. It makes no difference where they come from.
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

// A trie of TagStates. Threads: one at a time.
class TagTrie : public Vel::EntityOf<TagTrie, Mox::PrefixTrie> {
public:
    explicit TagTrie(Vel::String const& name);
    ~TagTrie() override;

    // The tags that apply to the path: those of the longest prefix in the trie that encloses it, or of the path itself.
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
