#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Makes texts safe to print. A text from a peer, a file or a library may have bytes that control a terminal; none of
// them is printed unchanged.
namespace Tool {

// Returns the offset of the first byte that is not safe to print (see Vel::shownSize), or npos if there is none.
// Newlines and tabs are not safe.
std::size_t uncleanAt(std::string_view text, std::size_t from = 0);

// Returns the text with \xNN for each byte that is not safe to print, newlines and tabs included. So the result has
// only one line.
std::string cleaned(std::string_view text);

// Returns the byte of a \xNN, from 0x80 up, at the beginning of the text, or -1 if there is none.
int highByteOf(std::string_view text);

// Turns each \xNN from 0x80 up back into its byte, as the inverse of cleaned(). For files that the tool writes and
// reads again.
std::string uncleaned(std::string_view text);

// Does the same as cleaned() for a whole answer, but keeps bytes that the tool itself has put there, such as newlines.
// allowed(rest) is called where cleaned() would replace a byte. It returns how many bytes of `rest` to keep.
std::string cleanedBut(std::string_view text, std::size_t (*allowed)(std::string_view rest));

// Returns the same JSON with \uXXXX for each character that is not safe to print. REQUIRES: JSON in UTF-8.
std::string cleanedJson(std::string text);

}  // namespace Tool
