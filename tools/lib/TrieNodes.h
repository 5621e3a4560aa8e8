#pragma once

#include "tools/lib/Answers.h"
#include "tools/lib/Clean.h"

#include "tools/lib/TagTrie.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

// Functions that the parts of the command "trie" share: a walk through a trie, and texts of its nodes.
namespace Tool {

using Mox::PrefixTrie;
using Tags::TagTrie;
using Vel::Ptr;

// --- nodes ---

inline Vel::String tagsOf(PrefixTrie const& node) {
    return node.state() ? Vel::ptr_cast<Tags::TagState>(node.state())->tags() : Vel::String();
}
inline std::string tagText(PrefixTrie const& node) { return "{" + cleaned(tagsOf(node).view()) + "}"; }
inline std::string tagsBehind(PrefixTrie const& node) { return tagsOf(node).empty() ? "" : " " + tagText(node); }

inline Json tagList(std::string_view tags) {
    Json list = Json::array();
    while (!tags.empty()) {
        auto const comma = std::min(tags.find(','), tags.size());
        list.push_back(tags.substr(0, comma));
        tags.remove_prefix(std::min(comma + 1, tags.size()));
    }
    return list;
}

inline bool isMountPointOnly(PrefixTrie const& node) { return node.mountPoint() && !node.present(); }
inline bool isListed(PrefixTrie const& node) { return node.present() || node.mountPoint(); }

inline std::vector<Ptr<PrefixTrie>> childrenInOrder(PrefixTrie const& node) {
    std::vector<Ptr<PrefixTrie>> children;
    children.reserve(node.children());
    for (auto const& child : node.childMembers()) children.push_back(child);
    std::sort(children.begin(), children.end(), [](auto const& a, auto const& b) { return a->name() < b->name(); });
    return children;
}

// Calls visit(node, path, level) for all nodes below `trie`, in the order of their keys, each before the nodes below
// it. In a path, spell(node) follows the key of each node. It does not recurse, so that deep tries need no stack.
template <class Spell, class Visit> void walk(PrefixTrie const& trie, Spell spell, Visit const& visit) {
    struct Level {
        std::vector<Ptr<PrefixTrie>> children;
        std::size_t pathSize;  // bytes of the parent's path
        std::size_t next = 0;
    };
    std::vector<Level> way;
    way.push_back({childrenInOrder(trie), 0});
    for (std::string path; !way.empty();) {
        Level& level = way.back();
        path.resize(level.pathSize);
        if (level.next == level.children.size()) {
            way.pop_back();
            continue;
        }
        PrefixTrie const& child = *level.children[level.next++];
        path += child.name().view();
        path += spell(child);
        visit(child, path, way.size());
        way.push_back({childrenInOrder(child), path.size()});
    }
}
template <class Visit> void walk(PrefixTrie const& trie, Visit const& visit) {
    walk(
        trie, [](PrefixTrie const&) { return ""; }, visit);
}

inline Json jsonOf(PrefixTrie const& node, std::string const& path) {
    return {{"path", path}, {"present", node.present()}, {"mountPoint", node.mountPoint()},
        {"tags", tagList(tagsOf(node))}};
}

}  // namespace Tool
