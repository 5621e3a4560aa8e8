#pragma once

#include "Mox/IdSet.h"

#include <string>

namespace Tool {

// Calculates an expression such as "(1-9) minus @file or -": see "mox idset --help". All ids must be below `size`.
// Throws Failure (bad usage) for any mistake, also in a file.
Mox::IdSet idSetFrom(std::string const& expression, Vel::U16 size);

}  // namespace Tool
