#pragma once

#include "Mox/Id.h"
#include "Mox/internal/WordMap.h"

#include "Vel/describe/Checked.h"

#include <compare>
#include <initializer_list>
#include <iterator>
#include <ranges>
#include <string_view>

// Sets of identifiers.
namespace Mox {

// A set of ids below a fixed size, kept as 64-bit words in buckets: id i is bit i % 64 of bucket i / 64. Words without
// members are normally not kept.
//
// Bucket numbers have 8 bits, so sizes up to 16320 are covered in full. Larger sizes have these limits on purpose. An
// id from 16384 up shares its bit with its value modulo 16384. Operations that visit all buckets take the number of
// buckets modulo 256. idSetRange fills the buckets after that of its first id (0 comes after 255) while they are below
// that of its last id. Bucket 255 cannot be written to the attribute log. A set's text and iteration end at the first
// bit at or above its size.
//
// Each REQUIRES is checked: if it is broken, the process prints which one, and aborts. Text and bytes from outside have
// to go through checked() and Vel::checkedRead, which never abort.
// A plain value: one thread at a time, as any container.
class VEL_API IdSet {
public:
    class VelBucket;
    class BucketIterator;
    class BucketRange;
    template <class Set> class IdIteratorOf;
    using IdIterator = IdIteratorOf<IdSet>;
    using IdIteratorConst = IdIteratorOf<IdSet const>;
    class Iterator;

    IdSet() = default;                              // size 0
    explicit IdSet(U16 size, Id initialId = Id());  // REQUIRES: initialId is null or below size
    IdSet(LogIn* in, StreamBogon);                  // throws Vel::StreamException
    template <std::ranges::input_range R>
    requires std::convertible_to<std::ranges::range_reference_t<R>, Id> IdSet(U16 size, R const& ids)
        : IdSet(size) {  // REQUIRES: every id is below size
        for (Id const id : ids) updateId(id, true);
    }
    IdSet(U16 size, std::initializer_list<Id> ids) : IdSet(size) {
        for (Id const id : ids) updateId(id, true);
    }
    // Returns the set of that size with the members of a range list such as "(1-3,5)", or what is wrong with the text
    // and where. Stricter than sequenceToValue: numbers are plain digits, and every id must be below size.
    static Vel::Checked<IdSet> checked(U16 size, std::string_view rangeList);
    void handleInitialized(Id initialId) & {  // REQUIRES: initialId is null or below size
        if (initialId != Id()) updateId(initialId, true);
    }

    // --- buckets; none of these checks the bucket against size ---

    U16 size() const { return size_; }                                      // members are below this
    U32 maxBuckets() const { return (size_ + 63u) >> 6; }                   // number of words for size ids
    U64 bucket(BucketId b) const { return words_.get(b.value()); }          // 0 if there is none
    void bucketIs(BucketId b, U64 word) & { words_.set(b.value(), word); }  // a 0 is stored, too
    U64 bucketDel(BucketId b) & { return words_.erase(b.value()); }         // returns the former word
    U64 bucketDel(BucketIterator const& at) &;                              // REQUIRES: at is in range
    void bucketDelAll() & { words_.clear(); }
    void updateBucket(BucketId b, U64 word) & {  // keeps no empty word
        if (word)
            words_.set(b.value(), word);
        else
            words_.erase(b.value());
    }
    U32 buckets() const { return words_.size(); }
    bool bucketExists(BucketId b) const { return words_.contains(b.value()); }
    U32 bucketChangeCounter() const { return words_.changeCounter(); }  // changes whenever a bucket is added or removed
    BucketIterator bucketIterator() const;
    BucketRange bucketRange() const;  // for (auto [key, word] : set.bucketRange()); invalid after a change of the set

    // --- members ---

