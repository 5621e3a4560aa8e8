#pragma once

#include "Mox/internal/ShortText.h"

#include <bit>
#include <cstddef>
#include <string_view>

// Cuts a path into components. A component ends before the next "/" or ".", so a separator belongs to the component
// that it begins. "a/b.c" has the components "a", "/b" and ".c"; "a//b" has "a", "/" and "/b".
namespace Mox::Detail {

// Returns where the second component of `path` begins, or npos if there is only one.
[[gnu::always_inline]] inline std::size_t getSeparatorPos(std::string_view path) {
    static_assert('.' + 1 == '/' && '.' % 2 == 0);  // so that one comparison finds both
    std::size_t i = 1;
    // Looks at eight bytes at a time. The lowest byte of `different` that is 0 is the first separator; its high bit is
    // then the lowest bit of `found`.
    constexpr Vel::U64 ones = 0x0101010101010101ul;
    auto const separatorsIn = [](Vel::U64 word) {
        Vel::U64 const different = (word | ones) ^ (ones * '/');
        return (different - ones) & ~different & (ones * 0x80);
    };
    auto const byteOf = [](Vel::U64 found) { return static_cast<std::size_t>(std::countr_zero(found)) / 8; };
    if constexpr (std::endian::native == std::endian::little) {
        for (; i + 8 <= path.size(); i += 8)
            if (Vel::U64 const found = separatorsIn(Vel::wordAt<Vel::U64>(path.data() + i))) return i + byteOf(found);
        if (path.size() >= 8) {  // the bytes that were looked at are shifted out
            std::size_t const seen = i + 8 - path.size();
            Vel::U64 const last = Vel::wordAt<Vel::U64>(path.data() + path.size() - 8);
            Vel::U64 const found = seen == 8 ? 0 : separatorsIn(last >> 8 * seen);
            return found ? i + byteOf(found) : std::string_view::npos;
        }
    }
    for (; i < path.size(); ++i)
        if ((path[i] | 1) == '/') return i;
    return std::string_view::npos;
}

struct PathStep {
    std::string_view head;  // the first component, without the star at its end that marks a mount point
    std::string_view rest;  // the other components, with their separators; empty if there are none
    bool last;              // the first component is the only one
    bool starred;           // the component is the last one, or it ends with the first star of the path

    [[gnu::always_inline]] explicit PathStep(std::string_view path) {
        auto const separator = getSeparatorPos(path);
        last = separator == std::string_view::npos;
        starred = last;
        head = path.substr(0, separator);
        if (last) return;
        rest = path.substr(separator);
        if (head.back() == '*' && head.find('*') + 1 == head.size()) [[unlikely]] {
            head.remove_suffix(1);
            starred = true;
        }
    }
};

}  // namespace Mox::Detail
