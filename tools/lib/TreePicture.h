#pragma once

#include "tools/lib/Answers.h"
#include "tools/lib/EntityTree.h"

#include <cstdint>
#include <optional>

namespace Tool {

// Draws `top` and the entities below it, with types and values. Long values are shortened. depth: levels below `top`;
// all if it is empty.
void drawEntities(Answers& answers, EntityTree const& tree, EntityTree::Node& top, bool asciiOnly,
    std::optional<std::uint64_t> depth = {});

}  // namespace Tool
