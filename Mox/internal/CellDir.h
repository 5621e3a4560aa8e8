#pragma once

#include "Mox/Cell.h"

#include <string_view>

namespace Cell {

// Of the directory below which the process's status is, and the database.
std::string_view systemName();

// The process's status, made on first use; null when something else stands at its place.
VEL_API Vel::Ptr<Status> cellDir();

}  // namespace Cell
