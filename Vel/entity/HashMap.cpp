#include "Vel/entity/HashMap.h"

#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Vel {

namespace {

using BucketHeader = HashMap2018Generic::BucketHeader;

// Blocks have size classes: a few small ones without slots, then classes whose number of slots is a power of two.
constexpr U8 smallCapacities[] = {1, 2, 3, 4, 6, 8};
constexpr unsigned smallClasses = sizeof smallCapacities;
constexpr unsigned maxClass = smallClasses + 27;

constexpr std::size_t slotsOf(unsigned sizeClass) {
    return sizeClass < smallClasses ? 0 : std::size_t(16) << (sizeClass - smallClasses);
}
constexpr std::size_t capacityOf(unsigned sizeClass) {
    return sizeClass < smallClasses ? smallCapacities[sizeClass] : slotsOf(sizeClass) / 4 * 3;
}
static_assert(capacityOf(maxClass) == HashMap2018Generic::maxSize);

unsigned classFor(std::size_t count) {
    for (unsigned c = 0; c <= maxClass; ++c)
        if (capacityOf(c) >= count) return c;
    throwRangeException(format("a map of %zu elements exceeds the limit of %zu", count, HashMap2018Generic::maxSize));
}

// A slot is 0 if it is free. Otherwise its upper half is a hash, and its lower half a bucket's index plus 1. With the
// whole hash, a look-up seldom compares another key, and a rebuild of the slots computes no hash anew.
constexpr U64 slot(U32 hash, std::size_t index) { return U64(hash) << 32 | (index + 1); }
constexpr U32 slotHash(U64 slot) { return static_cast<U32>(slot >> 32); }
constexpr std::size_t slotIndex(U64 slot) { return static_cast<U32>(slot) - std::size_t(1); }

void putSlot(U64* slots, std::size_t mask, U64 value) {
    std::size_t i = slotHash(value) & mask;
    while (slots[i]) i = (i + 1) & mask;
    slots[i] = value;
}

constexpr std::size_t roundUp(std::size_t n, std::size_t to) { return (n + to - 1) & ~(to - 1); }

}  // namespace

// A block is one allocation: this header, the bucket headers, the elements, the slots, and after the slots one word: an
// index before which all buckets are gaps.
struct HashMap2018Generic::Block {
    U64 changesAndClass;
    U32 size;  // elements
    U32 used;  // buckets, gaps included

    U64 changes() const { return changesAndClass >> 8; }
    void changesIs(U64 changes) { changesAndClass = changes << 8 | sizeClass(); }
    void changesInc() { changesAndClass += 256; }
    unsigned sizeClass() const { return static_cast<unsigned>(changesAndClass & 0xFF); }
    bool hashed() const { return sizeClass() >= smallClasses; }
    std::size_t capacity() const { return capacityOf(sizeClass()); }
    std::size_t mask() const { return slotsOf(sizeClass()) - 1; }

    BucketHeader* headers() { return reinterpret_cast<BucketHeader*>(this + 1); }
    std::byte* elements(Type const& type) { return reinterpret_cast<std::byte*>(this) + elementsAt(type, sizeClass()); }
    void* element(Type const& type, std::size_t i) { return elements(type) + i * type.elementSize; }
    std::size_t indexOf(Type const& type, void* element) {
        return static_cast<std::size_t>(static_cast<std::byte*>(element) - elements(type)) / type.elementSize;
    }
    U64* slots(Type const& type) {
        return reinterpret_cast<U64*>(reinterpret_cast<std::byte*>(this) + slotsAt(type, sizeClass()));
    }
    U64& first(Type const& type) { return slots(type)[mask() + 1]; }
    std::size_t firstIndex(Type const& type) { return hashed() ? first(type) : 0; }

    // Returns the index of the first bucket whose order is at least `order`.
    std::size_t lowerBound(U64 order) {
        return static_cast<std::size_t>(std::partition_point(headers(), headers() + used, [=](BucketHeader h) {
            return h.order() < order;
        }) - headers());
    }

    static std::size_t elementsAt(Type const& type, unsigned sizeClass) {
        return roundUp(sizeof(Block) + sizeof(BucketHeader) * capacityOf(sizeClass), type.elementAlignment);
    }
    static std::size_t slotsAt(Type const& type, unsigned sizeClass) {
        return roundUp(elementsAt(type, sizeClass) + type.elementSize * capacityOf(sizeClass), alignof(U64));
    }
    static std::size_t bytes(Type const& type, unsigned sizeClass) {
        std::size_t const slots = slotsOf(sizeClass);
        return slotsAt(type, sizeClass) + (slots ? (slots + 1) * sizeof(U64) : 0);
    }
};

static_assert(sizeof(HashMap2018Generic) == sizeof(void*));

HashMap2018Generic::Block* HashMap2018Generic::newBlock(Type const& type, unsigned sizeClass, bool mayThrow) {
    std::size_t const bytes = Block::bytes(type, sizeClass);
    void* const memory = mayThrow ? ::operator new(bytes) : ::operator new(bytes, std::nothrow);
    if (!memory) return nullptr;
    auto* const block = new (memory) Block{sizeClass, 0, 0};
    if (std::size_t const slots = slotsOf(sizeClass)) std::memset(block->slots(type), 0, (slots + 1) * sizeof(U64));
    return block;
}

