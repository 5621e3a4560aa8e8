#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Texts that come from a peer, a file or a library may hold what a terminal obeys instead of showing it. None of it is
// printed as it stands.
namespace Tool {

// The offset of the first byte that is not shown as it stands (see Vel::shownSize), newlines and tabs included; npos:
// none.
std::size_t uncleanAt(std::string_view text, std::size_t from = 0);

// The text with \xNN for each of these bytes, newlines and tabs included: what it makes stays on its line.
std::string cleaned(std::string_view text);

// The byte from 0x80 up of which cleaned() makes the \xNN that the text begins with; -1: it begins with none.
int highByteOf(std::string_view text);

// What cleaned() has made of bytes from 0x80 up, undone: for files that the tool writes and reads again.
std::string uncleaned(std::string_view text);

// As cleaned(), for a whole answer: what `allowed` says to be the tool's own stays. allowed(rest): how many bytes of
// `rest` are, which begins with such a byte.
std::string cleanedBut(std::string_view text, std::size_t (*allowed)(std::string_view rest));

// JSON that says the same, with \uXXXX for each such character. REQUIRES: JSON in UTF-8.
std::string cleanedJson(std::string text);

}  // namespace Tool
