#pragma once

#include "Mox/CellSource.h"

namespace Cell {

// The active cell, resolved anew on each call. from: set to where the answer comes from, unless it is null.
CellId Cell_activeCellId(Source* from = nullptr);

}  // namespace Cell
