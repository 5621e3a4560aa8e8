#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Texts that come from a peer, a file or a library may hold what a terminal obeys instead of showing it. None of it is
// printed as it stands.
namespace Tool {

// How many bytes the character takes that `text` begins with. 0: it is not for terminals, which are control bytes, DEL,
// the control characters of U+0080 to U+009F, what is no UTF-8, line separators beside the newline, and characters that
// change the direction of a text. REQUIRES: text is not empty.
std::size_t cleanSize(std::string_view text);

std::size_t uncleanAt(std::string_view text, std::size_t from = 0);  // the offset of the first such byte; npos: none

// The text with \xNN for each of these bytes, newlines and tabs included: what it makes stays on its line.
std::string cleaned(std::string_view text);

// What cleaned() has made of bytes from 0x80 up, undone: for files that the tool writes and reads again.
std::string uncleaned(std::string_view text);

// As cleaned(), for a whole answer: what `allowed` says to be the tool's own stays. allowed(rest): how many bytes of `rest`
// are, which begins with such a byte.
std::string cleanedBut(std::string_view text, std::size_t (*allowed)(std::string_view rest));

// JSON that says the same, with \uXXXX for each such character. REQUIRES: JSON in UTF-8.
std::string cleanedJson(std::string text);

}  // namespace Tool
