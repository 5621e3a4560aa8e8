#pragma once

#include "Vel/base/String.h"
#include "Vel/base/Types.h"

#include <bit>
#include <concepts>
#include <cstdint>
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

// Loads fewer than eight bytes, the first into the lowest eight bits. The others are zero. REQUIRES: at < end.
[[gnu::noinline]] inline U64 loadFewer(char const* at, char const* end) {
    auto const left = static_cast<std::size_t>(end - at);
    auto const byte = [at](std::size_t i) { return U64(static_cast<unsigned char>(at[i])) << (8 * i); };
    if (left < 4) return byte(0) | byte(left / 2) | byte(left - 1);
    auto const four = [](char const* place) {
        U32 bytes;
        std::memcpy(&bytes, place, sizeof bytes);
        return U64(std::endian::native == std::endian::big ? __builtin_bswap32(bytes) : bytes);
    };
    return four(at) | four(end - 4) << (8 * (left - 4));
}

// Loads up to eight bytes at `at`. Zero bytes, which are no digits, stand for those behind `end`.
// REQUIRES: the eight bytes before `end` may be read; at < end.
inline U64 loadUpToEight(char const* at, char const* end) {
    auto const left = static_cast<std::size_t>(end - at);
    std::size_t const size = left < 8 ? left : 8;
    return loadEight(at + size - 8) >> (64 - 8 * size);  // shifts out the bytes before `at`
}

// The digits at the beginning of eight bytes. They are counted and read without a branch on their number, which the
// processor could not predict.
class LeadingDigits {
public:
    explicit LeadingDigits(U64 bytes) : digits_(bytes - 0x3030303030303030ul) {
        // Sets the top bit of each byte that is no digit. Only the first of them counts: its carry makes the bits above
        // it wrong.
        U64 const others = ((bytes + 0x4646464646464646ul) | digits_) & 0x8080808080808080ul;
        bits_ = static_cast<unsigned>(std::countr_zero(others));
    }

    unsigned count() const { return bits_ / 8; }        // 0 to 8
    U64 eight() const { return eightDigits(digits_); }  // their number; REQUIRES: count() is 8
    // Their number; REQUIRES: count() is from 1 to 7. Zeros move in before them.
    U64 fewer() const { return eightDigits(digits_ << ((7u - bits_) & 63)); }

private:
    U64 digits_;
    unsigned bits_;
};

inline constexpr U32 smallPowers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};

// Appends all digits from `at` on to `number`, modulo 2^64, and returns their end. REQUIRES: the text begins at `from`
// or before.
[[gnu::always_inline]] inline char const* readDigits(char const* from, char const* at, char const* end, U64& number) {
    while (at != end) {
        LeadingDigits const digits(end - from >= 8 ? loadUpToEight(at, end) : loadFewer(at, end));
        unsigned const count = digits.count();
        if (count != 8) {
            if (count != 0) number = number * smallPowers[count] + digits.fewer();
            return at + count;
        }
        number = number * 100000000 + digits.eight();
        at += 8;
    }
    return at;
}

// Reads an unsigned number of any length up to `most`, a U32's or a U64's largest.
VEL_API char const* readLongUnsigned(char const* from, char const* end, U64 most, U64& value);

// Reads the digits of an unsigned number no larger than T's largest. "07" reads as 0 and leaves the 7.
template <class T> inline char const* readUnsigned(char const* from, char const* end, T& value) {
    if (from == end) return nullptr;
    LeadingDigits const digits(end - from >= 8 ? loadEight(from) : loadFewer(from, end));
    unsigned const count = digits.count();
    if (static_cast<unsigned char>(*from - '1') > 8) [[unlikely]] {
        if (*from != '0') return nullptr;
        value = 0;
        return from + 1;
    }
    if (count != 8) [[likely]] {
        U64 const number = digits.fewer();
        if (sizeof(T) < 4 && number > std::numeric_limits<T>::max()) return nullptr;
        value = static_cast<T>(number);
        return from + count;
    }
    if (sizeof(T) < 4) return nullptr;
    U64 number = 0;
    char const* const stop = readLongUnsigned(from, end, std::numeric_limits<T>::max(), number);
    if (stop) value = static_cast<T>(number);
    return stop;
}

// These read the same as the functions without "Inside", and faster. They may load what is before the number, too.
// REQUIRES: at least roomBefore bytes before `from` may be read; from <= end.
inline constexpr std::size_t roomBefore = 32;
VEL_API char const* readUnsignedInside(char const* from, char const* end, U64 most, U64& value);
VEL_API char const* readDoubleInside(char const* from, char const* end, double& value);
template <class T> inline char const* readUnsignedInside(char const* from, char const* end, T& value) {
    U64 number = 0;
    char const* const stop = readUnsignedInside(from, end, std::numeric_limits<T>::max(), number);
    value = static_cast<T>(number);
    return stop;
}

// Reads "True" or "False" without a branch on which it is, since the processor could not predict that.
inline char const* readBool(char const* from, char const* end, bool& value) {
    auto const left = static_cast<std::size_t>(end - from);
    if (left < 4) return nullptr;
    auto const four = [](char const* place) {
        U32 bytes;
        std::memcpy(&bytes, place, sizeof bytes);
        return bytes;
    };
    U32 const bytes = four(from);
    char const last = from[left < 5 ? 3 : 4];  // of "False"
    bool const isTrue = bytes == four("True");
    bool const isFalse = (bytes == four("Fals")) & (last == 'e') & (left >= 5);
    if (!(isTrue | isFalse)) return nullptr;
    value = isTrue;
    return from + 5 - isTrue;
}

}  // namespace Vel::Scan
