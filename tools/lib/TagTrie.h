#pragma once

#include "Mox/PrefixTrie.h"

#include "Vel/describe/Checked.h"

#include <string_view>

// The trie that the tool makes of files: the state of a prefix is a set of tags, what is below a prefix inherits its
// tags, and two sets merge into their union. Made for files of a million prefixes: equal sets share their text.
namespace Tags {

// Tags are texts without blanks, control bytes, commas and braces. A set of them is the text "a,b": each tag once, in
// the order of their bytes, with commas between them; nothing for no tags.

// The set that `text` lists in any order, with braces around it or without; or what is wrong with it.
Vel::Checked<Vel::String> checkedTags(std::string_view text);

// The union of two sets. When it is equal to one of them, it shares that one's storage; equal results share theirs.
Vel::String unitedTags(Vel::String const& a, Vel::String const& b);

// The state of a prefix. Takes 48 bytes, 64 with what the allocator adds, and shares the text of its set with all
// states that have the same one: a state without tags takes nothing more.
// Threads: as the trie that it belongs to.
class TagState : public Vel::EntityOf<TagState, Mox::PrefixTrieState> {
public:
    TagState();
    ~TagState() override;

    Vel::String tags() const { return tags_; }
    void tagsIs(Vel::String const& v) { velSet<&TagState::tags_>(v); }  // REQUIRES: a set, as checkedTags makes it

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

// A trie of TagStates. What prefixDel prunes is released, since its state means nothing any more.
// Threads: one at a time.
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
