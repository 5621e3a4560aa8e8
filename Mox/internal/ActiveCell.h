#pragma once

#include "Mox/CellSource.h"

namespace Cell {

// Returns the active cell, resolved anew on each call. Sets `from`, unless it is null, to where the answer comes from.
CellId Cell_activeCellId(Source* from = nullptr);

}  // namespace Cell
