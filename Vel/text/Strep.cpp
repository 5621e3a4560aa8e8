#include "Vel/text/Strep.h"

#include "Vel/text/Scalar.h"

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
    if (used != 0) std::memcpy(bytes, begin_, used);
    release();
    begin_ = bytes;
    at_ = bytes + used;
    end_ = bytes + wanted;
}

void StrepOut::release() {
    if (begin_ != given_) std::free(begin_);
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

// Reads the escape behind a backslash. Returns its byte, or -1 if writeString() never writes such an escape.
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

namespace {

template <class T> String textOf(T value) {
    char text[Scalar<T>::maxText];
    return String(text, static_cast<std::size_t>(Scalar<T>::write(text, value) - text));
}

}  // namespace

String unsignedToStrep(U64 value) { return textOf(value); }
String boolToStrep(bool value) { return textOf(value); }
String valueToStrep(U1 value) { return textOf(value); }
String valueToStrep(double value) { return textOf(value); }
String valueToStrep(Seconds value) { return textOf(value); }

String valueToStrep(String const& value) {
    StrepOut out;
    out.endIs(Scalar<String>::write(out.room(Scalar<String>::roomFor(value)), value));
    return out.str();
}

// --- parsing ---

namespace {

// Returns the text at `it`, cut for an error message.
String excerpt(String::IteratorConst const& it, String::IteratorConst const& end) {
    constexpr std::ptrdiff_t most = 24;
    if (it == end) return "at the end of the text";
    auto const left = end - it;
    StrepOut out;
    auto const shown = static_cast<std::size_t>(std::min(left, most));
    out.endIs(Scan::writeString(out.room(2 + 4 * shown), {it.charPtr(), shown}));
    return "at " + out.str() + (left > most ? "..." : "");
}

template <class T> T scalarAt(String::IteratorConst& it, String::IteratorConst const& end) {
    T value{};
    char const* const stop = Scalar<T>::read(it.charPtr(), end.charPtr(), value);
    if (!stop) throwParseException(it, end, Scalar<T>::expected);
    it.charPtrIs(stop);
    return value;
}

}  // namespace

void throwParseException(String::IteratorConst const& it, String::IteratorConst const& end, std::string_view what) {
    throw ParseException(format("expected %.*s at offset %zu, %s", static_cast<int>(what.size()), what.data(),
                             it.offset(), excerpt(it, end).charPtr()),
        it.offset());
}

U8 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U8*) { return scalarAt<U8>(it, end); }
U16 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U16*) {
    return scalarAt<U16>(it, end);
}
U32 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U32*) {
    return scalarAt<U32>(it, end);
}
U64 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U64*) {
    return scalarAt<U64>(it, end);
}
bool sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, bool*) {
    return scalarAt<bool>(it, end);
}
U1 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U1*) { return scalarAt<U1>(it, end); }
double sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, double*) {
    return scalarAt<double>(it, end);
}
Seconds sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, Seconds*) {
    return scalarAt<Seconds>(it, end);
}
String sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, String*) {
    return scalarAt<String>(it, end);
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
