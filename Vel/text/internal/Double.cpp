#include "Vel/text/Scan.h"
#include "Vel/text/internal/PowersOfTen.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// Doubles as the shortest decimal that reads back to the same double, in the layout of Python's repr.
namespace Vel::Scan {

namespace {

constexpr double exactPowers[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
    1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr int mostExactPower = 22;
constexpr U64 millionthsLimit = U64(1) << 52;
constexpr U64 hiddenBit = U64(1) << 52;

struct Decimal {  // digits * 10^exponent
    U64 digits;
    int exponent;
};

// --- printing ---

// Sets `millionths` if `value` is a decimal with at most six places and less than 2^52 millionths. Returns false if it
// is not, or if it is so small that its text has an exponent.
// Such decimals are further apart than the doubles around them. So each of them is the shortest text of its double, and
// the double is the correctly rounded quotient of two exact integers. All time stamps of this century, to the
// microsecond, are such decimals.
bool asMillionths(double value, U64& millionths) {
    if (!(value < 4.5e9)) return false;
    auto const scaled = static_cast<U64>(static_cast<std::int64_t>(value * 1e6 + 0.5));
    if (scaled >= millionthsLimit || static_cast<double>(scaled) / 1e6 != value) return false;
    millionths = scaled;
    return scaled >= 100 || scaled == 0;
}

// Returns the upper 64 bits of g * c, and sets the lowest of them if bits below are set. That is enough to compare
// exactly.
inline U64 productToOdd(Significand g, U64 c) {
    U128 const low = U128(g.low) * c;
    U128 const high = U128(g.high) * c + (low >> 64);
    return static_cast<U64>(high >> 64) | (static_cast<U64>(high) > 1 ? 1 : 0);
}

// Returns, of all decimals that read back to the double, one with the fewest digits, and the nearest of those. It may
// end with zeros. The algorithm is Schubfach (Raffaele Giulietti, "The Schubfach way to render doubles", 2020).
// REQUIRES: 0 < value < infinity.
Decimal shortestDecimal(double value) {
    auto const bits = std::bit_cast<U64>(value);
    U64 const fraction = bits & (hiddenBit - 1);
    auto const biased = static_cast<int>(bits >> 52);
    U64 const c = biased != 0 ? hiddenBit | fraction : fraction;
    int const q = (biased != 0 ? biased : 1) - 1075;
    bool const even = c % 2 == 0;                                      // the ends of the interval round to it, too
    bool const belowIsNearer = fraction == 0 && biased > 1;            // the next double below is half as far away
    int const k = (q * 1262611 - (belowIsNearer ? 524031 : 0)) >> 22;  // power of ten of the last digit
    int const h = q + powerExponent(-k) + 1;
    Significand const g = powerOfTen(-k);
    // Four times the value and the ends of its interval, in units of 10^k.
    U64 const middle = productToOdd(g, (4 * c) << h);
    U64 const lower = productToOdd(g, (4 * c - (belowIsNearer ? 1 : 2)) << h) + (even ? 0 : 1);
    U64 const upper = productToOdd(g, (4 * c + 2) << h) - (even ? 0 : 1);
    U64 const s = middle / 4;
    if (s >= 10) {  // tries one digit fewer
        U64 const tens = s / 10;
        bool const downInside = lower <= 40 * tens;
        bool const upInside = 40 * tens + 40 <= upper;
        if (downInside != upInside) return {tens + (upInside ? 1 : 0), k + 1};
    }
    bool const downInside = lower <= 4 * s;
    bool const upInside = 4 * s + 4 <= upper;
    if (downInside != upInside) return {s + (upInside ? 1 : 0), k};
    U64 const half = 4 * s + 2;
    bool const up = middle > half || (middle == half && s % 2 != 0);
    return {s + (up ? 1 : 0), k};
}

char* writeSixPlaces(char* to, U32 places) {
    if (places == 0) {
        *to = '0';
        return to + 1;
    }
    std::memcpy(to, digitPairs + 2 * (places / 10000), 2);
    std::memcpy(to + 2, digitPairs + 2 * (places / 100 % 100), 2);
    std::memcpy(to + 4, digitPairs + 2 * (places % 100), 2);
    char* end = to + 6;
    while (end[-1] == '0') --end;
    return end;
}

char* writeExponent(char* to, int exponent) {
    *to++ = 'e';
    *to++ = exponent < 0 ? '-' : '+';
    auto const size = static_cast<unsigned>(std::abs(exponent));
    if (size >= 100) *to++ = static_cast<char>('0' + size / 100);
    std::memcpy(to, digitPairs + 2 * (size % 100), 2);
    return to + 2;
}

char* writeShortest(char* to, double value) {
    Decimal decimal = shortestDecimal(value);
    constexpr U64 least = 10000000000000000ul;  // the least number of 17 digits
    while (decimal.digits < least) {
        decimal.digits *= 10;
        --decimal.exponent;
    }
    int const exponent = decimal.exponent + 16;  // power of ten of the first digit
    char digits[40];                             // larger than 17, since blocks of fixed size are copied from it
    digits[0] = static_cast<char>('0' + decimal.digits / least);
    U64 const rest = decimal.digits % least;
    writeEight(digits + 1, static_cast<U32>(rest / 100000000));
    writeEight(digits + 9, static_cast<U32>(rest % 100000000));
    std::ptrdiff_t count = 17;
    while (digits[count - 1] == '0') --count;

    if (exponent < -4 || exponent >= 16) {
        *to = digits[0];
        to[1] = '.';
        std::memcpy(to + 2, digits + 1, 16);
        return writeExponent(count == 1 ? to + 1 : to + 1 + count, exponent);
    }
    if (exponent < 0) {
        std::memcpy(to, "0.000", 5);
        to += 1 - exponent;
        std::memcpy(to, digits, 17);
        return to + count;
    }
    std::ptrdiff_t const whole = exponent + 1;
    std::memcpy(to, digits, 16);  // zeros follow the last digit
    to[whole] = '.';
    std::memcpy(to + whole + 1, digits + whole, 16);
    return to + 1 + std::max(count, whole + 1);
}

}  // namespace

char* writeDouble(char* to, double value) {
    if (std::signbit(value)) {
        *to = '-';
        to += std::isnan(value) ? 0 : 1;  // the text of a NaN has no sign
        value = -value;
    }
    U64 millionths = 0;
    if (asMillionths(value, millionths)) {
        to = writeUnsigned(to, millionths / 1000000);
        *to++ = '.';
        return writeSixPlaces(to, static_cast<U32>(millionths % 1000000));
    }
    if (std::isnan(value)) return std::copy_n("nan", 3, to);
    if (std::isinf(value)) return std::copy_n("inf", 3, to);
    return writeShortest(to, value);
}

// --- reading ---

namespace {

// Handles the general case: reads by std::from_chars, and accepts the text only if writeDouble() writes the same.
VEL_COLD char const* readDoubleSlow(char const* from, char const* end, double& value) {
    char const* stop = from;
    while (stop != end && (isDigit(*stop) || std::strchr(".e+-infa", *stop)) && *stop) ++stop;
    double number = 0;
    auto const [at, error] = std::from_chars(from, stop, number);
    if (error != std::errc() && error != std::errc::result_out_of_range) return nullptr;
    char text[roomForDouble];
    char const* const textEnd = writeDouble(text, number);
    if (at - from != textEnd - text || std::memcmp(from, text, static_cast<std::size_t>(textEnd - text)) != 0)
        return nullptr;
    value = number;
    return at;
}

// Sets `value` to the double that is nearest to the decimal, found by a product of 128 bits (as in Daniel Lemire,
// "Number Parsing at a Gigabyte per Second", 2021). Returns false if the product does not decide which double is the
// nearest, or whether writeDouble() writes these digits for it.
// REQUIRES: the decimal is not zero and its last digit is not zero.
bool nearestDouble(Decimal decimal, double& value) {
    if (decimal.exponent < leastPower || decimal.exponent > mostPower) return false;
    auto const leadingZeros = std::countl_zero(decimal.digits);
    Significand const g = powerOfTen(decimal.exponent);
    U64 const w = decimal.digits << leadingZeros;
    U128 const product = U128(w) * g.high + ((U128(w) * g.low) >> 64);  // less than 1 away from the true product
    auto const high = static_cast<U64>(product >> 64);
    auto const low = static_cast<U64>(product);
    int const shift = 10 + static_cast<int>(high >> 63);
    U64 const rest = high << (64 - shift) | low >> shift;  // bits below the 53, in units of 2^-64 of the last of those
    constexpr U64 half = U64(1) << 63;
    if (rest - (half - 4) <= 8) return false;
    bool const up = rest > half;
    U64 const mantissa = (high >> shift) + (up ? 1 : 0);
    int const biased = powerExponent(decimal.exponent) + 1 - leadingZeros + shift + 1075;
    // The doubles on the two sides of a power of two are not equally far away.
    if (mantissa == hiddenBit || mantissa == 2 * hiddenBit || biased < 1 || biased > 2046) return false;
    value = std::bit_cast<double>(static_cast<U64>(biased) << 52 | (mantissa & (hiddenBit - 1)));
    constexpr U64 sixteenDigits = 1000000000000000ul;
    if (decimal.digits < sixteenDigits) return true;  // up to 15 digits always read back, so no shorter text does

    // writeDouble() writes 16 or 17 digits if no other last digit is nearer, and if both decimals with one digit fewer
    // are outside the interval that rounds to the double. All amounts are in units of 2^-56 of the double's last bit,
    // and exact to about one unit. Cases within the margin are left to readDoubleSlow().
    if (decimal.digits >= 100 * sixteenDigits) return false;
    constexpr std::int64_t one = std::int64_t(1) << 56;
    constexpr std::int64_t margin = 64;
    auto const distance = static_cast<std::int64_t>(rest >> 8) - (up ? one : 0);  // from the double to the decimal
    auto const unit = static_cast<std::int64_t>(g.high >> (8 + shift - leadingZeros));  // 1 in the decimal's last digit
    auto const lastDigit = static_cast<std::int64_t>(decimal.digits % 10);
    return 2 * std::abs(distance) + margin < unit && lastDigit * unit - distance > one / 2 + margin &&
           (10 - lastDigit) * unit + distance > one / 2 + margin;
}

// Sets `value` to the double whose shortest decimal this is. Returns false if that has to be found out in another way.
// REQUIRES: the decimal's last digit is not zero, or it is the only place; its whole number is `wholeNumber`.
inline bool magnitudeOf(Decimal decimal, U64 wholeNumber, double& value) {
    // For these decimals the quotient is right: see asMillionths(); and up to 15 digits always read back.
    bool const few = decimal.digits < 1000000000000000ul ||
                     (decimal.exponent >= -6 && decimal.digits < 4000000000000000ul && wholeNumber < 4500000000ul);
    if (!few || decimal.exponent > 0 || decimal.exponent < -mostExactPower) return nearestDouble(decimal, value);
    value = static_cast<double>(static_cast<std::int64_t>(decimal.digits)) / exactPowers[-decimal.exponent];
    return true;
}

// Reads "e+16" or "e-05" into `exponent`. Returns the end, or null if writeDouble() never writes such an exponent.
char const* readExponent(char const* at, char const* end, int& exponent) {
    if (end - at < 4 || (at[1] != '+' && at[1] != '-')) return nullptr;
    bool const negative = at[1] == '-';
    char const* const first = at += 2;
    int size = 0;
    while (at != end && isDigit(*at) && at - first < 4) size = 10 * size + (*at++ - '0');
    bool const good = at - first == 2 ? size >= (negative ? 5 : 16) : at - first == 3 && *first != '0';
    exponent = negative ? -size : size;
    return good ? at : nullptr;
}

}  // namespace

char const* readDouble(char const* from, char const* end, double& value) {
    char const* at = from;
    bool const negative = at != end && *at == '-';
    if (negative) ++at;
    char const* const whole = at;
    U64 number = 0;
    at = readDigits(from, at, end, number);
    std::ptrdiff_t const wholeDigits = at - whole;
    if (wholeDigits == 0 || wholeDigits > 16 || (*whole == '0' && wholeDigits > 1) || at == end || *at != '.')
        [[unlikely]]
        return readDoubleSlow(from, end, value);
    U64 const wholeNumber = number;
    char const* const fraction = ++at;
    at = readDigits(from, at, end, number);
    std::ptrdiff_t const places = at - fraction;
    if (places == 0) [[unlikely]]
        return readDoubleSlow(from, end, value);
    if (wholeDigits + places > 19) {  // 19 digits fit into U64
        std::ptrdiff_t digits = wholeDigits + places;
        if (wholeNumber == 0)
            for (char const* zero = fraction; zero != at && *zero == '0'; ++zero) --digits;
        if (digits > 19 || places > mostExactPower) return readDoubleSlow(from, end, value);
    }
    Decimal decimal{number, static_cast<int>(-places)};
    if (at[-1] == '0') [[unlikely]] {
        bool const isWhole = places == 1 && wholeNumber <= 2 * hiddenBit && (at == end || *at != 'e');
        if (!isWhole) return readDoubleSlow(from, end, value);
        auto const magnitude = static_cast<double>(wholeNumber);
        value = negative ? -magnitude : magnitude;
        return at;
    }
    if (at != end && *at == 'e') [[unlikely]] {
        int exponent = 0;
        at = readExponent(at, end, exponent);
        if (!at || wholeDigits != 1 || wholeNumber == 0) return readDoubleSlow(from, end, value);
        decimal.exponent += exponent;
    } else if (wholeNumber == 0 && places > 4 && static_cast<double>(decimal.digits) < exactPowers[places - 4]) {
        return readDoubleSlow(from, end, value);  // below 1e-4, a canonical text has an exponent
    }

    double magnitude = 0;
    if (!magnitudeOf(decimal, wholeNumber, magnitude)) return readDoubleSlow(from, end, value);
    value = negative ? -magnitude : magnitude;
    return at;
}

char const* readLongUnsigned(char const* from, char const* end, U64 most, U64& value) {
    U64 number = 0;
    char const* const stop = readDigits(from, from, end, number);
    if (stop - from > 19) {  // `number` has wrapped around for 20 digits from 2^64 on; then it is less than 10^19
        if (stop - from > 20 || *from != '1' || number < 10000000000000000000ul) return nullptr;
    }
    if (number > most) return nullptr;
    value = number;
    return stop;
}

// --- reading with what is before the number ---

#if defined(__SSE2__)

namespace {

constexpr U64 integerPowers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000, 1000000000, 10000000000,
    100000000000, 1000000000000, 10000000000000, 100000000000000, 1000000000000000, 10000000000000000};

inline __m128i loadSixteen(void const* from) { return _mm_loadu_si128(static_cast<__m128i const*>(from)); }

// Returns a bit for each of sixteen bytes that is no digit.
inline U64 othersOf(char const* from) {
    __m128i const moved = _mm_add_epi8(loadSixteen(from), _mm_set1_epi8(static_cast<char>(-128 - '0')));
    return static_cast<U64>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(moved, _mm_set1_epi8(-128 + 9)))));
}

