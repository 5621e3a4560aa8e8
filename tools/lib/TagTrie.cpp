#include "tools/lib/TagTrie.h"

#include "Vel/describe/Module.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Tags {

using Vel::Ptr;
using Vel::String;

namespace {

std::string_view firstTag(std::string_view tags) { return tags.substr(0, tags.find(',')); }
std::string_view withoutFirstTag(std::string_view tags) {
    return tags.substr(std::min(tags.size(), firstTag(tags).size() + 1));
}

bool mayBeInTag(char c) { return static_cast<unsigned char>(c) > ' ' && c != 0x7F && c != '{' && c != '}'; }

}  // namespace

Vel::Checked<String> checkedTags(std::string_view text) {
    std::size_t offset = 0;  // offset of `text` in the original text
    if (text.starts_with('{')) {
        if (!text.ends_with('}')) return Vel::CheckedError{"a closing brace expected", text.size()};
        text = text.substr(1, text.size() - 2);
        offset = 1;
    }
    std::vector<std::string_view> tags;
    for (std::string_view rest = text; !text.empty();) {
        std::string_view const tag = firstTag(rest);
        std::size_t const good =
            static_cast<std::size_t>(std::find_if_not(tag.begin(), tag.end(), mayBeInTag) - tag.begin());
        if (good < tag.size()) return Vel::CheckedError{"a tag has no blanks, control bytes and braces", offset + good};
        if (tag.empty()) return Vel::CheckedError{"a tag expected", offset};
        tags.push_back(tag);
        if (tag.size() == rest.size()) break;
        rest = rest.substr(tag.size() + 1);
        offset += tag.size() + 1;
    }
    std::sort(tags.begin(), tags.end());
    tags.erase(std::unique(tags.begin(), tags.end()), tags.end());
    std::string set;
    for (std::string_view const tag : tags) set.append(set.empty() ? "" : ",").append(tag);
    return String(set).dedup();
}

String unitedTags(String const& a, String const& b) {
    if (b.empty() || a.sharesStorageWith(b)) return a;
    if (a.empty()) return b;
    std::string set;
    for (std::string_view left = a, right = b; !left.empty() || !right.empty();) {
        std::string_view const l = firstTag(left), r = firstTag(right);
        bool const takeLeft = right.empty() || (!left.empty() && l <= r);
        bool const takeRight = left.empty() || (!right.empty() && r <= l);
        set.append(set.empty() ? "" : ",").append(takeLeft ? l : r);
        if (takeLeft) left = withoutFirstTag(left);
        if (takeRight) right = withoutFirstTag(right);
    }
    if (a == set) return a;
    if (b == set) return b;
    return String(set).dedup();
}

static_assert(sizeof(TagState) == 48);  // the size that the header's comment gives

TagState::TagState() = default;
TagState::~TagState() = default;

bool TagState::upgradeState(Ptr<Mox::PrefixTrieState> const& inheritedState, bool) {
    String const all = unitedTags(tags_, static_cast<TagState const&>(*inheritedState).tags_);
    if (all.sharesStorageWith(tags_)) return false;
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
