#include "examples/TagTrie.h"

#include "Vel/describe/Module.h"

#include <algorithm>
#include <set>
#include <string>

namespace Tags {

using Vel::Ptr;
using Vel::String;

String tagSet(std::string_view list) {
    std::set<std::string_view> tags;
    while (!list.empty()) {
        std::string_view const tag = list.substr(0, list.find(','));
        if (!tag.empty()) tags.insert(tag);
        list.remove_prefix(std::min(list.size(), tag.size() + 1));
    }
    std::string set;
    for (std::string_view const tag : tags) set.append(set.empty() ? "" : ",").append(tag);
    return String(set).dedup();  // states with the same tags share one text
}

TagState::TagState() = default;
TagState::~TagState() = default;

bool TagState::upgradeState(Ptr<Mox::PrefixTrieState> const& inheritedState, bool) {
    String const all = tagSet((tags_ + "," + static_cast<TagState const&>(*inheritedState).tags_).view());
    if (all == tags_) return false;
    tagsIs(all);
    return true;
}

String TagState::outputForm() { return String("{") + tags_ + "}"; }

TagTrie::TagTrie(String const& name) : EntityOf(name) {}
TagTrie::~TagTrie() = default;

String TagTrie::tagsOf(std::string_view path) const {
    Ptr<State> const state = prefixState(enclosingPrefix(path));
    return state ? static_cast<TagState const&>(*state).tags() : String();
}

Ptr<Mox::PrefixTrieState> TagTrie::newStateIs() { return TagState::newEntity(); }
Ptr<Mox::PrefixTrie> TagTrie::newChildIs(String const& key) { return newChildOf<TagTrie>(key); }

}  // namespace Tags

VEL_MODULE(TagTrie, 8435d2ee5a855f4a, Tags::TagState, Tags::TagTrie);
