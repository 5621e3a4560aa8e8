#pragma once

#include "Mox/Types.h"

#include <optional>

namespace Mox {

// An unsigned integer of 63 bits that may be absent, in one word. If bit 63 is set, the value is absent: then the other
// bits mean nothing, but are kept. Its text is its decimal digits, or "None". Arithmetic is modulo 2^63; the result is
// absent if either side is. Absent sorts before every number.
// A plain value: as thread-safe as an integer.
class VEL_API MaybeU63 {
public:
    constexpr MaybeU63() = default;                 // 0, which is present
    constexpr MaybeU63(U64 word) : value_(word) {}  // takes the raw word: 2^63 and above is absent
    constexpr MaybeU63(std::nullopt_t) : value_(nullBit()) {}
    // Throws Vel::RangeException for a number of 2^63 or more.
    MaybeU63(std::optional<U64> const& number);
    MaybeU63(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    static constexpr U64 nullBit() { return U64(1) << 63; }

    constexpr U64 value() const { return value_; }  // the raw word
    constexpr void valueIs(U64 word) & { value_ = word; }
    constexpr void valueInc(U64 n) & { *this = *this + n; }  // modulo 2^63; absent stays absent
    constexpr bool null() const { return (value_ & nullBit()) != 0; }
    constexpr void nullIs(bool null) & { value_ = null ? value_ | nullBit() : value_ & ~nullBit(); }
    constexpr std::optional<U64> optional() const { return null() ? std::nullopt : std::optional<U64>(value_); }

    String stringValue() const;
    // Parses all of `s`: digits or "None", then optionally one "L" or "l". If `s` is anything else, throws
    // Vel::RangeException and changes nothing. A number of 2^63 or more has bit 63 set, so it is absent.
    void stringValueIs(String const& s) &;
    static String defaultReprAttribute() { return "stringValue"; }  // name of the attribute that shows the value best

    friend constexpr bool operator==(MaybeU63 a, MaybeU63 b) {
        return a.null() || b.null() ? a.null() == b.null() : a.value_ == b.value_;
    }
    friend constexpr bool operator<(MaybeU63 a, MaybeU63 b) {
        return a.null() || b.null() ? !b.null() : a.value_ < b.value_;
    }
    friend constexpr MaybeU63 operator+(MaybeU63 a, MaybeU63 b) { return present(a, b, a.value_ + b.value_); }
    friend constexpr MaybeU63 operator-(MaybeU63 a, MaybeU63 b) { return present(a, b, a.value_ - b.value_); }
    friend constexpr MaybeU63 operator*(MaybeU63 a, MaybeU63 b) { return present(a, b, a.value_ * b.value_); }
    // Raises SIGFPE, which ends the process, if both are present and b is 0.
    friend MaybeU63 operator/(MaybeU63 a, MaybeU63 b) {
        return a.null() || b.null() ? MaybeU63(nullBit()) : quotient(a, b);
    }

    static constexpr auto description();

private:
    static constexpr MaybeU63 present(MaybeU63 a, MaybeU63 b, U64 word) {
        return a.null() || b.null() ? MaybeU63(nullBit()) : MaybeU63(word & ~nullBit());
    }
    static MaybeU63 quotient(MaybeU63 a, MaybeU63 b);
    static void print(Vel::StrepOut& out, MaybeU63 const& value);
    static MaybeU63 parse(StrepIterator& it, StrepIterator const& end, MaybeU63*);

    U64 value_ = 0;
};

constexpr auto MaybeU63::description() {
    using Vel::AttributeOp;
    return Vel::record("Mox::MaybeU63", Vel::field<&MaybeU63::value_>("value"),
        Vel::derived<&MaybeU63::null, &MaybeU63::nullIs>("null"), Vel::constant<&MaybeU63::nullBit>("nullBit"),
        Vel::derived<&MaybeU63::stringValue, &MaybeU63::stringValueIs>("stringValue"),
        Vel::constant<&MaybeU63::defaultReprAttribute>("defaultReprAttribute"))
        .with(Vel::textBy<&MaybeU63::print, &MaybeU63::parse>, Vel::ordered, Vel::arithmetic<AttributeOp::sum>,
            Vel::arithmetic<AttributeOp::difference>, Vel::arithmetic<AttributeOp::product>,
            Vel::arithmetic<AttributeOp::quotient>, Vel::constructor<U64>);
}

// Parses one value at `it`, and moves `it` behind the value. Throws Vel::RangeException if there is none.
VEL_API MaybeU63 sequenceToValue(StrepIterator& it, StrepIterator const& end, MaybeU63* type);

}  // namespace Mox
