#include "tools/Clean.h"

#include <algorithm>
#include <cstdint>

namespace Tool {

namespace {

unsigned byteAt(std::string_view text, std::size_t i) { return static_cast<unsigned char>(text[i]); }

// How many bytes the character takes that begins with this one; 0: none does.
std::size_t sizeFrom(unsigned first) {
    if (first < 0x80) return 1;
    if (first < 0xC2 || first > 0xF4) return 0;
    return first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
}

// The character that `text` begins with, whose bytes are `size`. Returns what no character is for what is no UTF-8.
std::uint32_t characterOf(std::string_view text, std::size_t size) {
    constexpr std::uint32_t none = 0xFFFFFFFFu, smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (text.size() < size) return none;
    if (size == 1) return byteAt(text, 0);
    std::uint32_t character = byteAt(text, 0) & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byteAt(text, i) & 0xC0) != 0x80) return none;
        character = character << 6 | (byteAt(text, i) & 0x3F);
    }
    bool const isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    return character < smallest[size] || character > 0x10FFFF || isSurrogate ? none : character;
}

bool isObeyed(std::uint32_t c) {
    return c < 0xA0 || c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

constexpr char digits[] = "0123456789abcdef";

void appendByte(std::string& out, unsigned byte) {
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 15];
}

void appendUnit(std::string& out, std::uint32_t unit) {
    out += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) out += digits[unit >> shift & 15];
}

// The byte from 0x80 up that "\\xNN" at `at` stands for; -1 when there is none such.
int highByteAt(std::string_view text, std::size_t at) {
    if (text[at] != '\\' || text.size() - at < 4 || text[at + 1] != 'x') return -1;
    auto const high = std::string_view(digits).find(text[at + 2]), low = std::string_view(digits).find(text[at + 3]);
    if (high < 8 || high > 15 || low > 15) return -1;
    return static_cast<int>(high << 4 | low);
}

}  // namespace

std::size_t cleanSize(std::string_view text) {
    unsigned const first = byteAt(text, 0);
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    std::size_t const size = sizeFrom(first);
    if (size == 0) return 0;
    std::uint32_t const character = characterOf(text, size);
    return character > 0x10FFFF || isObeyed(character) ? 0 : size;
}

std::size_t uncleanAt(std::string_view text, std::size_t from) {
    for (std::size_t i = from; i < text.size();) {
        std::size_t const size = cleanSize(text.substr(i));
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

std::string uncleaned(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        int const high = highByteAt(text, i);
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
        std::size_t const size = isWhite(text[at]) ? 0 : std::max(sizeFrom(byteAt(text, at)), std::size_t(1));
        if (size == 0) {
            ++at;
            continue;
        }
        out.append(text, begin, at - begin);
        appendUnit(out, characterOf(std::string_view(text).substr(at), size));
        begin = at += size;
    }
    if (begin == 0) return text;
    return out.append(text, begin);
}

}  // namespace Tool