HashMap2018Generic::HashMap2018Generic(HashMap2018Generic&& other) noexcept { anchor_.swap(other.anchor_); }
void HashMap2018Generic::swap(HashMap2018Generic& other) noexcept { anchor_.swap(other.anchor_); }
U64 HashMap2018Generic::changes() const noexcept { return anchor_.changes(); }

std::size_t HashMap2018Generic::size() const noexcept {
    Block const* const b = anchor_.block();
    return b ? b->size : 0;
}

std::size_t HashMap2018Generic::memory(Type const& type) const noexcept {
    Block const* const b = anchor_.block();
    return b ? Block::bytes(type, b->sizeClass()) : 0;
}

void* HashMap2018Generic::find(Type const& type, void const* view, U32 hash) const {
    Block* const b = anchor_.block();
    if (!b) return nullptr;
    if (!b->hashed()) {
        BucketHeader const* const headers = b->headers();
        for (std::size_t i = 0; i < b->used; ++i) {
            if (!headers[i].matches(hash)) continue;
            if (void* const element = b->element(type, i); type.equal(element, view)) return element;
        }
        return nullptr;
    }
    U64 const* const slots = b->slots(type);
    std::size_t const mask = b->mask();
    for (std::size_t i = hash & mask; slots[i]; i = (i + 1) & mask) {
        if (slotHash(slots[i]) != hash) continue;
        if (void* const element = b->element(type, slotIndex(slots[i])); type.equal(element, view)) return element;
    }
    return nullptr;
}

// Moves all elements, in their order and without the gaps, to a new block of the class. Returns null if there is no
// memory and `mayThrow` is false.
HashMap2018Generic::Block* HashMap2018Generic::rebuild(Type const& type, unsigned sizeClass, bool mayThrow) {
    Block* const to = newBlock(type, sizeClass, mayThrow);
    Block* const from = anchor_.block();
    if (!to) return nullptr;
    to->changesIs(from->changes());
    to->size = to->used = from->size;

    BucketHeader* const headers = from->headers();
    std::size_t done = 0;
    for (std::size_t i = from->firstIndex(type); i < from->used;) {
        if (headers[i].erased()) {
            ++i;
            continue;
        }
        std::size_t run = i;
        while (run < from->used && !headers[run].erased()) to->headers()[done + run - i] = headers[run], ++run;
        type.relocate(to->element(type, done), from->element(type, i), run - i);
        // From now on, the old headers say to which index their buckets were moved.
        for (; i < run; ++i) headers[i] = BucketHeader(done++, 0);
    }

    if (to->hashed()) {
        U64* const slots = to->slots(type);
        if (from->hashed()) {
            U64 const* const old = from->slots(type);
            for (std::size_t i = 0; i <= from->mask(); ++i)
                if (old[i]) putSlot(slots, to->mask(), slot(slotHash(old[i]), headers[slotIndex(old[i])].order()));
        } else {
            for (std::size_t i = 0; i < to->used; ++i)
                putSlot(slots, to->mask(), slot(type.hashOfElement(to->element(type, i), type.seed), i));
        }
    }
    anchor_.blockIs(to);
    ::operator delete(from);
    return to;
}

void* HashMap2018Generic::insert(Type const& type, void* element, U32 hash) {
    U64 const order = changes() + 1;
    if (order >= maxChanges) [[unlikely]]
        assertionFailed("changes() + 1 < maxChanges", "/src/Vel/HashMap", 0,
            "void* Vel::HashMap2018Generic::insert(const Vel::HashMap2018Generic::Type&, void*, Vel::U32)");
    Block* b = anchor_.block();
    if (!b) {
        b = newBlock(type, 0, true);
        anchor_.blockIs(b);
    } else if (std::size_t const capacity = b->capacity(); b->used == capacity) {
        bool const manyGaps = (capacity - b->size) * 4 >= capacity;
        b = rebuild(type, manyGaps ? b->sizeClass() : classFor(capacity + 1), true);
    }

    std::size_t const index = b->used;
    void* const to = b->element(type, index);
    type.relocate(to, element, 1);
    b->headers()[index] = BucketHeader(order, hash);
    if (b->hashed()) putSlot(b->slots(type), b->mask(), slot(hash, index));
    ++b->used;
    ++b->size;
    b->changesIs(order);
    return to;
}

// Frees the slot of that bucket. Moves later slots into the hole if otherwise linear probing would not find them any
// more.
void HashMap2018Generic::removeFromSlots(Type const& type, Block& block, std::size_t index, U32 hash) noexcept {
    U64* const slots = block.slots(type);
    std::size_t const mask = block.mask();
    std::size_t hole = hash & mask;
    while (slots[hole] != slot(hash, index)) hole = (hole + 1) & mask;
    for (std::size_t i = (hole + 1) & mask; slots[i]; i = (i + 1) & mask) {
        std::size_t const distance = (i - slotHash(slots[i])) & mask;
        if (distance < ((i - hole) & mask)) continue;
        slots[hole] = slots[i];
        hole = i;
    }
    slots[hole] = 0;
}

