#pragma once

#include "Vel/base/Types.h"

#include <array>
#include <bit>

// The powers of ten as 128-bit significands, computed at compile time.
namespace Vel::Scan {

__extension__ typedef unsigned __int128 U128;

inline constexpr int leastPower = -292, mostPower = 324;  // range needed for the shortest decimals of doubles

struct Significand {
    U64 high, low;
};

// Returns the binary exponent n of 10^k: 2^n <= 10^k < 2^(n + 1). REQUIRES: |k| <= 1233.
constexpr int powerExponent(int k) { return (k * 1741647) >> 19; }

namespace Detail {

// A number of 1152 bits, least limb first.
using Large = std::array<U64, 18>;

// Returns 128 bits from the highest set bit on, rounded up if a lower bit is set, or if `alwaysUp`.
constexpr Significand leading(Large const& n, bool alwaysUp) {
    std::size_t top = n.size() - 1;
    while (n[top] == 0) --top;
    auto const limb = [&](std::size_t back) { return back <= top ? n[top - back] : 0; };
    auto const shift = static_cast<unsigned>(std::countl_zero(n[top]));
    auto const joined = [&](std::size_t back) {
        return shift == 0 ? limb(back) : limb(back) << shift | limb(back + 1) >> (64 - shift);
    };
    bool up = alwaysUp || limb(2) << shift != 0;
    for (std::size_t back = 3; back <= top; ++back) up = up || limb(back) != 0;
    U128 const both = ((U128(joined(0)) << 64) | joined(1)) + (up ? 1 : 0);
    return {static_cast<U64>(both >> 64), static_cast<U64>(both)};
}

constexpr auto computePowers() {
    std::array<Significand, mostPower - leastPower + 1> powers{};
    Large n{1};
    for (int k = 0; k <= mostPower; ++k) {
        powers[static_cast<std::size_t>(k - leastPower)] = leading(n, false);
        U64 carry = 0;
        for (U64& limb : n) {
            U128 const product = U128(limb) * 10 + carry;
            limb = static_cast<U64>(product);
            carry = static_cast<U64>(product >> 64);
        }
    }
    // Repeated division of a high power of two by ten is exact enough, since floor(floor(x / 10) / 10) is
    // floor(x / 100).
    n = {};
    n.back() = U64(1) << 63;
    for (int k = -1; k >= leastPower; --k) {
        U64 rest = 0;
        for (std::size_t i = n.size(); i-- > 0;) {
            U128 const part = U128(rest) << 64 | n[i];
            n[i] = static_cast<U64>(part / 10);
            rest = static_cast<U64>(part % 10);
        }
        powers[static_cast<std::size_t>(k - leastPower)] = leading(n, true);
    }
    return powers;
}

inline constexpr auto powers = computePowers();

}  // namespace Detail

// Returns g, rounded up, such that 10^k = g * 2^(powerExponent(k) - 127). REQUIRES: leastPower <= k <= mostPower.
inline Significand powerOfTen(int k) { return Detail::powers[static_cast<std::size_t>(k - leastPower)]; }

}  // namespace Vel::Scan
