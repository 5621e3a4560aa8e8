// A set of path prefixes with tags, which all paths below inherit. The trie is in TagTrie.h; docs/trie.md explains it.
#include "examples/TagTrie.h"

#include <iostream>

namespace {

void add(Tags::TagTrie& trie, Vel::String const& path, Vel::String const& tags) {
    // Each prefix needs a state of its own, since prefixIs() adds the tags of the prefixes above to it.
    auto const state = Tags::TagState::newEntity();
    state->tagsIs(tags);
    trie.prefixIs(path, state);
}

void show(Tags::TagTrie const& trie, char const* path) {
    std::cout << path << ": prefix '" << trie.enclosingPrefix(path) << "', tags {" << trie.tagsOf(path) << "}\n";
}

}  // namespace

int main() {
    auto const paths = Tags::TagTrie::newEntity("paths");
    add(*paths, "site*/rack1.port7", "10g");  // also makes "site" a mount point
    add(*paths, "site/rack1", "indoors");     // also adds the tag to the prefix that is already below it
    show(*paths, "site/rack1.port7");
    show(*paths, "site/rack1.port8.lane2");
    show(*paths, "site/rack2");

    auto const more = Tags::TagTrie::newEntity("more");
    add(*more, "site", "north");
    paths->append(more);
    show(*paths, "site/rack1.port7");

    paths->prefixDel("site");  // the prefixes below keep the tags that they inherited
    show(*paths, "site/rack1.port7");
    show(*paths, "site/rack2");

    bool const kept = paths->tagsOf("site/rack1.port7") == "10g,indoors,north";
    return kept && !paths->isPrefix("site") && paths->child("site")->mountPoint() ? 0 : 1;
}
