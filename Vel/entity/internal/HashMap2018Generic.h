#pragma once

#include "Vel/base/Types.h"
#include "Vel/entity/internal/Collection.h"

#include <cstddef>
#include <string_view>

namespace Vel {

// The engine of all hash maps, compiled once: what it must know of an element comes in a table. One pointer wide.
//
// Invariants:
// 1. There is a block if and only if there is an element.
// 2. A block holds buckets (a header and an element each) densely, in order of insertion; of more than 8 buckets it
//    also holds hash slots, each naming a bucket, probed linearly, at most three quarters of them used.
// 3. Headers carry the value that the change counter had after the bucket's insertion: they ascend strictly.
// 4. Up to 8 buckets have no gaps. More may have gaps (erased buckets), which the next rebuild drops.
//
// Keys whose hashes are equal take linear time to look up. Who chooses them cannot foretell which are if hash() is
// keyed with the process's secret, as KeyHash does.
// Threads: none; as with the standard containers, changes must be alone.
class VEL_API HashMap2018Generic {
public:
    // What sets one collection's elements apart. A view is what keys are looked up by.
    struct Type {
        U32 elementSize;       // bytes; a multiple of the alignment
        U32 elementAlignment;  // bytes; at most that of operator new
        U32 seed;
        U32 (*hash)(void const* view, U32 seed);
        U32 (*hashOfElement)(void const* element, U32 seed);  // equal keys: as hash() of their view
        bool (*equal)(void const* element, void const* view);
        void (*relocate)(void* to, void* from, std::size_t count) noexcept;  // ascending; to < from may overlap
        void (*destroy)(void* element) noexcept;
    };

    // 16 bits of the hash, to pass over most strangers without touching them; the order; whether this is a gap.
    class BucketHeader {
    public:
        constexpr BucketHeader(U64 order, U32 hash) : word_(order << 17 | (hash & 0xFFFF)) {}
        constexpr U64 order() const { return word_ >> 17; }
        constexpr bool erased() const { return word_ & 0x10000; }
        constexpr bool matches(U32 hash) const { return (word_ & 0x1FFFF) == (hash & 0xFFFF); }
        constexpr void erasedIs() { word_ |= 0x10000; }

    private:
        U64 word_;
    };

    class Iterator;

    static constexpr std::size_t maxSize = std::size_t(3) << 29;
    static constexpr U64 maxChanges = U64(1) << 47;  // 4 years of a million a second

    constexpr HashMap2018Generic() noexcept = default;
    HashMap2018Generic(HashMap2018Generic&& other) noexcept;
    HashMap2018Generic& operator=(HashMap2018Generic&&) = delete;
    // The owner calls clear() first: only it knows the type.
    ~HashMap2018Generic() = default;

    std::size_t size() const noexcept;
    bool empty() const noexcept { return anchor_.block() == nullptr; }
    U64 changes() const noexcept;
    std::size_t memory(Type const& type) const noexcept;  // bytes allocated

    void* find(Type const& type, void const* view) const {
        return empty() ? nullptr : find(type, view, type.hash(view, type.seed));
    }
    void* find(Type const& type, void const* view, U32 hash) const;  // an element, or null

    // Moves *element in, and returns where it is. Throws std::bad_alloc, or RangeException beyond maxSize; then nothing
    // has changed. REQUIRES: its hash is `hash`; no element has this key; changes() + 1 < maxChanges.
    void* insert(Type const& type, void* element, U32 hash);

    // Moves the element out into the raw storage at `out`: whatever its destruction does, it meets a map without it.
    void erase(Type const& type, void* element, void* out) noexcept;  // REQUIRES: `element` is in this map
    void clear(Type const& type) noexcept;
    void swap(HashMap2018Generic& other) noexcept;

    // Empty when all invariants hold, else what is broken. For tests.
    std::string_view brokenInvariant(Type const& type) const;

private:
    struct Block;
    static Block* newBlock(Type const& type, unsigned sizeClass, bool mayThrow);
    Block* rebuild(Type const& type, unsigned sizeClass, bool mayThrow);
    static void removeFromSlots(Type const& type, Block& block, std::size_t index, U32 hash) noexcept;

    Detail::Anchor<Block> anchor_;
};

// Walks a map that may change meanwhile. It remembers the order of the bucket that it stands on and looks it up again
// (a binary search) when the map's change counter has moved.
class VEL_API HashMap2018Generic::Iterator {
public:
    constexpr Iterator() noexcept = default;                             // at the end
    Iterator(HashMap2018Generic const& map, Type const& type) noexcept;  // on the first element
    Iterator(
        HashMap2018Generic const& map, Type const& type, void* element) noexcept;  // on this one; at the end if null

    bool atEnd() const noexcept { return order_ == endOrder; }
    void* element() const noexcept;  // null at the end and when the element was erased
    void next() noexcept;            // does nothing at the end

private:
    static constexpr U64 endOrder = ~U64(0);
    void moveTo(std::size_t index) noexcept;  // the first bucket from there on that is no gap

    HashMap2018Generic const* map_ = nullptr;
    Type const* type_ = nullptr;
    U64 changes_ = 0;  // of the map when index_ and element_ were right
    U64 order_ = endOrder;
    U64 newest_ = 0;  // of the map when the iteration began
    std::size_t index_ = 0;
    void* element_ = nullptr;
};

}  // namespace Vel
