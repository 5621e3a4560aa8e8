#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

void appendHex(std::string& out, unsigned char byte);             // two digits
int hexDigitValue(char c);                                        // of either case; -1 if it is no digit
std::string inHex(unsigned char const* bytes, std::size_t size);  // "00 2a"

// Parses bytes from hexadecimal digits. Blanks, newlines and colons may be between digits. Throws Failure (something
// wrong) for any other character, and for an odd number of digits.
std::vector<unsigned char> bytesFromHex(std::string_view text);

}  // namespace Tool
