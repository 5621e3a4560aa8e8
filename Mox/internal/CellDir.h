#pragma once

#include "Mox/Cell.h"

#include <string_view>

namespace Cell {

// Name of the directory below the root that holds the process's status and the state database: "ql" by default.
std::string_view systemName();

// Returns the process's status, which is made on first use. Returns null if an entity of another type is at its path.
// What was found is kept until the system's name, the root or the system's directory changes, so that a further call
// needs no look-up.
VEL_API Vel::Ptr<Status> cellDir();

}  // namespace Cell
