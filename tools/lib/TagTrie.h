#pragma once

#include "Mox/PrefixTrie.h"

#include "Vel/describe/Checked.h"

#include <string_view>

// The trie that the tool makes from files. The state of a prefix is a set of tags. A path below a prefix inherits its
// tags, and two sets merge into their union. It is made for files of a million prefixes: equal sets share their text.
namespace Tags {

// A tag is a text without blanks, control bytes, commas and braces. A set of tags is the text "a,b": each tag once, in
// the order of their bytes, separated by commas. The empty set is the empty text.

// Parses a set from a text that lists its tags in any order, with or without braces. Returns it, or what is wrong.
Vel::Checked<Vel::String> checkedTags(std::string_view text);

// Returns the union of two sets. It shares the storage of one of them if it is equal to that one. Equal results share
// their storage.
Vel::String unitedTags(Vel::String const& a, Vel::String const& b);

// The state of a prefix. It takes 48 bytes, 64 with the allocator's overhead. All states with the same set share its
// text; the empty set takes no further memory.
// Threads: the same rule as for its trie.
class TagState : public Vel::EntityOf<TagState, Mox::PrefixTrieState> {
public:
    TagState();
    ~TagState() override;

    Vel::String tags() const { return tags_; }
    void tagsIs(Vel::String const& v) { velSet<&TagState::tags_>(v); }  // REQUIRES: a set as checkedTags() returns it

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

// A trie of TagStates. Nodes that prefixDel() prunes are released, since their states are not needed any more.
// Threads: one thread at a time.
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
