// A set of path prefixes with tags that everything below inherits. TagTrie.h is the trie; docs/trie.md derives one.
#include "examples/TagTrie.h"

#include <iostream>

namespace {

void add(Tags::TagTrie& trie, Vel::String const& path, Vel::String const& tags) {
    // A state for each prefix: on its way down it takes on the tags that it meets.
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
    add(*paths, "site*/rack1.port7", "10g");  // "site" becomes a mount point, too
    add(*paths, "site/rack1", "indoors");     // reaches what is already below it
    show(*paths, "site/rack1.port7");
    show(*paths, "site/rack1.port8.lane2");
    show(*paths, "site/rack2");

    auto const more = Tags::TagTrie::newEntity("more");
    add(*more, "site", "north");
    paths->append(more);
    show(*paths, "site/rack1.port7");

    paths->prefixDel("site");  // what is below keeps its tags
    show(*paths, "site/rack1.port7");
    show(*paths, "site/rack2");

    bool const kept = paths->tagsOf("site/rack1.port7") == "10g,indoors,north";
    return kept && !paths->isPrefix("site") && paths->child("site")->mountPoint() ? 0 : 1;
}
