#pragma once

#include "Mox/Types.h"

#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"

#include <bit>
#include <compare>
#include <iterator>

// Chips of a device, 0 to 126, and sets of them. Plain values of one and sixteen bytes: nothing allocates, every
// operation is a handful of instructions, and they are as thread-safe as integers.
namespace Mox {

// Number of a chip, or one of two reserved numbers.
//
// A value is stored before it is checked: a number above null() throws Vel::RangeException and stays stored. Setting
// the number that is stored already does nothing, not even the check.
class VEL_API ChipId {
public:
    constexpr ChipId() = default;
    constexpr ChipId(U8 value) : value_(value) { check(); }  // throws Vel::RangeException
    ChipId(StrepIterator& it, StrepIterator const& end) {
        Vel::parse(*this, it, end);
        check();
    }
    ChipId(LogIn* in, StreamBogon) { Vel::read(*this, *in); }  // takes any number

    static constexpr U8 min() { return 0; }
    static constexpr U8 max() { return 126; }       // the last real chip
    static constexpr U8 allChips() { return 127; }  // reserved; a set treats it like any other member
    static constexpr U8 null() { return 128; }      // no chip; where iteration ends

    constexpr U8 value() const { return value_; }
    constexpr void valueIs(U8 value) & {
        if (value == value_) return;
        value_ = value;
        check();
    }
    constexpr void valueInc(U8 n) & { valueIs(static_cast<U8>(value_ + n)); }  // modulo 256, before the check
    constexpr U32 hash() const { return value_; }
    constexpr U32 hash(unsigned) const { return value_; }  // ignores the seed

    friend constexpr bool operator==(ChipId, ChipId) = default;
    friend constexpr auto operator<=>(ChipId, ChipId) = default;

    static constexpr auto description() {
        constexpr U32 (ChipId::*seededHash)(unsigned) const = &ChipId::hash;
        return Vel::number("Mox::ChipId", Vel::checkedField<&ChipId::value_, &ChipId::valueIs>("value"),
            Vel::constant<&ChipId::min>("min"), Vel::constant<&ChipId::max>("max"),
            Vel::constant<&ChipId::allChips>("allChips"), Vel::constant<&ChipId::null>("null"),
            Vel::derived<&ChipId::value, &ChipId::valueIs>("hash"))
            .with(Vel::truth<&ChipId::isChip>, Vel::ordered, Vel::hashBy<seededHash>);
    }

private:
    constexpr bool isChip() const { return value_ != null(); }
    constexpr void check() const {
        if (value_ > null()) [[unlikely]]
            fail();
    }
    [[noreturn]] VEL_COLD static void fail();

    U8 value_ = 0;
};

// Any subset of the chips, as a bitmap of two words: chip c is bit c % 64 of valueLo or, from 64 up, of valueHi.
// Sets are ordered like numbers of 128 bits.
class VEL_API ChipSet {
public:
    class Iterator;

