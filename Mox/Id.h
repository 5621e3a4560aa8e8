#pragma once

#include "Mox/Types.h"

#include <compare>

// Identifiers, and the numbers of the buckets that sets keep them in. As thread-safe as integers.
namespace Mox {

// An identifier; 65535 is no identifier.
class VEL_API Id {
public:
    constexpr Id() : value_(null()) {}
    constexpr Id(U16 value) : value_(value) {}
    Id(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Id(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    static constexpr U16 null() { return 65535; }
    constexpr U16 value() const { return value_; }
    constexpr void valueIs(U16 v) & { value_ = v; }
    constexpr U32 hash(unsigned seed) const { return Vel::hashSingleAttr(seed, value_); }

    friend constexpr bool operator==(Id, Id) = default;
    friend constexpr auto operator<=>(Id, Id) = default;

    static constexpr auto description() {
        return Vel::number("Mox::Id", Vel::field<&Id::value_>("value"), Vel::constant<&Id::null>("null"))
            .with(Vel::truth<&Id::isId>, Vel::hashBy<&Id::hash>);
    }

private:
    constexpr bool isId() const { return value_ < null(); }

    U16 value_;
};

// Index of a bucket of 64 ids: an id's value divided by 64, modulo 256.
class VEL_API BucketId {
public:
    constexpr BucketId() = default;
    constexpr BucketId(U8 value) : value_(value) {}
    BucketId(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    BucketId(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U8 value() const { return value_; }
    constexpr void valueIs(U8 v) & { value_ = v; }
    constexpr U32 hash(unsigned seed) const { return Vel::hashSingleAttr(seed, value_); }

    friend constexpr bool operator==(BucketId, BucketId) = default;
    friend constexpr auto operator<=>(BucketId, BucketId) = default;

    static constexpr auto description() {
        return Vel::number("Mox::BucketId", Vel::field<&BucketId::value_>("value")).with(Vel::hashBy<&BucketId::hash>);
    }

private:
    U8 value_ = 0;
};

}  // namespace Mox
