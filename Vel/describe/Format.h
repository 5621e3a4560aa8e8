#pragma once

#include "Vel/describe/Value.h"

#include <version>

// std::format("{}", value) for every described value type, where the standard library has std::format: the text form,
// with the fill, width and precision of a text. Apart from Value.h, since <format> is a large header.
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
