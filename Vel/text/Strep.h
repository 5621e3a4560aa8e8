#pragma once

#include "Vel/base/Exception.h"
#include "Vel/base/String.h"
#include "Vel/base/Types.h"

#include <concepts>
#include <cstring>
#include <string_view>

// The strep: a value's canonical text. It is a Python literal, so that any text form can be pasted into Python.
//
//     unsigned integer   decimal digits                          7
//     bool, U1           True or False                           True
//     double, Seconds    the shortest decimal that reads back     0.0  1700000000.125  1e+16  inf  nan
//                        to the same double, as Python's repr
//     String             in single quotes, with \\ \' \n \r \t    'it\'s'
//                        and \xNN for other control bytes; bytes
//                        from 0x80 up are not changed
//
// Parsers accept exactly what the printers write.
namespace Vel {

// Collects text; the first 512 bytes need no allocation, and clear() keeps the memory.
class VEL_API StrepOut {
public:
    StrepOut() = default;
    // Collects text in [first, last), and moves to memory of its own when there is no more room. The caller finds out by
    // view().data(). REQUIRES: the caller's memory outlives this object.
    StrepOut(char* first, char* last) : given_(first), begin_(first), at_(first), end_(last) {}
    StrepOut(StrepOut const&) = delete;
    StrepOut& operator=(StrepOut const&) = delete;
    ~StrepOut() { release(); }

    std::string_view view() const { return {begin_, size()}; }
    String str() const { return String(begin_, size()); }
    std::size_t size() const { return static_cast<std::size_t>(at_ - begin_); }
    void clear() { at_ = begin_; }

    StrepOut& operator<<(std::string_view text) {  // REQUIRES: `text` is not a part of this object's text
        if (text.empty()) return *this;            // its data may be null, which memcpy does not allow
        char* const to = room(text.size());
        std::memcpy(to, text.data(), text.size());
        at_ = to + text.size();
        return *this;
    }
    // Returns room for `size` bytes at the end. The caller writes there, and passes the end of its text to endIs().
    char* room(std::size_t size) {
        if (static_cast<std::size_t>(end_ - at_) < size) [[unlikely]]
            grow(size);
        return at_;
    }
    void endIs(char* end) { at_ = end; }  // REQUIRES: within the last room()

private:
    VEL_COLD void grow(std::size_t more);
    void release();

    char* given_ = inline_;  // is not freed here
    char* begin_ = inline_;
    char* at_ = inline_;
    char* end_ = inline_ + sizeof inline_;
    char inline_[512];
};

// Return the text of a scalar.
template <std::unsigned_integral T>
requires(!std::same_as<T, bool>) String valueToStrep(T value);
template <std::same_as<bool> B> String valueToStrep(B value);
template <std::signed_integral T> String valueToStrep(T value) = delete;  // would be converted to double
VEL_API String valueToStrep(U1 value);
VEL_API String valueToStrep(double value);
VEL_API String valueToStrep(Seconds value);
VEL_API String valueToStrep(String const& value);

// Parse one scalar at `it`, and move `it` behind it. The pointer only selects the type. Throw ParseException, whose
// text says what was expected and shows the place; then `it` does not move.
VEL_API U8 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U8*);
VEL_API U16 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U16*);
VEL_API U32 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U32*);
VEL_API U64 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U64*);
VEL_API bool sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, bool*);
VEL_API U1 sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, U1*);
VEL_API double sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, double*);
VEL_API Seconds sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, Seconds*);
VEL_API String sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, String*);

// Does the same as sequenceToValue(), for an attribute; the error names the attribute.
template <class T>
T deserializeAttr(String::IteratorConst& it, String::IteratorConst const& end, char const* attributeName);

// Consumes exactly `literal`, or throws ParseException.
VEL_API void needString(String::IteratorConst& it, String::IteratorConst const& end, char const* literal);

// Throws ParseException unless `it`, where a parser has stopped, is the end of `s`.
VEL_API void strepToValueEnd(String const& s, String::IteratorConst const& it);

// Throws a ParseException with the attribute's name and the text of `error`.
[[noreturn]] VEL_API VEL_COLD void rethrowFromDeserializeAttr(RangeException const& error, char const* attributeName);

// Throws a ParseException: expected WHAT at offset N, at '...'. The offset and the excerpt are those of `it`.
[[noreturn]] VEL_API VEL_COLD void throwParseException(
    String::IteratorConst const& it, String::IteratorConst const& end, std::string_view what);

VEL_API String unsignedToStrep(U64 value);
VEL_API String boolToStrep(bool value);

template <std::unsigned_integral T>
requires(!std::same_as<T, bool>) String valueToStrep(T value) { return unsignedToStrep(value); }
template <std::same_as<bool> B> String valueToStrep(B value) { return boolToStrep(value); }

template <class T>
T deserializeAttr(String::IteratorConst& it, String::IteratorConst const& end, char const* attributeName) {
    try {
        return sequenceToValue(it, end, static_cast<T*>(nullptr));
    } catch (RangeException const& error) {
        rethrowFromDeserializeAttr(error, attributeName);
    }
}

}  // namespace Vel
