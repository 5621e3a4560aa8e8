#pragma once

#include "tools/lib/TrieNodes.h"

// A whole trie, as the command "tree" shows it.
namespace Tool {

void drawTree(Answers& answers, TagTrie const& trie, std::string const& name, bool asciiOnly);  // with box characters
void writeDot(Answers& answers, TagTrie const& trie, std::string const& name);                  // for Graphviz
void writeTreeJson(Answers& answers, TagTrie const& trie, std::uint64_t bad);  // `bad` lines were left out

}  // namespace Tool
