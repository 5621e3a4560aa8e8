#pragma once

#include "Vel/base/Types.h"
#include "Vel/entity/internal/Collection.h"

#include <cstddef>
#include <string_view>

namespace Vel {

// The implementation of all hash maps, which is compiled once. It takes what it must know about elements from a table
// of functions. It is one pointer wide.
//
// Invariants:
// 1. There is a block if and only if there is an element.
// 2. A block has buckets, each a header and an element, densely in the order of insertion. A block for more than 8
//    buckets also has hash slots, each of which refers to a bucket. Slots are probed linearly, and at most three
//    quarters of them are used.
// 3. A header has the value that the change counter had after the bucket's insertion, so headers ascend strictly.
// 4. A block for up to 8 buckets has no gaps. A larger one may have gaps (erased buckets), which the next rebuild
// drops.
//
// If many keys have equal hashes, a look-up takes linear time. An adversary cannot choose such keys if hash() mixes in
// the process's secret, as KeyHash does.
// Threads: nothing is locked. As with the standard containers, no other thread may use the map during a change.
class VEL_API HashMap2018Generic {
public:
    // What the map must know about its elements. A view is the form in which a key is looked up.
    struct Type {
        U32 elementSize;       // bytes; a multiple of the alignment
        U32 elementAlignment;  // bytes; at most that of operator new
        U32 seed;
        U32 (*hash)(void const* view, U32 seed);
        U32 (*hashOfElement)(void const* element, U32 seed);  // must equal hash() of the key's view
        bool (*equal)(void const* element, void const* view);
        void (*relocate)(
            void* to, void* from, std::size_t count) noexcept;  // in ascending order; may overlap, to < from
        void (*destroy)(void* element) noexcept;
    };

    // The header of a bucket: 16 bits of the hash, so that most other elements are skipped without a look at them; the
    // order; and whether the bucket is a gap.
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
    static constexpr U64 maxChanges = U64(1) << 47;  // reached after 4 years with a million changes a second

    constexpr HashMap2018Generic() noexcept = default;
    HashMap2018Generic(HashMap2018Generic&& other) noexcept;
    HashMap2018Generic& operator=(HashMap2018Generic&&) = delete;
    // REQUIRES: the map is empty. The owner calls clear() before, since only it knows the type.
    ~HashMap2018Generic() = default;

    std::size_t size() const noexcept;
    bool empty() const noexcept { return anchor_.block() == nullptr; }
    U64 changes() const noexcept;
    std::size_t memory(Type const& type) const noexcept;  // bytes allocated

    void* find(Type const& type, void const* view) const {
        return empty() ? nullptr : find(type, view, type.hash(view, type.seed));
    }
    void* find(Type const& type, void const* view, U32 hash) const;  // returns an element, or null

    // Moves *element into the map, and returns its place. Throws std::bad_alloc, or RangeException if there would be
    // more than maxSize; then nothing has changed. REQUIRES: its hash is `hash`; no element in the map has its key;
    // changes() + 1 < maxChanges.
    void* insert(Type const& type, void* element, U32 hash);

    // Moves the element into the raw storage at `out`, where the caller destroys it after the map has changed.
    void erase(Type const& type, void* element, void* out) noexcept;  // REQUIRES: `element` is in this map
    void clear(Type const& type) noexcept;
    void swap(HashMap2018Generic& other) noexcept;

    // For tests: returns which invariant is broken, or an empty text.
    std::string_view brokenInvariant(Type const& type) const;

private:
    struct Block;
    static Block* newBlock(Type const& type, unsigned sizeClass, bool mayThrow);
    Block* rebuild(Type const& type, unsigned sizeClass, bool mayThrow);
    static void removeFromSlots(Type const& type, Block& block, std::size_t index, U32 hash) noexcept;

    Detail::Anchor<Block> anchor_;
};

// Walks a map that may change meanwhile. It remembers the order of its current bucket. If the map's change counter has
// changed, it looks for the bucket again, by a binary search.
class VEL_API HashMap2018Generic::Iterator {
public:
    constexpr Iterator() noexcept = default;                             // at the end
    Iterator(HashMap2018Generic const& map, Type const& type) noexcept;  // at the first element
    // At this element, or at the end if it is null.
    Iterator(HashMap2018Generic const& map, Type const& type, void* element) noexcept;

    bool atEnd() const noexcept { return order_ == endOrder; }
    void* element() const noexcept;  // null at the end, and if the element was erased
    void next() noexcept;            // does nothing at the end

private:
    static constexpr U64 endOrder = ~U64(0);
    void moveTo(std::size_t index) noexcept;  // moves to the first bucket at or after `index` that is no gap

    HashMap2018Generic const* map_ = nullptr;
    Type const* type_ = nullptr;
    U64 changes_ = 0;  // the map's changes() when index_ and element_ were set
    U64 order_ = endOrder;
    U64 newest_ = 0;  // the map's changes() when the iteration began; newer elements are not visited
    std::size_t index_ = 0;
    void* element_ = nullptr;
};

}  // namespace Vel