// A mask of the last `count` of sixteen bytes that makes digits of ASCII digits. REQUIRES: count <= 16.
inline __m128i lastDigits(std::size_t count) {
    static constexpr unsigned char masks[32] = {
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15};
    return loadSixteen(masks + count);
}

// Returns the number with these sixteen digits. They are joined to pairs, to groups of four, and to two of eight, as in
// Daniel Lemire, "Quickly parsing eight digits", 2018, but in a vector.
inline U64 sixteenDigits(__m128i digits) {
    __m128i const pairs = _mm_srli_epi16(_mm_mullo_epi16(digits, _mm_set1_epi16(10 * 256 + 1)), 8);
    __m128i const fours = _mm_madd_epi16(pairs, _mm_set1_epi32(100 + (1 << 16)));
    __m128i const eights = _mm_madd_epi16(_mm_packs_epi32(fours, fours), _mm_set1_epi32(10000 + (1 << 16)));
    auto const both = static_cast<U64>(_mm_cvtsi128_si64(eights));
    return static_cast<U32>(both) * U64(100000000) + (both >> 32);
}

// Returns the number of the last `count` digits before `end`. REQUIRES: count <= 16.
inline U64 digitsBefore(char const* end, std::size_t count) {
    return sixteenDigits(_mm_and_si128(loadSixteen(end - 16), lastDigits(count)));
}