    bool id(Id i) const {  // REQUIRES: i below size
        check(i, "bool Mox::IdSet::id(Mox::Id) const");
        return words_.get(bucketOf(i)) >> (i.value() % 64) & 1;
    }
    bool updateId(Id i, bool value) & {  // returns whether it was a member. REQUIRES: i below size
        check(i, "bool Mox::IdSet::updateId(Mox::Id, bool) &");
        U64 const bit = U64(1) << (i.value() % 64);
        return ((value ? words_.add(bucketOf(i), bit) : removeBit(bucketOf(i), bit)) & bit) != 0;
    }
    bool idIs(Id i, bool value) & { return updateId(i, value); }
    bool idDel(Id i) & { return updateId(i, false); }
    U16 ids() const;                      // number of members, modulo 65536
    void idSetAll() &;                    // overwrites the words of all ids below size
    void idSetRange(Id begin, Id end) &;  // adds [begin, end). REQUIRES: begin < end <= size
    Id firstId() const { return nextId(Id()); }
    // Returns the smallest member above bitPos, or if bitPos is null, the smallest of all. Returns null if there is
    // none. REQUIRES: bitPos below size, or null
    Id nextId(Id bitPos) const;
    IdIterator idIterator();          // on the first member
    IdIterator idIterator(Id start);  // on start, or the next member. REQUIRES: as id(), or null
    IdIteratorConst idIteratorConst() const;
    IdIteratorConst idIteratorConst(Id start) const;
    bool idExists(Id i) const;  // as id(i), but false for null

    Iterator begin() const;  // the members below size, ascending; invalid after a change of the set
    std::default_sentinel_t end() const { return {}; }
    template <class F>
    void forEachId(F f) const;  // f(Id) for every member below size, ascending. REQUIRES: f does not change the set

    // --- algebra. REQUIRES: equal sizes ---

    IdSet& operator|=(IdSet const& other) &;
    IdSet& operator&=(IdSet const& other) &;
    IdSet& operator-=(IdSet const& other) &;
    IdSet& operator^=(IdSet const& other) &;
    friend VEL_API IdSet operator|(IdSet const& a, IdSet const& b);
    friend VEL_API IdSet operator&(IdSet const& a, IdSet const& b);
    friend VEL_API IdSet operator-(IdSet const& a, IdSet const& b);
    friend VEL_API IdSet operator^(IdSet const& a, IdSet const& b);
    IdSet operator~() const;                    // the last word keeps all its 64 bits, also those at or above size
    bool isSubsetOf(IdSet const& other) const;  // whether the bit of each member is also set in `other`
    bool isDisjointFrom(IdSet const& other) const;
    U32 idsInCommon(IdSet const& other) const;  // size of the intersection

    friend VEL_API bool operator==(IdSet const& a, IdSet const& b);  // same size, same buckets with the same words
    friend VEL_API std::strong_ordering operator<=>(
        IdSet const& a, IdSet const& b);                                         // by size, number of buckets, words
    explicit operator bool() const { return size_ != 0 || words_.size() != 0; }  // false for the default value only
    U32 hash(unsigned seed) const;

    String stringValue() const;                                                     // the range list: "(1-3,5)"
    std::size_t attrLogSize() const { return 3 + 9 * std::size_t(words_.size()); }  // bytes in the attribute log
    std::size_t allocatedBytes() const { return words_.allocatedBytes(); }          // beside the object itself

    static constexpr auto description();

private:
    static unsigned bucketOf(Id i) { return (i.value() >> 6) & 255u; }
    U64 removeBit(unsigned bucket, U64 bit);          // returns the former word
    U64 belowSize(unsigned bucket, U64 word) const {  // the bits of `word` that iteration sees
        if (bucket < size_ / 64u) [[likely]]
            return word;
        return bucket == size_ / 64u ? word & ((U64(1) << (size_ % 64)) - 1) : 0;
    }
    unsigned loopBuckets() const { return maxBuckets() & 255u; }  // where loops over all buckets end
    void check(Id i, char const* function) const {
        if (i.value() >= size_) [[unlikely]]
            failLimit(i, function);
    }
    [[noreturn]] VEL_COLD void failLimit(Id i, char const* function) const;
    void checkSameSize(IdSet const& other, char const* function) const;
    void combine(IdSet const& other, Detail::SetOp op, char const* function);
    static IdSet combined(IdSet const& a, IdSet const& b, Detail::SetOp op, char const* function);
    IdSet(U16 size, Detail::WordMap&& words) : words_(static_cast<Detail::WordMap&&>(words)), size_(size) {}

