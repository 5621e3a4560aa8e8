#pragma once

#include <string>
#include <vector>

namespace Tool {

// Loads libraries of further types. Returns the exit code: a library that brings no types is worth a warning.
// Throws Failure (bad usage) for one that cannot be loaded.
int loadModules(std::vector<std::string> const& paths);

}  // namespace Tool
