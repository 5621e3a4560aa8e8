#pragma once

#include "tools/lib/TagTrie.h"

#include "tools/lib/Input.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Files of path prefixes. Each line has a prefix, which tags may follow: "a*/b.c {lab,north}". A \xNN means a byte from
// 0x80 up; the tool writes bytes like this if they are not safe to print.
namespace Tool {

// Most components of a path. There is a limit since appending a prefix, and pushing states down, recurses once for
// each.
inline constexpr std::size_t mostComponents = 4096;

struct PathMistake {
    std::string text;
    std::size_t offset = 0;  // offset of the wrong byte
};
// Says why a trie of this tool does not accept the path. Returns nothing if it does.
std::optional<PathMistake> mistakeInPath(std::string_view path);

// Returns the text without the blanks and tabs at both ends.
std::string_view withoutMargins(std::string_view text);

// A trie, and the numbers of lines that went into it and that did not.
struct TrieFile {
    Vel::Ptr<Tags::TagTrie> trie = Tags::TagTrie::newEntity("");
    std::uint64_t taken = 0, rejected = 0;  // lines
};

// Reads a trie. Shows bad lines on standard error and skips them. Throws Failure if the input cannot be read. `name` is
// the trie's name.
TrieFile readTrie(Input& input, std::string const& name = {});

}  // namespace Tool
