#pragma once

#include "Vel/describe/GenericIf.h"

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

// The names among `known` that somebody who wrote `name` may have meant, the likeliest first, at most three.
std::vector<std::string> nearest(std::string_view name, std::vector<std::string> const& known);

// "A", "A or B", "A, B or C"
std::string alternatives(std::vector<std::string> const& names);

// What goes behind "there is no NAME": "; did you mean A or B?", or, when no name is near, `otherwise`; by default ",
// only A, B, C" with all that are known, if any are.
std::string orNearest(std::string_view name, std::vector<std::string> const& known, std::string const& otherwise);
std::string orNearest(std::string_view name, std::vector<std::string> const& known);

// The type of that name. Throws Failure (bad usage), with the nearest names, when there is none.
Vel::VelType typeNamed(std::string_view name);

std::string fingerprintText(Vel::U64 fingerprint);  // 16 hexadecimal digits
std::vector<std::string> moduleNames();
std::vector<std::string> typeNames();

}  // namespace Tool
