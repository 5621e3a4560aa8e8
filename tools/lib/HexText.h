#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

void appendHex(std::string& out, unsigned char byte);             // two digits
int hexDigitValue(char c);                                        // of either case; -1: it is no digit
std::string inHex(unsigned char const* bytes, std::size_t size);  // "00 2a"

// The bytes that hexadecimal digits say. Blanks, newlines and colons may stand between digits.
// Throws Failure (something wrong) at anything else, and for half a byte.
std::vector<unsigned char> bytesFromHex(std::string_view text);

}  // namespace Tool
