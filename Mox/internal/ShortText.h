#pragma once

#include "Vel/Types.h"

#include <cstring>
#include <string_view>

// Comparing, hashing and searching texts of mostly up to 16 bytes, where a call of the C library costs more than the work.
// Texts are read in words that overlap rather than byte by byte; nothing outside a text is touched.
namespace Mox::Detail {

using Vel::U32;
using Vel::U64;

template <class Word> Word wordAt(char const* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// The first and the last bytes of a text of up to 16 bytes; together they have them all.
struct TextEnds {
    U64 first;
    U64 last;

    TextEnds(char const* text, std::size_t length) {
        if (length >= 8) {
            first = wordAt<U64>(text);
            last = wordAt<U64>(text + length - 8);
        } else if (length >= 4) {
            first = wordAt<U32>(text);
            last = wordAt<U32>(text + length - 4);
        } else if (length > 0) {
            auto const byte = [&](std::size_t i) { return U64(static_cast<unsigned char>(text[i])); };
            first = byte(0) | byte(length / 2) << 8;
            last = byte(length - 1);
        } else {
            first = last = 0;
        }
    }
    friend bool operator==(TextEnds const&, TextEnds const&) = default;
};

inline bool sameShortText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    if (a.size() > 16) [[unlikely]]
        return std::memcmp(a.data(), b.data(), a.size()) == 0;
    return TextEnds(a.data(), a.size()) == TextEnds(b.data(), b.size());
}

// Multiplies to 128 bits and folds them, the step of Wang Yi's wyhash (public domain, github.com/wangyi-fudan/wyhash).
inline U64 foldedProduct(U64 a, U64 b) {
    __extension__ using U128 = unsigned __int128;
    auto const product = static_cast<U128>(a) * b;
    return static_cast<U64>(product) ^ static_cast<U64>(product >> 64);
}

// Good in all its bits. For tables within a process only: it depends on the byte order, and collisions can be made.
inline U32 hashShortText(std::string_view text) {
    constexpr U64 k1 = 0xa0761d6478bd642ful;
    constexpr U64 k2 = 0xe7037ed1a0b428dbul;
    U64 state = text.size();
    char const* at = text.data();
    std::size_t left = text.size();
    for (; left > 16; at += 16, left -= 16)
        [[unlikely]] state = foldedProduct(wordAt<U64>(at) ^ k1, wordAt<U64>(at + 8) ^ state ^ k2);
    TextEnds const ends(at, left);
    state = foldedProduct(ends.first ^ k1, ends.last ^ state ^ k2);
    return static_cast<U32>(foldedProduct(state ^ k1, k2));
}

}  // namespace Mox::Detail
