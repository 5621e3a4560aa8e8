#pragma once

#include "Vel/stream/internal/KeptChange.h"

#include <bit>
#include <deque>
#include <unordered_map>
#include <vector>

namespace Vel {

// The newest changes, by numbers without gaps.
class ChangeRing {
public:
    explicit ChangeRing(std::size_t size) : size_(size), changes_(std::bit_ceil(size)) {}

    std::size_t size() const { return size_; }
    U64 begin() const { return next_ < size_ ? 0 : next_ - size_; }
    U64 end() const { return next_; }
    bool has(U64 number) const { return number >= begin() && number < next_ && at(number).isAnswered; }
    KeptChange const& change(U64 number) const { return at(number); }
    // Gives the next change its number. REQUIRES: size() != 0
    KeptChange& begun(Entity const& entity, AttributeId attribute, String const& author) {
        KeptChange& change = at(next_);
        change.begin(next_++, entity, attribute, author);
        return change;
    }
    KeptChange* find(U64 number) {  // null if another one has taken its place
        return at(number).number == number ? &at(number) : nullptr;
    }

private:
    // The number of places is a power of 2, since a division would take as long as all the rest.
    KeptChange const& at(U64 number) const { return changes_[number & (changes_.size() - 1)]; }
    KeptChange& at(U64 number) { return changes_[number & (changes_.size() - 1)]; }

    std::size_t size_;
    std::vector<KeptChange> changes_;
    U64 next_ = 0;
};

// The last change of each attribute. When there are too many attributes, the one that has changed least recently gives
// its place to another one.
class LastChanges {
public:
    using Place = U32;

    explicit LastChanges(std::size_t size) : size_(size) {}
    LastChanges(LastChanges const&) = delete;
    LastChanges& operator=(LastChanges const&) = delete;

    std::size_t size() const { return size_; }
    std::size_t used() const { return kept_.size(); }
    KeptChange& at(Place place) { return kept_[place].change; }
    KeptChange const& at(Place place) const { return kept_[place].change; }
    Place keep(KeptChange const& change);  // REQUIRES: size() != 0

private:
    static constexpr Place none = ~Place(0);
    // Attributes are in the order in which they have changed: a list, linked by places.
    struct Kept {
        KeptChange change;
        Place newer = none, older = none;
    };
    struct Hash {
        std::size_t operator()(KeptChange const* change) const { return change->attributeHash(); }
    };
    struct Same {
        bool operator()(KeptChange const* a, KeptChange const* b) const { return a->isOfSameAttribute(*b); }
    };

    Place newPlace();
    void unlink(Place place);
    void linkAsNewest(Place place);

    std::size_t size_;
    std::deque<Kept> kept_;
    std::unordered_map<KeptChange const*, Place, Hash, Same> places_;
    Place newest_ = none, oldest_ = none;
};

}  // namespace Vel
