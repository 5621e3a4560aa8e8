#pragma once

#include "tools/lib/Output.h"

namespace Tool {

// What the lines of a drawn tree begin with.
struct Branches {
    char const *branch, *lastBranch;  // of the node itself
    char const *beside, *below;       // of what is below it; `below`: it is the last one
};

inline Branches const& branches(bool asciiOnly) {
    static constexpr Branches lines = {"├─ ", "└─ ", "│  ", "   "};
    static constexpr Branches ascii = {"|-- ", "`-- ", "|   ", "    "};
    return asciiOnly || !isUtf8() ? ascii : lines;
}

}  // namespace Tool
