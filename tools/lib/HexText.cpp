#include "tools/lib/HexText.h"

#include "tools/lib/Output.h"

namespace Tool {

namespace {

bool separates(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ':'; }

}  // namespace

void appendHex(std::string& out, unsigned char byte) {
    static constexpr char digits[] = "0123456789abcdef";
    out += digits[byte >> 4];
    out += digits[byte & 15];
}

int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string inHex(unsigned char const* bytes, std::size_t size) {
    std::string out;
    out.reserve(3 * size);
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0) out += ' ';
        appendHex(out, bytes[i]);
    }
    return out;
}

std::vector<unsigned char> bytesFromHex(std::string_view text) {
    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() / 2);
    int high = -1;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (separates(text[i])) continue;
        int const digit = hexDigitValue(text[i]);
        if (digit < 0)
            throw Failure(somethingWrong, "no hexadecimal digit at offset " + std::to_string(i) +
                                              " (blanks and colons may stand between digits)\n" + caretBelow(text, i));
        if (high >= 0) bytes.push_back(static_cast<unsigned char>(high << 4 | digit));
        high = high >= 0 ? -1 : digit;
    }
    if (high >= 0)
        throw Failure(somethingWrong,
            "the last byte is half: there is an odd number of hexadecimal digits\n" + caretBelow(text, text.size()));
    return bytes;
}

}  // namespace Tool
