#pragma once

#include "Mox/IdSet.h"

#include <string>

namespace Tool {

// The set drawn, a character for each id below its size, so many in a row. Rows that are all empty, or all full, are
// one line. REQUIRES: perRow is a power of two from 8 up.
std::string pictureOf(Mox::IdSet const& set, unsigned perRow);

}  // namespace Tool
