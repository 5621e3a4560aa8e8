#pragma once

#include "Mox/Types.h"

#include <optional>

namespace Mox {

// An unsigned integer of 63 bits that may be absent, in one word: bit 63 set means absent, and then the low bits carry
// no meaning, but are kept. Prints as its decimal digits or "None". Arithmetic is modulo 2^63 and yields the absent
// value when either side is absent. Absent sorts before every number.
// A plain value: as thread-safe as an integer.
class VEL_API MaybeU63 {
public:
    constexpr MaybeU63() = default;                 // 0, which is present
    constexpr MaybeU63(U64 word) : value_(word) {}  // the raw word: 2^63 and above is absent
    constexpr MaybeU63(std::nullopt_t) : value_(nullBit()) {}
    // Throws Vel::RangeException for a number of 2^63 or more.
    MaybeU63(std::optional<U64> const& number);
    MaybeU63(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    static constexpr U64 nullBit() { return U64(1) << 63; }

    constexpr U64 value() const { return value_; }  // the raw word
    constexpr void valueIs(U64 word) & { value_ = word; }
    constexpr void valueInc(U64 n) & { *this = *this + n; }  // the sum: modulo 2^63; absent stays absent
    constexpr bool null() const { return (value_ & nullBit()) != 0; }
    constexpr void nullIs(bool null) & { value_ = null ? value_ | nullBit() : value_ & ~nullBit(); }
    constexpr std::optional<U64> optional() const { return null() ? std::nullopt : std::optional<U64>(value_); }

    String stringValue() const;
    // Parses the whole of `s`: digits or "None", then perhaps one "L" or "l". Throws Vel::RangeException and changes
    // nothing otherwise. A number of 2^63 or more, which needs bit 63, reads as absent.
    void stringValueIs(String const& s) &;
    static String defaultReprAttribute() { return "stringValue"; }  // the attribute that shows the value best

    friend constexpr bool operator==(MaybeU63 a, MaybeU63 b) {
        return a.null() || b.null() ? a.null() == b.null() : a.value_ == b.value_;
    }
    friend constexpr bool operator<(MaybeU63 a, MaybeU63 b) {
        return a.null() || b.null() ? !b.null() : a.value_ < b.value_;
    }
    friend constexpr MaybeU63 operator+(MaybeU63 a, MaybeU63 b) { return present(a, b, a.value_ + b.value_); }
    friend constexpr MaybeU63 operator-(MaybeU63 a, MaybeU63 b) { return present(a, b, a.value_ - b.value_); }
    friend constexpr MaybeU63 operator*(MaybeU63 a, MaybeU63 b) { return present(a, b, a.value_ * b.value_); }
    // Raises SIGFPE, which is fatal, when both are present and b is 0.
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

// Parses one value at `it`, which moves behind it. Throws Vel::RangeException at the end of the text.
VEL_API MaybeU63 sequenceToValue(StrepIterator& it, StrepIterator const& end, MaybeU63* type);

}  // namespace Mox
