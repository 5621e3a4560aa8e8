#include "Vel/Strep.h"

#include "Vel/internal/Scan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <new>

namespace Vel {

void StrepOut::grow(std::size_t more) {
    std::size_t const used = size();
    auto const capacity = static_cast<std::size_t>(end_ - begin_);
    if (more > SIZE_MAX / 2 - used) throw std::bad_alloc();
    std::size_t const wanted = std::max(2 * capacity, used + more);
    auto* const bytes = static_cast<char*>(std::malloc(wanted));
    if (!bytes) throw std::bad_alloc();
    std::memcpy(bytes, begin_, used);
    release();
    begin_ = bytes;
    at_ = bytes + used;
    end_ = bytes + wanted;
}

void StrepOut::release() {
    if (begin_ != inline_) std::free(begin_);
}

// --- doubles ---

namespace Scan {

namespace {

constexpr double powersOfTen[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6};
constexpr U64 fractionLimit = U64(1) << 52;

// Decimals with at most six places whose number of millionths is below 2^52 lie further apart than the doubles around
// them, so each such decimal is the shortest text of its double, and the double is the correctly rounded quotient of
// two exact integers. This covers every time stamp of this century to the microsecond.
// Returns the number of millionths; false when `value` is not such a decimal, or so small that it takes an exponent.
bool asMillionths(double value, U64& millionths) {
    if (!(value < 4.5e9)) return false;
    auto const scaled = static_cast<U64>(static_cast<std::int64_t>(value * 1e6 + 0.5));
    if (scaled >= fractionLimit || static_cast<double>(scaled) / 1e6 != value) return false;
    millionths = scaled;
    return scaled >= 100 || scaled == 0;
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

// The general case: the shortest digits come from the C++ library, laid out as Python's repr lays them out.
VEL_COLD char* writeDoubleSlow(char* to, double value) {
    char text[32];
    char const* const end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
    char const* const e = std::find(static_cast<char const*>(text), end, 'e');
    int exponent = 0;
    std::from_chars(e[1] == '+' ? e + 2 : e + 1, end, exponent);
    if (exponent < -4 || exponent >= 16) return std::copy(static_cast<char const*>(text), end, to);
    char digits[20];
    int count = 0;
    for (char const* at = text; at != e; ++at)
        if (*at != '.') digits[count++] = *at;
    if (exponent < 0) {
        *to++ = '0';
        *to++ = '.';
        to = std::fill_n(to, -exponent - 1, '0');
        return std::copy_n(digits, count, to);
    }
    for (int i = 0; i <= exponent || i < count; ++i) {
        if (i == exponent + 1) *to++ = '.';
        *to++ = i < count ? digits[i] : '0';
    }
    if (count <= exponent + 1) {
        *to++ = '.';
        *to++ = '0';
    }
    return to;
}

}  // namespace

char* writeDouble(char* to, double value) {
    if (std::isnan(value)) return std::copy_n("nan", 3, to);
    if (std::signbit(value)) {
        *to++ = '-';
        value = -value;
    }
    if (std::isinf(value)) return std::copy_n("inf", 3, to);
    U64 millionths = 0;
    if (!asMillionths(value, millionths)) return writeDoubleSlow(to, value);
    to = writeUnsigned(to, millionths / 1000000);
    *to++ = '.';
    return writeSixPlaces(to, static_cast<U32>(millionths % 1000000));
}

namespace {

// The general case: read by the C++ library, and accepted if the printer would have written the same.
VEL_COLD char const* readDoubleSlow(char const* from, char const* end, double& value) {
    char const* stop = from;
    while (stop != end && (isDigit(*stop) || std::strchr(".e+-infa", *stop)) && *stop) ++stop;
    double number = 0;
    auto const [at, error] = std::from_chars(from, stop, number);
    if (error != std::errc() && error != std::errc::result_out_of_range) return nullptr;
    char text[maxDouble];
    char const* const textEnd = writeDouble(text, number);
    if (at - from != textEnd - text || std::memcmp(from, text, static_cast<std::size_t>(textEnd - text)) != 0)
        return nullptr;
    value = number;
    return at;
}

}  // namespace

char const* readDouble(char const* from, char const* end, double& value) {
    char const* at = from;
    bool const negative = at != end && *at == '-';
    if (negative) ++at;
    char const* const whole = at;
    U64 number = 0;
    while (at != end && isDigit(*at) && at - whole < 10) number = number * 10 + static_cast<U64>(*at++ - '0');
    std::ptrdiff_t const wholeDigits = at - whole;
    if (wholeDigits == 0 || (*whole == '0' && wholeDigits > 1) || at == end || *at != '.')
        return readDoubleSlow(from, end, value);
    char const* const fraction = ++at;
    while (at != end && isDigit(*at) && at - fraction < 7) number = number * 10 + static_cast<U64>(*at++ - '0');
    std::ptrdiff_t const places = at - fraction;
    // The same decimals as the printer's quick case, in the same form; see asMillionths.
    bool const simple = places >= 1 && places <= 6 && (at == end || *at != 'e') && (at[-1] != '0' || places == 1) &&
                        number < 4000000000000000ul;
    if (!simple) return readDoubleSlow(from, end, value);
    double const magnitude = static_cast<double>(number) / powersOfTen[places];
    if (!(magnitude < 4.5e9) || (magnitude < 1e-4 && number != 0)) return readDoubleSlow(from, end, value);
    value = negative ? -magnitude : magnitude;
    return at;
}

// --- strings ---

char* writeString(char* to, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    *to++ = '\'';
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != '\'' && byte != '\\' && byte != 0x7F) {
            *to++ = c;
            continue;
        }
        *to++ = '\\';
        switch (c) {
        case '\'':
        case '\\':
            *to++ = c;
            break;
        case '\n':
            *to++ = 'n';
            break;
        case '\r':
            *to++ = 'r';
            break;
        case '\t':
            *to++ = 't';
            break;
        default:
            *to++ = 'x';
            *to++ = hex[byte >> 4];
            *to++ = hex[byte & 15];
        }
    }
    *to++ = '\'';
    return to;
}

namespace {

int hexDigit(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Reads what follows a backslash; -1 when the printer would not have written it.
int readEscape(char const*& at, char const* end) {
    if (at == end) return -1;
    switch (*at++) {
    case '\\':
        return '\\';
    case '\'':
        return '\'';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'x':
        break;
    default:
        return -1;
    }
    if (end - at < 2) return -1;
    int const high = hexDigit(at[0]);
    int const low = hexDigit(at[1]);
    if (high < 0 || low < 0) return -1;
    at += 2;
    int const byte = 16 * high + low;
    bool const control = byte < 0x20 || byte == 0x7F;
    return control && byte != '\n' && byte != '\r' && byte != '\t' ? byte : -1;
}

}  // namespace

char const* readString(char const* from, char const* end, String& value) {
    if (from == end || *from != '\'') return nullptr;
    char const* at = from + 1;
    std::size_t length = 0;
    bool escaped = false;
    for (;; ++length) {
        if (at == end) return nullptr;
        auto const byte = static_cast<unsigned char>(*at++);
        if (byte == '\'') break;
        if (byte < 0x20 || byte == 0x7F) return nullptr;
        if (byte == '\\') {
            escaped = true;
            if (readEscape(at, end) < 0) return nullptr;
        }
    }
    if (!escaped) {
        value = String(from + 1, length);
        return at;
    }
    value = String::withLength(length, [&](char* to) {
        char const* source = from + 1;
        for (std::size_t i = 0; i < length; ++i) {
            char const c = *source++;
            to[i] = c == '\\' ? static_cast<char>(readEscape(source, end)) : c;
        }
    });
    return at;
}

}  // namespace Scan

// --- printing ---

String unsignedToStrep(U64 value) {
    char text[Scan::maxUnsigned];
    return String(text, static_cast<std::size_t>(Scan::writeUnsigned(text, value) - text));
}

String boolToStrep(bool value) { return value ? String("True", 4) : String("False", 5); }
String valueToStrep(U1 value) { return boolToStrep(value); }

String valueToStrep(double value) {
    char text[Scan::maxDouble];
    return String(text, static_cast<std::size_t>(Scan::writeDouble(text, value) - text));
}

String valueToStrep(Seconds value) { return valueToStrep(value.value()); }

String valueToStrep(String const& value) {
    StrepOut out;
    out.endIs(Scan::writeString(out.room(2 + 4 * value.length()), value));
    return out.str();
}

// --- parsing ---

namespace {

// What stands at `it`, short enough for a message.
String excerpt(String::IteratorConst const& it, String::IteratorConst const& end) {
    constexpr std::ptrdiff_t most = 24;
    if (it == end) return "at the end of the text";
    auto const left = end - it;
    StrepOut out;
    auto const shown = static_cast<std::size_t>(std::min(left, most));
    out.endIs(Scan::writeString(out.room(2 + 4 * shown), {it.charPtr(), shown}));
    return "at " + out.str() + (left > most ? "..." : "");
}

template <class T, class Read>
T sequenceTo(String::IteratorConst& it, String::IteratorConst const& end, Read read, char const* what) {
    T value{};
    char const* const stop = read(it.charPtr(), end.charPtr(), value);
    if (!stop) throwParseException(it, end, what);
    it.charPtrIs(stop);
    return value;
}

}  // namespace

void throwParseException(String::IteratorConst const& it, String::IteratorConst const& end, std::string_view what) {
    throw ParseException(format("expected %.*s at offset %zu, %s", static_cast<int>(what.size()), what.data(),
                             it.offset(), excerpt(it, end).charPtr()),
        it.offset());
}

U8 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U8*) {
    return sequenceTo<U8>(it, end, Scan::readUnsigned<U8>, "a number from 0 to 255");
}
U16 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U16*) {
    return sequenceTo<U16>(it, end, Scan::readUnsigned<U16>, "a number from 0 to 65535");
}
U32 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U32*) {
    return sequenceTo<U32>(it, end, Scan::readUnsigned<U32>, "a number from 0 to 4294967295");
}
U64 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U64*) {
    return sequenceTo<U64>(it, end, Scan::readUnsigned<U64>, "a number from 0 to 18446744073709551615");
}
bool sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, bool*) {
    return sequenceTo<bool>(it, end, Scan::readBool, "True or False");
}
U1 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U1*) {
    return sequenceToValue(it, end, static_cast<bool*>(nullptr));
}
double sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, double*) {
    return sequenceTo<double>(it, end, Scan::readDouble, "the shortest decimal of a double, such as 1.5");
}
Seconds sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, Seconds*) {
    return sequenceTo<double>(it, end, Scan::readDouble, "seconds as the shortest decimal of a double, such as 1.5");
}
String sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, String*) {
    return sequenceTo<String>(it, end, Scan::readString, "a string in single quotes");
}

void needString(String::IteratorConst& it, String::IteratorConst const& end, char const* literal) {
    std::string_view const text(it.charPtr(), static_cast<std::size_t>(end - it));
    std::size_t const length = std::strlen(literal);
    if (!text.starts_with(std::string_view(literal, length)))
        throwParseException(it, end, "\"" + std::string(literal) + "\"");
    it += static_cast<std::ptrdiff_t>(length);
}

void strepToValueEnd(String const& s, String::IteratorConst const& it) {
    if (it != s.end()) throwParseException(it, s.end(), "the end of the text");
}

void rethrowFromDeserializeAttr(RangeException const& error, char const* attributeName) {
    auto const* const parse = dynamic_cast<ParseException const*>(&error);
    throw ParseException("attribute \"" + String(attributeName) + "\": " + error.text(), parse ? parse->offset() : 0);
}

}  // namespace Vel