// Reads a decimal of more digits than a division can take. `places` digits are before `at`, and all digits are `digits`.
[[gnu::noinline]] char const* readLongDecimal(
    char const* from, char const* end, double& value, U64 digits, std::size_t places, char const* at) {
    if (!nearestDouble({digits, -static_cast<int>(places)}, value)) [[unlikely]]
        return readDouble(from, end, value);
    return at;
}

// Reads decimals of up to 20 digits, by the places of the first two bytes that are no digits. Nothing here branches on a
// number of digits but for 17 and more, since the processor could not predict that.
char const* readLongDoubleInside(char const* from, char const* end, double& value) {
    auto const left = static_cast<std::size_t>(end - from);
    std::size_t const before = left < 32 ? 32 - left : 0;
    // All bits from `end` on are set.
    U64 const others = (othersOf(from - before) | othersOf(from - before + 16) << 16 | U64(3) << 32) >> before;
    auto const whole = static_cast<std::size_t>(std::countr_zero(others));
    auto const stop = static_cast<std::size_t>(std::countr_zero(others & (others - 1)));
    std::size_t const places = stop - whole - 1;
    // Leaves a sign, an exponent, many digits, and what is wrong to the other reader.
    if (whole - 1 > 15 || places - 1 > 19 || stop > std::min<std::size_t>(left, 31)) [[unlikely]]
        return readDouble(from, end, value);
    char const* const at = from + stop;
    bool const isBelowOne = *from == '0';
    if (from[whole] != '.' || at[-1] == '0' || (isBelowOne && whole != 1) || (stop != left && *at == 'e'))
        [[unlikely]] {
        // What ends with a zero is a whole number.
        if (from[whole] != '.' || (isBelowOne && whole != 1) || (stop != left && *at == 'e') || places != 1)
            return readDouble(from, end, value);
        U64 const number = digitsBefore(from + whole, whole);
        if (number > 2 * hiddenBit) return readDouble(from, end, value);
        value = static_cast<double>(number);
        return at;
    }
    U64 digits = 0;
    if (whole + places <= 16) [[likely]] {
        // Moves the digits before the point one place up, and so over the point.
        __m128i const fraction = lastDigits(places);
        __m128i const rest = _mm_andnot_si128(fraction, lastDigits(whole + places));
        digits = sixteenDigits(
            _mm_or_si128(_mm_and_si128(loadSixteen(at - 16), fraction), _mm_and_si128(loadSixteen(at - 17), rest)));
    } else if (places <= 16) {
        if (whole + places > 19) [[unlikely]]  // 19 digits fit into U64
            return readDouble(from, end, value);
        digits = digitsBefore(from + whole, whole) * integerPowers[places] + digitsBefore(at, places);
    } else {
        U64 const first = digitsBefore(at - 16, places - 16);
        if (!isBelowOne || first > 999) [[unlikely]]
            return readDouble(from, end, value);
        digits = first * integerPowers[16] + digitsBefore(at, 16);
    }
    if (isBelowOne && places > 4 && digits < integerPowers[places - 4]) [[unlikely]]
        return readDouble(from, end, value);  // below 1e-4, a canonical text has an exponent
    // For these decimals the quotient is right: see asMillionths(); and up to 15 digits always read back.
    double const quotient = static_cast<double>(static_cast<std::int64_t>(digits)) / exactPowers[places];
    if (digits < 1000000000000000ul || (places <= 6 && digits < 4000000000000000ul && quotient < 4.5e9)) [[likely]] {
        value = quotient;
        return at;
    }
    return readLongDecimal(from, end, value, digits, places, at);
}

}  // namespace

