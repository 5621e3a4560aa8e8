#pragma once

#include "Vel/base/Types.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

// A server whose readers may not all read everything, and whose rooms move between what some of them may read and what
// they may not. Each name, key and value is a token of its own. No reader may ever be sent a token that it could not
// have read at some time. When all is delivered, each copy is what its reader may read.
namespace RightsSimulation {

struct Step {
    unsigned what = 0;
    std::array<unsigned, 4> n{};
};
using History = std::vector<Step>;

History historyOf(Vel::U64 seed);
std::string textOf(History const& history);  // "2 7 1 0 4;11 0 30 0 0"
History historyFrom(std::string_view text);  // throws std::invalid_argument
std::string run(History const& history);     // returns what was violated; empty: nothing
History shrunk(History history);             // as few steps as can be that violate something. REQUIRES: these do

}  // namespace RightsSimulation
