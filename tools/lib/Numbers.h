#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace Tool {

// Parses a whole number. Returns nothing if the text has other characters, or if the number does not fit into N.
template <class N> std::optional<N> numberFrom(std::string_view text) {
    N number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace Tool
