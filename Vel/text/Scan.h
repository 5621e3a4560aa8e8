#pragma once

#include "Vel/base/String.h"
#include "Vel/base/Types.h"

#include <bit>
#include <concepts>
#include <cstring>
#include <limits>
#include <string_view>

// Writes and reads single scalars at a char pointer. Strep.h and the derived printers and parsers use this; so may
// types that define their own text form. A writer needs room that the caller has made, and returns the end of what it
// wrote. A reader returns the end of what it read. If the text is not in canonical form, it returns null and stores
// nothing.
namespace Vel::Scan {

inline constexpr std::size_t maxUnsigned = 20;  // bytes of the longest U64
inline constexpr std::size_t maxBool = 5;
inline constexpr std::size_t maxDouble = 24;      // -2.2250738585072014e-308
inline constexpr std::size_t roomForDouble = 40;  // room that writeDouble needs, since it copies blocks of fixed size

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

// Writes all eight digits of a number below 10^8. The four pairs are computed independently, so the processor can
// overlap them.
inline void writeEight(char* to, U32 value) {
    U32 const high = value / 10000;
    U32 const low = value % 10000;
    std::memcpy(to, digitPairs + 2 * (high / 100), 2);
    std::memcpy(to + 2, digitPairs + 2 * (high % 100), 2);
    std::memcpy(to + 4, digitPairs + 2 * (low / 100), 2);
    std::memcpy(to + 6, digitPairs + 2 * (low % 100), 2);
}

template <std::unsigned_integral T> inline char* writeUnsigned(char* to, T value) {
    char* const end = to + decimalDigits(value);
    char* at = end;
    if constexpr (sizeof(T) == 8)
        for (; value >= 100000000; value /= 100000000) writeEight(at -= 8, static_cast<U32>(value % 100000000));
    auto rest = static_cast<U32>(value);
    while (rest >= 100) {
        at -= 2;
        std::memcpy(at, digitPairs + 2 * (rest % 100), 2);
        rest /= 100;
    }
    if (rest >= 10)
        std::memcpy(at - 2, digitPairs + 2 * rest, 2);
    else
        at[-1] = static_cast<char>('0' + rest);
    return end;
}

inline char* writeBool(char* to, bool value) {
    std::memcpy(to, value ? "True" : "Fals", 4);
    to[4] = 'e';
    return to + (value ? 4 : 5);
}

inline bool isDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

// Loads eight bytes; the first of them becomes the lowest eight bits.
inline U64 loadEight(char const* from) {
    U64 bytes;
    std::memcpy(&bytes, from, sizeof bytes);
    if constexpr (std::endian::native == std::endian::big) bytes = __builtin_bswap64(bytes);
    return bytes;
}

// Returns the number with these eight digits, each a byte from 0 to 9. Joins neighbours to pairs, pairs to groups of
// four, and those to the number.
constexpr U64 eightDigits(U64 digits) {
    constexpr U64 mask = 0x000000FF000000FFul;
    digits = digits * 10 + (digits >> 8);
    return static_cast<U32>(
        ((digits & mask) * (100 + (U64(1000000) << 32)) + ((digits >> 16) & mask) * (1 + (U64(10000) << 32))) >> 32);
}

// Appends all digits from `at` on to `number`, modulo 2^64, and returns their end. REQUIRES: the text begins at `from`
// or before. Fewer than eight digits are read without a branch on their number, which the processor could not predict.
inline char const* readDigits(char const* from, char const* at, char const* end, U64& number) {
    constexpr U64 zeros = 0x3030303030303030ul;
    static constexpr U32 powers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};
    if (end - from < 8) [[unlikely]] {
        for (; at != end && isDigit(*at); ++at) number = number * 10 + static_cast<U64>(*at - '0');
        return at;
    }
    for (;;) {
        auto const left = end - at;
        // Near the end of the text, loads its last eight bytes and shifts out those before `at`. Zero bytes move in
        // behind, which are no digits.
        U64 const bytes = left >= 8 ? loadEight(at) : loadEight(end - 8) >> (8 * (7 - left)) >> 8;
        U64 const digits = bytes - zeros;
        // Sets the top bit of each byte that is no digit. Only the first of them counts: its carry makes the bits above
        // it wrong.
        U64 const others = ((bytes + 0x4646464646464646ul) | digits) & 0x8080808080808080ul;
        if (others != 0) {
            auto const count = static_cast<unsigned>(std::countr_zero(others)) / 8;
            number = number * powers[count] + eightDigits(digits << (8 * (7 - count)) << 8);
            return at + count;
        }
        number = number * 100000000 + eightDigits(digits);
        at += 8;
    }
}

// Reads the digits of an unsigned number no larger than T's largest. "07" reads as 0 and leaves the 7.
template <class T> inline char const* readUnsigned(char const* from, char const* end, T& value) {
    if (from == end || !isDigit(*from)) return nullptr;
    if (*from == '0') {
        value = 0;
        return from + 1;
    }
    U64 number = 0;
    char const* const stop = readDigits(from, from, end, number);
    if (stop - from > 19) {  // `number` has wrapped around for 20 digits from 2^64 on; then it is less than 10^19
        if (sizeof(T) < 8 || stop - from > 20) return nullptr;
        if (*from != '1' || number < 10000000000000000000ul) return nullptr;
    }
    if (number > std::numeric_limits<T>::max()) return nullptr;
    value = static_cast<T>(number);
    return stop;
}

// Reads "True" or "False" without a branch on which it is, since the processor could not predict that.
inline char const* readBool(char const* from, char const* end, bool& value) {
    static constexpr char const* texts[] = {"False", "True"};
    auto const left = static_cast<std::size_t>(end - from);
    if (left < 4) return nullptr;
    bool const isTrue = *from == 'T';
    std::size_t const length = isTrue ? 4 : 5;
    if (left < length || std::memcmp(from, texts[isTrue], 4) != 0 || (from[length - 1] != 'e')) return nullptr;
    value = isTrue;
    return from + length;
}

}  // namespace Vel::Scan
