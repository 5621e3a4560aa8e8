#pragma once

#include "Vel/base/String.h"
#include "Vel/base/Types.h"

#include <algorithm>
#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Vel::Detail {

// Texts are looked up by std::string_view, so that a look-up need not make a key; every other key by itself.
template <class Key> inline constexpr bool isText = std::same_as<Key, String> || std::same_as<Key, std::string>;
template <class Key> using KeyView = std::conditional_t<isText<Key>, std::string_view, Key>;
template <class Key> using KeyArgument = std::conditional_t<isText<Key>, std::string_view, Key const&>;

// What an iterator stands on, for `for (auto [key, value] : map)`.
template <class Key, class Value> struct MapEntry {
    Key const& key;
    Value& value;
};

// The only word of a collection. It holds the address of the collection's Block, or, while there is none, the change
// counter with the lowest bit set (the word of a collection never used is 0): what is empty owns no memory, and yet its
// counter never steps back. Block has changes() and changesIs(U64). The anchor does not own the block.
template <class Block> class Anchor {
public:
    constexpr Anchor() noexcept = default;
    Anchor(Anchor const&) = delete;
    Anchor& operator=(Anchor const&) = delete;

    Block* block() const noexcept { return word_ & 1 ? nullptr : reinterpret_cast<Block*>(word_); }
    U64 changes() const noexcept {
        Block const* const b = block();
        return b ? b->changes() : word_ >> 1;
    }
    void blockIs(Block* block) noexcept { word_ = reinterpret_cast<U64>(block); }
    void emptyIs(U64 changes) noexcept { word_ = changes << 1 | 1; }

    // Takes the block out; what stays is empty, and has changed if there was one.
    Block* release() noexcept {
        Block* const b = block();
        if (b) emptyIs(b->changes() + 1);
        return b;
    }

    // Both counters move past either one: no iterator of one collection takes the other's contents for unchanged.
    void swap(Anchor& other) noexcept {
        U64 const next = std::max(changes(), other.changes()) + 1;
        std::swap(word_, other.word_);
        changesIs(next);
        other.changesIs(next);
    }

private:
    void changesIs(U64 changes) noexcept {
        if (Block* const b = block())
            b->changesIs(changes);
        else
            emptyIs(changes);
    }

    U64 word_ = 0;
};

}  // namespace Vel::Detail
