#pragma once

#include "Vel/String.h"
#include "Vel/Types.h"

#include <string_view>

// The kinds of value that need no description.
namespace Vel {

// Name, width in the attribute log (bytes; of a string, without its characters) and conversion in the text template.
template <class T> struct Scalar;
template <> struct Scalar<U1> {
    static constexpr std::string_view name = "U1", conversion = "%s";
    static constexpr std::size_t width = 1;
};
template <> struct Scalar<bool> {
    static constexpr std::string_view name = "bool", conversion = "%s";
    static constexpr std::size_t width = 1;
};
template <> struct Scalar<U8> {
    static constexpr std::string_view name = "U8", conversion = "%u";
    static constexpr std::size_t width = 1;
};
template <> struct Scalar<U16> {
    static constexpr std::string_view name = "U16", conversion = "%u";
    static constexpr std::size_t width = 2;
};
template <> struct Scalar<U32> {
    static constexpr std::string_view name = "U32", conversion = "%u";
    static constexpr std::size_t width = 4;
};
template <> struct Scalar<U64> {
    static constexpr std::string_view name = "U64", conversion = "%lu";
    static constexpr std::size_t width = 8;
};
template <> struct Scalar<F64> {
    static constexpr std::string_view name = "F64", conversion = "%s";
    static constexpr std::size_t width = 8;
};
template <> struct Scalar<Seconds> {
    static constexpr std::string_view name = "Vel::Seconds", conversion = "%s";
    static constexpr std::size_t width = 8;
};
template <> struct Scalar<String> {
    static constexpr std::string_view name = "Vel::String", conversion = "%s";
    static constexpr std::size_t width = 4;
};
template <class T>
concept ScalarValue = requires {
    Scalar<T>::width;
};

}  // namespace Vel