char const* readUnsignedInside(char const* from, char const* end, U64 most, U64& value) {
    auto const left = static_cast<std::size_t>(end - from);
    U64 others = 0;
    if (left >= 16) [[likely]]
        others = othersOf(from) | 1 << 16;
    else
        others = (othersOf(end - 16) | 1 << 16) >> (16 - left);
    auto const count = static_cast<std::size_t>(std::countr_zero(others));
    if (count - 1 > 14) [[unlikely]]
        return count == 0 ? nullptr : readLongUnsigned(from, end, most, value);
    if (*from == '0') [[unlikely]] {
        value = 0;
        return from + 1;
    }
    U64 const number = digitsBefore(from + count, count);
    value = number;
    return number <= most ? from + count : nullptr;
}

#else

char const* readUnsignedInside(char const* from, char const* end, U64 most, U64& value) {
    if (from == end || !isDigit(*from)) return nullptr;
    if (*from != '0') return readLongUnsigned(from, end, most, value);
    value = 0;
    return from + 1;
}

namespace {
char const* readLongDoubleInside(char const* from, char const* end, double& value) {
    return readDouble(from, end, value);
}
}  // namespace

#endif

// Reads a decimal of up to seven bytes, as people choose them. All others are left to the functions above.
char const* readDoubleInside(char const* from, char const* end, double& value) {
    if (from == end) return nullptr;
    U64 const bytes = loadUpToEight(from, end);
    U64 const digits = bytes ^ 0x3030303030303030ul;
    // The top bit of each byte that is no digit. The first two are right, if the first byte is a point.
    U64 const others = ((digits + 0x7676767676767676ul) | digits) & 0x8080808080808080ul;
    U64 const later = others & (others - 1);
    if (later == 0) return readLongDoubleInside(from, end, value);
    auto const pointBit = static_cast<unsigned>(std::countr_zero(others));
    auto const stopBit = static_cast<unsigned>(std::countr_zero(later));
    unsigned const places = (stopBit - pointBit) / 8 - 1;
    // Returns the byte whose top bit this is. Both places may be behind the text, where only `bytes` can be read.
    auto const byteOf = [bytes](unsigned bit) { return static_cast<char>(bytes >> (bit - 7)); };
    bool const isPadded =
        (byteOf(stopBit - 8) == '0' && places != 1) || (*from == '0' && (pointBit != 15 || places > 4));
    if (pointBit == 7 || places == 0 || byteOf(pointBit) != '.' || isPadded || byteOf(stopBit) == 'e') [[unlikely]]
        return readLongDoubleInside(from, end, value);
    // Moves the digits behind the point over it, and all of them to the end of the word.
    U64 const whole = (U64(1) << (pointBit - 7)) - 1;
    U64 const joined = (digits & whole) | ((digits >> 8) & ~whole);
    value = static_cast<double>(static_cast<std::int64_t>(eightDigits(joined << ((15 - stopBit) & 63)))) /
            exactPowers[places];
    return from + stopBit / 8;
}

}  // namespace Vel::Scan
