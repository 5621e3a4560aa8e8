#pragma once

#include "Mox/Cell.h"

namespace Cell {

// The process's status, made on first use; null when something else stands at its place.
VEL_API Vel::Ptr<Status> cellDir();

}  // namespace Cell
