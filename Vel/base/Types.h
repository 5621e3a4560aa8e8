#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>

// Exports a symbol from the library. Symbols without it are hidden, so that users can't depend on them.
#define VEL_API __attribute__((visibility("default")))
// Marks a function that reports an error, so that its code is not inlined into the functions that call it.
#define VEL_COLD __attribute__((cold, noinline))

namespace Vel {

using U8 = unsigned char;
using U16 = unsigned short;
using U32 = unsigned int;
using U64 = unsigned long;
using F64 = double;

static_assert(sizeof(U16) == 2 && sizeof(U32) == 4 && sizeof(U64) == 8, "the framework needs an LP64 platform");

// Number of an attribute within its type. Attributes of a value type are numbered from 2, those of an entity from 258.
using AttributeId = U32;
inline constexpr AttributeId firstValueAttributeId = 2;
inline constexpr AttributeId firstEntityAttributeId = 258;

// A one-bit flag. It is a class and not an alias of bool, so that it can be parsed and registered under its own name.
// U1 and Seconds are exported, since a template whose argument is a hidden type is hidden too.
class VEL_API U1 {
public:
    constexpr U1() = default;
    template <std::same_as<bool> B>  // does not convert pointers and numbers
    constexpr U1(B value) : value_(value) {}
    constexpr operator bool() const { return value_; }

private:
    bool value_ = false;
};

// Matches std::chrono::duration by its members, so that this header does not need <chrono>.
template <class D>
concept Duration = requires(D d) {
    typename D::rep;
    D::period::num;
    D::period::den;
    d.count();
};

// A time stamp (seconds since 1970-01-01 00:00 UTC) or a duration, in seconds.
// Compares as its double does: a NaN is unequal to everything, itself included.
class VEL_API Seconds {
public:
    constexpr Seconds() = default;
    constexpr Seconds(double seconds) : value_(seconds) {}
    template <Duration D>
    constexpr Seconds(D d)
        : value_(static_cast<double>(d.count()) * static_cast<double>(D::period::num) /
                 static_cast<double>(D::period::den)) {}

    constexpr double value() const { return value_; }  // in seconds
    constexpr explicit operator double() const { return value_; }
    // Truncates towards zero where D counts in integers. REQUIRES: the value is finite and fits D.
    template <Duration D> constexpr explicit operator D() const {
        return D(static_cast<typename D::rep>(
            value_ * static_cast<double>(D::period::den) / static_cast<double>(D::period::num)));
    }

    friend constexpr bool operator==(Seconds, Seconds) = default;
    friend constexpr auto operator<=>(Seconds, Seconds) = default;

private:
    double value_ = 0.0;
};

// Tag of the constructors that read a value from the attribute log, so that they are not called by accident.
struct StreamBogon {};

}  // namespace Vel
