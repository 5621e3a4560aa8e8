#pragma once

#include "tools/lib/Answers.h"
#include "tools/lib/EntityTree.h"

#include <cstdint>
#include <optional>

namespace Tool {

// Draws `top` and what is below it, with types and values; long values are shortened. depth: levels below the first.
void drawEntities(Answers& answers, EntityTree const& tree, EntityTree::Node& top, bool asciiOnly,
    std::optional<std::uint64_t> depth = {});

}  // namespace Tool
