#pragma once

#include "Vel/describe/GenericIf.h"

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

// Returns up to three names of `known` that are like `name`, which may be mistyped, the most similar first.
std::vector<std::string> nearest(std::string_view name, std::vector<std::string> const& known);

// "A", "A or B", "A, B or C"
std::string alternatives(std::vector<std::string> const& names);

// Returns what an error appends to "there is no NAME": "; did you mean A or B?", or `otherwise` if no known name is
// similar. Without `otherwise` that is ", only A, B, C" with all known names, if there are any.
std::string orNearest(std::string_view name, std::vector<std::string> const& known, std::string const& otherwise);
std::string orNearest(std::string_view name, std::vector<std::string> const& known);

// Returns the type with this name. Throws Failure (bad usage), with similar names, if there is none.
Vel::VelType typeNamed(std::string_view name);

std::string fingerprintText(Vel::U64 fingerprint);  // 16 hexadecimal digits
std::vector<std::string> moduleNames();
std::vector<std::string> typeNames();

}  // namespace Tool