    class Builder;
    friend VEL_API IdSet sequenceToValue(StrepIterator& p, StrepIterator const& end, IdSet const* prototype);
    static IdSet parse(StrepIterator& it, StrepIterator const& end, IdSet* prototype);
    static void write(Vel::NboAttrLog::Out& out, IdSet const& set);
    static void readInto(IdSet& set, LogIn& in);
    bool truth() const { return bool(*this); }
    // Functions without overloads, for the description.
    U64 deleteBucket(BucketId b) & { return bucketDel(b); }
    U64 deleteBucketAt(BucketIterator const& at) & { return bucketDel(at); }
    IdIteratorConst walkIds() const;
    [[noreturn]] VEL_COLD static void failIterator(bool isConst, bool inKey);

    [[no_unique_address]] Detail::WordMap words_;  // its padding has room for size_
    U16 size_ = 0;
};

template <class F> void IdSet::forEachId(F f) const {
    words_.forEach([&](unsigned bucket, U64 word) {
        for (word = belowSize(bucket, word); word; word &= word - 1)
            f(Id(static_cast<U16>(bucket * 64 + static_cast<unsigned>(std::countr_zero(word)))));
    });
}

constexpr auto IdSet::description() {
    using Vel::AttributeOp;
    return Vel::record("Mox::IdSet", Vel::derived<&IdSet::size>("size"), Vel::ctorParam<Id>("initialId"),
        Vel::iterated<&IdSet::bucketIterator, &IdSet::deleteBucketAt>(
            Vel::collection<BucketId, U64, &IdSet::bucket, &IdSet::bucketIs, &IdSet::deleteBucket, &IdSet::buckets,
                &IdSet::bucketChangeCounter, &IdSet::bucketExists>("bucket")),
        Vel::declared("maxBuckets"), Vel::declared("updateBucket"), Vel::declared("updateId"),
        Vel::iterated<&IdSet::walkIds>(Vel::collection<Id, bool, &IdSet::id, &IdSet::updateId, &IdSet::idDel, Vel::none,
            Vel::none, &IdSet::idExists>("id")),
        Vel::method<&IdSet::ids>("ids"), Vel::method<&IdSet::idSetAll>("idSetAll"),
        Vel::method<&IdSet::idSetRange>("idSetRange", "begin", "end"), Vel::method<&IdSet::firstId>("firstId"),
        Vel::method<&IdSet::nextId>("nextId", "bitPos"), Vel::method<&IdSet::stringValue>("stringValue"),
        Vel::method<&IdSet::handleInitialized>("handleInitialized", "initialId"))
        .with(Vel::textBy<&IdSet::stringValue, &IdSet::parse>,
            Vel::streamBy<&IdSet::write, &IdSet::readInto, &IdSet::attrLogSize>, Vel::truth<&IdSet::truth>,
            Vel::ordered, Vel::hashBy<&IdSet::hash>, Vel::constructor<U16, Id>,
            Vel::arithmetic<AttributeOp::difference>, Vel::arithmetic<AttributeOp::bitAnd>,
            Vel::arithmetic<AttributeOp::bitOr>, Vel::arithmetic<AttributeOp::bitXor>,
            Vel::arithmetic<AttributeOp::complement>);
}

// Parses a range list at `p`, and moves `p` behind it. Returns a copy of the prototype with the ids of the text added.
// Aborts if the text is no range list of ids below the prototype's size, or throws what std::stoul throws: use it for
// trusted text only. Throws Vel::ParseException for a null prototype, since the text does not tell the size.
VEL_API IdSet sequenceToValue(StrepIterator& p, StrepIterator const& end, IdSet const* prototype);

}  // namespace Mox

// size() does not return the number of members, so a set must not be taken for a sized range.
template <> inline constexpr bool std::ranges::disable_sized_range<Mox::IdSet> = true;

#include "Mox/IdSetIter.h"
