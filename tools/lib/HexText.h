#pragma once

#include <string_view>
#include <vector>

namespace Tool {

// The bytes that hexadecimal digits say. Blanks, newlines and colons may stand between digits.
// Throws Failure (something wrong) at anything else, and for half a byte.
std::vector<unsigned char> bytesFromHex(std::string_view text);

}  // namespace Tool
