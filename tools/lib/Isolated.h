#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Tool {

// The text that `make` returns, made in a child process; nothing when it throws, or breaks a precondition, which
// aborts. What the child prints goes nowhere. REQUIRES: the process has one thread.
std::optional<std::string> isolated(std::function<std::string()> const& make);

}  // namespace Tool
