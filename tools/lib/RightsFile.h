#pragma once

#include "Mount/Rights.h"

#include <memory>
#include <string>

namespace Tool {

// Reads a file of rights; "-" means standard input. If something in it is wrong, shows each mistake with its place, and
// throws Failure (bad usage).
std::shared_ptr<Mount::Rights> readRights(std::string const& file);

}  // namespace Tool
