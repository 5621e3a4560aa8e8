#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Tool {

// Calls `make` in a child process, and returns its text. Returns nothing if `make` throws, or if it breaks a
// precondition, which aborts the child. The child's output is discarded. REQUIRES: the process has one thread.
std::optional<std::string> isolated(std::function<std::string()> const& make);

}  // namespace Tool
