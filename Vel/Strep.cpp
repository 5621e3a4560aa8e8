#include "Vel/Strep.h"

#include "Vel/Scan.h"

#include <algorithm>
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

namespace Scan {

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
    char text[Scan::roomForDouble];
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
