#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/entity/Dir.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace Vel {

// The places of a directory's entries by the hashes of their names. The directory has an index while it is large, so
// that a small one pays a null pointer for it. The order stays the map's.
//
// Invariants:
// 1. Slots are probed linearly, without gaps between the place of a hash and its slot. At most three quarters are used.
// 2. A slot is free if its hash is 0; no name has that hash.
//
// The hashes are keyed, so nobody outside the process can choose names that collide.
class Dir::Index {
public:
    static constexpr std::size_t minEntries = 17;  // with fewer, a directory makes no index
    static constexpr std::size_t fewEntries = 8;   // with fewer, it drops the one it has

    explicit Index(Entries& entries) : Index(entries.size()) {
        for (auto place = entries.begin(); place != entries.end(); ++place) put({hashOf(place->first.view()), place});
    }

    // Returns the place of the entry with this name, or null if there is none.
    Entries::iterator const* find(std::string_view name) const noexcept {
        U64 const hash = hashOf(name);
        for (std::size_t i = hash & mask_; slots_[i].hash != 0; i = (i + 1) & mask_)
            if (slots_[i].hash == hash && isSame(slots_[i].place->first.view(), name)) return &slots_[i].place;
        return nullptr;
    }

    // Adds an entry. Throws std::bad_alloc.
    void add(Entries::iterator place) {
        if (4 * (used_ + 1) > 3 * (mask_ + 1)) resize(used_ + 1);
        put({hashOf(place->first.view()), place});
    }

    // Removes an entry. Throws std::bad_alloc after that, if there is no memory for a smaller table. REQUIRES: the entry
    // is in the map still.
    void remove(Entries::iterator place) {
        std::size_t hole = hashOf(place->first.view()) & mask_;
        while (slots_[hole].hash == 0 || slots_[hole].place != place) hole = (hole + 1) & mask_;
        // Moves slots back over the hole that could not be found behind it.
        for (std::size_t i = (hole + 1) & mask_; slots_[i].hash != 0; i = (i + 1) & mask_) {
            std::size_t const away = (i - slots_[i].hash) & mask_;  // from the first place of its hash
            if (away < ((i - hole) & mask_)) continue;
            slots_[hole] = slots_[i];
            hole = i;
        }
        slots_[hole].hash = 0;
        --used_;
        if (16 * used_ < mask_) resize(used_);
    }

private:
    struct Slot {
        U64 hash = 0;
        Entries::iterator place;
    };

    // Compares short names without a call. The compiler has the words of `name` at hand from its hash.
    static bool isSame(std::string_view a, std::string_view name) noexcept {
        if (a.size() != name.size() || name.size() > 16) [[unlikely]]
            return a == name;
        return TextEnds(a.data(), a.size()) == TextEnds(name.data(), name.size());
    }

    // An empty table for this many entries, half of it free.
    explicit Index(std::size_t entries)
        : mask_(std::bit_ceil(std::max(2 * entries, 2 * minEntries)) - 1), slots_(new Slot[mask_ + 1]) {}

    static U64 hashOf(std::string_view name) noexcept {
        U64 const hash = tableHash(name, 0, ProcessSecret::value());
        return hash != 0 ? hash : 1;
    }

    void put(Slot const& slot) noexcept {
        std::size_t i = slot.hash & mask_;
        while (slots_[i].hash != 0) i = (i + 1) & mask_;
        slots_[i] = slot;
        ++used_;
    }

    void resize(std::size_t entries) {
        Index other(entries);
        std::for_each_n(slots_.get(), mask_ + 1, [&](Slot const& slot) {
            if (slot.hash != 0) other.put(slot);
        });
        std::swap(mask_, other.mask_);
        std::swap(slots_, other.slots_);
    }

    std::size_t mask_;  // the number of slots, a power of 2, less 1
    std::unique_ptr<Slot[]> slots_;
    std::size_t used_ = 0;
};

}  // namespace Vel
