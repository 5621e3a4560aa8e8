#pragma once

#include "Vel/GenericIf.h"

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

// The names among `known` that somebody who wrote `name` may have meant, the likeliest first, at most three.
std::vector<std::string> nearest(std::string_view name, std::vector<std::string> const& known);

// "A", "A or B", "A, B or C"
std::string alternatives(std::vector<std::string> const& names);

// The type of that name. Throws Failure (bad usage), with the nearest names, when there is none.
Vel::VelType typeNamed(std::string_view name);

std::string fingerprintText(Vel::U64 fingerprint);  // 16 hexadecimal digits
std::vector<std::string> moduleNames();
std::vector<std::string> typeNames();

}  // namespace Tool
