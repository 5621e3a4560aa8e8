#pragma once

#include "tools/lib/TagTrie.h"

#include "tools/lib/Input.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Files of path prefixes: one on each line, perhaps with tags behind it: "a*/b.c {lab,north}". In them \xNN stands for
// a byte from 0x80 up, as the tool writes those that are not for a terminal.
namespace Tool {

// Appending and pushing states down recurse once for each component.
inline constexpr std::size_t mostComponents = 4096;

struct PathMistake {
    std::string text;
    std::size_t offset = 0;  // of the byte that is wrong
};
// Why a trie of this tool does not take the path, or nothing.
std::optional<PathMistake> mistakeInPath(std::string_view path);

// What is left without the blanks and tabs at both ends.
std::string_view withoutMargins(std::string_view text);

// A trie, and how many lines went into it.
struct TrieFile {
    Vel::Ptr<Tags::TagTrie> trie = Tags::TagTrie::newEntity("");
    std::uint64_t taken = 0, rejected = 0;  // lines
};

// Bad lines are shown on standard error and left out. Throws Failure when the input cannot be read. `name`: the trie's.
TrieFile readTrie(Input& input, std::string const& name = {});

}  // namespace Tool
