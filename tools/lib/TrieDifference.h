#pragma once

#include "tools/lib/TrieNodes.h"

namespace Tool {

// Writes the prefixes that only one of the tries has, and those whose states differ. Returns whether there were any.
bool writeDifference(Answers& answers, TagTrie const& here, TagTrie const& there, std::string const& hereName,
    std::string const& thereName, std::uint64_t bad, bool json);

}  // namespace Tool
