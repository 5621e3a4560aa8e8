#include "tools/lib/Clean.h"

#include "tools/lib/HexText.h"

#include "Vel/text/PeerText.h"

#include <algorithm>
#include <cstdint>

namespace Tool {

namespace {

unsigned byteAt(std::string_view text, std::size_t i) { return static_cast<unsigned char>(text[i]); }

void appendByte(std::string& out, unsigned byte) {
    out += "\\x";
    appendHex(out, static_cast<unsigned char>(byte));
}

// Returns the first character of the text. REQUIRES: UTF-8, and the character has at most three bytes.
struct Character {
    std::uint32_t number;
    std::size_t size;  // bytes
};
Character characterOf(std::string_view text) {
    unsigned const first = byteAt(text, 0);
    if (first < 0x80) return {first, 1};
    if (first < 0xE0) return {(first & 0x1F) << 6 | (byteAt(text, 1) & 0x3F), 2};
    return {(first & 0x0F) << 12 | (byteAt(text, 1) & 0x3F) << 6 | (byteAt(text, 2) & 0x3F), 3};
}

void appendUnit(std::string& out, std::uint32_t unit) {
    out += "\\u";
    appendHex(out, static_cast<unsigned char>(unit >> 8));
    appendHex(out, static_cast<unsigned char>(unit));
}

int lowerHexDigitValue(char c) { return c >= 'A' && c <= 'F' ? -1 : hexDigitValue(c); }

}  // namespace

std::size_t uncleanAt(std::string_view text, std::size_t from) {
    for (std::size_t i = from; i < text.size();) {
        std::size_t const size = Vel::shownSize(text.substr(i));
        if (size == 0) return i;
        i += size;
    }
    return std::string_view::npos;
}

std::string cleanedBut(std::string_view text, std::size_t (*allowed)(std::string_view rest)) {
    std::string out;
    for (std::size_t begin = 0;;) {
        std::size_t const at = std::min(uncleanAt(text, begin), text.size());
        out += text.substr(begin, at - begin);
        if (at == text.size()) return out;
        std::size_t const own = allowed(text.substr(at));
        if (own == 0) appendByte(out, byteAt(text, at));
        out += text.substr(at, own);
        begin = at + (own == 0 ? 1 : own);
    }
}

std::string cleaned(std::string_view text) {
    return cleanedBut(text, [](std::string_view) { return std::size_t(0); });
}

int highByteOf(std::string_view text) {
    if (text.size() < 4 || !text.starts_with("\\x")) return -1;
    int const high = lowerHexDigitValue(text[2]), low = lowerHexDigitValue(text[3]);
    return high < 8 || low < 0 ? -1 : high << 4 | low;
}

std::string uncleaned(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        int const high = highByteOf(text.substr(i));
        out += high >= 0 ? static_cast<char>(high) : text[i];
        i += high >= 0 ? 4 : 1;
    }
    return out;
}

std::string cleanedJson(std::string text) {
    auto const isWhite = [](char c) { return c == '\n' || c == ' '; };
    std::string out;
    std::size_t begin = 0;
    for (std::size_t at = 0; (at = uncleanAt(text, at)) != std::string::npos;) {
        if (isWhite(text[at])) {
            ++at;
            continue;
        }
        Character const character = characterOf(std::string_view(text).substr(at));
        out.append(text, begin, at - begin);
        appendUnit(out, character.number);
        begin = at += character.size;
    }
    if (begin == 0) return text;
    return out.append(text, begin);
}

}  // namespace Tool