void HashMap2018Generic::erase(Type const& type, void* element, void* out) noexcept {
    Block* const b = anchor_.block();
    std::size_t const index = b->indexOf(type, element);
    BucketHeader* const headers = b->headers();
    if (!b->hashed()) {
        type.relocate(out, element, 1);
        type.relocate(element, b->element(type, index + 1), b->used - index - 1);
        std::copy(headers + index + 1, headers + b->used, headers + index);
        --b->used;
    } else {
        removeFromSlots(type, *b, index, type.hashOfElement(element, type.seed));
        type.relocate(out, element, 1);
        headers[index].erasedIs();
        while (b->used && headers[b->used - 1].erased()) --b->used;
        U64& first = b->first(type);
        while (first < b->used && headers[first].erased()) ++first;
    }
    --b->size;
    b->changesInc();

    if (b->size == 0) {
        anchor_.emptyIs(b->changes());
        ::operator delete(b);
    } else if (b->hashed() && b->size < b->capacity() / 4) {
        rebuild(type, classFor(2 * std::size_t(b->size)), false);  // shrinks, unless there is no memory for a new block
    }
}

void HashMap2018Generic::clear(Type const& type) noexcept {
    Block* const b = anchor_.release();
    if (!b) return;
    BucketHeader const* const headers = b->headers();
    for (std::size_t i = b->firstIndex(type); i < b->used; ++i)
        if (!headers[i].erased()) type.destroy(b->element(type, i));
    ::operator delete(b);
}

HashMap2018Generic::Iterator::Iterator(HashMap2018Generic const& map, Type const& type) noexcept
    : map_(&map), type_(&type), newest_(map.changes()) {
    if (Block* const b = map.anchor_.block()) moveTo(b->firstIndex(type));
}

HashMap2018Generic::Iterator::Iterator(HashMap2018Generic const& map, Type const& type, void* element) noexcept
    : map_(&map), type_(&type), newest_(map.changes()) {
    if (element) moveTo(map.anchor_.block()->indexOf(type, element));
}

void HashMap2018Generic::Iterator::moveTo(std::size_t index) noexcept {
    Block& b = *map_->anchor_.block();
    BucketHeader const* const headers = b.headers();
    while (index < b.used && headers[index].erased()) ++index;
    order_ = index < b.used && headers[index].order() <= newest_ ? headers[index].order() : endOrder;
    if (atEnd()) return;
    index_ = index;
    changes_ = b.changes();
    element_ = b.element(*type_, index);
}

void* HashMap2018Generic::Iterator::element() const noexcept {
    if (atEnd()) return nullptr;
    Block* const b = map_->anchor_.block();
    if (!b) return nullptr;
    if (b->changes() == changes_) return element_;
    std::size_t const i = b->lowerBound(order_);
    bool const there = i < b->used && b->headers()[i].order() == order_ && !b->headers()[i].erased();
    return there ? b->element(*type_, i) : nullptr;
}

void HashMap2018Generic::Iterator::next() noexcept {
    if (atEnd()) return;
    Block* const b = map_->anchor_.block();
    if (!b)
        order_ = endOrder;
    else
        moveTo(b->changes() == changes_ ? index_ + 1 : b->lowerBound(order_ + 1));
}

std::string_view HashMap2018Generic::brokenInvariant(Type const& type) const {  // GCOVR_EXCL_BR_START
    Block* const b = anchor_.block();
    if (!b) return {};
    BucketHeader const* const headers = b->headers();
    std::size_t elements = 0;
    for (std::size_t i = 0; i < b->used; ++i) {
        if (i && headers[i - 1].order() >= headers[i].order()) return "bucket headers do not ascend";
        if (headers[i].order() > b->changes()) return "a bucket is newer than the last change";
        if (headers[i].erased()) {
            if (!b->hashed()) return "a small block has a gap";
            continue;
        }
        ++elements;
        U32 const hash = type.hashOfElement(b->element(type, i), type.seed);
        if (!headers[i].matches(hash)) return "a bucket header belongs to another hash";
        if (!b->hashed()) continue;
        if (i < b->first(type)) return "a bucket stands before the first";
        U64 const* const slots = b->slots(type);
        std::size_t s = hash & b->mask();
        while (slots[s] && slots[s] != slot(hash, i)) s = (s + 1) & b->mask();
        if (!slots[s]) return "a bucket is not reached from its slot";
    }
    if (elements == 0) return "a block without elements";
    if (elements != b->size) return "wrong size";
    if (!b->hashed()) return {};
    U64 const* const slots = b->slots(type);
    auto const taken = std::count_if(slots, slots + b->mask() + 1, [](U64 s) { return s != 0; });
    return static_cast<std::size_t>(taken) == elements ? std::string_view() : "a slot without an element";
}  // GCOVR_EXCL_BR_STOP: a sound map takes none of these

U32 hashText(std::string_view text, U32 seed) noexcept {
    return static_cast<U32>(tableHash(text, seed, ProcessSecret::value()));
}

}  // namespace Vel
