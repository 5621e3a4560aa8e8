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

// A key that is a text is looked up by std::string_view, so that a look-up need not make a key. Other keys are looked
// up by a reference to a key.
template <class Key> inline constexpr bool isText = std::same_as<Key, String> || std::same_as<Key, std::string>;
template <class Key> using KeyView = std::conditional_t<isText<Key>, std::string_view, Key>;
template <class Key> using KeyArgument = std::conditional_t<isText<Key>, std::string_view, Key const&>;

// What an iterator points to, for `for (auto [key, value] : map)`.
template <class Key, class Value> struct MapEntry {
    Key const& key;
    Value& value;
};

// The only word of a collection. It is the address of the collection's Block. While there is no block, it is the change
// counter, shifted left, with the lowest bit set; in a collection that was never used it is 0. So an empty collection
// owns no memory, and its counter still never decreases. A Block has changes() and changesIs(U64). The anchor does not
// own the block.
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

    // Returns the block, and makes the anchor empty. If there was a block, the change counter is one higher.
    Block* release() noexcept {
        Block* const b = block();
        if (b) emptyIs(b->changes() + 1);
        return b;
    }

    // Swaps the contents, and sets both counters above either one, so that an iterator notices the change.
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
