#pragma once

#include "tools/lib/Output.h"

namespace Tool {

// The beginnings of the lines of a drawn tree.
struct Branches {
    char const *branch, *lastBranch;  // before a node; the second one if it is the last of its parent
    char const *beside, *below;       // before the nodes below it; the second one if it is the last of its parent
};

inline Branches const& branches(bool asciiOnly) {
    static constexpr Branches lines = {"├─ ", "└─ ", "│  ", "   "};
    static constexpr Branches ascii = {"|-- ", "`-- ", "|   ", "    "};
    return asciiOnly || !isUtf8() ? ascii : lines;
}

}  // namespace Tool
