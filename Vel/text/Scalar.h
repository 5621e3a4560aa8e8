#pragma once

#include "Vel/base/String.h"
#include "Vel/base/Types.h"
#include "Vel/text/NboAttrLog.h"
#include "Vel/text/Scan.h"

#include <bit>
#include <string_view>

// The types of values that need no description. Scalar<T> has what a description has for other types:
//
//     name         the type's name, in tables and messages
//     expected     what a parser's error says it expected
//     width        bytes in the attribute log; for a string, those of its length
//     hasFixedWidth, isOrdered, isHashable
//     maxText      room for the longest text, in bytes; if 0, roomFor(value) returns the room for one value
//     write, read  write and parse the text, like the functions of Scan.h
//     readInside   the same as read, where Scan::roomBefore bytes before the text may be read; a scalar may leave it out
//     next         reads one value from the attribute log
//     store, load  write and read `width` bytes, if hasFixedWidth; load returns whether store writes such bytes
//     size         bytes of one value in the attribute log, if not hasFixedWidth
//
// No other code in Vel distinguishes between scalar types.
namespace Vel {

template <class T> struct Scalar;
template <class T>
concept ScalarValue = requires {
    Scalar<T>::width;
};

namespace Detail {

template <class T> struct UnsignedScalar {
    static constexpr std::size_t width = sizeof(T), maxText = Scan::maxUnsigned;
    static constexpr bool hasFixedWidth = true, isOrdered = true, isHashable = true;

    static char* write(char* to, T value) { return Scan::writeUnsigned(to, value); }
    static char const* read(char const* from, char const* end, T& value) {
        return Scan::readUnsigned(from, end, value);
    }
    static char const* readInside(char const* from, char const* end, T& value) {
        return Scan::readUnsignedInside(from, end, value);
    }
    static void store(U8* to, T value) { NboAttrLog::store(to, value); }
    static bool load(U8 const* from, T& value) {
        value = NboAttrLog::load<T>(from);
        return true;
    }
};

// A scalar T that has the text and the bytes of another scalar S, and converts to and from S.
template <class T, class S> struct ScalarLike : Scalar<S> {
    static char* write(char* to, T value) { return Scalar<S>::write(to, static_cast<S>(value)); }
    static char const* read(char const* from, char const* end, T& value) {
        S stored{};
        from = Scalar<S>::read(from, end, stored);
        value = stored;
        return from;
    }
    static char const* readInside(char const* from, char const* end, T& value) {
        S stored{};
        from = Scalar<S>::readInside(from, end, stored);
        value = stored;
        return from;
    }
    static void store(U8* to, T value) { Scalar<S>::store(to, static_cast<S>(value)); }
    static bool load(U8 const* from, T& value) {
        S stored{};
        bool const good = Scalar<S>::load(from, stored);
        value = stored;
        return good;
    }
    static T next(NboAttrLog::In& in) { return Scalar<S>::next(in); }
};

}  // namespace Detail

template <> struct Scalar<bool> {
    static constexpr std::string_view name = "bool", expected = "True or False";
    static constexpr std::size_t width = 1, maxText = Scan::maxBool;
    static constexpr bool hasFixedWidth = true, isOrdered = false, isHashable = false;

    static char* write(char* to, bool value) { return Scan::writeBool(to, value); }
    static char const* read(char const* from, char const* end, bool& value) { return Scan::readBool(from, end, value); }
    static char const* readInside(char const* from, char const* end, bool& value) { return read(from, end, value); }
    static void store(U8* to, bool value) { *to = value ? 1 : 0; }
    static bool load(U8 const* from, bool& value) {
        value = *from != 0;
        return *from <= 1;
    }
    static bool next(NboAttrLog::In& in) { return in.nextbool(); }
};
template <> struct Scalar<U1> : Detail::ScalarLike<U1, bool> { static constexpr std::string_view name = "U1"; };

template <> struct Scalar<U8> : Detail::UnsignedScalar<U8> {
    static constexpr std::string_view name = "U8", expected = "a number from 0 to 255";
    static U8 next(NboAttrLog::In& in) { return in.nextU8(); }
};
template <> struct Scalar<U16> : Detail::UnsignedScalar<U16> {
    static constexpr std::string_view name = "U16", expected = "a number from 0 to 65535";
    static U16 next(NboAttrLog::In& in) { return in.nextU16(); }
};
template <> struct Scalar<U32> : Detail::UnsignedScalar<U32> {
    static constexpr std::string_view name = "U32", expected = "a number from 0 to 4294967295";
    static U32 next(NboAttrLog::In& in) { return in.nextU32(); }
};
template <> struct Scalar<U64> : Detail::UnsignedScalar<U64> {
    static constexpr std::string_view name = "U64", expected = "a number from 0 to 18446744073709551615";
    static U64 next(NboAttrLog::In& in) { return in.nextU64(); }
};

template <> struct Scalar<F64> {
    static constexpr std::string_view name = "F64", expected = "the shortest decimal of a double, such as 1.5";
    static constexpr std::size_t width = 8, maxText = Scan::roomForDouble;
    static constexpr bool hasFixedWidth = true, isOrdered = true, isHashable = false;

    static char* write(char* to, F64 value) { return Scan::writeDouble(to, value); }
    static char const* read(char const* from, char const* end, F64& value) {
        return Scan::readDouble(from, end, value);
    }
    static char const* readInside(char const* from, char const* end, F64& value) {
        return Scan::readDoubleInside(from, end, value);
    }
    static void store(U8* to, F64 value) { NboAttrLog::store(to, std::bit_cast<U64>(value)); }
    static bool load(U8 const* from, F64& value) {
        value = std::bit_cast<F64>(NboAttrLog::load<U64>(from));
        return true;
    }
    static F64 next(NboAttrLog::In& in) { return in.nextF64(); }
};
template <> struct Scalar<Seconds> : Detail::ScalarLike<Seconds, F64> {
    static constexpr std::string_view name = "Vel::Seconds",
                                      expected = "seconds as the shortest decimal of a double, such as 1.5";
    static constexpr bool isOrdered = false;
    static Seconds next(NboAttrLog::In& in) { return in.nextSeconds(); }
};

template <> struct Scalar<String> {
    static constexpr std::string_view name = "Vel::String", expected = "a string in single quotes";
    static constexpr std::size_t width = 4, maxText = 0;
    static constexpr bool hasFixedWidth = false, isOrdered = false, isHashable = false;

    static std::size_t roomFor(String const& value) { return 2 + 4 * value.length(); }
    static char* write(char* to, String const& value) { return Scan::writeString(to, value); }
    static char const* read(char const* from, char const* end, String& value) {
        return Scan::readString(from, end, value);
    }
    static String next(NboAttrLog::In& in) { return in.nextString(); }
    static std::size_t size(String const& value) { return width + value.length(); }
};

}  // namespace Vel
