#pragma once

#include "Mox/internal/ShortText.h"

#include "Vel/base/Assert.h"
#include "Vel/base/ObjectPool.h"
#include "Vel/base/Types.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

// A function of the leak detector. It is null in a program without one.
extern "C" __attribute__((weak)) void __lsan_ignore_object(void const* memory);  // NOLINT(bugprone-reserved-identifier)

namespace Mox::Detail {

using Vel::U32;
using Vel::U64;

// The children of a node of a trie, in both of its collections: reference-counted nodes, keyed by their own names.
// `prefixChild` owns them; `child` mostly has the same ones. With at most one child this takes one word and nothing
// else. With more it takes about 20 bytes more for each child, for both collections together.
//
// A leak detector does not see the address in a word that also has hash bits. So it is told to ignore memory whose
// address is found there only.
//
// Node has velKey(), a std::string_view that never changes, newRef() and deleteRef().
//
// Invariants:
// 1. A slot is 0, or names a node. It has 16 bits of the hash of the node's key, so that most nodes with other keys
//    need no look; the node's address; and a bit for each collection of which the node is a member, at least one. A
//    slot holds one reference for each of these bits.
// 2. No two slots name the same node, and each collection has at most one node with a key.
// 3. The word is 0 if there is no slot, and the slot if there is one. Else it has the address of the slots of a table
//    with two slots or more, a bit that marks this, and the table's size class in place of the hash: so look-ups need
//    not touch the table's header.
// 4. Tables of up to 7 slots are filled from the front. Larger ones have a power of two of slots, are probed linearly
//    from the low bits of the hash, and are at most three quarters full.
template <class Node> class TrieMembers {
public:
    enum class Collection : U64 { child = 1, prefixChild = 2 };
    class Snapshot;
    // Where a member is, until one of the collections changes.
    class Place {
    public:
        Place() = default;
        explicit operator bool() const { return slot_; }
        Node* node() const { return nodeOf(*slot_); }  // REQUIRES: the place of a member

    private:
        friend TrieMembers;
        explicit Place(U64* slot) : slot_(slot) {}
        U64* slot_;
    };

    constexpr TrieMembers() noexcept = default;
    TrieMembers(TrieMembers const&) = delete;
    TrieMembers& operator=(TrieMembers const&) = delete;
    ~TrieMembers() {
        releaseAll([](Node&, Collection) {}, [](Node* node) { node->deleteRef(); });
    }

    Node* find(std::string_view key, Collection which) const {
        if (!word_) return nullptr;
        U64 const* const slot = findSlot(key, hashBesideOthers(key), bit(which));
        return slot ? nodeOf(*slot) : nullptr;
    }
    // The same, for a key whose hash is known.
    Node* find(std::string_view key, U32 hash, Collection which) const {
        U64 const* const slot = word_ ? findSlot(key, hash, bit(which)) : nullptr;
        return slot ? nodeOf(*slot) : nullptr;
    }
    // Where the member with that key is; a null place if there is none.
    Place place(std::string_view key, Collection which) {
        if (!word_) return Place(nullptr);
        U32 const hash = hashBesideOthers(key);
        if (word_ & tableBit) return Place(findSlot(key, hash, bit(which)));
        return Place(matches(word_, key, tagOf(hash, 0), bit(which)) ? &word_ : nullptr);
    }
    // The node with that key in `prefixChild`, or null, and whether it is in both collections.
    std::pair<Node*, bool> findOwned(std::string_view key) const { return findOwned(key, hashOf(key)); }
    std::pair<Node*, bool> findOwned(std::string_view key, U32 hash) const {
        if (!word_) return {nullptr, false};
        U64 const* const slot = findSlot(key, hash, bit(Collection::prefixChild));
        if (!slot) return {nullptr, false};
        return {nodeOf(*slot), (*slot & memberBits) == memberBits};
    }
    bool holds(Node const& node, Collection which) const { return find(node.velKey(), which) == &node; }

    U32 size(Collection which) const noexcept {
        if (Table const* const t = table()) return t->sizes[index(which)];
        return word_ & bit(which) ? 1 : 0;
    }

    // Makes `node` the member with its key. Returns the member that had the key, with its reference, or null, and
    // whether anything has changed. Strong guarantee.
    std::pair<Node*, bool> put(Node& node, Collection which) { return put(node, which, hashOf(node.velKey())); }
    std::pair<Node*, bool> put(Node& node, Collection which, U32 hash) {
        if (!word_) {
            word_ = newSlot(node, hash) | bit(which);
        } else if (isSlot() && nodeOf(word_) == &node) {
            if (word_ & bit(which)) return {nullptr, false};
            word_ |= bit(which);
        } else {
            return putBeside(node, hash, which);
        }
        node.newRef();
        return {nullptr, true};
    }

    // Removes the member with that key and returns it with its reference, or null.
    Node* take(std::string_view key, Collection which) noexcept {
        if (!word_) return nullptr;
        if (!(word_ & tableBit) && (word_ & bit(which)) && nodeOf(word_)->velKey().data() == key.data() &&
            nodeOf(word_)->velKey().size() == key.size())
            return takeFrom(&word_, which);  // needs no hash: mostly the key of a node that is removed is its own
        U64* const slot = findSlot(key, hashBesideOthers(key), bit(which));
        return slot ? takeFrom(slot, which) : nullptr;
    }
    Node* take(Place place, Collection which) noexcept { return takeFrom(place.slot_, which); }

    static U32 hashOf(std::string_view key) { return hashShortText(key, Vel::ProcessSecret::value()); }

    // Empties both collections. For each node, calls gone(node, collection) for each collection that has it, then
    // drop(node) for each reference.
    template <class Gone, class Drop> void releaseAll(Gone gone, Drop drop) {
        Table* const t = table();
        U64 const single = isSlot() ? word_ : 0;
        word_ = 0;
        auto const release = [&](U64 slot) {
            Node* const node = nodeOf(slot);
            for (Collection const which : {Collection::child, Collection::prefixChild})
                if (slot & bit(which)) gone(*node, which);
            for (Collection const which : {Collection::child, Collection::prefixChild})
                if (slot & bit(which)) drop(node);
        };
        if (single) release(single);
        if (!t) return;
        for (U64 const slot : *t)
            if (slot) release(slot);
        deleteTable(t);
    }

    // Calls f(node) for the members of one part, and returns the next part. The first part is 0, and 0 is returned
    // after the last. A part has the members whose hash has the same low bits as `part`. Parts are counted from their
    // highest bit on: "reverse binary iteration", by which Redis scans its tables. So after the table has grown, the
    // members of an earlier part are in a few parts, and none of these comes if the earlier part came already. A member
    // that is there all the time is visited; if the table shrinks, perhaps twice.
    template <class F> U64 visitPart(U64 part, Collection which, F f) const {
        if (size(which) == 0) return 0;
        Table* const t = table();
        if (!t || !t->hashed()) {
            if (isSlot() && (word_ & bit(which))) f(nodeOf(word_));
            if (t)
                for (U64 const slot : *t)
                    if (slot & bit(which)) f(nodeOf(slot));
            return 0;
        }
        U64 const home = part & t->mask();
        for (U64 i = home; t->slots()[i] != 0; i = (i + 1) & t->mask()) {
            U64 const slot = t->slots()[i];
            if ((slot & bit(which)) && (homeHashOf(slot, t->sizeClass) & t->mask()) == home) f(nodeOf(slot));
        }
        for (U64 at = capacityOf(t->sizeClass) / 2; at != 0; at /= 2) {
            part ^= at;
            if (part & at) return part & t->mask();
        }
        return 0;
    }

    // Calls f(node) for every member. REQUIRES: f changes neither collection.
    template <class F> void visit(Collection which, F f) const {
        if (Table* const t = table()) {
            for (U64 const slot : *t)
                if (slot & bit(which)) f(*nodeOf(slot));
        } else if (word_ & bit(which)) {
            f(*nodeOf(word_));
        }
    }

    std::size_t memory() const noexcept { return table() ? bytesOf(table()->sizeClass) : 0; }  // bytes allocated

private:
    static constexpr U64 memberBits = 3;  // one for each collection
    static constexpr U64 tableBit = 4;
    static constexpr U64 tagBits = U64(0xFFFF) << 48;  // Linux gives no user-space address there unless asked
    static constexpr U64 addressBits = ~(tagBits | memberBits | tableBit);
    // Classes 0 and 1 have 3 and 7 slots, which also fill the C library's chunks. A larger class is log2 of its slots.
    static constexpr U32 smallClasses = 2;
    static constexpr U32 maxSmallCapacity = 7;
    static constexpr U32 maxHomeClass = 12;  // 4096 slots: 4 bits are left to tell other keys apart

    // Stands before the slots.
    struct Table {
        U32 sizeClass;
        U32 used;      // slots that are not 0
        U32 sizes[2];  // of the two collections

        U64* slots() { return reinterpret_cast<U64*>(this + 1); }
        U64* begin() { return slots(); }
        U64* end() { return slots() + (hashed() ? capacityOf(sizeClass) : used); }
        bool hashed() const { return sizeClass >= smallClasses; }
        U32 mask() const { return capacityOf(sizeClass) - 1; }
        bool full() const { return used == (hashed() ? capacityOf(sizeClass) / 4 * 3 : capacityOf(sizeClass)); }
    };

    static constexpr U64 bit(Collection which) { return static_cast<U64>(which); }
    static constexpr unsigned index(Collection which) { return which == Collection::child ? 0 : 1; }
    // If there is a slot, a key has been hashed before, and so the secret has been drawn.
    static U32 hashBesideOthers(std::string_view key) { return hashShortText(key, Vel::ProcessSecret::drawn()); }
    // The bits of the hash that a slot has in a table of that class. Up to maxHomeClass they say where the slot's home
    // is, so that slots are moved without a look at their nodes. In larger tables they are other bits: slots that are
    // close have most of those in common.
    static constexpr U64 tagOf(U32 hash, U32 sizeClass) {
        return U64(sizeClass > maxHomeClass ? hash >> 16 : hash) << 48;
    }
    static U32 homeHashOf(U64 slot, U32 sizeClass) {  // the bits of the hash that say where the home is
        return sizeClass > maxHomeClass ? hashBesideOthers(nodeOf(slot)->velKey()) : static_cast<U32>(slot >> 48);
    }
    static Node* nodeOf(U64 slot) { return reinterpret_cast<Node*>(slot & addressBits); }
    static void isNoLeak(void const* memory) {
        if (__lsan_ignore_object) [[unlikely]]
            __lsan_ignore_object(memory);
    }
    static U64 newSlot(Node& node, U32 hash, U32 sizeClass = 0) {
        auto const address = reinterpret_cast<U64>(&node);
        if (address & ~addressBits) [[unlikely]]
            Vel::assertionFailed("(address & ~addressBits) == 0", "/src/Mox/PrefixTrie", 0,
                "Vel::U64 Mox::Detail::TrieMembers::newSlot(Node&, Vel::U32)");
        isNoLeak(&node);
        return tagOf(hash, sizeClass) | address;
    }
    static constexpr U32 capacityOf(U32 sizeClass) {
        return sizeClass < smallClasses ? 3 + 4 * sizeClass : U32(1) << sizeClass;
    }
    static std::size_t bytesOf(U32 sizeClass) { return sizeof(Table) + capacityOf(sizeClass) * sizeof(U64); }

    bool isSlot() const { return word_ && !(word_ & tableBit); }
    U64* slots() const { return reinterpret_cast<U64*>(word_ & addressBits); }  // REQUIRES: a table
    Table* table() const { return word_ & tableBit ? reinterpret_cast<Table*>(slots()) - 1 : nullptr; }
    void tableIs(Table* t) { word_ = U64(t->sizeClass) << 48 | reinterpret_cast<U64>(t->slots()) | tableBit; }

    static bool matches(U64 slot, std::string_view key, U64 tag, U64 which) {
        return (slot & tagBits) == tag && (slot & which) && sameShortText(nodeOf(slot)->velKey(), key);
    }

    // The slot with that key in one of the collections `which`, or null. REQUIRES: word_ is not 0.
    U64* findSlot(std::string_view key, U32 hash, U64 which) { return const_cast<U64*>(find(key, hash, which)); }
    U64 const* findSlot(std::string_view key, U32 hash, U64 which) const { return find(key, hash, which); }
    U64 const* find(std::string_view key, U32 hash, U64 which) const {
        if (!(word_ & tableBit)) return matches(word_, key, tagOf(hash, 0), which) ? &word_ : nullptr;
        U64 const* const slots = this->slots();
        auto const sizeClass = static_cast<U32>(word_ >> 48);
        U64 const tag = tagOf(hash, sizeClass);
        if (sizeClass < smallClasses) {
            U32 const capacity = capacityOf(sizeClass);
            for (U32 i = 0; i < capacity; ++i)
                if (matches(slots[i], key, tag, which)) return slots + i;
            return nullptr;
        }
        U32 const mask = capacityOf(sizeClass) - 1;
        for (U32 i = hash & mask; slots[i]; i = (i + 1) & mask)
            if (matches(slots[i], key, tag, which)) return slots + i;
        return nullptr;
    }

    std::pair<Node*, bool> putBeside(Node& node, U32 hash, Collection which) {
        std::string_view const key = node.velKey();
        U64* own = findSlot(key, hash, memberBits);
        if (!own) {
            insertSlot(newSlot(node, hash) | bit(which), hash);
            ++table()->sizes[index(which)];
            node.newRef();
            return {nullptr, true};
        }
        if (nodeOf(*own) != &node) {  // another node has the key; this one may be in the other collection only
            U64 const otherBits = memberBits & ~*own;
            own = otherBits ? findSlot(key, hash, otherBits) : nullptr;
            if (own && nodeOf(*own) != &node) own = nullptr;
        }
        if (own && (*own & bit(which))) return {nullptr, false};
        if (!own) insertSlot(newSlot(node, hash), hash);  // in no collection yet, so that no look-up finds it
        Node* const before = take(key, which);
        own = slotOfNode(node, hash);
        *own |= bit(which);
        if (Table* const t = table()) ++t->sizes[index(which)];
        node.newRef();
        return {before, true};
    }

    U64* slotOfNode(Node const& node, U32 hash) {
        Table* const t = table();
        if (!t) return &word_;
        if (!t->hashed()) return std::find_if(t->begin(), t->end(), [&](U64 slot) { return nodeOf(slot) == &node; });
        U32 i = hash & t->mask();
        while (nodeOf(t->slots()[i]) != &node) i = (i + 1) & t->mask();
        return t->slots() + i;
    }

    static Table* newTable(U32 sizeClass) {
        void* const memory = Vel::ObjectPool::allocate(bytesOf(sizeClass));
        isNoLeak(memory);
        auto* const t = new (memory) Table{sizeClass, 0, {0, 0}};
        std::memset(t->slots(), 0, capacityOf(sizeClass) * sizeof(U64));
        return t;
    }
    static void deleteTable(Table* t) { Vel::ObjectPool::free(t, bytesOf(t->sizeClass)); }
    static U32 classFor(U32 used) {
        if (used <= maxSmallCapacity) return used <= capacityOf(0) ? 0 : 1;
        return static_cast<U32>(std::bit_width(used / 3 * 4 + 3));
    }

    // Adds the slot, with the tag that it has in this table. REQUIRES: the table is not full.
    static void addSlot(Table& t, U64 slot, U32 hash) {
        U32 i = t.used++;
        if (t.hashed())
            for (i = hash & t.mask(); t.slots()[i]; i = (i + 1) & t.mask()) {}
        t.slots()[i] = (slot & ~tagBits) | tagOf(hash, t.sizeClass);
    }

    void insertSlot(U64 slot, U32 hash) {
        Table* t = table();
        if (!t) {
            t = newTable(0);
            addSlot(*t, word_, homeHashOf(word_, 0));
            t->sizes[0] = size(Collection::child);
            t->sizes[1] = size(Collection::prefixChild);
            tableIs(t);
        } else if (t->full()) {
            t = rebuild(classFor(t->used + 1));
        }
        addSlot(*t, slot, hash);
    }

    Table* rebuild(U32 sizeClass) {
        Table* const from = table();
        Table* const to = newTable(sizeClass);
        for (U64 const slot : *from)
            if (slot) addSlot(*to, slot, homeHashOf(slot, std::max(from->sizeClass, to->sizeClass)));
        to->sizes[0] = from->sizes[0];
        to->sizes[1] = from->sizes[1];
        deleteTable(from);
        tableIs(to);
        return to;
    }

    Node* takeFrom(U64* slot, Collection which) noexcept {
        Node* const node = nodeOf(*slot);
        *slot &= ~bit(which);
        Table* const t = table();
        if (t) --t->sizes[index(which)];
        if (*slot & memberBits) return node;
        if (!t)
            word_ = 0;
        else
            removeSlot(*t, static_cast<U32>(slot - t->slots()));
        return node;
    }

    void removeSlot(Table& t, U32 hole) noexcept {
        U64* const slots = t.slots();
        --t.used;
        if (!t.hashed()) {
            slots[hole] = std::exchange(slots[t.used], 0);
        } else {
            for (U32 i = (hole + 1) & t.mask(); slots[i]; i = (i + 1) & t.mask()) {
                U32 const home = homeHashOf(slots[i], t.sizeClass) & t.mask();
                if (((i - home) & t.mask()) < ((i - hole) & t.mask())) continue;
                slots[hole] = slots[i];
                hole = i;
            }
            slots[hole] = 0;
        }
        if (t.used == 1) {
            U64 const last = *std::find_if(t.begin(), t.end(), [](U64 slot) { return slot != 0; });
            word_ = (last & ~tagBits) | tagOf(homeHashOf(last, t.sizeClass), 0);
            deleteTable(&t);
        } else if (t.hashed() && classFor(2 * t.used) < t.sizeClass) {  // it is less than a fifth full
            try {
                rebuild(classFor(2 * t.used));
            } catch (std::bad_alloc const&) {
                return;  // the table stays as it is
            }
        }
    }

    U64 word_ = 0;
};

// The members of one collection at one time, each held by a reference.
template <class Node> class TrieMembers<Node>::Snapshot {
public:
    Snapshot(TrieMembers const& members, Collection which) : count_(members.size(which)) {
        if (count_ > maxSmallCapacity) nodes_ = new Node*[count_];
        Node** to = nodes_;
        auto const add = [&](U64 slot) {
            if (!(slot & bit(which))) return;
            *to = nodeOf(slot);
            (*to++)->newRef();
        };
        if (Table* const t = members.table())
            for (U64 const slot : *t) add(slot);
        else
            add(members.word_);
    }
    Snapshot(Snapshot&& other) noexcept : count_(std::exchange(other.count_, 0)) {
        if (other.nodes_ != other.inPlace_)
            nodes_ = std::exchange(other.nodes_, other.inPlace_);
        else
            std::copy_n(other.inPlace_, count_, inPlace_);
    }
    Snapshot& operator=(Snapshot&&) = delete;
    ~Snapshot() {
        for (U32 i = 0; i < count_; ++i) nodes_[i]->deleteRef();
        if (nodes_ != inPlace_) delete[] nodes_;
    }

    U32 size() const noexcept { return count_; }
    Node& operator[](U32 i) const { return *nodes_[i]; }

private:
    U32 count_;
    Node** nodes_ = inPlace_;
    Node* inPlace_[maxSmallCapacity];
};

}  // namespace Mox::Detail
