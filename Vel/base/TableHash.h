#pragma once

#include "Vel/base/Types.h"

#include <concepts>
#include <cstddef>
#include <cstring>
#include <string_view>

// Hashes for tables in memory, whose keys may be chosen by somebody who wants them to collide. Each process has a
// secret that goes into the hashes, so nobody outside can know which keys collide. The hashes therefore differ from
// process to process: for hashes that are stored, sent or shown use Vel::Hash.
namespace Vel {

// The secret that goes into the hashes.
struct VEL_API TableSecret {
    alignas(32) U64 words[4];  // each is odd; together within one cache line

    static TableSecret drawn() noexcept;             // a new random one, from SystemCalls::random()
    static TableSecret fromSeed(U64 seed) noexcept;  // for tests: the same seed gives the same secret
    friend bool operator==(TableSecret const&, TableSecret const&) = default;
};

// The secret of this process.
class VEL_API ProcessSecret {
public:
    // Returns the secret; the first call draws it. May be called from any thread.
    static TableSecret const& value() noexcept {
        if (__atomic_load_n(&value_.words[0], __ATOMIC_ACQUIRE) == 0) [[unlikely]]
            draw();
        return value_;
    }
    // The same without the check whether it is drawn. REQUIRES: value() was called before.
    static TableSecret const& drawn() noexcept { return value_; }
    // Replaces the secret and returns the one before, so that a test, a simulation or a benchmark runs the same way
    // every time. REQUIRES: one thread; tables that have elements now are not used until the secret before is put back.
    static TableSecret valueIs(TableSecret const& secret) noexcept;

private:
    VEL_COLD static void draw() noexcept;

    static TableSecret value_;  // words[0] is 0 until it is drawn
};

template <class Word> Word wordAt(char const* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// The first and the last bytes of a text of up to 16 bytes; together they have all its bytes. They are read as words,
// which may overlap, instead of byte by byte. Nothing outside the text is read.
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

// Multiplies to 128 bits and folds them.
inline U64 foldedProduct(U64 a, U64 b) {
    __extension__ using U128 = unsigned __int128;
    auto const product = static_cast<U128>(a) * b;
    return static_cast<U64>(product) ^ static_cast<U64>(product >> 64);
}

// The hashes are built like Wang Yi's wyhash (public domain, github.com/wangyi-fudan/wyhash): words, each
// exclusive-or'd with a word of the secret, are multiplied in pairs, and the result passes one more such step with the
// length. The secret replaces the constants that wyhash publishes: with a known constant an adversary can make a factor
// 0, and then the other factor has no effect. All bits of the result are equally good. It depends on the byte order.
//
// With different seeds, tables of one process get different hashes for the same key.
inline U64 tableHash(std::string_view text, U32 seed, TableSecret const& secret) {
    U64 state = U64(seed) << 32;
    char const* at = text.data();
    std::size_t left = text.size();
    for (; left > 16; at += 16, left -= 16)
        [[unlikely]] state =
            foldedProduct(wordAt<U64>(at) ^ secret.words[0], wordAt<U64>(at + 8) ^ state ^ secret.words[1]);
    TextEnds const ends(at, left);
    state = foldedProduct(ends.first ^ secret.words[0], ends.last ^ state ^ secret.words[1]);
    return foldedProduct(state ^ secret.words[2], text.size() ^ secret.words[3]);
}

inline U64 tableHash(U64 number, U32 seed, TableSecret const& secret) {
    U64 const state = foldedProduct(number ^ secret.words[0], U64(seed) << 32 ^ secret.words[1]);
    return foldedProduct(state ^ secret.words[2], sizeof number ^ secret.words[3]);
}

// For the standard library's tables, whose own hashes of texts and numbers are public:
//
//     std::unordered_map<std::string, int, Vel::TableHasher> byName;
struct TableHasher {
    std::size_t operator()(std::string_view text) const noexcept { return tableHash(text, 0, ProcessSecret::value()); }
    std::size_t operator()(std::integral auto number) const noexcept {
        return tableHash(static_cast<U64>(number), 0, ProcessSecret::value());
    }
};

}  // namespace Vel
