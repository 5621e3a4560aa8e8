#pragma once

#include "Vel/String.h"
#include "Vel/Types.h"

#include <cstring>
#include <limits>
#include <string_view>

// Writing and reading single scalars at a char pointer: what the string form's public functions and the derived
// record printers and parsers share. A writer returns the end of what it wrote, into room that the caller has made.
// A reader returns the end of what it read, or null, with nothing stored, when the text there is not in canonical form.
namespace Vel::Scan {

inline constexpr std::size_t maxUnsigned = 20;  // bytes of the longest U64
inline constexpr std::size_t maxBool = 5;
inline constexpr std::size_t maxDouble = 24;  // -2.2250738585072014e-308

VEL_API char* writeDouble(char* to, double value);
VEL_API char* writeString(char* to, std::string_view text);  // needs 2 + 4 * text.size() bytes
VEL_API char const* readDouble(char const* from, char const* end, double& value);
VEL_API char const* readString(char const* from, char const* end, String& value);

inline constexpr char digitPairs[] = "0001020304050607080910111213141516171819"
                                     "2021222324252627282930313233343536373839"
                                     "4041424344454647484950515253545556575859"
                                     "6061626364656667686970717273747576777879"
                                     "8081828384858687888990919293949596979899";

inline unsigned decimalDigits(U64 value) {
    unsigned digits = 1;
    for (;;) {
        if (value < 10) return digits;
        if (value < 100) return digits + 1;
        if (value < 1000) return digits + 2;
        if (value < 10000) return digits + 3;
        value /= 10000;
        digits += 4;
    }
}

inline char* writeUnsigned(char* to, U64 value) {
    char* const end = to + decimalDigits(value);
    char* at = end;
    while (value >= 100) {
        at -= 2;
        std::memcpy(at, digitPairs + 2 * (value % 100), 2);
        value /= 100;
    }
    if (value >= 10)
        std::memcpy(at - 2, digitPairs + 2 * value, 2);
    else
        at[-1] = static_cast<char>('0' + value);
    return end;
}

inline char* writeBool(char* to, bool value) {
    std::memcpy(to, value ? "True" : "Fals", 4);
    to[4] = 'e';
    return to + (value ? 4 : 5);
}

inline bool isDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

// Reads the digits of an unsigned number no larger than T's largest. "07" reads as 0 and leaves the 7.
template <class T> inline char const* readUnsigned(char const* from, char const* end, T& value) {
    if (from == end || !isDigit(*from)) return nullptr;
    if (*from == '0') {
        value = 0;
        return from + 1;
    }
    U64 number = 0;
    char const* at = from;
    for (; at != end && isDigit(*at); ++at) {
        auto const digit = static_cast<U64>(*at - '0');
        if constexpr (sizeof(T) == 8) {
            if (__builtin_mul_overflow(number, U64(10), &number) || __builtin_add_overflow(number, digit, &number))
                return nullptr;
        } else {
            number = number * 10 + digit;
            if (number > std::numeric_limits<T>::max()) return nullptr;
        }
    }
    value = static_cast<T>(number);
    return at;
}

inline char const* readBool(char const* from, char const* end, bool& value) {
    auto const left = static_cast<std::size_t>(end - from);
    if (left >= 4 && std::memcmp(from, "True", 4) == 0) {
        value = true;
        return from + 4;
    }
    if (left >= 5 && std::memcmp(from, "False", 5) == 0) {
        value = false;
        return from + 5;
    }
    return nullptr;
}

}  // namespace Vel::Scan
