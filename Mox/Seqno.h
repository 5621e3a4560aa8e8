#pragma once

#include "Mox/Types.h"

// Sequence numbers that wrap around and are compared by serial-number arithmetic: a number just past the wrap is later
// than one just before it. The order is meant for numbers less than half the range apart; it is not transitive over the
// whole range, and two numbers exactly half the range apart are each less than the other.
// Plain values: as thread-safe as an integer.
namespace Mox {

class VEL_API Seqno16 {
public:
    constexpr Seqno16() = default;
    constexpr Seqno16(U16 value) : value_(value) {}
    Seqno16(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Seqno16(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U16 value() const { return value_; }
    constexpr void valueIs(U16 value) & { value_ = value; }
    constexpr void valueInc(U16 n) & { value_ = static_cast<U16>(value_ + n); }  // modulo 2^16

    friend constexpr bool operator==(Seqno16, Seqno16) = default;
    constexpr bool operator<(Seqno16 other) const { return (static_cast<U16>(value_ - other.value_) & 0x8000u) != 0; }
    friend constexpr bool operator<(Seqno16 a, unsigned short b) { return a < Seqno16(b); }

    static constexpr auto description() {
        return Vel::number("Mox::Seqno16", Vel::field<&Seqno16::value_>("value")).with(Vel::ordered);
    }

private:
    U16 value_ = 0;
};

class VEL_API Seqno32 {
public:
    constexpr Seqno32() = default;
    constexpr Seqno32(U32 value) : value_(value) {}
    Seqno32(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Seqno32(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U32 value() const { return value_; }
    constexpr void valueIs(U32 value) & { value_ = value; }
    constexpr void valueInc(U32 n) & { value_ += n; }  // modulo 2^32

    friend constexpr bool operator==(Seqno32, Seqno32) = default;
    constexpr bool operator<(Seqno32 other) const { return ((value_ - other.value_) & 0x80000000u) != 0; }
    friend constexpr bool operator<(Seqno32 a, unsigned int b) { return a < Seqno32(b); }

    static constexpr auto description() {
        return Vel::number("Mox::Seqno32", Vel::field<&Seqno32::value_>("value")).with(Vel::ordered);
    }

private:
    U32 value_ = 0;
};

}  // namespace Mox
