#pragma once

#include "tools/lib/TrieNodes.h"

namespace Tool {

// Writes what one trie has and the other has not, and the prefixes whose states differ. Whether there was anything.
bool writeDifference(Answers& answers, TagTrie const& here, TagTrie const& there, std::string const& hereName,
    std::string const& thereName, std::uint64_t bad, bool json);

}  // namespace Tool
