#pragma once

#include <cstddef>
#include <string_view>

// How a path falls into components: cut at "/" and "." where those do not stand first, so that a separator belongs to
// the component that it begins. "a/b.c" has the components "a", "/b" and ".c"; "a//b" has "a", "/" and "/b".
namespace Mox::Detail {

// Where the next component of `path` begins; npos when its first is its last.
inline std::size_t getSeparatorPos(std::string_view path) {
    static_assert('.' + 1 == '/' && '.' % 2 == 0);  // so that one comparison finds both
    for (std::size_t i = 1; i < path.size(); ++i)
        if ((path[i] | 1) == '/') return i;
    return std::string_view::npos;
}

struct PathStep {
    std::string_view head;  // the key of the first component, without the star that marks a mount point
    std::string_view rest;  // what follows, with its separator; empty after the last component
    bool last;
    bool starred;  // the first star of the path ends this component, or it is the last one

    explicit PathStep(std::string_view path) {
        auto const separator = getSeparatorPos(path);
        last = separator == std::string_view::npos;
        starred = last;
        head = path.substr(0, separator);
        if (last) return;
        rest = path.substr(separator);
        if (head.ends_with('*') && head.find('*') + 1 == head.size()) [[unlikely]] {
            head.remove_suffix(1);
            starred = true;
        }
    }
};

}  // namespace Mox::Detail
