#pragma once

#include "Vel/describe/Value.h"

#include <version>

// Makes std::format("{}", value) write the text form of every described value type, with the fill, width and precision
// of a text. Texts of up to 512 bytes are collected on the stack, so that nothing is allocated. Does nothing if the
// standard library has no std::format. Not a part of Value.h, since <format> is a large header.
#if __has_include(<format>) && defined(__cpp_lib_format)

#include <format>

template <Vel::DescribedValue T> struct std::formatter<T> : std::formatter<std::string_view> {
    template <class Context> auto format(T const& value, Context& context) const {
        Vel::StrepOut out;
        out << value;
        return std::formatter<std::string_view>::format(out.view(), context);
    }
};
template <> struct std::formatter<Vel::String> : std::formatter<std::string_view> {};

#endif
