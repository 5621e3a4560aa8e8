#pragma once

#include <string>
#include <vector>

namespace Tool {

// Loads libraries of further types. Warns about a library that has no types, and then returns the exit code
// somethingWrong. Throws Failure (bad usage) if a library cannot be loaded.
int loadModules(std::vector<std::string> const& paths);

}  // namespace Tool
