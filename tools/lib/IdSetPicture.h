#pragma once

#include "Mox/IdSet.h"

#include <string>

namespace Tool {

// Draws the set with a character for each id below its size, `perRow` ids in a row. Consecutive rows that are all
// empty, or all full, become one line. REQUIRES: perRow is a power of two, at least 8.
std::string pictureOf(Mox::IdSet const& set, unsigned perRow);

}  // namespace Tool
