#pragma once

#include "tools/lib/TrieNodes.h"

// Writes a whole trie, for the command "trie tree".
namespace Tool {

// Draws with box characters, or with ASCII characters.
void drawTree(Answers& answers, TagTrie const& trie, std::string const& name, bool asciiOnly);
void writeDot(Answers& answers, TagTrie const& trie, std::string const& name);  // for Graphviz
void writeTreeJson(Answers& answers, TagTrie const& trie, std::uint64_t bad);   // `bad`: number of lines left out

}  // namespace Tool
