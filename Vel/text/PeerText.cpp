#include "Vel/text/PeerText.h"

#include "Vel/base/Types.h"

#include <string>

namespace Vel {

namespace {

bool shows(U32 character) {
    if (character < 0x20 || (character >= 0x7F && character < 0xA0)) return false;
    bool const isMark = character == 0x061C || character == 0x200E || character == 0x200F;
    bool const isLineOrDirection = character >= 0x2028 && character <= 0x202E;
    bool const isIsolate = character >= 0x2066 && character <= 0x2069;
    return !isMark && !isLineOrDirection && !isIsolate;
}

}  // namespace

std::size_t shownSize(std::string_view text) {
    auto const byte = [&](std::size_t i) { return static_cast<U32>(static_cast<U8>(text[i])); };
    U32 const first = byte(0);
    if (first < 0x80) return shows(first) ? 1 : 0;
    std::size_t const size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size) return 0;
    U32 character = first & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        character = character << 6 | (byte(i) & 0x3F);
    }
    bool const isShortest = character >= (size == 4 ? 0x10000u : size == 3 ? 0x800u : 0x80u);
    bool const isCharacter = character < 0xD800 || (character > 0xDFFF && character <= 0x10FFFF);
    return isShortest && isCharacter && shows(character) ? size : 0;
}

String peerText(std::string_view text, std::size_t most) {
    static constexpr std::string_view mark = "...";
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string shown;
    std::size_t cut = 0;  // end of the longest part that leaves room for the mark
    while (!text.empty()) {
        std::size_t const size = shownSize(text);
        if (size != 0) {
            shown += text.substr(0, size);
        } else {
            auto const byte = static_cast<U8>(text[0]);
            shown += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        }
        if (shown.size() > most) return String(shown.substr(0, cut).append(mark));
        if (shown.size() + mark.size() <= most) cut = shown.size();
        text.remove_prefix(size != 0 ? size : 1);
    }
    return String(shown);
}

}  // namespace Vel