    constexpr ChipSet() = default;
    constexpr ChipSet(U64 valueLo, U64 valueHi) : valueLo_(valueLo), valueHi_(valueHi) {}
    ChipSet(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    ChipSet(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    static constexpr ChipSet oneChip(ChipId chipId) {
        ChipSet set;
        set.chipIdIs(chipId, true);
        return set;
    }
    static constexpr ChipSet noChips() { return {}; }

    constexpr U64 valueLo() const { return valueLo_; }
    constexpr U64 valueHi() const { return valueHi_; }
    constexpr void valueLoIs(U64 v) & { valueLo_ = v; }
    constexpr void valueHiIs(U64 v) & { valueHi_ = v; }
    constexpr void valueLoAnd(U64 v) & { valueLo_ &= v; }
    constexpr void valueLoOr(U64 v) & { valueLo_ |= v; }
    constexpr void valueLoXor(U64 v) & { valueLo_ ^= v; }
    constexpr void valueHiAnd(U64 v) & { valueHi_ &= v; }
    constexpr void valueHiOr(U64 v) & { valueHi_ |= v; }
    constexpr void valueHiXor(U64 v) & { valueHi_ ^= v; }

    // Returns whether `id` is a member. Does not check the range: an id from 64 up is looked up modulo 64 in valueHi,
    // so null() gives the answer for chip 64.
    constexpr bool chipId(ChipId id) const { return word(id) >> (id.value() % 64) & 1; }
    constexpr void chipIdIs(ChipId id, bool on) & {  // REQUIRES: id below null()
        if (id.value() & 0x80) [[unlikely]]
            failChipIdIs();
        U64 const bit = U64(1) << (id.value() % 64);
        U64& word = id.value() < 64 ? valueLo_ : valueHi_;
        word = on ? word | bit : word & ~bit;
    }
    constexpr bool chipIdDel(ChipId id) & {  // returns whether it was a member. REQUIRES: id below null()
        bool const was = chipId(id);
        chipIdIs(id, false);
        return was;
    }
    constexpr U32 chipIds() const {  // number of members
        return static_cast<U32>(std::popcount(valueLo_) + std::popcount(valueHi_));
    }
    constexpr ChipId firstChipId() const { return nextChipId(ChipId(ChipId::null())); }
    // Returns the smallest member above `id`, or the smallest of all if `id` is null(). Returns null() if there is
    // none. REQUIRES: id <= null()
    constexpr ChipId nextChipId(ChipId id) const {
        unsigned const from = id.value() == ChipId::null() ? 0 : id.value() + 1u;
        if (from < 64) {
            if (U64 const rest = valueLo_ >> from) return at(from, rest);
        }
        unsigned const high = from < 64 ? 0 : from - 64;
        if (high >= 64) return ChipId(ChipId::null());
        U64 const rest = valueHi_ >> high;
        return rest ? at(64 + high, rest) : ChipId(ChipId::null());
    }
    constexpr ChipSet concat(ChipSet const& other) const {  // the union
        return {valueLo_ | other.valueLo_, valueHi_ | other.valueHi_};
    }
    constexpr U32 hash(unsigned seed) const;

    constexpr Iterator begin() const;  // ascending
    constexpr std::default_sentinel_t end() const { return {}; }

    friend constexpr bool operator==(ChipSet const&, ChipSet const&) = default;
    friend constexpr std::strong_ordering operator<=>(ChipSet const& a, ChipSet const& b) {
        auto const high = a.valueHi_ <=> b.valueHi_;
        return high != 0 ? high : a.valueLo_ <=> b.valueLo_;
    }

    static constexpr auto description();

private:
    constexpr U64 word(ChipId id) const { return id.value() < 64 ? valueLo_ : valueHi_; }
    static constexpr ChipId at(unsigned base, U64 rest) {
        return ChipId(static_cast<U8>(base + static_cast<unsigned>(std::countr_zero(rest))));
    }
    [[noreturn]] VEL_COLD static void failChipIdIs();

    U64 valueLo_ = 0;
    U64 valueHi_ = 0;
};

constexpr auto ChipSet::description() {
    return Vel::record("Mox::ChipSet", Vel::method<&ChipSet::oneChip>("oneChip", "chipId"),
        Vel::method<&ChipSet::noChips>("noChips"), Vel::method<&ChipSet::chipIds>("chipIds"),
        Vel::collection<ChipId, bool, &ChipSet::chipId, &ChipSet::chipIdIs, &ChipSet::chipIdDel>("chipId"),
        Vel::method<&ChipSet::firstChipId>("firstChipId"), Vel::method<&ChipSet::nextChipId>("nextChipId", "chipId"),
        Vel::method<&ChipSet::concat>("concat", "chipSet"), Vel::field<&ChipSet::valueLo_>("valueLo"),
        Vel::field<&ChipSet::valueHi_>("valueHi"))
        .with(Vel::ordered, Vel::hashBy<&ChipSet::hash>);
}

constexpr U32 ChipSet::hash(unsigned seed) const { return Vel::hashFields(*this, seed); }

// Walks the members of a set in ascending order. Its state is a copy of the set, from which it removes each member that
// it has passed.
class ChipSet::Iterator {
public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = ChipId;
    using difference_type = std::ptrdiff_t;

    constexpr Iterator() = default;
    constexpr explicit Iterator(ChipSet const& set) : lo_(set.valueLo_), hi_(set.valueHi_) {}

    constexpr ChipId operator*() const { return lo_ ? at(0, lo_) : at(64, hi_); }
    constexpr Iterator& operator++() {
        if (lo_)
            lo_ &= lo_ - 1;
        else
            hi_ &= hi_ - 1;
        return *this;
    }
    constexpr Iterator operator++(int) {
        Iterator const before = *this;
        ++*this;
        return before;
    }
    friend constexpr bool operator==(Iterator const&, Iterator const&) = default;
    friend constexpr bool operator==(Iterator const& i, std::default_sentinel_t) { return (i.lo_ | i.hi_) == 0; }

private:
    U64 lo_ = 0;
    U64 hi_ = 0;
};

constexpr ChipSet::Iterator ChipSet::begin() const { return Iterator(*this); }

}  // namespace Mox
